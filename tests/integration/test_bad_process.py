"""Bad days of the process: killed, restarted on what it left, its files and its clock taken from it."""

import os
import random
import time

import pytest

from test_orderly_stop import ask_to_stop
from vitals import LONG_MINUTES, Vitals, right_again

KILLS = 50 if LONG_MINUTES else 5
# Of a plant of four.
SIZE = 4460
AT_MOST = 10.0


@pytest.fixture
def plant(one_card_plant):
    return one_card_plant


def test_killed_at_random_instants(plant):
    card, others, unit = plant()
    chance = random.Random(7)
    for _ in range(KILLS):
        time.sleep(chance.uniform(0, 1.5))
        card.stop()
        card.start()
    right_again(card, others, unit, AT_MOST)
    segments = card.sandbox.segments()
    assert [(s.size, s.attached) for s in segments] == [(SIZE, 1)]
    assert card.marks() == []
    Vitals(card).check(0)


@pytest.mark.parametrize("size", [SIZE * 4, SIZE + 446])
def test_a_larger_segment_was_left(plant, size):
    card, others, unit = plant(start=False)
    left = card.sandbox.create_segment(size, fill=0xA5)
    card.start()
    right_again(card, others, unit, AT_MOST)
    assert card.sandbox.read_segment(left, size - SIZE, SIZE) == b"\xA5" * (size - SIZE)


def test_a_smaller_segment_was_left_and_is_removed(plant):
    card, others, unit = plant(start=False)
    left = card.sandbox.create_segment(446, fill=0xA5)
    card.start()
    card.log.wait_message("Errore nella costruzione dell'albero del sistema")
    time.sleep(2)
    assert card.running and card.status() is None
    card.stop()
    card.sandbox.remove_segment(left)
    card.start()
    right_again(card, others, unit, AT_MOST)


def test_a_segment_of_another_user_was_left(plant):
    card, others, unit = plant(start=False)
    script = ("import os, sys; os.setgid(65534); os.setuid(65534); from sim import shm; "
              "shm.create(%d, %d, 0o604, 0xA5)" % (card.sandbox.key, SIZE))
    env = dict(card.sandbox.environment(), PYTHONPATH=os.environ.get("PYTHONPATH", ""))
    if card.sandbox.spawn(["/usr/bin/python3", "-c", script], env).wait(10):
        pytest.skip("no right to become another user here")
    assert card.sandbox.segment().uid == 65534
    card.start()
    right_again(card, others, unit, AT_MOST)
    assert [s.uid for s in card.sandbox.segments()] == [65534]


def test_a_segment_that_it_may_not_write_was_left(plant, bus):
    """A gateway without root's rights, and the segment of one that had them."""
    card, others, unit = plant(start=False)
    left = card.sandbox.create_segment(SIZE, fill=0xA5)
    for path in (card.bus_port.path, card.module_port.path):
        os.chmod(path, 0o666)
    for path in (card.sandbox.directory, card.sandbox.home):
        os.chmod(path, 0o777)
    arguments = ["-c", "import os, sys; os.setgroups([]); os.setgid(65534); os.setuid(65534); "
                       "os.execv(sys.argv[1], sys.argv[1:])", card.binary, *card.arguments]
    if card.sandbox.spawn(["/usr/bin/python3", *arguments[:2], "/bin/test", "-x", card.binary]).wait(10):
        pytest.skip("no right to become another user here, or none for that user to start the program")
    binary = card.binary

    def start():
        card.binary = "/usr/bin/python3"
        card.start(arguments)
        card.binary = binary
    start()
    card.log.wait_message("Errore nella costruzione dell'albero del sistema")
    bus.wait("B BS", timeout=10)
    assert card.running and card.status() is None
    assert card.sandbox.read_segment(left, SIZE) == b"\xA5" * SIZE
    card.stop()
    card.sandbox.remove_segment(left)
    start()
    right_again(card, others, unit, AT_MOST)
    assert [s.uid for s in card.sandbox.segments()] == [65534]


def test_a_reader_stays_attached_at_the_stop(plant):
    card, others, unit = plant()
    card.sandbox.hold_segment(card.sandbox.segment().id)
    ask_to_stop(card)
    # It waits for the reader, a minute long before it asks for the card's restart.
    card.log.wait_message("persistono", timeout=20, times=3)
    assert card.running and card.marks() == []
    card.sandbox.release_segments()
    assert card.wait_exit(10) == 0
    assert card.sandbox.segments() == []
    card.start()
    right_again(card, others, unit, AT_MOST)


@pytest.mark.parametrize("kind", ["full", "missing", "read-only"])
def test_no_place_for_the_status_file_and_back(plant, kind):
    card, others, unit = plant()
    vitals = Vitals(card)
    sandbox = card.sandbox
    if kind == "full":
        sandbox.cover_home()
        sandbox.fill_home()
    elif kind == "missing":
        sandbox.remove_home()
    else:
        sandbox.cover_home(read_only=True)
    time.sleep(4)
    # The tree is none the worse.
    right_again(card, others, unit, AT_MOST, status=False)
    if kind == "full":
        sandbox.empty_home()
        deadline = time.monotonic() + 3
        inside = "/proc/%d/root/home/gwdev/vu.json" % card.program.pid
        while not (os.path.exists(inside) and os.path.getsize(inside) > 1000):
            assert time.monotonic() < deadline, "no file on the disk that has room again"
            time.sleep(0.05)
        sandbox.uncover_home()
    elif kind == "missing":
        sandbox.restore_home()
    else:
        sandbox.uncover_home()
    stamp = card.status_file.raw()
    began = time.monotonic()
    while card.status_file.raw() == stamp or card.status_file.age() > 1:
        assert time.monotonic() - began < 5
        time.sleep(0.02)
    print("written again after %.2f s" % (time.monotonic() - began))
    right_again(card, others, unit, AT_MOST)
    vitals.check(1000)


def test_the_clock_jumps_an_hour_and_back(plant):
    card, others, unit = plant()
    vitals = Vitals(card)
    for hours in (1, 0, -1, 0):
        card.clock.shift(3600 * hours)
        card.wait_status(lambda s, h=hours: abs(s["timestamp"] - time.time() - 3600 * h) < 3, 5)
        right_again(card, others, unit, AT_MOST)
    vitals.check(60)
