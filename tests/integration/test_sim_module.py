"""The simulated power module: each of its commands, each way to misbehave, the speed of its line."""

import os
import select
import time

import pytest

from sim import mstates
from sim.bus import Node
from sim.mdata import FLAGS, LENGTHS, ModuleData
from sim.mlink import CARD, encode, nibbles, number, parse
from sim.module import COMMANDS, Line, Module
from sim.plant import ModuleModel, Plant
from sim.unit import BATTERY, BYPASS, LOCK, MAINS, OFF, Unit

# Frames made by hand.
GI_QUERY = bytes.fromhex("02 20 31 47 49 30 30 30 31 34 31 03")
GN_QUERY = bytes.fromhex("02 20 31 47 4E 30 30 3E 3E 31 37 03")


class Clock:
    """A time that stands until it is moved."""

    def __init__(self):
        self.now = 1000.0

    def __call__(self):
        return self.now


# On the line.


@pytest.fixture
def line(loop):
    """A line that takes no time, with a module that doesn't think."""
    line = Line(0, Module(thinking=0.0, seed=1), loop=loop)
    yield line
    line.close()


class Card:
    """The other end of a line: sends queries, takes what comes back."""

    def __init__(self, path):
        self.fd = os.open(path, os.O_RDWR | os.O_NOCTTY)

    def send(self, raw):
        os.write(self.fd, raw)

    def receive(self, count, timeout=3.0):
        """So many bytes, or fewer if they don't come in time."""
        got, deadline = b"", time.monotonic() + timeout
        while len(got) < count and select.select([self.fd], [], [], max(0.0, deadline - time.monotonic()))[0]:
            got += os.read(self.fd, count - len(got))
        return got

    def silence(self, timeout=0.1):
        return self.receive(1, timeout) == b""

    def ask(self, command, data=b"", src=CARD, dest="1"):
        """The reply, as a Frame."""
        self.send(encode(src, dest, command, data))
        head = self.receive(7)
        return parse(head + self.receive(number(head[5:7]) + 5))


@pytest.fixture
def card(line):
    card = Card(line.path)
    yield card
    os.close(card.fd)


ACKNOWLEDGED = {"CB": "0", "CD": "", "CF": "whatever", "CM": "<1", "CP": "00", "CR": "00000000", "CS": "0258", "CU": "",
                "DC": "1", "SM": "12345678", "ST": "050327140309", "TB": "005", "TC": ""}


@pytest.mark.parametrize("command", COMMANDS)
def test_every_command_is_answered(card, line, command):
    parameter = ACKNOWLEDGED.get(command, {"GM": "0012", "SV": "any"}.get(command, ""))
    reply = card.ask(command, parameter)
    assert (reply.src, reply.dest, reply.command) == (0x31, 0x20, command)
    assert len(reply.data) == LENGTHS.get(command, 0)
    if command in ACKNOWLEDGED:
        assert reply.data == b""
    elif command not in ("GM", "SV"):
        assert reply.data == line.module.data.encode(command)
    assert line.module.commands_asked() == [command]
    assert line.module.queries(command)[0].frame.data == parameter.encode()


def test_the_table_is_whole():
    assert sorted(COMMANDS) == ("CB CD CF CM CP CR CS CU DC DE DS GE GI GM GN RB RC RE RK RS RX SM ST SV TB TC".split())


@pytest.mark.parametrize("src", [0x20, 0x41, 0x44, 0x7F])
def test_addresses_are_mirrored(card, src):
    reply = card.ask("RS", src=src)
    assert (reply.src, reply.dest) == (0x31, src)
    assert card.ask("ZZ", src=src).dest == src


def test_a_query_to_another_address_is_not_answered(card, line):
    card.send(encode(CARD, "2", "GN"))
    assert card.silence()
    assert not line.module.asked
    line.bus.attach(Module("2", thinking=0.0))
    assert card.ask("GN", dest="2").src == 0x32


def test_the_bypass_unit_answers_a_switch_with_four_characters(card, line):
    line.bus.attach(Module("8", thinking=0.0))
    assert card.ask("DC", "1", src="A", dest="8").data == b"0000"
    assert card.ask("CU", src="A", dest="8").data == b""


@pytest.mark.parametrize("raw, code", [
    (encode(CARD, "1", "QA"), "1"),
    (encode(CARD, "1", "RZ"), "2"),
    (encode(CARD, "1", "TC", "1"), "3"),
    (encode(CARD, "1", "CS", "123"), "3"),
    (encode(CARD, "1", "CS", "12AB"), "3"),
    (GI_QUERY[:-2] + b"2\x03", "4"),
])
def test_bad_queries_are_refused(card, raw, code):
    card.send(raw)
    refusal = parse(card.receive(12))
    assert (refusal.refusal, refusal.src, refusal.dest, refusal.data) == (code, 0x31, 0x20, b"")


