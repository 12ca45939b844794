"""A simulated power module on its serial line.

It answers every query that a card knows, carries commands out on its unit, refuses what a module refuses (a wrong
check, an unknown command, a wrong length, a thing that is not possible now), and misbehaves as told. Replies mirror
the addresses of the query. It is a node of a sim.bus.Bus at the line's speed:

    module = gateway.module_line.attach(Module())
    module.data.Vin = [230, 231, 229]                # what it tells: sim.mdata
    module.unit.lock()                               # what it is: sim.unit
    module.fault("refuse", "CS", times=5, code="5")
    module.wait("CS").frame.data

or alone, behind a pseudo-terminal: `with Line(baud=9600) as line: line.path, line.module`, from a shell
`python3 -m sim.module --baud 9600`, which prints the device's name.

A command that is refused has no effect on the unit, whether the module refuses of its own accord or a fault orders it.
"""

import argparse
import collections
import random
import sys
import threading
import time

from sim import mlink
from sim.bus import SILENCE, Bus, Node
from sim.loop import Loop
from sim.mdata import LENGTHS, ModuleData
from sim.mlink import Frame, address, number
from sim.unit import Unit

BYPASS_UNIT = ord("8")
# Seconds from the end of a query to the first byte of the reply.
THINKING = (0.015, 0.025)

# A frame that the module took from the line: when its first byte began and its last one ended, the frame, its bytes.
Asked = collections.namedtuple("Asked", "number start time frame raw")
# What it put on the line, when, in answer to which number of `asked`.
Answered = collections.namedtuple("Answered", "number time raw")

# A command: data bytes that its query has (None: any number), the unit's part in it. The unit's part gets the data
# of the query and returns None or a refusal. Commands whose replies carry data have a length in mdata.LENGTHS.
Command = collections.namedtuple("Command", "length act", defaults=(0, None))


def _store(command):
    def act(unit, data):
        unit.settings[command] = data
    return act


COMMANDS = {
    "CB": Command(1, Unit.change_over),
    "CD": Command(0, Unit.delete),
    "CF": Command(None, _store("CF")),
    "CM": Command(2, _store("CM")),
    "CP": Command(2, Unit.turn_on),
    "CR": Command(8, lambda unit, data: unit.restore(number(data[:4]), number(data[4:]))),
    "CS": Command(4, lambda unit, data: unit.shut_down(number(data))),
    "CU": Command(0, Unit.release_bypass),
    "DC": Command(1, Unit.switch),
    "DE": Command(), "DS": Command(), "GE": Command(), "GI": Command(),
    "GM": Command(4),
    "GN": Command(), "RB": Command(), "RC": Command(), "RE": Command(), "RK": Command(), "RS": Command(),
    "RX": Command(),
    "SM": Command(8, _store("SM")),
    "ST": Command(12, Unit.set_clock),
    "SV": Command(None, _store("SV")),
    "TB": Command(3, Unit.start_test),
    "TC": Command(0, Unit.end_test),
}
FAMILIES = {command[0] for command in COMMANDS}


