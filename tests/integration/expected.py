"""What a card makes of the reports of its cabinets: a model of the system aggregation and of the status document.

It works on reports that stand still. What depends on time is an argument: `settled` names the disagreements that have
lasted long enough to count ("lock", "bypass", "battery", "output", "redundancy").
"""

from sim import statusfile
from sim.records import COMM_LOST, LOCK, SystemStatus

ORED_ALARMS = ("Warning", "Anomaly", "Fault", "Alarm_Temperature", "Alarm_Overload")
ORED_STATUS = ("Output_Powered", "On_Bypass", "Line_Present", "Shutdown_Active", "Shutdown_Imminent")
ORED_EXT = ("Clock_Update", "isMaster", "Eco_Mode", "Test_in_progress", "Replace_Battery", "Parallel_Link_Open",
            "Battery_Charging")
# Measures that are averaged over the cabinets, with the highest value that counts as a dead input.
AVERAGED = {"Vin": 79, "Vbyp": 79, "Vout": 79, "Uin": 138, "Ubyp": 138, "Uout": 138}
AVERAGED_ONE = {"Frq_in": 19, "Frq_byp": 19, "Frq_out": 19}
SUMMED = ("Va", "Watt", "Iin", "Iout", "Iout_pk")
DEAD_BATTERY = 99


