"""Commands that wait in a card's queue for its module: when they are sent, and what becomes of those that fail. The
card is a slave; the simulated master of the bus hands the commands in."""

import pytest

from module_view import ROUND
from outside import POLLED, told, wait_module
from tunnel import TunnelCabinet

# Seconds of rest after a failure, and how much later than it should a machine under load may do a thing.
REST = 0.250
LATE = 0.500
SHUTDOWN = ("CS", b"0258")
TEXTS = {"1": "MainCmd:C non riconosciuto", "2": "SubCmd:S non riconosciuto", "3": "DataLength non corretta",
         "4": "CRC o CHKSUM non corretti", "5": "Non e' possibile eseguire il comando in questo momento!",
         "6": "Security PIN non corretto", "7": "Errore generico", "9": "Errore generico"}


@pytest.fixture
def plant(bus, gateway, module):
    """The master of the bus, the card B, its module."""
    master = bus.attach(TunnelCabinet("A"))
    card = gateway("B", mask="1100")
    unit = module(card, thinking=0.002)
    wait_module(card)
    return master, card, unit


def commands(unit, since):
    """What was asked beside the polling."""
    return [query for query in unit.queries(since=since) if query.frame.command not in POLLED]


def order(master, command, data=b""):
    """Hands a command in; the card acknowledges it at once."""
    assert master.ask_module("B", command, data) is not None


def settled(unit, rounds=3):
    """Waits until the polling has gone on for some rounds."""
    unit.wait("RS", since=unit.mark(), times=rounds)


def pauses(unit, queries):
    """Seconds from the module's answer to each of the queries but the last, to the next query of any kind."""
    sent = {answer.number: answer.time for answer in list(unit.answered)}
    starts = {query.number: query.start for query in unit.queries(since=queries[0].number)}
    return [starts[query.number + 1] - sent[query.number] for query in queries[:-1]]


def polling_is_whole(unit, since):
    polled = [name for name in unit.commands_asked(since) if name in POLLED]
    begin = ROUND.index(polled[0])
    return polled == [ROUND[(begin + i) % 8] for i in range(len(polled))]


def test_a_command_goes_before_the_polling(plant):
    """All that have been handed in while an exchange was going on leave together, in the order of their coming."""
    master, _, unit = plant
    mark = unit.mark()
    unit.fault("silent", "DE")
    unit.wait("DE", since=mark)
    handed = [("CD", b""), SHUTDOWN, ("TB", b"005"), ("CS", b"0001"), ("CP", b"01"), ("DC", b"1")]
    for command, data in handed:
        order(master, command, data)
    settled(unit)
    sent = commands(unit, mark)
    assert told(sent) == [("B", "1", command, data) for command, data in handed]
    assert [query.number for query in sent] == list(range(sent[0].number, sent[0].number + len(handed)))
    asked = unit.commands_asked(mark)
    place = asked.index("CD")
    assert (asked[place - 1], asked[place + len(handed)]) == ("DE", "DS"), "before the next query of the round"
    assert polling_is_whole(unit, mark)


def test_one_that_waits_already_takes_in_its_like(plant):
    master, card, unit = plant
    mark, log = unit.mark(), card.log.mark()
    unit.fault("silent", "DE")
    unit.wait("DE", since=mark)
    for command, data in (SHUTDOWN, SHUTDOWN, ("CS", b"0001"), SHUTDOWN, ("CD", b""), ("CD", b"")):
        order(master, command, data)
    settled(unit)
    assert [(q.frame.command, q.frame.data) for q in commands(unit, mark)] == [SHUTDOWN, ("CS", b"0001"), ("CD", b"")]
    assert card.log.count("Add AsyncQuery CS to 0x31\n", log) == 2
    assert card.log.count("Add AsyncQuery CD to 0x31\n", log) == 1


def test_while_it_is_busy_it_is_asked_again_at_once(plant):
    master, card, unit = plant
    mark, log = unit.mark(), card.log.mark()
    unit.refuse("5", "CS", times=20)
    order(master, *SHUTDOWN)
    unit.wait("CS", since=mark, times=21)
    settled(unit)
    sent = commands(unit, mark)
    assert len(sent) == 21
    assert sent[-1].number - sent[0].number == 20, "the polling waits meanwhile"
    assert sorted(pauses(unit, sent))[10] < 0.050
    assert card.log.count(r"Err \(MLINK_Decode\): %s\n" % TEXTS["5"], log) == 20
    # Being busy is no failure: the module has stayed good.
    assert not card.log.find("Nessun modulo e' in buono stato", log)
    assert card.tree().cabinet("B").box.Ups.timestamp
    assert polling_is_whole(unit, mark)


@pytest.mark.parametrize("code", "127")
def test_a_refusal_that_ends_it(plant, code):
    master, card, unit = plant
    # The first failure leaves the module good and only costs a rest; from the second on the refusal ends the command.
    mark, log = unit.mark(), card.log.mark()
    unit.refuse(code, "CS", times=None)
    order(master, *SHUTDOWN)
    settled(unit)
    sent = commands(unit, mark)
    assert len(sent) == 2
    assert sent[1].number == sent[0].number + 1
    assert REST - 0.02 <= pauses(unit, sent)[0] < REST + LATE
    assert card.log.count(r"Err \(MLINK_Decode\): %s\n" % TEXTS[code], log) == 2
    assert card.log.count("FALLITO Comando CS inviato alla scheda 0x31\n", log) == 2
    assert polling_is_whole(unit, mark)


