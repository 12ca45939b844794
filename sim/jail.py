"""The process inside a sandbox: sets up the private view of the machine, starts the daemon, serves its owner.

Started by sim.sandbox as `python3 -m sim.jail FD` with a socket at FD. The first line on the socket says what the
view is to look like; then each line is a request, a JSON object with "op", and gets one line back. When the socket
closes, for whatever reason, everything that was started here is killed, the sandbox's directory is removed, and the
process ends; with it go the mount and IPC namespaces, and so the devices, mounts and segments.
"""

import base64
import ctypes
import errno
import json
import os
import shutil
import signal
import socket
import sys
import time

from sim import shm

CLONE_NEWNS, CLONE_NEWIPC, CLONE_NEWUSER = 0x00020000, 0x08000000, 0x10000000
MS_RDONLY = 1
MS_NOSUID, MS_NODEV, MS_BIND, MS_REC, MS_PRIVATE = 2, 4, 4096, 16384, 1 << 18
MNT_DETACH = 2
PR_SET_PDEATHSIG, PR_CAPBSET_DROP = 1, 24
CAP_SYS_BOOT, CAP_SYS_TIME = 22, 25

# What a daemon may need of the real /dev.
DEVICES = ("null", "zero", "full", "random", "urandom", "tty", "ptmx", "pts", "shm")
# Programs that must never run for real; the sandbox's own stand over them.
DANGEROUS = ("halt", "reboot", "poweroff", "shutdown")

_libc = ctypes.CDLL(None, use_errno=True)


def _call(name, *args):
    if getattr(_libc, name)(*args) == -1:
        number = ctypes.get_errno()
        raise OSError(number, "%s: %s" % (name, os.strerror(number)))


def _mount(source, target, kind=None, flags=0, data=None):
    def text(value):
        return value.encode() if value is not None else None
    _call("mount", text(source), text(target), text(kind), ctypes.c_ulong(flags), text(data))


def _unshare():
    """Own mounts, own segments; where we aren't root, as root of a user namespace."""
    if os.geteuid() == 0:
        _call("unshare", CLONE_NEWNS | CLONE_NEWIPC)
        return
    uid, gid = os.geteuid(), os.getegid()
    _call("unshare", CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC)
    for path, line in (("setgroups", "deny"), ("uid_map", "0 %d 1" % uid), ("gid_map", "0 %d 1" % gid)):
        with open("/proc/self/" + path, "w") as file:
            file.write(line)


def _shadow(directory, names):
    """Replaces a directory by an empty one that holds only the given names, with what stood under them."""
    held = {}
    for name in names:
        path = os.path.join(directory, name)
        try:
            if os.path.islink(path):
                held[name] = ("link", os.readlink(path))
            else:
                held[name] = ("dir" if os.path.isdir(path) else "file", os.open(path, os.O_PATH))
        except OSError:
            continue
    _mount("tmpfs", directory, "tmpfs", MS_NOSUID, "mode=755")
    for name, (kind, thing) in held.items():
        path = os.path.join(directory, name)
        if kind == "link":
            os.symlink(thing, path)
            continue
        if kind == "dir":
            os.mkdir(path)
        else:
            os.close(os.open(path, os.O_CREAT | os.O_WRONLY))
        _mount("/proc/self/fd/%d" % thing, path, None, MS_BIND | MS_REC)
        os.close(thing)


def _build_view(view):
    _unshare()
    _mount(None, "/", None, MS_REC | MS_PRIVATE)
    _shadow("/dev", DEVICES)
    for name, target in (("fd", "/proc/self/fd"), ("stdin", "fd/0"), ("stdout", "fd/1"), ("stderr", "fd/2")):
        os.symlink(target, "/dev/" + name)
    home = os.path.realpath("/home")
    _shadow(home, [name for name in os.listdir(home) if name != "gwdev"])
    os.mkdir("/home/gwdev")
    _mount(view["home"], "/home/gwdev", None, MS_BIND)
    _mount(view["varlog"], "/var/log", None, MS_BIND)
    real = {os.path.realpath(os.path.join(directory, name))
            for name in DANGEROUS for directory in ("/sbin", "/usr/sbin", "/bin", "/usr/bin")}
    for path in real:
        if os.path.exists(path):
            _mount(os.path.join(view["bin"], "halt"), path, None, MS_BIND)


