"""Commands for a module of another cabinet: from a panel on the master's card through the bus to the other card, which
queues them, acknowledges and sends them in turn."""

import pytest

from outside import (DELETE, MODULE_OFF, MODULE_ON, POLLED, RESTORE, SHUTDOWN, TEST_BATTERY, Outside, told, wait_master,
                     wait_module)
from tunnel import TunnelCabinet

from sim import frames, mlink

ORDERS = [(SHUTDOWN, "CS", b"0258"), (RESTORE, "CR", b"0258003<"), (DELETE, "CD", b""), (TEST_BATTERY, "TB", b"005")]


@pytest.fixture
def start(gateway, module):
    """start("A"): a real card of a plant of three with its module: the card, its module, a program beside it."""
    def make(letter):
        card = gateway(letter, mask="1110")
        unit = module(card, thinking=0.001)
        wait_module(card)
        return card, unit, Outside(card)
    return make


def tunnelled(bus, mark, sender, to):
    """The frames of the module line that a card has sent to another one."""
    return [mlink.parse(h.frame.data) for h in bus.frames(mark, sender, "QT") if h.frame.dest == frames.address(to)]


def commands(module, mark):
    return [what for what in told(module.queries(since=mark)) if what[2] not in POLLED]


class TestTwoCards:
    """Cards A, the master of the bus, and B are real; C is simulated."""

    @pytest.fixture
    def plant(self, start, cabinets):
        third = cabinets("C")["C"]
        b, a = start("B"), start("A")
        return a, b, third

    def test_from_the_masters_card_to_a_slaves_module(self, plant, bus):
        (a, a_module, outside), (b, b_module, b_outside), _ = plant
        b_outside.make_master("B")
        wait_master(a, "B")
        a_mark = a_module.mark()
        for value, command, data in ORDERS:
            mark, b_mark, log, b_log = bus.mark(), b_module.mark(), a.log.mark(), b.log.mark()
            outside.carry_out(value, 600, 60)
            query = mlink.frame("B", "1", command, data)
            assert tunnelled(bus, mark, "A", "B") == [query], "once"
            answers = [h.frame for h in bus.frames(mark, "B", "QT")]
            assert [answer.dest for answer in answers] == [frames.BROADCAST]
            assert answers[0].data[4:] == mlink.encode("1", "B", command)
            b_module.wait(command, since=b_mark)
            assert commands(b_module, b_mark) == [("B", "1", command, data)]
            assert b.log.count("Add AsyncQuery %s to 0x31\n" % command, b_log) == 1
            assert not a.log.lines(log, level="Err")
        assert commands(a_module, a_mark) == []

    def test_what_becomes_of_it_there_is_not_told(self, plant, bus):
        """The acknowledge is of the card; the module's refusals are the other card's affair."""
        (a, _, outside), (b, b_module, b_outside), _ = plant
        b_outside.make_master("B")
        wait_master(a, "B")
        b_module.refuse("5", "CS", times=5)
        mark, b_mark, log = bus.mark(), b_module.mark(), a.log.mark()
        outside.carry_out(SHUTDOWN, 600)
        assert len(tunnelled(bus, mark, "A", "B")) == 1
        b_module.wait("CS", since=b_mark, times=6)
        b_module.refuse("1", "TB")
        outside.carry_out(TEST_BATTERY)
        b_module.wait("TB", since=b_mark, times=2)
        b_module.wait("RS", since=b_module.mark(), times=2)
        assert commands(b_module, b_mark) == [("B", "1", "CS", b"0258")] * 6 + [("B", "1", "TB", b"005")] * 2
        assert not a.log.lines(log, level="Err")
        assert b.log.find("Non e' possibile eseguire il comando in questo momento!")

    def test_panel_of_another_cabinets_module(self, plant, bus):
        (a, a_module, outside), (b, b_module, _), _ = plant
        a.wait_tree(lambda tree: tree.cabinet("B").box.Ups.timestamp)
        for value, data in ((MODULE_OFF, b"0"), (MODULE_ON, b"1")):
            mark, a_mark, b_mark, log = bus.mark(), a_module.mark(), b_module.mark(), a.log.mark()
            outside.carry_out(value, module="B")
            assert tunnelled(bus, mark, "A", "B") == [mlink.frame("B", "1", "DC", data)]
            b_module.wait("DC", since=b_mark)
            assert commands(b_module, b_mark) == [("B", "1", "DC", data)]
            assert commands(a_module, a_mark) == []
            b.wait_tree(lambda tree: tree.cabinet("B").box.get("Ups.status.Output_Powered") == (data == b"1"))
            assert not a.log.find("nell'invio del comando|non accodato", log)

    def test_the_other_way_after_the_role_has_moved(self, plant, bus):
        (a, a_module, a_outside), (b, b_module, b_outside), third = plant
        a_outside.make_master("A")
        wait_master(b, "A")
        # A slave leaves the panel of the system alone.
        b_mark, mark = b_module.mark(), bus.mark()
        b_outside.order(SHUTDOWN, 600)
        bus.wait("A BN", since=mark)
        before = b.status()["timestamp"]
        b.wait_status(lambda s: s["timestamp"] > before + 1)
        assert b_outside.panel() == SHUTDOWN
        assert not bus.frames(mark, command="QT") and commands(b_module, b_mark) == []
        b_outside.order(255)

        a.interrupt()
        a.log.wait_message("attende per")
        third.hand_over("B")
        bus.wait("B BN", timeout=10)
        wait_master(b, "A")
        for value, command, data in ORDERS:
            mark, a_mark, log = bus.mark(), a_module.mark(), b.log.mark()
            b_outside.carry_out(value, 600, 60)
            assert tunnelled(bus, mark, "B", "A") == [mlink.frame("A", "1", command, data)]
            assert [h.frame.data[4:] for h in bus.frames(mark, "A", "QT")] == [mlink.encode("1", "A", command)]
            a_module.wait(command, since=a_mark)
            assert commands(a_module, a_mark) == [("A", "1", command, data)]
            assert not b.log.lines(log, level="Err")
        assert commands(b_module, b_mark) == []

        # What the former master's programs order of other cabinets waits until it is master again.
        mark, b_mark = bus.mark(), b_module.mark()
        a_outside.order(MODULE_OFF, module="B")
        a.log.wait_message("Start singleQC QT to 0xEB")
        bus.wait("B BN", since=mark)
        assert not bus.frames(mark, "A", "QT") and a_outside.panel("B") == MODULE_OFF
        b.interrupt()
        b.log.wait_message("attende per")
        third.hand_over("A")
        b_module.wait("DC", since=b_mark, timeout=10)
        a_outside.wait_taken("B")
        assert tunnelled(bus, mark, "A", "B") == [mlink.frame("B", "1", "DC", b"0")]
        assert not b_module.unit.on


