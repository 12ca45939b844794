"""The tree of nodes as it lies in shared memory: an array linked by index."""

from sim.records import (COMM_LOST, NONE, NULL_NODE, Battery, Extension, Measures, Node, Nominal, SystemStatus,
                         blank_identification, blank_module_identification, text)

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
        """Cabinet nodes by letter, in order; those that are named already, while the tree is being built."""
        return {text(node.ID)[4]: node for node in self.chain(self.root.son) if len(text(node.ID)) > 4}

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
    """The array once cabinets and modules are registered, before the first frame on either line: the built tree with
    the start values of all its nodes. Bytes that neither step writes hold `fill`."""
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
    for node in nodes[2 + len(cabinets):]:
        register_module(node)
    return nodes


def lone_tree(own, cabinets, now, fill=0):
    """The array of a card whose module doesn't answer and that has heard nothing on the bus, from its first aggregation
    of the module on: `own` is its cabinet, `now` what its clock shows."""
    nodes = registered_tree(own, cabinets, fill)
    index = 2 + cabinets.index(own)
    cabinet, module = nodes[index], nodes[index + len(cabinets)]
    lose_module(module, cabinet, now)
    return nodes


def lose_module(module, cabinet, now):
    """What the aggregation at time `now` makes of a module that doesn't answer: its node, and that of its cabinet."""
    register_module(module)
    state = module.module
    state.data.set("PMStatus.commError")
    state.data.set("alarm.Anomaly")
    state.data.clear("extStatus.isMaster")
    module.desc = state.pack() + module.desc[state.SIZE:]
    box = cabinet.box
    tail = cabinet.desc[box.SIZE:]
    box.timestamp = now
    box.Ups = Measures()
    box.Ups.set("PMStatus.commError")
    box.Ups.set("alarm.Anomaly")
    box.UPSShelter = COMM_LOST
    cabinet.desc = box.pack() + tail
    cabinet.nominal = Nominal(timestamp=now)
    cabinet.identification = module.identification


def register_module(node):
    """Gives a module's node its start values, as the registration of the module leaves them."""
    node.identification = blank_module_identification()
    node.nominal = Nominal()
    module = node.module
    tail = node.desc[module.SIZE:]
    found = module.data
    module.data = Measures(
        switchStatus=found.switchStatus, PMStatus=found.PMStatus, Frq_in=500, Frq_byp=500, Frq_out=500, Temp0=25,
        Temp1=found.Temp1, Temp2=found.Temp2, Temp3=found.Temp3, Temp4=found.Temp4, Temp5=found.Temp5,
        Temp6=found.Temp6, Cent_kwh=found.Cent_kwh)
    module.data.set("switchStatus.Bt_present")
    for bit in ("Q1", "LoadOnBypass_Cmd", "BypassDisabled_Cmd", "RemoteCBOff_Cmd", "RemoteEco_Cmd"):
        module.data.clear("switchStatus." + bit)
    module.data.clear("PMStatus.wrongPower")
    module.data.clear("PMStatus.inputDisabled")
    module.data.set("PMStatus.bitCmdUnsupported")
    module.detailTimestamp = 0
    module.states = bytes(22)
    # The switches of a cabinet's record lie where a module's record has the high byte of its first load.
    module.data.Load = [0x800, 0, 0]
    node.desc = module.pack() + tail
