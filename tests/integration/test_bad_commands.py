"""Commands that the module never takes: they keep the head of their queue, and what is behind waits. The gateway stays,
quietly, and is right again soon after the module takes them."""

import time

import pytest

from outside import wait_module
from tunnel import TunnelCabinet
from vitals import Vitals, lost, right_again


@pytest.fixture
def plant(bus, gateway, module):
    """The master of the bus, which polls, the card B, its module."""
    master = bus.attach(TunnelCabinet("A"))
    card = gateway("B", mask="1100")
    unit = module(card, thinking=0.03)
    wait_module(card)
    return master, card, unit


@pytest.mark.parametrize("how, bound", [("silent", 300), ("refused", 6000)])
def test_a_command_that_the_module_never_takes(plant, how, bound):
    master, card, unit = plant
    vitals = Vitals(card)
    if how == "silent":
        unit.fault("silent", "CS", times=None)
    else:
        unit.refuse("4", "CS")
    mark = unit.mark()
    for command, data in (("CS", b"0258"), ("TB", b"005")):
        assert master.ask_module("B", command, data) is not None, "acknowledged, whatever becomes of it"
    unit.wait("CS", since=mark, times=2)
    unit.silent = how == "silent"
    begun = unit.mark()
    stamp = card.tree().cabinet("B").box.Ups.timestamp
    master.start_polling("AB")
    time.sleep(4)
    assert {query.frame.command for query in unit.queries(since=begun)} == {"CS"}, "no polling, no second command"
    # The bus half is none the worse, and nothing but the time stamp tells that the cabinet's data are old.
    assert card.tree().cabinet("B").box.Ups.timestamp == stamp
    assert card.status_file.age() < 2
    assert "MODULE_2_LOST" not in lost(card.status())
    unit.silent = False
    unit.clear_faults()
    unit.wait("TB", since=mark, timeout=10)
    right_again(card, {}, unit, 10)
    vitals.check(bound)
