"""How a power module behaves: its modes, what its commands do, and the timers behind them.

The unit knows nothing of frames. The module hands it commands and shows what it has become in the status bits; a model
of the surroundings (sim.plant) tells it of the mains and the battery.
"""

import time

MAINS, BATTERY, BYPASS, OFF, LOCK = "mains", "battery", "bypass", "off", "lock"

# Refusal codes that the unit itself gives.
NOT_NOW = "5"

# Events of which the last one is shown, and the two that name a mode's begin.
EVENTS = ("OnForSystemOn", "ShutdownDeleted", "PowerOn", "LoadOnBypass", "BatteryWorking", "OffForLock",
          "OffForBatteryEnded", "OffForShutdownCommand", "OffForSystemOff", "OnForRestoreCommand")


class Unit:
    """A power module's behaviour. `now` gives the time in seconds; timers are carried out by `tick`, which all
    commands and the replies call first.

    on, locked, bypass (ordered onto it), mains (there is an input), battery_low: as the names say, to be set from
    outside at will. clock: the text of the last ST. test: what the last battery test was asked for. settings: the
    data of the last CF, CM, SM and SV, by command. test_seconds, imminent_seconds: how long a battery test takes, how
    long before the shutdown it is imminent. The delays of CS and CR are taken as seconds, times `delay_unit`.
    """

    def __init__(self, now=time.monotonic):
        self.on = True
        self.locked = False
        self.bypass = False
        self.mains = True
        self.battery_low = False
        self.clock = None
        self.test = None
        self.settings = {}
        self.test_seconds = 10.0
        self.imminent_seconds = 10.0
        self.delay_unit = 1.0
        self.shutdown_at = None
        self.restore_at = None
        self.test_ends = None
        self.event = None
        self._now = now

    @property
    def mode(self):
        """MAINS, BATTERY, BYPASS, OFF or LOCK."""
        if self.locked:
            return LOCK
        if not self.on:
            return OFF
        if self.test_ends is not None or not self.mains:
            return BATTERY
        return BYPASS if self.bypass else MAINS

    @property
    def testing(self):
        return self.test_ends is not None

    @property
    def shutdown_imminent(self):
        return self.shutdown_at is not None and self.shutdown_at - self._now() <= self.imminent_seconds

    def tick(self):
        """Carries out what has fallen due."""
        now = self._now()
        if self.testing and (now >= self.test_ends or not self.mains or not self.on):
            self.test_ends = None
        if self.shutdown_at is not None and now >= self.shutdown_at:
            self.shutdown_at = None
            self.power_off("OffForShutdownCommand")
        if self.restore_at is not None and now >= self.restore_at:
            self.restore_at = None
            self.power_on("OnForRestoreCommand")

    # What befalls it.

    def power_on(self, event="OnForSystemOn"):
        """Switches on; returns a refusal if it is locked."""
        if self.locked:
            return NOT_NOW
        if not self.on:
            self.on, self.event = True, event
        return None

    def power_off(self, event="OffForSystemOff"):
        """Switches off."""
        if self.on:
            self.on, self.event = False, event
        self.test_ends = self.shutdown_at = None

    def lock(self):
        """Locks: the output goes, and only `unlock` brings it back."""
        self.locked, self.event = True, "OffForLock"
        self.test_ends = self.shutdown_at = self.restore_at = None

    def unlock(self):
        """Takes the lock away."""
        self.locked = False

    def battery_ended(self):
        """The battery is empty: off, unless something else feeds it."""
        if self.mode == BATTERY:
            self.power_off("OffForBatteryEnded")

    # Commands; each takes the data and returns None, or the code of the refusal.

    def change_over(self, data):
        """CB: "1" onto the bypass, anything else back onto the inverter."""
        if self.mode in (OFF, LOCK):
            return NOT_NOW
        self.bypass = data == b"1"
        self.event = "LoadOnBypass" if self.bypass else None
        return None

    def delete(self, _data):
        """CD: no pending shutdown, no pending restore."""
        if self.shutdown_at is not None or self.restore_at is not None:
            self.event = "ShutdownDeleted"
        self.shutdown_at = self.restore_at = None

    def turn_on(self, _data):
        """CP."""
        return self.power_on()

    def shut_down(self, delay):
        """CS: off after a delay."""
        return self._schedule(delay, None)

    def restore(self, delay, pause):
        """CR: off after a delay, on again after a pause from then on."""
        return self._schedule(delay, pause)

    def _schedule(self, delay, pause):
        if self.mode in (OFF, LOCK):
            return NOT_NOW
        self.shutdown_at = self._now() + delay * self.delay_unit
        self.restore_at = None if pause is None else self.shutdown_at + pause * self.delay_unit
        self.tick()
        return None

    def release_bypass(self, _data):
        """CU."""
        self.unlock()
        self.bypass = False

    def switch(self, data):
        """DC: "1" on, "0" off."""
        if data == b"1":
            return self.power_on()
        self.power_off()
        return None

    def set_clock(self, data):
        """ST: day, month, year, hours, minutes, seconds, two digits each."""
        self.clock = data.decode("latin-1")

    def start_test(self, data):
        """TB: a battery test; refused but on mains."""
        if self.mode != MAINS:
            return NOT_NOW
        self.test = data
        self.test_ends = self._now() + self.test_seconds
        self.event = "BatteryWorking"
        return None

    def end_test(self, _data):
        """TC: ends a battery test."""
        self.test = self.test_ends = None

    # What shows.

    def show(self, data):
        """Sets the status bits of a ModuleData that follow from the unit; leaves all others alone."""
        mode = self.mode
        bits = {
            "Output_Powered": mode in (MAINS, BATTERY, BYPASS),
            "Lock": mode == LOCK,
            "Battery_Working": mode == BATTERY,
            "Battery_Low": self.battery_low and mode == BATTERY,
            "On_Bypass": mode == BYPASS,
            "Shutdown_Active": self.shutdown_at is not None,
            "Shutdown_Imminent": self.shutdown_imminent,
            "Test_in_progress": self.testing,
            "BypassCommandActive": self.bypass,
            "BatteryTestActive": self.testing,
            "RemoteOffCommand": not self.on,
            "ShutdownActive": self.shutdown_at is not None,
            "ShutdownImminent": self.shutdown_imminent,
            "BatteryLowWarning": self.battery_low and mode == BATTERY,
            "AuxiliaryPowerFail": mode == LOCK,
        }
        bits.update((name, name == self.event) for name in EVENTS)
        for name, value in bits.items():
            data.set(name, value)
