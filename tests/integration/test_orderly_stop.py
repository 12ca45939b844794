"""The orderly stop, which nothing in the system asks for: only the flag in the process's memory, set from outside as a
debugger would, leads there."""

import re
import subprocess

import pytest

from outside import wait_module


def ask_to_stop(card):
    """Sets the flag for which the main thread looks once a second."""
    table = subprocess.run(["nm", card.binary], check=True, capture_output=True, text=True).stdout
    symbol = re.search(r"^([0-9a-f]+) [BbDd] needRestart$", table, re.M)
    if symbol is None:
        pytest.skip("the binary has been stripped of its symbols")
    pid = card.program.pid
    with open("/proc/%d/maps" % pid) as maps:
        base = next(int(line.split("-")[0], 16) for line in maps if line.rstrip().endswith("/UGW"))
    with open("/proc/%d/mem" % pid, "r+b", buffering=0) as memory:
        memory.seek(base + int(symbol.group(1), 16))
        assert memory.read(1) == b"\0"
        memory.seek(base + int(symbol.group(1), 16))
        memory.write(b"\1")


def deregistration():
    """The lines that all four cabinets give, whether they are there or not."""
    lines = []
    for letter in "ABCD":
        lines += [("Dbg", "DeRegistro armadio %s: DeRegistro il modulo BYPASS" % letter),
                  ("Dbg", "           Passo ora alla De-registrazione di TUTTI gli UPS"),
                  ("Dbg", "Modulo UPS 1 DeRegistrato")]
    return lines


@pytest.mark.parametrize("letter, silent", [("A", False), ("B", False), ("A", True)])
def test_ends_in_the_order_of_the_start_reversed(bus, gateway, module, cabinets, letter, silent):
    """A master, a slave, a master whose module doesn't answer; both links work until the end."""
    others = cabinets("B" if letter == "A" else "A")
    card = gateway(letter, mask="1100")
    unit = module(card, thinking=0.001)
    wait_module(card)
    if letter == "A":
        card.wait_tree(lambda tree: tree.cabinet("B").box.Ups.timestamp)
    else:
        assert others["A"].ask("B", "BN") is not None
    unit.silent = silent
    unit.wait("DE", since=unit.mark(), timeout=10)
    mark, bus_mark = card.log.mark(), bus.mark()
    ask_to_stop(card)
    if letter == "B":
        # A slave notices once it hears something, or nothing for two minutes.
        card.log.wait_message("Attendo arresto effettivo thread CABP", since=mark)
        others["A"].announce()
    assert card.wait_exit(20) == 0

    lines = [line for line in card.log.lines(mark) if line.file]
    said = [(line.level, line.message) for line in lines]
    system = [(line.level, line.message) for line in lines if line.file in ("SysMgr.cpp", "UGW.cpp")]
    assert system == [("", "bye bye"), ("", "Fermo la thread CABP"), ("", "Attendo arresto effettivo thread CABP"),
                      ("", "Fermo la thread MLink"), ("", "Attendo arresto effettivo thread MLink"),
                      *deregistration()]

    def place(text):
        found = [i for i, (_, message) in enumerate(said) if text in message]
        assert len(found) == 1, (text, found)
        return found[0]
    # The bus thread is down before the module thread is told, that before the records go, those before the tree.
    order = [place(text) for text in ("Attendo arresto effettivo thread CABP", "Fermo la thread MLink",
                                      "Attendo arresto effettivo thread MLink", "EXIT ThMLINK",
                                      "DeRegistro armadio A", "Remove Query RX to 0x31", "DeRegistro armadio D",
                                      "shared memory deallocata")]
    assert order == sorted(order)
    assert card.sandbox.segments() == []
    # RX was never registered, which is told; the queries that were polled go with the queues.
    removed = [i for i, (_, message) in enumerate(said) if message.startswith("Remove Query") and "0x31" in message]
    assert [said[i] for i in removed] == [("", "Remove Query RX to 0x31")]
    assert said[removed[0] + 1] == ("Err", "L'elemento NON e'mai stato registrato")
    assert letter == "A" or not bus.frames(bus_mark, sender=letter), "the slave goes without a word"


def test_can_be_started_again_after_it(gateway, module):
    card = gateway("A", mask="1000")
    unit = module(card, thinking=0.001)
    wait_module(card)
    ask_to_stop(card)
    assert card.wait_exit(20) == 0
    mark = unit.mark()
    card.start()
    unit.wait("RS", since=mark)
    card.wait_status(lambda s: s["OUTPUTPOWERED"])
