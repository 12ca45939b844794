"""Answers of a module that come too late, in part or not at all: what the card logs of them, and that it goes on."""

import pytest

from spoiled import FAILED, NO_START, REST, SpoiledLine


@pytest.fixture
def own(gateway, module):
    card = gateway(mask="1000")
    unit = module(card, thinking=0.020)
    unit.wait("RS", since=0)
    return SpoiledLine(card, unit)


def test_silence(own):
    lines, taken, seconds = own.spoil("silent")
    assert lines == [NO_START, FAILED]
    assert not taken and 1.0 + REST - 0.02 <= seconds < 2.0


def test_one_that_comes_in_the_rest_is_thrown_away(own):
    lines, taken, seconds = own.spoil("late", delay=1.08)
    assert lines == [NO_START, FAILED]
    assert not taken and 1.0 + REST - 0.02 <= seconds < 2.0


def test_one_that_comes_as_the_answer_to_another_query(own):
    """It is taken for the answer to a query that goes out meanwhile, or is thrown away before one."""
    lines, taken, _ = own.spoil("late", delay=1.0 + REST + 0.020 + 0.010)
    assert lines[:2] == [NO_START, FAILED]
    assert not taken
    assert {message for _, message in lines[2:] if "FALLITO" not in message} <= {
        "Errore Comando", "Formato non riconosciuto!", "Errore Codice di Controllo"}


NO_LENGTH = ("Err", "Errore ricezione: non e' presente il campo lenght!")
NOT_ALL = [("Err", "Errore ricezione: non sono presenti tutti i byte descritti in lenght!"),
           ("Err", " codice d'errore:-9 attesi:63")]


@pytest.mark.parametrize("keep, lines", [
    (1, [NO_LENGTH]),
    (6, [("War", "attesi:6 effettivi:5"), ("", "rcvBuff"), NO_LENGTH]),
    (7, NOT_ALL),
    (69, [("War", "attesi:63 effettivi:62"), ("", "rcvBuff"), *NOT_ALL])])
def test_one_that_breaks_off(own, keep, lines):
    found, taken, seconds = own.spoil("truncated", keep=keep)
    assert found == [*lines, FAILED]
    assert not taken and 5.0 + REST - 0.02 <= seconds < 6.0


def test_garbage_alone(own):
    """Without a start byte in it: the wait for one goes on for a second after the last byte."""
    lines, taken, seconds = own.spoil("raw", data=b"\x00\x55\xAA\xFF" * 5)
    assert lines == [NO_START, FAILED]
    assert not taken and 1.0 + REST - 0.02 <= seconds < 2.0
