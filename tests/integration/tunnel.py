"""Both ends of the tunnel, played by a simulated cabinet: what a card asks or orders of another cabinet's module, and
what it answers for its own."""

import collections
import struct
import time

from sim import mlink
from sim.cabinet import Cabinet
from sim.frames import BROADCAST, Frame

# A reply to a tunnelled query: time stamp and frame of the module line.
Reply = collections.namedtuple("Reply", "stamp frame raw")
MODULE = "1"


def unpack(frame):
    """The Reply in the data of a QT answer."""
    return Reply(struct.unpack("<i", frame.data[:4])[0], mlink.parse(frame.data[4:]), frame.data[4:])


def pack(stamp, frame):
    """The data of a QT answer."""
    return struct.pack("<i", stamp) + frame.encode()


class TunnelCabinet(Cabinet):
    """A cabinet whose card answers QT too: it acknowledges every command at once. `orders` are the frames of the module
    line that came in. As a master it asks for what is a module's with ask_module."""

    def __init__(self, cabinet, turnaround=0.002):
        super().__init__(cabinet, turnaround)
        self.orders = []

    def reply_to(self, frame):
        if frame.command != "QT" or frame.dest != self.address:
            return super().reply_to(frame)
        query = mlink.parse(frame.data)
        self.orders.append(query)
        answer = mlink.frame(query.dest, query.src, query.command)
        return Frame(self.address, BROADCAST, "QT", pack(int(time.time()), answer))

    def ask_module(self, letter, command, data=b"", dest=MODULE, timeout=3.0):
        """Asks a cabinet's card for something of its module; returns the Reply, or None if there is none."""
        frame = self.ask(letter, "QT", mlink.encode(letter, dest, command, data), timeout)
        return None if frame is None else unpack(frame)

    def report_module(self, stamp, frame):
        """Broadcasts a reply of the tunnel as if somebody had asked for it."""
        self.send_frame(BROADCAST, "QT", pack(stamp, frame))
