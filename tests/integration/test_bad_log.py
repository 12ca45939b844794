"""Bad days of the log: nobody takes it, it has nowhere to go, its reader goes away."""

import fcntl
import os
import threading
import time

import pytest

from sim.logfile import LogFile
from vitals import Vitals, right_again

AT_MOST = 10.0


@pytest.fixture
def plant(one_card_plant):
    return one_card_plant


def started_by_shell(card, redirection):
    """Starts the daemon with its stderr somewhere else."""
    build_arguments = card.arguments
    binary = card.binary
    try:
        card.binary = "/bin/sh"
        card.start(["-c", 'exec "$0" "$@" ' + redirection, binary, *build_arguments])
    finally:
        card.binary = binary
    card.log = LogFile(os.devnull)


@pytest.mark.parametrize("redirection", ["2>&-", "<&- >&- 2>&-", "2>/dev/full"])
def test_nobody_takes_its_log(plant, bus, redirection):
    card, others, unit = plant(start=False)
    started_by_shell(card, redirection)
    right_again(card, others, unit, 30)
    vitals = Vitals(card)
    others["C"].silent = True
    time.sleep(4)
    others["C"].silent = False
    right_again(card, others, unit, AT_MOST)
    vitals.check(0)
    for line in (bus, card.module_line):
        assert not [h for h in line.noises() if b"->" in h.raw], "the log went out on a line"


def test_the_reader_of_its_log_goes_away(plant):
    card, others, unit = plant(start=False)
    path = os.path.join(card.sandbox.directory, "pipe")
    os.mkfifo(path)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    card.start(log_to=path)
    os.close(reader)
    card.log = LogFile(os.devnull)
    right_again(card, others, unit, 30)
    others["C"].silent = True
    card.wait_status(lambda s: "MODULE_3_LOST" in s["statusAlarms"], 20)
    others["C"].silent = False
    right_again(card, others, unit, AT_MOST)


def test_a_pipe_that_nobody_drains_stops_it_until_somebody_does(plant):
    card, others, unit = plant(start=False)
    path = os.path.join(card.sandbox.directory, "pipe")
    os.mkfifo(path)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
    card.start(log_to=path)
    card.log = LogFile(os.devnull)
    time.sleep(3)
    assert card.running
    assert card.program.cpu_seconds() < 0.3
    assert card.status() is None
    ends = threading.Event()

    def drain():
        while not ends.is_set():
            try:
                os.read(reader, 65536)
            except BlockingIOError:
                time.sleep(0.005)
    drainer = threading.Thread(target=drain)
    drainer.start()
    try:
        right_again(card, others, unit, AT_MOST)
    finally:
        ends.set()
        drainer.join()
        os.close(reader)
