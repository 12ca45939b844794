"""Records the documents of fixtures/ anew, from real gateways on a virtual plant.

    python3 tests/web/record.py [--build DIR]

Byte for byte what the gateway of card A has written, in a plant of four cabinets: all well, the mains away, all on
bypass, cabinet C's module dead. Then one of a gateway that stands alone and whose module has markup, quotes and control
characters for a name, and one of the same when its module has fallen silent. Takes about half a minute.
"""

import argparse
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))

from sim.gateway import default_build  # noqa: E402
from sim.scene import Scene  # noqa: E402

FIXTURES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fixtures")
SPEED = 20
BAUD = 115200
# Seconds for the values behind the flags to arrive from all cabinets.
SETTLING = 6.0
NAMES = {"SN": "<img src=x:y a=1", "Model": "\"<b>\\M\x01\x07&amp;\"\x7f,", "SWVer": "\x1b[31m</p>\"]}"}


def _keep(gateway, name, wanted):
    """Waits for the status, lets it settle, writes the document down."""
    raw = gateway.status_file.raw
    deadline = time.monotonic() + 60
    while not (raw() and wanted(raw())):
        assert time.monotonic() < deadline, "%s: %r" % (name, raw())
        time.sleep(0.1)
    time.sleep(SETTLING)
    document = raw()
    assert wanted(document), name
    with open(os.path.join(FIXTURES, name + ".json"), "wb") as file:
        file.write(document)
    print("%s: %d bytes" % (name, len(document)))


def _says(*lines):
    return lambda raw: all(line.encode() in raw for line in lines)


def record(build):
    """All of them."""
    scene = Scene(build, real="ABCD", simulated="", speed=SPEED, module_baud=BAUD)
    try:
        scene.start()
        _keep(scene.main, "well", lambda raw: _says('"OUTPUTPOWERED": true', '"NOMINALPOWERVA": 160000')(raw)
              and b"LOST" not in raw and b"SW" not in raw.split(b"statusAlarms")[1])
        scene.plant.mains = False
        _keep(scene.main, "battery", _says('"BATTERYWORK": true'))
        scene.plant.mains = True
        for module in scene.modules.values():
            module.unit.bypass = True
        _keep(scene.main, "bypass", _says('"ONBYPASS": true', '"BATTERYWORK": false', '"LINEPRESENT": true'))
        for module in scene.modules.values():
            module.unit.bypass = False
        scene.modules["C"].silent = True
        _keep(scene.main, "lost", _says("MODULE_3_LOST", '"ONBYPASS": false', '"NOMINALPOWERVA": 120000'))
    finally:
        scene.close()
    scene = Scene(build, real="A", simulated="", speed=SPEED, module_baud=BAUD)
    try:
        module = scene.modules["A"]
        for field, text in NAMES.items():
            setattr(module.data, field, text)
        scene.start()
        _keep(scene.main, "hostile", _says("<img src", '"OUTPUTPOWERED": true'))
        module.silent = True
        _keep(scene.main, "nothing", _says("MODULE_1_LOST", '"OUTPUTPOWERED": false'))
    finally:
        scene.close()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=default_build())
    os.makedirs(FIXTURES, exist_ok=True)
    record(parser.parse_args().build)
