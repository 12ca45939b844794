"""What a power module tells of itself: named fields, and the data of the replies that carry them.

    data = ModuleData()
    data.Vin = [230, 231, 229]
    data.set("Battery_Working")          # a bit of the five status characters of RS
    data.set("A08"); data.set((5, 0x20)) # one of the 176 status bits of RC, by tag, place or name
    data.encode("RS")                    # 58 characters
    decode("RS", those)["Vin"]           # [230, 231, 229]

Numbers are as they stand on the wire, unscaled. A value that doesn't fit its characters is refused when it is set.
What a reply carries beside its fields is `data.base[command]`, zeros of the right number unless set.
"""

from collections import namedtuple

from sim import mstates
from sim.mlink import nibbles, number

# Characters of data in each reply that has any.
LENGTHS = {"DE": 58, "DS": 58, "GE": 16, "GI": 56, "GM": 4, "GN": 22, "RB": 109, "RC": 44, "RE": 58, "RK": 58,
           "RS": 58, "RX": 169, "SV": 4}

# A field in a reply: a number or a text of some characters from an offset on; index is its place in a list, or None.
Item = namedtuple("Item", "field index offset width is_text")


def _row(field, offset, width, count=None, is_text=False):
    """One field, or `count` values of one side by side."""
    if count is None:
        return [Item(field, None, offset, width, is_text)]
    return [Item(field, i, offset + i * width, width, is_text) for i in range(count)]


def _at(field, width, *offsets):
    """The values of one field, each at a place of its own."""
    return [Item(field, i, offset, width, False) for i, offset in enumerate(offsets)]


def _text(field, offset, width):
    return _row(field, offset, width, is_text=True)


LAYOUT = {
    "GI": _text("SN", 0, 16) + _text("Model", 16, 16) + _text("SWVer", 32, 12) + _text("IO_Cfg", 44, 1)
    + _text("UPS_Type", 45, 1) + _text("Boost_Cfg", 46, 1) + _text("Buck_Cfg", 47, 1) + _text("Error_CTRL", 48, 1)
    + _text("PwrShareCfg", 49, 1) + _text("BattBenches", 50, 1) + _text("NBattForBench", 51, 1)
    + _text("ParallelInfo", 52, 1) + _text("tbdGI", 53, 3),
    "GE": _text("SWVer_AUX", 0, 12) + _text("tbdGE", 12, 4),
    "GN": _row("VA", 0, 5) + _row("W", 5, 5) + _row("BatteryV", 10, 3) + _row("BatteryAh", 13, 3)
    + _row("VoutNominal", 16, 3) + _row("FreqOut", 19, 3),
    "RS": _row("flags", 0, 1, 5) + _row("Frq_in", 5, 3) + _at("Vin", 3, 8, 36, 39) + _row("Frq_out", 11, 3)
    + _at("Vout", 3, 14, 42, 50) + _at("Load", 2, 17, 45, 53) + _row("Frq_byp", 19, 3) + _at("Vbyp", 3, 22, 47, 55)
    + _row("VbatRS", 25, 4) + _row("Carica_adj", 29, 2) + _row("Aut_time", 31, 3) + _row("Temp0", 34, 2),
    "RE": _row("Iout", 16, 4, 3) + _row("Watt", 28, 5, 3) + _row("Va", 43, 5, 3),
    "RK": _row("Iout_pk", 34, 4, 3) + [Item("Temp%d" % i, None, 44 + 2 * i, 2, False) for i in range(1, 7)],
    "DE": _row("Iin", 43, 4, 3),
    "DS": _row("Vbatp", 13, 3) + _row("Vbatn", 16, 3) + _row("Ibatp", 52, 3) + _row("Ibatn", 55, 3),
}

# The bits of the five status characters of RS: character and mask. For the card, Eco_Mode counts on bypass only.
FLAGS = {
    "Output_Powered": (0, 8), "Lock": (0, 4), "Battery_Working": (0, 2), "Battery_Low": (0, 1),
    "On_Bypass": (1, 8), "Eco_Mode": (1, 4),
    "Bypass_Bad": (2, 8), "Battery_Charging": (2, 4), "Replace_Battery": (2, 1),
    "Shutdown_Active": (3, 8), "Shutdown_Imminent": (3, 4), "Test_in_progress": (3, 2),
    "Alarm_Overload": (4, 4), "Alarm_Temperature": (4, 2),
}

# A field on its own: characters, values in a list (None: a single one), text or number.
Kind = namedtuple("Kind", "width count is_text")


def _kinds():
    kinds = {}
    for items in LAYOUT.values():
        for item in items:
            count = None if item.index is None else sum(other.field == item.field for other in items)
            kinds[item.field] = Kind(item.width, count, item.is_text)
    return kinds


KINDS = _kinds()

# Characters of the auxiliary version that are nibbles on the wire and digits or letters A to F for people.
_HEX_PLACES = (7, 8, 10, 11)


def _to_wire(version):
    return bytes(c - 7 if i in _HEX_PLACES and c > 0x39 else c for i, c in enumerate(version))


