"""The status file: a small JSON document that the daemon replaces by rename, several times a second."""

import json
import os
import time

# Keys in the order in which they stand, without the list of alarms and the closing verdict.
KEYS = ("timestamp OUTPUTPOWERED UPSLOCK BATTERYWORK BATTERYLOW ONBYPASS BATTERYCHARGING REPLACEBATTERY "
        "SHUTDOWNACTIVE SHUTDOWNIMMIN TESTINPROGRESS ALARMOVERLOAD ALARMTEMPERATUR INPUTVOLTAGE INPUTVOLTAGE2 "
        "INPUTVOLTAGE3 INPUTFREQUENCY INPUTCURRENT INPUTCURRENT2 INPUTCURRENT3 OUTPUTVOLTAGE OUTPUTVOLTAGE2 "
        "OUTPUTVOLTAGE3 OUPUTFREQUENCY OUTPUTLOAD OUTPUTLOAD2 OUTPUTLOAD3 OUTPUTCURRENT OUTPUTCURRENT2 "
        "OUTPUTCURRENT3 OUTPUTCURRENTP1 OUTPUTCURRENTP2 OUTPUTCURRENTP3 OUTPUTPOWER OUTPUTPOWER2 OUTPUTPOWER3 "
        "OUTPUTPOWERVA1 OUTPUTPOWERVA2 OUTPUTPOWERVA3 BYPASSFREQUENCY BYPASSVOLTAGE BYPASSVOLTAGE2 BYPASSVOLTAGE3 "
        "BATTERYVOLTAGE VBATPLUS VBATMINUS BATTERYCURRENT BATTERYCURRENTMINUS BATTERYESTCHARG BATTERYESTTIME "
        "SYSTEMTEMP INVTEMP RECTTEMP TEMP1 TEMP2 TEMP3 TEMP4 TESTNUMBERJ UPSMODELJ UPSSWVERSIONJ NOMINALPOWERW "
        "NOMINALPOWERVA IOCONFIGURATION UPSTYPE LINEPRESENT").split()
BOOLEANS = ("OUTPUTPOWERED UPSLOCK BATTERYWORK BATTERYLOW ONBYPASS BATTERYCHARGING REPLACEBATTERY SHUTDOWNACTIVE "
            "SHUTDOWNIMMIN TESTINPROGRESS ALARMOVERLOAD ALARMTEMPERATUR LINEPRESENT").split()
TEXTS = ("TESTNUMBERJ", "UPSMODELJ", "UPSSWVERSIONJ")
ALL_KEYS = (*KEYS, "statusAlarms", "UPSFAILURE")


class StatusFile:
    """The file at a path, read as another process of the card would read it."""

    def __init__(self, path):
        self.path = path

    def raw(self):
        """The document as bytes, or None while there is none."""
        try:
            with open(self.path, "rb") as file:
                return file.read()
        except FileNotFoundError:
            return None

    def read(self):
        """The document as a dict in file order, or None while there is none; ValueError if it is no JSON."""
        raw = self.raw()
        return None if raw is None else json.loads(raw.decode("latin-1"))

    def age(self):
        """Seconds since the file was replaced, or None while there is none."""
        try:
            return time.time() - os.stat(self.path).st_mtime
        except FileNotFoundError:
            return None


def problems(document):
    """What is wrong with the shape of a document: keys, their order, the kinds of their values. A list of lines,
    empty for a good one."""
    found = []
    if list(document) != list(ALL_KEYS):
        missing = [key for key in ALL_KEYS if key not in document]
        extra = [key for key in document if key not in ALL_KEYS]
        found.append("keys: missing %s, unexpected %s%s" % (missing, extra,
                                                             "" if missing or extra else ", order differs"))
    for key, value in document.items():
        if key == "statusAlarms":
            right = isinstance(value, list) and all(isinstance(name, str) for name in value)
        elif key in BOOLEANS or key == "UPSFAILURE":
            right = isinstance(value, bool)
        elif key in TEXTS:
            right = isinstance(value, str)
        else:
            right = isinstance(value, int) and not isinstance(value, bool)
        if not right:
            found.append("%s: %r" % (key, value))
    return found
