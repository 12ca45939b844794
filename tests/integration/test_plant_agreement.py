"""Cabinets that disagree: what the sum of a plant shows at once, after ten seconds, and when they agree again."""

import pytest

DISAGREEMENTS = {
    "lock": ("Ups.alarm.Lock", "Non tutti gli armadi sono in Lock!!"),
    "bypass": ("Ups.alarm.Bypass_Bad", "Non tutti gli armadi sono in BypassBad!!"),
    "battery": ("Ups.status.Battery_Working", "Non tutti i moduli funzionano da batteria!!"),
}


@pytest.mark.parametrize("name", DISAGREEMENTS)
@pytest.mark.parametrize("which", ["A", "C", "BC", "BCD"])
def test_a_disagreement_counts_after_ten_seconds(watcher, name, which):
    path, line = DISAGREEMENTS[name]
    for letter in which:
        watcher.cabinets[letter].status.set(path)
    watcher.report()
    watcher.check()
    watcher.tick(10)
    watcher.check()
    assert watcher.card.log.count(line) == 0
    watcher.tick(1)
    watcher.check(settled=[name])
    watcher.tick(5)
    watcher.check(settled=[name])
    assert watcher.card.log.count(line) == 1, "told once"
    for letter in which:
        watcher.cabinets[letter].status.clear(path)
    watcher.report()
    watcher.check()


@pytest.mark.parametrize("name", DISAGREEMENTS)
def test_all_of_one_mind_is_no_disagreement(watcher, name):
    path, line = DISAGREEMENTS[name]
    for cabinet in watcher.cabinets.values():
        cabinet.status.set(path)
    watcher.report()
    watcher.check()
    watcher.tick(30)
    watcher.check()
    assert watcher.card.log.count(line) == 0


@pytest.mark.parametrize("low", ["", "B", "BC", "BCD", "ABCD"])
@pytest.mark.parametrize("on_battery", ["AB", "ABC", "ABCD"])
def test_battery_low_in_some(watcher, low, on_battery):
    for letter in on_battery:
        watcher.cabinets[letter].status.set("Ups.status.Battery_Working")
        watcher.cabinets[letter].status.clear("Ups.status.Line_Present")
    for letter in low:
        watcher.cabinets[letter].status.set("Ups.alarm.Battery_Low")
    watcher.report()
    document = watcher.check()
    assert document["BATTERYWORK"] is (len(on_battery) > 2), "half of the powered cabinets are not enough"
    assert document["BATTERYLOW"] is (len(on_battery) > 2 and len(low) >= 2)


def test_output_that_changes_is_incoherent_only_if_it_stays(watcher):
    watcher.cabinets["B"].status.clear("Ups.status.Output_Powered")
    watcher.report()
    watcher.check()
    watcher.tick(11)
    settled = ["output", "redundancy"]
    watcher.check(settled=settled)
    assert watcher.card.log.count("Lo stato Output_Powered non e' coerente!!") == 1
