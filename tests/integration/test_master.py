"""The card at 0xEA as master of the bus: the walk, the pauses, the counting of errors, the way out and back."""

import time

import pytest

from sim import frames
from sim.records import StatusReply, plant_config

ROUND = [("A", "EA>EA BN 0"), ("A", "EA>FF BN 20"), ("A", "EA>EA BS 0"), ("A", "EA>FF BS 268"),
         ("A", "EA>EB BN 0"), ("B", "EB>FF BN 20"), ("A", "EA>EB BS 0"), ("B", "EB>FF BS 268"),
         ("A", "EA>EC BN 0"), ("C", "EC>FF BN 20"), ("A", "EA>EC BS 0"), ("C", "EC>FF BS 268"),
         ("A", "EA>ED BN 0"), ("D", "ED>FF BN 20"), ("A", "EA>ED BS 0"), ("D", "ED>FF BS 268")]
LISTENS = "UPSBOX:0XEA attende per 60000 millisecondi  --- LastMaster:0xE0"


def told(heard):
    frame = heard.frame
    return heard.sender, "%02X>%02X %s %d" % (frame.src, frame.dest, frame.command, len(frame.data))


def wait_rounds(bus, rounds, since=0, timeout=15):
    """Waits until the master has begun so many rounds; the frames from the first beginning on."""
    def begins():
        return [h for h in bus.frames(since, command="BN") if (h.frame.src, h.frame.dest) == (0xEA, 0xEA)
                and not h.frame.data]
    bus.wait(lambda h: len(begins()) > rounds, timeout, since)
    return bus.frames(begins()[0].number)


def test_walks_the_cabinets_in_order_and_itself_first(bus, cabinets, gateway):
    cabinets("BCD")
    gateway()
    heard = wait_rounds(bus, 3)
    assert [told(h) for h in heard[:48]] == ROUND * 3
    assert not bus.noises()


@pytest.mark.parametrize("mask, order", [("1000", "A"), ("1010", "AC"), ("1101", "ABD")])
def test_walks_only_the_cabinets_of_the_plant(bus, cabinets, gateway, mask, order):
    cabinets("BCD")
    gateway(mask=mask)
    expected = [step for step in ROUND if step[0] in order and
                frames.letter(int(step[1][3:5], 16) if step[1][3:5] != "FF" else int(step[1][:2], 16)) in order]
    heard = wait_rounds(bus, 3)
    assert [told(h) for h in heard[:3 * len(expected)]] == expected * 3


def test_pauses_around_its_own_answer(bus, cabinets, gateway):
    cabinets("BCD")
    card = gateway(trace=True)
    wait_rounds(bus, 4)
    writes = card.writes()
    assert [size for _, size in writes[:20]] == [10, 30, 10, 278] + [10] * 6 + [10, 30, 10, 278] + [10] * 6
    for (query, _), (reply, size), (following, _) in zip(writes, writes[1:], writes[2:]):
        if size > 10:
            assert 0.003 <= reply - query
            assert 0.005 <= following - reply
    shortest = min(b - a for (a, _), (b, size) in zip(writes, writes[1:]) if size > 10)
    assert shortest < 0.010


def test_a_paced_round(paced_bus, cabinets, make_gateway):
    cabinets("BCD", on=paced_bus)
    card = make_gateway(paced_bus, "A", trace=True)
    heard = wait_rounds(paced_bus, 2)
    assert [told(h) for h in heard[:16]] == ROUND
    assert not paced_bus.collisions
    writes = card.writes()
    for (query, _), (reply, size), (following, _) in zip(writes, writes[1:], writes[2:]):
        if size > 10:  # its own answer: each side is out on the wire before the pause begins
            assert reply - query >= 10 / 960 + 0.003
            assert following - reply >= size / 960 + 0.005
    begins = [h.start for h in heard if told(h) == ROUND[0]]
    assert begins[1] - begins[0] >= 1312 / 960


def test_a_failed_query_costs_a_quarter_of_a_second(bus, cabinets, gateway):
    others = cabinets("BCD")
    others["C"].fault("bad_crc", "BN", times=1)
    card = gateway()
    card.log.wait_message("FALLITO Comando BN inviato alla scheda 0xEC")
    heard = wait_rounds(bus, 2)
    failed = next(i for i, h in enumerate(heard) if h.sender == "A" and told(h)[1] == "EA>EC BN 0")
    following = next(h for h in heard[failed + 1:] if h.sender == "A")
    assert told(following)[1] == "EA>EC BS 0", "a failed query is not repeated within the round"
    assert 0.250 <= following.start - heard[failed].start < 0.400


