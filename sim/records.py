"""The records that leave a card: as shared memory, as frame data, or both.

All are packed and little-endian. A record class lists its fields; instances carry them as attributes:

    status = CabinetStatus()
    status.Ups.Vin = [230, 231, 229]
    status.set("Ups.alarm.Fault")
    data = status.pack()                    # 267 bytes
    again = CabinetStatus.unpack(data)
    CabinetStatus.offset("Ups.extStatus")   # 10

Numbers are ints, arrays are lists, texts are bytes of the full field width (a str or shorter bytes is padded with
NUL on assignment). Bit fields are plain ints with named bits: get, set, clear and bits take "field.Bit" paths.
"""

import struct


class Field:
    """One field of a record: a number, a text or a record, or an array of one of these."""

    def __init__(self, name, kind, count=None, bits=None):
        self.name = name
        self.kind = kind
        self.count = count
        self.is_record = isinstance(kind, type) and issubclass(kind, Record)
        self.is_text = not self.is_record and kind.endswith("s")
        self.size = (kind.SIZE if self.is_record else struct.calcsize("<" + kind)) * (1 if count is None else count)
        self.bits = _masks(bits)
        self.offset = 0

    def blank(self):
        if self.is_record:
            return self.kind() if self.count is None else [self.kind() for _ in range(self.count)]
        if self.is_text:
            return bytes(self.size)
        return 0 if self.count is None else [0] * self.count

    def check(self, value):
        """The value as it is stored; TypeError or ValueError for one that doesn't fit."""
        if self.count is not None:
            value = list(value)
            if len(value) != self.count:
                raise ValueError("%s takes %d values" % (self.name, self.count))
            return value
        if self.is_text:
            value = value.encode("latin-1") if isinstance(value, str) else bytes(value)
            if len(value) > self.size:
                raise ValueError("%s holds %d bytes" % (self.name, self.size))
            return value.ljust(self.size, b"\0")
        if self.is_record and not isinstance(value, self.kind):
            raise TypeError("%s takes a %s" % (self.name, self.kind.__name__))
        return value

    def pack(self, value):
        values = [value] if self.count is None else value
        if self.is_record:
            return b"".join(v.pack() for v in values)
        try:
            return struct.pack("<%s" % (self.kind * len(values)), *values)
        except struct.error as error:
            raise ValueError("%s: %s" % (self.name, error)) from None

    def unpack(self, data):
        if self.is_record:
            step = self.kind.SIZE
            values = [self.kind.unpack(data[i:i + step]) for i in range(0, self.size, step)]
        else:
            values = list(struct.unpack("<" + self.kind * (1 if self.count is None else self.count), data))
        return values if self.count is not None else values[0]


def _masks(bits):
    """Bit name to mask, from a mapping or from names given from bit 0 up."""
    if bits is None or isinstance(bits, dict):
        return bits
    return {name: 1 << i for i, name in enumerate(bits.split())}


