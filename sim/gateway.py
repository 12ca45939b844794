"""The real daemon in a sandbox of its own, with what it publishes.

    gateway = Gateway(bus, "A", mask="1111", build=build_dir)
    gateway.start()
    gateway.log.wait_message("Avvio la thread CABP")
    gateway.wait_status(lambda s: s["OUTPUTPOWERED"])
    gateway.tree().cabinet("B").box.Ups.Vin
    gateway.close()

Its bus port is a pseudo-terminal on `bus`, named /dev/ttyB1 inside; its module port is /dev/ttyM1 on a line of its
own (`module_line`), on which nothing answers unless somebody attaches a node (sim.module.Module). Both lines have the
speed factor of the bus. A gateway can be started again after it has ended: the sandbox with its segment, files and
names stays.
"""

import itertools
import os
import shutil
import signal
import time

from sim import mlink
from sim.bus import Bus
from sim.logfile import LogFile
from sim.records import Node
from sim.sandbox import Sandbox
from sim.statusfile import StatusFile
from sim.tree import Tree

_serial = itertools.count(1)

MODULE_IDS = {"A": "1", "B": "2", "C": "3", "D": "4"}
SHIM = "sim/libcard_shim.so"


def default_build():
    """The build directory: UGW_BUILD_DIR, or build/ of the source tree."""
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    return os.environ.get("UGW_BUILD_DIR") or os.path.join(root, "build")


