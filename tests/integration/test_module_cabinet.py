"""The cabinet's record that a card makes of its module: each rule driven by what the module tells, the whole record
compared byte for byte. The card's clock stands."""

import pytest

from module_view import follows
from outside import Outside

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


@pytest.mark.parametrize("name, alarms", [
    ("C08", {"Warning"}), ("W06", {"Warning"}), ("A08", {"Anomaly"}), ("A48", {"Anomaly"}), ("F08", {"Fault"}),
    ("F48", {"Fault"}), ((20, 0x80), set()), ("Alarm_Overload", {"Alarm_Overload"}), ("Alarm_Temperature", {"Fault"}),
    ("Bypass_Bad", {"Bypass_Bad"}), ("Battery_Low", set())])
def test_alarms(own, name, alarms):
    card, unit = own
    unit.data.set(name)
    assert bits(follows(card, unit, NOW), "alarm") == alarms


def test_alarms_end(own):
    card, unit = own
    for name in ("W06", "A08", "F08", "Alarm_Overload", "Alarm_Temperature", "Bypass_Bad"):
        unit.data.set(name)
    assert bits(follows(card, unit, NOW), "alarm") == {"Warning", "Anomaly", "Fault", "Alarm_Overload", "Bypass_Bad"}
    unit.data.flags, unit.data.states = [8, 0, 0, 0, 0], [0] * 22
    assert bits(follows(card, unit, NOW), "alarm") == set()


def test_a_locked_module_locks_the_cabinet_and_is_no_fault(own):
    card, unit = own
    unit.data.set("Lock")
    unit.data.set("L01")
    assert bits(follows(card, unit, NOW), "alarm") == {"Lock"}


def test_status_bits_go_through(own):
    card, unit = own
    for status, ext in (({"On_Bypass"}, {"Battery_Charging", "Eco_Mode"}),
                        ({"Shutdown_Active"}, {"Replace_Battery"}),
                        ({"Shutdown_Active", "Shutdown_Imminent"}, {"Test_in_progress"})):
        unit.data.flags = [8, 0, 0, 0, 0]
        for name in status | ext:
            unit.data.set(name)
        tree = follows(card, unit, NOW)
        assert bits(tree, "status") == status | {"Output_Powered", "Line_Present", "SWOUT"}
        assert bits(tree, "extStatus") == ext


def test_battery(own):
    card, unit = own
    assert "Line_Present" in bits(follows(card, unit, NOW), "status")
    unit.data.set("Battery_Working")
    tree = follows(card, unit, NOW)
    assert bits(tree, "status") >= {"Battery_Working", "Output_Powered"}
    assert "Line_Present" not in bits(tree, "status")
    assert (tree.cabinet("A").box.Ups.Ibatp, tree.cabinet("A").box.Ups.Ibatn) == (-16, -16)
    unit.data.set("Battery_Low")
    assert bits(follows(card, unit, NOW), "alarm") == {"Battery_Low"}
    # It works from the battery whether it feeds anything or not.
    unit.data.clear("Output_Powered")
    assert "Battery_Working" in bits(follows(card, unit, NOW), "status")
    unit.data.clear("Battery_Working")
    assert bits(follows(card, unit, NOW), "alarm") == set(), "a low battery counts while it works only"


def test_load_counts_while_the_output_is_powered(own):
    card, unit = own
    unit.data.Load = [255, 1, 0]
    assert follows(card, unit, NOW).cabinet("A").box.Ups.Load == [255, 1, 0]
    unit.data.clear("Output_Powered")
    tree = follows(card, unit, NOW)
    assert tree.cabinet("A").box.Ups.Load == [0, 0, 0]
    assert tree.cabinet("A").box.Ups.Watt == unit.data.Watt, "the others count all the same"


def test_from_which_value_on_a_measure_counts(own):
    card, unit = own
    data = unit.data
    data.NBattForBench = ":"  # ten in a row: the voltage is as told
    data.Vin, data.Vbyp, data.Vout = [79, 80, 81], [0, 79, 80], [80, 4095, 79]
    data.Frq_in, data.Frq_byp, data.Frq_out = 19, 20, 4095
    data.VbatRS, data.Vbatp, data.Vbatn = 99, 101, 100
    ups = follows(card, unit, NOW).cabinet("A").box.Ups
    assert (ups.Vin, ups.Vbyp, ups.Vout) == ([0, 80, 81], [0, 0, 80], [80, 4095, 0])
    assert (ups.Frq_in, ups.Frq_byp, ups.Frq_out) == (0, 20, 4095)
    assert (ups.VbatRS, ups.Vbatp, ups.Vbatn) == (0, 101, 100)
    data.VbatRS, data.Vbatn, data.Frq_in, data.Frq_byp = 100, 99, 20, 19
    ups = follows(card, unit, NOW).cabinet("A").box.Ups
    assert (ups.VbatRS, ups.Vbatn, ups.Frq_in, ups.Frq_byp) == (100, 0, 20, 0)


