"""The demonstration's own parts: what the cards believe side by side, what is done to the plant, and the verdict."""

from types import SimpleNamespace

import pytest

from sim import beliefs, system
from sim.module import Module
from sim.records import COMM_LOST, NONE
from sim.statusfile import BOOLEANS, KEYS, TEXTS
from sim.tree import Tree, registered_tree
from sim.view import Look

NOW = 1000000000


def status(*alarms):
    document = {key: False if key in BOOLEANS else "" if key in TEXTS else 0 for key in KEYS}
    return dict(document, statusAlarms=list(alarms), UPSFAILURE=False)


def look(card="A", alarms=(), file_age=0.2, change=None, cabinets="ABCD"):
    """A look at a card that believes all well, but for the alarms and what `change` does to the tree's records."""
    nodes = registered_tree(card, cabinets)
    root, boxes = nodes[0].sys, {}
    root.UPSBox = [NONE] * 4
    for letter, node in zip(cabinets, nodes[2:]):
        box = boxes[letter] = node.box
        box.set("UPSShelter.alarmSt", 4)
        box.Ups.timestamp, box.Ups.Vout, box.Ups.Load, box.Ups.Carica_adj = NOW - 1, [230, 231, 229], [40, 42, 41], 96
        box.Ups.set("status.Output_Powered")
    if change:
        change(root, boxes)
    nodes[0].desc = root.pack()
    for letter, node in zip(cabinets, nodes[2:]):
        node.desc = boxes[letter].pack() + node.desc[267:]
    seen = Look(status(*alarms), Tree(b"".join(node.pack() for node in nodes)), file_age)
    seen.time = NOW
    return seen


def looks(**special):
    """The looks of four cards that agree, but for those given."""
    return {card: special.get(card) or look(card) for card in "ABCD"}


def test_a_healthy_belief():
    one = beliefs.belief(look(), "B")
    assert one == beliefs.Belief("ok", "powered", 1.0, 230, 42, 96)
    assert beliefs.good(look(), "B")
    assert not beliefs.good(look(file_age=9.0), "B")


def test_lost_is_what_the_file_says():
    """A slave's root still calls the cabinet well when its file calls the module lost."""
    assert beliefs.belief(look(alarms=["MODULE_3_LOST"]), "C").state == "lost"
    assert beliefs.belief(look(alarms=["MODULE_3_LOST"]), "B").state == "ok"


def test_a_cabinet_without_data_of_its_module():
    def wipe(_root, boxes):
        boxes["B"].Ups.timestamp = 0
    seen = look(change=wipe)
    assert beliefs.belief(seen, "B").state == beliefs.NO_MODULE
    assert not beliefs.good(seen, "B")
    assert beliefs.belief(look(cabinets="AB"), "C") is beliefs.UNKNOWN
    assert beliefs.belief(Look(None, None, None), "A") is beliefs.UNKNOWN


def test_cards_that_agree_don_t_differ():
    assert beliefs.differences(looks()) == []
    assert "all agree" in beliefs.one_line(looks(), 1.0)


def test_differences_are_told():
    def lost(root, _boxes):
        root.UPSBox[2] = COMM_LOST

    def older(_root, boxes):
        boxes["D"].Ups.timestamp = NOW - 25
    seen = looks(A=look(alarms=["MODULE_3_LOST"], change=lost), B=look(change=older), C=look(file_age=12.0))
    assert beliefs.differences(seen) == [
        "card C has not written for 12 s",
        "cabinet C: ok powered for B C D; lost powered for A",
        "cabinet D: values kept since 25 s by B"]


def test_the_picture_shows_all_of_it():
    modules = {letter: "mains  96%" for letter in "ABCD"}
    shown = "\n".join(beliefs.picture(looks(A=look(alarms=["MODULE_3_LOST"])), modules, "title", footer=["the end"]))
    for text in ("title", "card D", "mains  96%", "lost    230V  42%  96%", "MODULE_3_LOST", "Differences",
                 "lost powered for A", "the end"):
        assert text in shown
    beliefs.picture({"A": Look(None, None, None)}, modules, "nothing yet")
    beliefs.picture({"A": Look(None, None, None, "broken")}, modules, "an error")


def event(seen=None, lasts=30.0):
    did = []
    return did, system.Event("the thing", lasts, lambda: did.append("done"), lambda: did.append("undone"), seen)


