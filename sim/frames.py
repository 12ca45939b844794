"""Frames of the cabinet bus.

A frame is STX, source, destination, two command characters, the data length (high byte first), the data, the check
word over everything between STX and itself (high byte first), ETX: ten bytes around the data.
"""

from collections import namedtuple

from sim.crc import crc16

STX = 0x02
ETX = 0x03
ACK = 0x06
NAK = 0x15
BROADCAST = 0xFF
NO_MASTER = 0xE0
FIRST_CABINET = 0xEA
FIRST_BOARD = 0x0A
HEAD = 7
OVERHEAD = 10
MAX_DATA = 1014

# Data bytes that each reply carries; 1 is an acknowledge.
REPLY_LENGTH = {"BN": 20, "BS": 268, "BI": 98, "CH": 1, "CU": 1, "GI": 64, "GS": 109, "GE": 30, "SC": 1, "SI": 1,
                "TB": 1, "UC": 1}


def address(cabinet):
    """Bus address of a cabinet given as a letter, or as the address already."""
    return FIRST_CABINET + ord(cabinet) - ord("A") if isinstance(cabinet, str) else cabinet


def letter(addr):
    """Letter of the cabinet with this bus address."""
    return chr(addr - FIRST_CABINET + ord("A"))


class Frame(namedtuple("Frame", "src dest command data")):
    """One frame; `command` is a text of two characters, code points 0 to 255."""

    __slots__ = ()

    def encode(self):
        """The bytes on the wire."""
        body = bytes((self.src, self.dest)) + self.command.encode("latin-1")
        body += len(self.data).to_bytes(2, "big") + self.data
        return bytes((STX,)) + body + crc16(body).to_bytes(2, "big") + bytes((ETX,))

    @property
    def is_ack(self):
        """True for an acknowledge: one data byte, ACK."""
        return self.data == bytes((ACK,))

    def __str__(self):
        shown = self.data[:16].hex(" ") + (" .." if len(self.data) > 16 else "")
        name = "".join(c if c.isprintable() else "\\x%02x" % ord(c) for c in self.command)
        return "%02X>%02X %s %d %s" % (self.src, self.dest, name, len(self.data), shown)


def frame(src, dest, command, data=b""):
    """A Frame from its fields; `src` and `dest` as `address` takes them."""
    return Frame(address(src), address(dest), command, bytes(data))


def encode(src, dest, command, data=b""):
    """The bytes of a frame."""
    return frame(src, dest, command, data).encode()


def parse(raw):
    """The Frame in `raw`, which has to be exactly one good frame; ValueError says what is wrong."""
    if len(raw) < OVERHEAD:
        raise ValueError("%d bytes are no frame" % len(raw))
    if raw[0] != STX:
        raise ValueError("no STX")
    length = int.from_bytes(raw[5:7], "big")
    if length != len(raw) - OVERHEAD:
        raise ValueError("length says %d, there are %d data bytes" % (length, len(raw) - OVERHEAD))
    if raw[-1] != ETX:
        raise ValueError("no ETX")
    told, right = int.from_bytes(raw[-3:-1], "big"), crc16(raw[1:-3])
    if told != right:
        raise ValueError("check word 0x%04X, should be 0x%04X" % (told, right))
    return Frame(raw[1], raw[2], raw[3:5].decode("latin-1"), bytes(raw[HEAD:-3]))


# What a hunter found: a good frame or a run of bytes that belong to none (frame None). The times are
# those of the first byte's start and the last byte's end, in the clock of whoever fed the hunter.
Found = namedtuple("Found", "frame raw start end")


class Hunter:
    """Finds frames in a stream that may begin anywhere and hold noise. Frames of another protocol with a head of the
    same size, too, in a subclass with a `_size` and a `_parse` of its own.

    Bytes that turn out to belong to no frame come back as a Found without a frame, in order. After a `silence`
    (seconds on the wire between two bytes) an unfinished frame is given up, so that a false STX in noise doesn't
    swallow the frames behind it.
    """

    def __init__(self, silence=None, max_data=MAX_DATA):
        self._silence = silence
        self._max_data = max_data
        self._bytes = bytearray()
        self._ends = []
        self._starts = []
        self._noise = 0

    def feed(self, data, start=0.0, byte_time=0.0):
        """Takes bytes in that began at `start` and lasted `byte_time` each; returns the list of what is complete."""
        found = []
        if self._bytes and self._silence is not None and start - self._ends[-1] > self._silence:
            found += self.flush()
        for i, byte in enumerate(data):
            self._bytes.append(byte)
            self._starts.append(start + i * byte_time)
            self._ends.append(start + (i + 1) * byte_time)
        self._scan(found)
        return found

    def flush(self):
        """Gives up the wait for the rest of a frame: what is held comes back as frames and noise."""
        found = []
        while self._noise < len(self._bytes):
            self._noise += 1
            self._scan(found)
        self._take_noise(found)
        return found

    @property
    def pending(self):
        """Bytes held that may still become a frame."""
        return len(self._bytes) - self._noise

    def _size(self, head):
        """Bytes of the frame with this head, None if there can't be one."""
        length = int.from_bytes(head[5:7], "big")
        return length + OVERHEAD if length <= self._max_data else None

    def _parse(self, raw):
        return parse(raw)

    def _scan(self, found):
        buf = self._bytes
        while self._noise < len(buf):
            at = self._noise
            if buf[at] != STX:
                self._noise += 1
                continue
            if len(buf) - at < HEAD:
                return
            size = self._size(buf[at:at + HEAD])
            if size is None:
                self._noise += 1
                continue
            if len(buf) - at < size:
                return
            try:
                good = self._parse(buf[at:at + size])
            except ValueError:
                self._noise += 1
                continue
            self._take_noise(found)
            found.append(Found(good, bytes(buf[:size]), self._starts[0], self._ends[size - 1]))
            self._drop(size)
        if self._noise and buf and self._noise == len(buf):
            self._take_noise(found)

    def _take_noise(self, found):
        if self._noise:
            n = self._noise
            found.append(Found(None, bytes(self._bytes[:n]), self._starts[0], self._ends[n - 1]))
            self._drop(n)

    def _drop(self, n):
        del self._bytes[:n], self._starts[:n], self._ends[:n]
        self._noise = 0