def _die_with(parent):
    """In a fresh child: ends when the parent ends, and can neither set the clock nor stop the machine."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    if os.getppid() != parent:
        os._exit(1)
    for capability in (CAP_SYS_BOOT, CAP_SYS_TIME):
        _libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0)


class Jail:
    """Serves the requests; each method do_X is the op "X"."""

    def __init__(self):
        self._children = {}
        self._held = []

    def do_link(self, name, target):
        """A device name for a pseudo-terminal; an old one of that name goes."""
        self.do_unlink(name)
        os.symlink(target, name)

    def do_unlink(self, name):
        try:
            os.unlink(name)
        except FileNotFoundError:
            pass

    def do_spawn(self, argv, env, cwd, stderr, stdout):
        """Starts a program in a session of its own; returns its pid."""
        me = os.getpid()
        outputs = []
        for path in (stdout, stderr):
            outputs.append(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644))
        read_end, write_end = os.pipe()
        pid = os.fork()
        if pid == 0:
            try:
                _die_with(me)
                os.setsid()
                for number in (signal.SIGINT, signal.SIGTERM, signal.SIGPIPE, signal.SIGCHLD):
                    signal.signal(number, signal.SIG_DFL)
                null = os.open("/dev/null", os.O_RDONLY)
                os.dup2(null, 0)
                os.dup2(outputs[0], 1)
                os.dup2(outputs[1], 2)
                os.chdir(cwd)
                os.set_inheritable(write_end, False)
                os.closerange(3, write_end)
                os.closerange(write_end + 1, 256)
                os.execve(argv[0], argv, env)
            except OSError as error:
                os.write(write_end, str(error.errno or errno.EINVAL).encode())
            os._exit(127)
        os.close(write_end)
        for fd in outputs:
            os.close(fd)
        failed = os.read(read_end, 16)
        os.close(read_end)
        if failed:
            os.waitpid(pid, 0)
            raise OSError(int(failed), "%s: %s" % (argv[0], os.strerror(int(failed))))
        self._children[pid] = None
        return pid

    def do_poll(self, pid):
        """None while the program runs, then its exit status (negative: the signal that ended it)."""
        if self._children.get(pid) is None:
            done, status = os.waitpid(pid, os.WNOHANG)
            if done:
                self._children[pid] = os.waitstatus_to_exitcode(status)
        return self._children[pid]

    def do_signal(self, pid, number):
        os.kill(pid, number)

    def do_cover_home(self, size, read_only):
        """Puts an empty small disk over /home/gwdev."""
        _mount("tmpfs", "/home/gwdev", "tmpfs", MS_NOSUID | (MS_RDONLY if read_only else 0), "size=%d" % size)

    def do_uncover_home(self):
        """Takes that disk away again."""
        _call("umount2", b"/home/gwdev", MNT_DETACH)

    def do_remove_home(self):
        """/home/gwdev is no more."""
        _call("umount2", b"/home/gwdev", MNT_DETACH)
        os.rmdir("/home/gwdev")

    def do_restore_home(self, home):
        """It is there again."""
        os.mkdir("/home/gwdev")
        _mount(home, "/home/gwdev", None, MS_BIND)

    def do_fill_home(self):
        """Fills the disk under /home/gwdev to its last byte."""
        file = os.open("/home/gwdev/filler", os.O_WRONLY | os.O_CREAT)
        try:
            while True:
                os.write(file, b"x" * 1024)
        except OSError as error:
            if error.errno != errno.ENOSPC:
                raise
        finally:
            os.close(file)

    def do_empty_home(self):
        """Takes away again what filled it."""
        os.unlink("/home/gwdev/filler")

    def do_segments(self):
        return [list(segment) for segment in shm.segments()]

    def do_create(self, key, size, mode, fill):
        return shm.create(key, size, mode, fill)

    def do_read(self, id, size, offset):
        return base64.b64encode(shm.read(id, size, offset)).decode()

    def do_write(self, id, offset, data):
        shm.write(id, offset, base64.b64decode(data))

    def do_remove(self, id):
        shm.remove(id)

    def do_hold(self, id):
        """Stays attached to a segment, as another program of the card would."""
        self._held.append(shm.attach(id))

    def do_release(self):
        while self._held:
            shm.detach(self._held.pop())

    def end(self):
        for pid, status in self._children.items():
            if status is None:
                try:
                    os.killpg(pid, signal.SIGKILL)
                except OSError:
                    pass
        deadline = time.monotonic() + 5
        for pid, status in self._children.items():
            while status is None and time.monotonic() < deadline:
                try:
                    done, _ = os.waitpid(pid, os.WNOHANG)
                except ChildProcessError:
                    break
                if done:
                    break
                time.sleep(0.005)


def main():
    # A Ctrl-C on the terminal is for the owner, who then closes the socket.
    for number in (signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
        signal.signal(number, signal.SIG_IGN)
    channel = socket.socket(fileno=int(sys.argv[1])).makefile("rwb")
    jail = Jail()

    def answer(value=None, error=None):
        try:
            channel.write(json.dumps({"value": value, "error": error}).encode() + b"\n")
            channel.flush()
        except BrokenPipeError:
            pass

    try:
        view = json.loads(channel.readline())
        _build_view(view)
        answer(os.getpid())
    except OSError as error:
        answer(error="%s (are you root?)" % error)
        return 1
    try:
        for line in channel:
            request = json.loads(line)
            try:
                answer(getattr(jail, "do_" + request.pop("op"))(**request))
            except OSError as error:
                answer(error=str(error))
    except (ConnectionError, ValueError):
        pass
    finally:
        jail.end()
        if view["remove"]:
            shutil.rmtree(view["remove"], ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
