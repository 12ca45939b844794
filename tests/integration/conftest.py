"""Fixtures of the integration tests. README.md in this folder tells how to use them."""

import itertools
import os
import shutil
import time

import pytest
import watcher as watching
from vitals import right_again

from sim.bus import Bus
from sim.cabinet import Cabinet
from sim.gateway import Gateway, default_build
from sim.loop import Loop
from sim.module import Module
from sim.plant import CabinetModel, Plant
from sim.records import Nominal

_numbers = itertools.count(1)


@pytest.fixture(scope="session")
def build():
    """The build directory; the binary has to be there."""
    path = default_build()
    assert os.path.exists(os.path.join(path, "UGW")), "no UGW in %s: build first" % path
    return path


@pytest.fixture
def workdir(request):
    """A directory of this test's own, under the build directory; removed afterwards, or kept if UGW_KEEP is set."""
    path = os.path.join(default_build(), "integration", "%d-%d-%s" % (os.getpid(), next(_numbers),
                                                                     request.node.name[:40].replace("/", "_")))
    os.makedirs(path)
    yield path
    if not os.environ.get("UGW_KEEP"):
        shutil.rmtree(path, ignore_errors=True)


@pytest.fixture
def loop():
    """The thread behind the buses; a fault in a simulated node fails the test."""
    loop = Loop()
    yield loop
    loop.stop()
    assert not loop.errors, loop.errors[0]


@pytest.fixture
def make_bus(request, loop):
    """make_bus(speed): a bus; speed 0 takes no time, 1 is 9600 baud."""
    buses = []

    def make(speed=0, **options):
        bus = Bus(loop, speed=speed, **options)
        buses.append(bus)
        _watched(request).append(("bus", bus.transcript))
        return bus
    yield make
    for bus in buses:
        bus.close()


@pytest.fixture
def bus(make_bus):
    """A bus that takes no time."""
    return make_bus(0)


@pytest.fixture
def paced_bus(make_bus):
    """A bus at 9600 baud."""
    return make_bus(1)


def good_cabinet(letter, turnaround=0.002):
    """A healthy cabinet whose measures stand still, apart from the time stamps."""
    cabinet = Cabinet(letter, turnaround)
    CabinetModel(Plant(now=lambda: 0.0), letter).install(cabinet)
    cabinet.model = None
    return cabinet


@pytest.fixture
def cabinets(bus):
    """cabinets("BCD", on=another_bus): healthy cabinets on the bus, by letter."""
    def make(letters, on=None, turnaround=0.002):
        return {letter: (on or bus).attach(good_cabinet(letter, turnaround)) for letter in letters}
    return make


@pytest.fixture
def make_gateway(request, build, workdir, make_bus):
    """make_gateway(bus, card="A", mask="1111", start=True, ...): a real gateway on a bus, options as of
    sim.gateway.Gateway; started unless told otherwise, ended and cleaned up after the test."""
    gateways = []

    def make(bus, card="A", start=True, **options):
        directory = os.path.join(workdir, "%s%d" % (card, len(gateways)))
        gateway = Gateway(bus, card, build=build, directory=directory, keep=bool(os.environ.get("UGW_KEEP")),
                          **options)
        gateways.append(gateway)
        _watched(request).append(("log of " + card, lambda: gateway.log.tail(60) if gateway.log else ""))
        if start:
            gateway.start()
        return gateway
    yield make
    for gateway in gateways:
        gateway.close()


@pytest.fixture
def gateway(make_gateway, bus):
    """gateway(card="A", mask="1111", ...): a real gateway on the bus that takes no time."""
    return lambda card="A", **options: make_gateway(bus, card, **options)


@pytest.fixture
def module(request):
    """module(gateway, ...): a healthy power module on a gateway's module line, options as of sim.module.Module; what
    it was asked is shown if the test fails."""
    def attach(gateway, **options):
        line = gateway.module_line
        _watched(request).append((line.name, line.transcript))
        return line.attach(Module(**options))
    return attach


@pytest.fixture
def one_card_plant(bus, cabinets, gateway, module):
    """one_card_plant(start): (card, other cabinets, module) on lines without faults; started and seen to be right unless told
    otherwise."""
    def make(start=True):
        others = cabinets("BCD", turnaround=0.01)
        for other in others.values():
            other.asked = type(other.asked)(maxlen=100)
            other.overheard = type(other.overheard)(maxlen=100)
        card = gateway("A", start=start)
        unit = module(card, thinking=0.03, keep=1000)
        if start:
            right_again(card, others, unit, 30)
        return card, others, unit
    return make


@pytest.fixture
def make_watcher(bus, cabinets, gateway):
    """make_watcher("ABCD"): a card that belongs to no cabinet and sums up the reports of these simulated ones
    (watcher.Watcher)."""
    def make(letters="ABCD"):
        mask = "1" + "".join("1" if c in letters else "0" for c in "BCD")
        others = cabinets(letters)
        for index, (letter, cabinet) in enumerate(others.items()):
            cabinet.status = watching.healthy(letter, index)
            cabinet.nominal = Nominal(timestamp=1, VA=40000 + index, W=36000 + index)
            cabinet.idu = 255
        card = gateway(module_id="7", mask=mask, start=False)
        card.clock.freeze(watching.NOW)
        card.start()
        card.log.wait_message("Add Query BN to 0x%02X" % (0xEA + "ABCD".index(letters[-1])))
        time.sleep(0.05)
        watcher = watching.Watcher(card, others)
        watcher.report()
        return watcher
    return make


@pytest.fixture
def watcher(make_watcher):
    """Such a card in a plant of four."""
    return make_watcher()


def _watched(request):
    """What is shown if the test fails: (title, function that gives the text)."""
    return request.node.__dict__.setdefault("ugw_watched", [])


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    if call.when == "call" and outcome.get_result().failed:
        for title, text in item.__dict__.get("ugw_watched", []):
            lines = text().split("\n")
            outcome.get_result().sections.append((title, "\n".join(lines[-80:])))
