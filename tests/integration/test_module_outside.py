"""What other programs of the card write into a module's record and no reply tells: what the cabinet's record makes of
it, byte for byte. The card's clock stands."""

import pytest

from module_view import follows
from outside import Outside, wait_module
from tunnel import TunnelCabinet

from sim.records import StatusReply

NOW = 1800000000


@pytest.fixture
def own(gateway, module):
    """A card alone with its module."""
    card = gateway(mask="1000", start=False)
    card.clock.freeze(NOW)
    unit = module(card, thinking=0.001)
    card.start()
    unit.wait(since=0)  # the tree is built
    return card, unit


def bits(tree, field):
    return tree.cabinet("A").box.Ups.bits(field)


def test_all_well(own):
    """Only a module that is said to be well leaves its cabinet so, as long as there is no alarm."""
    card, unit = own
    assert "UPS_OK" not in bits(follows(card, unit, NOW), "extStatus")
    Outside(card).mark("A", "extStatus.UPS_OK")

    def well(state):
        state.data.set("extStatus.UPS_OK")
    assert "UPS_OK" in bits(follows(card, unit, NOW, well), "extStatus")
    for name in ("W06", "A08", "F08"):
        unit.data.states = [0] * 22
        unit.data.set(name)
        assert "UPS_OK" not in bits(follows(card, unit, NOW, well), "extStatus")


def test_measures_that_only_they_know(own):
    card, unit = own
    outside = Outside(card)
    for bit in ("RemoteEco_Cmd", "LoadOnBypass_Cmd", "FreeSW6"):
        outside.mark("A", "switchStatus." + bit)
    outside.mark("A", "PMStatus.inputDisabled")
    outside.mark("A", "PMStatus.wrongPower")
    outside.mark("A", "PMStatus.bitCmdUnsupported", 0)

    def change(state):
        for path in ("switchStatus.RemoteEco_Cmd", "switchStatus.LoadOnBypass_Cmd", "switchStatus.FreeSW6",
                     "PMStatus.inputDisabled", "PMStatus.wrongPower"):
            state.data.set(path)
        state.data.clear("PMStatus.bitCmdUnsupported")
    follows(card, unit, NOW, change)


@pytest.mark.parametrize("letter, number", [("B", 9), ("C", 17), ("D", 25)])
def test_the_masters_number(bus, gateway, module, letter, number):
    master = bus.attach(TunnelCabinet("A"))
    card = gateway(letter)
    module(card, thinking=0.001)
    wait_module(card)

    def told():
        return StatusReply.unpack(master.ask(letter, "BS").data).idu
    assert told() == 255
    outside = Outside(card)
    outside.make_master(letter)
    assert told() == number
    outside.mark(letter, "extStatus.isMaster", 0,
                 shown=lambda tree: not tree.cabinet(letter).box.get("Ups.extStatus.isMaster"))
    assert told() == 255
