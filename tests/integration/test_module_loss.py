"""A module that is lost, and one that comes back: the records of module and cabinet byte for byte, and what the rest of
the plant sees of it."""

import pytest

from module_view import ModuleNode, cabinet_node, lost_tree, settled_node, wait_same
from outside import Outside, wait_master, wait_module
from tunnel import TunnelCabinet

from sim.records import StatusReply
from sim.tree import register_module, registered_tree, segment_size

NOW = 1800000000
FILL = 0xC3
LOST = "Nessun modulo e' in buono stato di comunicazione\n"


@pytest.fixture
def start(gateway, module):
    """start("A"): a card whose clock stands, over an old segment full of FILL, with its module."""
    def make(letter="A", cabinets="A", silent=False):
        mask = "1" + "".join("1" if c in cabinets else "0" for c in "BCD")
        card = gateway(letter, mask=mask, start=False)
        card.sandbox.create_segment(segment_size(len(cabinets)), fill=FILL)
        card.clock.freeze(NOW)
        unit = module(card, thinking=0.001)
        unit.silent = silent
        card.start()
        unit.wait(since=0)
        return card, unit
    return make


def good_nodes(told, now=NOW):
    """Nodes of cabinet A and of its module once the module has told the same for a while."""
    nodes = registered_tree("A", "A", FILL)
    cabinet, module = nodes[2:4]
    settled_node(module, told, now)
    return cabinet_node(cabinet, module, now), module


def expected_loss(unit, now=NOW):
    """The nodes of a module that was good before: what a registration doesn't reset is as the module left it."""
    cabinet, module = good_nodes(unit.data)
    register_module(module)
    state = module.module
    state.data.set("PMStatus.commError")
    state.data.set("alarm.Anomaly")
    module.desc = state.pack() + module.desc[state.SIZE:]
    box, lost = cabinet.box, lost_tree("A", "A", now, FILL)[0]
    record = lost.box
    # The cabinet's contacts are those that it had.
    record.boxStatus, record.externalSwitchStatus = box.boxStatus, box.externalSwitchStatus
    lost.desc = record.pack() + lost.desc[record.SIZE:]
    lost.identification = module.identification
    return lost, module


def both(tree, cabinet, module):
    return [(tree.cabinet("A"), cabinet), (tree.module("A"), module)]


def test_what_is_registered_stands_until_the_first_answer_or_the_loss(start):
    card, unit = start(silent=True)
    tree = card.tree()
    cabinet, module = registered_tree("A", "A", FILL)[2:4]
    wait_same(card, lambda _: both(tree, cabinet, module), timeout=0)
    assert tree.module("A").module.data.Load[0] == 2048
    # A module that has never answered counts as lost in the first run, which is that after the first query.
    unit.wait("DS", since=0)
    wait_same(card, lambda tree: both(tree, *lost_tree("A", "A", NOW, FILL)), timeout=0)
    assert card.log.count(LOST) == 1


def test_a_good_module_and_its_cabinet(start):
    card, unit = start()
    wait_same(card, lambda tree: both(tree, *good_nodes(unit.data)))
    assert not card.log.find(LOST)


