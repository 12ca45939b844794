"""System V shared memory through ctypes. Everything here works on the IPC namespace of the calling process: a
segment inside a sandbox is read by the sandbox's jail process (sim.jail), which calls these functions there."""

import collections
import ctypes
import os

IPC_CREAT = 0o1000
IPC_EXCL = 0o2000
IPC_RMID = 0
SHM_RDONLY = 0o10000

_libc = ctypes.CDLL(None, use_errno=True)
_libc.shmat.restype = ctypes.c_void_p
_libc.shmat.argtypes = (ctypes.c_int, ctypes.c_void_p, ctypes.c_int)
_libc.shmdt.argtypes = (ctypes.c_void_p,)
_libc.shmget.argtypes = (ctypes.c_int, ctypes.c_size_t, ctypes.c_int)
_libc.shmctl.argtypes = (ctypes.c_int, ctypes.c_int, ctypes.c_void_p)

Segment = collections.namedtuple("Segment", "key id mode size attached uid")


def _check(result):
    if result == -1:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
    return result


def key_of(path, project=1):
    """The key that ftok gives for a file: project number, low byte of the device, low 16 bits of the inode; a
    signed 32-bit number."""
    stat = os.stat(path)
    key = (project & 0xFF) << 24 | (stat.st_dev & 0xFF) << 16 | stat.st_ino & 0xFFFF
    return key - (1 << 32) if key & 0x80000000 else key


def segments():
    """All segments of this IPC namespace."""
    found = []
    with open("/proc/sysvipc/shm") as table:
        names = table.readline().split()
        for line in table:
            row = dict(zip(names, line.split()))
            found.append(Segment(int(row["key"]), int(row["shmid"]), int(row["perms"], 8) & 0o777, int(row["size"]),
                                 int(row["nattch"]), int(row["uid"])))
    return found


def create(key, size, mode=0o604, fill=0):
    """Makes a new segment, filled with a byte; returns its id."""
    shmid = _check(_libc.shmget(key, size, IPC_CREAT | IPC_EXCL | mode))
    write(shmid, 0, bytes((fill,)) * size)
    return shmid


def attach(shmid, read_only=True):
    """Attaches a segment; returns the address."""
    at = _libc.shmat(shmid, None, SHM_RDONLY if read_only else 0)
    if at == ctypes.c_void_p(-1).value:
        _check(-1)
    return at


def detach(at):
    """Detaches a segment at an address that `attach` gave."""
    _check(_libc.shmdt(at))


def read(shmid, size, offset=0):
    """A copy of `size` bytes of a segment."""
    at = attach(shmid)
    try:
        return ctypes.string_at(at + offset, size)
    finally:
        detach(at)


def write(shmid, offset, data):
    """Puts bytes into a segment."""
    at = attach(shmid, read_only=False)
    try:
        ctypes.memmove(at + offset, data, len(data))
    finally:
        detach(at)


def remove(shmid):
    """Removes a segment; it goes when the last process has detached."""
    _check(_libc.shmctl(shmid, IPC_RMID, None))
