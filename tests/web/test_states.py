"""What the page says of a plant, by the documents that real gateways wrote."""

import pytest
from stand import changed, fixture, with_alarms

MAINS_WAY = {"mains", "dc", "inverter", "output", "load"}


def test_a_plant_that_is_well(browser, stand):
    browser.open(stand)
    assert browser.state() == "fresh"
    assert browser.text("#headline") == "The mains feed the load through the inverter"
    assert browser.find("body").get_attribute("data-level") == "well"
    assert set(browser.live()) == MAINS_WAY | {"charge"}
    assert browser.text("#no-alarms") == "None." and browser.texts("#alarms li") == []
    assert browser.box("mains") == ["232 229 226 V", "50.1 Hz"]
    assert browser.box("bypass") == ["232 229 226 V", "50.1 Hz"]
    assert browser.box("rectifier") == ["110 105 105 A", "41 °C"]
    assert browser.box("battery") == ["272 V, +5.6 A", "97 %, 46 min"]
    assert browser.box("inverter") == ["230 230 230 V", "50.1 Hz, 42 °C"]
    assert browser.box("load") == ["70.0 of 160 kW", "48 46 45 %"]
    assert browser.text("#flow") == (
        "Mains 229 V, 50.1 Hz, feeding the rectifier. Bypass line 229 V, 50.1 Hz, ready. "
        "Battery 97 %, charging, good for 46 min. Output 230 V, 50.1 Hz; the load takes 70.0 of 160 kW.")
    assert browser.text("#identity") == "VIRTUAL MODULE, serial number DEMOMA0000000001"
    assert browser.driver.title == "The mains feed the load through the inverter – UPS plant"


def test_on_battery(browser, stand):
    stand.live("battery")
    browser.open(stand)
    assert browser.text("#headline") == "On battery"
    assert set(browser.live()) == {"discharge", "inverter", "output", "load"}
    assert browser.box("mains") == ["0 0 0 V", "0.0 Hz"]
    assert browser.box("battery") == ["271 V, -130 A", "96 %, 46 min"]
    assert browser.texts("#alarms li") == ["Warning The load runs from the battery", "Warning Anomaly in the plant",
                                           "Warning The bypass line is out of its limits"]
    assert browser.text("#flow").startswith("No mains. No voltage on the bypass line. Battery 96 %, discharging, ")


def test_on_bypass(browser, stand):
    stand.live("bypass")
    browser.open(stand)
    assert browser.text("#headline") == "On bypass: the load is not protected"
    assert set(browser.live()) == {"bypass", "load", "mains", "dc", "charge"}
    assert browser.box("load") == ["65.5 of 160 kW", "–"], "the loads are no zeros, they are not worked out"
    assert browser.texts("#alarms li") == ["Warning The load runs from the bypass"]
    assert "feeding the load" in browser.text("#flow")


def test_a_lost_module(browser, stand):
    stand.live("lost")
    browser.open(stand)
    assert browser.text("#headline") == "The mains feed the load through the inverter"
    assert browser.find("body").get_attribute("data-level") == "fault", "it runs, but not well"
    assert browser.texts("#alarms li") == [
        "Fault Failure in the plant", "Fault Redundancy is lost: the load needs every cabinet that is left",
        "Fault Cabinet C does not answer, or its module", "Warning Anomaly in the plant",
        "Warning The output switch of a cabinet is open, or nobody tells its position"]
    assert browser.text("#alarms-title") == "Alarms (5)"
    assert browser.box("load")[0] == "45.7 of 120 kW"
    assert set(browser.live()) == MAINS_WAY | {"charge"}


def test_without_any_module_nothing_is_claimed(browser, stand):
    stand.live("nothing")
    browser.open(stand)
    assert browser.text("#headline") == "No module answers: nothing is known of the plant"
    assert browser.live() == []
    assert browser.text("#flow") == "No values: no module answers."


