#!/usr/bin/python3
"""How close the gateway comes to the limit of the module's line, and what one card costs.

    scripts/bench.sh [--build DIR] [--seconds N] [--exchanges N]

The real gateway with a simulated module that thinks 15 to 25 ms: the round at three speeds over its floor, one card with
both lines at 9600 baud, the same exchange through libmodbus, and how long a command takes from its panel to the line.
Printed, never asserted. With --exchanges, also that many exchanges without the time of the line, for the memory.
"""

import argparse
import os
import random
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

from bench.report import percentile, say  # noqa: E402
from sim.bus import Bus, Node as Endpoint  # noqa: E402
from sim.gateway import SHIM, default_build  # noqa: E402
from sim.loop import Loop  # noqa: E402
from sim.module import Module  # noqa: E402
from sim.records import Measures, Node  # noqa: E402
from sim.scene import Scene  # noqa: E402

THINKING = (0.015, 0.025)
# Bytes of a round on the wire: eight queries of 12 bytes, replies of 70 (five), 68, 56 and 34.
ROUND_BYTES = 604
EXCHANGES = 8
PANEL_OFF, PANEL_ON, PANEL_DELETE = 4, 5, 2
LONG_REPLY, SHORT_REPLY = 70, 34
QUERY_BYTES = 10  # of the bus
MODBUS_COUNT = 150
# Bytes that a UART collects before it interrupts: a 16-byte FIFO, half full.
FIFO = 8


def scene(build, baud, speed=1.0, simulated="", thinking=THINKING):
    made = Scene(build, "A", simulated, speed=speed, module_baud=baud)
    made.modules["A"].thinking = thinking
    return made


class Exchanges:
    """The exchanges on a line's record, in order: query, reply and the query after it."""

    def __init__(self, line):
        frames = line.frames()
        self.triples = [(q, r, n) for q, r, n in zip(frames, frames[1:], frames[2:])
                        if q.sender == n.sender == "card" and r.sender != "card" and q.frame.command == r.frame.command]

    def added(self, commands=None):
        """Seconds between a reply's last byte and the next query's first."""
        return [n.start - r.end for q, r, n in self.triples if commands is None or q.frame.command in commands]

    def rounds(self):
        """(length, thinking) of each whole round in seconds."""
        found, begin, thought, count = [], None, 0.0, 0
        for query, reply, _ in self.triples:
            if query.frame.command == "DE":
                if begin is not None and count == EXCHANGES:
                    found.append((query.start - begin, thought))
                begin, thought, count = query.start, 0.0, 0
            thought += reply.start - query.end
            count += 1
        return found


def module_rounds(build, seconds):
    print("round of the module's line, %d bytes, module thinks %d to %d ms" % ((ROUND_BYTES,) + tuple(
        round(t * 1000) for t in THINKING)))
    for baud in (1200, 9600, 115200):
        place = scene(build, baud)
        try:
            place.start()
            time.sleep(max(seconds, 604 * 10 / baud * 4))
            rounds = Exchanges(place.main.module_line).rounds()
        finally:
            place.close()
        wire = ROUND_BYTES * 10 / baud
        ratio = statistics.median(length / (wire + thought) for length, thought in rounds)
        extra = statistics.median((length - wire - thought) / EXCHANGES for length, thought in rounds) * 1000
        told = "%.3f x floor, %.1f ms/exchange" % (ratio, extra)
        median = statistics.median(length for length, _ in rounds)
        name = "%d baud: %.3f s (floor %.3f s), %d rounds" % (
            baud, median, statistics.median(wire + thought for _, thought in rounds), len(rounds))
        goal = {1200: 1.03, 9600: 1.05}.get(baud)
        say(name, told, "%.2f" % goal if goal else "10 ms/exchange", ratio <= goal if goal else extra <= 10)


