"""A whole plant as a card sums it up: the root of the tree and the status file, against a model of the rules."""

import pytest

from expected import System, explain
from sim.records import COMM_LOST, LOCK, NONE, Nominal
from watcher import healthy


def test_all_well(watcher):
    document = watcher.check()
    assert document["statusAlarms"] == []
    assert document["UPSFAILURE"] is False
    watcher.tick(20)
    watcher.check()


@pytest.mark.parametrize("letters", ["A", "AC", "ABD"])
def test_smaller_plants(make_watcher, letters):
    watcher = make_watcher(letters)
    settled = ["redundancy"] if letters == "A" else []
    watcher.check()
    watcher.tick(4)
    document = watcher.check(settled=settled)
    assert ("ALARM_REDUNDANCY" in document["statusAlarms"]) == bool(settled)


SWITCHES = ["externalSwitchStatus.SWIN", "externalSwitchStatus.SWBYP", "externalSwitchStatus.SWBATT_EXT",
            "Ups.status.SWOUT", "externalSwitchStatus.EPO"]


@pytest.mark.parametrize("path", SWITCHES)
@pytest.mark.parametrize("where", ["A", "BC", "BCD", "ABCD"])
def test_switches_open(watcher, path, where):
    for letter in where:
        watcher.cabinets[letter].status.clear(path)
    watcher.report()
    watcher.check()


@pytest.mark.parametrize("where", ["A", "BC", "ABCD"])
def test_manual_bypass_closed(watcher, where):
    for letter in where:
        watcher.cabinets[letter].status.set("Ups.status.SWMB")
    watcher.report(passes=3)
    document = watcher.check(was=("SWMB",))
    assert "MANUAL_BYPASS_UPS" in document["statusAlarms"]


def test_nobody_powered(watcher):
    for cabinet in watcher.cabinets.values():
        cabinet.status.clear("Ups.status.Output_Powered")
    watcher.report()
    document = watcher.check()
    assert document["OUTPUTLOAD"] == 0
    watcher.tick(10)
    watcher.check(settled=["redundancy"])


def test_on_bypass(watcher):
    watcher.cabinets["B"].status.set("Ups.status.On_Bypass")
    watcher.report()
    document = watcher.check()
    assert document["ONBYPASS"] is True
    assert [document[key] for key in ("OUTPUTLOAD", "OUTPUTLOAD2", "OUTPUTLOAD3")] == [0, 0, 0]


@pytest.mark.parametrize("shelter, alarm", [(COMM_LOST, True), (LOCK, False), (NONE, False)])
def test_a_lost_module(watcher, shelter, alarm):
    watcher.cabinets["C"].status.UPSShelter = shelter
    watcher.report()
    document = watcher.check()
    assert ("MODULE_3_LOST" in document["statusAlarms"]) == alarm
    assert document["UPSFAILURE"] is alarm
    watcher.tick(3)
    watcher.check()
    watcher.tick(1)
    document = watcher.check(settled=[] if shelter == NONE else ["redundancy"])
    assert ("ALARM_REDUNDANCY" in document["statusAlarms"]) == (shelter != NONE)


@pytest.mark.parametrize("values", [
    {"Vin": [79, 80, 0]}, {"Uin": [138, 139, 0]}, {"Frq_in": 19}, {"Frq_in": 20}, {"VbatRS": 99, "Vbatn": 100},
    {"Vbatp": 99}, {"Vbatp": 100}, {"Vbatp": 101, "Aut_time": 3, "Carica_adj": 7}, {"Watt": [-20000, -5, 5]},
    {"Load": [300, 511, 260]}, {"Iin": [1 << 20] * 3}, {"Temp0": 255, "Temp6": 200}, {"Ibatp": -500}])
def test_dead_inputs_and_bounds(watcher, values):
    for name, value in values.items():
        setattr(watcher.cabinets["B"].status.Ups, name, value)
    watcher.report()
    watcher.check()


@pytest.mark.parametrize("field, bits", [
    ("alarm", "Warning Anomaly Fault Alarm_Temperature Alarm_Overload"),
    ("status", "Shutdown_Active Shutdown_Imminent"),
    ("extStatus", "Eco_Mode Test_in_progress Replace_Battery Parallel_Link_Open Battery_Charging"),
])
def test_flags_of_one_are_flags_of_all(watcher, field, bits):
    for bit in bits.split():
        path = "Ups.%s.%s" % (field, bit)
        watcher.cabinets["D"].status.set(path)
        watcher.report()
        watcher.check()
        watcher.cabinets["D"].status.clear(path)


def test_a_silent_cabinet_on_the_master(bus, cabinets, gateway):
    """The real road of a loss: polls that fail, the alarm in the same pass, redundancy after more than three
    seconds, and the way back."""
    others = cabinets("BCD")
    for index, letter in enumerate("BCD"):
        others[letter].status = healthy(letter, index)
        others[letter].nominal = Nominal(timestamp=1, VA=40000 + index, W=36000 + index)
    card = gateway()
    card.wait_status()

    def system(silent="", **options):
        reports = {c: others[c].status.copy() for c in "BCD" if c not in silent}
        return System(dict(A=card.tree().cabinet("A").box, **reports), {c: others[c].nominal for c in reports}, silent=silent, **options)

    def settle(**options):
        own = card.tree().module("A").identification
        card.wait_status(lambda s: not explain(s, system(**options).document(s["timestamp"], own)), timeout=30)

    settle(settled=["redundancy"])
    document = card.status()
    assert {"SYSTEM_ANOMALY", "ALARM_REDUNDANCY", "MODULE_1_LOST"} <= set(document["statusAlarms"])
    others["C"].fault("bad_crc", times=None)
    document = card.wait_status(lambda s: "MODULE_3_LOST" in s["statusAlarms"])
    assert document["UPSFAILURE"] is True
    settle(silent="C", settled=["redundancy"])
    tree = card.tree()
    assert tree.root.sys.UPSBox[2] & 7 == COMM_LOST
    assert {"commErrorMCU", "AnomalyMCU"} <= tree.cabinet("C").box.bits("MCUMUStatus")
    others["C"].clear_faults()
    settle(settled=["redundancy"])
    assert card.tree().root.sys.UPSBox[2] & 7 != COMM_LOST