def test_replies_and_memory_can_be_set(card, line):
    line.module.memory[b"0012"] = b"wxyz"
    assert card.ask("GM", "0012").data == b"wxyz"
    assert card.ask("GM", "0013").data == b"0000"
    line.module.replies["GE"] = b"SWQ417-ZZ-ZZ0000"
    assert card.ask("GE").data == b"SWQ417-ZZ-ZZ0000"
    line.module.replies["RS"] = b"7" * 36
    assert card.ask("RS").data == b"7" * 36
    line.module.replies["SV"] = lambda query: query.data[::-1]
    assert card.ask("SV", "abcd").data == b"dcba"


def test_it_records_what_it_was_asked_and_when(card, line):
    before = time.monotonic()
    mark = line.module.mark()
    card.ask("GN")
    card.ask("CS", "0258", src="C")
    card.send(b"\x55\x55")
    asked = line.module.wait("CS", since=mark)
    assert line.module.commands_asked(mark) == ["GN", "CS"]
    assert (asked.frame.src, asked.frame.data, asked.raw) == (0x43, b"0258", encode("C", "1", "CS", "0258"))
    assert before <= asked.start <= asked.time <= time.monotonic()
    assert [a.number for a in line.module.answered] == [0, 1]
    assert line.module.answered[1].raw == encode("1", "C", "CS")
    line.module.silent = True
    card.send(GN_QUERY)
    assert line.module.wait("GN", since=mark, times=2).raw == GN_QUERY
    with pytest.raises(AssertionError, match="asked: GN"):
        line.module.wait("GI", timeout=0.05, since=mark)
    assert line.module.heard_noise[0] == b"\x55\x55"


GOOD = encode("1", CARD, "GN", ModuleData().encode("GN"))


@pytest.mark.parametrize("kind, options, raw", [
    ("silent", {}, b""),
    ("refuse", {"code": "7"}, encode("1", CARD, "\x157")),
    ("refuse", {"code": "5", "flip": 1}, encode("1", CARD, "\x155")[:-2] + b"\xFF\x03"),
    ("late", {"delay": 0.1}, GOOD),
    ("bad_check", {"flip": 0x8000}, None),
    ("bad_etx", {}, GOOD[:-1] + b"\0"),
    ("wrong_length", {"by": 2}, encode("1", CARD, "GN", GOOD[7:29] + b"00")),
    ("wrong_length", {"by": -2}, encode("1", CARD, "GN", GOOD[7:27])),
    ("false_length", {"by": 1}, GOOD[:5] + b"17" + GOOD[7:]),
    ("false_length", {"to": 255}, GOOD[:5] + b"??" + GOOD[7:]),
    ("wrong_source", {"source": "3"}, encode("3", CARD, "GN", GOOD[7:29])),
    ("wrong_dest", {"dest": "B"}, encode("1", "B", "GN", GOOD[7:29])),
    ("not_swapped", {}, encode(CARD, "1", "GN", GOOD[7:29])),
    ("wrong_command", {"instead": "GE"}, encode("1", CARD, "GE", GOOD[7:29])),
    ("split", {"at": (1, 7, 30), "pause": 0.02}, GOOD),
    ("garbage", {"data": b"\x01\x02\x03"}, b"\x01\x02\x03" + GOOD),
    ("truncated", {"keep": 9}, GOOD[:9]),
    ("twice", {}, GOOD * 2),
    ("raw", {"data": b"hello"}, b"hello"),
])
def test_it_misbehaves_as_told_and_once(card, line, kind, options, raw):
    line.module.fault(kind, "GN", **options)
    assert card.ask("RC").data == b"0" * 44, "another command is answered well"
    card.send(GN_QUERY)
    got = card.receive(len(raw) if raw is not None else len(GOOD))
    if kind == "bad_check":
        assert number(got[-5:-1]) == number(GOOD[-5:-1]) ^ 0x8000
    elif options.get("flip"):
        wanted = number(encode("1", CARD, "\x155")[-5:-1]) ^ 1
        assert got == encode("1", CARD, "\x155")[:-5] + nibbles(wanted, 4) + b"\x03"
    else:
        assert got == raw
    assert card.silence(0.05)
    assert card.ask("GN").encode() == GOOD, "and then well again"


def test_split_replies_pause(card, line):
    line.module.fault("split", "GN", at=(1, 20), pause=0.05)
    card.send(GN_QUERY)
    card.receive(1)
    begin = time.monotonic()
    card.receive(19)
    assert time.monotonic() - begin > 0.04
    card.receive(14)
    assert time.monotonic() - begin > 0.09


