"""The live picture of a plant, drawn from what a card publishes: its status file and its tree.

On a terminal the picture is refreshed in place; elsewhere each look is one plain line. Colours are left out where
NO_COLOR is set.
"""

import os
import shutil
import time

from sim.records import ALARM_STATES, COMM_LOST

CABINETS = "ABCD"
# Seconds after which data are shown as old.
OLD = 5.0

_CODES = {"red": "31", "green": "32", "yellow": "33", "dim": "2", "bold": "1"}
STATE_COLOURS = {"ok": "green", "lost": "red", "fault": "red", "lock": "red", "anomaly": "yellow",
                  "warning": "yellow"}


class Painter:
    """Wraps texts in colours, or doesn't."""

    def __init__(self, on):
        self.on = on

    def __call__(self, colour, text):
        return "\x1b[%sm%s\x1b[0m" % (_CODES[colour], text) if self.on and colour else text


def _three(values):
    return " ".join("%3d" % value for value in values)


def _mean(tenths):
    return sum(tenths) / (10 * len(tenths))


def flags(box):
    """Short words for what stands out in a cabinet's record."""
    ups = box.Ups
    shown = [("status.Output_Powered", "powered"), ("status.Battery_Working", "ON BATTERY"),
             ("status.On_Bypass", "BYPASS"), ("status.SWMB", "MANUAL BYPASS"),
             ("extStatus.Battery_Charging", "charging"), ("extStatus.Test_in_progress", "testing"),
             ("extStatus.Eco_Mode", "eco"), ("alarm.Battery_Low", "BATTERY LOW"), ("alarm.Lock", "LOCK"),
             ("alarm.Fault", "FAULT"), ("alarm.Anomaly", "anomaly"), ("alarm.Warning", "warning"),
             ("alarm.Alarm_Overload", "OVERLOAD"), ("alarm.Alarm_Temperature", "HOT")]
    return " ".join(name for path, name in shown if ups.get(path))


class Look:
    """What one look at a card showed. `status` and `tree` as the gateway gives them, either may be None; `file_age`
    in seconds."""

    def __init__(self, status, tree, file_age, error=None):
        self.status = status
        self.tree = tree
        self.file_age = file_age
        self.error = error
        self.time = time.time()

    @property
    def fresh(self):
        """A good status file that is not old."""
        return self.status is not None and self.file_age is not None and self.file_age < OLD

    def state(self, letter):
        """State of a cabinet as the system sees it: a word of ALARM_STATES; "-" for one that is not in the plant or
        not known."""
        if self.tree is None or self.tree.cabinet(letter) is None:
            return "-"
        code = self.tree.root.sys.UPSBox[CABINETS.index(letter)] & 7
        return ALARM_STATES[code] if code < len(ALARM_STATES) else "?"

    def good(self, letter):
        """True if the system hears the cabinet and has data of it."""
        node = self.tree.cabinet(letter) if self.tree else None
        return bool(node and self.state(letter) != ALARM_STATES[COMM_LOST] and node.box.Ups.timestamp)


def take(gateway):
    """A Look at a gateway now."""
    error = status = tree = None
    try:
        status = gateway.status()
    except ValueError as fault:
        error = "status file: %s" % fault
    try:
        tree = gateway.tree()
    except OSError as fault:
        error = error or str(fault)
    return Look(status, tree, gateway.status_file.age(), error)


def _cabinet_row(look, letter, paint, notes):
    state = look.state(letter)
    name = "%s  %s" % (paint("bold", letter), paint(STATE_COLOURS.get(state), "%-8s" % state))
    node = look.tree.cabinet(letter) if look.tree else None
    if node is None:
        return "%s %s" % (name, paint("dim", "not in the plant" if look.tree else "no data"))
    box = node.box
    ups = box.Ups
    if letter in notes:
        return "%s %s" % (name, paint("dim", notes[letter]))
    if not ups.timestamp:
        return "%s %s" % (name, paint("dim", "no data"))
    age = look.time - ups.timestamp
    row = "%s %5.1f %4.1f  %s  %s %5.1f %4.1f  %3d %+6.1f %3d %3d  %2d %3.0f  " % (
        _three(ups.Vin), _mean(ups.Iin), ups.Frq_in / 10, _three(ups.Load), _three(ups.Vout), _mean(ups.Iout),
        ups.Frq_out / 10, ups.VbatRS, ups.Ibatp / 10, ups.Carica_adj, ups.Aut_time, ups.Temp0, max(0, age))
    return "%s %s%s" % (name, row if state != "lost" else paint("dim", row), flags(box))


_HEAD = ("            --------- in --------  -- load --  -------- out --------  ----- battery -----",
         "   state              V    A   Hz            %            V    A   Hz    V      A   % min   C age  flags")


