"""The tree of nodes as it lies in shared memory: an array linked by index."""

from sim.records import (COMM_LOST, NONE, NULL_NODE, Battery, Extension, Measures, Node, Nominal, SystemStatus,
                         blank_identification, text)

SYSTEM, CABINET, BATTERY_BOX, MODULE, BYPASS, EXTENSION = range(6)


def node_count(cabinets, modules=None):
    """Array slots of a plant: root, extension, the cabinets, their modules."""
    return 2 + cabinets + (cabinets if modules is None else modules)


def segment_size(cabinets, modules=None):
    """Bytes of the segment of such a plant."""
    return node_count(cabinets, modules) * Node.SIZE


class Tree:
    """A copy of the segment. `nodes` is the array, with an Extension in slot 1."""

    def __init__(self, data):
        self.data = bytes(data)
        step = Node.SIZE
        self.nodes = [(Extension if i == 1 else Node).unpack(self.data[i * step:(i + 1) * step])
                      for i in range(len(self.data) // step)]

    @property
    def root(self):
        """The system's node."""
        return self.nodes[0]

    def chain(self, index):
        """Nodes from `index` along nxtBrother."""
        seen = set()
        while index < len(self.nodes) and index != NULL_NODE and index not in seen:
            seen.add(index)
            yield self.nodes[index]
            index = self.nodes[index].nxtBrother

    def cabinets(self):
        """Cabinet nodes by letter, in order."""
        return {text(node.ID)[4]: node for node in self.chain(self.root.son)}

    def cabinet(self, letter):
        """The node of a cabinet, or None."""
        return self.cabinets().get(letter)

    def module(self, letter):
        """The node of a cabinet's module, or None."""
        cabinet = self.cabinet(letter)
        if cabinet is None or cabinet.son >= len(self.nodes):
            return None
        return self.nodes[cabinet.son]

    def ids(self):
        """IDs of all nodes in array order; the extension has None."""
        return [None if i == 1 else text(node.ID) for i, node in enumerate(self.nodes)]


def expected_tree(own, cabinets, fill=0, device_number=0):
    """The array as a card of cabinet `own` (a letter, or any character for an odd address) builds it for a plant of
    `cabinets`, before any data are in; every byte that the building leaves alone holds `fill`.

    Text fields end with a NUL, what lies behind it is left alone too.
    """
    def blank(cls):
        return cls.unpack(bytes((fill,)) * cls.SIZE)

    def put(record, field, value):
        width = len(getattr(record, field))
        data = value.encode("latin-1") + b"\0"
        setattr(record, field, data + bytes((fill,)) * (width - len(data)))

    def init(node, index, kind, description, ident):
        node.nodetype, node.idx = kind, index
        put(node, "Description", description)
        put(node, "ID", ident)
        node.nxtBrother = node.prvBrother = node.son = node.ext = NULL_NODE
        node.panel.value = 255
        node.panel.delay_shut = node.panel.delay_reboot = 65535
        return node

    n = len(cabinets)
    root = init(blank(Node), 0, SYSTEM, "System QPR - %5d" % (device_number >> 9), "S" + own)
    root.ext, root.son = 1, 2 if n else NULL_NODE
    extension = blank(Extension)
    extension.nodetype, extension.DevType, extension.ComType = EXTENSION, 24, 0
    put(extension, "DevTypeText", "MLINK51201RU")
    nodes = [root, extension]
    for i, letter in enumerate(cabinets):
        node = init(blank(Node), 2 + i, CABINET, "UpsBox %s" % letter, "S%s.B%s" % (own, letter))
        node.prvBrother = 1 + i if i else NULL_NODE
        node.nxtBrother = 3 + i if i + 1 < n else NULL_NODE
        node.son = 2 + n + i
        nodes.append(node)
    for i, letter in enumerate(cabinets):
        nodes.append(init(blank(Node), 2 + n + i, MODULE, "Module 1", "S%s.B%s.M1" % (own, letter)))
    return nodes


def registered_tree(own, cabinets, fill=0):
    """The array once the cabinets are registered, before the first frame on the bus: the built tree with the start
    values of the root and of the cabinet nodes. Bytes that neither step writes hold `fill`."""
    nodes = expected_tree(own, cabinets, fill)
    state = SystemStatus()
    state.Ups.set("status.SWOUT")
    state.Ups.set("extStatus.UPS_OK")
    state.Ups.set("PMStatus.bitCmdUnsupported")
    state.set("externalSwitchStatus.SWBATT_EXT")
    state.set("externalSwitchStatus.EPO")
    state.UPSBox = [COMM_LOST if letter in cabinets else NONE for letter in "ABCD"]
    nodes[0].desc = state.pack()
    for node in nodes[2:2 + len(cabinets)]:
        node.identification = blank_identification()
        node.nominal = Nominal()
        box = node.box
        tail = node.desc[box.SIZE:]
        box.timestamp = box.Batteries.timestamp = 0
        box.Ups = Measures()
        box.Ups.set("extStatus.UPS_OK")
        box.Ups.set("PMStatus.bitCmdUnsupported")
        box.Ups.set("status.SWOUT")
        for shelter in range(5):
            box.Batteries.shelter[shelter] = Battery(statusStrPos=0x80, statusStrNeg=0x80)
        box.Batteries.barsPosV = box.Batteries.barsNegV = 0
        box.boxStatus = box.externalSwitchStatus = box.mcuStatus = box.MCUMUStatus = 0
        box.set("UPSShelter.alarmSt", COMM_LOST)
        node.desc = box.pack() + tail
    return nodes
