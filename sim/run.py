"""The demonstration, in one of two settings.

    python3 -m sim.run --bus-only [--seconds N] [--lose C] [--speed X]

A real gateway as card A, master of a virtual bus with the simulated cabinets B, C and D. Exit status 0 if the gateway
really published: a fresh and valid status file, and each of the simulated cabinets seen in good order.

    python3 -m sim.run [--cabinets 1..4] [--baud RATE] [--seconds N] [--lose C] [--mains-fails]
                       [--module-dies B] [--refuse N] [--noise PERCENT] [--speed X]

The whole system (sim.system): up to four real gateways, each with a simulated power module. Exit status 0 if all of
them published, saw the modules of all, and showed what was done to the plant.

Both end at Ctrl-C or after N seconds. With --web they serve the page of web/ beside the status file of a card.
"""

import argparse
import os
import signal
import sys
import threading
import time

from sim import statusfile, system, view, web
from sim.gateway import default_build
from sim.scene import Scene

LOSE_AFTER = 8.0
LOST_FOR = 25.0
RECOVERY = 12.0
LOOKS_PER_SECOND = 4
# Which of the two settings is meant when none is named.
WHOLE_BY_DEFAULT = True
BAUD_RATES = (1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200)


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


def tcp_port(text):
    if not 0 <= int(text) < 65536:
        raise ValueError
    return int(text)


def _arguments():
    parser = argparse.ArgumentParser(prog="run.sh", description="the gateway on a virtual plant")
    setting = parser.add_mutually_exclusive_group()
    setting.add_argument("--bus-only", dest="whole", action="store_false", default=WHOLE_BY_DEFAULT,
                         help="one real gateway without a module, and simulated cabinets")
    setting.add_argument("--whole", action="store_true", default=WHOLE_BY_DEFAULT,
                         help="a real gateway with a simulated module for each cabinet")
    parser.add_argument("--seconds", type=float, metavar="N", help="end after N seconds (otherwise at Ctrl-C)")
    parser.add_argument("--lose", choices=("B", "C", "D"), metavar="C",
                        help="take cabinet B, C or D off the bus for a while")
    parser.add_argument("--speed", type=float, default=1.0, metavar="X", help="speed of all lines as a multiple")
    parser.add_argument("--build", default=default_build(), metavar="DIR", help=argparse.SUPPRESS)
    whole = parser.add_argument_group("the whole system")
    whole.add_argument("--cabinets", type=int, choices=range(1, 5), default=4, metavar="1..4", help="how many")
    whole.add_argument("--baud", type=int, choices=BAUD_RATES, default=9600, metavar="RATE",
                       help="speed of the module lines: %s" % ", ".join(map(str, BAUD_RATES)))
    whole.add_argument("--mains-fails", action="store_true", help="all modules go to battery and discharge")
    whole.add_argument("--module-dies", choices=tuple("ABCD"), metavar="B", help="a cabinet's module falls silent")
    whole.add_argument("--refuse", choices=tuple("123456789"), metavar="N",
                       help="the last cabinet's module refuses everything with code N")
    whole.add_argument("--noise", type=float, default=0.0, metavar="PERCENT",
                       help="spoil so many of the transmissions on all lines")
    page = parser.add_argument_group("the page")
    page.add_argument("--web", choices=tuple("ABCD"), nargs="?", const="A", metavar="CARD",
                      help="serve a page that shows the plant as this card (A) has it, and print its address")
    page.add_argument("--port", type=tcp_port, default=web.DEFAULT_PORT, metavar="N",
                      help="TCP port of the page (%d); 0 takes any that is free" % web.DEFAULT_PORT)
    page.add_argument("--host", default="127.0.0.1", metavar="ADDRESS",
                      help="address to serve it at (127.0.0.1: only for this machine; 0.0.0.0: for everybody)")
    options = parser.parse_args()
    cabinets = "ABCD"[:options.cabinets]
    if options.web and options.web not in (cabinets if options.whole else "A"):
        parser.error("there is no card %s" % options.web)
    for letter in (options.lose, options.module_dies):
        if options.whole and letter and letter not in cabinets:
            parser.error("there is no cabinet %s" % letter)
    if not options.whole and (options.mains_fails or options.module_dies or options.refuse or options.noise):
        parser.error("--mains-fails, --module-dies, --refuse and --noise are for the whole system")
    return options


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
        with web.served(scene, options, out) as address:
            elapsed = _watch(scene, options, verdict, out, stop, address)
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


def _watch(scene, options, verdict, out, stop, address):
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
                screen.show(_picture(look, elapsed, (_about(scene, options), address, story), screen.paint))
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


def _about(scene, options):
    seconds = scene.round_seconds()
    return "bus: 9600 baud x %g, a round of all cabinets takes %.2f s" % (options.speed, seconds) if seconds else ""


def _picture(look, elapsed, told, paint):
    title = "Virtual plant, seen by card A          %5.0f s          Ctrl-C ends" % elapsed
    *dim, story = (FOOTER, *told)
    footer = [""] + [paint("dim", line) for line in dim if line] + [story]
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
        return (system.run if options.whole else run)(options, sys.stdout, stop)
    except OSError as error:
        sys.stderr.write("%s\n" % error)
        return 1


if __name__ == "__main__":
    sys.exit(main())
