"""Four real cards, each with a module of its own, on one bus: the same picture of the plant on each."""

import pytest

from outside import Outside, wait_module

from sim.statusfile import KEYS

LETTERS = "ABCD"
# What a card says of itself: its module's identification, and the time.
OWN = {"timestamp", "TESTNUMBERJ", "UPSMODELJ", "UPSSWVERSIONJ", "IOCONFIGURATION", "UPSTYPE"}


@pytest.fixture
def plant(gateway, module):
    """The four cards and their modules by letter; no two modules measure the same, and nothing moves."""
    cards, units = {}, {}
    for index, letter in enumerate(reversed(LETTERS)):
        card = cards[letter] = gateway(letter)
        unit = units[letter] = module(card, thinking=0.001)
        data = unit.data
        data.SN, data.Model = "MODULE OF " + letter, "MODEL " + letter
        data.Vin, data.Vout, data.Vbyp = [220 + index, 230, 231], [228 - index, 229, 230], [219, 221 + index, 225]
        data.Load, data.Watt, data.Va = [20 + 10 * index] * 3, [4000 + 7 * index] * 3, [4400 + 3 * index] * 3
        data.Iin, data.Iout, data.Iout_pk = [170 + index] * 3, [180 + index] * 3, [300 + index] * 3
        data.Vbatp, data.Vbatn, data.VbatRS = 130 + index, 131 + index, 260 + index
        data.Ibatp, data.Ibatn, data.Carica_adj, data.Aut_time = 10 + index, 12 + index, 90 - index, 40 + index
        data.VA, data.W, data.Temp0, data.Temp1 = 40000 + index, 36000 + index, 25 + index, 35 + index
    return cards, units


def _timeless(record):
    """The record without its times."""
    for path, _ in list(record.flat()):
        if path.split(".")[-1] == "timestamp":
            holder = record.at(path.rpartition(".")[0]) if "." in path else record
            holder.timestamp = 0
    return record


def view(card):
    """What a card believes of the plant, without times and without what is its own: by node, records as bytes."""
    tree = card.tree()
    view = {"root": _timeless(tree.root.sys), "root nominal": _timeless(tree.root.nominal)}
    for letter, node in tree.cabinets().items():
        view[letter], view[letter + " nominal"] = _timeless(node.box), _timeless(node.nominal)
    return view


def differences(one, other):
    """Lines for what two views don't share."""
    return ["%s %s" % (name, line) for name, record in one.items() for line in record.differences(other[name])]


def wait_alike(cards, wanted=lambda view, status: True, timeout=30.0):
    """Waits until all cards see the same, in tree and file, and `wanted` accepts it; returns (view, file)."""
    last = {}

    def alike(tree_or_status):
        looks = {letter: (view(card), card.status()) for letter, card in cards.items()}
        first, first_status = looks["A"]
        last["found"] = ["%s: %s" % (letter, line) for letter, (seen, _) in looks.items()
                         for line in differences(first, seen)]
        last["found"] += ["%s: %s: %r, %r" % (letter, key, first_status[key], status[key])
                          for letter, (_, status) in looks.items() for key in (set(KEYS) | {"statusAlarms"}) - OWN
                          if first_status[key] != status[key]]
        last["look"] = looks["A"]
        return not last["found"] and wanted(first, first_status)
    for card in cards.values():
        card.wait_status(timeout=timeout)
    try:
        cards["A"].wait_status(alike, timeout)
    except AssertionError:
        if last["found"]:
            raise AssertionError("the cards differ:\n%s" % "\n".join(last["found"])) from None
        raise
    return last["look"]


def all_in(seen, _status):
    """All cabinets have reported their modules' data, the last to arrive being the nominal power."""
    return all(seen[letter + " nominal"].VA and seen[letter].Ups.Temp1 for letter in LETTERS)


def test_four_identical_views(plant):
    cards, units = plant
    seen, status = wait_alike(cards, all_in)
    # Nobody has got it from anywhere but the modules.
    for index, letter in enumerate(reversed(LETTERS)):
        ups = seen[letter].Ups
        assert (ups.Vin[0], ups.Watt[1], ups.Carica_adj) == (220 + index, 4000 + 7 * index, 90 - index)
        assert seen[letter + " nominal"].VA == 40000 + index
        assert {"Output_Powered"} <= ups.bits("status")
    root = seen["root"].Ups
    assert root.Watt[0] == status["OUTPUTPOWER"] == sum(4000 + 7 * i for i in range(4))
    assert root.Vin[0] == status["INPUTVOLTAGE"] == (220 * 4 + 6) // 4
    assert root.Aut_time == status["BATTERYESTTIME"] == 40
    assert status["NOMINALPOWERVA"] == 160006 and status["OUTPUTPOWERED"] is True
    assert not [alarm for alarm in status["statusAlarms"] if alarm.startswith("MODULE_")]
    # What is a card's own is that of its own module.
    for letter, card in cards.items():
        document, tree = card.status(), card.tree()
        assert document["TESTNUMBERJ"].rstrip() == "MODULE OF " + letter
        assert document["UPSMODELJ"].rstrip() == "MODEL " + letter
        assert document["UPSSWVERSIONJ"].rstrip() == units[letter].data.SWVer.decode()
        assert tree.root.identification.SN.startswith(b"MODULE OF " + letter.encode())
        for other in LETTERS:
            known = tree.module(other).nominal.VA
            assert known == (seen[other + " nominal"].VA if other == letter else 0)


def test_they_stay_identical_when_something_happens(plant):
    cards, units = plant
    wait_alike(cards, all_in)
    units["C"].data.Load = [77, 78, 79]
    wait_alike(cards, lambda seen, status: seen["C"].Ups.Load == [77, 78, 79] and status["OUTPUTLOAD"] == 46)
    for unit in units.values():
        unit.unit.mains = False
    wait_alike(cards, lambda seen, status: status["BATTERYWORK"] and all(
        seen[letter].Ups.Ibatp < 0 for letter in LETTERS))
    for unit in units.values():
        unit.unit.mains = True
    wait_alike(cards, lambda seen, status: not status["BATTERYWORK"] and all(
        seen[letter].Ups.Ibatp > 0 for letter in LETTERS))
    # A lost module is lost for all. Its own card leaves it out of the sums, the others take what that card reports.
    units["B"].silent = True
    for card in cards.values():
        card.wait_status(lambda s: "MODULE_2_LOST" in s["statusAlarms"] and s["NOMINALPOWERVA"] < 160006, 20)
    units["B"].silent = False
    wait_alike(cards, lambda seen, status: "MODULE_2_LOST" not in status["statusAlarms"] and all_in(seen, status)
               and status["NOMINALPOWERVA"] == 160006)


def test_the_master_module_is_known_to_all(plant):
    cards, _ = plant
    wait_module(cards["C"])
    Outside(cards["C"]).make_master("C")
    seen, _ = wait_alike(cards, lambda seen, status: all_in(seen, status)
                         and seen["root"].get("Ups.extStatus.isMaster"))
    assert [letter for letter in LETTERS if seen[letter].get("Ups.extStatus.isMaster")] == ["C"]
