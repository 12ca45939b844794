"""How far the page believes its data: old ones, frozen ones, none."""

import threading

import pytest
from stand import fixture


def _is_clearly_old(browser):
    assert browser.state() == "old"
    assert browser.text("#badge") == "Old data"
    assert browser.text("#banner").startswith("These data are old")
    assert browser.find("#banner").get_attribute("role") == "alert" and browser.find("#banner").is_displayed()
    assert browser.text("#known") == "Last known:"
    assert browser.text("#flow").startswith("Last known: ")
    assert browser.live() == [], "nothing flows"
    assert browser.driver.title.startswith("Old data")


def test_a_document_that_is_no_longer_written_turns_old_and_new_again(browser, stand):
    browser.open(stand)
    browser.tick(3)
    assert browser.text("#age") == "written 0 s ago"
    stand.freeze()
    browser.tick(10)
    assert browser.state() == "fresh", "a lost cabinet alone makes pauses of some seconds"
    assert browser.text("#age") == "written 10 s ago"
    browser.tick(1)
    _is_clearly_old(browser)
    assert browser.text("#age") == "written 11 s ago"
    stand.live("well")
    browser.tick(1)
    assert browser.state() == "fresh" and browser.text("#banner") == "" and browser.text("#known") == ""
    assert "load" in browser.live()


def test_an_old_document_is_known_at_the_first_look(browser, stand):
    stand.freeze(ago=3600)
    browser.open(stand)
    _is_clearly_old(browser)
    assert browser.text("#age") == "written 60 min ago"


@pytest.mark.parametrize("withheld", ["Last-Modified", "Cache-Control"])
def test_either_time_is_enough(browser, stand, withheld):
    stand.withheld = {withheld}
    if withheld == "Cache-Control":
        # A document without a time of its own, in an old file.
        stand.live(fixture("well").replace(b'"timestamp"', b'"nothing"'))
    stand.freeze(ago=100)
    browser.open(stand)
    _is_clearly_old(browser)


def test_a_copy_that_is_made_anew_is_as_old_as_what_it_holds(browser, stand):
    stand.freeze(ago=100)
    look = stand.source
    stand.source = lambda: (look()[0], stand.time)
    browser.open(stand)
    _is_clearly_old(browser)


def test_a_frozen_document_is_found_without_any_clock(browser, stand):
    stand.withheld = {"Date", "Last-Modified"}
    browser.open(stand)
    browser.tick(30)
    assert browser.state() == "fresh"
    stand.freeze()
    browser.tick(2)
    assert browser.state() == "fresh"
    browser.tick(10)
    _is_clearly_old(browser)


def test_a_document_from_the_future_is_believed_while_it_changes(browser, stand):
    stand.now = lambda: stand.time - 5000
    browser.open(stand)
    browser.tick(5)
    assert browser.state() == "fresh" and browser.text("#age") == "written 0 s ago"
    stand.freeze()
    browser.tick(12)
    _is_clearly_old(browser)


def test_without_a_document_nothing_is_shown(browser, stand):
    stand.remove()
    browser.open(stand)
    assert browser.state() == "missing"
    assert browser.text("#banner") == ("The status file is not there (answer 404): the gateway does not run, or has "
                                       "not written it yet.")
    assert browser.text("#headline") == "Nothing is known of the plant"
    assert browser.live() == [] and set(browser.texts(".value")) == {""}
    stand.live("well")
    browser.tick()
    assert browser.state() == "fresh" and browser.text("#banner") == ""


def test_a_document_that_goes_leaves_the_last_values_marked(browser, stand):
    browser.open(stand)
    stand.remove()
    browser.tick(2)
    assert browser.state() == "fresh", "one look that fails is no news"
    browser.tick(1)
    assert browser.state() == "missing"
    assert browser.text("#banner").endswith("The last known values are shown below.")
    assert browser.text("#known") == "Last known:"
    assert browser.box("mains") == ["232 229 226 V", "50.1 Hz"] and browser.live() == []
    assert browser.text("#age") == "written 3 s ago"
    assert browser.text("#no-alarms") == "None when the data were last good."


@pytest.mark.parametrize("raw, why", [
    (b"", "it is empty"), (b"\n", "it is empty"), (fixture("well")[:700], "it is not JSON"), (b"[]", "it is not JSON"),
    (b"null", "it is not JSON"), (b"<!doctype html><title>Log in</title>", "it is not JSON"), (bytes(range(256)), "it is not JSON")])
def test_what_is_no_document_is_told(browser, stand, raw, why):
    stand.live(raw)
    browser.open(stand)
    assert browser.state() == "broken"
    assert browser.text("#banner") == "The status file cannot be read: %s." % why


def test_a_server_that_keeps_silent_is_given_up_and_asked_again(browser, stand):
    browser.open(stand)
    stand.paused = threading.Event()
    try:
        for _ in range(3):
            browser.run("testClock.step(1000)")
            asked = len(stand.paths)
            browser.run("testClock.step(4000)")
            assert len(stand.paths) - asked <= 1, "one look at a time"
            browser.run("testClock.step(1000); await testClock.settle()")
        assert browser.state() == "unreachable"
        assert browser.text("#banner").startswith("The card does not answer.")
    finally:
        stand.paused.set()
        stand.paused = None
    browser.tick(2)
    assert browser.state() == "fresh"


def test_pause_holds_everything_still(browser, stand):
    browser.open(stand)
    browser.find("#pause").click()
    asked = len(stand.paths)
    stand.live("battery")
    browser.tick(5)
    assert len(stand.paths) == asked
    assert browser.state() == "paused" and browser.text("#badge") == "Paused"
    assert browser.find("#pause").get_attribute("aria-pressed") == "true"
    browser.find("#pause").click()
    browser.run("await testClock.settle()")
    assert browser.state() == "fresh" and browser.text("#headline") == "On battery"
