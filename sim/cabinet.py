"""A simulated cabinet card on the bus.

As a slave it answers like a healthy card: BN, BS and BI with its records, sent to everyone; SC, SI, CU, CH and UC
with an acknowledge to the asker; everything else with silence. `fault` makes it misbehave, `silent` makes it dead.
As a master it asks: `ask` waits for the answer, `send_frame` doesn't, `start_polling` polls a whole plant in the
background.

    b = bus.attach(Cabinet("B"))
    b.status.Ups.Vin = [230, 230, 230]
    b.fault("bad_crc", command="BS", times=2)
    reply = b.ask("A", "BN")
    [asked.frame.command for asked in b.asked]
"""

import collections
import threading

from sim import frames
from sim.bus import SILENCE, Node
from sim.frames import BROADCAST, Frame, Hunter
from sim.records import CabinetStatus, Handover, Identification, Nominal, StatusReply

DATA_COMMANDS = ("BN", "BS", "BI")
REPORTS = (*DATA_COMMANDS, "QT")
ACK_COMMANDS = ("SC", "SI", "CU", "CH", "UC")

# A frame that a node took from the bus, and when its last byte ended.
Asked = collections.namedtuple("Asked", "time frame")


class Fault:
    """One way to misbehave: `make(frame)` turns the right reply into (delay in seconds, bytes) pairs."""

    def __init__(self, kind, command, times, options):
        self.command = command
        self.left = times
        self._make = getattr(self, "_" + kind)
        self._options = options

    def applies(self, command):
        return self.left != 0 and self.command in (None, command)

    def make(self, reply):
        if self.left is not None:
            self.left -= 1
        return self._make(reply, **self._options)

    @staticmethod
    def _silent(reply):
        return []

    @staticmethod
    def _late(reply, delay=1.0):
        return [(delay, reply.encode())]

    @staticmethod
    def _bad_crc(reply, flip=0x0101):
        raw = bytearray(reply.encode())
        raw[-3] ^= flip >> 8
        raw[-2] ^= flip & 0xFF
        return [(0, bytes(raw))]

    @staticmethod
    def _bad_etx(reply, byte=0x00):
        return [(0, reply.encode()[:-1] + bytes((byte,)))]

    @staticmethod
    def _wrong_length(reply, by=1):
        """A good frame whose data are longer (or shorter) than they should be."""
        data = reply.data + b"\0" * by if by > 0 else reply.data[:by]
        return [(0, reply._replace(data=data).encode())]

    @staticmethod
    def _false_length(reply, by=1):
        """The length field lies; the rest, check word included, is as if it didn't."""
        raw = bytearray(reply.encode())
        raw[5:7] = ((len(reply.data) + by) & 0xFFFF).to_bytes(2, "big")
        return [(0, bytes(raw))]

    @staticmethod
    def _wrong_source(reply, source=0xE5):
        return [(0, reply._replace(src=source).encode())]

    @staticmethod
    def _wrong_dest(reply, dest=0xE5):
        return [(0, reply._replace(dest=dest).encode())]

    @staticmethod
    def _wrong_command(reply, instead="BX"):
        return [(0, reply._replace(command=instead).encode())]

    @staticmethod
    def _nak(reply, code="5", dest=0xEA):
        return [(0, Frame(reply.src, dest, chr(frames.NAK) + code, b"").encode())]

    @staticmethod
    def _split(reply, at=5, pause=0.5):
        raw = reply.encode()
        return [(0, raw[:at]), (pause, raw[at:])]

    @staticmethod
    def _garbage(reply, data=b"\x00\x55\xAA\xFF"):
        return [(0, data + reply.encode())]

    @staticmethod
    def _truncated(reply, keep=20):
        return [(0, reply.encode()[:keep])]

    @staticmethod
    def _twice(reply):
        return [(0, reply.encode() * 2)]


