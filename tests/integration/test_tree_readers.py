"""The example readers of the segment that the documents show."""

import os
import re
import subprocess

import pytest

from sim.records import COMM_LOST

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "examples")
LINE = re.compile(r"(S\w\.B\w) (\w+) in (\d+) (\d+) (\d+) V load (-?\d+) (-?\d+) (-?\d+) % battery (\d+) % age (-?\d+) s")


@pytest.fixture(params=["c", "py"])
def reader(request, workdir):
    """The command of a reader."""
    source = os.path.join(EXAMPLES, "read_tree." + request.param)
    if request.param == "py":
        return ["/usr/bin/python3", source]
    program = os.path.join(workdir, "read_tree")
    subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-o", program, source], check=True)
    return [program]


def run(card, command):
    """Exit status, output and errors of a program beside the gateway."""
    status = card.sandbox.spawn(command + [card.sandbox.cwd], stdout="reader-out", stderr="reader-err").wait()

    def text(name):
        with open(os.path.join(card.sandbox.directory, name), encoding="latin-1") as file:
            return file.read()
    return status, text("reader-out"), text("reader-err")


def test_reads_a_living_plant(reader, bus, cabinets, gateway, module):
    others = cabinets("BCD")
    others["C"].status.Ups.Vin = [201, 202, 203]
    others["C"].status.Ups.Load = [11, 12, 13]
    card = gateway()
    module(card)
    card.wait_tree(lambda tree: tree.cabinet("C").box.Ups.Vin == [201, 202, 203])
    card.wait_status(lambda s: not any(alarm.endswith("_LOST") for alarm in s["statusAlarms"]))
    status, out, err = run(card, reader)
    assert (status, err) == (0, "")
    rows = [LINE.fullmatch(line).groups() for line in out.splitlines()]
    assert [row[0] for row in rows] == ["SA.BA", "SA.BB", "SA.BC", "SA.BD"]
    assert rows[2][2:8] == ("201", "202", "203", "11", "12", "13")
    assert all(row[1] != "lost" for row in rows)
    assert all(0 <= int(row[9]) <= 3 for row in rows)
    others["D"].silent = True
    card.wait_tree(lambda tree: tree.root.sys.UPSBox[3] & 7 == COMM_LOST, timeout=20)
    assert LINE.fullmatch(run(card, reader)[1].splitlines()[-1]).group(2) == "lost"


def test_links_that_lead_astray_end(reader, gateway):
    card = gateway("B", start=False)
    node = bytearray(b"\xFF" * 446)
    node[52] = 1  # son
    loop = bytearray(446)
    loop[33:49] = b"S" * 16  # no end
    loop[50] = 1  # its own brother
    id = card.sandbox.create_segment(2 * 446)
    card.sandbox.write_segment(id, 0, bytes(node + loop))
    status, out, _ = run(card, reader)
    assert status == 0
    assert len(out.splitlines()) == 2


@pytest.mark.parametrize("size", [None, 100])
def test_nothing_to_read_is_told(reader, gateway, size):
    card = gateway("B", start=False)
    if size:
        card.sandbox.create_segment(size)
    status, out, err = run(card, reader)
    assert (status, out) == (1, "")
    assert len(err.splitlines()) == 1
