"""Measures of a three-phase UPS plant, plausible and moving.

A Plant holds what the cabinets share: the mains, the load and the time. For each simulated cabinet a CabinetModel
turns that into records; set as `cabinet.model` it brings them up to date at each poll. For each simulated power module
a ModuleModel does the same with what the module tells, and empties and fills its battery. Units as on the real lines:
volts, tenths of a hertz, tenths of an ampere, watts, volt-amperes, per cent, minutes, degrees Celsius.
"""

import math
import random
import time

from sim import frames
from sim.records import FAULT, blank_identification
from sim.unit import BATTERY, BYPASS, LOCK, MAINS, OFF

NOMINAL_W = 40000
BATTERY_V = 272
AUTONOMY_MINUTES = 48


def _wave(t, period, phase=0.0):
    return math.sin(2 * math.pi * t / period + phase)


def _output(share, volts, rng):
    """Watts, volt-amperes, load, current and peak current of the three phases that carry a share of the load."""
    watts = [share / 3 * uneven * rng.uniform(0.99, 1.01) for uneven in (1.04, 0.99, 0.97)]
    va = [round(w / 0.94) for w in watts]
    amperes = [round(10 * power / v) if v else 0 for power, v in zip(va, volts)]
    return ([round(w) for w in watts], va, [round(100 * power / (NOMINAL_W / 3)) for power in va], amperes,
            [round(1.6 * i) for i in amperes])


class Plant:
    """The surroundings. `sharing` is the number of cabinets that share the load. `mains` switches the mains off
    and on; the battery then empties and fills. `modules` are the models of the simulated power modules: those that
    feed the load share it among themselves, and each has a battery of its own."""

    def __init__(self, sharing=4, now=time.monotonic):
        self.sharing = sharing
        self.mains = True
        self.modules = []
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
        ups.Watt, ups.Va, ups.Load, ups.Iout, ups.Iout_pk = _output(share, ups.Vout, self._random)
        ups.maxLoad = max(ups.Load)
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


class ModuleModel:
    """Measures of one power module of a plant. Calling it with the module tells the unit of the mains and the battery
    and fills the module's data. `autonomy` is how many minutes the battery feeds the module's usual share."""

    LOW_CHARGE = 20.0
    CHARGING_MINUTES = 20.0

    def __init__(self, plant, letter, autonomy=AUTONOMY_MINUTES):
        self.plant = plant
        self.letter = letter
        self.autonomy = autonomy
        self.charge = 96.0
        self.mode = OFF
        self._random = random.Random("module " + letter)
        self._charged_at = plant.seconds
        plant.modules.append(self)

    def install(self, module):
        """Gives the module an identity and this model."""
        data = module.data
        data.SN = "DEMOM%s0000000001" % self.letter
        data.Model = "VIRTUAL MODULE"
        data.VA = data.W = NOMINAL_W
        module.unit.mains = self.plant.mains
        self.mode = module.unit.mode
        module.model = self

    @property
    def feeding(self):
        """True if it carries a share of the load."""
        return self.mode in (MAINS, BATTERY, BYPASS)

    def __call__(self, module):
        unit = module.unit
        unit.mains = self.plant.mains
        self.mode = unit.mode
        self._use_battery()
        unit.battery_low = self.charge < self.LOW_CHARGE
        if self.charge <= 0:
            unit.battery_ended()
        self.mode = unit.mode
        feeders = sum(model.feeding for model in self.plant.modules)
        share = self.plant.demand() / max(1, feeders) if self.feeding else 0
        self._measure(module.data, share)
        self._report(module.data)

    def _use_battery(self):
        now = self.plant.seconds
        passed, self._charged_at = now - self._charged_at, now
        if self.mode == BATTERY:
            rate = -100.0 / (self.autonomy * 60)
        else:
            rate = 100.0 / (self.CHARGING_MINUTES * 60) if self.plant.mains else 0.0
        self.charge = min(100.0, max(0.0, self.charge + rate * passed))

    def _near(self, value, spread=1.0):
        return max(0, round(value + self._random.uniform(-spread, spread)))

    def _measure(self, data, share):
        plant, on_mains = self.plant, self.plant.mains
        data.Vin = [self._near(plant.voltage(phase), 0.4) if on_mains else 0 for phase in range(3)]
        data.Vbyp = list(data.Vin)
        data.Frq_in = data.Frq_byp = round(plant.frequency()) if on_mains else 0
        data.Vout = [self._near(230, 0.7) if self.feeding else 0 for _ in range(3)]
        data.Frq_out = (data.Frq_in or 500) if self.feeding else 0
        data.Watt, data.Va, load, data.Iout, data.Iout_pk = _output(share, data.Vout, self._random)
        data.Load = [min(255, value) for value in load]
        data.Iin = [round(10 * w * 1.05 / v) if v and self.mode == MAINS else 0 for w, v in zip(data.Watt, data.Vin)]
        volts = BATTERY_V * (0.88 + 0.12 * self.charge / 100) if self.mode == BATTERY else BATTERY_V
        data.VbatRS = self._near(volts, 0.6)
        # In tenths of a volt of a single battery, of which the bench has so many in a row.
        batteries = data.BatteryV // 12
        data.Vbatp, data.Vbatn = (self._near(volts * 10 / batteries, 0.3) for _ in range(2))
        amperes = 10 * sum(data.Watt) / (2 * volts) if self.mode == BATTERY else (100 - self.charge) * 4
        data.Ibatp = data.Ibatn = min(4095, round(amperes))
        data.Carica_adj = round(self.charge)
        data.Aut_time = round(self.autonomy * self.charge / 100)
        data.Temp0 = self._near(26 + 2 * _wave(plant.seconds, 120), 0.6)
        data.Temp1, data.Temp2, data.Temp3 = (self._near(37 + max(data.Load) / 12) for _ in range(3))
        data.Temp4, data.Temp5, data.Temp6 = self._near(35), self._near(31), self._near(30)

    def _report(self, data):
        lost = not self.plant.mains
        for bit in ("MainsUnderVoltageL1", "MainsUnderVoltageL2", "MainsUnderVoltageL3", "Bypass_Bad"):
            data.set(bit, lost)
        data.set("Battery_Charging", not lost and self.mode != LOCK and self.charge < 100)
