"""The demonstration: a real gateway as card A, master of a virtual bus with cabinets B, C and D.

    python3 -m sim.run [--seconds N] [--lose C] [--speed X] [--build DIR]

Ends at Ctrl-C or after N seconds. Exit status 0 if the gateway really published: a fresh and valid status file, and
each of the simulated cabinets seen in good order.
"""

import argparse
import os
import signal
import sys
import threading
import time

from sim import statusfile, view
from sim.bus import Bus
from sim.cabinet import Cabinet
from sim.gateway import Gateway, default_build
from sim.loop import Loop
from sim.plant import CabinetModel, Plant

LOSE_AFTER = 8.0
LOST_FOR = 25.0
RECOVERY = 12.0
LOOKS_PER_SECOND = 4
KEEP = 500


class Scene:
    """The bus with real gateways and simulated cabinets on it. `real` are the letters of the gateways, the first of
    them the one that is looked at; each has its own module line, `module_line`, for a simulated module."""

    def __init__(self, build, real="A", simulated="BCD", speed=1.0):
        self.loop = Loop()
        self.gateways = {}
        self.cabinets = {}
        try:
            self.bus = Bus(self.loop, speed=speed, keep=KEEP)
            everyone = sorted(real + simulated)
            self.plant = Plant(sharing=len(everyone))
            for letter in simulated:
                cabinet = self.cabinets[letter] = self.bus.attach(Cabinet(letter, keep=KEEP))
                CabinetModel(self.plant, letter).install(cabinet)
            mask = "1" + "".join("1" if letter in everyone else "0" for letter in "BCD")
            for letter in real:
                self.gateways[letter] = Gateway(self.bus, letter, mask=mask, build=build)
        except BaseException:
            self.close()
            raise
        self.main = self.gateways[real[0]]

    def start(self):
        for gateway in self.gateways.values():
            gateway.start()

    def round_seconds(self):
        """Length of the last whole round of the master on the bus, or None."""
        begins = [h.start for h in self.bus.frames(command="BN") if h.frame.src == h.frame.dest]
        return begins[-1] - begins[-2] if len(begins) > 1 else None

    def close(self):
        for gateway in self.gateways.values():
            gateway.close()
        if hasattr(self, "bus"):
            self.bus.close()
        self.loop.stop()


class Verdict:
    """Collects over the run what the exit status depends on."""

    def __init__(self, expected, lost=None):
        self.expected = expected
        self.lost = lost
        self.seen_good = set()
        self.faults = []
        self.lost_seen = False
        self.recovered = False
        self.last = None

    def add(self, look):
        self.last = look
        if look.error:
            self.faults.append(look.error)
        if look.status is not None:
            self.faults += statusfile.problems(look.status)
        good = {letter for letter in self.expected if look.fresh and look.good(letter)}
        self.seen_good |= good
        if self.lost in self.seen_good and look.state(self.lost) == "lost":
            self.lost_seen = True
        if self.lost_seen and self.lost in good:
            self.recovered = True

    def problems(self, running, await_loss, await_recovery):
        """Why the run doesn't count as good; empty if it does."""
        found = sorted(set(self.faults))[:5]
        if not running:
            found.append("the gateway has ended by itself")
        if self.last is None or self.last.status is None:
            found.append("no status file was published")
        elif not self.last.fresh:
            found.append("the status file is %.1f s old" % self.last.file_age)
        missing = sorted(set(self.expected) - self.seen_good)
        if missing:
            found.append("never seen in good order: %s" % ", ".join(missing))
        if await_loss and not self.lost_seen:
            found.append("the loss of %s was not reported" % self.lost)
        if await_recovery and not self.recovered:
            found.append("the recovery of %s was not reported" % self.lost)
        return found