class TestLoss:
    @pytest.fixture
    def good(self, start):
        card, unit = start()
        wait_same(card, lambda tree: both(tree, *good_nodes(unit.data)))
        return card, unit

    def test_after_the_second_failed_query_and_not_before(self, good):
        card, unit = good
        mark, log = unit.mark(), card.log.mark()
        unit.silent = True
        unit.wait(since=mark)
        # The first failure is known when the second query goes out.
        unit.wait(since=mark, times=2)
        wait_same(card, lambda tree: both(tree, *good_nodes(unit.data)), timeout=0)
        assert not card.log.find(LOST, log)
        unit.wait(since=mark, times=3)
        wait_same(card, lambda tree: both(tree, *expected_loss(unit)), timeout=0)
        assert card.log.count(LOST, log) == 1
        # Told at each run, and as often in its records.
        card.clock.freeze(NOW + 60)
        card.log.wait_message(LOST, since=log, times=3)
        wait_same(card, lambda tree: both(tree, *expected_loss(unit, NOW + 60)))

    def test_a_single_failure_is_none(self, good):
        card, unit = good
        log = card.log.mark()
        for kind in ("silent", "bad_check", "wrong_source"):
            mark = unit.mark()
            unit.fault(kind, "GN")
            unit.wait("GN", since=mark, times=2)
            # The next failure counts on top of it, as long as there hasn't been a good reply in between.
            unit.wait("RS", since=mark, times=3)
        wait_same(card, lambda tree: both(tree, *good_nodes(unit.data)))
        assert not card.log.find(LOST, log)

    def test_being_busy_is_no_failure(self, good):
        card, unit = good
        log, mark = card.log.mark(), unit.mark()
        unit.refuse("5")
        unit.wait(since=mark, times=8)
        card.clock.freeze(NOW + 9)
        card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.timestamp == NOW + 9)
        assert not card.log.find(LOST, log)
        assert card.tree().module("A").module.data.Vin == unit.data.Vin

    @pytest.mark.parametrize("kind", ["refuse", "bad_check", "wrong_length", "wrong_source"])
    def test_a_module_that_answers_badly_is_lost_too(self, good, kind):
        card, unit = good
        unit.fault(kind, times=None, **({"code": "3"} if kind == "refuse" else {}))
        wait_same(card, lambda tree: both(tree, *expected_loss(unit)))

    def test_it_is_told_everywhere_and_taken_back(self, good):
        card, unit = good
        wanted = card.wait_status(lambda s: s["NOMINALPOWERVA"] == unit.data.VA)
        assert "MODULE_1_LOST" not in wanted["statusAlarms"]
        unit.silent = True
        lost = card.wait_status(lambda s: "MODULE_1_LOST" in s["statusAlarms"])
        assert lost["UPSFAILURE"] is True and "SYSTEM_ANOMALY" in lost["statusAlarms"]
        lost = card.wait_status(lambda s: s["TESTNUMBERJ"] == " " * 16)
        assert (lost["NOMINALPOWERVA"], lost["INPUTVOLTAGE"], lost["OUTPUTPOWERED"]) == (0, 0, False)
        assert (lost["IOCONFIGURATION"], lost["UPSTYPE"]) == (4, 3)
        unit.silent = False
        wait_same(card, lambda tree: both(tree, *good_nodes(unit.data)))
        card.wait_status(lambda s: all(s[key] == wanted[key] for key in wanted if key != "timestamp"))

    def test_it_may_come_back_another_one(self, good):
        card, unit = good
        unit.silent = True
        card.wait_tree(lambda tree: tree.module("A").module.data.get("PMStatus.commError"))
        unit.data.SN, unit.data.Model, unit.data.NBattForBench = "ANOTHER", "SMALLER", ":"
        unit.data.W, unit.data.VA, unit.data.BatteryV = 20000, 21000, 120
        unit.silent = False
        wait_same(card, lambda tree: both(tree, *good_nodes(unit.data)))

    def test_one_good_reply_brings_it_back(self, good):
        """Whatever was asked; the rest of its data come as they are told."""
        card, unit = good
        unit.silent = True
        wait_same(card, lambda tree: both(tree, *expected_loss(unit)))
        unit.refuse("5", ["DE", "DS", "GN", "GI", "RC", "RE", "RK"])
        unit.silent = False
        expected = expected_loss(unit)[1]
        ModuleNode(expected).take("RS", unit.data.encode("RS"), NOW).answered()
        tree = wait_same(card, lambda tree: [(tree.module("A"), expected)])
        assert tree.module("A").module.data.get("alarm.Anomaly"), "until it tells its states"
        card.wait_tree(lambda tree: tree.cabinet("A").box.Ups.timestamp == NOW)
        unit.clear_faults()
        wait_same(card, lambda tree: both(tree, *good_nodes(unit.data)))


def test_a_lost_module_is_no_master(start, bus):
    other = bus.attach(TunnelCabinet("A"))
    card, unit = start("B", "AB")
    wait_module(card)
    Outside(card).make_master("B")
    assert StatusReply.unpack(other.ask("B", "BS").data).idu == 9
    wait_master(card, "B")
    unit.silent = True
    card.wait_tree(lambda tree: not tree.cabinet("B").box.Ups.timestamp)
    reply = StatusReply.unpack(other.ask("B", "BS").data)
    assert reply.idu == 255 and not reply.box.get("Ups.extStatus.isMaster")
    assert reply.box.UPSShelter & 7 == 0
    assert not card.tree().module("B").module.data.get("extStatus.isMaster")
    unit.silent = False
    card.wait_tree(lambda tree: tree.cabinet("B").box.Ups.timestamp)
    reply = StatusReply.unpack(other.ask("B", "BS").data)
    assert (reply.idu, reply.box.UPSShelter & 7) == (255, 4), "good again, but the outside has to name it again"
