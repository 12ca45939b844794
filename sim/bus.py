"""A serial bus on which every byte of one endpoint reaches all the others, at the bus's baud rate.

    with Loop() ...
    bus = Bus(loop)                      # 9600 baud, ten bits a byte
    port = bus.pty("A")                  # a pseudo-terminal for a real gateway: port.path
    bus.attach(Cabinet("B"))             # a simulated node
    seen = bus.wait(lambda h: h.frame and h.frame.command == "BS")

Every endpoint has its own transmitter: what it sends while it is still sending queues up behind, what two endpoints
send at the same time overlaps on the wire, and the overlap is kept in `collisions`. Bytes come out at their moment,
in pieces of one or two milliseconds. With speed 0 the bus takes no time at all.

All is recorded: `pieces` holds the bytes of each sender with the time on the wire, `heard` the frames and the noise
among them. Times are those of time.monotonic().
"""

import collections
import os
import random
import select
import threading
import time
import tty

from sim.frames import Hunter

BITS_PER_BYTE = 10
PIECE = 0.002
# Seconds of silence after which a simulated node gives up an unfinished frame, and the record does.
SILENCE = 0.050
RECORD_SILENCE = 1.0

# A stretch of bytes on the wire: who sent them, the start of the first byte, the end of the last.
Piece = collections.namedtuple("Piece", "sender data start end")
# A frame on the wire, or noise (frame is None); number is its place in `heard`.
Heard = collections.namedtuple("Heard", "number sender frame raw start end")
# Two senders at once: when it began, who was sending, who broke in.
Collision = collections.namedtuple("Collision", "time sender intruder")


class Node:
    """An endpoint that lives in this process. Override `deliver`; send with `send`; runs in the loop's thread."""

    def __init__(self, name):
        self.name = name
        self.bus = None

    def attached(self, bus):
        """Called once when the node is put on a bus."""
        self.bus = bus

    def deliver(self, data, start, byte_time):
        """Bytes that another endpoint sent: the first began at `start`, each took `byte_time` seconds."""

    def send(self, data):
        """Puts bytes on the wire as soon as this node's own earlier bytes are out."""
        self.bus.submit(self, data)

    def close(self):
        """Called when the bus closes."""


class PtyPort(Node):
    """A pseudo-terminal on the bus: the far side opens `path` as its serial port."""

    def __init__(self, name):
        super().__init__(name)
        self.master, self.slave = os.openpty()
        # The daemon sets the mode that it needs; until then nothing may echo. The slave stays open here, so that
        # a daemon's end is no hang-up.
        tty.setraw(self.slave)
        os.set_blocking(self.master, False)
        self.path = os.ttyname(self.slave)
        self.overruns = 0

    def attached(self, bus):
        super().attached(bus)
        bus.loop.add_reader(self.master, self.take)

    def take(self):
        """Puts on the bus what the far side has written."""
        if self.master is None:
            return
        try:
            data = os.read(self.master, 4096)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        if data:
            self.send(data)
        else:
            self.close()

    def deliver(self, data, start, byte_time):
        if self.master is None:
            return
        try:
            taken = os.write(self.master, data)
        except BlockingIOError:
            taken = 0
        # A port whose owner doesn't read loses bytes, like a UART.
        self.overruns += len(data) - taken

    def waiting(self):
        """True if the far side has sent bytes that the bus hasn't taken yet."""
        return bool(select.select([self.master], [], [], 0)[0])

    def settings(self):
        """termios settings of the port as the far side left them: the list that tcgetattr gives."""
        import termios
        return termios.tcgetattr(self.slave)

    def close(self):
        """Takes the device away: for the far side the line has hung up."""
        if self.master is not None:
            self.bus.loop.remove_reader(self.master)
            os.close(self.master)
            os.close(self.slave)
            self.master = self.slave = None


class _Transmitter:
    """What one endpoint has to send, and how far it is."""

    __slots__ = ("queue", "sent", "start", "free_at")

    def __init__(self):
        self.queue = bytearray()
        self.sent = 0
        self.start = 0.0
        self.free_at = 0.0


