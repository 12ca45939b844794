"""Measures of a three-phase UPS plant, plausible and moving.

A Plant holds what the cabinets share: the mains, the load and the time. For each cabinet a CabinetModel turns that
into records; set as `cabinet.model` it brings them up to date at each poll. Units as on the real bus: volts, tenths of
a hertz, tenths of an ampere, watts, volt-amperes, per cent, minutes, degrees Celsius.
"""

import math
import random
import time

from sim import frames
from sim.records import FAULT, blank_identification

NOMINAL_W = 40000
BATTERY_V = 272
AUTONOMY_MINUTES = 48


def _wave(t, period, phase=0.0):
    return math.sin(2 * math.pi * t / period + phase)


class Plant:
    """The surroundings. `sharing` is the number of cabinets that share the load. `mains` switches the mains off
    and on; the battery then empties and fills."""

    def __init__(self, sharing=4, now=time.monotonic):
        self.sharing = sharing
        self.mains = True
        self._now = now
        self._start = now()
        self._charge = 96.0
        self._charged_at = self._start

    @property
    def seconds(self):
        """Time since the plant was switched on."""
        return self._now() - self._start

    def voltage(self, phase):
        """Mains voltage of a phase."""
        t = self.seconds
        return 230 + 2.5 * _wave(t, 47, 2.1 * phase) + 1.0 * _wave(t, 13, phase)

    def frequency(self):
        """Mains frequency in tenths of a hertz."""
        return 500 + 0.8 * _wave(self.seconds, 31)

    def demand(self):
        """Power that the plant's load takes, in watts."""
        t = self.seconds
        step = 6000 if t % 60 > 40 else 0
        return 66000 + 7000 * _wave(t, 37) + 2500 * _wave(t, 9.5) + step

    def charge(self):
        """Battery charge in per cent."""
        now = self._now()
        passed, self._charged_at = now - self._charged_at, now
        rate = 0.05 if self.mains else -100.0 / (AUTONOMY_MINUTES * 60)
        self._charge = min(100.0, max(0.0, self._charge + rate * passed))
        return self._charge


class CabinetModel:
    """Measures of one cabinet of a plant. Calling it with the cabinet fills nominal data and status."""

    def __init__(self, plant, letter):
        self.plant = plant
        self.letter = letter
        self._random = random.Random(letter)

    def _near(self, value, spread=1.0):
        return max(0, round(value + self._random.uniform(-spread, spread)))

    def install(self, cabinet):
        """Gives the cabinet an identity and this model."""
        ident = blank_identification()
        ident.timestamp = int(time.time())
        ident.SN = "DEMO%s00000000001" % self.letter
        ident.Model = "VIRTUAL 40 kVA  "
        ident.SWVer = "SWV001-01-00"
        ident.partialInfo = 3
        cabinet.identification = ident
        cabinet.idu = 255
        cabinet.model = self
        self(cabinet)

    def __call__(self, cabinet):
        plant, now = self.plant, int(time.time())
        nominal = cabinet.nominal
        nominal.timestamp, nominal.VA, nominal.W = now, NOMINAL_W, NOMINAL_W
        status, ups = cabinet.status, cabinet.status.Ups
        status.timestamp = ups.timestamp = now
        self._switches(status, cabinet)
        self._power(ups)
        self._battery(ups)
        ups.Temp0 = self._near(26 + 2 * _wave(plant.seconds, 120), 0.6)
        ups.Temp1 = self._near(39 + ups.maxLoad / 12)
        ups.Temp2 = self._near(37 + ups.maxLoad / 15)

    def _switches(self, status, cabinet):
        ups, mains = status.Ups, self.plant.mains
        for bit, on in (("Output_Powered", 1), ("Battery_Working", not mains), ("Line_Present", mains), ("SWOUT", 1)):
            ups.set("status." + bit, on)
        for bit, on in (("Battery_Charging", mains and self.plant.charge() < 100), ("UPS_OK", 1),
                        ("isMaster", self.letter == "B")):
            ups.set("extStatus." + bit, on)
        if self.letter == "B":
            cabinet.idu = (frames.address("B") * 8 + 177) & 0xFF
        for bit in ("Q1", "Bt_present"):
            ups.set("switchStatus." + bit)
        for bit in ("SWIN", "SWBYP", "SWBATT_EXT", "EPO"):
            status.set("externalSwitchStatus." + bit)
        status.set("boxStatus.SWBATT")
        # A module that answers its card is reported with the fault code, whatever it says of itself.
        status.UPSShelter = FAULT

    def _power(self, ups):
        plant = self.plant
        volts = [plant.voltage(phase) if plant.mains else 0 for phase in range(3)]
        hertz = plant.frequency() if plant.mains else 0
        ups.Vin = [self._near(v, 0.4) if v else 0 for v in volts]
        ups.Vbyp = list(ups.Vin)
        ups.Uin = [round(1.732 * v) for v in ups.Vin]
        ups.Ubyp = list(ups.Uin)
        ups.Frq_in = ups.Frq_byp = round(hertz)
        ups.Vout = [self._near(230, 0.7) for _ in range(3)]
        ups.Uout = [round(1.732 * v) for v in ups.Vout]
        ups.Frq_out = 500 if not plant.mains else round(hertz)
        share = plant.demand() / plant.sharing
        watts = [share / 3 * uneven * self._random.uniform(0.99, 1.01) for uneven in (1.04, 0.99, 0.97)]
        ups.Watt = [round(w) for w in watts]
        ups.Va = [round(w / 0.94) for w in watts]
        ups.Load = [round(100 * va / (NOMINAL_W / 3)) for va in ups.Va]
        ups.maxLoad = max(ups.Load)
        ups.Iout = [round(10 * va / v) for va, v in zip(ups.Va, ups.Vout)]
        ups.Iout_pk = [round(1.6 * i) for i in ups.Iout]
        ups.Iin = [round(10 * w * 1.05 / v) if v else 0 for w, v in zip(ups.Watt, ups.Vin)]

    def _battery(self, ups):
        charge = self.plant.charge()
        volts = BATTERY_V * (0.88 + 0.12 * charge / 100) if not self.plant.mains else BATTERY_V
        ups.Vbatp, ups.Vbatn = self._near(volts, 0.6), self._near(volts, 0.6)
        ups.VbatRS = ups.Vbatp
        if self.plant.mains:
            ups.Ibatp = ups.Ibatn = round((100 - charge) * 4)
        else:
            ups.Ibatp = ups.Ibatn = -round(10 * sum(ups.Watt) / (2 * max(1, ups.Vbatp)))
        ups.Carica_adj = round(charge)
        ups.Aut_time = round(AUTONOMY_MINUTES * charge / 100)
