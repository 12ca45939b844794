"""The round of a card over its own module, as the line shows it: when it begins, its order, its pauses, what comes in
between. The module thinks for a moment, and times are those of its own record."""

import statistics

import pytest

from module_view import ROUND
from outside import CLOCK_UPDATE, MODULE_ON, POLLED, Outside, wait_module
from tunnel import TunnelCabinet

from sim.mlink import CARD

# Seconds of rest after a failed query, and how much a machine under load may add to it.
REST = 0.250
LATE = 0.500
THINKING = 0.005


@pytest.fixture
def own(gateway, module):
    """A card alone with its module."""
    card = gateway(mask="1000")
    unit = module(card, thinking=THINKING)
    unit.wait("RS", since=0)
    return card, unit


def pauses(unit, since):
    """From each reply of the module to the card's next query: (the command that was answered, seconds)."""
    asked = {query.number: query for query in unit.queries(since=since)}
    sent = {answer.number: answer.time for answer in list(unit.answered)}
    return [(asked[n].frame.command, asked[n + 1].start - sent[n])
            for n in asked if n + 1 in asked and n in sent]


def test_nothing_is_asked_before_the_registration_is_over(gateway, module):
    card = gateway(mask="1111", start=False)
    unit = module(card, thinking=THINKING)
    logs = []
    unit.model = lambda _: logs.append(card.log.text()) if not logs else None
    card.start()
    unit.wait("RS", since=0)
    log = logs[0]
    for command in ROUND:
        assert "Add Query %s to 0x31\n" % command in log
    assert log.rindex("MLinkIdle") > log.index("Add Query DE to 0x31")
    for letter in range(4):
        assert "Add Query BN to 0x%02X\n" % (0xEA + letter) in log, "the bus is registered too"
    assert unit.asked[0].frame.command == ROUND[0]
    mark = card.log.mark()
    unit.wait("RS", since=unit.mark(), times=3)
    assert not card.log.find("MLinkIdle", mark), "it never goes back"


def test_the_rounds_in_their_order(own):
    _, unit = own
    unit.wait("RS", since=0, times=20)
    asked = unit.queries()[:8 * 20]
    assert [query.frame.command for query in asked] == ROUND * 20
    assert {(query.frame.src, query.frame.dest, query.frame.data) for query in asked} == {(CARD, ord("1"), b"")}
    assert all(query.frame.checked for query in asked)


def test_no_pause_between_good_exchanges(own):
    _, unit = own
    mark = unit.mark()
    unit.wait("RS", since=mark, times=25)
    times = [seconds for _, seconds in pauses(unit, mark)]
    # On an idle machine a fraction of a millisecond; the aggregation, once a second, a little more.
    assert statistics.median(times) < 0.020
    assert sorted(times)[-5] < REST


@pytest.mark.parametrize("command", ROUND)
def test_a_rest_after_a_failed_one(own, command):
    _, unit = own
    mark = unit.mark()
    unit.fault("bad_check", command)
    unit.fault("refuse", command, code="5")  # busy is no failure, but it rests all the same
    unit.fault("refuse", command, code="1")
    unit.wait(command, since=mark, times=4)
    unit.wait("RS", since=unit.mark(), times=2)
    found = pauses(unit, mark)
    rests = [seconds for answered, seconds in found if answered == command][:3]
    assert all(REST - 0.02 <= seconds < REST + LATE for seconds in rests), rests
    others = [seconds for answered, seconds in found if answered != command]
    assert statistics.median(others) < 0.020
    assert sorted(others)[-3] < REST
    # The round goes on with the next query, and the failed one is asked again in its turn.
    asked = unit.commands_asked(mark)
    begin = ROUND.index(asked[0])
    assert asked == [ROUND[(begin + i) % 8] for i in range(len(asked))]


def test_silence_costs_a_second_and_the_rest(own):
    _, unit = own
    mark = unit.mark()
    unit.fault("silent", "GN")
    silent = unit.wait("GN", since=mark)
    after = unit.wait("RC", since=silent.number)
    assert 1.0 + REST - 0.02 <= after.start - silent.time < 1.0 + REST + LATE


def test_a_whole_round_of_failures_is_a_round_all_the_same(own):
    _, unit = own
    mark = unit.mark()
    unit.refuse("5")
    unit.wait("RS", since=mark, times=2)
    asked = unit.commands_asked(mark)
    begin = ROUND.index(asked[0])
    assert asked == [ROUND[(begin + i) % 8] for i in range(len(asked))]


class TestBetweenTheQueries:
    def commands_among(self, unit, mark, command):
        """What was asked, and where a command stands in it."""
        asked = unit.commands_asked(mark)
        return asked, [i for i, name in enumerate(asked) if name == command]

    def test_a_command_of_a_panel(self, own):
        card, unit = own
        wait_module(card)
        mark = unit.mark()
        Outside(card).carry_out(MODULE_ON, module="A")
        unit.wait("RS", since=unit.mark(), times=2)
        asked, places = self.commands_among(unit, mark, "DC")
        assert len(places) == 1
        polled = [name for name in asked if name in POLLED]
        begin = ROUND.index(polled[0])
        assert polled == [ROUND[(begin + i) % 8] for i in range(len(polled))], "nothing left out, nothing twice"

    def test_a_query_that_a_card_waits_for(self, bus, gateway, module):
        master = bus.attach(TunnelCabinet("A"))
        card = gateway("B", mask="1100")
        unit = module(card, thinking=THINKING)
        unit.memory[b"0123"] = b"4567"
        wait_module(card)
        mark, log = unit.mark(), card.log.mark()
        for _ in range(10):
            assert master.ask_module("B", "GM", b"0123").frame.data == b"4567"
        asked, places = self.commands_among(unit, mark, "GM")
        assert len(places) == 10
        # It takes the line as soon as it is free: no two of them without the polling of other things between.
        polled = [name for name in asked if name in POLLED]
        begin = ROUND.index(polled[0])
        assert polled == [ROUND[(begin + i) % 8] for i in range(len(polled))]
        assert card.log.count("Start singleQC GM to 1\n", log) == card.log.count("ret = 0 errnoMLink:0\n", log) == 10
        assert card.log.count("Insert Single QC GM to 1\n", log) == 10
        assert card.log.count(r"\bdata\n0x30 0x31 0x32 0x33 \n", log) == 10


def test_the_cabinets_record_once_a_second_at_most(own):
    """Each run of the aggregation sets the module's clock if the module asks for it."""
    card, unit = own
    wait_module(card)
    Outside(card).mark("A", CLOCK_UPDATE)
    unit.wait("ST", since=0, times=6, timeout=15)
    runs = [query.start for query in unit.queries("ST")]
    gaps = [later - earlier for earlier, later in zip(runs, runs[1:])]
    # It is the run's begin that keeps the distance; the query leaves a moment later.
    assert min(gaps) > 0.95 and sum(gaps) / len(gaps) > 1.0
    assert min(gaps) < 1.0 + REST, "and not much less often"
