"""Ports that go away, BREAKs, and others on the bus that should not be there: the gateway stays, and is right again soon."""

import time

import pytest

from sim import frames
from sim.cabinet import Cabinet
from vitals import Vitals, lost, right_again


@pytest.fixture
def plant(one_card_plant):
    return one_card_plant()


def test_both_ports_go_away(plant):
    """The port of a master and that of a module are opened once: the process stays, quietly, and the next one is right
    at once."""
    card, others, unit = plant
    vitals = Vitals(card)
    card.hang_up_bus()
    card.hang_up_module()
    card.wait_status(lambda s: len(lost(s)) >= 3, 20)
    time.sleep(3)
    card.restore_bus()
    card.restore_module()
    time.sleep(2)
    assert card.running and card.program.pid == vitals.pid
    used = (card.program.cpu_seconds() - vitals.cpu) / (time.monotonic() - vitals.begun)
    lines = card.log.text(vitals.mark).count("\n") * 60 / (time.monotonic() - vitals.begun)
    print("%.1f %% of a core, %.0f log lines a minute" % (used * 100, lines))
    assert used < 0.10 and lines < 3000
    card.stop()
    card.start()
    right_again(card, others, unit, 20)


def test_a_storm_of_breaks(plant):
    """A BREAK makes a slave of the master, which stays one until somebody hands the role to it."""
    card, others, unit = plant
    vitals = Vitals(card)
    until = time.monotonic() + 3
    sent = 0
    while time.monotonic() < until:
        card.interrupt()
        sent += 1
        time.sleep(0.005)
    print("%d BREAKs" % sent)
    card.log.wait_message("attende per 60000", timeout=10, since=vitals.mark)
    right_again(card, {}, unit, 10, status=False)
    # BREAKs that came while it was already waiting as a slave are noticed with the next frame, which is lost by it.
    reply = others["B"].ask("A", "BN", timeout=3) or others["B"].ask("A", "BN", timeout=3)
    assert reply is not None, "it answers as a slave"
    others["B"].hand_over("A")
    right_again(card, others, unit, 15)
    vitals.check(5000)


def test_two_masters_at_once(plant, bus):
    card, others, unit = plant
    vitals = Vitals(card)
    others["B"].start_polling("ABCD")
    time.sleep(5)
    others["B"].stop_polling()
    right_again(card, others, unit, 15)
    vitals.check(5000)


@pytest.mark.parametrize("address", [0xE5, 0xEE, 0x00, 0xFF])
def test_a_card_with_an_address_outside_the_plant(plant, bus, address):
    card, others, unit = plant
    vitals = Vitals(card)
    stranger = bus.attach(Cabinet("B"))
    stranger.silent = True
    data = {command: others["B"].data_of(command) for command in ("BN", "BS", "BI")}
    until = time.monotonic() + 3
    while time.monotonic() < until:
        for command, content in data.items():
            stranger.send_raw(frames.encode(address, frames.BROADCAST, command, content))
            stranger.send_raw(frames.encode(address, "A", command))
            time.sleep(0.02)
    bus.detach(stranger)
    right_again(card, others, unit, 15)
    vitals.check(5000)
