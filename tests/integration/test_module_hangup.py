"""A module line whose device goes away."""

import pytest

from outside import wait_module

LOST = "Nessun modulo e' in buono stato di comunicazione\n"


@pytest.fixture
def own(gateway, module):
    """A card alone with its module."""
    card = gateway(mask="1000")
    unit = module(card, thinking=0.001)
    wait_module(card)
    return card, unit


def test_one_that_is_replaced_is_opened_again(own):
    card, unit = own
    log, old = card.log.mark(), card.module_port
    card.sandbox.unlink(card.module_name)
    card.restore_module()
    card.module_line.detach(old)
    card.module_line.loop.invoke(old.close)
    card.log.wait(r"Err \(MLINK_Rcv\): Errore \(-?\d+\) Provo a resettare la seriale\n", since=log)
    card.log.wait_message("Chiude il canale di comunicazione\n", since=log)
    unit.wait("RS", since=unit.mark(), times=3)
    unit.data.Vin = [221, 222, 223]
    card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.Vin == [221, 222, 223])
    assert card.log.count("Provo a resettare la seriale", log) == 1
    assert not card.log.find(LOST, log)


def test_one_that_is_gone_is_not_tried_in_haste(own):
    card, _ = own
    log = card.log.mark()
    card.hang_up_module()
    card.log.wait_message("Chiude il canale di comunicazione\n", since=log)
    card.log.wait_message(LOST, since=log)
    mark, cpu = card.log.mark(), card.program.cpu_seconds()
    card.log.wait_message(LOST, since=mark, times=4)
    # Three seconds and some with four queries in each; a machine under load makes fewer of them, never more.
    assert 6 <= card.log.count("FALLITO Comando", mark) <= 20
    assert card.program.cpu_seconds() - cpu < 1.0
    assert card.tree().cabinet("A").box.Ups.bits("PMStatus") == {"commError"}
    card.wait_status(lambda s: "MODULE_1_LOST" in s["statusAlarms"])
