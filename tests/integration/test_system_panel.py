"""Commands to the whole system, written into the panel of the root node, on a master whose own module they go to."""

import pytest

from outside import (DELETE, MODULE_OFF, MODULE_ON, POLLED, RESTORE, SHUTDOWN, TEST_BATTERY, Outside, told,
                     wait_module)

NOT_NOW = "5"
COMMANDS = [(SHUTDOWN, "CS"), (RESTORE, "CR"), (DELETE, "CD")]


@pytest.fixture
def own(gateway, module):
    """Card A alone with its module, no master yet: the card, the module, a program beside the card."""
    card = gateway(mask="1000")
    unit = module(card, thinking=0.001)
    wait_module(card)
    return card, unit, Outside(card)


@pytest.fixture
def plant(own):
    """The same, the module being the master."""
    own[2].make_master("A")
    return own


def sends(plant, value, delays=(600, 60)):
    """Has a command carried out; returns what the module was asked beside the polling, and the place in the log at
    which that begins."""
    card, module, outside = plant
    mark, log = module.mark(), card.log.mark()
    outside.carry_out(value, *delays)
    return [a for a in module.queries(since=mark) if a.frame.command not in POLLED], log


def test_the_frame_of_each_command(plant):
    card = plant[0]
    for value, delays, command, data in [
            (SHUTDOWN, (600, 0), "CS", b"0258"), (DELETE, (600, 600), "CD", b""),
            (SHUTDOWN, (0xABCD, 1), "CS", b":;<="), (RESTORE, (0xE0F, 0x1234), "CR", b"0>0?1234"),
            (RESTORE, (0xFFFF, 0), "CR", b"????0000"), (DELETE, (0, 0), "CD", b""),
            (TEST_BATTERY, (600, 600), "TB", b"005"), (RESTORE, (0, 0), "CR", b"00000000")]:
        line = card.module_line.mark()
        sent, log = sends(plant, value, delays)
        assert told(sent) == [("A", "1", command, data)], "once, with the cabinet's letter as source"
        answers = [h.frame for h in card.module_line.frames(line, command=command) if h.frame.src == ord("1")]
        assert [chr(answer.dest) for answer in answers] == ["A"]
        assert not card.log.lines(log, level="Err")


def test_the_module_does_as_it_is_told(plant):
    card, module, outside = plant
    outside.carry_out(SHUTDOWN, 600)
    card.wait_status(lambda s: s["SHUTDOWNACTIVE"])
    outside.carry_out(DELETE)
    card.wait_status(lambda s: not s["SHUTDOWNACTIVE"])
    module.unit.test_seconds = 2.0
    outside.carry_out(TEST_BATTERY)
    card.wait_status(lambda s: s["TESTINPROGRESS"])
    card.wait_status(lambda s: not s["TESTINPROGRESS"])
    assert module.unit.on


def test_a_busy_module_is_asked_five_times(plant):
    card, module, _ = plant
    for value, command in COMMANDS:
        module.refuse(NOT_NOW, command)
        tries, log = sends(plant, value)
        assert [a.frame.command for a in tries] == [command] * 5
        assert len({a.raw for a in tries}) == 1, "the same frame each time"
        assert all(b.start - a.time >= 0.1 for a, b in zip(tries, tries[1:]))
        assert card.log.count("Errore errno:-5 nell'invio del comando %s al modulo 1@A\n" % command, log) == 5
        assert not card.log.find("ESCO", log)
    # Nothing is kept for later.
    module.clear_faults()
    mark = module.mark()
    module.wait("RS", since=mark, times=3)
    assert set(module.commands_asked(mark)) <= POLLED


def test_no_more_tries_than_it_takes(plant):
    card, module, _ = plant
    module.refuse(NOT_NOW, "CS", times=2)
    tries, log = sends(plant, SHUTDOWN)
    assert [a.frame.command for a in tries] == ["CS"] * 3
    assert module.unit.shutdown_at is not None
    assert card.log.count("Errore errno:-5", log) == 2


def test_any_other_refusal_is_final(plant):
    card, module, _ = plant
    for value, command in COMMANDS:
        for code in "12346789" if value == SHUTDOWN else "139":
            module.refuse(code, command, times=1)
            tries, log = sends(plant, value)
            assert [a.frame.command for a in tries] == [command]
            line = "Errore errno:-%s nell'invio del comando %s al modulo 1@A\n" % (code, command)
            assert card.log.count(line, log) == 1
            assert card.log.count("ESCO\n", log) == 1


