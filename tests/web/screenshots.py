"""Takes the pictures of docs/web.md anew, from four real gateways on a virtual plant; some four minutes.

    python3 tests/web/screenshots.py [--build DIR]
"""

import argparse
import base64
import os
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, ROOT)

from stand import PHONE, Browser  # noqa: E402

from sim.gateway import default_build  # noqa: E402
from sim.scene import Scene  # noqa: E402
from sim.web import Page, file_source  # noqa: E402

FOLDER = os.path.join(ROOT, "docs", "web")
LARGEST = 150 * 1000
WIDTH, SCALE = 1100, 0.75
AUTONOMY = 4.0


class Photographer:
    """Takes pictures of one page that stays open, so that its trends grow."""

    def __init__(self, page):
        self.browser = Browser(virtual_time=False)
        self.browser.look_like((WIDTH, 1000))
        self.browser.driver.get(page.address)

    def wait(self, headline, state="fresh", seconds=60):
        deadline = time.monotonic() + seconds
        while self.browser.text("#headline") != headline or self.browser.state() != state:
            assert time.monotonic() < deadline, (headline, self.browser.text("#headline"), self.browser.state())
            time.sleep(0.5)

    def take(self, name, phone=False, dark=False):
        browser = self.browser
        browser.look_like(PHONE if phone else (WIDTH, 1000), dark=dark, scale=1.5 if phone else 1)
        time.sleep(1.5)
        if not phone:
            height = browser.run("return Math.ceil(document.body.getBoundingClientRect().bottom) + 12")
            browser.look_like((WIDTH, height), dark=dark, scale=SCALE)
            time.sleep(1.5)
        raw = base64.b64decode(browser.driver.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})["data"])
        assert len(raw) < LARGEST, (name, len(raw))
        with open(os.path.join(FOLDER, name + ".png"), "wb") as file:
            file.write(raw)
        print("%s.png: %d bytes" % (name, len(raw)), flush=True)


def take_all(build):
    """The six states, one after the other in one run."""
    scene = Scene(build, real="ABCD", simulated="", module_baud=9600, autonomy=AUTONOMY)
    modules = scene.modules.values()
    with Page(file_source(scene.main.status_file.path), port=0) as page:
        camera = Photographer(page)
        try:
            scene.start()
            camera.wait("The mains feed the load through the inverter")
            time.sleep(75)
            camera.take("well")
            scene.plant.mains = False
            camera.wait("On battery")
            time.sleep(40)
            camera.take("battery", dark=True)
            scene.plant.mains = True
            for module in modules:
                module.unit.bypass = True
            camera.wait("On bypass: the load is not protected")
            time.sleep(20)
            camera.take("bypass")
            for module in modules:
                module.unit.bypass = False
            scene.modules["C"].silent = True
            camera.wait("The mains feed the load through the inverter")
            time.sleep(25)
            camera.take("lost", dark=True)
            scene.modules["C"].silent = False
            time.sleep(20)
            for gateway in scene.gateways.values():
                gateway.stop()
            camera.wait("The mains feed the load through the inverter", "old")
            time.sleep(20)
            camera.take("old", phone=True)
            os.unlink(scene.main.status_file.path)
            camera.wait("The mains feed the load through the inverter", "missing")
            camera.take("missing", phone=True, dark=True)
        finally:
            camera.browser.close()
            scene.close()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=default_build())
    os.makedirs(FOLDER, exist_ok=True)
    take_all(parser.parse_args().build)
