"""What a card makes of what its own module tells: the module's node, reply by reply, and the record of its cabinet.

A model of the card's decoding and of its module aggregation, on the simulator's own codec of the module line.
"""

import time

from sim import mdata, mstates
from sim.records import FAULT, CabinetStatus, Measures
from sim.tree import lose_module, registered_tree

# The order of a round.
ROUND = ["DE", "DS", "GI", "GN", "RC", "RE", "RK", "RS"]
# A version that the auxiliary board reports while it has none.
NO_VERSION = b"SWQ417-ZZ-ZZ"
GI_SEEN, GE_SEEN = 1, 2

ALARM_FLAGS = ("Lock", "Battery_Low", "Bypass_Bad", "Alarm_Overload", "Alarm_Temperature")
STATUS_FLAGS = ("Output_Powered", "Battery_Working", "On_Bypass", "Shutdown_Active", "Shutdown_Imminent")
EXT_FLAGS = ("Battery_Charging", "Replace_Battery", "Test_in_progress")
# Alarms that are summed up from the bytes of the 176 states.
SUMMED_UP = {"Warning": slice(0, 2), "Anomaly": slice(2, 8), "Fault": slice(8, 14), "Lock": slice(14, 20)}


class ModuleNode:
    """A module's node as it should be. `take(command, data, now)` puts in what the data of one reply tell."""

    def __init__(self, node):
        self.node = node

    def take(self, command, data, now):
        state = self.node.module
        fields = mdata.decode(command, data)
        getattr(self, "_" + command)(fields, state, now)
        self.node.desc = state.pack() + self.node.desc[state.SIZE:]
        return self

    def answered(self):
        """What an aggregation does to the node of a module that answers."""
        state = self.node.module
        state.data.clear("PMStatus.commError")
        self.node.desc = state.pack() + self.node.desc[state.SIZE:]
        return self

    def _GI(self, fields, _state, now):
        ident = self.node.identification
        for name in ("SN", "Model", "SWVer"):
            setattr(ident, name, fields[name] + b"\0")
        for name in ("IO_Cfg", "UPS_Type", "Boost_Cfg", "Buck_Cfg", "Error_CTRL", "PwrShareCfg", "BattBenches",
                     "ParallelInfo"):
            setattr(ident, name, fields[name][0])
        if fields["NBattForBench"] != b"0":
            ident.NBattForBench = fields["NBattForBench"][0] & 0x0F
        ident.tbdGI = fields["tbdGI"]
        ident.partialInfo |= GI_SEEN
        if ident.partialInfo & GE_SEEN:
            ident.timestamp = now

    def _GE(self, fields, _state, now):
        ident = self.node.identification
        ident.SWVer_AUX, ident.tbdGE = fields["SWVer_AUX"] + b"\0", fields["tbdGE"]
        if fields["SWVer_AUX"] == NO_VERSION:
            return
        ident.partialInfo |= GE_SEEN
        if ident.partialInfo & GI_SEEN:
            ident.timestamp = now

    def _GN(self, fields, _state, now):
        nominal, ident = self.node.nominal, self.node.identification
        nominal.VA, nominal.W, nominal.BatteryV = fields["VA"], fields["W"], fields["BatteryV"]
        nominal.BatteryAh, nominal.Vout, nominal.FreqOut = fields["BatteryAh"], fields["VoutNominal"], fields["FreqOut"]
        nominal.timestamp = now
        if ident.NBattForBench == 0:
            ident.NBattForBench = fields["BatteryV"] // 12 & 0xFF

    def _RS(self, fields, state, _now):
        data = state.data

        def flag(name):
            place, mask = mdata.FLAGS[name]
            return bool(fields["flags"][place] & mask)
        for names, field in ((ALARM_FLAGS, "alarm"), (STATUS_FLAGS, "status"), (EXT_FLAGS, "extStatus")):
            for name in names:
                data.set("%s.%s" % (field, name), flag(name))
        data.set("status.Line_Present", not flag("Battery_Working"))
        data.set("extStatus.Eco_Mode", flag("On_Bypass") and flag("Eco_Mode"))
        for name in ("Frq_in", "Frq_out", "Frq_byp", "Vin", "Vout", "Vbyp", "Load", "VbatRS", "Temp0"):
            setattr(data, name, fields[name])
        present = data.get("switchStatus.Bt_present")
        data.Carica_adj = fields["Carica_adj"] if present else 0
        data.Aut_time = fields["Aut_time"] if present else 0

    def _RE(self, fields, state, _now):
        for name in ("Iout", "Watt", "Va"):
            setattr(state.data, name, fields[name])

    def _RK(self, fields, state, _now):
        state.data.Iout_pk = fields["Iout_pk"]
        for i in range(1, 7):
            setattr(state.data, "Temp%d" % i, fields["Temp%d" % i])

    def _DE(self, fields, state, _now):
        state.data.Iin = fields["Iin"]

    def _DS(self, fields, state, _now):
        data, batteries = state.data, self.node.identification.NBattForBench
        data.Vbatp = batteries * fields["Vbatp"] // 10 & 0xFFFF
        data.Vbatn = batteries * fields["Vbatn"] // 10 & 0xFFFF
        sign = -1 if data.get("status.Battery_Working") else 1
        data.Ibatp, data.Ibatn = sign * fields["Ibatp"], sign * fields["Ibatn"]

    def _RC(self, fields, state, now):
        states, data = fields["states"], state.data
        state.states, state.detailTimestamp = states, now
        missing = _state(states, "BatteryPosNotPresent") or _state(states, "BatteryNegNotPresent")
        data.set("switchStatus.Bt_present", not missing)
        for name, rows in SUMMED_UP.items():
            data.set("alarm." + name, any(states[rows]))


