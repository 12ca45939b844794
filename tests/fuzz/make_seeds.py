#!/usr/bin/python3
"""Writes the seeds of the fuzz targets anew: the frames of the recorded exchanges (tests/golden) and the records of the
virtual plant, each as its target's input describes it.

    PYTHONPATH=. /usr/bin/python3 tests/fuzz/make_seeds.py
"""

import pathlib
import re

from sim import records

HERE = pathlib.Path(__file__).resolve().parent
GOLDEN = HERE.parent / "golden"

# In the order of Frames.cpp.
BUS = ["BN", "BS", "BI", "BE", "CN", "CH", "CU", "GI", "GS", "GE", "OR", "OS", "QT", "SC", "SI", "TB", "UC", "SA", "F0",
       "\x151"]
MODULE = ["CB", "CD", "CF", "CM", "CP", "CR", "CS", "CU", "DC", "DE", "DS", "GE", "GI", "GM", "GN", "RB", "RC", "RE",
          "RK", "RS", "RX", "SM", "ST", "SV", "TB", "TC", "XA", "\x155"]
USUAL = {b"DE": 58, b"DS": 58, b"GE": 16, b"GI": 56, b"GM": 4, b"GN": 22, b"RB": 109, b"RC": 44, b"RE": 58, b"RK": 58,
         b"RS": 58, b"RX": 169, b"SV": 4}
OWN_COMMAND, LONG = 0x01, 0x02
PER_SEED = 8   # frames
LARGEST = 2000  # bytes of a seed
KEPT = 24      # seeds of a kind


def frames_of(name):
    """Bus frames and module frames of a recording, in their order: (is_bus, bytes)."""
    found = []
    for line in (GOLDEN / name).read_text().splitlines():
        for part in re.findall(r"(?:>>|<<)((?: [0-9A-F]{2}| \|)+)", line):
            data = bytes(int(each, 16) for each in part.replace("|", " ").split())
            if len(data) >= 12 and data[0] == 2 and data[-1] == 3:
                if len(data) == 10 + data[5] * 256 + data[6]:
                    found.append((True, data))
                elif len(data) == 12 + ((data[5] - 48) * 16 + data[6] - 48) % 256:
                    found.append((False, data))
    return found


def command_of(table, frame):
    text = frame[3:5].decode("latin-1")
    if text in table:
        return 0, bytes([table.index(text)])
    return OWN_COMMAND, frame[3:5]