def picture(look, title, notes=None, paint=Painter(False), footer=()):
    """The picture as a list of lines. `notes` replaces the row of a cabinet by a sentence."""
    lines = [paint("bold", title)]
    status = look.status
    if look.error:
        lines.append(paint("red", look.error))
    if status is None:
        lines.append("no status file yet")
        return lines + list(footer)
    age = "status file %.1f s old" % max(0.0, look.file_age or 0.0)
    lines.append(paint(None if look.fresh else "red", age))
    lines.append("")
    lines += [paint("dim", line) for line in _HEAD]
    lines += [_cabinet_row(look, letter, paint, notes or {}) for letter in CABINETS]
    lines.append("")
    lines += _system_lines(status, paint)
    return lines + list(footer)


def _system_lines(s, paint):
    def values(*keys):
        return " ".join(str(s[key]) for key in keys)
    words = [name for key, name in (("OUTPUTPOWERED", "powered"), ("LINEPRESENT", "mains present"),
                                    ("BATTERYWORK", "ON BATTERY"), ("BATTERYCHARGING", "charging"),
                                    ("BATTERYLOW", "BATTERY LOW"), ("ONBYPASS", "ON BYPASS"), ("UPSLOCK", "LOCK"),
                                    ("TESTINPROGRESS", "testing"), ("SHUTDOWNIMMIN", "SHUTDOWN IMMINENT"),
                                    ("ALARMOVERLOAD", "OVERLOAD"), ("ALARMTEMPERATUR", "HOT"),
                                    ("REPLACEBATTERY", "REPLACE BATTERY")) if s[key]]
    lines = ["%s  %s" % (paint("bold", "System"), ", ".join(words) or "not powered"),
             "  in   %s V  %.1f Hz    out  %s V  %.1f Hz    load %s %%" % (
                 values("INPUTVOLTAGE", "INPUTVOLTAGE2", "INPUTVOLTAGE3"), s["INPUTFREQUENCY"] / 10,
                 values("OUTPUTVOLTAGE", "OUTPUTVOLTAGE2", "OUTPUTVOLTAGE3"), s["OUPUTFREQUENCY"] / 10,
                 values("OUTPUTLOAD", "OUTPUTLOAD2", "OUTPUTLOAD3")),
             "  power %d of %d W    battery %d V  %d %%  %d min    temperature %d C" % (
                 s["OUTPUTPOWER"] + s["OUTPUTPOWER2"] + s["OUTPUTPOWER3"], s["NOMINALPOWERW"], s["BATTERYVOLTAGE"],
                 s["BATTERYESTCHARG"], s["BATTERYESTTIME"], s["SYSTEMTEMP"])]
    alarms = list(s["statusAlarms"]) + (["UPSFAILURE"] if s["UPSFAILURE"] else [])
    lines.append("%s  %s" % (paint("bold", "Alarms"), paint("red", ", ".join(alarms)) if alarms else "none"))
    return lines


def one_line(look, elapsed):
    """The same in one plain line."""
    if look.error:
        return "%6.1f s  %s" % (elapsed, look.error)
    if look.status is None:
        return "%6.1f s  no status file yet" % elapsed
    cabinets = []
    for letter in CABINETS:
        node = look.tree.cabinet(letter) if look.tree else None
        load = " %d%%" % node.box.Ups.maxLoad if node and look.good(letter) else ""
        cabinets.append("%s %s%s" % (letter, look.state(letter), load))
    s = look.status
    alarms = list(s["statusAlarms"]) + (["UPSFAILURE"] if s["UPSFAILURE"] else [])
    return "%6.1f s  age %.1f s  %s  |  out %d V %.1f Hz  %d W  battery %d%%  |  %s" % (
        elapsed, max(0.0, look.file_age), ", ".join(cabinets), s["OUTPUTVOLTAGE"], s["OUPUTFREQUENCY"] / 10,
        s["OUTPUTPOWER"] + s["OUTPUTPOWER2"] + s["OUTPUTPOWER3"], s["BATTERYESTCHARG"], " ".join(alarms) or "no alarms")


class Screen:
    """Puts pictures on a terminal, each over the last."""

    def __init__(self, stream):
        self.stream = stream
        self.is_terminal = stream.isatty()
        self.paint = Painter(self.is_terminal and not os.environ.get("NO_COLOR"))
        self._height = 0
        if self.is_terminal:
            stream.write("\x1b[?25l\x1b[?7l")

    def show(self, lines):
        """Draws the lines, cut to the terminal's size."""
        rows = shutil.get_terminal_size().lines
        lines = lines[:max(1, rows - 1)]
        self.stream.write("\x1b[%dA" % self._height if self._height else "")
        self.stream.write("".join("\r%s\x1b[K\n" % line for line in lines) + "\x1b[J")
        self.stream.flush()
        self._height = len(lines)

    def close(self):
        """Gives the terminal back."""
        if self.is_terminal:
            try:
                self.stream.write("\x1b[?25h\x1b[?7h\r")
                self.stream.flush()
            except OSError:
                pass  # the terminal itself has gone
