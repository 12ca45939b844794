"""Another program of a card: it reads the tree in shared memory and writes into it, taking no lock, as the programs do
that order things of the plant."""

import struct
import time

from sim.records import CMD_NONE, Measures, Node, Panel

# What a card asks its own module round after round.
POLLED = {"DE", "DS", "GI", "GN", "RC", "RE", "RK", "RS"}
# The bit by which a module's clock is asked to be set.
CLOCK_UPDATE = "extStatus.Clock_Update"
SHUTDOWN, RESTORE, DELETE, TEST_BATTERY, MODULE_OFF, MODULE_ON = range(6)


class Outside:
    """Such a program on a card that has built its tree. A node is named by None (the root) or by the letter of the
    cabinet whose module it is."""

    def __init__(self, card):
        self.card = card

    def _place(self, module):
        """Array index of a node."""
        tree = self.card.tree()
        return 0 if module is None else tree.nodes.index(tree.module(module))

    def _write(self, index, offset, data):
        segment = self.card.sandbox.segment()
        self.card.sandbox.write_segment(segment.id, index * Node.SIZE + offset, data)

    def order(self, value, shut=0xFFFF, reboot=0xFFFF, module=None):
        """Writes a command into a panel: the delays first, since the value sets it off."""
        index, at = self._place(module), Node.offset("panel")
        self._write(index, at + Panel.offset("delay_shut"), struct.pack("<HH", shut, reboot))
        self._write(index, at, bytes((value,)))

    def panel(self, module=None):
        """The value in a panel."""
        return self.card.tree().nodes[self._place(module)].panel.value

    def wait_taken(self, module=None, timeout=10.0):
        """Waits until a panel's command has been dealt with: all frames that it causes here have been sent."""
        index = self._place(module)
        self.card.wait_tree(lambda tree: tree.nodes[index].panel.value == CMD_NONE, timeout)

    def carry_out(self, value, shut=0xFFFF, reboot=0xFFFF, module=None, timeout=10.0):
        """Writes a command and waits until it has been dealt with."""
        self.order(value, shut, reboot, module)
        self.wait_taken(module, timeout)

    def mark(self, module, path, wanted=1, shown=None, timeout=10.0):
        """Sets (or clears) a bit of a module's record, as "PMStatus.wrongPower", until `shown(tree)` accepts what the
        card has made of it; by default, until the bit stands. The card writes the same bytes: it is written again when
        it has got lost."""
        field, bit = path.split(".")
        index, at = self._place(module), Node.offset("desc") + Measures.offset(field)
        shown = shown or (lambda tree: tree.module(module).module.data.get(path) == wanted)
        deadline = time.monotonic() + timeout
        while True:
            data = self.card.tree().module(module).module.data
            if data.get(path) != wanted:
                data.set(path, wanted)
                whole = Measures._by_name[field]
                self._write(index, at, whole.pack(getattr(data, field)))
            if shown(self.card.tree()):
                return
            assert time.monotonic() < deadline, "the card doesn't show %s of module %s" % (path, module)
            time.sleep(0.02)

    def make_master(self, letter):
        """Makes a cabinet's module the master, on the card of that cabinet, and waits until its cabinet's record says
        so."""
        self.mark(letter, "extStatus.isMaster",
                  shown=lambda tree: tree.cabinet(letter).box.get("Ups.extStatus.isMaster"))


def told(asked):
    """What a module was asked, without the times: (source, destination, command, data), addresses as characters."""
    return [(chr(a.frame.src), chr(a.frame.dest), a.frame.command, a.frame.data) for a in asked]


def wait_master(card, letter, timeout=10.0):
    """Waits until a card has heard that a cabinet's module is the master."""
    card.wait_tree(lambda tree: tree.cabinet(letter).box.get("Ups.extStatus.isMaster"), timeout)


def wait_module(card, timeout=15.0):
    """Waits until a card's own module has told all that is polled, and its cabinet's record says so."""
    def told(tree):
        node = tree.cabinet(card.card)  # none while the tree is being built
        return node and node.box.Ups.timestamp and node.nominal.VA
    card.wait_tree(told, timeout)