class TestOneCard:
    """Card A is real; B, whose module is the master, and C are simulated."""

    @pytest.fixture
    def plant(self, start, bus, cabinets):
        model = cabinets("C")["C"]
        other = bus.attach(TunnelCabinet("B"))
        other.status, other.nominal = model.status.copy(), model.nominal.copy()
        other.status.Ups.set("extStatus.isMaster")
        other.idu = 9
        card, unit, outside = start("A")
        wait_master(card, "B")
        return card, unit, outside, other

    def test_five_tries(self, plant, bus):
        card, module, outside, other = plant
        for value, command, data in ORDERS:
            other.fault("bad_crc", "QT", times=None)
            mark, place, log = bus.mark(), module.mark(), card.log.mark()
            outside.carry_out(value, 600, 60, timeout=30)
            other.clear_faults()
            assert tunnelled(bus, mark, "A", "B") == [mlink.frame("B", "1", command, data)] * 5
            assert card.log.count("FALLITO Comando QT inviato alla scheda 0xEB", log) == 5
            assert card.log.count("Pacchetto incapsulato %s da 'B' per '1'\n" % command, log) == 5
            failed = "Err .*Errore nell'invio del comando CABP_QT all'armadio 0x42\n"
            assert card.log.count(failed, log) == 5
            # And that is all: to the command it counts as done.
            assert not card.log.find("Errore errno|ESCO|al modulo", log)
            assert commands(module, place) == []
            # The cabinet is not lost by it.
            assert "MODULE_2_LOST" not in card.status()["statusAlarms"]

    def test_no_more_tries_than_it_takes(self, plant, bus):
        card, _, outside, other = plant
        other.fault("silent", "QT", times=1)
        other.fault("wrong_command", "QT", times=1)
        mark, log = bus.mark(), card.log.mark()
        outside.carry_out(SHUTDOWN, 600, timeout=20)
        queries = [h for h in bus.frames(mark, "A", "QT")]
        assert len(queries) == 3 and len(other.orders) == 3
        assert queries[1].start - queries[0].start >= 3.0, "a silent card costs three seconds"
        assert card.log.count("Errore nell'invio del comando CABP_QT all'armadio 0x42\n", log) == 2

    def test_a_module_panel_tries_five_times_too(self, plant, bus):
        card, _, outside, other = plant
        other.fault("bad_crc", "QT", times=None)
        mark, log = bus.mark(), card.log.mark()
        outside.carry_out(MODULE_OFF, module="B", timeout=30)
        assert tunnelled(bus, mark, "A", "B") == [mlink.frame("B", "1", "DC", b"0")] * 5
        assert card.log.count("Errore nell'invio del comando CABP_QT all'armadio 0x42\n", log) == 5
        assert not card.log.find("non accodato", log)

    def test_the_lowest_letter_is_the_master(self, plant, bus):
        card, module, outside, other = plant
        outside.make_master("A")
        mark, place = bus.mark(), module.mark()
        outside.carry_out(SHUTDOWN, 600)
        assert commands(module, place) == [("A", "1", "CS", b"0258")]
        assert tunnelled(bus, mark, "A", "B") == []

    def test_a_lost_master_is_none(self, plant, bus):
        card, module, outside, other = plant
        other.silent = True
        card.wait_status(lambda s: "MODULE_2_LOST" in s["statusAlarms"], 30)
        mark, place = bus.mark(), module.mark()
        outside.carry_out(SHUTDOWN, 600)
        assert tunnelled(bus, mark, "A", "B") == [] and commands(module, place) == []

    def test_a_cabinet_without_its_module_is_not_ready(self, plant, bus):
        card, _, outside, other = plant
        other.status.UPSShelter = 0
        card.wait_tree(lambda tree: tree.cabinet("B").box.UPSShelter == 0)
        mark = bus.mark()
        for value, command, _ in ORDERS:
            log = card.log.mark()
            outside.carry_out(value, 600, 60)
            assert card.log.count("Err .*IL MODULO NON E` PRONTO A RICEVERE IL COMANDO!!!!\n", log) == 1
            assert card.log.count("Errore errno:-1 nell'invio del comando %s al modulo 1@B\n" % command, log) == 1
            assert card.log.count("ESCO\n", log) == (0 if value == TEST_BATTERY else 1)
        assert tunnelled(bus, mark, "A", "B") == []

    def test_the_module_number_goes_with_the_report(self, plant, bus):
        """A cabinet that reports no number has its master at '7', for which there is no slot."""
        card, _, outside, other = plant
        other.idu = 255
        mark = bus.mark()
        bus.wait("B BS", since=mark)
        bus.wait("A BS", since=bus.mark())
        log = card.log.mark()
        outside.carry_out(SHUTDOWN, 600)
        assert card.log.count("Errore errno:-1 nell'invio del comando CS al modulo 7@B\n", log) == 1
        assert tunnelled(bus, mark, "A", "B") == []
