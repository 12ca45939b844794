"""How long a slave listens."""

import time

import pytest

from sim.cabinet import Cabinet
from sim.records import ALARM_STATES, COMM_LOST


@pytest.mark.parametrize("card, wait", [("B", 66000), ("C", 72000), ("D", 78000)])
def test_first_wait_follows_the_address(gateway, card, wait):
    slave = gateway(card)
    slave.log.wait(r"  \(\w+\): UPSBOX:0X%02X attende per %d millisecondi  --- LastMaster:0xE0\n"
                   % (0xEA + ord(card) - ord("A"), wait))


def test_a_card_at_the_address_of_nobody_waits_without_a_word(gateway, bus):
    slave = gateway(module_id="7")
    slave.log.wait_message("Add Query BN to 0xED")
    mark = slave.log.mark()
    time.sleep(1.0)
    assert slave.log.lines(mark, level="War") == []
    assert slave.program.cpu_seconds() < 0.5


def test_thirty_seconds_after_the_neighbour(gateway, bus):
    """A slave next to the last master waits thirty seconds, tells it, and goes on listening."""
    master = bus.attach(Cabinet("A"))
    slave = gateway("B")
    slave.log.wait_message("attende per 66000")
    assert master.ask("B", "BN") is not None
    heard = time.monotonic()
    mark = slave.log.mark()
    time.sleep(29 - (time.monotonic() - heard))
    assert not [line for line in slave.log.lines(mark) if "MLINK" not in line.file], "nothing before the time is over"
    slave.log.wait(r"War \(\w+\): Errore ricezione: manca il carattere di inizio pacchetto!\n(?s:.*?)"
                   r"War \(\w+\): TIMEOUT: QGen -> Mitt:0x00 Dest:0x00 MainCmd:0x00 SubCmd:0x00 Len:0\n",
                   timeout=4, since=mark)
    assert 29.9 <= time.monotonic() - heard < 32
    assert ALARM_STATES[slave.tree().root.sys.UPSBox[0] & 7] == ALARM_STATES[COMM_LOST]
    assert master.ask("B", "BN") is not None, "it is still a slave, and still there"
    assert not [h for h in bus.frames(sender="B") if h.frame.dest != 0xFF]
