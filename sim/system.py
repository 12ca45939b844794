"""The whole system: real gateways, each a card of its own with a simulated power module on its serial line, all on one
bus. What each card believes is shown live, and things are done to the plant on the way, as the options say.

What comes of that is the design's: a slave keeps a silent cabinet's last values and shows it lost after half a minute,
a card that is cut off from the bus stops writing its file.
"""

import time

from sim import beliefs, statusfile, view, web
from sim.scene import Scene

# Seconds after the start at which things begin to happen, and how long they last.
BEGIN = 15.0
CUT_OFF_FOR = 45.0
MAINS_AWAY_FOR = 90.0
DEAD_FOR = 30.0
REFUSING_FOR = 30.0
# Seconds in which everything has to be well again afterwards.
RECOVERY = 20.0
# Seconds in which a module that dies or refuses has to be noticed by all: two failed polls, a second for the cabinet's
# record, a round of the bus.
NOTICE = 15.0
LOOKS_PER_SECOND = 4
# Minutes that a battery lasts here, so that one can watch it.
AUTONOMY = 4.0
BUSY = "5"


class Event:
    """One thing that is done to the plant and undone again. `seen(looks)` tells whether the cards show it."""

    def __init__(self, name, lasts, do, undo, seen, notice=NOTICE):
        self.name = name
        self.lasts = lasts
        self.active = False
        self.noticed = False
        self.recovered = False
        self.notice = notice
        self._do = do
        self._undo = undo
        self._seen = seen

    def play(self, elapsed):
        """Does it, or undoes it, when its time has come; returns the sentence for the footer."""
        end = BEGIN + self.lasts
        wanted = BEGIN <= elapsed < end
        if wanted != self.active:
            self.active = wanted
            (self._do if wanted else self._undo)()
        if elapsed < BEGIN:
            return "in %.0f s: %s" % (BEGIN - elapsed, self.name)
        if wanted:
            return "%s, for another %.0f s" % (self.name, end - elapsed)
        return "no longer: %s" % self.name

    def watch(self, looks, all_good, elapsed):
        """Notes whether the cards show it, and whether it is over for them too."""
        if self.active and self._seen is not None and self._seen(looks):
            self.noticed = True
        if elapsed >= BEGIN + self.lasts and all_good:
            self.recovered = True

    def problems(self, elapsed):
        """Why it doesn't count as good; empty if it does, or if there was no time for it."""
        if self._seen is not None and not self.noticed and elapsed > BEGIN + min(self.lasts, self.notice):
            return ["not shown by the cards: %s" % self.name]
        if not self.recovered and elapsed > BEGIN + self.lasts + RECOVERY:
            return ["not over for the cards: %s" % self.name]
        return []


def _events(scene, options):
    """What the options ask for."""
    events, letters = [], list(scene.gateways)
    if options.lose:
        events.append(_cut_off(scene, options.lose))
    if options.mains_fails:
        events.append(Event(
            "the mains are away, all modules run from battery", MAINS_AWAY_FOR,
            lambda: setattr(scene.plant, "mains", False), lambda: setattr(scene.plant, "mains", True),
            lambda looks: all(look.status and look.status["BATTERYWORK"] for look in looks.values())))
    if options.module_dies:
        events.append(_dies(scene, options.module_dies))
    if options.refuse:
        events.append(_refuses(scene, letters[-1], options.refuse))
    return events


def _cut_off(scene, letter):
    port = scene.gateways[letter].bus_port
    others = [card for card in scene.gateways if card != letter]

    def seen(looks):
        return (not looks[letter].fresh
                and all(beliefs.belief(looks[card], letter).state == beliefs.LOST for card in others))
    return Event("card %s is cut off from the bus" % letter, CUT_OFF_FOR, lambda: scene.bus.detach(port),
                 lambda: scene.bus.attach(port), seen, notice=CUT_OFF_FOR)


def _dies(scene, letter):
    module = scene.modules[letter]
    return Event("the module of %s is dead" % letter, DEAD_FOR, lambda: setattr(module, "silent", True),
                 lambda: setattr(module, "silent", False), _without_data(letter))


def _refuses(scene, letter, code):
    module = scene.modules[letter]
    # A module that is busy is not lost: its values stand, and that is all there is to see.
    return Event("the module of %s refuses everything with code %s" % (letter, code), REFUSING_FOR,
                 lambda: module.refuse(code), module.clear_faults, None if code == BUSY else _without_data(letter))


def _without_data(letter):
    return lambda looks: all(beliefs.belief(look, letter).state in (beliefs.LOST, beliefs.NO_MODULE)
                             for look in looks.values())