def test_no_reply_is_final_too(plant):
    card, module, _ = plant
    module.fault("silent", "CS")
    tries, log = sends(plant, SHUTDOWN)
    assert [a.frame.command for a in tries] == ["CS"]
    assert card.log.count("FALLITO Comando CS", log) == 1
    assert card.log.count("Errore errno:-255 nell'invio del comando CS al modulo 1@A\n", log) == 1
    assert card.log.count("ESCO\n", log) == 1


def test_a_reply_that_is_judged_bad_counts_as_done(plant):
    """It leaves no error number behind."""
    card, module, _ = plant
    for kind in ("bad_check", "wrong_length", "wrong_source", "wrong_command"):
        module.fault(kind, "CS")
        tries, log = sends(plant, SHUTDOWN)
        assert [a.frame.command for a in tries] == ["CS"]
        assert card.log.count("FALLITO Comando CS", log) == 1
        assert not card.log.find("nell'invio del comando|ESCO", log)


def test_a_battery_test_is_asked_for_once(plant):
    card, module, _ = plant
    for code in (NOT_NOW, "3"):
        module.refuse(code, "TB", times=None if code == NOT_NOW else 1)
        tries, log = sends(plant, TEST_BATTERY)
        assert told(tries) == [("A", "1", "TB", b"005")]
        assert card.log.count("Errore errno:-%s nell'invio del comando TB al modulo 1@A\n" % code, log) == 1
        assert not card.log.find("ESCO", log)
        module.clear_faults()


def test_nothing_is_restored_while_the_power_is_wrong(plant):
    _, _, outside = plant

    def shown(wanted):
        return lambda tree: tree.root.sys.get("Ups.PMStatus.wrongPower") == wanted
    outside.mark("A", "PMStatus.wrongPower", shown=shown(1))
    assert sends(plant, RESTORE)[0] == []
    assert [a.frame.command for a in sends(plant, SHUTDOWN)[0]] == ["CS"], "the others go on"
    assert [a.frame.command for a in sends(plant, DELETE)[0]] == ["CD"]
    outside.mark("A", "PMStatus.wrongPower", 0, shown=shown(0))
    assert [a.frame.command for a in sends(plant, RESTORE)[0]] == ["CR"]


def test_what_the_system_does_not_know(plant):
    card = plant[0]
    for value in (MODULE_OFF, MODULE_ON, 6, 254):
        sent, log = sends(plant, value)
        assert sent == []
        lines = [(line.level, line.message) for line in card.log.lines(log) if "%d" % value in line.message
                 and line.file == "ThreadCABPPanel.cpp"]
        if value in (MODULE_OFF, MODULE_ON):
            assert lines == [("Err", "Comando (%d) non supportato!!" % value)]
        else:
            assert lines == [("War", "Valore non previsto (%d)" % value)]


def test_without_a_master_nothing_is_sent(own):
    card, module, outside = own
    for value in (SHUTDOWN, RESTORE, DELETE, TEST_BATTERY):
        sent, log = sends(own, value)
        assert sent == []
        assert not card.log.lines(log, level="Err")
    # Nor is anything kept until there is one.
    outside.make_master("A")
    mark = module.mark()
    module.wait("RS", since=mark, times=3)
    assert set(module.commands_asked(mark)) <= POLLED


def test_a_master_that_is_lost_is_none(plant):
    card, module, outside = plant
    module.silent = True
    card.wait_tree(lambda tree: not tree.cabinet("A").box.get("Ups.extStatus.isMaster"), 20)
    assert not card.tree().module("A").module.data.get("extStatus.isMaster"), "the card takes it away"
    sent, log = sends(plant, SHUTDOWN)
    assert sent == []
    assert not card.log.find("nell'invio|NON E` PRONTO", log)
    module.silent = False
    wait_module(card)
    assert sends(plant, SHUTDOWN)[0] == [], "nor is it the master again when it comes back"
    outside.make_master("A")
    assert [a.frame.command for a in sends(plant, SHUTDOWN)[0]] == ["CS"]