# What is changed in the document of a plant that is well, its alarms, and the headline, level and lines that follow.
CASES = [
    ({"OUTPUTPOWERED": "false"}, [], "The output is off", "fault", {"mains", "dc", "charge"}),
    ({"BATTERYWORK": "true", "BATTERYLOW": "true"}, [], "On battery, and the battery is low", "fault",
     {"discharge", "inverter", "output", "load"}),
    ({"BATTERYWORK": "true", "TESTINPROGRESS": "true"}, [], "Battery test: the battery feeds the load", "note",
     {"discharge", "inverter", "output", "load"}),
    ({"ONBYPASS": "true", "BATTERYCHARGING": "false"}, ["ECO_MODE"], "Economy mode: the bypass feeds the load", "note",
     {"bypass", "load"}),
    ({"BATTERYCHARGING": "false"}, ["MANUAL_BYPASS_UPS"], "Manual bypass: the mains feed the load unprotected",
     "warning", MAINS_WAY | {"manual"}),
    ({"BATTERYWORK": "true", "ONBYPASS": "true"}, [], "On battery and on bypass", "warning",
     {"discharge", "inverter", "output", "bypass", "load"}),
    ({"ALARMOVERLOAD": "true"}, [], "The mains feed the load through the inverter", "fault", MAINS_WAY | {"charge"}),
]


@pytest.mark.parametrize("values, alarms, headline, level, live", CASES)
def test_other_modes(browser, stand, values, alarms, headline, level, live):
    stand.live(with_alarms(changed(fixture("well"), **values), *alarms))
    browser.open(stand)
    assert browser.text("#headline") == headline
    assert browser.find("body").get_attribute("data-level") == level
    assert set(browser.live()) == live


SWITCHES = ["SWIN_OPEN", "SWBYP_OPEN", "SWBAT_EXT_OPEN"]


@pytest.mark.parametrize("name, count", [(None, 2), *((name, 3) for name in SWITCHES)])
def test_switches_stand_as_they_are_told(browser, stand, name, count):
    stand.live(with_alarms(fixture("well"), *([name] if name else [])))
    browser.open(stand)
    is_open = browser.run("return [...document.querySelectorAll('.blade')]"
                          ".map((blade) => !blade.getAttribute('d').includes('H'))")
    assert sum(is_open) == count, "the two of the bypasses stand open, and the one that is told"


def test_every_alarm_has_words(browser, stand):
    names = ["SYSTEM_ANOMALY", "ECO_MODE", "SWIN_OPEN", "SWBYP_OPEN", "SWBAT_EXT_OPEN", "SWOUT_OPEN",
             "MANUAL_BYPASS_UPS", "BYPASS_BAD", "PARALLEL_LINK_OPEN", "BATTERY_NOT_PRESENT_A62", "ALARM_REDUNDANCY",
             "MODULE_1_LOST", "MODULE_2_LOST", "MODULE_3_LOST", "MODULE_4_LOST"]
    flags = ["UPSLOCK", "BATTERYWORK", "BATTERYLOW", "ONBYPASS", "REPLACEBATTERY", "SHUTDOWNACTIVE", "SHUTDOWNIMMIN",
             "TESTINPROGRESS", "ALARMOVERLOAD", "ALARMTEMPERATUR"]
    document = changed(with_alarms(fixture("well"), *names), **{key: "true" for key in flags})
    stand.live(document.replace(b'"UPSFAILURE": false', b'"UPSFAILURE": true'))
    browser.open(stand)
    shown = browser.texts("#alarms li")
    assert len(set(shown)) == len(names) + len(flags) + 1
    assert not any("_" in text for text in shown)
    levels = [text.split()[0] for text in shown]
    assert levels == sorted(levels, key=["Fault", "Warning", "Note"].index), "the worst first"


def test_single_phase_plants_show_one_phase(browser, stand):
    stand.live(changed(fixture("well"), IOCONFIGURATION="3"))
    browser.open(stand)
    assert browser.box("mains")[0] == "232 229 226 V"
    assert browser.box("inverter")[0] == "230 V"
    assert browser.box("load")[0] == "24.3 of 160 kW"


def test_a_battery_of_unknown_autonomy(browser, stand):
    stand.live(changed(fixture("well"), BATTERYESTTIME="65535"))
    browser.open(stand)
    assert browser.box("battery")[1] == "97 %, –"
