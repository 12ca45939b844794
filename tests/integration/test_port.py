"""The bus port: how the daemon sets it up, and what it does when the port goes away."""

import os
import termios
import time

import pytest

from sim.cabinet import Cabinet


def test_settings_of_the_port(bus, gateway):
    card = gateway("B")
    card.log.wait_message("attende per")
    iflag, oflag, cflag, lflag, ispeed, ospeed, cc = card.bus_port.settings()
    assert iflag == termios.BRKINT | termios.IGNPAR
    assert oflag == 0
    assert cflag & termios.CSIZE == termios.CS8
    assert cflag & (termios.CLOCAL | termios.CREAD) == termios.CLOCAL | termios.CREAD
    assert cflag & (termios.PARENB | termios.CSTOPB | termios.CRTSCTS) == 0
    assert lflag & termios.ISIG
    assert lflag & (termios.ICANON | termios.ECHO | termios.ECHOE) == 0
    assert ispeed == ospeed == termios.B9600
    for name in ("VINTR", "VQUIT", "VSTART", "VSTOP", "VSUSP", "VEOF", "VEOL", "VERASE", "VKILL"):
        assert cc[getattr(termios, name)] in (b"\0", 0), name


@pytest.mark.parametrize("name, lines", [
    ("/dev/ttyQX1", ["  (ComDev_Init): ttyQX1 in uso\n", "): ANTE - flags:", "): POST - flags:"]),
    ("/dev/ttyQX2", ["  (ComDev_Init): ttyQX2 in uso\n", "): ANTE - flags:", "): POST - flags:"]),
    ("/dev/ttyQX3", []),
    ("/dev/ttyQX4", ["  (ComDev_Init): ttyQX4 in uso\n", "): ANTE - flags:", "): POST - flags:"]),
    ("/dev/ttyS0", [" War (ComDev_Init): Nessuna ttyQX in uso!!!\n"]),
    ("/dev/ttyQX10", [" War (ComDev_Init): Nessuna ttyQX in uso!!!\n"]),
    ("/dev/tty_of_thirty_characters", [" War (ComDev_Init): Nessuna ttyQX in uso!!!\n"]),
])
def test_names_of_ports(bus, gateway, name, lines):
    master = bus.attach(Cabinet("A"))
    card = gateway("B", bus_name=name)
    card.log.wait_message("attende per")
    log = card.log.text()
    for line in lines:
        assert line in log
    # The port of the module, opened as well, is none that drives its direction.
    for word, others in (("in uso", 1), ("ANTE", 0), ("POST", 0)):
        assert log.count(word) == others + sum(line.count(word) for line in lines)
    assert master.ask("B", "BN") is not None


def test_a_slave_whose_port_goes_away_waits_and_takes_it_back(bus, gateway):
    master = bus.attach(Cabinet("A"))
    card = gateway("B")
    card.log.wait_message("attende per")
    assert master.ask("B", "BN") is not None
    mark, cpu = card.log.mark(), card.program.cpu_seconds()
    card.hang_up_bus()
    card.log.wait_message("Provo a resettare la seriale", since=mark)
    time.sleep(5)
    assert card.running
    assert card.program.cpu_seconds() - cpu < 0.5
    assert card.log.count("Provo a resettare la seriale", mark) <= 8
    assert card.log.text(mark).count("\n") < 120
    card.restore_bus()
    reply = None
    deadline = time.monotonic() + 10
    while reply is None and time.monotonic() < deadline:
        reply = master.ask("B", "BN", timeout=0.5)
    assert reply is not None


def test_a_master_whose_port_goes_away_keeps_its_pace(bus, cabinets, gateway):
    cabinets("BCD")
    card = gateway("A")
    card.wait_status()
    mark, cpu = card.log.mark(), card.program.cpu_seconds()
    card.hang_up_bus()
    card.log.wait_message("FALLITO Comando", since=mark, times=4)
    time.sleep(4)
    assert card.running
    assert card.program.cpu_seconds() - cpu < 0.5
    assert card.log.count("FALLITO Comando", mark) <= 24, "a quarter of a second after each"
    status = card.wait_status(lambda s: {"MODULE_2_LOST", "MODULE_3_LOST", "MODULE_4_LOST"} <= set(s["statusAlarms"]))
    assert status["UPSFAILURE"] is True


def test_descriptors_do_not_leak_while_the_port_is_away(bus, gateway):
    card = gateway("B")
    card.log.wait_message("attende per")
    before = len(os.listdir("/proc/%d/fd" % card.program.pid))
    card.hang_up_bus()
    card.log.wait_message("Provo a resettare la seriale", times=3, timeout=10)
    assert len(os.listdir("/proc/%d/fd" % card.program.pid)) <= before