def described(table, frame, data, addresses=True):
    shape, command = command_of(table, frame)
    length = bytes([len(data) % 256])
    if len(data) > 255:
        shape |= LONG
        length += bytes([len(data) // 256])
    return bytes([shape]) + (frame[1:3] if addresses else b"") + command + length + data


def bus(frame):
    return described(BUS, frame, frame[7:-3])


def module(frame):
    return described(MODULE, frame, frame[7:-5])


def bus_frame(src, dest, command, data=b""):
    """Without its check, which the target makes."""
    return bytes([2, src, dest]) + command.encode("latin-1") + bytes([len(data) // 256, len(data) % 256]) + data + b"\0\0\3"


def plant_frames():
    status = records.StatusReply() if hasattr(records, "StatusReply") else None
    cabinet = records.CabinetStatus()
    cabinet.Ups.Vin = [230, 231, 229]
    cabinet.set("Ups.status.Output_Powered")
    handover = records.Handover()
    data = {"BS": cabinet.pack() + b"z", "BN": records.Nominal().pack(), "BI": records.blank_identification().pack(),
            "CN": handover.pack()}
    assert status is None or len(data["BS"]) == records.StatusReply.SIZE
    all_frames = []
    for box in range(4):
        for command, bytes_ in data.items():
            all_frames.append(bus_frame(0xEA + box, 0xFF, command, bytes_))
    for command in ("BS", "BN", "BI", "UC", "CU", "CH", "SA"):
        all_frames.append(bus_frame(0xEA, 0xEB, command))
    all_frames.append(bus_frame(0x0A, 0xFF, "GI", bytes(range(64))))
    return all_frames


def chunks(items, size=PER_SEED):
    return [items[i:i + size] for i in range(0, len(items), size)]


def unique(items):
    return list(dict.fromkeys(items))


class Seeds:
    def __init__(self):
        self.all = {}
        self.always = {}

    def add(self, target, *parts, always=False):
        data = b"".join(parts)[:LARGEST]
        (self.always if always else self.all).setdefault(target, []).append(data)

    def write(self):
        for target, seeds in self.all.items():
            folder = HERE / "seeds" / target
            folder.mkdir(parents=True, exist_ok=True)
            for old in folder.glob("[0-9][0-9]"):  # the others were learnt
                old.unlink()
            kept = unique(seeds)
            step = max(1, len(kept) // KEPT)
            for number, seed in enumerate(kept[::step][:KEPT] + self.always.get(target, [])):
                (folder / ("%02d" % number)).write_bytes(seed)


def main():
    recordings = {path.name: frames_of(path.name) for path in sorted(GOLDEN.glob("*.txt"))}
    bus_frames = unique([f for all_ in recordings.values() for is_bus, f in all_ if is_bus]) + plant_frames()
    module_frames = unique([f for all_ in recordings.values() for is_bus, f in all_ if not is_bus])
    seeds = Seeds()

    for group in chunks(bus_frames):
        seeds.add("bus_receiver", b"\0\1\3", *(b"\0\1" + bus(f) for f in group))
        seeds.add("bus_receiver", b"\0\1\3", *(b"\1\1" + bytes([len(f[:255])]) + f[:255] for f in group))
        for frame in group:
            shape, command = command_of(BUS, frame)
            seeds.add("bus_receiver", b"\1", frame[1:2], bytes([shape]), command, b"\0\4", b"\0\1" + bus(frame))
        seeds.add("bus_slave", b"\0", *(b"\0" + bus(f) for f in group))
        seeds.add("bus_slave", b"\1", *(b"\x54" + bus(f) for f in group))
        seeds.add("bus_reply", *(b"\3" + bus(f) + b"\1" for f in group))
        for frame in group:
            shape, command = command_of(BUS, frame)
            if frame[2] == 0xFF:
                seeds.add("bus_reply", b"\5", frame[1:2], bytes([shape]), command,
                          bytes([0, 0x31, 0x42, 14, 0]) if command[0] == BUS.index("QT") and not shape else b"\0",
                          bus(frame))
    # Behind a run that leaves no room at the end of the receiver's memory; behind one that takes longer than it hunts.
    slow = b"\x0d\0\xf1\xff\x55" * 3
    for group in chunks(plant_frames())[:2]:
        seeds.add("bus_receiver", b"\0\1\7\x0d\0\0\xfe\x55\1\0\7UUUUUUU", *(b"\0\0" + bus(f) for f in group),
                  always=True)
        seeds.add("bus_receiver", b"\0\1\7", slow, b"\0\1" + bus(group[0]), always=True)
        shape, command = command_of(BUS, group[0])
        seeds.add("bus_receiver", b"\1", group[0][1:2], bytes([shape]), command, b"\0\4", slow, b"\0\1" + bus(group[0]),
                  always=True)

    seeds.add("bus_reply", *(b"\x0c" + f[7:-3] for f in plant_frames()[:8]))
    seeds.add("bus_reply", b"\0\0\0\0" * 3)

    for frame in module_frames:
        shape, command = command_of(MODULE, frame)
        asked = bytes([shape]) + command + b"\0"
        seeds.add("module_receiver", asked, b"\0\2", frame[7:-5])
        seeds.add("module_receiver", asked, b"\4\2", frame[7:-5], b"\5\x31")
        seeds.add("module_receiver", asked, b"\3\2", bytes([len(frame)]), frame)
        seeds.add("module_receiver", asked, b"\2\2", module(frame))
    # For longer than a start byte is hunted for.
    seeds.add("module_receiver", b"\0\0\0", b"\3\6\1U" * 46, b"\0\2", always=True)
    for group in chunks(module_frames):
        seeds.add("module_reply", *(b"\2\0" + module(f) + b"\1" for f in group), b"\1\5")
        seeds.add("module_reply", *(b"\6\0" + f[1:2] + command_of(MODULE, f)[1] + f[2:3] + f[7:-5] for f in group
                                    if len(f) - 12 == USUAL.get(f[3:5], 0)), b"\1\5")
        seeds.add("module_reply", *(b"\4" + module(f) for f in group), b"\1\5")
        seeds.add("module_reply", *(b"\x08" + f[7:-5] for f in group), b"\1\0", b"\1\xff")
        seeds.add("tunnel", *(b"\0" + module(f) for f in group), b"\7")
        seeds.add("tunnel", *(b"\2" + module(f) for f in group))
        seeds.add("tunnel", *(b"\3\1\2\3\x65" + module(f) + b"\1\0" for f in group))
        seeds.add("tunnel", *(b"\5" + module(f) for f in group), b"\7")
        seeds.add("bus_slave", b"\0", *(b"\3\xea\xeb" + module(f) for f in group))
        seeds.add("bus_slave", b"\0", *(b"\3\xea\xff" + module(f) + b"\1\2\3\x65" for f in group))
        for frame in group[:2]:
            shape, command = command_of(MODULE, frame)
            seeds.add("tunnel", b"\6", bytes([shape, 0]), command, b"\0", b"\1\2\3\x65",
                      described(MODULE, frame, frame[7:-5], addresses=False))

    # On battery and low, off battery, locked; each folded.
    rs = b"\6\0" + b"1" + bytes([MODULE.index("RS")]) + b"A"
    seeds.add("module_reply", *(rs + state + b"0" * 57 + b"\1\5" for state in (b";", b"8", b"<")), always=True)

    cabinet = records.CabinetStatus()
    cabinet.Ups.Vin = [230, 231, 229]
    for bit in ("Ups.status.Output_Powered", "Ups.status.Line_Present", "Ups.status.SWOUT", "Ups.extStatus.UPS_OK"):
        cabinet.set(bit)
    raw, nominal = cabinet.pack(), records.Nominal().pack()
    name = records.blank_module_identification().pack()
    for how in range(0, 256, 16):
        seeds.add("aggregation", bytes([how]), b"\0\0\0\0", b"\x05\0" * 6)
    for first in (0, 1, 2, 0x20, 0x40):
        seeds.add("aggregation", b"\0", bytes([first]) + (b"\1\2\3\x65" if first == 0x20 else b""), b"\0\0\0",
                  b"\xff\0" * 4)
    seeds.add("aggregation", b"\1", *(b"\x04" + raw for _ in range(4)), b"\x05\0" * 4)
    seeds.add("aggregation", b"\1", b"\x90" + nominal + name, b"\0\0\0", b"\x05\1\0\x84\0\xff" * 4)
    seeds.add("aggregation", b"\1", b"\x08\x03\x7f\0\xff\x80\0\xff\x81\0\xff", b"\0\0\0", b"\xff\2\0\x84\0\1\1\x85\0\2" * 4)

    for view in range(8):
        seeds.add("segment", b"\7" + bytes([view]), b"\4\1\5\1", b"\7" + bytes([view + 16]), b"\6\0")
    for place in range(54):
        seeds.add("segment", b"\0\1", bytes([place % 10, place]), b"\xff", b"\4\1\7\6")
    for value in range(8):
        seeds.add("segment", b"\0\2\0" + bytes([value]) + b"\1\0\2\0", b"\4\1\5\1")
        seeds.add("segment", b"\0\2\6" + bytes([value]) + b"\1\0\2\0", b"\5\1\4\1")
    seeds.add("segment", b"\0\3\2\4\x10\0\xff\x20\0\xff\x30\0\xff\x40\0\xff", b"\7\xff")
    seeds.add("segment", b"\0\0\x40" + bytes(range(64)) + b"\x20\2", b"\7\xff\4\0\5\0")
    # Brothers in a circle; sons that are nobody's; texts that run on into what lies behind them.
    for place, nodes in ((50, range(2, 6)), (50, range(6, 10)), (52, range(0, 6))):
        for link in (2, 6):
            seeds.add("segment", *(b"\0\1" + bytes([node, place, link]) for node in nodes), b"\6\3\7\0\4\1\5\1",
                      always=True)
    for node in (0, 2, 6):
        at = node * records.Node.SIZE + records.Node.offset("identification.SN")
        seeds.add("segment", b"\0\0\x2f" + b"A" * 47, bytes([at % 256, at // 256]), b"\4\1\7\1\7\6\7\3\5\1\4\1",
                  always=True)
    seeds.write()


if __name__ == "__main__":
    main()
