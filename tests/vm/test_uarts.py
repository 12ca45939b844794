"""The gateway on real drivers of serial ports: what pseudo-terminals can't show."""

import re
import statistics
import time

import pytest

from sim import statusfile

# termios flags, octal, as on every Linux of these architectures.
BRKINT, IGNPAR = 0o2, 0o4
CS8, CSTOPB, CREAD, PARENB, CLOCAL, CRTSCTS = 0o60, 0o100, 0o200, 0o400, 0o4000, 0o20000000000
ISIG, ICANON, ECHO, ECHOE = 0o1, 0o2, 0o10, 0o20

# RS-485 mode by port: enabled, and RTS after or on sending.
RS485 = {"/dev/ttyQX1": 5, "/dev/ttyQX2": 5, "/dev/ttyQX4": 3}


def milliseconds(seconds):
    return "%.1f ms" % (seconds * 1000)


@pytest.mark.parametrize("bus", ["/dev/ttyQX1", "/dev/ttyQX4"])
def test_ports_are_set_up_as_the_protocols_need_them(machine, card, bus):
    card.start(bus=bus)
    card.wait_log("Avvio la thread CABP")
    for port, baud in ((bus, 9600), ("/dev/ttyQX2", 1200)):
        fields = machine.run("probe termios %s" % port).split()
        iflag, oflag, cflag, lflag = (int(field, 8) for field in fields[:4])
        assert (iflag, oflag) == (BRKINT | IGNPAR, 0)
        assert cflag & (CS8 | CSTOPB | CREAD | PARENB | CLOCAL | CRTSCTS) == CS8 | CREAD | CLOCAL
        assert lflag & (ISIG | ICANON | ECHO | ECHOE) == ISIG
        assert fields[4:6] == [str(baud)] * 2
        assert fields[6:] == ["0"] * 9, "control characters are left"


@pytest.mark.parametrize("bus", ["/dev/ttyQX1", "/dev/ttyQX4"])
def test_rs485_mode_is_asked_for_and_a_refusal_does_no_harm(machine, card, bus):
    heard = card.line(bus)
    card.start(bus=bus)
    card.wait_log("Avvio la thread CABP")
    log = card.log()
    for port in (bus, "/dev/ttyQX2"):
        assert "%s in uso" % port[5:] in log
        if machine.kind == "armhf":
            assert machine.run("probe rs485 %s" % port).split() == [str(RS485[port]), "1", "1"]
            assert "POST - flags:%d delay_before_send:1 delay_after_send:1" % RS485[port] in log
        else:
            assert "TIOCSRS485: " in machine.run("probe ask485 %s" % port, check=False)
            assert machine.run("probe rs485 %s" % port).split() == ["0", "0", "0"]
    heard.wait("card BN", timeout=20)


@pytest.mark.parametrize("baud", [9600, 1200])
def test_a_drain_takes_as_long_as_the_line(machine, card, figures, baud):
    card.line("/dev/ttyQX1", baud=baud)
    # The first byte after the emulator's start isn't measured.
    machine.run("probe drain /dev/ttyQX1 %d 10 1" % baud)
    for count in (10, 103, 278):
        line = count * 10 / baud
        taken = [int(word) / 1e6 for word in machine.run("probe drain /dev/ttyQX1 %d %d 5" % (baud, count)).split()]
        # A host with other work can only make a drain longer: the shortest tells the driver's.
        figures["drain of %d bytes at %d baud" % (count, baud)] = "shortest %s, median %s on a line that takes %s" % (
            milliseconds(min(taken)), milliseconds(statistics.median(taken)), milliseconds(line))
        assert abs(min(taken) - line) <= max(8 * 10 / baud, 0.15 * line), taken


def test_a_break_reaches_a_gateway_without_a_controlling_terminal(machine, card):
    bus = card.line("/dev/ttyQX1")
    card.start()
    # Nobody answers: the line is idle until the query's time is over.
    bus.wait("card BN", timeout=20)
    assert machine.run("probe terminal %s" % card.pid).strip() == "0"
    before = int(machine.run("probe breaks /dev/ttyQX1"))
    machine.send_break(0)
    card.wait_log("cntBreakDetect:1")
    assert int(machine.run("probe breaks /dev/ttyQX1")) == before + 1
    # No longer master: it listens for as long as the address of its cabinet says, and asks nothing.
    card.wait_log("UPSBOX:0XEA attende per 60000 millisecondi  --- LastMaster:0xE0")
    assert bus.quiet(8.0, "card")


