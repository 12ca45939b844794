"""The live view of ugwctl, on a terminal and without one."""

import os
import time

import pexpect
import pyte
import pytest
from outside import wait_module
from ugwctl import Ugwctl

ROWS, COLUMNS = 30, 100


class Terminal:
    """ugwctl watch on a pseudo-terminal, and what stands on its screen."""

    def __init__(self, ugwctl, *arguments, **environment):
        argv = ugwctl.argv("watch", *arguments)
        env = dict({k: v for k, v in os.environ.items() if k != "NO_COLOR"}, TERM="xterm-256color", **environment)
        self.raw = b""
        self.screen = pyte.Screen(COLUMNS, ROWS)
        self.stream = pyte.ByteStream(self.screen)
        self.child = pexpect.spawn(argv[0], argv[1:], dimensions=(ROWS, COLUMNS), env=env, timeout=10)

    def wait(self, wanted, timeout=15):
        """Reads until the text of the screen is accepted; returns it."""
        deadline = time.monotonic() + timeout
        while True:
            text = "\n".join(self.screen.display)
            if wanted(text):
                return text
            assert time.monotonic() < deadline, text
            try:
                data = self.child.read_nonblocking(65536, 0.2)
            except pexpect.TIMEOUT:
                continue
            self.raw += data
            self.stream.feed(data)

    def leave(self):
        """Presses q; the exit status."""
        self.child.send("q")
        self.child.expect(pexpect.EOF)
        self.raw += self.child.before
        self.child.close()
        return self.child.exitstatus


@pytest.fixture
def plant(gateway, module, cabinets):
    others = cabinets("BC")
    card = gateway(mask="1110")
    unit = module(card, thinking=0.001)
    wait_module(card)
    card.wait_tree(lambda tree: all(tree.cabinet(c).box.Ups.timestamp for c in "ABC"))
    return card, unit, Ugwctl(card), others


def test_it_draws_and_quits_on_q(plant):
    card, unit, ugwctl, others = plant
    terminal = Terminal(ugwctl)
    text = terminal.wait(lambda text: "q quits" in text)
    assert "mains ==> load" in text and text.count("+=> load") == 3
    assert any(all("%s  " % c in line for c in "ABC") for line in text.splitlines()), "side by side"
    unit.data.set("L01")
    terminal.wait(lambda text: "L01 AUXILIARY POWER FAIL" in text)
    others["B"].silent = True
    terminal.wait(lambda text: "cabinet B lost" in text, 25)
    assert b"\x1b[31m" in terminal.raw or b"\x1b[1m\x1b[31m" in terminal.raw, "in red"
    assert terminal.leave() == 0
    assert b"\x1b[?1049l" in terminal.raw, "the terminal is given back"
    assert card.sandbox.segment().attached == 1


def test_it_is_refreshed_twice_a_second(plant):
    _, _, ugwctl, _ = plant
    begin = time.monotonic()
    out = ugwctl.read("watch", "--count", "5")
    assert 2.0 <= time.monotonic() - begin < 4.0
    assert out.count("\nAlarms ") == 5 and "\x1b" not in out


def test_no_colour_where_none_is_wanted(plant):
    _, unit, ugwctl, _ = plant
    unit.data.set("L01")
    terminal = Terminal(ugwctl, NO_COLOR="1")
    terminal.wait(lambda text: "LOCK" in text)
    assert terminal.leave() == 0
    assert b"\x1b[31" not in terminal.raw and b"\x1b[33" not in terminal.raw and b"\x1b[32" not in terminal.raw


def test_it_says_when_the_gateway_has_gone(plant):
    card, _, ugwctl, _ = plant
    terminal = Terminal(ugwctl)
    terminal.wait(lambda text: "q quits" in text)
    card.stop()
    terminal.wait(lambda text: "the gateway isn't running" in text)
    assert terminal.leave() == 0


def test_a_terminal_that_is_not_known(plant):
    argv = plant[2].argv("watch")
    child = pexpect.spawn(argv[0], argv[1:], env=dict(os.environ, TERM="no-such-terminal"), encoding="utf-8")
    child.expect_exact("the terminal can't be used")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 1