def one_card(build, seconds, at_once=None):
    """Prints what a card costs, with `at_once` bytes coming from its lines at a time (about two if None). Returns what
    was on the module's line and the module thread's milliseconds for an exchange."""
    place = scene(build, 9600, simulated="BCD")
    try:
        if at_once:
            for line in place.bus, place.main.module_line:
                line.piece = at_once * line.byte_time
        place.start()
        time.sleep(4)
        program = place.main.program
        before, at, exchanges = program.thread_seconds(), time.monotonic(), place.main.module_line.mark()
        time.sleep(seconds)
        after, elapsed = program.thread_seconds(), time.monotonic() - at
        exchanges = (place.main.module_line.mark() - exchanges) / 2
        memory = program.memory_bytes()
        line = Exchanges(place.main.module_line)
    finally:
        place.close()
    # In the order in which they were started: the main thread, the bus's, the module's.
    used = [(after[t] - before.get(t, 0.0)) / elapsed * 1000 for t in sorted(after)]
    print("one card, both lines at 9600 baud, %s bytes at a time, %.0f s" % (at_once or "one or two", elapsed))
    say("processor time (bus thread %.2f, module thread %.2f)" % tuple(used[1:3]), "%.2f ms/s" % sum(used), "12 ms/s",
        sum(used) < 12)
    say("resident memory", "%.1f MiB" % (memory / 1048576), "10 MB", memory < 10e6)
    return line, used[2] * elapsed / exchanges


class ModbusPeer(Endpoint):
    """Answers each query of twelve bytes with a reply of so many, after thinking, and keeps the times."""

    def __init__(self, size):
        super().__init__("peer")
        body = bytes((1, 3, size - 5)) + bytes(size - 5)
        self.reply = body + self.crc(body)
        self.got = 0
        self.reply_end = None
        self.added = []

    @staticmethod
    def crc(data):
        register = 0xFFFF
        for byte in data:
            register ^= byte
            for _ in range(8):
                register = register >> 1 ^ (0xA001 if register & 1 else 0)
        return register.to_bytes(2, "little")

    def deliver(self, data, start, byte_time):
        if self.got == 0 and self.reply_end is not None:
            self.added.append(start - self.reply_end)
        self.got += len(data)
        if self.got >= 12:
            self.got = 0
            self.bus.loop.call_later(random.uniform(*THINKING), self.answer)

    def answer(self):
        self.reply_end = time.monotonic() + len(self.reply) * self.bus.byte_time
        self.send(self.reply)


def modbus(build, size):
    """Added seconds of each exchange through libmodbus, and its processor milliseconds."""
    loop = Loop()
    line = Bus(loop, keep=10)
    try:
        port, peer = line.pty("program"), line.attach(ModbusPeer(size))
        # With what the gateway has under it too.
        done = subprocess.run([os.path.join(build, "bench", "modbus_exchange"), port.path, str(MODBUS_COUNT), str(size)],
                              env=dict(os.environ, LD_PRELOAD=os.path.join(build, SHIM), CARD_SHIM_BAUD="9600"),
                              check=True, capture_output=True, text=True)
    finally:
        line.close()
        loop.stop()
    return peer.added, float(done.stdout)


def against_modbus(build, line, cost):
    print("the same exchange, 12 bytes out at 9600 baud: time added to line and peer, median and 90 %")
    for size, commands, goal in ((LONG_REPLY, {"DE", "DS", "RE", "RK", "RS"}, None), (SHORT_REPLY, {"GN"}, 0.010)):
        theirs, their_cost = modbus(build, size)
        ours = line.added(commands)
        told = "%.2f, %.2f ms; libmodbus %.2f, %.2f" % tuple(
            1000 * v for v in (statistics.median(ours), percentile(ours, 90), statistics.median(theirs),
                               percentile(theirs, 90)))
        limit = statistics.median(theirs) + (goal or 0.0)
        say("%d bytes back, %d and %d exchanges" % (size, len(ours), len(theirs)), told,
            "no slower" if goal is None else "within 10 ms", statistics.median(ours) <= limit)
        print("  %-58s %.3f ms; libmodbus %.3f" % ("processor time per exchange", cost, their_cost))