class Verdict:
    """Collects over the run what the exit status depends on."""

    def __init__(self, letters, events):
        self.events = events
        self.faults = []
        self.never = {(card, cabinet) for card in letters for cabinet in letters}
        self.silent = set(letters)

    def add(self, looks, elapsed):
        for card, look in looks.items():
            if look.error:
                self.faults.append("card %s: %s" % (card, look.error))
            if look.status is not None:
                self.faults += ["card %s: %s" % (card, line) for line in statusfile.problems(look.status)]
                self.silent.discard(card)
        well = {(card, cabinet) for card, look in looks.items() for cabinet in looks
                if beliefs.good(look, cabinet)}
        self.never -= well
        for event in self.events:
            event.watch(looks, len(well) == len(looks) ** 2, elapsed)

    def problems(self, scene, elapsed):
        """Why the run doesn't count as good; empty if it does."""
        found = sorted(set(self.faults))[:5]
        found += ["card %s has ended by itself" % card for card, gateway in scene.gateways.items()
                  if not gateway.running]
        found += ["card %s has published no status file" % card for card in sorted(self.silent)]
        for card in sorted({card for card, _ in self.never} - self.silent):
            cabinets = sorted(cabinet for c, cabinet in self.never if c == card)
            found.append("never seen in good order by card %s: %s" % (card, ", ".join(cabinets)))
        for event in self.events:
            found += event.problems(elapsed)
        return found


def _module_rounds(module):
    """Seconds of the last whole round of polling, as the module sees it, or None."""
    asked = module.queries("RS")[-2:]
    return asked[1].start - asked[0].start if len(asked) == 2 else None


def _module_text(module):
    seconds = _module_rounds(module)
    return "%-8s%3.0f%% %s" % ("dead" if module.silent else module.unit.mode, module.model.charge,
                               "%5.2f s" % seconds if seconds is not None else "")


def run(options, out, stop):
    """Runs the system until `stop` is set; returns the exit status."""
    letters = "ABCD"[:options.cabinets]
    scene = Scene(options.build, real=letters, simulated="", speed=options.speed, module_baud=options.baud,
                  autonomy=AUTONOMY)
    try:
        events = _events(scene, options)
        verdict = Verdict(letters, events)
        if options.noise:
            for line in (scene.bus, *(gateway.module_line for gateway in scene.gateways.values())):
                line.disturb(options.noise)
        with web.served(scene, options, out) as address:
            elapsed = _watch(scene, options, verdict, out, stop, address)
        verdict.faults += scene.loop.errors
        found = verdict.problems(scene, elapsed)
        for card, gateway in scene.gateways.items():
            if not gateway.running and gateway.log is not None:
                out.write("the end of the log of %s:\n%s\n" % (card, gateway.log.tail(15)))
    finally:
        scene.close()
    for line in found:
        out.write("not good: %s\n" % line)
    if not found:
        out.write("good: %.0f s, each of %d cards published and saw the modules of all\n" % (elapsed, len(letters)))
    return 1 if found else 0


def _watch(scene, options, verdict, out, stop, address):
    """Shows the cards until `stop` is set, the time is over or a card ends; returns the seconds it took."""
    screen = view.Screen(out)
    begin = time.monotonic()
    next_line = 0.0
    try:
        scene.start()
        while not stop.wait(1 / LOOKS_PER_SECOND):
            elapsed = time.monotonic() - begin
            if options.seconds is not None and elapsed >= options.seconds:
                break
            stories = [event.play(elapsed) for event in verdict.events]
            looks = {letter: view.take(gateway) for letter, gateway in scene.gateways.items()}
            verdict.add(looks, elapsed)
            if screen.is_terminal:
                told = [line for line in (address, *stories) if line]
                screen.show(_picture(scene, options, looks, elapsed, told, screen.paint))
            elif elapsed >= next_line:
                next_line = elapsed + 1
                out.write("  |  ".join([beliefs.one_line(looks, elapsed)] + stories) + "\n")
                out.flush()
            if not all(gateway.running for gateway in scene.gateways.values()):
                break
    finally:
        screen.close()
    return time.monotonic() - begin


def _picture(scene, options, looks, elapsed, stories, paint):
    title = "The whole system: %d cards, each with its module       %5.0f s       Ctrl-C ends" % (len(looks), elapsed)
    modules = {letter: _module_text(module) for letter, module in scene.modules.items()}
    seconds = scene.round_seconds()
    about = "bus at 9600 baud x %g%s; module lines at %d baud; beside each module: its battery, the time of a round"
    footer = ["", paint("dim", about % (options.speed, ", a round takes %.2f s" % seconds if seconds else "",
                                        options.baud))]
    if options.noise:
        spoiled = scene.bus.spoiled + sum(gateway.module_line.spoiled for gateway in scene.gateways.values())
        footer.append(paint("dim", "%g %% of the transmissions are spoiled, %d so far" % (options.noise, spoiled)))
    return beliefs.picture(looks, modules, title, paint, footer + stories)