class Fault:
    """One way to misbehave: `make(frame)` turns the right reply into (delay in seconds, bytes) pairs."""

    def __init__(self, kind, commands, times, options):
        self.kind = kind
        self.left = times
        self._commands = commands
        self._make = getattr(self, "_" + kind)
        self._options = options

    def applies(self, command):
        return self.left != 0 and (self._commands is None or command in self._commands)

    def make(self, reply):
        if self.left is not None:
            self.left -= 1
        return self._make(reply, **self._options)

    @staticmethod
    def _silent(_reply):
        return []

    @staticmethod
    def _refuse(reply, code="5", flip=0):
        """A refusal in place of the reply; flip makes its check wrong."""
        refusal = Frame(reply.src, reply.dest, chr(mlink.NAK) + code, b"")
        return Fault._bad_check(refusal, flip) if flip else [(0, refusal.encode())]

    @staticmethod
    def _late(reply, delay=1.5):
        return [(delay, reply.encode())]

    @staticmethod
    def _bad_check(reply, flip=0x0101):
        raw = bytearray(reply.encode())
        raw[-5:-1] = mlink.nibbles(number(raw[-5:-1]) ^ flip, 4)
        return [(0, bytes(raw))]

    @staticmethod
    def _bad_etx(reply, byte=0x00):
        return [(0, reply.encode()[:-1] + bytes((byte,)))]

    @staticmethod
    def _wrong_length(reply, by=1):
        """A good frame whose data are longer (or shorter) than they should be."""
        data = reply.data + b"0" * by if by > 0 else reply.data[:by]
        return [(0, reply._replace(data=data).encode())]

    @staticmethod
    def _false_length(reply, by=1, to=None):
        """The length field lies, by so many or outright; the rest, check included, is as if it didn't."""
        raw = bytearray(reply.encode())
        raw[5:7] = mlink.nibbles(len(reply.data) + by if to is None else to, 2)
        return [(0, bytes(raw))]

    @staticmethod
    def _wrong_source(reply, source="5"):
        return [(0, reply._replace(src=address(source)).encode())]

    @staticmethod
    def _wrong_dest(reply, dest="D"):
        return [(0, reply._replace(dest=address(dest)).encode())]

    @staticmethod
    def _not_swapped(reply):
        """The addresses as they were in the query."""
        return [(0, reply._replace(src=reply.dest, dest=reply.src).encode())]

    @staticmethod
    def _wrong_command(reply, instead="RZ"):
        return [(0, reply._replace(command=instead).encode())]

    @staticmethod
    def _split(reply, at=(7,), pause=0.3):
        """In pieces, cut at the given offsets, with a pause before each but the first."""
        raw, parts, begin = reply.encode(), [], 0
        for i, end in enumerate((*((at,) if isinstance(at, int) else at), None)):
            parts.append((i * pause, raw[begin:end]))
            begin = end
        return parts

    @staticmethod
    def _garbage(reply, data=b"\x00\x55\xAA\xFF", pause=0.0):
        """Bytes in front of the reply."""
        return [(0, data), (pause, reply.encode())]

    @staticmethod
    def _truncated(reply, keep=20):
        return [(0, reply.encode()[:keep])]

    @staticmethod
    def _twice(reply):
        return [(0, reply.encode() * 2)]

    @staticmethod
    def _raw(_reply, data=b""):
        """These bytes and no others."""
        return [(0, data)]


