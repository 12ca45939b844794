"""What a module tells, in its place in the tree: each reply by itself and all of them together, with the whole node
compared byte for byte. The card's clock stands still, so that its time stamps are known too."""

import random

import pytest

from module_view import ROUND, ModuleNode, lost_tree, settled_node, wait_same
from outside import Outside
from tunnel import TunnelCabinet
from ugwctl import Ugwctl

from sim import mdata, mstates
from sim.mlink import nibbles
from sim.records import Node
from sim.tree import segment_size

NOW = 1800000000
FILL = 0x5A
NOT_NOW = "5"


@pytest.fixture
def start(gateway, module):
    """start("A"): a card whose clock stands, over an old segment full of FILL, with its module."""
    def make(letter="A", cabinets="A", refusing=()):
        mask = "1" + "".join("1" if c in cabinets else "0" for c in "BCD")
        card = gateway(letter, mask=mask, start=False)
        card.sandbox.create_segment(segment_size(len(cabinets)), fill=FILL)
        card.clock.freeze(NOW)
        unit = module(card, thinking=0.001)
        for command in refusing:
            unit.refuse(NOT_NOW, command)
        card.start()
        unit.wait(since=0)  # the tree is built
        return card, unit
    return make


def fill_at_random(told, seed):
    """Gives all fields values of their full range, and all that surrounds them something that isn't taken."""
    dice = random.Random(seed)
    for command, length in mdata.LENGTHS.items():
        told.base[command] = bytes(dice.randrange(0x30, 0x40) for _ in range(length))
    for name, kind in mdata.KINDS.items():
        def one(kind=kind):
            if kind.is_text:
                return bytes(dice.randrange(0x20, 0x7F) for _ in range(kind.width))
            return dice.randrange(16 ** kind.width)
        setattr(told, name, one() if kind.count is None else [one() for _ in range(kind.count)])
    # The lock is told twice, in RS and RC, and the later one holds: here they agree.
    told.states = [dice.randrange(256) for _ in range(mstates.BYTES)]
    told.set("Lock")
    told.set("L01")


def keep_refusing(unit, allowed):
    """The module is busy for all that is not allowed: no failure, and no data."""
    unit.clear_faults()
    unit.refuse(NOT_NOW, [command for command in mdata.LENGTHS if command not in allowed])


@pytest.mark.parametrize("order", [ROUND, ROUND[::-1]], ids=["as polled", "backwards"])
def test_each_reply_has_its_fields_and_touches_no_other_byte(start, order):
    card, unit = start(refusing=ROUND)
    # A module that has never answered counts as lost. From then on one reply after the other is let through.
    _, expected = lost_tree("A", "A", NOW, FILL)
    wait_same(card, lambda tree: [(tree.module("A"), expected)])
    fill_at_random(unit.data, "each")
    view, allowed = ModuleNode(expected), []
    for command in order:
        allowed.append(command)
        keep_refusing(unit, allowed)
        # Those that were let through before are told again, and some depend on the later ones.
        for _ in range(2):
            for told in [name for name in ROUND if name in allowed]:
                view.take(told, unit.data.encode(told), NOW)
        view.answered()
        wait_same(card, lambda tree: [(tree.module("A"), expected)])


@pytest.mark.parametrize("seed", range(4))
def test_all_fields_over_their_full_range(start, seed):
    card, unit = start()
    fill_at_random(unit.data, seed)
    _, expected = lost_tree("A", "A", NOW, FILL)
    # It answers at once: neither is the loss seen nor the alarm that goes with it.
    expected.desc = _without_loss(expected)
    settled_node(expected, unit.data, NOW)
    wait_same(card, lambda tree: [(tree.module("A"), expected)])
    for _ in range(20):
        unit.wait("RS", times=2)
        wait_same(card, lambda tree: [(tree.module("A"), expected)], timeout=0)


def _without_loss(node):
    state = node.module
    state.data.PMStatus = FILL << 8 | FILL
    for name in ("wrongPower", "inputDisabled"):
        state.data.clear("PMStatus." + name)
    state.data.set("PMStatus.bitCmdUnsupported")
    state.data.clear("alarm.Anomaly")
    return state.pack() + node.desc[state.SIZE:]


