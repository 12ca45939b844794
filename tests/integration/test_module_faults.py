"""A bad module line: each way in which an answer can be wrong, what the card logs of it, and that it goes on."""

import pytest

from spoiled import FAILED, FUNCTIONS, REST, SPOILED, USUAL, SpoiledLine

from sim import mlink

REFUSALS = {"1": "MainCmd:R non riconosciuto", "2": "SubCmd:S non riconosciuto", "3": "DataLength non corretta",
            "4": "CRC o CHKSUM non corretti", "5": "Non e' possibile eseguire il comando in questo momento!",
            "6": "Security PIN non corretto", "7": "Errore generico", "0": "Errore generico", "Z": "Errore generico"}


@pytest.fixture
def own(gateway, module):
    card = gateway(mask="1000")
    unit = module(card, thinking=0.020)
    unit.wait("RS", since=0)
    return SpoiledLine(card, unit)


@pytest.mark.parametrize("code", REFUSALS)
def test_refusals(own, code):
    lines, taken, seconds = own.spoil("refuse", code=code)
    assert lines == [("War", "Errore Comando"), ("Err", REFUSALS[code]), FAILED]
    assert not taken and REST - 0.02 <= seconds < 1.0


def test_a_refusal_is_heeded_whatever_its_check(own):
    lines, taken, _ = own.spoil("refuse", code="5", flip=0x1111)
    assert lines == [("War", "Errore Comando"), ("Err", REFUSALS["5"]), FAILED]
    assert not taken


class TestAnswersThatAreNone:
    def test_wrong_check(self, own):
        log = own.card.log.mark()
        lines, taken, seconds = own.spoil("bad_check", flip=0x0101)
        raw = mlink.encode("1", " ", "RS", _spoiled(own).encode("RS"))
        right = mlink.number(raw[-5:-1])
        wrong = bytes(raw[:-5]) + mlink.nibbles(right ^ 0x0101, 4) + raw[-1:]
        assert lines == [("War", "Errore Codice di Controllo"),
                         ("War", "Calcolato:0x%04X Ricevuto:0x%04X" % (right, right ^ 0x0101)),
                         ("War", "datalen:58"), ("", "replypck:"),
                         ("War", "FINE STAMPE Errore Codice di Controllo"), FAILED]
        # The frame itself stands between, without a prefix.
        assert "replypck:\n" + "".join("0x%02X " % byte for byte in wrong) + "\n" in own.card.log.text(log)
        assert not taken and REST - 0.02 <= seconds < 1.0

    def test_wrong_addresses(self, own):
        text = "Errore Indirizzi Query Src:0x20 Dest:0x31     Reply Src:0x%02X Dest:0x%02X "
        for kind, options, addresses in (("wrong_source", {"source": "5"}, (0x35, 0x20)),
                                         ("wrong_dest", {"dest": "D"}, (0x31, 0x44)),
                                         ("not_swapped", {}, (0x20, 0x31))):
            lines, taken, seconds = own.spoil(kind, **options)
            assert lines == [("War", text % addresses), FAILED], kind
            assert not taken and REST - 0.02 <= seconds < 1.0

    @pytest.mark.parametrize("command", ["RZ", "RE", "XS"])
    def test_wrong_command(self, own, command):
        lines, taken, _ = own.spoil("wrong_command", instead=command)
        assert lines == [("War", "Errore Comando"), ("Err", "Formato non riconosciuto!"), FAILED]
        assert not taken

    def test_good_but_too_short(self, own):
        lines, taken, _ = own.spoil("wrong_length", by=-1)
        assert lines == [("Err", "!!datalen mismatch: expected:58 received:57!!"), FAILED]
        assert not taken
        lines, taken, _ = own.spoil("wrong_length", by=-58)
        assert lines == [("Err", "!!datalen mismatch: expected:58 received:0!!"), FAILED]
        assert not taken

    @pytest.mark.parametrize("kind, options, length", [
        ("wrong_length", {"by": 1}, 59), ("wrong_length", {"by": 100}, 158), ("false_length", {"by": 1}, 59),
        ("false_length", {"to": 255}, 255), ("false_length", {"by": -1}, 57), ("false_length", {"to": 0}, 0)])
    def test_what_it_says_of_its_length_is_not_so(self, own, kind, options, length):
        """No more is read than was asked for; what comes behind is thrown away before the next query."""
        lines, taken, seconds = own.spoil(kind, **options)
        assert lines[0] == ("War", "Errore Codice di Controllo")
        assert lines[2:] == [("War", "datalen:%d" % length), ("", "replypck:"),
                             ("War", "FINE STAMPE Errore Codice di Controllo"), FAILED]
        assert not taken and REST - 0.02 <= seconds < 1.0


class TestAnswersThatAreGoodAfterAll:
    @pytest.mark.parametrize("kind, options", [
        ("bad_etx", {"byte": 0x00}), ("bad_etx", {"byte": 0x02}), ("twice", {}),
        ("garbage", {"data": b"\x00\x55\xAA\xFF"}), ("garbage", {"data": b"\x03" * 200}),
        ("garbage", {"data": b"\xFF", "pause": 0.7}), ("split", {"at": 7}), ("split", {"at": (1, 4, 7, 30, 69)})])
    def test_taken(self, own, kind, options):
        lines, taken, seconds = own.spoil(kind, **options)
        assert lines == []
        assert taken
        assert seconds < REST or kind in ("split", "garbage")

    def test_a_start_byte_in_the_garbage_costs_the_answer(self, own):
        """What follows it is taken for the head of a frame."""
        lines, taken, _ = own.spoil("garbage", data=b"\x02")
        assert lines and lines[-1] == FAILED
        assert not taken


def test_bytes_between_the_exchanges_are_thrown_away(own):
    log, mark = own.card.log.mark(), own.unit.mark()
    for command in ("DE", "GN", "RC"):
        own.unit.wait(command, since=own.unit.mark())
        own.unit.fault("split", command, at=1, pause=0)
        own.unit.fault("twice", command)
    own.unit.wait("RS", since=own.unit.mark(), times=3)
    assert not [line for line in own.card.log.lines(log) if line.function in FUNCTIONS]
    asked = own.unit.commands_asked(mark)
    assert len(asked) > 20


def test_everything_at_once_and_the_card_lives_on(own):
    card, unit = own.card, own.unit
    kinds = (("bad_check", {}), ("wrong_source", {}), ("garbage", {}), ("split", {"pause": 0.05}), ("twice", {}),
             ("false_length", {"to": 255}), ("wrong_length", {"by": 30}), ("refuse", {"code": "6"}), ("bad_etx", {}),
             ("raw", {"data": bytes(range(256))}), ("wrong_command", {}), ("not_swapped", {}))
    for kind, options in kinds:
        unit.fault(kind, **options)
    mark = unit.mark()
    unit.wait("RS", since=mark, times=5, timeout=30)
    card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.timestamp
                   and tree.module("A").module.data.Vin == [USUAL] * 3)
    assert card.running
    card.wait_status(lambda s: "MODULE_1_LOST" not in s["statusAlarms"])


def _spoiled(own):
    """What a spoiled answer tells."""
    told = own.unit.data
    told.Vin = [SPOILED] * 3
    return told