def test_an_event_begins_and_ends():
    did, thing = event()
    assert thing.play(1.0) == "in 14 s: the thing" and did == []
    assert thing.play(16.0) == "the thing, for another 29 s" and did == ["done"]
    thing.play(20.0)
    assert thing.play(46.0) == "no longer: the thing" and did == ["done", "undone"]


def test_an_event_has_to_be_seen_and_to_be_over():
    shown = []
    _, thing = event(lambda _: bool(shown))
    thing.play(16.0)
    thing.watch({}, True, 16.0)
    assert thing.problems(20.0) == [], "there was no time yet"
    assert thing.problems(31.0) == ["not shown by the cards: the thing"]
    shown.append(1)
    thing.watch({}, False, 30.0)
    assert thing.problems(31.0) == []
    thing.play(46.0)
    thing.watch({}, False, 60.0)
    assert thing.problems(60.0) == []
    assert thing.problems(66.0) == ["not over for the cards: the thing"]
    thing.watch({}, True, 66.0)
    assert thing.problems(66.0) == []


def scene(running="ABCD"):
    return SimpleNamespace(gateways={card: SimpleNamespace(running=card in running) for card in "ABCD"})


def test_the_verdict():
    verdict = system.Verdict("ABCD", [])
    verdict.add(looks(), 1.0)
    assert verdict.problems(scene(), 2.0) == []
    assert verdict.problems(scene("ABD"), 2.0) == ["card C has ended by itself"]


def test_a_verdict_on_cards_that_never_saw_each_other():
    verdict = system.Verdict("ABCD", [])
    verdict.add(looks(B=look(alarms=["MODULE_4_LOST"]), C=Look(None, None, None)), 1.0)
    assert verdict.problems(scene(), 2.0) == ["card C has published no status file",
                                              "never seen in good order by card B: D"]
    verdict.add(looks(), 2.0)
    assert verdict.problems(scene(), 3.0) == []
    broken = look()
    del broken.status["TEMP1"]
    verdict.add(looks(D=broken), 3.0)
    assert verdict.problems(scene(), 3.0) == ["card D: keys: missing ['TEMP1'], unexpected []"]


@pytest.mark.parametrize("options, names", [
    ({}, []),
    ({"lose": "C"}, ["card C is cut off from the bus"]),
    ({"module_dies": "B", "refuse": "3", "mains_fails": True},
     ["the mains are away, all modules run from battery", "the module of B is dead",
      "the module of D refuses everything with code 3"]),
])
def test_events_by_options(bus, options, names):
    ports = {card: bus.pty(card) for card in "ABCD"}
    stage = SimpleNamespace(bus=bus, plant=SimpleNamespace(mains=True),
                            gateways={card: SimpleNamespace(bus_port=port) for card, port in ports.items()},
                            modules={card: Module() for card in "ABCD"})
    given = dict(lose=None, mains_fails=False, module_dies=None, refuse=None)
    events = system._events(stage, SimpleNamespace(**dict(given, **options)))
    assert [thing.name for thing in events] == names
    for thing in events:
        thing.play(16.0)
    assert (ports["C"] in bus.endpoints) != ("lose" in options)
    assert stage.plant.mains != ("mains_fails" in options)
    assert stage.modules["B"].silent == ("module_dies" in options)
    for thing in events:
        thing.play(200.0)
    assert ports["C"] in bus.endpoints and stage.plant.mains and not stage.modules["B"].silent


def test_what_counts_as_shown():
    def wiped(_root, boxes):
        boxes["B"].Ups.timestamp = 0
    shown = system._without_data("B")
    assert not shown(looks())
    assert not shown(looks(A=look(change=wiped)))
    assert shown({card: look(card, change=wiped) for card in "ABCD"})
    stage = SimpleNamespace(bus=None, gateways={card: SimpleNamespace(bus_port=None) for card in "ABCD"})
    cut_off = system._cut_off(stage, "C")._seen
    blind = {card: look(card, alarms=["MODULE_3_LOST"]) for card in "ABD"}
    assert cut_off(dict(blind, C=look("C", file_age=8.0)))
    assert not cut_off(dict(blind, C=look("C")))
    assert not cut_off(dict(blind, C=look("C", file_age=8.0), B=look("B")))