class Panels:
    """Another program of the card that writes commands."""

    def __init__(self, card):
        self.card = card
        tree = card.tree()
        self.module = tree.nodes.index(tree.module("A"))

    def write(self, index, offset, data):
        self.card.sandbox.write_segment(self.card.sandbox.segment().id, index * Node.SIZE + offset, data)

    def order(self, index, value):
        self.write(index, Node.offset("panel"), bytes((value,)))

    def make_master(self):
        field = Node.offset("desc") + Measures.offset("extStatus")
        data = self.card.tree().module("A").module.data
        data.set("extStatus.isMaster")
        self.write(self.module, field, bytes((data.extStatus,)))
        self.card.wait_tree(lambda tree: tree.cabinet("A").box.get("Ups.extStatus.isMaster"))

    def latency(self, index, value, command):
        """Seconds from the panel to the first byte of the command on the module's line."""
        time.sleep(random.uniform(0.3, 1.3))
        mark, at = self.card.module_line.mark(), time.monotonic()
        self.order(index, value)
        heard = self.card.module_line.wait("card " + command, timeout=10, since=mark)
        self.card.wait_tree(lambda tree: tree.nodes[index].panel.value == 255)
        return heard.start - at


def longest(queries):
    """Seconds from a query to the next, but for the one in a hundred that was held up."""
    starts = [h.start for h in queries]
    return percentile([b - a for a, b in zip(starts, starts[1:])], 99)


def commands(build, count):
    place = scene(build, 9600, simulated="BCD")
    try:
        place.start()
        place.main.wait_status(lambda s: not any(a.endswith("_LOST") for a in s["statusAlarms"]), timeout=20)
        panels = Panels(place.main)
        module = [panels.latency(panels.module, (PANEL_OFF, PANEL_ON)[i % 2], "DC") for i in range(count)]
        panels.make_master()
        root = [panels.latency(0, PANEL_DELETE, "CD") for _ in range(count)]
        # From a query to the next: the longest exchanges that can be in hand.
        exchange = longest(h for h in place.main.module_line.frames() if h.sender == "card")
        in_hand = longest(h for h in place.bus.frames() if len(h.raw) == QUERY_BYTES)
    finally:
        place.close()
    print("a command from its panel to its first byte on the module's line, %d times each" % count)
    for name, values, goal in (("module panel", module, 1.0 + exchange), ("root panel", root,
                                                                          0.201 + in_hand + exchange)):
        worst = percentile(values, 99)
        say("%s: median, 99 %%" % name, "%.3f, %.3f s" % (statistics.median(values), worst), "%.3f s" % goal,
            worst <= goal)


def growth(build, exchanges):
    place = scene(build, 9600, speed=0, simulated="BCD", thinking=0.0)
    try:
        place.start()
        time.sleep(5)
        line, program = place.main.module_line, place.main.program
        begun, first = time.monotonic(), program.memory_bytes()
        mark = line.mark()
        while line.mark() - mark < 2 * exchanges:
            time.sleep(1)
        last = program.memory_bytes()
    finally:
        place.close()
    print("%d exchanges with the module in %.0f s: resident memory %.2f MiB, then %.2f MiB"
          % (exchanges, time.monotonic() - begun, first / 1048576, last / 1048576))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", default=default_build(), metavar="DIR")
    parser.add_argument("--seconds", type=float, default=30.0, metavar="N")
    parser.add_argument("--exchanges", type=int, default=0, metavar="N")
    options, _ = parser.parse_known_args()
    print("load average %.2f on %d processors" % (os.getloadavg()[0], os.cpu_count()))
    module_rounds(options.build, options.seconds / 3)
    line, cost = one_card(options.build, options.seconds)
    one_card(options.build, options.seconds, FIFO)
    against_modbus(options.build, line, cost)
    commands(options.build, 30)
    if options.exchanges:
        growth(options.build, options.exchanges)


if __name__ == "__main__":
    main()