def test_faults_for_all_commands_for_some_for_good(card, line):
    line.module.refuse("2", times=2)
    assert [card.ask(c).refusal for c in ("GN", "RC", "GN")] == ["2", "2", None]
    line.module.fault("refuse", ["GN", "RC"], times=None, code="9")
    assert [card.ask(c).refusal for c in ("GN", "RC", "RE", "GN")] == ["9", "9", None, "9"]
    line.module.clear_faults()
    assert card.ask("GN").refusal is None


# What commands do.


@pytest.fixture
def clock():
    return Clock()


@pytest.fixture
def unit(line, clock):
    """The unit of the line's module, on a clock that stands."""
    line.module.unit = Unit(clock)
    return line.module.unit


def flags(card):
    """Names of the flags that are set in the status reply."""
    chars = card.ask("RS").data
    return {name for name, (place, mask) in FLAGS.items() if chars[place] - 0x30 & mask}


def states(card):
    return mstates.names(mstates.decode(card.ask("RC").data))


def test_off_and_on(card, unit):
    assert flags(card) == {"Output_Powered"}
    card.ask("DC", "0")
    assert (unit.mode, flags(card)) == (OFF, set())
    assert states(card) == {"RemoteOffCommand", "OffForSystemOff"}
    card.ask("DC", "1")
    assert (unit.mode, flags(card)) == (MAINS, {"Output_Powered"})
    assert states(card) == {"OnForSystemOn"}
    card.ask("DC", "0")
    card.ask("CP", "00")
    assert unit.mode == MAINS


def test_shutdown_after_its_delay(card, unit, clock):
    card.ask("CS", nibbles(600, 4))
    assert flags(card) == {"Output_Powered", "Shutdown_Active"}
    clock.now += 591
    assert flags(card) == {"Output_Powered", "Shutdown_Active", "Shutdown_Imminent"}
    assert states(card) == {"ShutdownActive", "ShutdownImminent"}
    clock.now += 10
    assert flags(card) == set()
    assert states(card) == {"RemoteOffCommand", "OffForShutdownCommand"}
    assert card.ask("CS", "0000").refusal == "5", "what is off can't be shut down"


def test_shutdown_and_restore(card, unit, clock):
    card.ask("CR", nibbles(5, 4) + nibbles(20, 4))
    clock.now += 6
    assert flags(card) == set()
    clock.now += 20
    assert flags(card) == {"Output_Powered"}
    assert states(card) == {"OnForRestoreCommand"}


def test_deleted_shutdown(card, unit, clock):
    card.ask("CR", nibbles(5, 4) + nibbles(20, 4))
    card.ask("CD")
    assert states(card) == {"ShutdownDeleted"}
    clock.now += 100
    assert flags(card) == {"Output_Powered"}


def test_deleted_restore(card, unit, clock):
    card.ask("CR", nibbles(5, 4) + nibbles(20, 4))
    clock.now += 10
    card.ask("RC")
    card.ask("CD")
    clock.now += 100
    assert flags(card) == set()


def test_battery_test(card, unit, clock):
    card.ask("TB", "005")
    assert unit.test == b"005"
    assert unit.mode == BATTERY
    assert flags(card) == {"Output_Powered", "Battery_Working", "Test_in_progress"}
    assert card.ask("TB", "000").refusal == "5", "not while one is running"
    clock.now += 11
    assert flags(card) == {"Output_Powered"}
    card.ask("TB", "000")
    card.ask("TC")
    assert flags(card) == {"Output_Powered"}


def test_change_to_bypass_and_back(card, unit):
    card.ask("CB", "1")
    assert (unit.mode, flags(card)) == (BYPASS, {"Output_Powered", "On_Bypass"})
    assert states(card) == {"BypassCommandActive", "LoadOnBypass"}
    card.ask("CB", "0")
    assert (unit.mode, flags(card)) == (MAINS, {"Output_Powered"})


def test_lock(card, unit):
    unit.lock()
    assert (unit.mode, flags(card)) == (LOCK, {"Lock"})
    for command, parameter in (("DC", "1"), ("CP", "00"), ("CS", "0000"), ("CB", "1"), ("TB", "000")):
        assert card.ask(command, parameter).refusal == "5", command
    card.ask("CU")
    assert unit.mode == MAINS


def test_clock_and_settings_are_kept(card, unit):
    card.ask("ST", "050327140309")
    assert unit.clock == "050327140309"
    for command, parameter in (("CM", "<1"), ("SM", "12345678"), ("SV", "12"), ("CF", "")):
        card.ask(command, parameter)
        assert unit.settings[command] == parameter.encode()