def test_autonomy(own):
    card, unit = own
    unit.data.NBattForBench, unit.data.Aut_time, unit.data.Carica_adj = ":", 77, 66
    for volts, shown in ((101, (77, 66)), (100, (0xFFFF, 0)), (99, (0, 0))):
        unit.data.Vbatp = volts
        ups = follows(card, unit, NOW).cabinet("A").box.Ups
        assert (ups.Aut_time, ups.Carica_adj) == shown
    # What can't be told from "never told" isn't taken.
    unit.data.Vbatp, unit.data.Aut_time, unit.data.Carica_adj = 101, 4095, 255
    ups = follows(card, unit, NOW).cabinet("A").box.Ups
    assert (ups.Aut_time, ups.Carica_adj) == (4095, 0)


def test_a_switched_on_module_without_autonomy_is_told_at_each_run(own):
    card, unit = own
    line = "Nessun modulo acceso ha comunicato l'autonomia\n"
    Outside(card).mark("A", "switchStatus.Q1")
    follows(card, unit, NOW, change=lambda state: state.data.set("switchStatus.Q1"))
    assert not card.log.find(line)
    unit.data.NBattForBench, unit.data.Vbatp = ":", 99
    follows(card, unit, NOW, change=lambda state: state.data.set("switchStatus.Q1"))
    mark = card.log.mark()
    card.log.wait_message(line, since=mark, times=3)
    assert {line.level for line in card.log.lines(mark) if "autonomia" in line.message} == {"Err"}
    unit.data.Vbatp = 100
    follows(card, unit, NOW, change=lambda state: state.data.set("switchStatus.Q1"))
    mark = card.log.mark()
    card.clock.freeze(NOW + 1)
    card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.timestamp == NOW + 1)
    assert not card.log.find(line, mark)


def test_switches(own):
    card, unit = own
    unit.data.set("OutputSwitchOpen")
    tree = follows(card, unit, NOW)
    assert (bits(tree, "alarm"), "SWOUT" in bits(tree, "status")) == ({"Anomaly"}, False)
    unit.data.clear("OutputSwitchOpen")
    assert "SWOUT" in bits(follows(card, unit, NOW), "status")
    unit.data.set("ManualBypassCommand")
    tree = follows(card, unit, NOW)
    assert (bits(tree, "alarm"), "SWMB" in bits(tree, "status")) == ({"Warning"}, True)


def test_contacts_that_were_closed_once_stay_closed(gateway, module):
    card = gateway(mask="1000", start=False)
    card.clock.freeze(NOW)
    unit = module(card, thinking=0.001)
    names = ("BatterySwitchOpen", "InputSwitchOpen", "BypassSwitchOpen")
    for name in names:
        unit.data.set(name)
    card.start()
    unit.wait(since=0)
    box = follows(card, unit, NOW).cabinet("A").box
    assert (box.boxStatus, box.externalSwitchStatus) == (0, 0)
    closed = {"BatterySwitchOpen": "boxStatus.SWBATT", "InputSwitchOpen": "externalSwitchStatus.SWIN",
              "BypassSwitchOpen": "externalSwitchStatus.SWBYP"}
    stays = []

    def sticky(box):
        for path in stays:
            box.set(path)
    for name in names:
        unit.data.clear(name)
        stays.append(closed[name])
        follows(card, unit, NOW, sticky=sticky)
        unit.data.set(name)
        follows(card, unit, NOW, sticky=sticky)
    card.wait_status(lambda s: not {"SWIN_OPEN", "SWBYP_OPEN"} & set(s["statusAlarms"]))


def test_sums_and_temperatures_go_through(own):
    card, unit = own
    data = unit.data
    data.Va, data.Watt, data.Iin = [1048575, 1, 2], [3, 1048575, 4], [65535, 0, 65534]
    data.Iout, data.Iout_pk = [5, 65535, 6], [65535, 7, 8]
    data.Temp0, data.Temp1, data.Temp2, data.Temp3, data.Temp4, data.Temp5, data.Temp6 = 0, 255, 1, 254, 2, 253, 3
    ups = follows(card, unit, NOW).cabinet("A").box.Ups
    assert (ups.Va, ups.Iin, ups.Iout_pk) == (data.Va, data.Iin, data.Iout_pk)
    assert [getattr(ups, "Temp%d" % i) for i in range(7)] == [0, 255, 1, 254, 2, 253, 3]
    # What no reply tells is nothing; line to line voltages among it.
    assert (ups.Uin, ups.Ubyp, ups.Uout, ups.VAR) == ([0] * 3,) * 4
    assert (ups.Cent_kwh, ups.maxLoad) == (0, 0)


def test_no_batteries(own):
    card, unit = own
    unit.data.set("BatteryPosNotPresent")
    tree = follows(card, unit, NOW)
    assert bits(tree, "alarm") == {"Anomaly"}
    assert "Bt_present" not in bits(tree, "switchStatus")
    card.wait_status(lambda s: "BATTERY_NOT_PRESENT_A62" in s["statusAlarms"])
