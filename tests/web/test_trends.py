"""The trends of the last minutes."""

from selenium.webdriver.support.ui import Select
from stand import changed, fixture


def curve(browser, chart):
    return browser.all(".curve")[chart].get_attribute("d")


def pieces(path):
    """Points in each unbroken piece of a path."""
    return [piece.count("L") + 1 for piece in path.split("M")[1:]]


def test_a_trend_grows_with_each_look(browser, stand):
    browser.open(stand)
    for charge in range(90, 60, -1):
        stand.live(changed(fixture("battery"), BATTERYESTCHARG=str(charge)))
        browser.tick()
    assert pieces(curve(browser, 1)) == [31]
    assert browser.texts(".trend figcaption")[1] == "Battery 61 %, was 61 to 97"
    heights = [float(point.split()[1]) for point in curve(browser, 1)[1:].split("L")]
    assert heights[1:] == sorted(heights[1:]) and heights[-1] > heights[1], "it falls"


def test_a_time_without_data_is_a_gap(browser, stand):
    browser.open(stand)
    browser.tick(9)
    stand.remove()
    browser.tick(20)
    stand.live("well")
    browser.tick(5)
    assert pieces(curve(browser, 0)) == [10, 5]


def test_old_data_and_those_of_nobody_leave_no_trace(browser, stand):
    browser.open(stand)
    stand.freeze()
    browser.tick(60)
    assert pieces(curve(browser, 0)) == [11]
    stand.live("nothing")
    browser.tick(20)
    assert pieces(curve(browser, 0)) == [11]


def test_the_window_can_be_chosen_and_what_is_older_than_it_goes(browser, stand):
    browser.open(stand)
    browser.tick(40, seconds=5)
    assert pieces(curve(browser, 2)) == [41]
    Select(browser.find("#window")).select_by_value("2")
    assert pieces(curve(browser, 2)) == [25]
    assert browser.texts(".trend svg text")[2] == "2 min ago"
    Select(browser.find("#window")).select_by_value("15")
    browser.tick(160, seconds=5)
    assert pieces(curve(browser, 2)) == [181], "a page that stays open doesn't grow without end"
