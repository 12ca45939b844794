"""The sandbox: what a program inside can reach, and that nothing of it stays."""

import ctypes
import os
import signal
import subprocess
import sys
import time

import pytest

from sim import shm
from sim.gateway import SHIM
from sim.sandbox import FastClock, Sandbox
from sim.statusfile import ALL_KEYS, BOOLEANS, TEXTS, StatusFile, problems

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


@pytest.fixture
def sandbox(workdir):
    with Sandbox(os.path.join(workdir, "sandbox")) as sandbox:
        yield sandbox


def output(sandbox, script, **options):
    """Runs a shell script inside; its output as lines."""
    program = sandbox.spawn(["/bin/sh", "-c", script], **options)
    program.wait(10)
    with open(os.path.join(sandbox.directory, "stdout")) as file:
        return file.read().splitlines()


def python(sandbox, script, **options):
    """Runs a Python script inside; its output as lines."""
    path = os.path.join(sandbox.cwd, "script.py")
    with open(path, "w") as file:
        file.write(script)
    return output(sandbox, "exec /usr/bin/python3 " + path, **options)


def test_device_names_are_private_and_open_as_ports(sandbox, bus):
    port = bus.pty("port")
    for name in ("/dev/ttyB1", "/dev/ttyQX1", "/dev/ttyQX4"):
        sandbox.link(name, port.path)
    assert [line for line in output(sandbox, "ls /dev") if line.startswith("tty")] == ["tty", "ttyB1", "ttyQX1",
                                                                                       "ttyQX4"]
    output(sandbox, "printf abc > /dev/ttyQX4")
    bus.mark()
    assert bytes(bus.pieces[0].data) == b"abc"
    assert not os.path.exists("/dev/ttyQX1")
    sandbox.unlink("/dev/ttyQX1")
    assert "ttyQX1" not in output(sandbox, "ls /dev")[-7:]
    with pytest.raises(ValueError):
        sandbox.link("/dev/ttyWithANameOfThirtyOneChars", port.path)


def test_status_directories_are_private(sandbox):
    output(sandbox, "echo a > /home/gwdev/vu.json; echo b > /var/log/vu.json; echo c > here")
    for path, text in ((sandbox.home + "/vu.json", "a"), (sandbox.varlog + "/vu.json", "b"),
                       (sandbox.cwd + "/here", "c")):
        with open(path) as file:
            assert file.read().strip() == text
    assert not os.path.exists("/home/gwdev/vu.json")
    assert not os.path.exists("/var/log/vu.json")


def test_halt_and_its_like_only_leave_a_mark(sandbox):
    output(sandbox, "halt; reboot -f; /sbin/shutdown now; test -e /usr/sbin/poweroff && /usr/sbin/poweroff")
    marks = sandbox.marks()
    assert marks[:2] == ["halt ", "reboot -f"]
    assert set(marks[2:]) <= {"shutdown now", "poweroff "}


def test_the_clock_is_out_of_reach(sandbox, build):
    script = """
import ctypes, struct, time
libc = ctypes.CDLL(None, use_errno=True)
print(libc.adjtime(struct.pack("=qq", -1, -500000), bytes(16)))
print(libc.settimeofday(struct.pack("=qq", 1, 0), None))
print(int(time.time()))
"""
    sandbox.clock.freeze(1000000000, 250000)
    env = sandbox.environment(os.path.join(build, SHIM))
    assert python(sandbox, script, env=env) == ["0", "0", "1000000000"]
    assert sandbox.clock_calls() == [["adjtime", -1, -500000], ["settimeofday", 1, 0]]
    sandbox.clock.shift(3600)
    told = python(sandbox, script, env=env)
    assert abs(int(told[-1]) - time.time() - 3600) < 5
    # Without the shim the rights to do it are missing.
    told = python(sandbox, "import ctypes\n"
                           "print(ctypes.CDLL(None).clock_settime(0, bytes(16)))", env=sandbox.environment())
    assert told[-1] == "-1"


def test_a_clock_that_runs_fast(sandbox, build, loop, workdir):
    script = """
import ctypes, struct, time
libc = ctypes.CDLL(None)
def now():
    return time.clock_gettime(time.CLOCK_MONOTONIC_RAW), time.monotonic(), time.time()
begin = now()
libc.usleep(10000000)
libc.select(0, None, None, None, struct.pack("@ll", 10, 0))
for before, after in zip(begin, now()):
    print(after - before)
"""
    clock = FastClock(os.path.join(workdir, "clock"), 100)
    env = dict(sandbox.environment(os.path.join(build, SHIM)), CARD_SHIM_FAST=clock.path)

    def told():
        return [float(line) for line in python(sandbox, script, env=env)[-3:]]
    took, monotonic, wall = told()
    assert took < 10 and monotonic == wall == 0, "nobody counts it on"
    loop.keep_calling(clock.tick)
    took, monotonic, wall = told()
    assert took < 10
    assert 1 < monotonic <= took * 100 + 1
    assert abs(monotonic - wall) < 0.1
    assert clock.seconds() > monotonic


