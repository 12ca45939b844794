"""What a process costs, before a bad day and after it, and whether it sees the plant as it is."""

import itertools
import os
import time

# Minutes of noise and the number of kills in the long runs; none: the short ones.
LONG_MINUTES = float(os.environ.get("UGW_BAD_MINUTES", "0"))

# Resident memory that a run may add: pages touched for the first time on a path that had not been taken before.
GROWTH = 1024 * 1024
_markers = itertools.count(101)


class Vitals:
    """The state of a gateway's process from now on. Each `check` compares with the beginning and prints what it saw,
    which pytest shows with -s or -rP."""

    def __init__(self, card):
        self.card = card
        self.pid = card.program.pid
        self.begun = time.monotonic()
        self.resident = card.program.memory_bytes()
        self.descriptors = self._descriptors()
        self.cpu = card.program.cpu_seconds()
        self.mark = card.log.mark()

    def _descriptors(self):
        return sorted(os.listdir("/proc/%d/fd" % self.pid))

    def check(self, lines_per_minute, cpu=0.10):
        """Still the same process; memory and descriptors as before; processor time as a part of a core (None: not
        looked at), log lines a minute within their bounds."""
        assert self.card.running and self.card.program.pid == self.pid
        elapsed = time.monotonic() - self.begun
        grown = self.card.program.memory_bytes() - self.resident
        used = (self.card.program.cpu_seconds() - self.cpu) / elapsed
        lines = self.card.log.text(self.mark).count("\n")
        print("%.1f s: memory %+d KiB, %d descriptors, %.1f %% of a core, %d log lines, %.0f a minute" % (
            elapsed, grown // 1024, len(self.descriptors), used * 100, lines, lines * 60 / elapsed))
        assert grown < GROWTH
        assert len(self._descriptors()) == len(self.descriptors)
        assert lines * 60 / elapsed <= lines_per_minute
        assert cpu is None or used < cpu


def lost(status):
    """Who is lost, by the status file."""
    return [alarm for alarm in status["statusAlarms"] if alarm.endswith("_LOST")]


def right_again(card, others, unit=None, within=10.0, status=True):
    """Changes a measure of each cabinet and of the module, and waits until the card knows them all and misses nobody;
    returns how long that took in seconds."""
    began = time.monotonic()
    volts = next(_markers)
    for other in others.values():
        other.status.Ups.Vin[0] = volts
    letters = list(others)
    if unit is not None:
        unit.data.Vin = [volts] * 3
        letters.append(card.card)
    def known(tree):
        try:
            nodes = [tree.cabinet(letter) for letter in letters]
        except IndexError:
            return False  # half built
        return all(node is not None and node.box.Ups.Vin[0] == volts for node in nodes)
    card.wait_tree(known, within)
    if status:
        card.wait_status(lambda s: not [a for a in lost(s) if a in ["MODULE_%d_LOST" % ("ABCD".index(c) + 1)
                                                                    for c in letters]],
                         max(0.1, within - (time.monotonic() - began)))
    took = time.monotonic() - began
    print("right again after %.2f s" % took)
    return took