class System:
    """The aggregate. `reports` maps the letters of the cabinets that are heard to their CabinetStatus, `nominals` to
    their Nominal; a report whose Ups.timestamp is 0 counts as heard, but without data. `silent` are the cabinets that
    don't answer. `was` is the root's state before: "SWMB" if manual bypass was closed."""

    def __init__(self, reports, nominals=None, silent="", settled=(), was=()):
        self.reports = reports
        self.nominals = nominals or {}
        self.silent = silent
        self.cabinets = sorted([*reports, *silent])
        self.settled = settled
        self.was = was
        self.root = SystemStatus()
        self.ups = self.root.Ups
        self.contributors = [r for r in reports.values() if r.Ups.timestamp]
        self._first_scan()
        self._agreements()
        self._second_scan()
        self._switches()
        self._redundancy()

    def _count(self, path):
        return sum(r.Ups.get(path) for r in self.contributors)

    def _disagree(self, count, name):
        return 0 < count < len(self.contributors) and name in self.settled

    def _first_scan(self):
        ups, root, good = self.ups, self.root, self.contributors
        if self.silent:
            root.set("MCUMUStatus.commErrorMCU")
            root.set("MCUMUStatus.AnomalyMCU")
        if len(good) < len(self.reports):
            ups.set("alarm.Anomaly")
            ups.set("PMStatus.commError")
        for names, field in ((ORED_ALARMS, "alarm"), (ORED_STATUS, "status"), (ORED_EXT, "extStatus")):
            for name in names:
                if self._count("%s.%s" % (field, name)):
                    ups.set("%s.%s" % (field, name))
        ups.set("extStatus.UPS_OK", all(r.Ups.get("extStatus.UPS_OK") for r in good))
        for r in good:
            ups.switchStatus |= r.Ups.switchStatus
            ups.PMStatus |= r.Ups.PMStatus & 0x20FF
        ups.maxLoad = max([0] + [r.Ups.maxLoad for r in good])
        for name in SUMMED:
            setattr(ups, name, [sum(getattr(r.Ups, name)[i] for r in good) for i in range(3)])
        for name in ("Va", "Watt", "Iout_pk"):
            setattr(ups, name, [max(0, value) for value in getattr(ups, name)])
        ups.Ibatp, ups.Ibatn = sum(r.Ups.Ibatp for r in good), sum(r.Ups.Ibatn for r in good)
        for name, dead in AVERAGED.items():
            setattr(ups, name, [_average([getattr(r.Ups, name)[i] for r in good], dead) for i in range(3)])
        for name, dead in AVERAGED_ONE.items():
            setattr(ups, name, _average([getattr(r.Ups, name) for r in good], dead))
        for name in ("VbatRS", "Vbatp", "Vbatn"):
            setattr(ups, name, min([getattr(r.Ups, name) for r in good if getattr(r.Ups, name) > DEAD_BATTERY],
                                   default=0))
        powered = [r.Ups for r in good if r.Ups.Vbatp > 100]
        any_battery = any(r.Ups.Vbatp > DEAD_BATTERY for r in good)
        ups.Aut_time = min([u.Aut_time for u in powered], default=0xFFFF if any_battery else 0)
        ups.Carica_adj = min([u.Carica_adj for u in powered], default=0)
        for i in range(7):
            setattr(ups, "Temp%d" % i, max([0] + [getattr(r.Ups, "Temp%d" % i) for r in good]))

    def _agreements(self):
        ups, n = self.ups, len(self.contributors)
        locked, bad = self._count("alarm.Lock"), self._count("alarm.Bypass_Bad")
        ups.set("alarm.Lock", 0 < locked == n)
        if self._disagree(locked, "lock"):
            ups.set("alarm.Fault")
        ups.set("alarm.Bypass_Bad", 0 < bad == n)
        if self._disagree(bad, "bypass"):
            ups.set("alarm.Fault")
            ups.set("PMStatus.bypassBadAnomaly")
        on_battery, powered = self._count("status.Battery_Working"), self._count("status.Output_Powered")
        if on_battery > powered - on_battery:
            ups.set("status.Battery_Working")
            ups.clear("status.Line_Present")
        if self._disagree(on_battery, "battery"):
            ups.set("PMStatus.batteryWorkingAnomaly")
            ups.set("alarm.Anomaly")
        if "output" in self.settled:
            ups.set("PMStatus.outputPoweredAnomaly")
            ups.set("alarm.Anomaly")
        low = self._count("alarm.Battery_Low")
        if ups.get("status.Battery_Working"):
            ups.set("alarm.Battery_Low", low >= n - low)
            if 0 < low < n:
                ups.set("alarm.Warning")

    def _second_scan(self):
        root, reports = self.root, self.reports.values()
        if self.silent:
            root.set("boxStatus.Anomaly")
            root.set("MCUMUStatus.commErrorMCU")
        root.Ups.set("status.SWOUT", all(r.Ups.get("status.SWOUT") for r in reports))
        root.Ups.set("status.SWMB", any(r.Ups.get("status.SWMB") for r in reports))
        root.set("externalSwitchStatus.SWBATT_EXT")
        for r in reports:
            root.boxStatus |= r.boxStatus & ~0x08
            root.externalSwitchStatus |= r.externalSwitchStatus & ~0x80
            if r.get("MCUMUStatus.AnomalyMCU"):
                root.set("MCUMUStatus.AnomalyMCU")
        root.set("externalSwitchStatus.EPO",
                 bool(reports) and all(r.get("externalSwitchStatus.EPO") for r in reports))

    def _switches(self):
        root, reports, n = self.root, self.reports.values(), len(self.reports)

        def opened(path):
            return sum(not r.get(path) for r in reports)
        swin, swbyp = opened("externalSwitchStatus.SWIN"), opened("externalSwitchStatus.SWBYP")
        swbatt, swout = opened("externalSwitchStatus.SWBATT_EXT"), opened("Ups.status.SWOUT")
        closed = n - opened("Ups.status.SWMB")
        if 0 < swin < n:
            root.Ups.set("PMStatus.SWINCabinetAnomaly")
        if swin > 0 or n == 0:
            root.Ups.set("alarm.Anomaly")
        if 0 < swbyp < n:
            root.Ups.set("PMStatus.SWBYPCabinetAnomaly")
        if 0 < swbatt < n:
            root.Ups.set("PMStatus.SWBATT_EXTCabinetAnomaly")
            root.set("boxStatus.Anomaly")
        if 0 < closed < n:
            for path in ("PMStatus.SWMBCabinetAnomaly", "alarm.Warning", "alarm.Anomaly"):
                root.Ups.set(path)
            root.set("sysStatus.SWMBOpening" if "SWMB" in self.was else "sysStatus.SWMBClosing")
        if closed == n:
            root.Ups.set("alarm.Warning")
        if 0 < swout < n:
            root.Ups.set("PMStatus.SWOUTCabinetAnomaly")
            root.Ups.set("alarm.Anomaly")
        if root.Ups.get("alarm.Fault"):
            root.set("boxStatus.Fault")

    def _redundancy(self):
        root, ups, number = self.root, self.ups, len(self.cabinets)
        self.not_on_load = 0
        if ups.get("status.Output_Powered"):
            for letter in self.cabinets:
                r = self.reports.get(letter)
                if r is None or r.UPSShelter & 7 in (COMM_LOST, LOCK) or not r.Ups.get("status.Output_Powered"):
                    self.not_on_load += 1
        powered = [r.Ups for r in self.contributors if r.Ups.get("status.Output_Powered")]
        if not ups.get("status.On_Bypass") and powered:
            ups.Load = [sum(u.Load[i] for u in powered) // len(powered) & 0xFF for i in range(3)]
        self.used = 1 if ups.get("status.Output_Powered") else 0
        lost = not (self.not_on_load < 1 and self.used < number - self.not_on_load)
        if lost and "redundancy" in self.settled:
            root.set("sysStatus.LostRedundancy")
            ups.set("alarm.Fault")
        if any(ups.get("alarm." + name) for name in ("Warning", "Anomaly", "Fault", "Lock")):
            ups.clear("extStatus.UPS_OK")

    def lost_modules(self):
        """Numbers of the modules that are reported as lost."""
        return ["ABCD".index(letter) + 1 for letter in self.cabinets
                if letter in self.silent or self.reports[letter].UPSShelter & 7 == COMM_LOST]

    def alarms(self):
        """The names in the list of alarms, in order."""
        ups, root = self.ups, self.root
        names = [name for name, present in (
            ("SYSTEM_ANOMALY", ups.get("alarm.Anomaly")), ("ECO_MODE", ups.get("extStatus.Eco_Mode")),
            ("SWIN_OPEN", not root.get("externalSwitchStatus.SWIN")),
            ("SWBYP_OPEN", not root.get("externalSwitchStatus.SWBYP")),
            ("SWBAT_EXT_OPEN", not root.get("externalSwitchStatus.SWBATT_EXT")),
            ("SWOUT_OPEN", not ups.get("status.SWOUT")), ("MANUAL_BYPASS_UPS", ups.get("status.SWMB")),
            ("BYPASS_BAD", ups.get("alarm.Bypass_Bad")),
            ("PARALLEL_LINK_OPEN", ups.get("extStatus.Parallel_Link_Open")),
            ("BATTERY_NOT_PRESENT_A62", not ups.get("switchStatus.Bt_present")),
            ("ALARM_REDUNDANCY", root.get("sysStatus.LostRedundancy"))) if present]
        return names + ["MODULE_%d_LOST" % number for number in self.lost_modules()]

    def document(self, now, own_module=None):
        """The status document. `own_module` is the identification of the card's own module, None where there is
        none."""
        u = self.ups
        flags = [bool(u.get(path)) for path in (
            "status.Output_Powered", "alarm.Lock", "status.Battery_Working", "alarm.Battery_Low", "status.On_Bypass",
            "extStatus.Battery_Charging", "extStatus.Replace_Battery", "status.Shutdown_Active",
            "status.Shutdown_Imminent", "extStatus.Test_in_progress", "alarm.Alarm_Overload",
            "alarm.Alarm_Temperature")]
        values = [now, *flags, *u.Vin, u.Frq_in, *u.Iin, *u.Vout, u.Frq_out, *u.Load, *u.Iout, *u.Iout_pk, *u.Watt,
                  *u.Va, u.Frq_byp, *u.Vbyp, u.VbatRS, u.Vbatp, u.Vbatn, u.Ibatp, u.Ibatn, u.Carica_adj, u.Aut_time,
                  u.Temp0, u.Temp1, u.Temp2, u.Temp3, u.Temp4, u.Temp5, u.Temp6, *_texts(own_module),
                  sum(n.W for n in self.nominals.values()), sum(n.VA for n in self.nominals.values()),
                  *_types(own_module), bool(u.get("status.Line_Present"))]
        document = dict(zip(statusfile.KEYS, values, strict=True))
        document["statusAlarms"] = self.alarms()
        document["UPSFAILURE"] = bool(u.get("alarm.Fault") or self.lost_modules())
        return document


def _texts(ident):
    if ident is None:
        return " " * 16, " " * 16, " " * 12
    return [field.split(b"\0")[0].decode("latin-1") for field in (ident.SN, ident.Model, ident.SWVer)]


def _types(ident):
    return (ident.IO_Cfg - 48, ident.UPS_Type - 48) if ident else (0, 0)


def _average(values, dead):
    alive = [value for value in values if value > dead]
    return sum(alive) // len(alive) if alive else 0


def render(document):
    """The document as it stands in the file, byte for byte."""
    lines = ["{\n"]
    for key in statusfile.KEYS:
        value = document[key]
        shown = str(value).lower() if isinstance(value, bool) else '"%s"' % value if isinstance(value, str) else value
        lines.append('"%s": %s,\n' % (key, shown))
    lines.append('"statusAlarms":[\n')
    for i, name in enumerate(document["statusAlarms"]):
        lines.append('%s\n"%s"' % ("," if i else "", name))
    lines.append('],\n"UPSFAILURE": %s}' % str(document["UPSFAILURE"]).lower())
    return "".join(lines).encode("latin-1")


def explain(found, wanted):
    """The keys in which two documents differ."""
    return ["%s: %r, %r" % (key, found.get(key), wanted[key]) for key in wanted if found.get(key) != wanted[key]]
