"""A card that sums up a plant of simulated cabinets, for tests that compare it with the model in expected.py."""

import time

from expected import System, explain, render
from sim.records import CabinetStatus

NOW = 1700000000


class Watcher:
    """A card that belongs to no cabinet: it only overhears, so that all four reports come from the test."""

    def __init__(self, card, cabinets):
        self.card = card
        self.cabinets = cabinets
        self.now = NOW

    @property
    def reports(self):
        return {letter: cabinet.status for letter, cabinet in self.cabinets.items()}

    @property
    def nominals(self):
        return {letter: cabinet.nominal for letter, cabinet in self.cabinets.items()}

    def report(self, passes=2):
        """All cabinets report, and the card has time for some passes over the reports."""
        for cabinet in self.cabinets.values():
            cabinet.announce("BN")
        for _ in range(passes):
            for cabinet in self.cabinets.values():
                cabinet.announce("BS")
                time.sleep(0.01)
            time.sleep(0.22)
            # The frame that makes the pass come; the others fell into the pause of the pass before.
            next(iter(self.cabinets.values())).announce("BS")
        time.sleep(0.05)

    def tick(self, seconds):
        """The wall clock moves, a report comes, a pass is made."""
        self.now += seconds
        self.card.clock.freeze(self.now)
        self.report()

    def check(self, **options):
        """The file is what the model makes of the reports, byte for byte."""
        system = System(self.reports, self.nominals, **options)
        wanted = system.document(self.now)
        found = self.card.status()
        assert explain(found, wanted) == []
        assert self.card.status_file.raw() == render(wanted)
        root = self.card.tree().root.sys
        for field in ("alarm", "status", "switchStatus", "PMStatus"):
            assert root.Ups.bits(field) == system.ups.bits(field), field
        for field in ("boxStatus", "externalSwitchStatus", "MCUMUStatus", "sysStatus"):
            assert root.bits(field) == system.root.bits(field), field
        return found


def healthy(letter, index):
    """A report with values of its own in every field."""
    box = CabinetStatus(UPSShelter=4)
    ups = box.Ups
    ups.timestamp = box.timestamp = 1
    for bit in ("Output_Powered", "Line_Present", "SWOUT"):
        ups.set("status." + bit)
    ups.set("extStatus.UPS_OK")
    for bit in ("Q1", "Bt_present"):
        ups.set("switchStatus." + bit)
    for bit in ("SWIN", "SWBYP", "SWBATT_EXT", "EPO"):
        box.set("externalSwitchStatus." + bit)
    box.set("boxStatus.SWBATT")
    k = index + 1
    ups.Load, ups.maxLoad = [40 + k, 42 + k, 44 + k], 44 + k
    ups.Va, ups.Watt = [5000 + k, 5100 + k, 5200 + k], [4700 + k, 4800 + k, 4900 + k]
    ups.Aut_time, ups.Carica_adj = 40 + k, 90 + k
    ups.VbatRS, ups.Vbatp, ups.Vbatn = 270 + k, 271 + k, 272 + k
    ups.Ibatp, ups.Ibatn = 10 + k, -10 - k
    ups.Vin, ups.Vbyp, ups.Vout = [220 + k, 225 + k, 230 + k], [221 + k, 226 + k, 231 + k], [222 + k, 227 + k, 232 + k]
    ups.Uin, ups.Ubyp, ups.Uout = [380 + k] * 3, [381 + k] * 3, [382 + k] * 3
    ups.Frq_in, ups.Frq_byp, ups.Frq_out = 498 + k, 499 + k, 500 + k
    ups.Iin, ups.Iout, ups.Iout_pk = [200 + k] * 3, [210 + k] * 3, [300 + k] * 3
    for i in range(7):
        setattr(ups, "Temp%d" % i, 20 + 3 * i + k)
    return box
