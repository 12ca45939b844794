"""Copies a program and the shared libraries that it needs, of any architecture, into a guest's root directory.

    python3 image.py ROOT PROGRAM LIBRARY_DIRECTORY...
"""

import os
import re
import shutil
import subprocess
import sys


def needs(path):
    """The interpreter of an ELF file (or None) and the names of the libraries it is linked with."""
    told = subprocess.run(["readelf", "-W", "-l", "-d", path], check=True, capture_output=True, text=True).stdout
    interpreter = re.search(r"program interpreter: ([^\]]+)\]", told)
    return interpreter and interpreter.group(1), re.findall(r"\(NEEDED\).*\[(.+)\]", told)


def find(name, directories):
    """The library of that name."""
    for directory in directories:
        path = os.path.join(directory, name)
        if os.path.exists(path):
            return path
    raise SystemExit("no %s in %s" % (name, ", ".join(directories)))


def install(root, program, directories):
    """The program goes to ROOT/gateway/, the libraries to ROOT/lib."""
    os.makedirs(os.path.join(root, "gateway"), exist_ok=True)
    shutil.copy(program, os.path.join(root, "gateway"))
    interpreter, waiting = needs(program)
    loader = os.path.join(root, interpreter.lstrip("/"))
    os.makedirs(os.path.dirname(loader), exist_ok=True)
    shutil.copy(find(os.path.basename(interpreter), directories), loader)
    os.makedirs(os.path.join(root, "lib"), exist_ok=True)
    done = {os.path.basename(interpreter)}
    while waiting:
        name = waiting.pop()
        if name in done:
            continue
        done.add(name)
        path = find(name, directories)
        shutil.copy(path, os.path.join(root, "lib", name))
        waiting += needs(path)[1]


if __name__ == "__main__":
    install(sys.argv[1], sys.argv[2], sys.argv[3:])
