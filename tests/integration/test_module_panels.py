"""Commands to single modules, written into the panels of their nodes: the own module's and another cabinet's."""

import pytest

from outside import DELETE, MODULE_OFF, MODULE_ON, POLLED, SHUTDOWN, Outside, told, wait_module

NOT_NOW = "5"


def start(gateway, module, letter="A", mask="1100"):
    card = gateway(letter, mask=mask)
    unit = module(card, thinking=0.001)
    wait_module(card)
    return card, unit, Outside(card)


@pytest.fixture
def own(gateway, module):
    """Card A of two cabinets with its module; nobody is the master, and B has never been heard."""
    return start(gateway, module)


def sends(own, value, target="A"):
    """Has a command carried out; returns what the own module was asked beside the polling, and the place in the log
    at which that begins."""
    card, module, outside = own
    mark, log = module.mark(), card.log.mark()
    outside.carry_out(value, module=target)
    return [a for a in module.queries(since=mark) if a.frame.command not in POLLED], log


def test_off_and_on(own):
    card, module, _ = own
    for value, data in ((MODULE_OFF, b"0"), (MODULE_ON, b"1"), (MODULE_OFF, b"0")):
        sent, log = sends(own, value)
        assert told(sent) == [("A", "1", "DC", data)]
        card.wait_tree(lambda tree: tree.cabinet("A").box.get("Ups.status.Output_Powered") == (data == b"1"))
        assert module.unit.on == (data == b"1")
        assert not card.log.find("nell'invio del comando D|non accodato", log)


def test_a_slave_has_them_too(gateway, module):
    own = start(gateway, module, "B")
    assert told(sends(own, MODULE_OFF, "B")[0]) == [("B", "1", "DC", b"0")]
    assert not own[1].unit.on


def test_wrong_power_keeps_a_module_from_being_turned_on(own):
    _, module, outside = own
    outside.mark("A", "PMStatus.wrongPower")
    assert told(sends(own, MODULE_OFF)[0]) == [("A", "1", "DC", b"0")]
    assert sends(own, MODULE_ON)[0] == []
    assert not module.unit.on
    outside.mark("A", "PMStatus.wrongPower", 0)
    assert told(sends(own, MODULE_ON)[0]) == [("A", "1", "DC", b"1")]


def test_any_nominal_power_is_taken(gateway, module):
    """Without a nominal power of its own to compare with, the card takes any: only the outside sets the mark."""
    card = gateway(mask="1000")
    unit = module(card, thinking=0.001)
    unit.data.W = 12345
    wait_module(card)
    assert not card.tree().module("A").module.data.get("PMStatus.wrongPower")
    assert told(sends((card, unit, Outside(card)), MODULE_ON)[0]) == [("A", "1", "DC", b"1")]


def test_values_that_are_no_command_of_a_module(own):
    card = own[0]
    for value in (0, 1, 2, 3, 6, 100, 254):
        sent, log = sends(own, value)
        assert sent == []
        lines = [(line.level, line.message) for line in card.log.lines(log) if "(%d)" % value in line.message]
        if value < MODULE_OFF:
            assert lines == [("Err", "Comando (%d) non supportato!!" % value)]
        else:
            assert lines == [("War", "Valore non previsto (%d)" % value)]


def test_a_refusal_is_told_and_final(own):
    card, module, _ = own
    for value, what in ((MODULE_OFF, "spegnimento"), (MODULE_ON, "accensione")):
        for code in (NOT_NOW, "2"):
            module.refuse(code, "DC", times=1)
            sent, log = sends(own, value)
            assert len(sent) == 1
            assert card.log.count(r"Err \(Send\): Errore nell'invio del comando DC al modulo 1@A\n", log) == 1
            assert card.log.count("Comando %s non accodato!\n" % what, log) == 1


def test_a_lost_module_gets_none(own):
    card, module, _ = own
    module.silent = True
    card.wait_tree(lambda tree: not tree.cabinet("A").box.Ups.timestamp, 20)
    sent, log = sends(own, MODULE_OFF)
    assert sent == []
    assert card.log.count(r"Err \(Send\): IL MODULO NON E` PRONTO A RICEVERE IL COMANDO!!!!\n", log) == 1
    assert card.log.count("Comando spegnimento non accodato!\n", log) == 1


def test_a_cabinet_that_was_never_heard_gets_none(own, bus):
    card, mark = own[0], bus.mark()
    for value, what in ((MODULE_OFF, "spegnimento"), (MODULE_ON, "accensione")):
        sent, log = sends(own, value, "B")
        assert sent == []
        assert card.log.count("IL MODULO NON E` PRONTO A RICEVERE IL COMANDO!!!!\n", log) == 1
        assert card.log.count("Comando %s non accodato!\n" % what, log) == 1
    assert not bus.frames(mark, command="QT")


def test_all_panels_are_looked_at_in_one_run(own):
    card, module, outside = own
    mark, log = module.mark(), card.log.mark()
    outside.order(SHUTDOWN, module="B")
    outside.order(DELETE, module="A")
    outside.wait_taken("B")
    outside.wait_taken("A")
    assert card.log.count(r"Comando \(0\) non supportato", log) == 1
    assert card.log.count(r"Comando \(2\) non supportato", log) == 1
    assert set(module.commands_asked(mark)) <= POLLED
