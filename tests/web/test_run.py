"""The page beside a real gateway, as scripts/run.sh --web serves it."""

import contextlib
import queue
import re
import signal
import subprocess
import sys
import threading
import time
import urllib.error
import urllib.request

import pytest
from stand import Browser

from sim.gateway import default_build

START = 30.0


@contextlib.contextmanager
def demonstration(*options):
    """Runs it in the background; gives the page's address as it was printed."""
    process = subprocess.Popen([sys.executable, "-m", "sim.run", "--build", default_build(), *options],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    lines = queue.Queue()
    reader = threading.Thread(target=lambda: [lines.put(line) for line in process.stdout], daemon=True)
    reader.start()
    try:
        line = lines.get(timeout=START)
        found = re.fullmatch(r"page of card ([A-D]): (http://127\.0\.0\.1:\d+/)\n", line)
        assert found, line
        yield found[1], found[2]
    finally:
        process.send_signal(signal.SIGINT)
        process.wait(20)
        reader.join(5)
        process.stdout.close()


def test_the_page_of_a_running_plant():
    with demonstration("--cabinets", "2", "--web", "B", "--port", "0", "--speed", "4") as (card, address):
        assert card == "B"
        browser = Browser(virtual_time=False)
        try:
            browser.look_like()
            browser.driver.get(address)
            deadline = time.monotonic() + START
            while not (browser.text("#headline").startswith("The mains feed")
                       and browser.box("load")[0].endswith("of 80 kW")):
                assert time.monotonic() < deadline, browser.text("body")
                time.sleep(0.2)
            assert browser.state() == "fresh"
            assert browser.text("#identity") == "VIRTUAL MODULE, serial number DEMOMB0000000001"
            assert browser.complaints() == []
        finally:
            browser.close()
        with urllib.request.urlopen(address + "vu.json") as answer:
            assert answer.headers["Content-Type"] == "application/json" and answer.headers["Last-Modified"]
        for path in ("vu.tmp", "..%2fCMakeLists.txt", "../CMakeLists.txt"):
            with pytest.raises(urllib.error.HTTPError):
                urllib.request.urlopen(address + path)


@pytest.mark.parametrize("options, said", [
    (["--web", "C", "--cabinets", "2"], "there is no card C"),
    (["--web", "B", "--bus-only"], "there is no card B"),
    (["--web", "--port", "70000"], "invalid tcp_port value: '70000'"),
])
def test_a_page_that_cannot_be_is_refused(options, said):
    done = subprocess.run([sys.executable, "-m", "sim.run", "--build", default_build(), *options],
                          capture_output=True, text=True, timeout=30)
    assert done.returncode == 2 and said in done.stderr


def test_a_port_that_is_taken_is_told_in_one_line():
    with demonstration("--bus-only", "--web", "--port", "0") as (_, address):
        port = address.split(":")[-1].strip("/")
        done = subprocess.run([sys.executable, "-m", "sim.run", "--build", default_build(), "--bus-only", "--web",
                               "--port", port], capture_output=True, text=True, timeout=60)
    assert done.returncode == 1
    assert done.stderr == "cannot serve the page at 127.0.0.1:%s: Address already in use\n" % port
