#!/usr/bin/python3
"""How long a round of the bus takes with some cabinets silent, and how long it is until an alarm shows.

    bench/plant_bench.py [--build DIR] [--repeat N]

The real gateway as master, paced at 9600 baud. Printed, never asserted.
"""

import argparse
import os
import random
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

from sim.gateway import default_build  # noqa: E402
from sim.scene import Scene  # noqa: E402

BYTES_PER_SECOND = 960.0
# Two queries of 10 bytes, replies of 30 and 278. The own cabinet's pauses: 3 and 5 ms around each reply; the others':
# 2 ms before each. A silent cabinet costs each query's time-out and the pause after a failure.
ANSWERED = (10 + 30 + 10 + 278) / BYTES_PER_SECOND
OWN_PAUSES = 2 * (0.003 + 0.005)
OTHER_PAUSES = 2 * 0.002
SILENT = 2 * (10 / BYTES_PER_SECOND + 3.0 + 0.250)


def floor(present, silent):
    return ANSWERED + OWN_PAUSES + (present - 1 - silent) * (ANSWERED + OTHER_PAUSES) + silent * SILENT


def begins(place):
    return [h.start for h in place.bus.frames(command="BN") if h.frame.src == h.frame.dest]


def rounds(build):
    print("round of the bus at 9600 baud, seconds: measured median (floor)")
    print("  cabinets   none silent      1 silent         2 silent         3 silent")
    for present in range(1, 5):
        cells = []
        for silent in range(present):
            place = Scene(build, "A", "BCD"[:present - 1], module_baud=9600)
            try:
                for letter in "DCB"[4 - present:][:silent]:
                    place.cabinets[letter].silent = True
                place.start()
                wanted = 3 if silent else 8
                deadline = time.monotonic() + 10 + wanted * 2 * floor(present, silent)
                while len(begins(place)) < wanted + 2 and time.monotonic() < deadline:
                    time.sleep(0.2)
                found = begins(place)[1:]
            finally:
                place.close()
            lengths = [b - a for a, b in zip(found, found[1:])]
            cells.append("%7.3f (%6.3f)" % (statistics.median(lengths), floor(present, silent)))
        print("  %-10d %s" % (present, "  ".join(cells)), flush=True)


def until(test, timeout=60.0):
    begin = time.monotonic()
    while not test():
        if time.monotonic() - begin > timeout:
            return float("nan")
        time.sleep(0.005)
    return time.monotonic() - begin


def alarms(build, repeat):
    """Seconds from the fault, at a random moment, to the status file of the master."""
    place = Scene(build, "A", "BCD", module_baud=9600)
    cabinet, module = [], []
    try:
        place.start()
        card = place.main

        def lost(number):
            return ("MODULE_%d_LOST" % number) in card.status()["statusAlarms"]
        card.wait_status(lambda s: not any(a.endswith("_LOST") for a in s["statusAlarms"]), timeout=20)
        for _ in range(repeat):
            for kind, found, node, number in (("cabinet", cabinet, place.cabinets["C"], 3),
                                              ("module", module, place.modules["A"], 1)):
                time.sleep(random.uniform(3, 5))
                node.silent = True
                gone = until(lambda: lost(number))
                node.silent = False
                found.append((gone, until(lambda: not lost(number))))
    finally:
        place.close()
    print("from the fault to the alarm in the master's status file, and from its end to the alarm's; median (worst), s")
    for name, values in (("a silent cabinet", cabinet), ("a silent module", module)):
        for what, column in (("begins", 0), ("ends", 1)):
            times = [v[column] for v in values]
            print("  %-18s %-7s %6.2f (%6.2f)" % (name, what, statistics.median(times), max(times)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", default=default_build(), metavar="DIR")
    parser.add_argument("--repeat", type=int, default=5, metavar="N")
    options, _ = parser.parse_known_args()
    print("load average %.2f on %d processors" % (os.getloadavg()[0], os.cpu_count()))
    rounds(options.build)
    alarms(options.build, options.repeat)


if __name__ == "__main__":
    main()