class Cabinet(Node):
    """A card at 0xEA to 0xED, given as letter or address.

    Records, read at each answer: `identification`, `nominal`, `status` (CabinetStatus), `idu`. `model`, if set, is
    called with the cabinet before each BN and BS answer to bring the records up to date. `turnaround` is the pause
    before an answer, in seconds. `asked` keeps what was addressed to the cabinet or to all, `overheard` the data
    that others reported to all.
    """

    def __init__(self, cabinet, turnaround=0.002, keep=None):
        self.address = frames.address(cabinet)
        self.letter = frames.letter(self.address)
        super().__init__(self.letter)
        self.turnaround = turnaround
        self.identification = Identification()
        self.nominal = Nominal()
        self.status = CabinetStatus()
        self.idu = 255
        self.model = None
        self.silent = False
        self.config = None
        self.asked = collections.deque(maxlen=keep)
        self.overheard = collections.deque(maxlen=keep)
        self._faults = []
        self._hunter = Hunter(SILENCE)
        self._listeners = []
        self._poller = None

    # The slave.

    def deliver(self, data, start, byte_time):
        for found in self._hunter.feed(data, start, byte_time):
            if found.frame is not None:
                self._take(found.frame, found.end)

    def _take(self, frame, when):
        for listener in list(self._listeners):
            listener(frame)
        if frame.dest not in (self.address, BROADCAST):
            return
        if frame.dest == BROADCAST and frame.command in REPORTS and frame.data:
            self.overheard.append(Asked(when, frame))
            return
        if frame.is_ack or frame.command[0] == chr(frames.NAK):
            return  # an answer, not a query
        self.asked.append(Asked(when, frame))
        if self.silent:
            return
        reply = self.reply_to(frame)
        if reply is None:
            return
        parts = [(0, reply.encode())]
        for fault in self._faults:
            if fault.applies(frame.command):
                parts = fault.make(reply)
                break
        for delay, raw in parts:
            self.bus.loop.call_at(when + self.turnaround + delay, lambda raw=raw: self.send(raw))

    def reply_to(self, frame):
        """The right answer to a frame that was addressed to this cabinet or to all, or None."""
        if frame.dest == BROADCAST:
            return None
        if frame.command in DATA_COMMANDS:
            return Frame(self.address, BROADCAST, frame.command, self.data_of(frame.command))
        if frame.command in ACK_COMMANDS:
            if frame.command == "SC":
                self.config = frame.data
            return Frame(self.address, frame.src, frame.command, bytes((frames.ACK,)))
        return None

    def data_of(self, command):
        """The data that this cabinet reports for BN, BS or BI at this moment."""
        if self.model is not None and command != "BI":
            self.model(self)
        if command == "BN":
            return self.nominal.pack()
        if command == "BI":
            return self.identification.pack()
        return StatusReply(box=self.status, idu=self.idu).pack()

    def fault(self, kind, command=None, times=1, **options):
        """From now on misbehaves in answers to a command (to any, if None), `times` times (for good, if None).

        Kinds and their options: silent; late(delay); bad_crc(flip); bad_etx(byte); wrong_length(by);
        false_length(by); wrong_source(source); wrong_dest(dest); wrong_command(instead); nak(code, dest);
        split(at, pause); garbage(data); truncated(keep); twice.
        """
        self._faults.append(Fault(kind, command, times, options))

    def clear_faults(self):
        """Healthy again."""
        self._faults = []
        self.silent = False

    def commands_asked(self, since=0):
        """The commands of the frames that were addressed to this cabinet or to all, in order, from an index on."""
        return [asked.frame.command for asked in list(self.asked)[since:]]

    # The master. These are for other threads than the loop's, but for the pollers.

    def send_frame(self, dest, command, data=b""):
        """Puts one frame on the bus; `dest` as a letter or an address."""
        self.send_raw(frames.encode(self.address, dest, command, data))

    def send_raw(self, data):
        """Puts bytes on the bus as they are."""
        self.bus.loop.invoke(self.send, data)

    def ask(self, dest, command, data=b"", timeout=3.0):
        """Sends a query and waits for the answer: the next frame of that node with this command, or its next NAK.
        Returns the Frame, or None if none comes in time."""
        wanted, nak = frames.address(dest), chr(frames.NAK)
        arrived, replies = threading.Event(), []

        def listen(frame):
            if frame.src == wanted and (frame.command == command or frame.command[0] == nak):
                replies.append(frame)
                arrived.set()
        self.bus.loop.invoke(self._listeners.append, listen)
        try:
            self.send_frame(dest, command, data)
            arrived.wait(timeout)
        finally:
            self.bus.loop.invoke(self._listeners.remove, listen)
        return replies[0] if replies else None

    def announce(self, command="BS"):
        """Broadcasts the cabinet's own data, as an answer would."""
        def tell():
            self.send(frames.encode(self.address, BROADCAST, command, self.data_of(command)))
        self.bus.loop.invoke(tell)

    def hand_over(self, next_master, build=-1, forced_on_bypass=-1, clocks=None, tft_time=0, suspended=(0, 0, 0, 0)):
        """Broadcasts CN: the node that is master next, the sender's build, the clock table. `clocks` maps cabinet
        letters to ClockEntry; the others are zero."""
        record = Handover(build=build, nextMaster=frames.address(next_master), bitStatus=forced_on_bypass & 3,
                          remoteTimeSuspended=suspended, TftTime=tft_time)
        for cabinet, entry in (clocks or {}).items():
            record.clocks[ord(cabinet) - ord("A")] = entry
        self.send_frame(BROADCAST, "CN", record.pack())

    def start_polling(self, cabinets, pause=0.005, timeout=0.3):
        """Polls BN and BS of the given cabinets (letters), round and round, in the background, as a master does: of
        itself too, if it is among them. Stop with stop_polling."""
        self._poller = _Poller(self, cabinets, pause, timeout)
        self.bus.loop.invoke(self._poller.begin)

    def stop_polling(self):
        """Ends the polling; a query under way is still answered."""
        poller, self._poller = self._poller, None
        if poller is not None:
            self.bus.loop.invoke(poller.end)


class _Poller:
    """The background master: one query after the other, each when the last is answered or given up."""

    def __init__(self, cabinet, order, pause, timeout):
        self._cabinet = cabinet
        self._plan = [(c, command) for c in order for command in ("BN", "BS")]
        self._at = 0
        self._pause = pause
        self._timeout = timeout
        self._timer = None
        self._awaited = None

    def begin(self):
        self._cabinet._listeners.append(self._seen)
        self._next()

    def end(self):
        self._timer.cancel()
        self._cabinet._listeners.remove(self._seen)

    def _next(self):
        cabinet = self._cabinet
        loop, byte_time = cabinet.bus.loop, cabinet.bus.byte_time
        who, command = self._plan[self._at]
        self._at = (self._at + 1) % len(self._plan)
        dest = frames.address(who)
        cabinet.send(frames.encode(cabinet.address, dest, command))
        if dest == cabinet.address:
            self._awaited = None
            reply = frames.encode(dest, BROADCAST, command, cabinet.data_of(command))
            after = 0.003 + frames.OVERHEAD * byte_time
            loop.call_later(after, lambda: cabinet.send(reply))
            self._timer = loop.call_later(after + len(reply) * byte_time + self._pause, self._next)
        else:
            self._awaited = (dest, command)
            self._timer = loop.call_later(self._timeout + 300 * byte_time, self._next)

    def _seen(self, frame):
        if self._awaited == (frame.src, frame.command):
            self._awaited = None
            self._timer.cancel()
            self._timer = self._cabinet.bus.loop.call_later(self._pause, self._next)
