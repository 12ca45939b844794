#!/usr/bin/python3
"""Four real gateways, each with its module, on one bus, under accelerated time: a long run.

    scripts/soak.sh [--exchanges N] [--minutes N] [--sample SECONDS] [--factor N] [--build DIR]

Neither the bus nor the module lines take time, and the gateways' clocks and waits run so many times as fast as the
machine's; a module keeps to the pace of the bus. It ends when every line has carried so many exchanges, or after so
many minutes, whichever is first. At each sample it prints the exchanges of each line, and of each gateway the resident
and the virtual memory, descriptors, threads, log lines and processor time. Exit status 1 if anything grew or drifted
after the first sample.
"""

import argparse
import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

from sim import frames, mlink  # noqa: E402
from sim.bus import Bus, Node  # noqa: E402
from sim.gateway import Gateway, default_build  # noqa: E402
from sim.loop import Loop  # noqa: E402
from sim.module import Module  # noqa: E402
from sim.plant import ModuleModel, Plant  # noqa: E402
from sim.sandbox import FastClock  # noqa: E402

LETTERS = "ABCD"
# The longest frame that the four send each other.
MOST_BYTES = 512
# What the allocator may still take from the system after the first sample, in bytes.
GROWTH = 512 * 1024
# A machine that keeps one of the programs waiting for too long makes an unanswered query, which is logged.
LOG_LINES = 100
STRANGE = 10
# New log lines of a gateway that a sample shows.
SHOWN = 10


class SteadyModule(Node):
    """A healthy module whose measures stand still: each query is answered with what a simulated module says to it the
    first time, at once where the bus has carried more exchanges than this line, otherwise with the bus's next one."""

    def __init__(self, model, counter):
        super().__init__("module")
        self._model = model
        self._counter = counter
        self._kept = None
        self._replies = {}
        self._begun = b""
        self.asked = self.answered = self.strange = 0

    def deliver(self, data, _start, _byte_time):
        query = self._begun + data
        reply = self._replies.get(query)
        if reply is None:
            try:
                frame = mlink.parse(query)
            except ValueError:
                # A query in two pieces; or, where this program was kept waiting too long, the next one on top of it.
                self._begun = query if len(query) < mlink.OVERHEAD else b""
                self.strange += not self._begun
                return
            reply = self._replies[query] = self._model.reply_to(frame).encode()
        self._begun = b""
        self.asked += 1
        self._kept = reply
        if self.asked <= self._counter.asked:
            self.go_on()
        else:
            self._counter.waiting.append(self)

    def go_on(self):
        """Sends what was kept."""
        if self._kept is not None:
            reply, self._kept = self._kept, None
            self.send(reply)
            self.answered += 1


class Counter(Node):
    """Counts what passes on the bus, where one speaks at a time: a query has no data, an answer has. `other` counts
    stretches of bytes that are no frame. At each query the modules go on that are `waiting` for it, and at the latest
    PATIENCE seconds after the last one."""

    PATIENCE = 0.010

    def __init__(self):
        super().__init__("counter")
        self.waiting = []
        self._last_seen = 0
        self.asked = self.answered = self.other = 0
        self._stream = bytearray()

    def deliver(self, data, _start, _byte_time):
        stream = self._stream
        stream += data
        while len(stream) >= frames.OVERHEAD:
            size = frames.OVERHEAD + int.from_bytes(stream[5:7], "big")
            if stream[0] != frames.STX or size > MOST_BYTES:
                self.other += 1
                stream.clear()
                return
            if len(stream) < size:
                return
            if size == frames.OVERHEAD:
                self.asked += 1
                self._release()
            else:
                self.answered += 1
            del stream[:size]

    def attached(self, bus):
        super().attached(bus)
        self._keep_going()

    def _release(self):
        waiting, self.waiting = self.waiting, []
        for module in waiting:
            module.go_on()

    def _keep_going(self):
        if self.asked == self._last_seen:
            self._release()
        self._last_seen = self.asked
        self.bus.loop.call_later(self.PATIENCE, self._keep_going)


