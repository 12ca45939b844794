#!/usr/bin/python3
"""How close the gateway comes to the limit of its line.

    scripts/bench.sh [--build DIR] [--seconds N]

The real gateway as master of a bus of four cabinets, paced at 9600 baud: the length of a round over its floor, the
processor time of its threads, its memory, and the time from the start to the first byte. Printed, never asserted.
"""

import argparse
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

from bench.report import say  # noqa: E402
from sim.gateway import default_build  # noqa: E402
from sim.scene import Scene  # noqa: E402

# A round of four cabinets: four queries of 10 bytes twice, replies of 30 and 278 bytes.
ROUND_BYTES = 4 * (10 + 30 + 10 + 278)
BYTES_PER_SECOND = 960.0
# Pauses that the protocol orders: 3 and 5 ms around the two own replies, 2 ms before each of the other six.
ROUND_PAUSES = 2 * (0.003 + 0.005) + 6 * 0.002
FLOOR = ROUND_BYTES / BYTES_PER_SECOND + ROUND_PAUSES


def started_at(pid):
    """When a process was started, on the monotonic clock (resolution: one tick)."""
    with open("/proc/%d/stat" % pid) as file:
        ticks = int(file.read().rsplit(")", 1)[1].split()[19])
    since_boot = ticks / os.sysconf("SC_CLK_TCK")
    return since_boot - (time.clock_gettime(time.CLOCK_BOOTTIME) - time.monotonic())


def rounds(bus):
    begins = [h.start for h in bus.frames(command="BN") if h.frame.src == h.frame.dest]
    return [b - a for a, b in zip(begins, begins[1:])]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", default=default_build(), metavar="DIR")
    parser.add_argument("--seconds", type=float, default=30.0, metavar="N")
    options, _ = parser.parse_known_args()
    scene = Scene(options.build)
    try:
        scene.main.trace = True
        scene.start()
        pid = scene.main.program.pid
        begun = started_at(pid)
        time.sleep(2.0)
        before, at = scene.main.program.thread_seconds(), time.monotonic()
        time.sleep(options.seconds)
        after, elapsed = scene.main.program.thread_seconds(), time.monotonic() - at
        lengths = rounds(scene.bus)[1:]
        writes = scene.main.writes()
        memory = scene.main.program.memory_bytes()
    finally:
        scene.close()
    used = sorted(((after[t] - before.get(t, 0.0)) / elapsed * 1000, t) for t in after)
    median, worst = statistics.median(lengths), max(lengths)
    first = writes[0][0] - begun
    print("bus round of four cabinets at 9600 baud: floor %.4f s, median %.4f s, worst %.4f s, %d rounds"
          % (FLOOR, median, worst, len(lengths)))
    say("median, worst", "%.3f, %.3f x floor" % (median / FLOOR, worst / FLOOR), "1.05, 1.10",
        median <= 1.05 * FLOOR and worst <= 1.10 * FLOOR)
    say("processor time: busiest thread, the bus thread (of %.2f)" % sum(ms for ms, _ in used), "%.2f ms/s" % used[-1][0],
        "6 ms/s", used[-1][0] < 6)
    say("resident memory", "%.1f MiB" % (memory / 1048576), "10 MB", memory < 10e6)
    say("start to first byte on the bus", "%.0f ms" % (first * 1000), "50 ms", first < 0.050)


if __name__ == "__main__":
    main()
