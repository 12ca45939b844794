"""The page for everybody: phones, light and dark, keyboards, screen readers, people whom motion disturbs."""

import re

import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from stand import PHONE, WIDE, changed, fixture

STATES = ["well", "battery", "bypass", "lost", "hostile", "nothing", "old", "missing"]


def show(browser, stand, state):
    """Opens the page in one of the states, all of it unfolded."""
    stand.live(state if state not in ("old", "missing") else "well")
    if state == "old":
        stand.freeze(ago=100)
    if state == "missing":
        stand.remove()
    browser.open(stand)
    browser.tick(3)
    browser.run("document.querySelector('details').open = true")


@pytest.mark.parametrize("state", STATES)
def test_a_phone_never_scrolls_sideways(browser, stand, state):
    browser.look_like(PHONE)
    show(browser, stand, state)
    assert browser.find("#pause").size["height"] < 50, "its word stays whole"
    assert browser.run("return [innerWidth, document.documentElement.scrollWidth]") == [360, 360]
    assert browser.run("return [...document.querySelectorAll('body *')].filter((node) => "
                       "!node.closest('.hidden, .skip') && node.getBoundingClientRect().right > 360.5)"
                       ".map((node) => node.outerHTML.slice(0, 80))") == []


@pytest.mark.parametrize("size", [PHONE, WIDE])
def test_the_diagram_can_be_read(browser, stand, size):
    browser.look_like(size)
    # The longest values that there can be.
    stand.live(changed(fixture("well"), NOMINALPOWERW="399996", OUTPUTPOWER="133332", OUTPUTPOWER2="133332",
                       OUTPUTPOWER3="133332", INPUTCURRENT="16380", INPUTCURRENT2="16380", INPUTCURRENT3="16380",
                       BATTERYCURRENT="-16380", BATTERYESTTIME="4095", BATTERYESTCHARG="100", OUTPUTLOAD="255",
                       OUTPUTLOAD2="255", OUTPUTLOAD3="255"))
    browser.open(stand)
    heights, outside = browser.run("""
        const texts = [...document.querySelectorAll('#diagram .part text')];
        const outside = texts.filter((text) => {
          const box = text.parentNode.querySelector('.box').getBoundingClientRect();
          const place = text.getBoundingClientRect();
          return place.right > box.right || place.bottom > box.bottom;
        });
        return [texts.filter((text) => text.textContent).map((text) => text.getBoundingClientRect().height),
                outside.map((text) => text.textContent)];""")
    assert min(heights) > 14
    assert outside == []


CONTRAST = """
  const parse = (colour) => colour.match(/[\\d.]+/g).map(Number);
  const light = ([r, g, b]) => {
    const [x, y, z] = [r, g, b].map((v) => v / 255).map((v) => (v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4));
    return 0.2126 * x + 0.7152 * y + 0.0722 * z;
  };
  const ratio = (a, b) => (Math.max(light(a), light(b)) + 0.05) / (Math.min(light(a), light(b)) + 0.05);
  const grounds = (node) => {
    const box = node.closest('.part')?.querySelector('.box');
    if (box) return [parse(getComputedStyle(box).fill)];
    for (let at = node; at; at = at.parentElement) {
      const style = getComputedStyle(at);
      if (style.backgroundImage !== 'none') return [...style.backgroundImage.matchAll(/rgb\\([^)]*\\)/g)].map((m) => parse(m[0]));
      const colour = parse(style.backgroundColor);
      if (colour.length < 4 || colour[3] > 0) return [colour];
    }
    throw new Error('no ground');
  };
  const poor = [];
  let count = 0;
  for (const node of document.querySelectorAll('body *')) {
    const own = [...node.childNodes].some((child) => child.nodeType === 3 && child.textContent.trim());
    if (!own || node.closest('.hidden, noscript, option, title') || !node.getClientRects().length) continue;
    const style = getComputedStyle(node);
    const colour = parse(node instanceof SVGElement ? style.fill : style.color);
    for (const ground of grounds(node)) {
      count++;
      if (ratio(colour, ground) < 4.5) poor.push([node.outerHTML.slice(0, 60), ratio(colour, ground)]);
    }
  }
  for (const line of document.querySelectorAll('.line, .live.on, .box, .blade, .curve, .gauge-level')) {
    const part = line.closest('.part') && !line.matches('.box') ? grounds(line) : grounds(line.closest('svg'));
    const style = getComputedStyle(line);
    const colour = parse(style.stroke === 'none' ? style.fill : style.stroke);
    for (const ground of part) {
      count++;
      if (ratio(colour, ground) < 3) poor.push([line.getAttribute('class'), ratio(colour, ground)]);
    }
  }
  return [count, poor];"""


@pytest.mark.parametrize("dark", [False, True], ids=["light", "dark"])
@pytest.mark.parametrize("state", STATES)
def test_contrast(browser, stand, state, dark):
    browser.look_like(dark=dark)
    show(browser, stand, state)
    ground = browser.run("return getComputedStyle(document.body).backgroundColor")
    assert (sum(map(int, re.findall(r"\d+", ground)[:3])) < 150) == dark
    count, poor = browser.run(CONTRAST)
    assert count > 60
    assert poor == []


