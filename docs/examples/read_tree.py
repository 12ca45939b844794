#!/usr/bin/python3
"""Prints a line for each cabinet out of the gateway's segment.

    read_tree.py DIRECTORY       the gateway's working directory, which holds the file UGW

Exit status 0, 1 if there is no plant to read, 2 if it never stood still.
"""

import ctypes
import os
import struct
import sys
import time

NODE = 446                    # bytes of a node
NONE = 255                    # a link that leads nowhere
ID, NEXT, SON, DESC = 33, 50, 52, 177
ROOT_BOXES = DESC + 261       # in the root: state of each cabinet, by letter
BOX_TIME, UPS = DESC, DESC + 4
STATES = ("lost", "ok", "warning", "anomaly", "fault", "lock", "?", "?")
SHM_RDONLY = 0o10000

libc = ctypes.CDLL(None, use_errno=True)
libc.shmat.restype = ctypes.c_void_p
libc.shmat.argtypes = (ctypes.c_int, ctypes.c_void_p, ctypes.c_int)


def attach(directory):
    """The segment's bytes, as a view of shared memory; None if there is none."""
    key = libc.ftok(os.path.join(directory, "UGW").encode(), 1)
    if key == -1:
        return None
    id = libc.shmget(key, 0, 0)
    address = libc.shmat(id, None, SHM_RDONLY) if id != -1 else None
    if address in (None, ctypes.c_void_p(-1).value):
        return None
    with open("/proc/sysvipc/shm") as table:
        next(table)
        sizes = {int(line.split()[1]): int(line.split()[3]) for line in table}
    return (ctypes.c_ubyte * sizes[id]).from_address(address)


def node(segment, index, tries=20):
    """A node, copied until two copies agree: nobody locks the segment."""
    place = slice(index * NODE, (index + 1) * NODE)
    for _ in range(tries):
        copy = bytes(segment[place])
        time.sleep(0.001)
        if copy == bytes(segment[place]):
            return copy
    sys.exit(2)


def main(directory):
    segment = attach(directory)
    if segment is None or len(segment) < 2 * NODE:
        print("%s/UGW: no segment of a gateway" % directory, file=sys.stderr)
        return 1
    nodes = len(segment) // NODE
    root = node(segment, 0)
    at, steps = root[SON], 0
    while at < nodes and at != NONE and steps < nodes:  # no link is trusted
        box = node(segment, at)
        name = box[ID:ID + 16].split(b"\0")[0].decode("latin-1")  # "SA.BC"; may lack its end
        letter = "ABCD".find(name[4:5])
        load = struct.unpack_from("<3h", box, UPS + 10)
        volts = struct.unpack_from("<3H", box, UPS + 71)
        (stamp,) = struct.unpack_from("<i", box, BOX_TIME)
        print("%s %s in %d %d %d V load %d %d %d %% battery %d %% age %d s"
              % (name, STATES[root[ROOT_BOXES + letter] & 7] if letter >= 0 and name[4:5] else "?", *volts, *load,
                 box[UPS + 56], int(time.time()) - stamp))
        at, steps = box[NEXT], steps + 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