class Sample:
    """A gateway at a moment."""

    def __init__(self, gateway):
        program = gateway.program
        self.resident = program.memory_bytes()
        self.virtual = program.memory_bytes("VmSize")
        self.descriptors = len(os.listdir("/proc/%d/fd" % program.pid))
        self.threads = len(os.listdir("/proc/%d/task" % program.pid))
        self.log_lines = gateway.log.text().count("\n")
        self.cpu = program.cpu_seconds()

    def __str__(self):
        return "rss %.2f MiB, vm %.1f MiB, fds %d, threads %d, log lines %d, cpu %.1f s" % (
            self.resident / 1048576, self.virtual / 1048576, self.descriptors, self.threads, self.log_lines, self.cpu)


def judge(first, last, letter):
    """What grew between two samples, as lines."""
    found = []
    if last.resident - first.resident > GROWTH:
        found.append("%s: resident memory grew by %d bytes" % (letter, last.resident - first.resident))
    if last.log_lines - first.log_lines > LOG_LINES:
        found.append("%s: %d log lines" % (letter, last.log_lines - first.log_lines))
    for name in ("virtual", "descriptors", "threads"):
        before, after = getattr(first, name), getattr(last, name)
        if after > before:
            found.append("%s: %s grew from %d to %d" % (letter, name, before, after))
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", default=default_build(), metavar="DIR")
    parser.add_argument("--exchanges", type=int, default=1000000, metavar="N")
    parser.add_argument("--minutes", type=float, default=240.0, metavar="N")
    parser.add_argument("--sample", type=float, default=30.0, metavar="SECONDS")
    parser.add_argument("--factor", type=int, default=20, metavar="N")
    options = parser.parse_args()
    loop = Loop()
    scratch = tempfile.TemporaryDirectory(prefix="soak-")
    clock = FastClock(os.path.join(scratch.name, "clock"), options.factor)
    loop.keep_calling(clock.tick)
    bus = Bus(loop, speed=0)
    bus.recording = False
    counter = bus.attach(Counter())
    plant = Plant(sharing=len(LETTERS), now=lambda: 0.0)
    gateways, modules = {}, {}
    problems = []
    try:
        for letter in reversed(LETTERS):
            gateway = gateways[letter] = Gateway(bus, letter, build=options.build, fast=clock)
            model = Module(keep=1)
            ModuleModel(plant, letter).install(model)
            model.refresh()
            model.model = None
            gateway.module_line.recording = False
            modules[letter] = gateway.module_line.attach(SteadyModule(model, counter))
            gateway.start()
        began = time.monotonic()
        first = None
        while True:
            time.sleep(options.sample)
            samples = {letter: Sample(gateway) for letter, gateway in sorted(gateways.items())}
            if first is None:
                first, told = samples, {letter: sample.log_lines for letter, sample in samples.items()}
            exchanges = [counter.asked] + [modules[letter].answered for letter in LETTERS]
            print("%.0f s, %.0f s for the gateways: bus %d asked, %d answered, %d other; modules %s" % (
                time.monotonic() - began, clock.seconds(), counter.asked, counter.answered, counter.other,
                ", ".join("%s %d/%d" % (l, modules[l].asked, modules[l].answered) for l in LETTERS)), flush=True)
            for letter, sample in samples.items():
                print("  %s: %s" % (letter, sample), flush=True)
                lines = gateways[letter].log.text().split("\n")[told[letter]:sample.log_lines]
                print("".join("     %s\n" % line for line in lines[:SHOWN]), end="", flush=True)
                told[letter] = sample.log_lines
            if min(exchanges) >= options.exchanges or time.monotonic() - began >= 60 * options.minutes:
                break
        last = samples
        for letter in LETTERS:
            problems += judge(first[letter], last[letter], letter)
            if modules[letter].strange > STRANGE or modules[letter].asked - modules[letter].answered not in (0, 1):
                problems.append("%s: the module heard what it does not know" % letter)
            lost = [a for a in gateways[letter].wait_status()["statusAlarms"] if a.endswith("_LOST")]
            if lost:
                problems.append("%s believes: %s" % (letter, " ".join(lost)))
        if not 0 <= counter.asked - counter.answered <= STRANGE or counter.other:
            problems.append("bus: %d asked, %d answered, %d other" % (counter.asked, counter.answered, counter.other))
        problems += loop.errors[:1]
    finally:
        for gateway in gateways.values():
            gateway.close()
        bus.close()
        loop.stop()
        scratch.cleanup()
    print("\n".join(problems) if problems else "nothing grew, nothing drifted")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