class Gateway:
    """See above.

    card: the letter of its cabinet, whose module ID it gets unless `module_id` says otherwise. mask, mode,
    module_baud: the arguments of that name. bus_name, module_name: the device names inside. directory: where the
    sandbox goes, a new one under the build directory if None. keep: leave that directory for a look. adjtime_errno:
    adjtime fails with it. trace: keep the times of writes, see `writes`. fast: a sandbox.FastClock for its clocks.
    """

    def __init__(self, bus, card="A", mask="1111", mode="false", module_id=None, module_baud=1200, build=None,
                 directory=None, keep=False, bus_name="/dev/ttyB1", module_name="/dev/ttyM1", adjtime_errno=0,
                 trace=False, fast=None):
        self.card = card
        self.mask = mask
        self.mode = mode
        self.module_id = MODULE_IDS[card] if module_id is None else module_id
        self.module_baud = module_baud
        self.bus = bus
        self.bus_name = bus_name
        self.module_name = module_name
        self.adjtime_errno = adjtime_errno
        self.trace = trace
        self.fast = fast
        self.build = os.path.abspath(build or default_build())
        self.program = None
        self._runs = 0
        directory = directory or os.path.join(self.build, "sandboxes", "%d-%d" % (os.getpid(), next(_serial)))
        self.sandbox = Sandbox(directory, keep)
        self.binary = os.path.join(self.sandbox.cwd, "UGW")
        shutil.copy2(os.path.join(self.build, "UGW"), self.binary)
        self.bus_port = bus.pty(card)
        speed = bus.baud / 9600
        self.module_line = Bus(bus.loop, baud=module_baud or 9600, speed=speed, name="module line " + card, keep=1000,
                               hunter=mlink.Hunter)
        self.module_port = self.module_line.pty("card")
        self.sandbox.link(bus_name, self.bus_port.path)
        self.sandbox.link(module_name, self.module_port.path)
        self.status_file = StatusFile(os.path.join(self.sandbox.varlog if mode == "true" else self.sandbox.home,
                                                   "vu.json"))
        self.log = None

    @property
    def arguments(self):
        """The six arguments."""
        return [self.module_name, self.bus_name, str(self.module_baud), self.module_id, self.mask, self.mode]

    def start(self, arguments=None, log_to=None):
        """Starts the daemon; its log goes to a file of this run, or to `log_to`. `arguments` replaces the six."""
        self._runs += 1
        name = "log-%d" % self._runs
        self.log = LogFile(os.path.join(self.sandbox.directory, name))
        shim = os.path.join(self.build, SHIM)
        env = self.sandbox.environment(shim, self.bus.baud, self.adjtime_errno, self.trace)
        if self.fast is not None:
            env["CARD_SHIM_FAST"] = self.fast.path
        self.started_at = time.monotonic()
        self.program = self.sandbox.spawn([self.binary] + (self.arguments if arguments is None else arguments), env,
                                          stderr=log_to or name)
        return self

    @property
    def running(self):
        return self.program is not None and self.program.running

    def wait_exit(self, timeout=5.0):
        """Waits for the end; returns the exit status."""
        return self.program.wait(timeout)

    def interrupt(self):
        """A line BREAK, as the process sees one: SIGINT. Only after the bus port has been opened."""
        self.program.signal(signal.SIGINT)

    def stop(self):
        """Ends the daemon the way it ends in use: from outside, leaving its segment behind."""
        if self.program is not None:
            self.program.kill()

    # What it publishes.

    def status(self):
        """The status file as a dict, or None."""
        return self.status_file.read()

    def wait_status(self, wanted=lambda status: True, timeout=10.0):
        """Waits for a status file that `wanted` accepts; returns it, AssertionError with the last one if none
        comes."""
        return self._wait(self.status, wanted, timeout, "status file")

    def tree(self):
        """A copy of the tree, or None while there is no segment of the right key and a whole number of nodes."""
        segment = self.sandbox.segment()
        if segment is None or segment.size % Node.SIZE:
            return None
        return Tree(self.sandbox.read_segment(segment.id, segment.size))

    def wait_tree(self, wanted=lambda tree: True, timeout=10.0):
        """Waits for a tree that `wanted` accepts; returns it."""
        return self._wait(self.tree, wanted, timeout, "tree")

    def _wait(self, get, wanted, timeout, name):
        deadline = time.monotonic() + timeout
        while True:
            value = get()
            if value is not None and wanted(value):
                return value
            if time.monotonic() >= deadline:
                told = value if isinstance(value, dict) or value is None else \
                    "\n".join(repr(node) for node in value.nodes)
                raise AssertionError("no such %s within %g s; the last: %s\nthe log's end:\n%s"
                                     % (name, timeout, told, self.log.tail() if self.log else ""))
            time.sleep(0.02)

    def writes(self):
        """When the daemon wrote to the bus, and how much: (monotonic seconds, bytes) pairs. Only with `trace`: the bus
        itself learns of a write a little later."""
        return self.sandbox.writes(self.bus_port.path)

    # The world around it.

    def hang_up_bus(self):
        """The bus port's device goes away under the daemon."""
        self._hang_up(self.bus, self.bus_port, self.bus_name)

    def hang_up_module(self):
        """The module port's device goes away under the daemon."""
        self._hang_up(self.module_line, self.module_port, self.module_name)

    def restore_module(self):
        """A new device under the old name of the module port."""
        self.module_port = self.module_line.pty("card")
        self.sandbox.link(self.module_name, self.module_port.path)

    def _hang_up(self, line, port, name):
        line.detach(port)
        line.loop.invoke(port.close)
        self.sandbox.unlink(name)

    def restore_bus(self):
        """A new device under the old name."""
        self.bus_port = self.bus.pty(self.card)
        self.sandbox.link(self.bus_name, self.bus_port.path)

    def marks(self):
        """What halt and reboot were called with."""
        return self.sandbox.marks()

    def clock_calls(self):
        """Calls that would have set or slewed the clock."""
        return self.sandbox.clock_calls()

    @property
    def clock(self):
        """The wall clock that the daemon sees (sandbox.WallClock)."""
        return self.sandbox.clock

    def close(self):
        """Ends it and removes all of it."""
        self.bus.detach(self.bus_port)
        self.bus.loop.invoke(self.bus_port.close)
        self.module_line.close()
        self.sandbox.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
