"""What the cards of one plant believe of its cabinets, side by side, and where they differ.

Each card keeps a tree and a status file of its own. While all cards answer, the trees say the same, but for what is on
its way; when one falls silent, or a line breaks, they come apart in ways that a person at one card can't see.
"""

from collections import namedtuple

from sim.view import CABINETS, Painter, STATE_COLOURS, flags

# Seconds after which a file or values count as left standing. The master waits for a lost cabinet twice in a round,
# three seconds each, and nobody else writes then: that is not meant.
OLD = 10.0

# What a card believes of a cabinet: a word, the flags that it knows of, the age of the module's data in seconds (None:
# there are none), output volts, the load of the fullest phase and the battery's charge in per cent.
Belief = namedtuple("Belief", "state flags age volts load charge")
UNKNOWN = Belief("-", "", None, 0, 0, 0)
LOST = "lost"
NO_MODULE = "no data"


def belief(look, letter):
    """What the card of a Look believes of a cabinet."""
    node = look.tree.cabinet(letter) if look.tree else None
    if node is None or look.status is None:
        return UNKNOWN
    ups = node.box.Ups
    if "MODULE_%d_LOST" % (CABINETS.index(letter) + 1) in look.status["statusAlarms"]:
        state = LOST
    elif not ups.timestamp:
        state = NO_MODULE
    else:
        state = look.state(letter)
    age = max(0.0, look.time - ups.timestamp) if ups.timestamp else None
    return Belief(state, flags(node.box), age, round(sum(ups.Vout) / 3), max(ups.Load), ups.Carica_adj)


def good(look, letter):
    """True if the card publishes and believes the cabinet to be alive, with data of its module."""
    return look.fresh and belief(look, letter).state not in (UNKNOWN.state, LOST, NO_MODULE)


def _groups(pairs):
    """Maps each value of (letter, value) pairs to its letters, the most common value first."""
    groups = {}
    for letter, value in pairs:
        groups.setdefault(value, []).append(letter)
    return sorted(groups.items(), key=lambda item: (-len(item[1]), item[1]))


def differences(looks):
    """Where the cards come apart, as sentences. `looks` maps the cards' letters to Looks."""
    told = []
    for card, look in looks.items():
        if look.status is not None and (look.file_age or 0.0) > OLD:
            told.append("card %s has not written for %.0f s" % (card, look.file_age))
    for cabinet in looks:
        beliefs = [(card, belief(look, cabinet)) for card, look in looks.items()]
        known = [(card, b) for card, b in beliefs if b is not UNKNOWN]
        groups = _groups((card, (b.state, b.flags)) for card, b in known)
        if len(groups) > 1:
            told.append("cabinet %s: %s" % (cabinet, "; ".join(
                "%s for %s" % (" ".join(part for part in value if part), " ".join(cards))
                for value, cards in groups)))
        old = [(card, b.age) for card, b in known if b.age is not None and b.age > OLD and b.state != LOST]
        if old:
            told.append("cabinet %s: values kept since %.0f s by %s" % (cabinet, max(age for _, age in old),
                                                                        " ".join(card for card, _ in old)))
    return told


_CELL = "%-8s%3dV%4d%%%4d%%"
_CELL_WIDTH = len(_CELL % ("", 0, 0, 0))
_NAME_WIDTH = 26


def _cell(one, common, paint):
    """One belief; the word stands out by its kind, the values where the card is alone with its belief or they are
    old."""
    if one.state in (UNKNOWN.state, NO_MODULE):
        return paint("dim" if one is UNKNOWN else "red", ("%-*s" % (_CELL_WIDTH, one.state)))
    text = _CELL % (one.state, one.volts, one.load, one.charge)
    word, values = text[:8], text[8:]
    values = paint("dim" if one.age is None or one.age > OLD else None, values)
    return paint("yellow" if (one.state, one.flags) != common else STATE_COLOURS.get(one.state), word) + values


def picture(looks, modules, title, paint=Painter(False), footer=()):
    """The picture as a list of lines. `modules` maps letters to what the modules themselves are: texts."""
    lines = [paint("bold", title), ""]
    lines.append(paint("dim", "%-*s" % (_NAME_WIDTH, "    its module")
                       + "  ".join("%-*s" % (_CELL_WIDTH, "card " + card) for card in looks)))
    for cabinet in looks:
        beliefs = {card: belief(look, cabinet) for card, look in looks.items()}
        known = [(card, (b.state, b.flags)) for card, b in beliefs.items() if b is not UNKNOWN]
        common = _groups(known)[0][0] if known else None
        row = "%s   %-*s" % (paint("bold", cabinet), _NAME_WIDTH - 4, modules[cabinet])
        lines.append(row + "  ".join(_cell(b, common, paint) for b in beliefs.values()))
    lines += ["", paint("dim", "card  file     out            load             power  battery            min  C")]
    lines += [_card_row(card, look, paint) for card, look in looks.items()]
    lines.append("")
    apart = differences(looks)
    lines.append("%s  %s" % (paint("bold", "Differences"), paint("yellow", apart[0]) if apart else "none"))
    lines += ["             " + paint("yellow", line) for line in apart[1:]]
    return lines + list(footer)


def _card_row(card, look, paint):
    if look.error:
        return "%s     %s" % (paint("bold", card), paint("red", look.error))
    s = look.status
    if s is None:
        return "%s     %s" % (paint("bold", card), paint("dim", "no status file yet"))
    age = "%5.1f s" % max(0.0, look.file_age or 0.0)
    alarms = list(s["statusAlarms"]) + (["UPSFAILURE"] if s["UPSFAILURE"] else [])
    return "%s     %s  %3d V %5.1f Hz  %3d %3d %3d %%  %6d W  %3d V %+7.1f A %3d%% %4d  %d  %s" % (
        paint("bold", card), age if look.fresh else paint("red", age), s["OUTPUTVOLTAGE"], s["OUPUTFREQUENCY"] / 10,
        s["OUTPUTLOAD"], s["OUTPUTLOAD2"], s["OUTPUTLOAD3"],
        s["OUTPUTPOWER"] + s["OUTPUTPOWER2"] + s["OUTPUTPOWER3"], s["BATTERYVOLTAGE"], s["BATTERYCURRENT"] / 10,
        s["BATTERYESTCHARG"], s["BATTERYESTTIME"], s["SYSTEMTEMP"], paint("red", " ".join(alarms)))


def one_line(looks, elapsed):
    """The same in one plain line: each card with the age of its file, its beliefs of all cabinets, and the plant's
    battery as it has it."""
    cards = []
    for card, look in looks.items():
        age, charge = "no file", ""
        if look.status is not None:
            age, charge = "%.1f s" % max(0.0, look.file_age), " %d%%" % look.status["BATTERYESTCHARG"]
        cards.append("%s (%s) %s%s" % (card, age, " ".join(belief(look, cabinet).state for cabinet in looks), charge))
    return "%6.1f s  %s  |  %s" % (elapsed, "  ".join(cards), "; ".join(differences(looks)) or "all agree")