def test_states_differ_without_colours(browser, stand):
    show(browser, stand, "old")
    assert "gradient" in browser.find("section").value_of_css_property("background-image")
    show(browser, stand, "well")
    assert browser.find("section").value_of_css_property("background-image") == "none"
    widths = [browser.find(selector).value_of_css_property("stroke-width") for selector in (".line", ".live.on")]
    assert widths == ["2px", "5px"]


def test_the_keyboard_reaches_everything_and_shows_where_it_is(browser, stand):
    browser.open(stand)
    reached = []
    for _ in range(4):
        browser.driver.switch_to.active_element.send_keys(Keys.TAB)
        focus = browser.driver.switch_to.active_element
        assert focus.value_of_css_property("outline-style") == "solid"
        assert focus.value_of_css_property("outline-width") == "3px"
        assert focus.accessible_name
        reached.append(focus.get_attribute("id") or focus.tag_name)
    assert reached == ["a", "pause", "window", "summary"]
    browser.driver.switch_to.active_element.send_keys(Keys.ENTER)
    assert browser.find("#others").is_displayed()
    every = browser.all("a, button, select, input, summary, [tabindex='0']")
    assert len(every) == len(reached) + len(browser.all("noscript a")), "nothing else asks for a pointer"


def test_the_skip_link_leads_to_the_plant(browser, stand):
    browser.open(stand)
    body = browser.find("body")
    body.send_keys(Keys.TAB)
    skip = browser.driver.switch_to.active_element
    assert skip.text == "Skip to the plant"
    skip.send_keys(Keys.ENTER)
    assert browser.driver.switch_to.active_element.tag_name == "main"


def test_the_pause_button_works_by_keyboard(browser, stand):
    browser.open(stand)
    browser.find("#pause").send_keys(Keys.SPACE)
    assert browser.state() == "paused"


def test_structure_for_screen_readers(browser, stand):
    browser.open(stand)
    assert browser.find("html").get_attribute("lang") == "en"
    assert [browser.find(tag).aria_role for tag in ("header", "main")] == ["banner", "main"]
    assert browser.texts("h1, h2") == ["UPS plant", "Power flow", "Alarms", "Trends", "Measures"]
    assert [section.accessible_name for section in browser.all("section")] == browser.texts("h2")
    image = browser.find("#diagram svg")
    assert image.aria_role in ("image", "img") and image.accessible_name == "Single-line diagram of the plant"
    described = image.get_attribute("aria-describedby")
    assert "Battery 97 %, charging" in browser.text("#" + described)
    heads = browser.all("tbody th")
    assert len(heads) == 9 and {head.get_attribute("scope") for head in heads} == {"row"}
    assert {svg.get_attribute("aria-hidden") for svg in browser.all(".trend svg")} == {"true"}
    assert browser.texts(".trend figcaption")[1] == "Battery 97 %", "each trend is told in words"
    assert browser.find("#window").accessible_name.startswith("Last")
    ids = browser.run("return [...document.querySelectorAll('[id]')].map((node) => node.id)")
    assert len(ids) == len(set(ids))


WATCH = """
  window.spoken = [];
  for (const node of document.querySelectorAll('[aria-live], [role=status], [role=alert]')) {
    new MutationObserver(() => spoken.push(node.id + ': ' + node.textContent))
      .observe(node, {childList: true, characterData: true, subtree: true});
  }"""


def test_only_what_changes_for_people_is_spoken(browser, stand):
    browser.open(stand)
    browser.run(WATCH)
    for i in range(10):
        stand.live(changed(fixture("well"), INPUTVOLTAGE=str(225 + i), OUTPUTPOWER=str(20000 + 300 * i)))
        browser.tick()
    assert browser.run("return spoken") == [], "values that move are no news"
    stand.live("battery")
    browser.tick(3)
    assert sorted(browser.run("return spoken.splice(0)")) == [
        "announcer: New: The load runs from the battery; Anomaly in the plant; The bypass line is out of its limits.",
        "headline: On battery"]
    stand.live("well")
    browser.tick(3)
    assert sorted(browser.run("return spoken.splice(0)")) == [
        "announcer: No longer: The load runs from the battery; Anomaly in the plant; "
        "The bypass line is out of its limits.",
        "headline: The mains feed the load through the inverter"]
    stand.freeze()
    browser.tick(30)
    spoken = browser.run("return spoken.splice(0)")
    assert len(spoken) == 1 and spoken[0].startswith("banner: These data are old"), "once, not each second"


@pytest.mark.parametrize("reduced", [False, True])
def test_nothing_moves_for_who_asked_for_that(browser, stand, reduced):
    browser.look_like(reduced_motion=reduced)
    browser.open(stand)
    moving = browser.run("return document.getAnimations().length")
    assert moving == (0 if reduced else 6)
    assert browser.find(".live.on").value_of_css_property("marker-end") != "none", "the direction shows all the same"


def test_touch_targets_are_large_enough(browser, stand):
    browser.look_like(PHONE)
    browser.open(stand)
    for selector in ("#pause", "#window", "summary"):
        size = browser.driver.find_element(By.CSS_SELECTOR, selector).size
        assert size["height"] >= 36, selector


def test_text_twice_as_large_still_fits(browser, stand):
    browser.look_like((640, 900))
    browser.open(stand)
    browser.run("document.documentElement.style.fontSize = '200%'")
    assert browser.run("return document.documentElement.scrollWidth") == 640
