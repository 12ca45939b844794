"""Nothing in the document is more than text, and nothing comes from elsewhere."""

import json
import os

import pytest
from stand import changed, fixture, with_alarms

from sim.web import FOLDER

ELEMENTS = "return document.querySelectorAll('body *:not(#alarms *)').length"
EVIL = "<img src=x onerror=document.title='caught'><script>document.title='caught'</script>"


def test_names_of_a_module_with_markup_quotes_and_control_characters(browser, stand):
    browser.open(stand)
    browser.tick()
    elements = browser.run(ELEMENTS)
    stand.live("hostile")
    browser.tick(2)
    assert browser.state() == "fresh", "no strict reader can read it, its values are good all the same"
    assert browser.text("#identity") == 'b"<b>\\M\ufffd\ufffd&amp;"\ufffd,, serial number <img src=x:y a=1'[1:]
    assert browser.all("main img, header img, header b, dd b, dd p") == []
    assert browser.run(ELEMENTS) == elements
    assert browser.box("load")[0].endswith("of 40 kW")
    assert browser.text("#others div:nth-last-child(2) dd") == '\ufffd[31m</p>"]}'


def test_markup_as_an_alarm(browser, stand):
    stand.live(with_alarms(fixture("well"), EVIL.replace('"', "'"), "__proto__", "constructor", "MODULE_9_LOST"))
    browser.open(stand)
    browser.tick(2)
    assert browser.all("#alarms img, #alarms script") == []
    shown = browser.texts("#alarms li")
    assert shown[0] == "Warning Alarm " + EVIL[:48]
    assert shown[1:] == ["Warning Alarm __proto__", "Warning Alarm constructor", "Warning Alarm MODULE_9_LOST"]
    assert "caught" not in browser.driver.title


def test_a_name_that_turns_the_reading_direction(browser, stand):
    stand.live(changed(fixture("well"), TESTNUMBERJ='"\u202e0001\u200b"').decode().encode("utf-8"))
    browser.open(stand)
    assert not set("\u202e\u200b") & set(browser.text("#identity"))


STRANGE = [None, "true", 1, -1, 1e300, [], {}, {"toString": 1}, EVIL, "9" * 5000, True]


@pytest.mark.parametrize("value", STRANGE, ids=lambda value: repr(value)[:12])
def test_values_of_the_wrong_kind(browser, stand, value):
    keys = [key for key in json.loads(fixture("well")) if key != "timestamp"]
    stand.live(json.dumps({"timestamp": 1, **{key: value for key in keys}}).encode())
    browser.open(stand)
    browser.tick(2)
    assert browser.state() == "fresh"
    assert browser.all("main img, main script") == []
    assert browser.run("return document.body.scrollWidth <= innerWidth")
    assert "caught" not in browser.driver.title


def test_a_document_that_says_nothing(browser, stand):
    stand.withheld = {"Last-Modified"}
    stand.live(b"{}")
    browser.open(stand)
    assert browser.state() == "fresh"
    assert browser.text("#headline") == "No module answers: nothing is known of the plant"
    assert browser.box("mains") == ["–", "– Hz"]


def test_a_thousand_alarms(browser, stand):
    stand.live(with_alarms(fixture("well"), *("ALARM_%d" % i for i in range(1000))))
    browser.open(stand)
    assert len(browser.all("#alarms li")) <= 50


def test_nothing_comes_from_another_host_and_all_of_it_is_small(browser, stand):
    browser.open(stand)
    browser.tick(2)
    names = browser.run("return performance.getEntriesByType('resource').map((entry) => entry.name)")
    assert names and all(name.startswith(stand.address) for name in names)
    asked = {path.lstrip("/") or "index.html" for path in stand.paths}
    assert asked == set(os.listdir(FOLDER)) | {"vu.json"}, "no file is missing, none is left over"
    assert sum(os.path.getsize(os.path.join(FOLDER, name)) for name in os.listdir(FOLDER)) < 64 * 1024


def test_the_document_is_never_taken_from_a_cache(browser, stand):
    stand.withheld = {"Cache-Control"}
    browser.open(stand)
    browser.tick(5)
    assert stand.paths.count("/vu.json") == 6
