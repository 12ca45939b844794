"""From the module's line to the status file of its card."""

import pytest

from expected import System, explain
from module_view import follows

NOW = 1800000000
# The bits that a module tells and the file has as such.
KEYS = {"Lock": "UPSLOCK", "Battery_Working": "BATTERYWORK", "Battery_Low": "BATTERYLOW", "On_Bypass": "ONBYPASS",
        "Battery_Charging": "BATTERYCHARGING", "Replace_Battery": "REPLACEBATTERY",
        "Shutdown_Active": "SHUTDOWNACTIVE", "Shutdown_Imminent": "SHUTDOWNIMMIN",
        "Test_in_progress": "TESTINPROGRESS", "Alarm_Overload": "ALARMOVERLOAD"}


@pytest.fixture
def own(gateway, module):
    """A card alone with its module."""
    card = gateway(mask="1000", start=False)
    card.clock.freeze(NOW)
    unit = module(card, thinking=0.001)
    card.start()
    unit.wait(since=0)  # the tree is built
    return card, unit


def agrees(card):
    """Waits until the file is what the cabinet's record gives."""
    last = []

    def alike(document):
        tree = card.tree()
        node = tree.cabinet("A")
        system = System({"A": node.box}, {"A": node.nominal})
        last[:] = explain(document, system.document(NOW, tree.module("A").identification))
        return not last
    try:
        return card.wait_status(alike)
    except AssertionError:
        raise AssertionError("\n".join(last)) from None


def test_each_value_of_the_module(own):
    card, unit = own
    data = unit.data
    data.SN, data.Model, data.SWVer, data.IO_Cfg, data.UPS_Type = "SERIAL", "MODEL 7", "SWV-7", "2", "4"
    data.VA, data.W = 10007, 9007
    data.Vin, data.Vout, data.Vbyp = [221, 222, 223], [224, 225, 226], [227, 228, 229]
    data.Frq_in, data.Frq_out, data.Frq_byp = 501, 502, 503
    data.Iin, data.Iout, data.Iout_pk = [11, 12, 13], [14, 15, 16], [17, 18, 19]
    data.Load, data.Watt, data.Va = [21, 22, 23], [1001, 1002, 1003], [1011, 1012, 1013]
    data.NBattForBench, data.VbatRS, data.Vbatp, data.Vbatn = ":", 271, 141, 142
    data.Ibatp, data.Ibatn, data.Carica_adj, data.Aut_time = 31, 32, 91, 41
    data.Temp0, data.Temp1, data.Temp2, data.Temp3, data.Temp4, data.Temp5, data.Temp6 = 21, 22, 23, 24, 25, 26, 27
    follows(card, unit, NOW)
    document = agrees(card)
    wanted = {"INPUTVOLTAGE2": 222, "OUTPUTVOLTAGE3": 226, "BYPASSVOLTAGE": 227, "INPUTFREQUENCY": 501,
              "OUPUTFREQUENCY": 502, "BYPASSFREQUENCY": 503, "INPUTCURRENT": 11, "OUTPUTCURRENT2": 15,
              "OUTPUTCURRENTP3": 19, "OUTPUTLOAD": 21, "OUTPUTPOWER2": 1002, "OUTPUTPOWERVA3": 1013,
              "BATTERYVOLTAGE": 271, "VBATPLUS": 141, "VBATMINUS": 142, "BATTERYCURRENT": 31,
              "BATTERYCURRENTMINUS": 32, "BATTERYESTCHARG": 91, "BATTERYESTTIME": 41, "SYSTEMTEMP": 21,
              "INVTEMP": 22, "RECTTEMP": 23, "TEMP1": 24, "TEMP4": 27, "NOMINALPOWERW": 9007,
              "NOMINALPOWERVA": 10007, "IOCONFIGURATION": 2, "UPSTYPE": 4, "OUTPUTPOWERED": True,
              "LINEPRESENT": True, "TESTNUMBERJ": "SERIAL".ljust(16), "UPSMODELJ": "MODEL 7".ljust(16),
              "UPSSWVERSIONJ": "SWV-7".ljust(12)}
    assert {key: document[key] for key in wanted} == wanted


def test_each_bit_of_the_module(own):
    card, unit = own
    for bit, key in KEYS.items():
        unit.data.flags = [8, 0, 0, 0, 0]
        unit.data.set(bit)
        unit.data.set("L01", bit == "Lock")
        unit.data.set("Battery_Working", bit in ("Battery_Low", "Battery_Working"))
        follows(card, unit, NOW)
        document = agrees(card)
        wanted = {key, "BATTERYWORK"} if bit == "Battery_Low" else {key}
        assert {name for name in KEYS.values() if document[name]} == wanted
