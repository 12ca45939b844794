"""What a card answers for its module to another one that asks over the bus, and what a third card makes of the answer.
Real are the slaves B, which is asked, and C, which listens; A is simulated."""

import time

import pytest

from outside import POLLED, told, wait_module
from tunnel import TunnelCabinet

from sim import frames, mlink
from sim.records import blank_module_identification


@pytest.fixture
def cards(bus, gateway, module):
    """The asker, the card B, its module, the listening card C."""
    master = bus.attach(TunnelCabinet("A"))
    b, c = gateway("B", mask="1110"), gateway("C", mask="1110")
    unit, other = module(b, thinking=0.001), module(c, thinking=0.001)
    unit.data.SN, other.data.SN = "MODULE OF B", "MODULE OF C"
    unit.data.SWVer_AUX = "SWQ417-1A-F2"
    for card in (b, c):
        wait_module(card)
    return master, b, unit, c


def no_answer(bus, master, card, command, data=b"", dest="1"):
    """Asks and makes sure that nothing goes out: the card answers the next query, and nothing before that."""
    mark = bus.mark()
    master.send_frame(card.card, "QT", mlink.encode(card.card, dest, command, data))
    bus.wait("A QT", since=mark)
    assert master.ask(card.card, "BN") is not None
    assert [h.frame.command for h in bus.frames(mark, sender=card.card)] == ["BN"]


def test_nominal_data_come_from_the_record_and_reach_all(cards, bus):
    master, b, unit, c = cards
    unit.data.VA, unit.data.W, unit.data.FreqOut = 0xABCDE, 36000, 600
    b.wait_tree(lambda tree: tree.module("B").nominal.VA == 0xABCDE)
    assert c.tree().module("B").nominal.timestamp == 0, "nothing is known of it before somebody asks"
    line, begin = b.module_line.mark(), int(time.time())
    frame = master.ask("B", "QT", mlink.encode("B", "1", "GN"))
    assert (frame.src, frame.dest) == (frames.address("B"), frames.BROADCAST)
    raw = frame.data[4:]
    assert raw == mlink.encode("1", "B", "GN", unit.data.encode("GN"))
    stamp = int.from_bytes(frame.data[:4], "little")
    assert begin - 5 <= stamp <= time.time()
    stored = c.wait_tree(lambda tree: tree.module("B").nominal.timestamp).module("B").nominal
    assert stored.timestamp == stamp, "the time that travelled with it"
    mine = b.tree().module("B").nominal
    assert mine.timestamp >= stamp
    mine.timestamp = stamp
    assert stored.differences(mine) == []
    assert "GN" not in {h.frame.command for h in b.module_line.frames(line) if h.frame.src == ord("B")}


def test_identification_once_it_is_complete(cards, bus):
    master, b, unit, c = cards
    unit.fault("silent", "GE", times=2)
    first = master.ask_module("B", "GI")
    assert first.stamp == 0
    unknown = blank_module_identification()
    assert first.frame.data[:44] == unknown.SN[:16] + unknown.Model[:16] + unknown.SWVer[:12]
    assert first.frame.data[44:] == b"4322102" + b"\0" + b"1" + b"xxx"
    # The card asks its module for what is missing.
    b.wait_tree(lambda tree: tree.module("B").identification.timestamp, 15)
    assert len(unit.queries("GE")) == 3
    assert c.tree().module("B").identification == unknown, "a time stamp of 0 is never stored"

    second, third = master.ask_module("B", "GI"), master.ask_module("B", "GE")
    mine = b.tree().module("B").identification
    assert second.stamp > 0 and third.stamp > 0
    expected = bytearray(unit.data.encode("GI"))
    # The number of batteries, which the card has worked out from the voltage, goes out as it is stored.
    assert mine.NBattForBench == unit.data.BatteryV // 12
    expected[51] = mine.NBattForBench
    assert second.raw == mlink.encode("1", "B", "GI", bytes(expected))
    assert third.raw == mlink.encode("1", "B", "GE", unit.data.encode("GE"))
    assert third.frame.data[7:12] == b"1:-?2", "the version's letters as they travel"
    stored = c.wait_tree(lambda tree: tree.module("B").identification.timestamp).module("B").identification
    mine.timestamp = stored.timestamp
    mine.NBattForBench &= 0x0F  # of a digit, the reader takes
    assert stored.differences(mine) == []
    assert stored.SN.startswith(b"MODULE OF B") and stored.SWVer_AUX.startswith(b"SWQ417-1A-F2")
    assert c.tree().module("C").identification.SN.startswith(b"MODULE OF C"), "its own is another"


