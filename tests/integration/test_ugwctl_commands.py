"""Commands that ugwctl writes, seen as frames at the module."""

import signal
import sys
import time

import pexpect
import pytest
from outside import SHUTDOWN, Outside, told, wait_module
from ugwctl import Ugwctl

from sim.records import CMD_NONE

DEAD, NO_NODE, PENDING, NOT_TAKEN, NOT_CONFIRMED = 5, 7, 8, 9, 10


@pytest.fixture
def plant(gateway, module):
    """Card A alone with its module, which is the master: card, module, a program beside it, ugwctl."""
    card = gateway(mask="1000")
    unit = module(card, thinking=0.001)
    wait_module(card)
    outside = Outside(card)
    outside.make_master("A")
    return card, unit, outside, Ugwctl(card)


def commanded(module, mark):
    return [frame for frame in told(module.queries(since=mark)) if frame[2] in ("CS", "CR", "CD", "TB", "DC")]


@pytest.mark.parametrize("arguments, frame", [
    (["shutdown"], ("CS", b"0000")), (["shutdown", "--shut-delay", "600"], ("CS", b"0258")),
    (["restore", "-S", "600", "-R", "60"], ("CR", b"0258003<")), (["cancel"], ("CD", b"")),
    (["battery-test"], ("TB", b"005")), (["module", "SA.BA.M1", "off"], ("DC", b"0")),
    (["module", "BA.M1", "on"], ("DC", b"1"))])
def test_the_frame_of_each_command(plant, arguments, frame):
    card, module, outside, ugwctl = plant
    mark = module.mark()
    done = ugwctl.run(*arguments)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("the gateway has taken ")
    assert commanded(module, mark) == [("A", "1", *frame)]
    assert outside.panel() == outside.panel("A") == CMD_NONE
    assert card.sandbox.segment().attached == 1


def test_dry_run_changes_nothing(plant):
    card, module, outside, ugwctl = plant
    mark = module.mark()
    before = [node.panel.pack() for node in (card.tree().root, card.tree().module("A"))]
    out = ugwctl.read("restore", "--dry-run", "-S", "600", "-R", "60")
    assert "offset 173  delay_shut    600\n" in out and "offset 175  delay_reboot  60\n" in out
    assert "offset 172  value         1 (restore)\n" in out
    out = ugwctl.read("module", "BA.M1", "off", "-n")
    assert "value         4 (off)" in out and "offset 1510  value" in out
    assert [node.panel.pack() for node in (card.tree().root, card.tree().module("A"))] == before
    time.sleep(1.2)
    assert commanded(module, mark) == []


def test_refused_while_another_is_pending(plant):
    card, module, outside, ugwctl = plant
    mark = module.mark()
    card.program.signal(signal.SIGSTOP)
    outside.order(SHUTDOWN, 600)
    for arguments in (["cancel"], ["module", "BA.M1", "off"], ["shutdown", "--dry-run"]):
        done = ugwctl.run(*arguments)
        assert done.returncode == PENDING and "shutdown" in done.stderr and not done.stdout
    assert outside.panel() == SHUTDOWN and outside.panel("A") == CMD_NONE
    card.program.signal(signal.SIGCONT)
    outside.wait_taken()
    assert commanded(module, mark) == [("A", "1", "CS", b"0258")]


def test_two_at_a_time(plant):
    card, _, _, ugwctl = plant
    card.program.signal(signal.SIGSTOP)
    first = ugwctl.start("battery-test")
    outside = plant[2]
    deadline = time.monotonic() + 10
    while outside.panel() == CMD_NONE and time.monotonic() < deadline:
        time.sleep(0.02)
    assert ugwctl.run("cancel").returncode == PENDING
    card.program.signal(signal.SIGCONT)
    assert first.wait(20) == 0
    first.stdout.close()
    first.stderr.close()


def test_nobody_takes_it(plant):
    card, module, outside, ugwctl = plant
    mark = module.mark()
    card.program.signal(signal.SIGSTOP)
    begin = time.monotonic()
    done = ugwctl.run("shutdown", "--timeout", "2")
    assert done.returncode == NOT_TAKEN and "nobody has taken shutdown" in done.stderr and not done.stdout
    assert 2 <= time.monotonic() - begin < 10
    assert outside.panel() == CMD_NONE, "it doesn't lie there until somebody comes by"
    card.program.signal(signal.SIGCONT)
    module.wait("RS", since=module.mark(), times=3)
    assert commanded(module, mark) == []


def test_a_dead_gateway_is_given_nothing(plant):
    card, _, outside, ugwctl = plant
    card.stop()
    done = ugwctl.run("shutdown")
    assert done.returncode == DEAD and outside.panel() == CMD_NONE


def test_what_the_gateway_would_drop_is_warned_of(gateway, module):
    card = gateway(mask="1000")
    module(card, thinking=0.001)
    wait_module(card)
    done = Ugwctl(card).run("cancel")
    assert done.returncode == 0 and "no module is marked as master" in done.stderr


def test_only_modules_are_turned_off(plant):
    assert plant[3].run("module", "SA.BA", "off").returncode == NO_NODE


def on_terminal(ugwctl, *arguments):
    argv = ugwctl.argv(*arguments)
    return pexpect.spawn(argv[0], argv[1:], encoding="utf-8", timeout=20, logfile=sys.stdout)


def test_a_person_is_asked(plant):
    _, module, _, ugwctl = plant
    mark = module.mark()
    child = on_terminal(ugwctl, "shutdown", "-S", "600")
    child.expect_exact("Shut the whole plant down (SA)? [y/N] ")
    child.sendline("n")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == NOT_CONFIRMED and commanded(module, mark) == []
    child = on_terminal(ugwctl, "shutdown", "-S", "600")
    child.expect_exact("[y/N] ")
    child.sendline("y")
    child.expect_exact("the gateway has taken shutdown on SA")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 0 and commanded(module, mark) == [("A", "1", "CS", b"0258")]
    child = on_terminal(ugwctl, "cancel", "--yes")
    child.expect_exact("the gateway has taken cancel on SA")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 0
