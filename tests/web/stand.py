"""What the page stands on in the tests: a web server with a clock of its own, and a browser whose page has one too.

A Stand serves the documents of fixtures/ as a gateway would have them written: each look at it is a second later, and a
live document carries that second. The page's clock and timers stand still until `Browser.tick`, so that no test sleeps.
"""

import os
import re
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from sim.web import Page, Handler

FIXTURES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fixtures")
WIDE, PHONE = (1280, 1000), (360, 740)
CHROMEDRIVER = "/usr/bin/chromedriver"


def fixture(name):
    """A document as a gateway wrote it, as bytes."""
    with open(os.path.join(FIXTURES, name + ".json"), "rb") as file:
        return file.read()


def changed(raw, **values):
    """The document with some of its values replaced; the values are given as they stand in the file."""
    for key, value in values.items():
        raw, count = re.subn(b'"%s": [^\n]*?(,?)\n' % key.encode(), b'"%s": %s\\1\n' % (key.encode(), value.encode()),
                             raw)
        assert count == 1, key
    return raw


def with_alarms(raw, *names):
    """The document with these names as its alarms."""
    listed = b",\n".join(b'"%s"' % name.encode() for name in names)
    return re.sub(rb'("statusAlarms":\[\n).*?\]', lambda match: match[1] + b"\n" + listed + b"]", raw, flags=re.S)


class _Headers(Handler):
    """Leaves headers out, and keeps the page waiting, as told."""

    def send_header(self, keyword, value):
        if keyword not in self.server.withheld:
            super().send_header(keyword, value)

    def do_GET(self):
        self.server.paths.append(self.path)
        super().do_GET()


class Stand(Page):
    """The server. `live(name or bytes)`, `freeze()`, `remove()`; `withheld`: names of headers that it doesn't send;
    `paths`: what it was asked for; `paused`: an Event that answers wait for, or None."""

    handler = _Headers

    def __init__(self):
        self.time = 1795300000.0
        self.withheld = set()
        self.paths = []
        self.paused = None
        self.raw = None
        self.frozen_at = None
        super().__init__(self._look, port=0, now=lambda: self.time)

    def _look(self):
        if self.paused is not None:
            self.paused.wait(20)
        self.time += 1
        if self.raw is None:
            return None
        written = self.frozen_at if self.frozen_at is not None else self.time
        return re.sub(rb'"timestamp": \d+', b'"timestamp": %d' % written, self.raw, count=1), written

    def live(self, document):
        """A gateway writes this document, a fixture's name or bytes."""
        self.raw = fixture(document) if isinstance(document, str) else document
        self.frozen_at = None

    def freeze(self, ago=0):
        """It has stopped writing, so many seconds ago."""
        self.frozen_at = self.time - ago

    def remove(self):
        """No document is there."""
        self.raw = None


# The page's clock. A look at the document is under way while the timer of its patience stands.
_CLOCK = """(() => {
  const later = window.setTimeout.bind(window);
  let now = 0, last = 0, timers = new Map();
  performance.now = () => now;
  window.setTimeout = (call, ms = 0) => { timers.set(++last, {at: now + ms, call, ms}); return last; };
  window.clearTimeout = (id) => timers.delete(id);
  const isLooking = () => [...timers.values()].some((timer) => timer.ms > 1000);
  window.testClock = {
    timers,
    // Resolves as soon as the page is idle again.
    settle: () => new Promise((done) => {
      const ask = () => (isLooking() ? later(ask, 1) : later(done, 0));
      ask();
    }),
    step(ms) {
      now += ms;
      for (const [id, timer] of [...timers].sort((a, b) => a[1].at - b[1].at)) {
        if (timer.at <= now && timers.delete(id)) timer.call();
      }
    },
    async tick(looks, seconds) {
      for (let i = 0; i < looks; i++) { this.step(1000 * seconds); await this.settle(); }
    },
  };
})();"""


class Browser:
    """Headless Chromium, for many pages in turn."""

    def __init__(self, virtual_time=True):
        self._profile = tempfile.TemporaryDirectory()
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        arguments = ["--headless=new", "--user-data-dir=" + self._profile.name, "--no-first-run", "--disable-gpu",
                     "--disable-dev-shm-usage", "--disable-background-networking", "--disable-component-update",
                     "--disable-extensions", "--force-color-profile=srgb", "--hide-scrollbars", "--no-proxy-server"]
        if os.geteuid() == 0:
            # Chromium's sandbox refuses root; what is shown here is our own page.
            arguments.append("--no-sandbox")
        for argument in arguments:
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        self.driver.set_script_timeout(60)
        if virtual_time:
            self._cdp("Page.addScriptToEvaluateOnNewDocument", source=_CLOCK)

    def _cdp(self, command, **parameters):
        return self.driver.execute_cdp_cmd(command, parameters)

    def look_like(self, size=WIDE, dark=False, reduced_motion=False, scale=1):
        """The screen, and what its owner prefers."""
        width, height = size
        self._cdp("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=scale,
                  mobile=size == PHONE)
        self._cdp("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
            {"name": "prefers-reduced-motion", "value": "reduce" if reduced_motion else "no-preference"}])

    def open(self, stand):
        """Opens the stand's page and waits for its first look."""
        self.driver.get_log("browser")
        self.driver.get(stand.address)
        self.run("await testClock.settle()")

    def run(self, script, *arguments):
        """Runs a script of the page's, which may await; returns what it returns. A fault in it fails the test."""
        outcome = self.driver.execute_async_script(
            "const done = arguments[arguments.length - 1];"
            "(async (...given) => { %s })(...[...arguments].slice(0, -1))"
            ".then((value) => done({value}), (error) => done({error: String(error)}));" % script, *arguments)
        assert "error" not in outcome, outcome["error"]
        return outcome.get("value")

    def tick(self, looks=1, seconds=1):
        """Lets the page look at the document so many times, with so many of its seconds before each look."""
        self.run("await testClock.tick(given[0], given[1])", looks, seconds)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        """The text of an element, visible or not."""
        return self.find(selector).get_attribute("textContent").replace("\u00a0", " ").strip()

    def texts(self, selector):
        return [node.get_attribute("textContent").replace("\u00a0", " ") for node in self.all(selector)]

    def state(self):
        """What the page says of its data: fresh, old, missing..."""
        return self.find("body").get_attribute("data-state")

    def live(self):
        """The lines of the diagram that carry power."""
        return self.run("return [...document.querySelectorAll('.live.on')].map((line) => "
                        "[...line.classList].find((name) => name.startsWith('live-')).slice(5))")

    def box(self, name):
        """The two lines in a box of the diagram."""
        return self.texts(".part-%s .value" % name)

    def complaints(self):
        """What the browser's console says, but for documents that were not there."""
        return [entry["message"] for entry in self.driver.get_log("browser") if "vu.json" not in entry["message"]]

    def close(self):
        self.driver.quit()
        self._profile.cleanup()