def test_commands_that_are_refused_or_unheard_have_no_effect(card, line, unit):
    line.module.fault("refuse", "DC", code="5")
    assert card.ask("DC", "0").refusal == "5"
    assert unit.mode == MAINS
    line.module.fault("silent", "DC")
    card.send(encode(CARD, "1", "DC", "0"))
    assert card.silence()
    line.module.silent = True
    card.send(encode(CARD, "1", "DC", "0"))
    assert card.silence()
    line.module.silent = False
    card.send(encode(CARD, "1", "DC", "0")[:-2] + b"\x30\x03")
    assert parse(card.receive(12)).refusal == "4"
    assert unit.mode == MAINS
    line.module.fault("late", "DC", delay=0.01)
    card.ask("DC", "0")
    assert unit.mode == OFF, "late, but carried out"


def test_data_set_by_hand_stay(card, line):
    line.module.data.set("Battery_Working")
    line.module.data.set("A08")
    line.module.data.clear("Output_Powered")
    assert flags(card) == {"Battery_Working"}
    card.ask("ST", "050327140309")
    assert flags(card) == {"Battery_Working"}
    assert states(card) == {"MainsUnderVoltageL1"}


# On a plant.


@pytest.fixture
def plant_of_two(clock):
    plant = Plant(now=clock)
    modules = []
    for letter in "AB":
        module = Module(thinking=0.0, now=clock)
        ModuleModel(plant, letter, autonomy=10).install(module)
        modules.append(module)
    for module in modules:
        module.refresh()
    return plant, modules


def test_modules_share_the_load(plant_of_two):
    plant, (a, b) = plant_of_two
    both = sum(a.data.Watt) + sum(b.data.Watt)
    assert both == pytest.approx(plant.demand(), rel=0.03)
    b.unit.power_off()
    b.refresh()
    a.refresh()
    assert (b.data.Vout, b.data.Watt, b.data.get("Output_Powered")) == ([0] * 3, [0] * 3, False)
    assert sum(a.data.Watt) == pytest.approx(plant.demand(), rel=0.03)


def test_a_lost_mains_empties_the_battery(plant_of_two, clock):
    plant, (a, _) = plant_of_two
    assert (a.unit.mode, a.data.get("Battery_Working"), a.data.Carica_adj) == (MAINS, False, 96)
    assert min(a.data.Vin) > 220
    plant.mains = False
    a.refresh()
    assert (a.unit.mode, a.data.get("Battery_Working"), a.data.get("A08")) == (BATTERY, True, True)
    assert (a.data.Vin, a.data.Frq_in, a.data.Iin) == ([0] * 3, 0, [0] * 3)
    assert min(a.data.Vout) > 220 and a.data.Ibatp > 100
    clock.now += 300
    a.refresh()
    assert 45 <= a.data.Carica_adj <= 47 and not a.data.get("Battery_Low")
    clock.now += 200
    a.refresh()
    assert a.data.get("Battery_Low")
    clock.now += 100
    a.refresh()
    assert (a.unit.mode, a.data.get("OffForBatteryEnded"), a.data.Vout) == (OFF, True, [0] * 3)
    plant.mains = True
    a.refresh()
    clock.now += 120
    a.refresh()
    assert a.data.Carica_adj > 5 and a.data.get("Battery_Charging")


# Time.


class Ear(Node):
    """Hears the line."""

    def __init__(self):
        super().__init__("ear")
        self.times = []

    def deliver(self, data, start, byte_time):
        self.times += [start + (i + 1) * byte_time for i in range(len(data))]


@pytest.mark.parametrize("baud", [1200, 9600, 115200])
def test_both_ways_take_the_time_of_the_line(loop, baud):
    with Line(baud, Module(thinking=0.02), loop=loop) as line:
        ear = line.bus.attach(Ear())
        card = Card(line.path)
        begin = time.monotonic()
        card.ask("GN")
        took = time.monotonic() - begin
        os.close(card.fd)
        floor = 46 * 10 / baud + 0.02
        assert floor - 0.001 <= took < floor + 0.250
        asked, answered = line.module.asked[0], line.module.answered[0]
        assert asked.time - asked.start == pytest.approx(12 * 10 / baud)
        assert 0.019 < answered.time - asked.time < 0.250
        line.bus.loop.invoke(lambda: None)  # the last byte may have reached the card before the ear
        assert len(ear.times) == 46
        heard = line.bus.frames()
        assert [h.sender for h in heard] == ["card", "module"]
        assert heard[1].end - heard[1].start == pytest.approx(34 * 10 / baud)


def test_it_thinks_between_two_limits(loop):
    with Line(0, Module(thinking=(0.005, 0.015), seed=3), loop=loop) as line:
        card = Card(line.path)
        for _ in range(20):
            card.ask("GN")
        os.close(card.fd)
        pauses = [answered.time - asked.time
                  for asked, answered in zip(line.module.asked, line.module.answered)]
        assert min(pauses) >= 0.0049
        assert max(pauses) - min(pauses) > 0.003