def test_highest_and_lowest_values(start):
    card, unit = start()
    told = unit.data
    for name, kind in mdata.KINDS.items():
        if not kind.is_text and name != "flags":
            highest = 16 ** kind.width - 1
            setattr(told, name, highest if kind.count is None else [highest] * kind.count)
    told.NBattForBench = "?"
    tree = card.wait_tree(lambda tree: tree.module("A").module.data.Ibatp == 4095
                          and tree.module("A").module.data.Vbatp == 15 * 4095 // 10)
    data, nominal = tree.module("A").module.data, tree.module("A").nominal
    assert (nominal.VA, nominal.W, nominal.BatteryV) == (0xFFFFF, 0xFFFFF, 0xFFF)
    assert data.Load == [255] * 3 and data.Vin == [4095] * 3 and data.Va == [0xFFFFF] * 3
    assert data.Iin == data.Iout == data.Iout_pk == [0xFFFF] * 3 and data.VbatRS == 0xFFFF
    for name, kind in mdata.KINDS.items():
        if not kind.is_text and name != "flags":
            setattr(told, name, 0 if kind.count is None else [0] * kind.count)
    card.wait_tree(lambda tree: tree.module("A").module.data.Vbatn == 0 and tree.module("A").nominal.W == 0
                   and not any(tree.module("A").module.data.Vin))


class TestStates:
    def test_each_bit_in_its_place_with_its_text(self, start):
        """Eight patterns and their opposites tell each of the 176 bits from every other."""
        card, unit = start()
        ugwctl = Ugwctl(card)
        card.clock.real()  # the tool wants a tree of its own time
        card.wait_tree(lambda tree: 0 < tree.cabinet("A").box.Ups.timestamp < NOW
                       and 0 < tree.root.sys.Ups.timestamp < NOW)
        for digit in range(8):
            for opposite in (0, 1):
                states = [0] * mstates.BYTES
                for i in range(len(mstates.TABLE)):
                    states[i // 8] |= ((i >> digit & 1) ^ opposite) << i % 8
                unit.data.states = states
                unit.data.set("Lock", any(states[14:20]))
                card.wait_tree(lambda tree, states=states: tree.module("A").module.states == states)
                shown = ugwctl.read("states", "BA.M1").splitlines()
                wanted = []
                for i, (name, text) in enumerate(mstates.TABLE):
                    if states[i // 8] >> i % 8 & 1:
                        tag, words = (text[1:4], text[5:]) if text.startswith("[") else (None, text)
                        wanted.append(("[%s] " % tag if tag else "") + (words or name))
                assert sorted(line.split(None, 1)[1] for line in shown) == sorted(wanted)

    @pytest.mark.parametrize("byte", range(mstates.BYTES))
    def test_they_sum_up_in_the_alarms(self, states_card, byte):
        card, unit = states_card
        for mask in (0x01, 0x80):
            unit.data.states = [mask if i == byte else 0 for i in range(mstates.BYTES)]
            unit.data.set("Lock", 14 <= byte < 20)
            wanted = {name for name, rows in (("Warning", range(2)), ("Anomaly", range(2, 8)), ("Fault", range(8, 14)),
                                              ("Lock", range(14, 20))) if byte in rows}
            mark = unit.mark()
            unit.wait("DE", since=mark, times=3)
            state = card.tree().module("A").module
            assert state.states == unit.data.states
            assert state.data.bits("alarm") == wanted

    @pytest.fixture
    def states_card(self, start):
        card, unit = start()
        card.wait_tree(lambda tree: tree.module("A").module.detailTimestamp)
        return card, unit

    def test_batteries_are_there_if_both_halves_are(self, states_card):
        card, unit = states_card
        for positive, negative in ((0, 0), (1, 0), (0, 1), (1, 1), (0, 0)):
            unit.data.set("BatteryPosNotPresent", positive)
            unit.data.set("BatteryNegNotPresent", negative)
            there = not (positive or negative)
            data = card.wait_tree(lambda tree, there=there: (
                tree.module("A").module.data.get("switchStatus.Bt_present") == there
                and bool(tree.module("A").module.data.Aut_time) == there)).module("A").module.data
            # Without them the module's word on their charge isn't taken.
            assert (data.Aut_time, data.Carica_adj) == ((46, 96) if there else (0, 0))

    def test_the_last_word_on_the_lock_holds(self, states_card):
        """RS says it first, then RC, round after round: while they disagree, it comes and goes."""
        card, unit = states_card
        unit.thinking = 0.02
        unit.data.set("L05")
        seen = set()
        card.wait_tree(lambda tree: seen.add(tree.module("A").module.data.get("alarm.Lock")) or seen == {0, 1})


class TestStatus:
    BITS = {"Output_Powered": "status", "Lock": "alarm", "Battery_Working": "status", "Battery_Low": "alarm",
            "On_Bypass": "status", "Bypass_Bad": "alarm", "Battery_Charging": "extStatus",
            "Replace_Battery": "extStatus", "Shutdown_Active": "status", "Shutdown_Imminent": "status",
            "Test_in_progress": "extStatus", "Alarm_Overload": "alarm", "Alarm_Temperature": "alarm"}

    def test_each_bit_alone(self, start):
        card, unit = start()
        for name, field in self.BITS.items():
            unit.data.flags = [0] * 5
            unit.data.set(name)
            unit.data.set("L01", name == "Lock")
            mark = unit.mark()
            unit.wait("DE", since=mark, times=3)
            data = card.tree().module("A").module.data
            found = {(kind, bit) for kind in ("alarm", "status", "extStatus") for bit in data.bits(kind)}
            assert found == {(field, name)} | ({("status", "Line_Present")} if name != "Battery_Working" else set())

    def test_economy_counts_on_bypass_only(self, start):
        card, unit = start()
        for bypass, economy in ((0, 1), (1, 1), (1, 0), (0, 0)):
            unit.data.set("On_Bypass", bypass)
            unit.data.set("Eco_Mode", economy)
            mark = unit.mark()
            unit.wait("DE", since=mark, times=3)
            data = card.tree().module("A").module.data
            assert data.get("extStatus.Eco_Mode") == (bypass and economy)
            assert data.get("status.On_Bypass") == bypass

    def test_bits_without_a_meaning_are_ignored(self, start):
        card, unit = start()
        known = [sum({mask for place, mask in mdata.FLAGS.values() if place == i}) for i in range(5)]
        unit.data.flags = [0xF & ~mask for mask in known]
        mark = unit.mark()
        unit.wait("DE", since=mark, times=3)
        data = card.tree().module("A").module.data
        assert (data.bits("alarm"), data.bits("status"), data.bits("extStatus")) == (set(), {"Line_Present"}, set())

    def test_what_no_reply_tells_stays(self, start):
        card, unit = start()
        outside = Outside(card)
        card.wait_tree(lambda tree: tree.module("A").nominal.VA)
        for bit in ("isMaster", "Parallel_Link_Open", "UPS_OK"):
            outside.mark("A", "extStatus." + bit)
        for bit in ("Q1", "RemoteEco_Cmd"):
            outside.mark("A", "switchStatus." + bit)
        outside.mark("A", "PMStatus.inputDisabled")
        mark = unit.mark()
        unit.wait("RS", since=mark, times=20)
        data = card.tree().module("A").module.data
        assert {"isMaster", "Parallel_Link_Open", "UPS_OK"} <= data.bits("extStatus")
        assert {"Q1", "RemoteEco_Cmd"} <= data.bits("switchStatus")
        assert data.get("PMStatus.inputDisabled")


def test_battery_currents_are_negative_while_the_battery_works(start):
    card, unit = start()
    unit.data.Ibatp, unit.data.Ibatn = 16, 4095
    for working, sign in ((0, 1), (1, -1), (0, 1)):
        unit.data.set("Battery_Working", working)
        card.wait_tree(lambda tree, sign=sign: (tree.module("A").module.data.Ibatp,
                                                tree.module("A").module.data.Ibatn) == (sign * 16, sign * 4095))


class TestBatteries:
    def test_from_the_nominal_voltage_if_the_module_does_not_say(self, start):
        card, unit = start()
        unit.data.BatteryV, unit.data.Vbatp, unit.data.Vbatn = 240, 136, 137
        data = card.wait_tree(lambda tree: tree.module("A").module.data.Vbatn).module("A")
        assert data.identification.NBattForBench == 20
        assert (data.module.data.Vbatp, data.module.data.Vbatn) == (20 * 136 // 10, 20 * 137 // 10)
        # Once known the number is kept, whatever voltage comes later.
        unit.data.BatteryV = 120
        tree = card.wait_tree(lambda tree: tree.module("A").nominal.BatteryV == 120)
        assert tree.module("A").identification.NBattForBench == 20

    def test_as_the_module_says(self, start):
        card, unit = start()
        for char, number in (("1", 1), ("9", 9), (":", 10), ("?", 15)):
            unit.data.NBattForBench = char
            card.wait_tree(lambda tree, n=number: (
                tree.module("A").identification.NBattForBench == n
                and tree.module("A").module.data.Vbatp == n * 136 // 10))
        unit.data.NBattForBench = "0"
        mark = unit.mark()
        unit.wait("DE", since=mark, times=3)
        assert card.tree().module("A").identification.NBattForBench == 15

    def test_a_letter_gives_its_low_half(self, start):
        card, unit = start()
        unit.data.NBattForBench = "E"
        card.wait_tree(lambda tree: tree.module("A").identification.NBattForBench == 5)


def test_2048_stands_for_the_load_until_the_first_status(start):
    card, unit = start(refusing=["RS"])
    unit.wait("RS", since=0, times=3)
    data = card.tree().module("A").module.data
    assert data.Load == [2048, 0, 0]
    assert (data.Iout, data.Frq_in, data.Temp0) == (unit.data.Iout, 500, 25), "what the others told is there"
    assert card.tree().cabinet("A").box.Ups.Load == [0, 0, 0], "of a module that isn't powered, nothing counts"
    unit.clear_faults()
    card.wait_tree(lambda tree: tree.module("A").module.data.Load == unit.data.Load)


class TestIdentification:
    @pytest.fixture
    def asked(self, start, bus):
        """A card in a plant of two, with the simulated other one that asks it for what is its module's."""
        master = bus.attach(TunnelCabinet("A"))
        card, unit = start("B", "AB")
        card.wait_tree(lambda tree: tree.module("B").nominal.VA)
        return master, card, unit

    def test_the_second_part_is_asked_for_when_somebody_asks(self, asked):
        master, card, unit = asked
        unit.data.SWVer_AUX, unit.data.tbdGE = "SWQ417-1A-F2", "abcd"
        assert "GE" not in unit.commands_asked()
        before = card.tree().module("B")
        assert before.identification.timestamp == 0 and before.identification.partialInfo == 0xFD
        mark = unit.mark()
        master.ask_module("B", "GI")
        unit.wait("GE", since=mark)
        unit.wait("DE", since=mark, times=3)
        found = card.tree().module("B")
        wanted = ModuleNode(before).take("GE", unit.data.encode("GE"), NOW).take("GI", unit.data.encode("GI"), NOW).node
        wait_same(card, lambda tree: [(tree.module("B"), wanted)], timeout=0)
        assert found.identification.SWVer_AUX == b"SWQ417-1A-F2\0"
        assert found.identification.partialInfo == 0xFF and found.identification.timestamp == NOW

    @pytest.mark.parametrize("version", ["SWQ417-ZZ-ZZ", "SWQ417-SS-SS"])
    def test_a_version_that_is_none_completes_nothing(self, asked, version):
        """As it stands on the wire and as the raising of its characters leaves it."""
        master, card, unit = asked
        unit.replies["GE"] = version.encode() + b"abcd"
        mark = unit.mark()
        for _ in range(3):
            master.ask_module("B", "GI")
            asked = unit.wait("GE", since=mark)
            mark = unit.wait("RS", since=asked.number, times=2).number  # it has left the queue
        found = card.tree().module("B").identification
        assert (found.timestamp, found.partialInfo, found.tbdGE) == (0, 0xFD, b"abcd")
        assert found.SWVer_AUX != b" " * 12 + b"\0"


def test_characters_that_are_no_digits_fold_into_the_number(start):
    card, unit = start()
    raw = bytearray(unit.data.encode("DE"))
    raw[43:47] = b"AZ~0"
    folded = 0
    for char in raw[43:47]:
        folded = folded * 16 + char - 0x30
    unit.replies["DE"] = bytes(raw)
    card.wait_tree(lambda tree: tree.module("A").module.data.Iin[0] == folded & 0xFFFFFFFF)
    assert bytes(raw[47:51]) == nibbles(unit.data.Iin[1], 4)
    assert card.tree().module("A").module.data.Iin[1] == unit.data.Iin[1]


def test_the_node_lies_where_the_others_find_it(start):
    card, unit = start()
    unit.data.SN = "SERIAL 123"
    tree = card.wait_tree(lambda tree: tree.module("A").identification.SN.startswith(b"SERIAL 123"))
    at = 3 * Node.SIZE + 54 + 4
    assert tree.data[at:at + 17] == b"SERIAL 123".ljust(16) + b"\0"
