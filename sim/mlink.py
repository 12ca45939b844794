"""Frames of the line between a card and its power module.

A frame is STX, source, destination, two command characters, the data length in two characters, the data, the check
value in four characters, ETX: twelve bytes around the data. Numbers travel as characters, one for each nibble, most
significant first, each 0x30 plus the nibble: 56 is "38", 12 is "0<".

The check value covers everything between STX and itself: for the command GI the plain sum of the bytes, for all others
the check word of the bus. A refusal has NAK in place of the first command character and its code as the second.
"""

from collections import namedtuple

from sim import frames
from sim.crc import crc16

STX = 0x02
ETX = 0x03
NAK = 0x15
# Source of the queries that a card makes on its own behalf; commands carry the letter of a cabinet.
CARD = 0x20
HEAD = 7
OVERHEAD = 12
MAX_DATA = 243

REFUSALS = {"1": "main command unknown", "2": "sub-command unknown", "3": "wrong data length", "4": "wrong check",
            "5": "not possible now", "6": "wrong PIN"}


def nibbles(value, width):
    """A number as so many characters."""
    if not 0 <= value < 16 ** width:
        raise ValueError("%d doesn't fit %d characters" % (value, width))
    return bytes(0x30 + (value >> 4 * (width - 1 - i) & 0xF) for i in range(width))


def number(chars):
    """The number in some characters; ValueError if one of them is none of the sixteen."""
    value = 0
    for char in bytes(chars):
        if not 0x30 <= char <= 0x3F:
            raise ValueError("0x%02X is no nibble" % char)
        value = value << 4 | char - 0x30
    return value


def address(place):
    """An address given as a character or as a number already."""
    return ord(place) if isinstance(place, str) else place


def check_value(body, command):
    """Check value over the bytes between STX and the check, in a frame of this command."""
    return sum(body) & 0xFFFF if command == "GI" else crc16(body)


class Frame(namedtuple("Frame", "src dest command data checked", defaults=(True,))):
    """One frame; `command` is a text of two characters, code points 0 to 255. `checked` is false for a received frame
    whose check value was wrong."""

    __slots__ = ()

    def encode(self):
        """The bytes on the wire."""
        body = bytes((self.src, self.dest)) + self.command.encode("latin-1") + nibbles(len(self.data), 2) + self.data
        return bytes((STX,)) + body + nibbles(check_value(body, self.command), 4) + bytes((ETX,))

    @property
    def refusal(self):
        """The code of a refusal, a character; None for any other frame."""
        return self.command[1] if ord(self.command[0]) == NAK else None

    def __str__(self):
        name = "".join(c if c.isprintable() else "\\x%02x" % ord(c) for c in self.command)
        shown = "".join(chr(c) if 0x20 <= c < 0x7F else "\\x%02x" % c for c in self.data)
        return "%02X>%02X %s %d %s%s" % (self.src, self.dest, name, len(self.data), shown,
                                         "" if self.checked else " (wrong check)")


def frame(src, dest, command, data=b""):
    """A Frame from its fields; addresses as characters or numbers, data as text or bytes."""
    data = data.encode("latin-1") if isinstance(data, str) else bytes(data)
    return Frame(address(src), address(dest), command, data)


def encode(src, dest, command, data=b""):
    """The bytes of a frame."""
    return frame(src, dest, command, data).encode()


def parse(raw, lenient=False):
    """The Frame in `raw`, which has to be exactly one frame; ValueError says what is wrong. A wrong check value is an
    error too, unless `lenient`: then the frame says so."""
    if len(raw) < OVERHEAD:
        raise ValueError("%d bytes are no frame" % len(raw))
    if raw[0] != STX:
        raise ValueError("no STX")
    length = number(raw[5:7])
    if length != len(raw) - OVERHEAD:
        raise ValueError("length says %d, there are %d data bytes" % (length, len(raw) - OVERHEAD))
    if raw[-1] != ETX:
        raise ValueError("no ETX")
    command = bytes(raw[3:5]).decode("latin-1")
    right = check_value(raw[1:-5], command)
    good = bytes(raw[-5:-1]) == nibbles(right, 4)
    if not good and not lenient:
        raise ValueError("check %s, should be %s" % (bytes(raw[-5:-1]).decode("latin-1"), nibbles(right, 4).decode()))
    return Frame(raw[1], raw[2], command, bytes(raw[HEAD:-5]), good)


class Hunter(frames.Hunter):
    """Finds frames of the module line in a stream, see frames.Hunter. A lenient one also takes frames whose check
    value is wrong."""

    def __init__(self, silence=None, lenient=False):
        super().__init__(silence)
        self._lenient = lenient

    def _size(self, head):
        try:
            length = number(head[5:7])
        except ValueError:
            return None
        return length + OVERHEAD if length <= MAX_DATA else None

    def _parse(self, raw):
        return parse(raw, self._lenient)