def test_half_an_identification_is_not_enough(cards):
    """The part that comes without the other is stored, but it stays without a time."""
    master, b, _, c = cards
    master.ask_module("B", "GI")
    b.wait_tree(lambda tree: tree.module("B").identification.timestamp)
    assert master.ask_module("B", "GI").stamp > 0
    stored = c.wait_tree(lambda tree: tree.module("B").identification.SN.startswith(b"MODULE OF B"))
    assert stored.module("B").identification.timestamp == 0


def test_memory_is_read_while_the_asker_waits(cards):
    master, b, unit, c = cards
    unit.memory = {b"0102": b"=9:0"}
    before, mark, log = c.tree().module("B"), unit.mark(), c.log.mark()
    reply = master.ask_module("B", "GM", b"0102")
    assert told(unit.queries("GM", mark)) == [("B", "1", "GM", b"0102")]
    assert reply.raw == mlink.encode("1", "B", "GM", b"=9:0")
    assert abs(reply.stamp - time.time()) <= 2
    # The listener has no place for it.
    c.log.wait("Err .*GM|Err .*SubCmd M", since=log)
    assert c.tree().module("B") == before

    unit.fault("silent", "GM")
    begin = time.monotonic()
    reply = master.ask_module("B", "GM", b"0102", timeout=5)
    assert time.monotonic() - begin >= 1
    assert reply.raw == mlink.encode("1", "B", "GM", bytes(4)), "a good frame of nothing"


REFUSED = {"RS": b"", "RE": b"", "RK": b"", "DE": b"", "DS": b"", "RB": b"", "RX": b"", "SM": b"00000000",
           "ST": b"010127000000", "CZ": b"", "GQ": b"", "TX": b""}


def test_what_is_answered_for_no_module(cards, bus):
    master, b, unit, _ = cards
    mark, lines = unit.mark(), []
    for command, data in {**REFUSED, "XA": b"", "RC": b""}.items():
        log = b.log.mark()
        no_answer(bus, master, b, command, data)
        lines = [(line.level, line.message) for line in b.log.lines(log)]
        told_so = {"XA": [("Err", "MainCmd X non supportato")], "RC": []}.get(
            command, [("Err", "SubCmd %s non supportato per il MainCmd %s" % (command[1], command[0]))])
        assert [line for line in lines if "non supportato" in line[1]][-1:] == told_so
        failures = [line[1] for line in lines if line[0] == "Err" and "non supportato" not in line[1]]
        assert failures[0] == "FALLITA costruzione risposta %s" % command
        assert failures[1].startswith("FALLITO Risposta QT"), failures
        assert failures[2:] == ["Pacchetto incapsulato %s da 'B' per '1'" % command]
    assert set(unit.commands_asked(mark)) <= POLLED


def test_only_the_module_that_there_is(cards, bus):
    master, b, unit, _ = cards
    mark = unit.mark()
    for dest in "0278":
        log = b.log.mark()
        no_answer(bus, master, b, "GN", dest=dest)
        assert b.log.count("War .*Interrogato modulo %s non ancora attivo!!\n" % dest, log) == 1
        no_answer(bus, master, b, "CU", dest=dest)
    assert set(unit.commands_asked(mark)) <= POLLED


