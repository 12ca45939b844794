"""What a demonstration takes place in: a bus with real gateways, simulated cabinets, simulated modules."""

from sim.bus import Bus
from sim.cabinet import Cabinet
from sim.gateway import Gateway
from sim.loop import Loop
from sim.module import Module
from sim.plant import AUTONOMY_MINUTES, CabinetModel, ModuleModel, Plant

# Entries that each record holds at most.
KEEP = 500


class Scene:
    """The bus with real gateways and simulated cabinets on it. `real` are the letters of the gateways, the first of
    them the one that is looked at. Each has a module line of its own; with `module_baud` its speed, and a simulated
    power module on it. `autonomy` is how many minutes the modules' batteries last."""

    def __init__(self, build, real="A", simulated="BCD", speed=1.0, module_baud=None, autonomy=AUTONOMY_MINUTES):
        self.loop = Loop()
        self.gateways = {}
        self.cabinets = {}
        self.modules = {}
        try:
            self.bus = Bus(self.loop, speed=speed, keep=KEEP)
            everyone = sorted(real + simulated)
            self.plant = Plant(sharing=len(everyone))
            for letter in simulated:
                cabinet = self.cabinets[letter] = self.bus.attach(Cabinet(letter, keep=KEEP))
                CabinetModel(self.plant, letter).install(cabinet)
            mask = "1" + "".join("1" if letter in everyone else "0" for letter in "BCD")
            for letter in real:
                gateway = self.gateways[letter] = Gateway(self.bus, letter, mask=mask, build=build,
                                                          module_baud=module_baud or 1200)
                if module_baud:
                    module = self.modules[letter] = gateway.module_line.attach(Module(keep=KEEP))
                    ModuleModel(self.plant, letter, autonomy).install(module)
        except BaseException:
            self.close()
            raise
        self.main = self.gateways[real[0]]

    def start(self):
        for gateway in self.gateways.values():
            gateway.start()

    def round_seconds(self):
        """Length of the last whole round of the master on the bus, or None."""
        begins = [h.start for h in self.bus.frames(command="BN") if h.frame.src == h.frame.dest]
        return begins[-1] - begins[-2] if len(begins) > 1 else None

    def close(self):
        for gateway in self.gateways.values():
            gateway.close()
        if hasattr(self, "bus"):
            self.bus.close()
        self.loop.stop()
