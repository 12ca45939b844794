"""The clock of a module: set to the card's local time at each run of the module aggregation, as long as another program
asks for it by a bit in the module's record."""

import time

import pytest

from outside import CLOCK_UPDATE, Outside, told, wait_module

from sim.records import Node

# 5 March 2027, 14:03:09, and the same as local time wherever the test runs.
MOMENT = (2027, 3, 5, 14, 3, 9)
NOW = int(time.mktime((*MOMENT, 0, 0, -1)))


@pytest.fixture
def start(gateway, module):
    """start("A"): a card whose clock stands, with its module, a program beside it."""
    def make(letter="A"):
        card = gateway(letter, mask="1000" if letter == "A" else "1100", start=False)
        card.clock.freeze(NOW)
        card.start()
        unit = module(card, thinking=0.001)
        wait_module(card)
        return card, unit, Outside(card)
    return make


def texts(unit, since=0):
    return [query.frame.data.decode() for query in unit.queries("ST", since)]


def test_twelve_characters_of_the_local_time(start):
    _, unit, outside = start()
    assert texts(unit) == []
    mark = unit.mark()
    outside.mark("A", CLOCK_UPDATE)
    asked = unit.wait("ST", since=mark)
    assert told([asked]) == [(" ", "1", "ST", b"050327140309")]
    assert unit.unit.clock == "050327140309"


@pytest.mark.parametrize("moment", [(2029, 12, 31, 23, 59, 58), (2028, 2, 29, 0, 0, 0), (2030, 10, 10, 10, 10, 10)])
def test_other_times(start, moment):
    card, unit, outside = start()
    card.clock.freeze(int(time.mktime((*moment, 0, 0, -1))))
    mark = unit.mark()
    outside.mark("A", CLOCK_UPDATE)
    year, month, day, hour, minute, second = moment
    assert unit.wait("ST", since=mark).frame.data.decode() == "%02d%02d%02d%02d%02d%02d" % (
        day, month, year % 100, hour, minute, second)


def test_again_at_each_run_until_the_outside_clears_it(start):
    card, unit, outside = start()
    outside.mark("A", CLOCK_UPDATE)
    for second in range(4):
        card.clock.freeze(NOW + second)
        wanted = time.strftime("%d%m%y%H%M%S", time.localtime(NOW + second))
        mark = unit.mark()
        while unit.wait("ST", since=mark).frame.data.decode() != wanted:
            mark = unit.mark()
    data = card.tree().module("A").module.data
    assert data.get(CLOCK_UPDATE), "the card leaves the bit alone"
    assert card.tree().cabinet("A").box.get("Ups." + CLOCK_UPDATE)
    outside.mark("A", CLOCK_UPDATE, 0, shown=lambda tree: not tree.module("A").module.data.get(CLOCK_UPDATE)
                 and not tree.cabinet("A").box.get("Ups." + CLOCK_UPDATE))
    mark = unit.mark()
    for second in (10, 11):
        card.clock.freeze(NOW + second)
        card.wait_tree(lambda tree, s=second: tree.cabinet("A").box.Ups.timestamp == NOW + s)
    assert texts(unit, mark) == []


def test_a_slave_does_the_same(start):
    _, unit, outside = start("B")
    mark = unit.mark()
    outside.mark("B", CLOCK_UPDATE)
    assert told([unit.wait("ST", since=mark)]) == [(" ", "1", "ST", b"050327140309")]


@pytest.mark.parametrize("code", "125")
def test_a_refusal_is_told_and_tried_again_at_the_next_run(start, code):
    card, unit, outside = start()
    unit.refuse(code, "ST", times=1)
    log, mark = card.log.mark(), unit.mark()
    outside.mark("A", CLOCK_UPDATE)
    unit.wait("ST", since=mark, times=2)
    asked = unit.queries("ST", mark)
    assert asked[1].start - asked[0].start > 0.95, "once in a run, whatever the refusal"
    card.log.wait_message("ret = 0 errnoMLink:0", since=log)
    assert card.log.count("Start singleQC ST to 1\n", log) == 2
    lines = [line.message for line in card.log.lines(log, "Err", "RefreshClockModule")]
    assert lines == ["Errore nell'aggiornamento dell'orologio del modulo 1"]
    assert card.log.count(r"ret = -1 errnoMLink:%s\n" % code, log) == 1
    assert unit.unit.clock == "050327140309"


def test_a_module_that_says_nothing_is_asked_at_the_next_run(start):
    """No bookkeeping of failures for this query: the module stays good."""
    card, unit, outside = start()
    unit.fault("silent", "ST", times=2)
    log, mark = card.log.mark(), unit.mark()
    outside.mark("A", CLOCK_UPDATE)
    unit.wait("ST", since=mark, times=3)
    card.log.wait(r"\(RefreshClockModule\): Errore nell'aggiornamento dell'orologio del modulo 1\n", since=log, times=2)
    assert card.tree().cabinet("A").box.Ups.timestamp == NOW
    assert not card.log.find("Nessun modulo e' in buono stato", log)


def test_no_clock_of_a_lost_module_is_set(start):
    card, unit, outside = start()
    unit.silent = True
    card.wait_tree(lambda tree: not tree.cabinet("A").box.Ups.timestamp)
    mark, log = unit.mark(), card.log.mark()
    segment = card.sandbox.segment()
    index = card.tree().nodes.index(card.tree().module("A"))
    card.sandbox.write_segment(segment.id, index * Node.SIZE + 177 + 6, b"\x01")
    card.log.wait_message("Nessun modulo e' in buono stato di comunicazione", since=log, times=2)
    assert texts(unit, mark) == []
    # The loss wipes it.
    assert not card.tree().module("A").module.data.get(CLOCK_UPDATE)