def _state(states, name):
    i = mstates.index(name)
    return bool(states[i // 8] >> i % 8 & 1)


def settled_node(node, told, now):
    """The node once the module has told the same (sim.mdata.ModuleData) for several rounds."""
    view = ModuleNode(node)
    for _ in range(2):
        for command in ROUND:
            view.take(command, told.encode(command), now)
    return view.answered().node


def lost_tree(own, cabinets, now, fill=0):
    """Nodes of the cabinet `own` and of its module, before the module has ever answered."""
    nodes = registered_tree(own, cabinets, fill)
    index = 2 + cabinets.index(own)
    cabinet, module = nodes[index], nodes[index + len(cabinets)]
    lose_module(module, cabinet, now)
    return cabinet, module


MERGED_ALARMS = ("Warning", "Anomaly", "Alarm_Overload", "Lock", "Bypass_Bad")
MERGED_STATUS = ("Output_Powered", "On_Bypass", "Line_Present", "Shutdown_Active", "Shutdown_Imminent")
CARRIED = ("maxLoad", "Va", "Watt", "Iin", "Iout", "Iout_pk", "Ibatp", "Ibatn", "Temp0", "Temp1", "Temp2", "Temp3",
           "Temp4", "Temp5", "Temp6")
# Measures that are dropped below a value: (line to neutral, line to line, frequencies, battery voltages).
LEAST = {"Vin": 80, "Vbyp": 80, "Vout": 80, "Uin": 139, "Ubyp": 139, "Uout": 139, "Frq_in": 20, "Frq_byp": 20,
         "Frq_out": 20, "VbatRS": 100, "Vbatp": 100, "Vbatn": 100}
WITH_AUTONOMY = 101
VOLTAGE_ENOUGH = 100


def cabinet_record(module, found, now):
    """The CabinetStatus that a good module's record (ModuleStatus) gives, as long as its output is that of the system.
    `found` is the cabinet's record before."""
    data, states = module.data, module.states
    box = CabinetStatus.unpack(found.pack())
    box.timestamp = now
    ups = box.Ups = Measures(timestamp=now)
    for name in MERGED_ALARMS:
        ups.set("alarm." + name, data.get("alarm." + name))
    ups.set("alarm.Fault", data.get("alarm.Fault") or data.get("alarm.Alarm_Temperature"))
    for name in MERGED_STATUS:
        ups.set("status." + name, data.get("status." + name))
    ups.set("status.SWOUT", not _state(states, "OutputSwitchOpen"))
    ups.set("status.SWMB", _state(states, "ManualBypassCommand"))
    for path, name in (("boxStatus.SWBATT", "BatterySwitchOpen"), ("externalSwitchStatus.SWIN", "InputSwitchOpen"),
                       ("externalSwitchStatus.SWBYP", "BypassSwitchOpen")):
        if not _state(states, name):
            box.set(path)
    ups.extStatus, ups.switchStatus = data.extStatus, data.switchStatus
    for name in ("wrongPower", "inputDisabled", "bitCmdUnsupported"):
        ups.set("PMStatus." + name, data.get("PMStatus." + name))
    for name in CARRIED:
        setattr(ups, name, getattr(data, name))
    ups.maxLoad = max(0, data.maxLoad)
    powered = data.get("status.Output_Powered")
    ups.Load = [load & 0xFF if powered else 0 for load in data.Load]
    for name, least in LEAST.items():
        value = getattr(data, name)
        if isinstance(value, list):
            setattr(ups, name, [v if v >= least else 0 for v in value])
        else:
            setattr(ups, name, value if value >= least else 0)
    if data.Vbatp >= WITH_AUTONOMY:
        ups.Aut_time, ups.Carica_adj = data.Aut_time, data.Carica_adj
        if ups.Carica_adj == 255:
            ups.Carica_adj = 0
    else:
        ups.Aut_time = 0xFFFF if data.Vbatp >= VOLTAGE_ENOUGH else 0
    # The one module working from battery outweighs the others, of which there are none.
    on_battery = data.get("status.Battery_Working")
    ups.set("status.Battery_Working", on_battery)
    if on_battery:
        ups.clear("status.Line_Present")
        ups.set("alarm.Battery_Low", data.get("alarm.Battery_Low"))
    if any(ups.get("alarm." + name) for name in ("Warning", "Anomaly", "Fault", "Lock")):
        ups.clear("extStatus.UPS_OK")
    if not ups.get("status.SWOUT"):
        ups.set("alarm.Anomaly")
    if ups.get("status.SWMB"):
        ups.set("alarm.Warning")
    box.UPSShelter = FAULT
    return box


def cabinet_node(node, module_node, now):
    """The cabinet's node after an aggregation of its good module."""
    box = node.box
    node.desc = cabinet_record(module_node.module, box, now).pack() + node.desc[box.SIZE:]
    node.identification = module_node.identification
    node.nominal = type(node.nominal)(timestamp=now, VA=module_node.nominal.VA, W=module_node.nominal.W)
    return node


def differences(found, wanted):
    """Lines for the fields in which two nodes differ, the content of a module's or a cabinet's node by name."""
    lines = []
    for path, mine, yours in ((p, a, b) for (p, a), (_, b) in zip(found.flat(), wanted.flat()) if a != b):
        if path != "desc":
            lines.append("%s: %r, should be %r" % (path, mine, yours))
            continue
        view = "module" if found.nodetype == 3 else "box"
        record, other = getattr(found, view), getattr(wanted, view)
        lines += ["%s.%s" % (view, line) for line in record.differences(other)]
        if found.desc[record.SIZE:] != wanted.desc[record.SIZE:]:
            lines.append("behind the record: %s" % found.desc[record.SIZE:].hex())
    return lines


def wait_same(card, pairs, timeout=10.0):
    """Waits until pairs(tree), pairs of (found, wanted) nodes, are the same byte for byte; returns the tree."""
    deadline = time.monotonic() + timeout
    while True:
        tree = card.tree()
        lines = [line for found, wanted in pairs(tree) for line in differences(found, wanted)]
        if not lines:
            return tree
        assert time.monotonic() < deadline, "\n".join(lines)
        time.sleep(0.02)


def follows(card, unit, now, change=None, sticky=None):
    """Waits until the nodes of card A and its module, in a plant of their own, are what the module's data give, over a
    fresh segment and with the card's clock standing at `now`. `change(state)` is what the outside has written into the
    module's record, `sticky(box)` what has stayed in the cabinet's. Returns the tree."""
    cabinet, module = registered_tree("A", "A")[2:4]
    settled_node(module, unit.data, now)
    if change:
        state = module.module
        change(state)
        module.desc = state.pack() + module.desc[state.SIZE:]
    cabinet_node(cabinet, module, now)
    if sticky:
        box = cabinet.box
        sticky(box)
        cabinet.desc = box.pack() + cabinet.desc[box.SIZE:]
    return wait_same(card, lambda tree: [(tree.module("A"), module), (tree.cabinet("A"), cabinet)])