def _arguments():
    parser = argparse.ArgumentParser(prog="run.sh", description=__doc__.split("\n")[0])
    parser.add_argument("--seconds", type=float, metavar="N", help="end after N seconds (otherwise at Ctrl-C)")
    parser.add_argument("--lose", choices=("B", "C", "D"), metavar="C",
                        help="let cabinet B, C or D fall silent after %d s, for %d s" % (LOSE_AFTER, LOST_FOR))
    parser.add_argument("--speed", type=float, default=1.0, metavar="X", help="bus speed as a multiple of 9600 baud")
    parser.add_argument("--build", default=default_build(), metavar="DIR", help=argparse.SUPPRESS)
    return parser.parse_args()


def _story(options, elapsed):
    """What is being done to the plant, as a sentence; and whether the lost cabinet is silent now."""
    if not options.lose:
        return "", False
    back = LOSE_AFTER + LOST_FOR
    if elapsed < LOSE_AFTER:
        return "cabinet %s falls silent in %.0f s" % (options.lose, LOSE_AFTER - elapsed), False
    if elapsed < back:
        return "cabinet %s is silent, it speaks again in %.0f s" % (options.lose, back - elapsed), True
    return "cabinet %s speaks again" % options.lose, False


NOTES = {"A": "this card; its module line is not connected here, so it has no measures of its own"}
FOOTER = "A has no module in this demonstration: its alarms, MODULE_1_LOST and UPSFAILURE among them, are right."


def run(options, out, stop):
    """Runs the demonstration until `stop` is set; returns the exit status."""
    scene = Scene(options.build, speed=options.speed)
    try:
        verdict = Verdict("BCD", options.lose)
        elapsed = _watch(scene, options, verdict, out, stop)
        running = scene.main.running
        verdict.faults += scene.loop.errors
        found = verdict.problems(running, options.lose and elapsed > LOSE_AFTER + LOST_FOR - 5,
                                 options.lose and elapsed > LOSE_AFTER + LOST_FOR + RECOVERY)
        if not running:
            out.write("the end of its log:\n%s\n" % scene.main.log.tail(15))
    finally:
        scene.close()
    for line in found:
        out.write("not good: %s\n" % line)
    if not found:
        out.write("good: %.0f s, the gateway published throughout, cabinets B, C and D were heard\n" % elapsed)
    return 1 if found else 0


def _watch(scene, options, verdict, out, stop):
    """Shows the plant until `stop` is set, the time is over or the gateway ends; returns the seconds it took."""
    screen = view.Screen(out)
    begin = time.monotonic()
    next_line = 0.0
    try:
        scene.start()
        while not stop.wait(1 / LOOKS_PER_SECOND):
            elapsed = time.monotonic() - begin
            if options.seconds is not None and elapsed >= options.seconds:
                break
            story, silent = _story(options, elapsed)
            if options.lose:
                scene.cabinets[options.lose].silent = silent
            look = view.take(scene.main)
            verdict.add(look)
            if screen.is_terminal:
                screen.show(_picture(scene, options, look, elapsed, story, screen.paint))
            elif elapsed >= next_line:
                if not next_line:
                    out.write(FOOTER + "\n")
                next_line = elapsed + 1
                out.write(view.one_line(look, elapsed) + ("  |  " + story if story else "") + "\n")
                out.flush()
            if not scene.main.running:
                break
    finally:
        screen.close()
    return time.monotonic() - begin


def _picture(scene, options, look, elapsed, story, paint):
    title = "Virtual plant, seen by card A          %5.0f s          Ctrl-C ends" % elapsed
    seconds = scene.round_seconds()
    about = "bus: 9600 baud x %g, a round of all cabinets takes %.2f s" % (options.speed, seconds) if seconds else ""
    footer = [""] + [paint("dim", line) for line in (FOOTER, about) if line] + [story]
    return view.picture(look, title, NOTES, paint, footer)


def main():
    options = _arguments()
    if not os.path.exists(os.path.join(options.build, "UGW")):
        sys.stderr.write("no %s: build first, or use scripts/run.sh\n" % os.path.join(options.build, "UGW"))
        return 2
    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: stop.set())
    try:
        return run(options, sys.stdout, stop)
    except OSError as error:
        sys.stderr.write("%s\n" % error)
        return 1


if __name__ == "__main__":
    sys.exit(main())
