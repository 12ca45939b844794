"""One emulated machine for all tests of a run, and the plant around it."""

import json
import os
import re
import time

import pytest
from machine import Machine

from sim import mlink
from sim.bus import Bus
from sim.cabinet import Cabinet
from sim.loop import Loop
from sim.module import Module
from sim.plant import CabinetModel, ModuleModel, Plant
from sim.tree import Tree

# The lines of the machine behind the names of its ports.
LINES = {"/dev/ttyQX1": 0, "/dev/ttyQX2": 1, "/dev/ttyQX4": 2}


def pytest_addoption(parser):
    parser.addoption("--machine", choices=("x86", "armhf"), default="x86")
    parser.addoption("--machine-dir", default="build-vm/x86")


def pytest_collection_modifyitems(items):
    """The test that halts the machine comes last."""
    items.sort(key=lambda item: "halts" in item.name)


@pytest.fixture(scope="session")
def figures(request):
    """What was measured, name to text; written beside the machine in the end."""
    measured = {}
    yield measured
    with open(os.path.join(request.config.getoption("--machine-dir"), "figures.txt"), "w", encoding="utf-8") as file:
        for name, value in measured.items():
            file.write("%s: %s\n" % (name, value))


@pytest.fixture(scope="session")
def machine(request, figures):
    machine = Machine(request.config.getoption("--machine"), request.config.getoption("--machine-dir"))
    figures["boot to the console's shell"] = "%.1f s" % machine.boot_seconds
    yield machine
    machine.close()


@pytest.fixture
def loop():
    loop = Loop()
    yield loop
    loop.stop()
    assert not loop.errors, loop.errors[0]


class Card:
    """The gateway in the machine."""

    def __init__(self, machine, loop):
        self.machine = machine
        self._loop = loop
        self.pid = None
        self.started_at = None
        self._buses = []

    def line(self, port, **options):
        """A simulated bus on a port of the card."""
        bus = Bus(self._loop, name=port, **options)
        bus.attach(self.machine.lines[LINES[port]])
        self._buses.append(bus)
        return bus

    def start(self, bus="/dev/ttyQX1", module="/dev/ttyQX2", module_id="1", mask="1111"):
        # The emulator of the PL011 stands still while nobody takes what the guest sends.
        for port, baud in ((bus, 9600), (module, 1200)):
            if self.machine.lines[LINES[port]].bus is None:
                self.line(port, baud=baud)
        self.started_at = time.monotonic()
        self.machine.run("cd /gateway && ./UGW %s %s 1200 %s %s true </dev/null >/tmp/log 2>&1 &"
                         % (module, bus, module_id, mask))
        self.pid = self.machine.run("pidof UGW").strip()
        return self

    def log(self):
        return self.machine.run("cat /tmp/log")

    def wait_log(self, wanted, timeout=30.0):
        return self._wait(self.log, lambda log: re.search(wanted, log), timeout)

    def status(self):
        """The status file's text, empty if there is none."""
        return self.machine.run("cat /var/log/vu.json 2>/dev/null", check=False)

    def wait_status(self, wanted, timeout=60.0):
        """Waits for a status file (as a dict) that `wanted` accepts."""
        return json.loads(self._wait(self.status, lambda text: text and wanted(json.loads(text)), timeout))

    def segment(self):
        """id, mode and size of the one segment."""
        fields = self.machine.run("tail -n +2 /proc/sysvipc/shm").split()
        return int(fields[1]), fields[2], int(fields[3])

    def tree(self):
        return Tree(bytes.fromhex(self.machine.run("probe segment %d" % self.segment()[0]).strip()))

    def memory(self):
        """kB by the kernel's name, counted page by page."""
        told = self.machine.run("cat /proc/%s/smaps_rollup" % self.pid)
        return {name: int(size) for name, size in re.findall(r"(?m)^(\w+):\s+(\d+) kB", told)}

    def _wait(self, get, wanted, timeout):
        deadline = time.monotonic() + timeout
        while True:
            value = get()
            if wanted(value):
                return value
            assert time.monotonic() < deadline, "waited in vain; the last:\n%s\nthe log's end:\n%s" \
                % (value[-2000:], self.log()[-2000:])
            time.sleep(0.3)

    def close(self):
        if self.pid is not None:
            self.machine.run("kill -9 %s; sleep 0.3; rm -f /var/log/vu.*; "
                             "tail -n +2 /proc/sysvipc/shm | while read key id rest; do ipcrm -m $id; done" % self.pid,
                             check=False)
            self.pid = None
        for bus in self._buses:
            bus.close()


@pytest.fixture
def card(machine, loop):
    card = Card(machine, loop)
    yield card
    card.close()


@pytest.fixture
def cabinets():
    """cabinets(bus, "BCD"): healthy cabinets on the bus, by letter."""
    plant = Plant()

    def make(bus, letters):
        made = {}
        for letter in letters:
            made[letter] = bus.attach(Cabinet(letter))
            CabinetModel(plant, letter).install(made[letter])
        return made
    return make


@pytest.fixture
def module(card):
    """module("/dev/ttyQX2"): a healthy power module at 1200 baud on that port."""
    def make(port="/dev/ttyQX2"):
        line = card.line(port, baud=1200, hunter=mlink.Hunter)
        module = line.attach(Module())
        ModuleModel(Plant(), "A").install(module)
        return module
    return make
