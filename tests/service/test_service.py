"""The installed service, started by systemd in an emulated machine.

One machine for all: the tests build on one another in their order, and the last one halts it.
"""

import json
import os
import re
import sys
import time

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "vm"))

import machine as emulated  # noqa: E402

from sim.bus import Bus  # noqa: E402
from sim.cabinet import Cabinet  # noqa: E402
from sim.loop import Loop  # noqa: E402
from sim.plant import CabinetModel, Plant  # noqa: E402

DIRECTORY = os.environ.get("UGW_SERVICE_DIR", "build-vm/service")
MODULE_LINE, BUS_LINE = 0, 1  # ttyQX1 and ttyQX2
CAP_SYS_TIME = 1 << 25
BURST = 200                   # lines of log; the journal takes up to six times as many
PAUSE = 5.0                   # s before the service is started again


@pytest.fixture(scope="module")
def card():
    emulated.EMULATORS["x86"] = ["qemu-system-x86_64", "-machine", "pc", "-m", "512", "-drive",
                                 "file=%s/disk,if=virtio,format=raw,snapshot=on" % DIRECTORY]
    machine = emulated.Machine("x86", DIRECTORY, boot_timeout=240.0)
    loop = Loop()
    lines = [Bus(loop, name="line %d" % number) for number in (MODULE_LINE, BUS_LINE)]
    for number, bus in zip((MODULE_LINE, BUS_LINE), lines):
        bus.attach(machine.lines[number])
    # The bus's master, and another slave: the card, B, writes its status file when it has overheard an answer.
    plant = Plant()
    machine.master, other = (lines[1].attach(Cabinet(letter)) for letter in "AC")
    for cabinet, letter in ((machine.master, "A"), (other, "C")):
        CabinetModel(plant, letter).install(cabinet)
    yield machine
    for bus in lines:
        bus.close()
    loop.stop()
    machine.close()


def shown(card, name):
    return card.run("systemctl show -p %s --value ugw" % name).strip()


def wait(get, wanted, timeout):
    """Waits until what `get` gives is wanted; returns it."""
    deadline = time.monotonic() + timeout
    while True:
        value = get()
        if wanted(value):
            return value
        assert time.monotonic() < deadline, "waited in vain; the last: %s" % (value,)
        time.sleep(0.3)


def test_is_active_after_the_boot(card):
    wait(lambda: shown(card, "ActiveState"), lambda state: state == "active", 30)
    pid = shown(card, "MainPID")
    assert card.run("readlink /proc/%s/exe" % pid).strip() == "/usr/sbin/UGW"
    assert card.run("readlink /proc/%s/cwd" % pid).strip() == "/var/lib/ugw"
    assert card.run("tr '\\0' ' ' </proc/%s/cmdline" % pid).split()[1:] == [
        "/dev/ttyQX1", "/dev/ttyQX2", "9600", "2", "1110", "true"]


def test_has_one_capability(card):
    status = card.run("cat /proc/%s/status" % shown(card, "MainPID"))
    for kind in ("CapPrm", "CapEff", "CapBnd"):
        assert int(re.search(kind + r":\s+([0-9a-f]+)", status).group(1), 16) == CAP_SYS_TIME


def test_opens_both_ports(card):
    ports = card.run("ls -l /proc/%s/fd" % shown(card, "MainPID"))
    assert "/dev/ttyS1" in ports and "/dev/ttyS2" in ports


def test_may_do_what_the_gateway_does_and_no_more(card):
    log = card.run("journalctl -u ugw -o cat --no-pager | grep '^probe'")
    assert dict(re.findall(r"probe (.*): (.*)", log)) == {
        "adjtime": "done",
        "settimeofday": "Operation not permitted",
        "serial port": "done",
        "disk": "Operation not permitted",
        "/etc": "Read-only file system",
        "/var/log": "done",
        "rename": "done",
    }


def test_log_is_limited(card):
    assert int(card.run("journalctl -u ugw -o cat --no-pager | grep -c '^flood'")) <= 6 * BURST
    # It tells so with the first line that it takes again.
    wait(lambda: card.run("journalctl --no-pager | grep Suppressed", check=False), lambda text: "ugw.service" in text, 60)


def test_status_file_is_on_tmpfs_and_found_where_it_has_always_been(card):
    def document():
        card.master.ask("C", "BN", timeout=5)
        return card.run("cat /var/log/vu.json", check=False)

    json.loads(wait(document, lambda text: text.startswith("{"), 60))
    assert card.run("stat -f -c %T /run/ugw").strip() == "tmpfs"
    assert card.run("readlink /var/log/vu.json").strip() == "/run/ugw/vu.json"


def test_segment_is_shared_with_the_rest_of_the_card(card):
    assert "SB.BA" in card.run("ugwctl --dir /var/lib/ugw tree")
    assert len(card.run("tail -n +2 /proc/sysvipc/shm").splitlines()) == 1


def test_comes_back_after_a_kill_with_a_pause_and_takes_over_the_segment(card):
    segment = card.run("tail -n +2 /proc/sysvipc/shm").split()[:2]
    pid = shown(card, "MainPID")
    killed = time.monotonic()
    card.run("kill -9 %s" % pid)
    wait(lambda: shown(card, "SubState"), lambda state: state == "auto-restart", PAUSE)
    wait(lambda: (shown(card, "ActiveState"), shown(card, "MainPID")),
         lambda now: now[0] == "active" and now[1] not in ("0", pid), 60)
    assert time.monotonic() - killed >= PAUSE - 0.5
    assert shown(card, "NRestarts") == "1"
    assert card.run("tail -n +2 /proc/sysvipc/shm").split()[:2] == segment


def test_restart_keeps_the_segment_and_a_stop_leaves_nothing_running(card):
    segment = card.run("tail -n +2 /proc/sysvipc/shm").split()[:2]
    card.run("systemctl restart ugw", timeout=60)
    assert card.run("tail -n +2 /proc/sysvipc/shm").split()[:2] == segment
    card.run("systemctl stop ugw", timeout=60)
    assert shown(card, "Result") == "success"
    assert card.run("pidof UGW", check=False) == ""


def test_refused_arguments_are_not_tried_again(card):
    card.run("sed -i.kept 's/^UGW_MASK=.*/UGW_MASK=/' /etc/default/ugw; systemctl start ugw", check=False)
    wait(lambda: shown(card, "ActiveState"), lambda state: state == "failed", 30)
    time.sleep(PAUSE + 2)
    assert shown(card, "ActiveState") == "failed"
    card.run("mv /etc/default/ugw.kept /etc/default/ugw")


def test_upgrade_restarts_what_runs_and_removal_stops_it(card):
    card.run("systemctl start ugw", timeout=60)
    pid = shown(card, "MainPID")
    card.run("dpkg -i /root/ugw.deb", timeout=120)
    wait(lambda: (shown(card, "ActiveState"), shown(card, "MainPID")),
         lambda now: now[0] == "active" and now[1] not in ("0", pid), 60)
    card.run("dpkg -r ugw", timeout=120)
    assert card.run("pidof UGW", check=False) == ""
    card.run("dpkg -i /root/ugw.deb && systemctl start ugw", timeout=120)
    wait(lambda: shown(card, "ActiveState"), lambda state: state == "active", 30)


def test_a_master_halts_the_card(card):
    wait(lambda: card.master.ask("B", "BN", timeout=5), lambda reply: reply is not None, 60)
    assert card.master.ask("B", "CH", timeout=5) is not None
    card.wait_console("System halted", timeout=90)