class Module(Node):
    """A power module (see above) at an address "1" to "7", or the bypass unit at "8".

    data: what its replies tell. unit: how it behaves. model: called with the module before each reply, to bring both
    up to date. replies: data of a reply as bytes, by command, in place of what `data` gives; a function gets the
    query's frame. memory: what GM reads, four bytes by the four that are asked for. thinking: pause before a reply in
    seconds, or a pair between which it is drawn, with `seed` always the same ones. silent: dead to all queries.

    asked: every frame addressed to it, silent or not, bad checks and unknown commands included; answered: what it
    sent; heard_noise: bytes that were no frame. `keep` limits the three records to so many last entries.
    """

    def __init__(self, place="1", thinking=THINKING, name="module", keep=None, seed=None, now=time.monotonic):
        super().__init__(name)
        self.address = address(place)
        self.thinking = thinking
        self.data = ModuleData()
        self.unit = Unit(now)
        self.model = None
        self.replies = {}
        self.memory = {}
        self.silent = False
        self.asked = collections.deque(maxlen=keep)
        self.answered = collections.deque(maxlen=keep)
        self.heard_noise = collections.deque(maxlen=keep)
        self._number = 0
        self._faults = []
        self._hunter = mlink.Hunter(SILENCE, lenient=True)
        self._random = random.Random(seed)
        self._changed = threading.Condition()
        self._shown = self._image()

    # The line; in the loop's thread.

    def deliver(self, data, start, byte_time):
        for found in self._hunter.feed(data, start, byte_time):
            if found.frame is None:
                self.heard_noise.append(found.raw)
            elif found.frame.dest == self.address:
                self._take(found)

    def _take(self, found):
        asked = Asked(self._number, found.start, found.end, found.frame, found.raw)
        reply = None if self.silent else self.reply_to(found.frame)
        with self._changed:
            self._number += 1
            self.asked.append(asked)
            self._changed.notify_all()
        if reply is None:
            return
        parts = next((fault.make(reply) for fault in self._faults if fault.applies(found.frame.command)),
                     [(0, reply.encode())])
        when = found.end + self._pause()
        for delay, raw in parts:
            self.bus.loop.call_at(when + delay, lambda raw=raw: self._put(asked.number, raw))

    def _put(self, number_, raw):
        self.answered.append(Answered(number_, time.monotonic(), raw))
        self.send(raw)

    def _pause(self):
        if isinstance(self.thinking, (int, float)):
            return self.thinking
        return self._random.uniform(*self.thinking)

    # What it answers.

    def reply_to(self, query):
        """The right answer to a query, after its effects. While a fault makes it refuse or keep silent about this
        command, there are no effects."""
        code = self._refusal(query)
        if code is not None:
            return Frame(query.dest, query.src, chr(mlink.NAK) + code, b"")
        return Frame(query.dest, query.src, query.command, self._reply_data(query))

    def _refusal(self, query):
        if not query.checked:
            return "4"
        if query.command[0] not in FAMILIES:
            return "1"
        command = COMMANDS.get(query.command)
        if command is None:
            return "2"
        if command.length not in (None, len(query.data)):
            return "3"
        if command.act is None or self._kept_from_acting(query.command):
            return None
        self.unit.tick()
        try:
            return command.act(self.unit, query.data)
        except ValueError:
            return "3"  # no number where there should be one

    def _kept_from_acting(self, command):
        return next((fault.kind in ("refuse", "silent") for fault in self._faults if fault.applies(command)), False)

    def _reply_data(self, query):
        self.refresh()
        given = self.replies.get(query.command)
        if given is not None:
            return given(query) if callable(given) else bytes(given)
        if query.command == "GM":
            return self.memory.get(query.data, b"0000")
        if query.command == "DC":
            return b"0000" if self.address == BYPASS_UNIT else b""
        return self.data.encode(query.command) if query.command in LENGTHS else b""

    def refresh(self):
        """Brings the data up to date: by the model, and with what the unit has become since the last time."""
        self.unit.tick()
        if self.model is not None:
            self.model(self)
        image = self._image()
        if image != self._shown or self.model is not None:
            self._shown = image
            self.unit.show(self.data)

    def _image(self):
        unit = self.unit
        return (unit.mode, unit.testing, unit.bypass, unit.battery_low, unit.event, unit.shutdown_at is not None,
                unit.shutdown_imminent)

    # Misbehaving; for any thread.

    def fault(self, kind, command=None, times=1, **options):
        """From now on misbehaves in answers to a command (to several, if it is a list; to any, if None), `times`
        times (for good, if None). The first fault that applies wins.

        Kinds and their options: silent; refuse(code, flip); late(delay); bad_check(flip); bad_etx(byte);
        wrong_length(by); false_length(by, to); wrong_source(source); wrong_dest(dest); not_swapped;
        wrong_command(instead); split(at, pause); garbage(data, pause); truncated(keep); twice; raw(data).
        """
        commands = (command,) if isinstance(command, str) else command
        self._faults.append(Fault(kind, commands, times, options))

    def refuse(self, code, command=None, times=None):
        """Refuses with a code: a command or all, for good unless told otherwise."""
        self.fault("refuse", command, times, code=code)

    def clear_faults(self):
        """Healthy again."""
        self._faults = []
        self.silent = False

    # Listening; for any thread.

    def mark(self):
        """A place in the record of what was asked, for `since`."""
        with self._changed:
            return self._number

    def queries(self, command=None, since=0):
        """What was asked from a mark on: of a command, if given."""
        with self._changed:
            return [asked for asked in self.asked
                    if asked.number >= since and command in (None, asked.frame.command)]

    def commands_asked(self, since=0):
        """The commands of what was asked, in order."""
        return [asked.frame.command for asked in self.queries(since=since)]

    def wait(self, command=None, timeout=5.0, since=None, times=1):
        """Waits until a command (any, if None) has been asked so many times from a mark on (from now on, if None);
        returns the last of these. Raises AssertionError with what was asked instead."""
        since = self.mark() if since is None else since
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                found = [asked for asked in self.asked
                         if asked.number >= since and command in (None, asked.frame.command)]
                if len(found) >= times:
                    return found[times - 1]
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self._changed.wait(left)
        raise AssertionError("the module was not asked %s %d times within %g s; asked: %s" % (
            command or "anything", times, timeout, " ".join(self.commands_asked(since)) or "nothing"))


class Line:
    """A serial line with one module behind a pseudo-terminal, whose device name is `path`. `baud` 0 takes no time."""

    def __init__(self, baud=9600, module=None, loop=None):
        self._own_loop = loop is None
        self.loop = loop or Loop()
        self.bus = Bus(self.loop, baud=baud or 9600, speed=1 if baud else 0, name="module line", keep=1000,
                       hunter=mlink.Hunter)
        self.port = self.bus.pty("card")
        self.module = self.bus.attach(module or Module(keep=1000))

    @property
    def path(self):
        return self.port.path

    def close(self):
        self.bus.close()
        if self._own_loop:
            self.loop.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def main():
    """A module by itself, for a terminal, a bench or another program: until its standard input ends."""
    parser = argparse.ArgumentParser(prog="sim.module", description="a simulated power module behind a pty")
    parser.add_argument("--baud", type=int, default=9600, help="speed of the line, 0 for one that takes no time")
    parser.add_argument("--thinking", type=float, nargs=2, default=THINKING, metavar=("LEAST", "MOST"),
                        help="seconds between a query and its reply")
    options = parser.parse_args()
    with Line(options.baud, Module(thinking=tuple(options.thinking), keep=1000)) as line:
        print(line.path, flush=True)
        sys.stdin.read()


if __name__ == "__main__":
    main()