def _from_wire(version):
    return bytes(c + 7 if i in _HEX_PLACES and c > 0x39 else c for i, c in enumerate(version))


class ModuleData:
    """See above. A new one is a healthy module on mains whose measures are plausible and stand still. `SWVer_AUX` is
    as people read it ("SWQ417-1A-02"); `states` are the 22 bytes of status bits; `VoutNominal` is the output voltage
    of GN, `Vout` those of RS."""

    def __init__(self):
        object.__setattr__(self, "base", {})
        object.__setattr__(self, "states", [0] * mstates.BYTES)
        for name, kind in KINDS.items():
            blank = b" " * kind.width if kind.is_text else 0
            object.__setattr__(self, name, blank if kind.count is None else [blank] * kind.count)
        for name, value in HEALTHY.items():
            setattr(self, name, value)
        self.set("Output_Powered")

    def __setattr__(self, name, value):
        if name == "states":
            value = list(value)
            if len(value) != mstates.BYTES:
                raise ValueError("states are %d bytes" % mstates.BYTES)
        elif name in KINDS:
            value = _checked(name, KINDS[name], value)
        elif name != "base":
            raise AttributeError("a module tells no %s" % name)
        object.__setattr__(self, name, value)

    def get(self, bit):
        """Value of a bit: of RS by its name in FLAGS, of RC by tag, name or (byte, mask)."""
        if bit in FLAGS:
            place, mask = FLAGS[bit]
            return bool(self.flags[place] & mask)
        i = mstates.index(bit)
        return bool(self.states[i // 8] >> i % 8 & 1)

    def set(self, bit, value=True):
        """Sets or clears a bit, named as for get."""
        if bit in FLAGS:
            place, mask = FLAGS[bit]
            self.flags[place] = self.flags[place] & ~mask | (mask if value else 0)
        else:
            i = mstates.index(bit)
            self.states[i // 8] = self.states[i // 8] & ~(1 << i % 8) | bool(value) << i % 8

    def clear(self, bit):
        """Clears a bit."""
        self.set(bit, False)

    def encode(self, command):
        """Data of the reply to a command of LENGTHS."""
        if command == "RC":
            return mstates.encode(self.states)
        data = bytearray(self.base.get(command, b"0" * LENGTHS[command]))
        for item in LAYOUT.get(command, ()):
            value = getattr(self, item.field)
            if item.index is not None:
                value = value[item.index]
            if not item.is_text:
                value = nibbles(value, item.width)
            elif item.field == "SWVer_AUX":
                value = _to_wire(value)
            data[item.offset:item.offset + item.width] = value
        return bytes(data)


def _checked(name, kind, value):
    if kind.is_text:
        value = value.encode("latin-1") if isinstance(value, str) else bytes(value)
        if len(value) > kind.width:
            raise ValueError("%s holds %d characters" % (name, kind.width))
        return value.ljust(kind.width)
    values = [value] if kind.count is None else list(value)
    if kind.count is not None and len(values) != kind.count:
        raise ValueError("%s takes %d values" % (name, kind.count))
    for single in values:
        if not 0 <= single < 16 ** kind.width:
            raise ValueError("%s: %d doesn't fit %d characters" % (name, single, kind.width))
    return value if kind.count is None else values


def decode(command, data):
    """The fields in the data of a reply, by name; for RC the key is "states"."""
    if command == "RC":
        return {"states": mstates.decode(data)}
    fields = {}
    for item in LAYOUT.get(command, ()):
        value = bytes(data[item.offset:item.offset + item.width])
        if not item.is_text:
            value = number(value)
        elif item.field == "SWVer_AUX":
            value = _from_wire(value)
        if item.index is None:
            fields[item.field] = value
        else:
            fields.setdefault(item.field, {})[item.index] = value
    return {name: [value[i] for i in range(len(value))] if isinstance(value, dict) else value
            for name, value in fields.items()}


HEALTHY = dict(
    SN="VM00000000000001", Model="VIRTUAL MODULE", SWVer="SWV001-01-00", IO_Cfg="4", UPS_Type="3", Boost_Cfg="2",
    Buck_Cfg="2", Error_CTRL="1", PwrShareCfg="0", BattBenches="2", NBattForBench="0", ParallelInfo="1", tbdGI="000",
    SWVer_AUX="SWA002-1C-05", tbdGE="0000",
    VA=42000, W=40000, BatteryV=240, BatteryAh=90, VoutNominal=230, FreqOut=500,
    Frq_in=500, Frq_out=500, Frq_byp=500, Vin=[231, 229, 230], Vout=[230, 230, 230], Vbyp=[231, 229, 230],
    Load=[43, 41, 40], VbatRS=272, Carica_adj=96, Aut_time=46, Temp0=27,
    Iout=[249, 238, 232], Watt=[5400, 5150, 5020], Va=[5730, 5470, 5340],
    Iout_pk=[398, 381, 371], Temp1=43, Temp2=40, Temp3=38, Temp4=39, Temp5=31, Temp6=30,
    Iin=[246, 235, 229], Vbatp=136, Vbatn=136, Ibatp=16, Ibatn=16)
