"""A private view of the machine for one card, and the programs that run in it.

    with Sandbox(directory) as sandbox:
        sandbox.link("/dev/ttyB1", port.path)
        program = sandbox.spawn([binary, ...], shim=...)
        program.signal(signal.SIGINT); program.wait(5)
        sandbox.segments(), sandbox.read_segment(id, size)

Inside, /dev holds little but the names that `link` makes; /home/gwdev is `home`, /var/log is `varlog`; the segments
are the sandbox's own; `halt` and `reboot` (and their like) only leave a line in `marks`; the clock can't be set. The
working directory `cwd` holds the file UGW that names the segment. All of that lies under the sandbox's directory and
goes with it, whatever ends the owner. Needs root, or a kernel that lets users make namespaces.
"""

import base64
import json
import mmap
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time

from sim import shm

_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
_MARKER = """#!/bin/sh
echo "${0##*/} $*" >> "%s"
"""

# Modes of the wall clock that a program in the sandbox sees.
REAL, FROZEN, SHIFTED = range(3)


class WallClock:
    """The wall clock of the programs started with the shim: moved from outside, at any time."""

    def __init__(self, path):
        self.path = path
        self._put(REAL, 0, 0)

    def _put(self, mode, sec, usec):
        data = struct.pack("=qqq", mode, sec, usec)
        if os.path.exists(self.path):
            # In place: the programs have the file mapped.
            with open(self.path, "r+b") as file:
                file.write(data)
        else:
            with open(self.path, "wb") as file:
                file.write(data)

    def real(self):
        """The machine's own time."""
        self._put(REAL, 0, 0)

    def freeze(self, sec, usec=0):
        """The clock stands at a time."""
        self._put(FROZEN, sec, usec)

    def shift(self, seconds):
        """The clock runs, so many seconds ahead of the machine's."""
        usec = round(seconds * 1000000)
        self._put(SHIFTED, usec // 1000000, usec % 1000000)


class FastClock:
    """Both clocks and all waits of programs, so many times as fast. Somebody calls `tick` all the time
    (Loop.keep_calling). No call counts for more than MOST seconds of the machine's: a machine that keeps the caller or
    the programs waiting slows the clocks down, so that the programs' time-outs don't run out for that reason."""

    MOST = 0.00025

    def __init__(self, path, factor):
        self.path = path
        self.factor = factor
        with open(path, "w+b") as file:
            file.write(struct.pack("@qqq", factor, time.monotonic_ns(), time.time_ns() - time.monotonic_ns()))
            file.flush()
            # Whole numbers at a time: the programs read while this is written.
            self._cells = memoryview(mmap.mmap(file.fileno(), 0)).cast("q")
        self._begun = self._now = self._cells[1]
        self._last = time.monotonic()

    def tick(self):
        """Counts the clocks on."""
        now = time.monotonic()
        self._now += int(min(now - self._last, self.MOST) * self.factor * 1e9)
        self._last = now
        self._cells[1] = self._now

    def seconds(self):
        """What has passed for the programs."""
        return (self._now - self._begun) / 1e9


class Program:
    """A program that was started in a sandbox."""

    def __init__(self, sandbox, pid):
        self._sandbox = sandbox
        self.pid = pid

    def poll(self):
        """None while it runs, then its exit status (negative: the signal that ended it)."""
        return self._sandbox.request("poll", pid=self.pid)

    @property
    def running(self):
        return self.poll() is None

    def signal(self, number):
        """Sends a signal."""
        self._sandbox.request("signal", pid=self.pid, number=int(number))

    def wait(self, timeout=5.0):
        """Waits for its end; returns the exit status, AssertionError if it doesn't end in time."""
        deadline = time.monotonic() + timeout
        while True:
            status = self.poll()
            if status is not None:
                return status
            if time.monotonic() >= deadline:
                raise AssertionError("the program still runs after %g s" % timeout)
            time.sleep(0.005)

    def kill(self):
        """Ends it at once; no error if it has ended."""
        if self.running:
            self.signal(signal.SIGKILL)
            self.wait()

    def cpu_seconds(self):
        """Processor time of the program so far."""
        with open("/proc/%d/stat" % self.pid) as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def thread_seconds(self):
        """Processor time of each thread so far, by thread id; finer than cpu_seconds where the kernel tells."""
        times = {}
        for task in os.listdir("/proc/%d/task" % self.pid):
            with open("/proc/%d/task/%s/schedstat" % (self.pid, task)) as file:
                times[int(task)] = int(file.read().split()[0]) / 1e9
        return times

    def memory_bytes(self, name="VmRSS"):
        """Resident memory (or another Vm line of /proc/PID/status)."""
        with open("/proc/%d/status" % self.pid) as file:
            for line in file:
                if line.startswith(name + ":"):
                    return int(line.split()[1]) * 1024
        raise KeyError(name)


class Sandbox:
    """See above. `directory` is made if it is missing, and removed at close unless `keep`."""

    def __init__(self, directory, keep=False):
        self.directory = os.path.abspath(directory)
        self.keep = keep
        self.cwd = self._make("cwd")
        self.home = self._make("home")
        self.varlog = self._make("varlog")
        self.bin = self._make("bin")
        self.marks_path = os.path.join(self.directory, "marks")
        self.clock_calls_path = os.path.join(self.directory, "clock-calls")
        self.writes_path = os.path.join(self.directory, "writes")
        self.clock = WallClock(os.path.join(self.directory, "clock"))
        for name in ("halt", "reboot"):
            path = os.path.join(self.bin, name)
            with open(path, "w") as file:
                file.write(_MARKER % self.marks_path)
            os.chmod(path, 0o755)
        self._jail = self._channel = None
        self._start()

    def _make(self, name):
        path = os.path.join(self.directory, name)
        os.makedirs(path, exist_ok=True)
        return path

    def _start(self):
        ours, theirs = socket.socketpair()
        env = dict(os.environ, PYTHONPATH=_ROOT, PYTHONDONTWRITEBYTECODE="1")
        self._jail = subprocess.Popen([sys.executable, "-m", "sim.jail", str(theirs.fileno())], env=env, cwd=_ROOT,
                                      stdin=subprocess.DEVNULL, pass_fds=(theirs.fileno(),), start_new_session=True)
        theirs.close()
        self._socket = ours
        self._channel = ours.makefile("rwb")
        try:
            self.pid = self._exchange({"home": self.home, "varlog": self.varlog, "bin": self.bin,
                                       "remove": None if self.keep else self.directory})
        except OSError:
            self.close()
            raise

    def _exchange(self, message):
        try:
            self._channel.write(json.dumps(message).encode() + b"\n")
            self._channel.flush()
            line = self._channel.readline()
        except (BrokenPipeError, ConnectionError):
            line = b""
        if not line:
            raise OSError("the sandbox has ended")
        answer = json.loads(line)
        if answer["error"]:
            raise OSError(answer["error"])
        return answer["value"]

    def request(self, op, **arguments):
        """One request to the jail process (sim.jail); OSError with its message if it fails."""
        return self._exchange(dict(arguments, op=op))

    # Devices.

    def link(self, name, target):
        """Makes a device name inside; `target` is a pseudo-terminal's path."""
        if not name.startswith("/dev/tty") or len(name) > 30:
            raise ValueError("a port's name begins with /dev/tty and has at most 30 characters: %s" % name)
        self.request("link", name=name, target=target)

    def unlink(self, name):
        """Takes a device name away."""
        self.request("unlink", name=name)

    # Programs.

    def environment(self, shim=None, baud=0, adjtime_errno=0, trace=False, extra=None):
        """The environment of a program inside: PATH with the harmless halt first, and the shim with its settings;
        `trace` keeps the times of writes to terminals."""
        env = {"PATH": self.bin + ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"}
        for name in ("TZ", "TSAN_OPTIONS"):
            if name in os.environ:
                env[name] = os.environ[name]
        if shim:
            env.update(LD_PRELOAD=shim, CARD_SHIM_LOG=self.clock_calls_path, CARD_SHIM_CLOCK=self.clock.path)
            if trace:
                env["CARD_SHIM_WRITES"] = self.writes_path
            if baud:
                env["CARD_SHIM_BAUD"] = str(baud)
            if adjtime_errno:
                env["CARD_SHIM_ERRNO"] = str(adjtime_errno)
        env.update(extra or {})
        return env

    def spawn(self, argv, env=None, stderr="stderr", stdout="stdout", cwd=None):
        """Starts a program inside, in `cwd` of the sandbox if no other is given; returns a Program. Its output goes
        to files in the sandbox's directory."""
        pid = self.request("spawn", argv=[os.fspath(a) for a in argv], env=env or self.environment(),
                           cwd=cwd or self.cwd, stderr=os.path.join(self.directory, stderr),
                           stdout=os.path.join(self.directory, stdout))
        return Program(self, pid)

    def marks(self):
        """What halt, reboot and their like were called with: lines such as "halt "."""
        return _lines(self.marks_path)

    def clock_calls(self):
        """The calls that would have touched the clock, as lists such as ["adjtime", -1, -500000]."""
        calls = [line.split() for line in _lines(self.clock_calls_path)]
        return [[name] + [int(value) for value in values] for name, *values in calls]

    def writes(self, device):
        """When and how much a traced program wrote to a terminal: (monotonic seconds, bytes) pairs."""
        lines = [line.split() for line in _lines(self.writes_path)]
        return [(float(when), int(count)) for when, name, count in lines if name == device]

    # The disk of /home/gwdev.

    def cover_home(self, size=32768, read_only=False):
        """Puts an empty disk of so many bytes over it, until uncover_home."""
        self.request("cover_home", size=size, read_only=read_only)

    def uncover_home(self):
        """Takes that disk away; what was there before is there again."""
        self.request("uncover_home")

    def fill_home(self):
        """Fills that disk to its last byte, until empty_home."""
        self.request("fill_home")

    def empty_home(self):
        """Takes away what fill_home put there."""
        self.request("empty_home")

    def remove_home(self):
        """Takes the directory itself away, until restore_home."""
        self.request("remove_home")

    def restore_home(self):
        """Puts it back."""
        self.request("restore_home", home=self.home)

    # Segments.

    @property
    def key(self):
        """Key of the segment that the file UGW in `cwd` names; -1 without that file."""
        try:
            return shm.key_of(os.path.join(self.cwd, "UGW"))
        except FileNotFoundError:
            return -1

    def segments(self):
        """All segments inside, as shm.Segment."""
        return [shm.Segment(*values) for values in self.request("segments")]

    def segment(self):
        """The segment of our key, or None."""
        return next((s for s in self.segments() if s.key == self.key), None)

    def create_segment(self, size, fill=0, mode=0o604, key=None):
        """Makes a segment before the daemon does; returns its id."""
        return self.request("create", key=self.key if key is None else key, size=size, mode=mode, fill=fill)

    def read_segment(self, id, size, offset=0):
        """Bytes of a segment."""
        return base64.b64decode(self.request("read", id=id, size=size, offset=offset))

    def write_segment(self, id, offset, data):
        """Writes into a segment, as another program of the card would."""
        self.request("write", id=id, offset=offset, data=base64.b64encode(data).decode())

    def hold_segment(self, id):
        """Stays attached to a segment until release_segments."""
        self.request("hold", id=id)

    def release_segments(self):
        """Detaches what hold_segment attached."""
        self.request("release")

    def remove_segment(self, id):
        """Removes a segment."""
        self.request("remove", id=id)

    # End.

    def close(self):
        """Kills what runs inside and removes all of it."""
        if self._jail is None:
            return
        jail, self._jail = self._jail, None
        self._channel.close()
        self._socket.close()
        try:
            jail.wait(10)
        except subprocess.TimeoutExpired:
            jail.kill()
            jail.wait()
        if not self.keep:
            shutil.rmtree(self.directory, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def _lines(path):
    try:
        with open(path, encoding="latin-1") as file:
            return file.read().splitlines()
    except FileNotFoundError:
        return []
