"""The slow agreement of the cards' clocks: what a series of CN frames leads to."""

import pytest

from sim.cabinet import Cabinet
from sim.records import ClockEntry

NOW = 1700000000


def towards_zero(a, b):
    """Division as the card does it."""
    return abs(a) // abs(b) * (1 if (a < 0) == (b < 0) else -1)


class Estimate:
    """The arithmetic of one card's offset, for tables in which only the sender and the card itself take part with
    ordinary priority and the sender claims no offset of its own."""

    def __init__(self):
        self.state = 0
        self.offset = 0

    def hear(self, milliseconds):
        """One frame that shows this card ahead by so many milliseconds; returns the weighted offset."""
        believed = self.state >> 5
        mixed = towards_zero(milliseconds + 3 * believed, 4)
        self.state = towards_zero(self.state * 29 + mixed * 32, 30)
        self.offset = self.state >> 5
        mean = min((abs(self.offset) * 1000 // 2) >> 5, 100000)
        return self.offset - mean // 1000


@pytest.fixture
def master(bus):
    return bus.attach(Cabinet("A"))


@pytest.fixture
def start(gateway, master):
    def start(**options):
        card = gateway("B", start=False, **options)
        card.clock.freeze(NOW, 500000)
        card.start()
        card.log.wait_message("attende per")
        return card
    return start


def tell(master, card, ahead):
    """A CN frame that shows card B ahead of card A by so many milliseconds; waits until B has taken it."""
    usec = 500000 - ahead * 1000
    master.hand_over("C", clocks={"A": ClockEntry(sec=NOW + usec // 1000000, usec=usec % 1000000, epochT=1),
                                  "B": ClockEntry(epochT=1)})
    # A card takes frames in order: its answer to a query shows that the CN before it has been taken.
    assert master.ask("B", "BN") is not None


@pytest.mark.parametrize("ahead", [1000, 1499, 700, -700, -1499])
def test_a_constant_offset_is_slewed_away(master, start, ahead):
    card, estimate = start(), Estimate()
    for _ in range(200):
        weighted = estimate.hear(ahead)
        tell(master, card, ahead)
        if abs(weighted) >= 76:
            break
        assert card.clock_calls() == []
    assert abs(weighted) >= 76
    microseconds = -weighted * 1000
    assert card.clock_calls() == [["adjtime", 0, microseconds]]
    card.log.wait_message("delta:0.%06d\n" % microseconds)
    card.log.wait_message("oldDelta:0.000000\n")
    card.log.wait_message("delta pesato:%d\n" % weighted)
    card.log.wait_message("countMCU:2\n")


def test_the_table_is_told_from_26_milliseconds_on(master, start):
    card, estimate, told = start(), Estimate(), []
    for _ in range(12):
        weighted = estimate.hear(800)
        tell(master, card, 800)
        if abs(weighted) >= 26:
            told.append(weighted)
        if abs(weighted) >= 76:
            break
    found = card.log.count(r"delta pesato:")
    assert found == len(told) > 1
    for weighted in told:
        assert card.log.count(r"delta pesato:%d$" % weighted) >= 1
    own = card.log.find(r"-1- T: *(\d+)\.(\d{3})s delta: *(-?\d+)ms epochT: *(\d+)s\n")
    assert (int(own.group(1)), int(own.group(2)), int(own.group(4))) == (NOW, 500, 1)


def test_two_corrections_are_sixty_seconds_apart(master, start):
    card = start()
    seconds = 0

    def several(count=5):
        for _ in range(count):
            master.hand_over("C", clocks={
                "A": ClockEntry(sec=NOW + seconds - 1, usec=500000, epochT=1), "B": ClockEntry(epochT=1)})
            assert master.ask("B", "BN") is not None
    while not card.clock_calls():
        several(1)
    several()
    assert len(card.clock_calls()) == 1
    for seconds, calls in ((1, 1), (30, 1), (59, 1), (60, 2), (61, 2), (119, 2), (120, 3)):
        card.clock.freeze(NOW + seconds, 500000)
        several()
        assert len(card.clock_calls()) == calls, "%d s after the first" % seconds


def test_a_refused_adjustment_is_tried_again_at_the_next_frame(master, start):
    card, estimate = start(adjtime_errno=1), Estimate()
    for _ in range(100):
        weighted = estimate.hear(1000)
        tell(master, card, 1000)
        if abs(weighted) >= 76:
            break
    card.log.wait(r"Err \(\w+\): adjtime\(\) failed, errno = 1\n")
    for _ in range(3):
        tell(master, card, 1000)
    assert len(card.clock_calls()) == 4


@pytest.mark.parametrize("ahead", [1500, -1500, 10000, -3600000])
def test_a_large_offset_is_only_told(master, start, ahead):
    card = start()
    for _ in range(3):
        tell(master, card, ahead)
    card.log.wait(r"Sincronizzo gli orologi\n my_tv_sec:%d  rem_tv_sec:\d+\n" % NOW, times=3)
    assert card.clock_calls() == []


@pytest.mark.parametrize("ahead", [0, 25, -25])
def test_a_small_offset_leaves_no_trace(master, start, ahead):
    card = start()
    mark = card.log.mark()
    for _ in range(60):
        tell(master, card, ahead)
    assert card.clock_calls() == []
    assert card.log.count("delta|orologi", mark) == 0


def test_a_clock_that_was_set_by_hand_elsewhere_leads(master, bus, start):
    card = start()
    for _ in range(3):
        master.hand_over("C", clocks={"A": ClockEntry(sec=NOW - 1, usec=500000, epochT=1), "B": ClockEntry(epochT=1),
                                      "D": ClockEntry(epochT=NOW)})
        assert master.ask("B", "BN") is not None
    assert card.log.count("delta") == 0, "a sender of lower priority is not compared with"
    other = bus.attach(Cabinet("D"))
    other.hand_over("C", clocks={"D": ClockEntry(sec=NOW - 1, usec=500000, epochT=NOW), "B": ClockEntry(epochT=1)})
    assert master.ask("B", "BN") is not None
    # Its weight leaves nothing to the others: the whole second counts at once, thinned by the filter alone.
    weight = NOW >> 16
    mixed = towards_zero(weight * 1000, weight + 3)
    offset = towards_zero(mixed * 32, 30) >> 5
    mean = (abs(offset) * 1000 // 2) >> 5
    assert card.clock_calls() == ([["adjtime", 0, -(offset - mean // 1000) * 1000]]
                                  if offset - mean // 1000 >= 76 else [])