@pytest.mark.parametrize("code", "3469")
def test_a_refusal_that_does_not(plant, code):
    master, card, unit = plant
    mark, log = unit.mark(), card.log.mark()
    unit.refuse(code, "CS", times=8)
    order(master, *SHUTDOWN)
    unit.wait("CS", since=mark, times=9)
    settled(unit)
    sent = commands(unit, mark)
    assert len(sent) == 9 and sent[-1].number - sent[0].number == 8
    # The first failure leaves the module good, and costs a rest; from the second on it is tried again at once.
    times = pauses(unit, sent)
    assert REST - 0.02 <= times[0] < REST + LATE
    assert sorted(times[1:])[3] < 0.050
    assert card.log.count(r"Err \(MLINK_Decode\): %s\n" % TEXTS[code], log) == 8
    assert polling_is_whole(unit, mark)


@pytest.mark.parametrize("fault", ["bad_check", "wrong_source", "wrong_command", "not_swapped"])
def test_an_answer_that_is_none(plant, fault):
    master, _, unit = plant
    mark = unit.mark()
    unit.fault(fault, "CS", times=3)
    order(master, *SHUTDOWN)
    unit.wait("CS", since=mark, times=4)
    settled(unit)
    sent = commands(unit, mark)
    assert len(sent) == 4 and sent[-1].number - sent[0].number == 3
    assert REST - 0.02 <= pauses(unit, sent)[0] < REST + LATE
    assert unit.unit.shutdown_at is not None


def test_a_silent_module_is_asked_until_it_answers(plant):
    master, card, unit = plant
    mark, log = unit.mark(), card.log.mark()
    unit.fault("silent", "CS", times=3)
    order(master, *SHUTDOWN)
    unit.wait("CS", since=mark, times=4, timeout=10)
    settled(unit)
    sent = commands(unit, mark)
    gaps = [later.start - earlier.time for earlier, later in zip(sent, sent[1:])]
    assert 0.95 + REST < gaps[0] < 1.0 + REST + LATE
    assert 0.95 < min(gaps[1:]) < 1.0 + REST, "no rest from the second failure on"
    assert sent[-1].number - sent[0].number == 3
    assert card.log.count("manca il carattere di inizio pacchetto!\n", log) == 3
    # What it was lost for is over before anything is summed up.
    assert not card.log.find("Nessun modulo e' in buono stato", log)


@pytest.mark.parametrize("fault", ["silent", "bad_check", "3", "4", "6", "1"])
def test_an_SV_is_given_up_once_the_module_is_no_longer_good(plant, fault):
    """For all other commands only some refusals end it."""
    master, _, unit = plant
    mark = unit.mark()
    if fault.isdigit():
        unit.refuse(fault, "SV")
    else:
        unit.fault(fault, "SV", times=None)
    order(master, "SV", b"12")
    unit.wait("SV", since=mark, times=2)
    settled(unit)
    sent = commands(unit, mark)
    assert len(sent) == 2 and sent[1].number == sent[0].number + 1
    assert polling_is_whole(unit, mark)


def test_an_SV_that_is_refused_as_busy_stays(plant):
    master, _, unit = plant
    mark = unit.mark()
    unit.refuse("5", "SV", times=4)
    order(master, "SV", b"12")
    unit.wait("SV", since=mark, times=5)
    settled(unit)
    assert len(commands(unit, mark)) == 5
    assert unit.unit.settings["SV"] == b"12"


def test_one_that_fails_holds_up_those_behind_it(plant):
    master, _, unit = plant
    mark = unit.mark()
    unit.refuse("5", "CS")
    order(master, *SHUTDOWN)
    order(master, "TB", b"005")
    order(master, "CD")
    unit.wait("CS", since=mark, times=50)
    assert {query.frame.command for query in commands(unit, mark)} == {"CS"}
    unit.clear_faults()
    unit.wait("CD", since=mark)
    settled(unit)
    names = [query.frame.command for query in commands(unit, mark)]
    assert names[-2:] == ["TB", "CD"] and set(names[:-2]) == {"CS"}
    assert polling_is_whole(unit, mark)


def test_a_lost_module_gets_its_commands_when_it_is_back(plant):
    master, card, unit = plant
    unit.silent = True
    card.wait_tree(lambda tree: not tree.cabinet("B").box.Ups.timestamp)
    mark = unit.mark()
    order(master, "DC", b"0")
    unit.wait("DC", since=mark, times=3, timeout=10)
    unit.silent = False
    card.wait_tree(lambda tree: tree.cabinet("B").box.Ups.timestamp
                   and not tree.module("B").module.data.get("status.Output_Powered"))
    settled(unit)
    sent = commands(unit, mark)
    assert {query.frame.command for query in sent} == {"DC"}
    gaps = [later.start - earlier.time for earlier, later in zip(sent, sent[1:])]
    assert 0.95 < min(gaps) < 1.0 + REST, "no rest between, as it wasn't good to begin with"
    assert not unit.unit.on
