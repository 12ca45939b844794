"""An emulated machine with four UARTs: the console, and three lines that lead out to simulated buses.

    machine = Machine("x86", directory)       # vmlinuz, initrd and, for ARM, dtb are there
    bus.attach(machine.lines[0])              # /dev/ttyQX1; 1 is ttyQX2, 2 is ttyQX4
    machine.run("cat /proc/version")
    machine.close()

Software emulation only. The emulator's end of each line has the smallest send buffer there is and the other end takes
a byte in a byte's time, so that the guest's transmitter is held up as by a wire.
"""

import json
import os
import re
import select
import socket
import subprocess
import time

from sim.bus import Node

EMULATORS = {
    "x86": ["qemu-system-x86_64", "-machine", "pc", "-m", "256"],
    "armhf": ["qemu-system-arm", "-machine", "vexpress-a15", "-m", "512"],
}
CONSOLES = {"x86": "ttyS0", "armhf": "ttyAMA0"}
# Write events of the emulated UARTs: their name, the line control register and its BREAK bit.
REGISTERS = {
    "x86": ("serial_write", re.compile(r"@(\d+\.\d+):serial_write .*addr 0x03 val 0x([0-9a-f]+)"), 0x40),
    "armhf": ("pl011_write", re.compile(r"@(\d+\.\d+):pl011_write addr 0x0*2c value 0x([0-9a-f]+)"), 0x01),
}
# The interrupts differ: the emulated ISA bus doesn't share any.
ISA_PORTS = ((0x3F8, 4), (0x2F8, 3), (0x3E8, 5), (0x2E8, 7))


class Line(Node):
    """The outer end of a UART. Without a bus nobody takes what the guest sends."""

    def __init__(self, name, end):
        super().__init__(name)
        self.end = end
        self.end.setblocking(False)
        self.overruns = 0
        self._due = 0.0

    def attached(self, bus):
        super().attached(bus)
        bus.loop.add_reader(self.end, self._begin)

    def _begin(self):
        """The first byte after a pause."""
        self.bus.loop.remove_reader(self.end)
        self._due = time.monotonic()
        self._take()

    def _take(self):
        """The bytes that have had their time on the wire since the last ones."""
        if self.bus is None:
            return
        count = 1 + int((time.monotonic() - self._due) / self.bus.byte_time)
        try:
            data = self.end.recv(count)
        except BlockingIOError:
            self.bus.loop.add_reader(self.end, self._begin)
            return
        if not data:
            return
        self.send(data)
        self._due += len(data) * self.bus.byte_time
        self.bus.loop.call_at(self._due, self._take)

    def deliver(self, data, start, byte_time):
        try:
            self.overruns += len(data) - self.end.send(data)
        except BlockingIOError:
            self.overruns += len(data)

    def close(self):
        """Takes the line off its bus; another may have it then."""
        if self.bus is not None:
            self.bus.loop.remove_reader(self.end)
            self.bus = None