# Commands: data, data of the acknowledge.
QUEUED = {"CB": b"1", "CD": b"", "CF": b"12345", "CM": b"<1", "CP": b"00", "CR": b"02580<00", "CS": b"0258", "CU": b"",
          "DC": b"1", "SV": b"0011", "TB": b"005", "TC": b""}


def test_commands_are_queued_and_acknowledged_at_once(cards):
    master, b, unit, c = cards
    for command, data in QUEUED.items():
        log, other_log, mark = b.log.mark(), c.log.mark(), unit.mark()
        reply = master.ask_module("B", command, data)
        assert reply.raw == mlink.encode("1", "B", command, b"0000" if command == "SV" else b"")
        assert abs(reply.stamp - time.time()) <= 2
        asked = unit.wait(command, since=mark)
        assert told([asked]) == [("B", "1", command, data)]
        assert b.log.count("Add AsyncQuery %s to 0x31\n" % command, log) == 1
        if command not in ("DC", "SV", "TC"):
            line = "ACK from boxB, comando %s scr:1 dest:B\n" % command
            b.log.wait_message(line, since=log)  # of the module itself
            c.log.wait_message(line, since=other_log)  # of its card, which all hear
    mark = unit.mark()
    unit.wait("RS", since=mark, times=3)
    assert set(unit.commands_asked(mark)) <= POLLED, "each was sent once"


def test_an_acknowledge_says_only_that_it_is_queued(cards):
    master, _, unit, _ = cards
    unit.refuse("5", "CS")
    mark = unit.mark()
    assert master.ask_module("B", "CS", b"0258") is not None
    assert master.ask_module("B", "CS", b"0258") is not None, "the same again is taken too, and absorbed"
    assert master.ask_module("B", "CD") is not None
    unit.wait("CS", since=mark, times=10)
    assert "CD" not in unit.commands_asked(mark), "it waits behind the other"
    unit.clear_faults()
    unit.wait("CD", since=mark)
    last = [command for command in unit.commands_asked(mark) if command in ("CS", "CD")]
    assert last[-2:] == ["CS", "CD"] and last.count("CD") == 1
    assert unit.unit.shutdown_at is None, "set and deleted in that order"
    mark = unit.mark()
    unit.wait("RS", since=mark, times=3)
    assert set(unit.commands_asked(mark)) <= POLLED


def test_replies_nobody_asked_for(cards, bus):
    """Whatever card reports it, it is stored by the address in it, if its time says that there are data."""
    master, b, unit, c = cards

    def nominal(va):
        unit.data.VA = va
        return unit.data.encode("GN")
    own = nominal(41000)
    for stamp, dest, va in ((1700000000, "A", 11111), (0, "A", 22222), (1700000001, "B", 33333), (0, "B", 44444)):
        master.report_module(stamp, mlink.frame("1", dest, "GN", nominal(va)))
    unit.replies["GN"] = own
    master.report_module(1700000002, mlink.frame("1", "A", "GE", unit.data.encode("GE")))
    tree = c.wait_tree(lambda tree: tree.module("A").identification.SWVer_AUX.startswith(b"SWQ417"))
    assert (tree.module("A").nominal.VA, tree.module("A").nominal.timestamp) == (11111, 1700000000)
    assert (tree.module("B").nominal.VA, tree.module("B").nominal.timestamp) == (33333, 1700000001)


TORN = [b"", b"\x02B1GN", mlink.encode("B", "1", "GN")[:11], mlink.encode("B", "1", "CS", b"0258")[:-1],
        b"\x02B1CS3=" + b"0" * 20, b"\x02B1CS??" + b"0" * 240]


def test_a_torn_inner_frame_gets_nothing(cards, bus):
    master, b, unit, _ = cards
    place = unit.mark()
    for data in TORN:
        mark = bus.mark()
        master.send_frame("B", "QT", data)
        bus.wait("A QT", since=mark)
        assert master.ask("B", "BN") is not None
        assert [h.frame.command for h in bus.frames(mark, sender="B")] == ["BN"]
    assert set(unit.commands_asked(place)) <= POLLED
