"""The segment: its key, mode and size, every byte of the tree, and what an old segment does."""

import os
import shutil

import pytest

from sim import shm, tree
from sim.frames import address
from sim.records import Node

NOW = 1700000000
PLANTS = [("1000", "A"), ("1100", "AB"), ("1101", "ABD"), ("1111", "ABCD")]
# A card that listens for more than a minute before it does anything: its tree stands still.
SLAVE = {"A": "B", "AB": "B", "ABD": "D", "ABCD": "C"}


def wait_registered(card, cabinets):
    """Waits until the cabinets of the card are registered."""
    card.log.wait_message("Add Query BN to 0x%02X" % address(cabinets[-1]))
    return card.tree()


def settled(card, cabinets, fill=0):
    """Starts a slave whose module doesn't answer, waits until it only writes the same again and again, and returns its
    tree with the one expected. A card that isn't part of the plant writes nothing once it has registered it."""
    card.clock.freeze(NOW)
    card.start()
    if card.card not in cabinets:
        return wait_registered(card, cabinets), tree.registered_tree(card.card, cabinets, fill)
    card.log.wait_message("Nessun modulo e' in buono stato di comunicazione", times=2)
    return card.tree(), tree.lone_tree(card.card, cabinets, NOW, fill)


def differences(found, expected):
    """Each byte that is not as expected, by node and field."""
    lines = []
    for index, (mine, right) in enumerate(zip(found.nodes, expected)):
        if mine.pack() == right.pack():
            continue
        lines += ["node %d, %s" % (index, line) for line in mine.differences(right)]
        if isinstance(mine, Node):
            lines += ["node %d, desc at %d: %02x, %02x" % (index, i, a, b)
                      for i, (a, b) in enumerate(zip(mine.desc, right.desc)) if a != b]
    if len(found.nodes) != len(expected):
        lines.append("%d nodes, %d expected" % (len(found.nodes), len(expected)))
    return lines


@pytest.mark.parametrize("mask, cabinets", PLANTS)
def test_key_mode_and_size(gateway, mask, cabinets):
    card = gateway(mask=mask)
    card.wait_tree()
    (segment,) = card.sandbox.segments()
    assert segment.key == shm.key_of(card.binary, 1)
    assert segment.mode == 0o604
    assert segment.size == 446 * (2 + 2 * len(cabinets)) == tree.segment_size(len(cabinets))
    assert segment.attached == 1


@pytest.mark.parametrize("mask, cabinets", PLANTS)
def test_every_byte_in_a_fresh_segment(gateway, mask, cabinets):
    card = gateway(SLAVE[cabinets], mask=mask, start=False)
    assert differences(*settled(card, cabinets)) == []


@pytest.mark.parametrize("mask, cabinets", PLANTS)
def test_every_byte_over_an_old_segment(gateway, mask, cabinets):
    card = gateway(SLAVE[cabinets], mask=mask, start=False)
    old = card.sandbox.create_segment(tree.segment_size(len(cabinets)), fill=0x5A)
    found, expected = settled(card, cabinets, fill=0x5A)
    assert card.sandbox.segment().id == old
    assert differences(found, expected) == []


@pytest.mark.parametrize("module_id", ["7", ""])
def test_every_byte_at_the_address_of_nobody(gateway, module_id):
    card = gateway(mask="1011", module_id=module_id)
    assert differences(wait_registered(card, "ACD"), tree.registered_tree("7", "ACD")) == []


def printed(nodes):
    """The tree as the daemon prints it at its start, without prefixes."""
    def node_lines(level, node):
        pad, name, ident = " " * (8 * level), node.Description.split(b"\0")[0], node.ID.split(b"\0")[0]
        out = "%s%s\n%stype:%d\n%s%s   %d\n%s nxt:%d prv:%d\n" % (
            pad, name.decode(), pad, node.nodetype, pad, ident.decode(), node.idx, pad, node.nxtBrother,
            node.prvBrother)
        if node.ext < 255:
            ext = nodes[node.ext]
            out += "%stype:%d\n%sDevType%d ComType%d\n%s%s\n" % (
                pad, ext.nodetype, pad, ext.DevType, ext.ComType, pad, ext.DevTypeText.split(b"\0")[0].decode())
        if node.son < 255:
            out += "\n" + node_lines(level + 1, nodes[node.son])
        if node.nxtBrother < 255:
            out += "\n" + node_lines(level, nodes[node.nxtBrother])
        return out
    return "\n\n" + node_lines(0, nodes[0])


@pytest.mark.parametrize("mask, cabinets", PLANTS)
def test_the_tree_is_printed(gateway, mask, cabinets):
    card = gateway(mask=mask)
    card.wait_tree()
    card.log.wait_message(printed(tree.expected_tree("A", cabinets)))


def test_a_larger_old_segment_is_used_again(gateway):
    card = gateway("B", mask="1100", start=False)
    old = card.sandbox.create_segment(6000, fill=0xC3)
    settled(card, "AB")
    (segment,) = card.sandbox.segments()
    assert (segment.id, segment.size) == (old, 6000)
    size = tree.segment_size(2)
    found = tree.Tree(card.sandbox.read_segment(old, size))
    assert differences(found, tree.lone_tree("B", "AB", NOW, fill=0xC3)) == []
    assert card.sandbox.read_segment(old, 6000 - size, size) == b"\xC3" * (6000 - size)


def test_a_smaller_old_segment_is_reported_and_survived(gateway, cabinets, bus):
    cabinets("B")
    card = gateway("A", mask="1100", start=False)
    old = card.sandbox.create_segment(446, fill=0xC3)
    card.start()
    card.log.wait(r"ShmMgr\.cpp Err \(\w+\): Errore nell'allocazione della shared memory!\nInvalid argument\n")
    card.log.wait(r"Err \(\w+\): Errore nella creazione della shared Memory\n")
    card.log.wait(r"Err \(\w+\): Errore nella costruzione dell'albero del sistema\n")
    # It goes on without a tree: it asks its cabinets and hears them.
    bus.wait("B BS", timeout=10)
    bus.wait("B BS", timeout=10)
    assert card.running
    assert card.sandbox.read_segment(old, 446) == b"\xC3" * 446
    assert card.status() is None, "without a tree nothing is aggregated"


def test_the_segment_outlives_the_process_and_is_built_anew(gateway):
    card = gateway("B", mask="1111", start=False)
    settled(card, "ABCD")
    first = card.sandbox.segment()
    card.stop()
    assert card.sandbox.segment().attached == 0
    card.sandbox.write_segment(first.id, 0, b"\xA5" * first.size)
    found, expected = settled(card, "ABCD", fill=0xA5)
    assert card.sandbox.segment().id == first.id
    assert differences(found, expected) == []


def test_the_working_directory_decides_the_key(gateway):
    card = gateway(start=False)
    elsewhere = os.path.join(card.sandbox.directory, "elsewhere")
    shutil.move(card.binary, elsewhere)
    card.binary = elsewhere
    card.start()
    card.wait_status()
    (segment,) = card.sandbox.segments()
    assert segment.key == -1, "without the file UGW the key is what ftok gives for its failure"
    assert segment.size == 4460
