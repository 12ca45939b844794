"""A module whose output differs from that of the system, which only counts once it has lasted; the card's clock is
moved by hand."""

import pytest

from module_view import follows
from outside import wait_module

NOW = 1800000000
LINE = "Lo stato Output_Powered non e' coerente!!\n"


class TestIncoherentOutput:
    """A module whose output differs from the system's, which the other cabinets feed."""

    @pytest.fixture
    def fed(self, cabinets, gateway, module):
        cabinets("B")
        card = gateway(mask="1100", start=False)
        card.clock.freeze(NOW)
        unit = module(card, thinking=0.001)
        card.start()
        wait_module(card)
        self.card = card
        card.wait_tree(lambda tree: tree.root.sys.Ups.get("status.Output_Powered")
                       and tree.cabinet("B").box.Ups.get("status.Output_Powered"))
        return card, unit

    def run_at(self, second):
        """The cabinet's measures after a run so many seconds later."""
        self.card.clock.freeze(NOW + second)
        return self.card.wait_tree(
            lambda tree: tree.cabinet("A").box.Ups.timestamp == NOW + second).cabinet("A").box.Ups

    def shown(self, ups):
        return ups.get("PMStatus.outputPoweredAnomaly"), ups.get("alarm.Anomaly"), self.card.log.count(LINE)

    def begin(self, unit):
        unit.data.clear("Output_Powered")
        self.card.wait_tree(lambda tree: not tree.cabinet("A").box.Ups.get("status.Output_Powered"))

    def test_counts_after_more_than_five_seconds_until_it_ends(self, fed):
        _, unit = fed
        self.begin(unit)
        assert self.shown(self.run_at(4)) == (0, 0, 0)
        assert self.shown(self.run_at(5)) == (0, 0, 0)
        assert self.shown(self.run_at(6)) == (1, 1, 1)
        assert self.shown(self.run_at(8)) == (1, 1, 1), "told once"
        unit.data.set("Output_Powered")
        self.card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.get("status.Output_Powered"))
        assert self.shown(self.run_at(9)) == (0, 0, 1)

    def test_a_disagreement_that_ends_in_time_counts_from_the_start_again(self, fed):
        _, unit = fed
        self.begin(unit)
        self.run_at(5)
        unit.data.set("Output_Powered")
        self.card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.get("status.Output_Powered"))
        self.begin(unit)
        assert self.shown(self.run_at(10)) == (0, 0, 0)
        assert self.shown(self.run_at(11)) == (1, 1, 1)

    def test_a_lost_module_ends_it(self, fed):
        card, unit = fed
        self.begin(unit)
        assert self.shown(self.run_at(6)) == (1, 1, 1)
        unit.silent = True
        ups = card.wait_tree(lambda tree: not tree.cabinet("A").box.Ups.timestamp).cabinet("A").box.Ups
        assert ups.bits("PMStatus") == {"commError"}
        unit.silent = False
        card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.timestamp)
        assert self.shown(self.run_at(7)) == (0, 0, 1)
        assert self.shown(self.run_at(13))[2] == 2


def test_one_module_agrees_with_itself(gateway, module):
    """Lock, bypass and battery of the only module are never a disagreement, however long they last."""
    card = gateway(mask="1000", start=False)
    card.clock.freeze(NOW)
    unit = module(card, thinking=0.001)
    card.start()
    unit.wait(since=0)
    for name in ("Lock", "L01", "Bypass_Bad", "Battery_Working"):
        unit.data.set(name)
    follows(card, unit, NOW)
    for second in (6, 13, 20):
        card.clock.freeze(NOW + second)
        ups = card.wait_tree(lambda tree, s=second: tree.cabinet("A").box.Ups.timestamp == NOW + s).cabinet("A").box.Ups
        assert ups.bits("alarm") == {"Lock", "Bypass_Bad"} and ups.bits("PMStatus") == {"bitCmdUnsupported"}
    assert not card.log.find("Non tutti i moduli")