def test_one_failure_is_no_loss(bus, cabinets, gateway):
    others = cabinets("BCD")
    card = gateway()
    wait_rounds(bus, 1)
    others["B"].fault("bad_crc", "BS", times=1)
    mark = bus.mark()
    card.log.wait_message("FALLITO Comando BS inviato alla scheda 0xEB")
    wait_rounds(bus, 2, mark)
    assert "MODULE_2_LOST" not in card.status()["statusAlarms"]
    assert not card.tree().cabinet("B").box.get("MCUMUStatus.commErrorMCU")
    assert card.log.count("BREAK") == 0


# What the answer looks like, what the log tells, whether the line counts as disturbed.
BAD_ANSWERS = [
    ("bad_crc", {}, r"War \(\w+\): Errore Codice di Controllo\n", True),
    ("wrong_dest", {"dest": 0xEC}, r"War \(\w+\): Errore Indirizzi Query Src:0xEA Dest:0xEB     "
                                   r"Reply Src:0xEB Dest:0xEC \n", True),
    ("wrong_length", {"by": 1}, r"FALLITO Comando BN", True),
    ("wrong_length", {"by": -1}, r"RealDatalen:19 expectedReplyLen:30\n", False),
    ("truncated", {"keep": 20}, r"Errore ricezione: non sono presenti tutti i byte descritti in lenght!\n"
                                r"(?s:.*?)Len:20 MainCmd:0x42 SubCmd:0x4E\n", False),
]


@pytest.mark.parametrize("kind, options, line, disturbed", BAD_ANSWERS)
def test_second_failure_in_a_row_is_a_loss(bus, cabinets, gateway, kind, options, line, disturbed):
    others = cabinets("BCD")
    card = gateway()
    wait_rounds(bus, 2)
    mark = card.log.mark()
    others["B"].fault(kind, times=None, **options)
    card.log.wait_message("FALLITO Comando BN inviato alla scheda 0xEB", 15, mark)
    assert card.log.find(line, mark)
    card.log.wait_message("FALLITO Comando BS inviato alla scheda 0xEB", 15, mark)
    card.wait_status(lambda s: "MODULE_2_LOST" in s["statusAlarms"])
    if disturbed:
        card.log.wait(r" \(\w+\): Invio del carattere BREAK!!!\n", since=mark)
    # Whether with a BREAK or without, it stays the master and the others stay well.
    wait_rounds(bus, 2, bus.mark(), timeout=40)
    assert bool(card.log.count("BREAK", mark)) == disturbed
    assert card.log.count("cntBreakDetect") == 0
    assert "MODULE_3_LOST" not in card.status()["statusAlarms"]
    others["B"].clear_faults()
    card.wait_status(lambda s: "MODULE_2_LOST" not in s["statusAlarms"], timeout=20)


def test_an_order_of_good_and_bad_answers_is_no_loss(bus, cabinets, gateway):
    others = cabinets("BCD")
    card = gateway()
    card.wait_status(lambda s: "MODULE_2_LOST" not in s["statusAlarms"])
    mark = card.log.mark()
    for _ in range(4):
        others["B"].fault("bad_crc", "BS", times=1)
        card.log.wait_message("FALLITO Comando BS inviato alla scheda 0xEB", since=mark)
        mark = card.log.mark()
        assert "MODULE_2_LOST" not in card.status()["statusAlarms"]
    assert card.log.count("BREAK") == 0


@pytest.mark.parametrize("kind, options", [
    ("garbage", {"data": b"\x00\x55\xAA\xFF"}), ("garbage", {"data": b"\x02\x55\x02\xFF\x11"}),
    ("split", {"at": 5, "pause": 0.5}), ("split", {"at": 25, "pause": 1.0}), ("late", {"delay": 2.0}),
    ("bad_etx", {})])
def test_a_disturbed_answer_that_still_counts(bus, cabinets, gateway, kind, options):
    others = cabinets("BCD")
    others["B"].fault(kind, "BN", **options)
    others["B"].nominal.W = 12345
    card = gateway()
    card.wait_tree(lambda tree: tree.cabinet("B").nominal.W == 12345)
    assert card.log.count("FALLITO Comando B") == 0


def test_a_silent_cabinet_costs_three_seconds_a_query(bus, cabinets, gateway):
    others = cabinets("BCD")
    card = gateway()
    card.wait_status(lambda s: "MODULE_2_LOST" not in s["statusAlarms"])
    # The next query to fail is the nominal one: its answer has just been heard.
    bus.wait("B BS")
    others["B"].silent = True
    query = bus.wait(lambda h: h.frame and h.frame.dest == 0xEB)
    following = bus.wait(lambda h: h.frame and h.frame.dest == 0xEB, since=query.number + 1)
    # The bus notes a write a little after it was made, so that the distance may look shorter.
    assert 3.24 <= following.start - query.start < 3.6
    assert card.log.count("manca il carattere di inizio pacchetto della risposta timeout:3000!") == 1
    assert "MODULE_2_LOST" not in card.status()["statusAlarms"]
    status = card.wait_status(lambda s: "MODULE_2_LOST" in s["statusAlarms"])
    assert status["UPSFAILURE"] is True
    assert card.log.count("BREAK") == 0, "silence is no disturbed line"