class Record:
    """Base of all records."""

    FIELDS = ()
    SIZE = 0

    def __init_subclass__(cls):
        offset = 0
        cls._by_name = {}
        for field in cls.FIELDS:
            field.offset = offset
            offset += field.size
            cls._by_name[field.name] = field
        cls.SIZE = offset

    def __init__(self, **values):
        for field in self.FIELDS:
            object.__setattr__(self, field.name, field.blank())
        for name, value in values.items():
            setattr(self, name, value)

    def __setattr__(self, name, value):
        field = self._by_name.get(name)
        if field is None:
            raise AttributeError("%s has no field %s" % (type(self).__name__, name))
        object.__setattr__(self, name, field.check(value))

    def pack(self):
        """The record's bytes."""
        return b"".join(field.pack(getattr(self, field.name)) for field in self.FIELDS)

    @classmethod
    def unpack(cls, data):
        """A record from exactly its bytes."""
        if len(data) != cls.SIZE:
            raise ValueError("%s is %d bytes, not %d" % (cls.__name__, cls.SIZE, len(data)))
        record = cls.__new__(cls)
        for field in cls.FIELDS:
            object.__setattr__(record, field.name, field.unpack(data[field.offset:field.offset + field.size]))
        return record

    def copy(self):
        """A record of its own with the same content."""
        return type(self).unpack(self.pack())

    @classmethod
    def offset(cls, path):
        """Byte offset of a field given as "Ups.Vin[1]"."""
        at = 0
        for part in path.split("."):
            name, _, index = part.partition("[")
            field = cls._by_name[name]
            at += field.offset
            if index:
                at += int(index.rstrip("]")) * (field.size // field.count)
            cls = field.kind if field.is_record else None
        return at

    def at(self, path):
        """Value of the field at a path such as "Ups.Vin[1]" or "Batteries.shelter[0].strPosI"."""
        value = self
        for part in path.split("."):
            name, _, index = part.partition("[")
            value = getattr(value, name)
            if index:
                value = value[int(index.rstrip("]"))]
        return value

    def _holder(self, path):
        *road, name, bit = path.split(".")
        record = self.at(".".join(road)) if road else self
        return record, name, record._by_name[name].bits[bit]

    def get(self, path):
        """Value of the bit, or small bit number, at "Ups.alarm.Fault"."""
        record, name, mask = self._holder(path)
        low = mask & -mask
        return (getattr(record, name) & mask) // low

    def set(self, path, value=1):
        """Sets the bit, or the small bit number, at a path."""
        record, name, mask = self._holder(path)
        low = mask & -mask
        setattr(record, name, getattr(record, name) & ~mask | int(value) * low & mask)

    def clear(self, path):
        """Clears the bit at a path."""
        self.set(path, 0)

    def bits(self, path):
        """Names of the bits that are set in the field at a path."""
        *road, name = path.split(".")
        record = self.at(".".join(road)) if road else self
        value = getattr(record, name)
        return {bit for bit, mask in record._by_name[name].bits.items() if value & mask}

    def flat(self, prefix=""):
        """Yields (path, value) of every number and text in the record."""
        for field in self.FIELDS:
            value = getattr(self, field.name)
            values = [(prefix + field.name, value)]
            if field.count is not None:
                values = [("%s%s[%d]" % (prefix, field.name, i), v) for i, v in enumerate(value)]
            for path, item in values:
                if field.is_record:
                    yield from item.flat(path + ".")
                else:
                    yield path, item

    def differences(self, other):
        """Lines "path: here, there" for every field that differs, for a test to print."""
        return ["%s: %r, %r" % (path, mine, yours)
                for (path, mine), (_, yours) in zip(self.flat(), other.flat()) if mine != yours]

    def __eq__(self, other):
        return type(self) is type(other) and self.pack() == other.pack()

    def __repr__(self):
        told = ", ".join("%s=%r" % (path, value) for path, value in self.flat()
                         if (any(value) if isinstance(value, bytes) else value))
        return "%s(%s)" % (type(self).__name__, told)


F = Field


def text(value):
    """A text field up to its first NUL, without trailing blanks."""
    return value.split(b"\0", 1)[0].decode("latin-1").rstrip()



ALARM = "Warning Anomaly Fault Lock Alarm_Temperature Alarm_Overload Bypass_Bad Battery_Low"
STATUS = "Output_Powered Battery_Working On_Bypass Line_Present Shutdown_Active Shutdown_Imminent SWOUT SWMB"
EXT_STATUS = ("Clock_Update isMaster Eco_Mode Test_in_progress Replace_Battery Parallel_Link_Open Battery_Charging "
              "UPS_OK")
SWITCH_STATUS = ("Q1 LoadOnBypass_Cmd BypassDisabled_Cmd Bt_present RemoteCBOff_Cmd RemoteEco_Cmd FreeSW6 "
                 "RemoteBatteryWorking_Cmd")
PM_STATUS = ("wrongPower inputDisabled commError bypassBadAnomaly batteryWorkingAnomaly outputPoweredAnomaly "
             "differentFirmwareAnomaly someBatteryDisconnect SWINCabinetAnomaly SWBYPCabinetAnomaly "
             "SWMBCabinetAnomaly SWOUTCabinetAnomaly SWBATT_EXTCabinetAnomaly bitCmdUnsupported FreePMS14 FreePMS15")
STRING_STATUS = ("lost voltageFault currentFault insertFault chargeOvercurrent warningDischargeCurrent "
                 "alarmDischargeCurrent notPresent")
SYS_STATUS = "ServiceUPS ServiceBattery FreeSYS2 FreeSYS3 SWMBOpening SWMBClosing LostRedundancy LowRedundancy"
BOX_STATUS = "NotPresentString ReplaceString Fault SWBATT HighTemp HighHygro Anomaly Warning"
EXTERNAL_SWITCH = "Fault_PWR1 Fault_PWR2 SWIN FreeSW3 SWBYP FreeSW5 SWBATT_EXT EPO"
SYS_MCU_MU = {"commErrorMCU": 0x01, "commErrorMU": 0x02, "AnomalyMCU": 0x04, "FreePMS3": 0x08, "FreePMS4": 0x10,
              "numBypassOff": 0xE0}
BOX_MCU_MU = "commErrorMCU commErrorMU AnomalyMCU FreePMS3 FreePMS4 FreePMS5 FreePMS6 FreePMS7"
MCU_STATUS = "Slot1Fault Slot2Fault FreeMCU2 FreeMCU3 FreeMCU4 FreeMCU5 FreeMCU6 FreeMCU7"

# Alarm states of an element, the low three bits of its byte.
COMM_LOST, NONE, WARNING, ANOMALY, FAULT, LOCK = range(6)
ALARM_STATES = ("lost", "ok", "warning", "anomaly", "fault", "lock")
ELEMENT = {"alarmSt": 0x07}

CMD_NONE = 255
NULL_NODE = 255


class Identification(Record):
    FIELDS = (F("timestamp", "i"), F("SN", "17s"), F("Model", "17s"), F("SWVer", "13s"), F("IO_Cfg", "B"),
              F("UPS_Type", "B"), F("Boost_Cfg", "B"), F("Buck_Cfg", "B"), F("Error_CTRL", "B"), F("PwrShareCfg", "B"),
              F("BattBenches", "B"), F("NBattForBench", "B"), F("ParallelInfo", "B"), F("tbdGI", "3s"),
              F("SN_AUX", "17s"), F("SWVer_AUX", "13s"), F("tbdGE", "4s"), F("partialInfo", "B"))


def blank_identification():
    """What a cabinet's identification holds before anything is known of the cabinet."""
    record = Identification.unpack(bytes(51) + b"412210201" + bytes(38))
    record.SN = record.Model = record.SN_AUX = b" " * 16
    record.SWVer = record.SWVer_AUX = b" " * 12
    record.tbdGI, record.tbdGE, record.partialInfo = b"xxx", b"xxxx", 252
    return record


def blank_module_identification():
    """What a module's identification holds before the module has told anything."""
    record = blank_identification()
    fields = Identification.unpack(bytes(51) + b"4322102" + b"\0" + b"1" + bytes(38))
    for name in ("IO_Cfg", "UPS_Type", "Boost_Cfg", "Buck_Cfg", "Error_CTRL", "PwrShareCfg", "BattBenches",
                 "NBattForBench", "ParallelInfo"):
        setattr(record, name, getattr(fields, name))
    return record


class Nominal(Record):
    FIELDS = (F("timestamp", "i"), F("VA", "I"), F("W", "I"), F("BatteryV", "H"), F("BatteryAh", "H"), F("Vout", "H"),
              F("FreqOut", "H"))


class Measures(Record):
    """Measured state of a module, a cabinet or the whole plant."""

    FIELDS = (F("timestamp", "i"), F("alarm", "B", bits=ALARM), F("status", "B", bits=STATUS),
              F("extStatus", "B", bits=EXT_STATUS), F("switchStatus", "B", bits=SWITCH_STATUS),
              F("PMStatus", "H", bits=PM_STATUS), F("Load", "h", 3), F("maxLoad", "h"), F("Va", "i", 3),
              F("VAR", "i", 3), F("Watt", "i", 3), F("Aut_time", "H"), F("Carica_adj", "B"), F("VbatRS", "H"),
              F("Vbatp", "H"), F("Vbatn", "H"), F("Ibatp", "i"), F("Ibatn", "i"), F("Vin", "H", 3), F("Frq_in", "H"),
              F("Uin", "H", 3), F("Iin", "I", 3), F("Vbyp", "H", 3), F("Frq_byp", "H"), F("Ubyp", "H", 3),
              F("Vout", "H", 3), F("Frq_out", "H"), F("Uout", "H", 3), F("Iout", "i", 3), F("Iout_pk", "i", 3),
              F("Temp0", "B"), F("Temp1", "B"), F("Temp2", "B"), F("Temp3", "B"), F("Temp4", "B"), F("Temp5", "B"),
              F("Temp6", "B"), F("Cent_kwh", "I"))


class Panel(Record):
    FIELDS = (F("value", "B"), F("delay_shut", "H"), F("delay_reboot", "H"))


class Battery(Record):
    FIELDS = (F("statusStrPos", "B", bits=STRING_STATUS), F("statusStrNeg", "B", bits=STRING_STATUS),
              F("halfStrPosV", "h"), F("halfStrNegV", "h"), F("strPosI", "h"), F("strNegI", "h"))


class Batteries(Record):
    FIELDS = (F("timestamp", "i"), F("shelter", Battery, 9), F("barsPosV", "h"), F("barsNegV", "h"))


class SystemStatus(Record):
    """What the root node holds."""

    FIELDS = (F("LoadRedundancy", "B", 3), F("Ups", Measures), F("Batteries", Batteries), F("UPSBox", "B", 4),
              F("sysStatus", "B", bits=SYS_STATUS), F("boxStatus", "B", bits=BOX_STATUS),
              F("externalSwitchStatus", "B", bits=EXTERNAL_SWITCH), F("MCUMUStatus", "B", bits=SYS_MCU_MU))


class CabinetStatus(Record):
    """What a cabinet node holds, and the first 267 bytes of a BS reply."""

    FIELDS = (F("timestamp", "i"), F("Ups", Measures), F("Batteries", Batteries), F("UPSShelter", "B", bits=ELEMENT),
              F("boxStatus", "B", bits=BOX_STATUS), F("externalSwitchStatus", "B", bits=EXTERNAL_SWITCH),
              F("mcuStatus", "B", bits=MCU_STATUS), F("MCUMUStatus", "B", bits=BOX_MCU_MU))


class StatusReply(Record):
    """The 268 data bytes of a BS reply."""

    FIELDS = (F("box", CabinetStatus), F("idu", "B"))


class ModuleStatus(Record):
    """What a module node holds."""

    FIELDS = (F("data", Measures), F("detailTimestamp", "i"), F("states", "B", 22))


class Node(Record):
    """A node of the tree; `desc` is raw, taken apart by the properties below."""

    FIELDS = (F("nodetype", "B"), F("Description", "32s"), F("ID", "16s"), F("idx", "B"), F("nxtBrother", "B"),
              F("prvBrother", "B"), F("son", "B"), F("ext", "B"), F("identification", Identification),
              F("nominal", Nominal), F("panel", Panel), F("desc", "269s"))

    @property
    def sys(self):
        """The content of a root node."""
        return SystemStatus.unpack(self.desc)

    @property
    def box(self):
        """The content of a cabinet node."""
        return CabinetStatus.unpack(self.desc[:CabinetStatus.SIZE])

    @property
    def module(self):
        """The content of a module node."""
        return ModuleStatus.unpack(self.desc[:ModuleStatus.SIZE])


class Extension(Record):
    """The array slot that extends the root; 446 bytes like a node, of which 23 are used."""

    FIELDS = (F("nodetype", "B"), F("DevType", "B"), F("DevTypeText", "20s"), F("ComType", "B"), F("rest", "423s"))


class ClockEntry(Record):
    """One clock in the CN data."""

    FIELDS = (F("sec", "i"), F("usec", "i"), F("epochT", "i"), F("delta", "i"))


class Handover(Record):
    """The 93 data bytes of CN. `bitStatus` bits 0 and 1 are a signed number: 3 no order, 0 off, 1 on."""

    FIELDS = (F("build", "i"), F("nextMaster", "B"), F("bitStatus", "I"), F("remoteTimeSuspended", "i", 4),
              F("clocks", ClockEntry, 4), F("TftTime", "I"))


class CabinetConfig(Record):
    FIELDS = (F("present", "B"), F("upsBoxType", "B"), F("modulePresent", "B"), F("batteryPresent", "B", 5),
              F("sensTPresent", "B", 4), F("hygroPresent", "B"))


class PlantConfig(Record):
    """The 374 data bytes of SC. The words and texts that nothing sets are left together."""

    FIELDS = (F("DeviceNo", "I"), F("VAModule", "I"), F("WModule", "I"), F("IoutModule", "I"),
              F("SingleBatteryAh", "I"), F("threshouldBatteryTemp", "H"), F("redundantUPS", "B"),
              F("alarmLoadThreshold", "B"), F("externBattCapacity", "H"), F("Ups", CabinetConfig, 4),
              F("words", "H", 42), F("rest", "212s"))


def plant_config(cabinets):
    """The configuration of a card that knows only which cabinets exist, given as letters."""
    config = PlantConfig(redundantUPS=1)
    for cabinet in cabinets:
        ups = config.Ups[ord(cabinet) - ord("A")]
        ups.present = ups.modulePresent = 1
    return config