class Machine:
    """See above. `directory` gets the emulator's log."""

    def __init__(self, kind, directory, boot_timeout=90.0):
        self.kind = kind
        self.log_path = os.path.join(directory, "emulator.log")
        self._console_text = ""
        self._number = 0
        self.dead = False
        ends = {name: socket.socketpair() for name in ("console", "monitor", "line0", "line1", "line2")}
        arguments = EMULATORS[kind] + [
            "-accel", "tcg", "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot", "-msg", "timestamp=on",
            "-kernel", os.path.join(directory, "vmlinuz"), "-initrd", os.path.join(directory, "initrd"),
            "-append", "console=%s quiet loglevel=1 panic=-1" % CONSOLES[kind]]
        if kind == "armhf":
            arguments += ["-dtb", os.path.join(directory, "dtb")]
        for name, (_, inner) in ends.items():
            if name.startswith("line"):
                inner.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1)
            os.set_inheritable(inner.fileno(), True)
            arguments += ["-chardev", "socket,id=%s,fd=%d" % (name, inner.fileno())]
        arguments += ["-mon", "chardev=monitor,mode=control"]
        for number, name in enumerate(("console", "line0", "line1", "line2")):
            if kind == "x86":
                port, irq = ISA_PORTS[number]
                arguments += ["-device", "isa-serial,chardev=%s,index=%d,iobase=%d,irq=%d" % (name, number, port, irq)]
            else:
                arguments += ["-serial", "chardev:" + name]
        started = time.monotonic()
        with open(self.log_path, "wb") as log:
            self._emulator = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                              env={**os.environ, "QEMU_AUDIO_DRV": "none"},
                                              pass_fds=[inner.fileno() for _, inner in ends.values()])
        for _, inner in ends.values():
            inner.close()
        self._console = ends["console"][0]
        self._monitor = ends["monitor"][0].makefile("rw", encoding="ascii")
        self._monitor_end = ends["monitor"][0]
        self._monitor_end.settimeout(20.0)
        self.lines = [Line("card", ends["line%d" % i][0]) for i in range(3)]
        try:
            self._monitor.readline()
            self.command("qmp_capabilities")
            self.wait_console("@ready", boot_timeout)
        except BaseException:
            self.close()
            raise
        self.boot_seconds = time.monotonic() - started

    # The console.

    def wait_console(self, wanted, timeout=30.0, start=0):
        """Waits until the console has shown a text that the pattern matches, from `start` on; returns the match."""
        pattern = re.compile(wanted)
        deadline = time.monotonic() + timeout
        while True:
            found = pattern.search(self._console_text, start)
            if found:
                return found
            left = deadline - time.monotonic()
            ready = left > 0 and select.select([self._console], [], [], left)[0]
            data = self._console.recv(65536) if ready else b""
            if not data:
                self.dead = True
                raise AssertionError("the console didn't show %r; its end:\n%s\nthe emulator's:\n%s"
                                     % (wanted, self._console_text[start:][-3000:], self.emulator_log()[-1000:]))
            self._console_text += data.decode("latin-1")

    def run(self, command, timeout=30.0, check=True):
        """Carries out a line of shell in the guest; returns what it printed."""
        assert not self.dead, "the machine has stopped answering"
        self._number += 1
        start = len(self._console_text)
        self._console.sendall(("echo @begin%d; ( %s ) 2>&1; echo @end%d $?\n"
                               % (self._number, command, self._number)).encode("latin-1"))
        found = self.wait_console(r"(?s)@begin%d\r?\n(.*?)@end%d (\d+)\r?\n" % (self._number, self._number), timeout,
                                  start)
        text = found.group(1).replace("\r\n", "\n")
        assert not check or found.group(2) == "0", "%s: status %s\n%s" % (command, found.group(2), text)
        return text

    # The emulator.

    def command(self, execute, **arguments):
        """A command to the emulator; returns its result."""
        self._monitor.write(json.dumps({"execute": execute, "arguments": arguments}) + "\n")
        self._monitor.flush()
        while True:
            answer = json.loads(self._monitor.readline())
            if "error" in answer:
                raise AssertionError("%s: %s" % (execute, answer["error"]["desc"]))
            if "return" in answer:
                return answer["return"]

    def send_break(self, line):
        """A BREAK arrives at a UART."""
        self.command("chardev-send-break", id="line%d" % line)

    def trace_registers(self, on):
        """Whether the emulator notes what is written to the UARTs' registers."""
        self.command("trace-event-set-state", name=REGISTERS[self.kind][0], enable=on)

    def breaks_sent(self):
        """The BREAKs that the guest's driver has sent while the registers were traced: their lengths in seconds."""
        _, pattern, bit = REGISTERS[self.kind]
        lengths, begun = [], None
        for moment, value in pattern.findall(self.emulator_log()):
            if int(value, 16) & bit:
                begun = float(moment) if begun is None else begun
            elif begun is not None:
                lengths.append(float(moment) - begun)
                begun = None
        return lengths

    def emulator_log(self):
        """What the emulator has printed."""
        with open(self.log_path, encoding="latin-1") as file:
            return file.read()

    def close(self):
        """Ends it."""
        self._emulator.kill()
        self._emulator.wait()
        for line in self.lines:
            line.end.close()
        self._console.close()
        self._monitor.close()
        self._monitor_end.close()