@pytest.mark.parametrize("baud, count", [("B9600", 96), ("B1200", 12), ("B115200", 1152)])
def test_a_terminal_takes_the_time_of_a_line(sandbox, build, bus, baud, count):
    sandbox.link("/dev/ttyB1", bus.pty("port").path)
    script = """
import os, termios, time
fd = os.open("/dev/ttyB1", os.O_RDWR | os.O_NOCTTY)
mode = termios.tcgetattr(fd)
mode[4] = mode[5] = termios.%s
termios.tcsetattr(fd, termios.TCSANOW, mode)
termios.tcdrain(fd)
begin = time.monotonic()
os.write(fd, bytes(%d))
written = time.monotonic()
termios.tcdrain(fd)
print(written - begin < 0.05, 0.099 < time.monotonic() - begin < 0.3)
""" % (baud, count)
    assert python(sandbox, script, env=sandbox.environment(os.path.join(build, SHIM), baud=9600)) == ["True True"]


def test_segments_are_private_and_read_from_outside(sandbox):
    with open(os.path.join(sandbox.cwd, "UGW"), "w"):
        pass
    before = shm.segments()
    sandbox.create_segment(1000, fill=7)
    segment = sandbox.segment()
    assert (segment.mode, segment.size, segment.key) == (0o604, 1000, sandbox.key)
    assert shm.segments() == before
    sandbox.write_segment(segment.id, 10, b"abc")
    assert sandbox.read_segment(segment.id, 4, 9) == b"\x07abc"
    sandbox.hold_segment(segment.id)
    assert sandbox.segment().attached == 1
    sandbox.release_segments()
    sandbox.remove_segment(segment.id)
    assert sandbox.segments() == []


def test_key_follows_the_rule_of_ftok(workdir):
    path = os.path.join(workdir, "UGW")
    with open(path, "w"):
        pass
    assert shm.key_of(path) == ctypes.CDLL(None).ftok(path.encode(), 1)


def test_a_program_that_ends_tells_its_status(sandbox):
    assert sandbox.spawn(["/bin/sh", "-c", "exit 3"]).wait() == 3
    program = sandbox.spawn(["/bin/sleep", "100"])
    assert program.running
    program.signal(signal.SIGINT)
    assert program.wait() == -signal.SIGINT
    with pytest.raises(OSError, match="nothing"):
        sandbox.spawn(["/nothing"])


OWNER = """
import sys, time
from sim.sandbox import FastClock, Sandbox
sandbox = Sandbox(sys.argv[1])
sandbox.create_segment(100, key=77)
print(sandbox.pid, sandbox.spawn(["/bin/sh", "-c", "sleep 1000"]).pid, flush=True)
time.sleep(1000)
"""


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT])
def test_nothing_stays_when_the_owner_is_killed(workdir, number):
    directory = os.path.join(workdir, "sandbox")
    owner = subprocess.Popen([sys.executable, "-c", OWNER, directory], stdout=subprocess.PIPE, cwd=ROOT,
                             stderr=subprocess.DEVNULL)
    pids = [int(word) for word in owner.stdout.readline().split()]
    assert len(pids) == 2
    assert os.path.isdir(directory)
    owner.send_signal(number)
    owner.wait()
    deadline = time.monotonic() + 10
    while any(alive(pid) for pid in pids) or os.path.exists(directory):
        assert time.monotonic() < deadline
        time.sleep(0.02)
    assert not [s for s in shm.segments() if s.key == 77]


def alive(pid):
    try:
        with open("/proc/%d/stat" % pid) as file:
            return file.read().rpartition(")")[2].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


def test_status_documents_are_judged():
    document = {key: False if key in BOOLEANS else "x" if key in TEXTS else 1 for key in ALL_KEYS}
    document.update(statusAlarms=["SYSTEM_ANOMALY"], UPSFAILURE=True)
    assert problems(document) == []
    assert problems(dict(document, UPSLOCK=1)) == ["UPSLOCK: 1"]
    assert problems(dict(document, INPUTVOLTAGE=True)) == ["INPUTVOLTAGE: True"]
    assert "missing ['UPSTYPE']" in problems({k: v for k, v in document.items() if k != "UPSTYPE"})[0]
    assert problems(dict(reversed(document.items()))) == ["keys: missing [], unexpected [], order differs"]


def test_a_missing_status_file_is_none(workdir):
    file = StatusFile(os.path.join(workdir, "vu.json"))
    assert file.read() is None and file.age() is None
    with open(file.path, "w") as out:
        out.write('{"a": 1}')
    assert file.read() == {"a": 1}
    assert file.age() < 5