def test_answers_are_stored_with_the_time_of_reception(bus, cabinets, gateway):
    others = cabinets("BCD")
    for i, letter in enumerate("BCD"):
        cabinet = others[letter]
        cabinet.status.Ups.Vin = [200 + i, 210 + i, 220 + i]
        cabinet.status.timestamp = cabinet.status.Ups.timestamp = 1
        cabinet.nominal.timestamp = 99 + i
        cabinet.nominal.VA = 1000 * (i + 1)
    card = gateway(start=False)
    card.clock.freeze(1700000000)
    card.start()
    wait_rounds(bus, 2)
    tree = card.tree()
    for letter in "BCD":
        cabinet, node = others[letter], tree.cabinet(letter)
        expected = cabinet.status.copy()
        expected.timestamp = expected.Ups.timestamp = 1700000000
        # What the system aggregation says of the cabinet is the card's own.
        expected.MCUMUStatus = node.box.MCUMUStatus
        assert node.box.differences(expected) == []
        assert node.nominal == cabinet.nominal


def test_a_break_makes_it_a_slave(bus, cabinets, gateway):
    others = cabinets("BCD")
    card = gateway()
    wait_rounds(bus, 2)
    card.interrupt()
    card.log.wait(r" \(\w+\): cntBreakDetect:1\n")
    card.log.wait_message(LISTENS)
    assert bus.quiet(1.0, "A")
    reply = others["B"].ask("A", "BS")
    assert StatusReply.unpack(reply.data).box.pack() == card.tree().cabinet("A").desc[:267]
    assert card.running


@pytest.fixture
def demoted(bus, cabinets, gateway):
    """A card A that a BREAK has made a slave, with its three neighbours."""
    others = cabinets("BCD")
    card = gateway()
    wait_rounds(bus, 1)
    card.interrupt()
    card.log.wait_message(LISTENS)
    return card, others


def test_comes_back_by_cn_and_sends_the_configuration(bus, demoted):
    card, others = demoted
    assert others["B"].ask("A", "UC").is_ack
    card.log.wait_message("Richiesta aggiornamento da MCU:B")
    assert bus.quiet(0.3, "A")
    mark = bus.mark()
    others["B"].hand_over("A")
    query = bus.wait("A SC", since=mark)
    assert query.frame.dest == 0xEB
    assert query.frame.data == plant_config("ABCD").pack()
    wait_rounds(bus, 2, mark)
    assert others["B"].config == plant_config("ABCD").pack()
    assert len(bus.frames(mark, "A", "SC")) == 1
    first = bus.frames(mark, "A")[0]
    assert first.frame.command == "SC", "the configuration goes before the round"
    assert not {"SC"} & set(others["C"].commands_asked())


def test_at_most_two_attempts_to_send_the_configuration(bus, demoted):
    card, others = demoted
    assert others["C"].ask("A", "UC").is_ack
    others["C"].fault("bad_crc", "SC", times=None)
    mark, log_mark = bus.mark(), card.log.mark()
    others["B"].hand_over("A")
    wait_rounds(bus, 2, mark)
    assert [h.frame.dest for h in bus.frames(mark, "A", "SC")] == [0xEC, 0xEC]
    assert card.log.count("Errore nell'invio del comando SC a:C", log_mark) == 2


def test_second_attempt_succeeds(bus, demoted):
    card, others = demoted
    assert others["D"].ask("A", "UC").is_ack
    others["D"].fault("bad_crc", "SC", times=1)
    mark, log_mark = bus.mark(), card.log.mark()
    others["B"].hand_over("A")
    wait_rounds(bus, 2, mark)
    assert [h.frame.dest for h in bus.frames(mark, "A", "SC")] == [0xED, 0xED]
    assert card.log.count("Errore nell'invio del comando SC a:D", log_mark) == 1


@pytest.mark.parametrize("change", [{"next_master": "B"}, {"next_master": "A", "build": 0},
                                    {"next_master": 0xE0}])
def test_only_its_own_name_in_a_cn_of_its_own_build_brings_it_back(bus, demoted, change):
    card, others = demoted
    others["B"].hand_over(**change)
    assert bus.quiet(0.5, "A")
    others["B"].hand_over("A")
    bus.wait("A BN")
    assert card.running


def test_a_master_does_not_end_at_sigint(bus, cabinets, gateway):
    cabinets("BCD")
    card = gateway()
    wait_rounds(bus, 1)
    for _ in range(3):
        card.interrupt()
        time.sleep(0.05)
    card.log.wait_message("cntBreakDetect")
    assert card.running