def test_a_break_is_sent_after_a_disturbed_answer(machine, card, cabinets, figures):
    bus = card.line("/dev/ttyQX1")
    others = cabinets(bus, "BCD")
    card.start()
    card.wait_status(lambda status: "MODULE_2_LOST" not in status["statusAlarms"])
    machine.trace_registers(True)
    others["B"].fault("bad_crc", times=None)
    card.wait_log("Invio del carattere BREAK!!!")
    time.sleep(0.5)
    machine.trace_registers(False)
    sent = machine.breaks_sent()
    figures["BREAK sent"] = ", ".join(milliseconds(length) for length in sent)
    assert sent and all(0.2 < length < 0.6 for length in sent)
    # Its own BREAK doesn't take the role away.
    bus.wait("card BS", timeout=10)
    assert "cntBreakDetect" not in card.log()


def test_whole_rounds_with_cabinets_and_a_module(machine, card, cabinets, module, figures):
    bus = card.line("/dev/ttyQX1")
    others = cabinets(bus, "BCD")
    power = module()
    card.start()
    first = bus.wait("card BN", timeout=30, since=0)
    figures["start to first byte"] = milliseconds(first.start - card.started_at)
    status = card.wait_status(lambda status: status["OUTPUTPOWERED"] and status["INPUTVOLTAGE"] > 200
                              and not any("LOST" in name for name in status["statusAlarms"]), timeout=90)
    assert statusfile.problems(status) == []
    mark = bus.mark()
    asked = power.mark()
    time.sleep(15)
    for letter, other in others.items():
        other.model = None
        for command in ("BN", "BS"):
            assert len([h for h in bus.frames(mark, letter, command)]) >= 3, bus.transcript(mark)
    assert len(bus.frames(mark, "card", "BS")) >= 12
    assert not bus.noises(mark) and not bus.collisions
    assert len(power.queries(since=asked)) >= 5
    time.sleep(5)
    tree = card.tree()
    for letter, other in others.items():
        assert list(tree.cabinet(letter).box.Ups.Vin) == list(other.status.Ups.Vin)
    gaps = [after.start - before.end
            for before, after in zip(bus.frames(mark), bus.frames(mark)[1:])
            if before.sender in others and after.sender == "card"]
    figures["master: answer's end to next query"] = "median %s, longest %s" % (
        milliseconds(statistics.median(gaps)), milliseconds(max(gaps)))
    memory = card.memory()
    figures["resident memory"] = "%d kB, of which %d kB are no file's (heap, stacks, data)" % (
        memory["Rss"], memory["Anonymous"])


def test_segment_and_status_file_are_in_memory(machine, card, cabinets):
    bus = card.line("/dev/ttyQX1")
    cabinets(bus, "BCD")
    card.start()
    card.wait_status(lambda status: True)
    assert re.search(r"(?m)^tmpfs on /var/log type tmpfs", machine.run("mount"))
    assert machine.run("df /var/log/vu.json | tail -n 1").split()[0] == "tmpfs"
    _, mode, size = card.segment()
    assert mode == "604"
    tree = card.tree()
    assert len(tree.nodes) * type(tree.nodes[0]).SIZE == size
    assert "/tmp/" not in machine.run("ls -l /proc/%s/cwd" % card.pid)


def test_a_slave_answers_its_master(card, cabinets, figures):
    bus = card.line("/dev/ttyQX1")
    master = cabinets(bus, "A")["A"]
    card.start(module_id="2")
    card.wait_log("Avvio la thread MLink")
    taken = []
    for turn in range(20):
        mark = bus.mark()
        reply = master.ask("B", "BS" if turn % 2 else "BN", timeout=5)
        assert reply is not None, bus.transcript(mark)
        query, answer = bus.frames(mark)[:2]
        taken.append(answer.start - query.end)
        time.sleep(0.05)
    figures["slave: query's end to answer"] = "median %s, longest %s" % (
        milliseconds(statistics.median(taken)), milliseconds(max(taken)))
    assert statistics.median(taken) < 0.1


def test_a_master_halts_the_card(machine, card, cabinets):
    bus = card.line("/dev/ttyQX1")
    master = cabinets(bus, "A")["A"]
    card.start(module_id="2")
    card.wait_log("Avvio la thread MLink")
    assert master.ask("B", "BN", timeout=5) is not None
    assert master.ask("B", "CH", timeout=5) is not None
    machine.wait_console("System halted", timeout=30)
    card.pid = None