class Bus:
    """See above. `speed` multiplies the baud rate; 0 stands for a bus that takes no time. `keep` limits the record
    to that many last entries. `hunter` is the class that finds the frames for the record: for another protocol on
    the wire, its own."""

    def __init__(self, loop, baud=9600, speed=1.0, name="bus", keep=None, hunter=Hunter):
        self.loop = loop
        self.name = name
        self.baud = baud * speed
        self.byte_time = BITS_PER_BYTE / self.baud if speed else 0.0
        # Seconds of the line that come out at once.
        self.piece = PIECE
        self.endpoints = []
        self.collisions = collections.deque(maxlen=keep)
        self.pieces = collections.deque(maxlen=keep)
        self.heard = collections.deque(maxlen=keep)
        # Cleared for an endless run: bytes are carried, and nothing of them is kept.
        self.recording = True
        self.bytes_sent = 0
        self.spoiled = 0
        self._disturbed = 0.0
        self._random = None
        self._numbered = 0
        self._hunter_class = hunter
        self._hunters = {}
        self._transmitters = {}
        self._filters = []
        self._changed = threading.Condition()
        self._noise = Node("noise")
        self._noise.bus = self

    # Building the bus.

    def attach(self, node):
        """Puts an endpoint on the bus; returns it."""
        def add():
            self.endpoints.append(node)
            node.attached(self)
            return node
        return self.loop.invoke(add)

    def detach(self, node):
        """Takes an endpoint off the bus, as if its plug were pulled: what it sends from then on is lost. `attach` puts
        it back."""
        self.loop.invoke(lambda: self.endpoints.remove(node) if node in self.endpoints else None)

    def pty(self, name):
        """A new pseudo-terminal on the bus."""
        return self.attach(PtyPort(name))

    def close(self):
        """Closes all endpoints."""
        def end():
            for node in self.endpoints:
                node.close()
            self.endpoints = []
        self.loop.invoke(end)

    # Disturbing it.

    def noise(self, data, delay=0.0):
        """Bytes from nowhere, that all endpoints hear."""
        self.loop.invoke(lambda: self.loop.call_later(delay, lambda: self.submit(self._noise, data)))

    def add_filter(self, change):
        """From now on change(sender_name, data) decides what the others hear of each piece: data itself, other
        bytes, or none. Returns a function that takes the filter away. The record shows what was heard."""
        def remove():
            if change in self._filters:
                self._filters.remove(change)
        self.loop.invoke(self._filters.append, change)
        return lambda: self.loop.invoke(remove)

    def corrupt(self, sender, offset, value=0xFF, frames=1):
        """Flips bits in the byte at `offset` of the next transmissions of a sender (offset counts from the first
        byte that it sends after this call, or after a silence)."""
        state = {"at": 0, "left": frames, "last": 0.0}

        def change(name, data):
            now = time.monotonic()
            if name != sender or not state["left"]:
                return data
            if state["at"] and now - state["last"] > SILENCE:
                state["at"] = 0
            state["last"] = now
            where = offset - state["at"]
            state["at"] += len(data)
            if 0 <= where < len(data):
                data = bytearray(data)
                data[where] ^= value
                state["left"] -= 1
            return bytes(data)
        return self.add_filter(change)

    def drop(self, sender, count):
        """Loses the next `count` bytes of a sender."""
        state = {"left": count}

        def change(name, data):
            if name != sender or not state["left"]:
                return data
            n = min(state["left"], len(data))
            state["left"] -= n
            return data[n:]
        return self.add_filter(change)

    def disturb(self, percent, seed=None):
        """From now on flips one bit in so many of a hundred transmissions, chosen at random; 0 ends it. A frame that
        is sent in one go is one transmission."""
        self._random = random.Random(seed)
        self._disturbed = percent / 100

    def _spoil(self, data):
        data = bytearray(data)
        data[self._random.randrange(len(data))] ^= 1 << self._random.randrange(8)
        self.spoiled += 1
        return bytes(data)

    # Sending; in the loop's thread.

    def submit(self, node, data):
        """Bytes of an endpoint go on the wire."""
        if not data or node not in self.endpoints and node is not self._noise:
            return
        if self._disturbed and self._random.random() < self._disturbed:
            data = self._spoil(data)
        now = time.monotonic()
        if not self.byte_time:
            self._emit(node, bytes(data), now)
            return
        tx = self._transmitters.setdefault(node, _Transmitter())
        idle = not tx.queue
        tx.queue += data
        if idle:
            tx.start = max(now, tx.free_at)
            for other, its in self._transmitters.items():
                if other is not node and (its.queue or its.free_at > tx.start):
                    self.collisions.append(Collision(tx.start, other.name, node.name))
            self._schedule(node, tx)

    def _schedule(self, node, tx):
        left = len(tx.queue)
        n = min(left, max(1, round(self.piece / self.byte_time)))
        self.loop.call_at(tx.start + (tx.sent + n) * self.byte_time, lambda: self._tick(node, tx))

    def _tick(self, node, tx):
        done = int((time.monotonic() - tx.start) / self.byte_time + 1e-6) - tx.sent
        n = min(len(tx.queue), max(done, 1))
        data = bytes(tx.queue[:n])
        del tx.queue[:n]
        start = tx.start + tx.sent * self.byte_time
        tx.sent += n
        tx.free_at = tx.start + tx.sent * self.byte_time
        if tx.queue:
            self._schedule(node, tx)
        else:
            tx.sent = 0
        self._emit(node, data, start)

    def _emit(self, node, data, start):
        for change in list(self._filters):
            data = change(node.name, data)
        if not data:
            return
        if self.recording:
            self._record(node.name, data, start)
        for other in list(self.endpoints):
            if other is not node:
                other.deliver(data, start, self.byte_time)

    # Recording.

    def _record(self, sender, data, start):
        end = start + len(data) * self.byte_time
        self.bytes_sent += len(data)
        last = self.pieces[-1] if self.pieces else None
        if last is not None and last.sender == sender and start - last.end < 1e-6 and self.byte_time:
            self.pieces[-1] = Piece(sender, last.data + data, last.start, end)
        else:
            self.pieces.append(Piece(sender, data, start, end))
        hunter = self._hunters.get(sender)
        if hunter is None:
            hunter = self._hunters[sender] = self._hunter_class(RECORD_SILENCE)
        found = hunter.feed(data, start, self.byte_time)
        if not found:
            return
        with self._changed:
            for item in found:
                self.heard.append(Heard(self._numbered, sender, *item))
                self._numbered += 1
            self._changed.notify_all()

    # Listening; for any thread.

    def mark(self):
        """A place in the record, for `since`, behind all that has been written to the ports so far."""
        self.loop.invoke(lambda: [node.take() for node in list(self.endpoints) if isinstance(node, PtyPort)])
        with self._changed:
            return self._numbered

    def frames(self, since=0, sender=None, command=None):
        """Heard frames from a mark on, of a sender and a command if given."""
        with self._changed:
            return [h for h in self.heard if h.number >= since and h.frame is not None
                    and (sender is None or h.sender == sender) and (command is None or h.frame.command == command)]

    def noises(self, since=0):
        """Heard bytes that belong to no frame."""
        with self._changed:
            return [h for h in self.heard if h.number >= since and h.frame is None]

    def wait(self, wanted, timeout=5.0, since=None):
        """Waits for a Heard that `wanted` accepts, from a mark on (from now if None). `wanted` is a function, or a
        text "command" or "sender command". Raises AssertionError with the transcript if none comes."""
        if isinstance(wanted, str):
            wanted = _matcher(wanted)
        deadline = time.monotonic() + timeout
        with self._changed:
            begin = at = self._numbered if since is None else since
            while True:
                for heard in self.heard:
                    if heard.number >= at and wanted(heard):
                        return heard
                at = self._numbered
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self._changed.wait(left)
        raise AssertionError("not heard on %s within %g s; heard:\n%s" % (self.name, timeout, self.transcript(begin)))

    def quiet(self, duration, sender, since=None):
        """True if a sender stays silent for a duration in seconds (and was since a mark)."""
        begin = self.mark() if since is None else since
        time.sleep(duration)
        with self._changed:
            return not any(h.number >= begin and h.sender == sender for h in self.heard)

    def transcript(self, since=0, times=True):
        """The record as text: a line for each frame, and for each run of noise."""
        lines = []
        with self._changed:
            chosen = [h for h in self.heard if h.number >= since]
        origin = chosen[0].start if chosen else 0.0
        for h in chosen:
            shown = str(h.frame) if h.frame else "noise %s" % h.raw.hex(" ")
            stamp = "%9.4f %9.4f  " % (h.start - origin, h.end - origin) if times else ""
            lines.append("%s%-6s %s" % (stamp, h.sender, shown))
        return "\n".join(lines)


def _matcher(wanted):
    *sender, command = wanted.split(" ")
    return lambda h: (h.frame is not None and h.frame.command == command
                      and (not sender or h.sender == sender[0]))
