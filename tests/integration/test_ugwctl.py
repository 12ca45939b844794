"""ugwctl beside a live gateway: what it shows of the plant."""

import json
import signal
import subprocess

import pytest
from outside import wait_module
from prometheus_client.parser import text_string_to_metric_families
from ugwctl import Ugwctl

from sim.records import Node

NO_SEGMENT, BAD_SEGMENT, DEAD, TORN, NO_NODE = 3, 4, 5, 6, 7
IDS = ["SA", "SA.BA", "SA.BB", "SA.BC", "SA.BA.M1", "SA.BB.M1", "SA.BC.M1"]


@pytest.fixture
def plant(gateway, module, cabinets):
    """Card A of three cabinets with its module: the card, the module, ugwctl, the other cabinets."""
    others = cabinets("BC")
    card = gateway(mask="1110")
    unit = module(card, thinking=0.001)
    wait_module(card)
    card.wait_tree(lambda tree: all(tree.cabinet(c).box.Ups.timestamp for c in "ABC"))
    return card, unit, Ugwctl(card), others


def one_line(text):
    return text.startswith("ugwctl: ") and text.count("\n") == 1 and text.endswith("\n")


def samples(text):
    """The samples of an exposition, by name and labels; the parser refuses what is malformed."""
    found = {}
    for family in text_string_to_metric_families(text):
        assert family.documentation and family.type == "gauge"
        for sample in family.samples:
            key = (sample.name, tuple(sorted(sample.labels.items())))
            assert key not in found
            found[key] = sample.value
    return found


def value(found, name, **labels):
    return found[(name, tuple(sorted(labels.items())))]


def test_the_tree(plant):
    card, _, ugwctl, others = plant
    rows = [line.split() for line in ugwctl.read("tree").splitlines()]
    assert [row[1] for row in rows[1:]] == IDS[:1] + ["-"] + IDS[1:]
    assert [row[0] for row in rows[1:]] == [str(i) for i in range(8)]
    assert rows[3][2] == "cabinet" and "reachable" in rows[3] and "next=SA.BB" in rows[3]
    others["B"].silent = True
    card.wait_tree(lambda tree: tree.root.sys.UPSBox[1] & 7 == 0, 20)
    lost = {row[1] for row in (line.split() for line in ugwctl.read("tree").splitlines()[1:]) if "lost" in row}
    assert lost == {"SA.BB", "SA.BB.M1"}


def test_show_in_words(plant):
    _, unit, ugwctl, _ = plant
    whole = ugwctl.read("show")
    for name in IDS:
        assert "%s (" % name in whole
    assert "(extension)" in whole and "MLINK51201RU" in whole
    lines = {line.split(None, 1)[0]: line.split(None, 1)[-1] for line in ugwctl.read("show", "SA.BA.M1").splitlines()}
    assert lines["Vout"] == "%d %d %d V" % tuple(unit.data.Vout)
    assert lines["Frq_out"] == "%.1f Hz" % (unit.data.Frq_out / 10)
    assert lines["SN"] == "VM00000000000001"
    assert ugwctl.read("show", "BA.M1").startswith("SA.BA.M1 (module)\n")


def test_show_as_json(plant):
    card, unit, ugwctl, _ = plant
    document = json.loads(ugwctl.read("show", "--json"))
    assert document["layout"] == "1.0" and 0 <= document["age"] < 5
    assert document["segment"]["size"] == 446 * 8
    assert [node.get("id") for node in document["nodes"]] == IDS[:1] + [None] + IDS[1:]
    root, cabinet = document["nodes"][0], document["nodes"][2]
    tree = card.tree()
    assert root["desc"]["Ups"]["Vout"] == list(tree.root.sys.Ups.Vout)
    assert cabinet["nominal"]["W"] == 40000 and cabinet["links"] == {"son": 5, "next": 3, "previous": None,
                                                                    "ext": None}
    assert "Output_Powered" in cabinet["desc"]["Ups"]["status"]
    assert cabinet["panel"] == {"value": "none", "delay_shut": None, "delay_reboot": None}
    assert len(cabinet["desc"]["Batteries"]["shelter"]) == 9
    (module,) = json.loads(ugwctl.read("show", "BA.M1", "--json"))["nodes"]
    data = module["desc"]["data"]
    assert data["Iout"] == [round(i / 10, 1) for i in unit.data.Iout]
    assert data["Frq_out"] == unit.data.Frq_out / 10
    assert document["units"]["Iout"] == "A" and document["units"]["Frq_out"] == "Hz"
    assert module["identification"]["Model"] == "VIRTUAL MODULE"


def test_show_the_bytes(plant):
    card, _, ugwctl, _ = plant
    tree = card.tree()
    shown = ugwctl.read("show", "--raw", "SA.BB.M1").splitlines()[1:]
    found = bytes(int(byte, 16) for line in shown for byte in line[5:53].split())
    assert len(found) == Node.SIZE
    assert found[:Node.offset("panel")] == tree.module("B").pack()[:Node.offset("panel")]


def test_states_worst_first(plant):
    card, unit, ugwctl, _ = plant
    assert ugwctl.read("states", "BA.M1") == ""
    for tag in ("W03", "L01", "A08", "A48", "F36", "C01"):
        unit.data.set(tag)
    card.wait_tree(lambda tree: tree.module("A").module.data.get("alarm.Lock"))
    shown = ugwctl.read("states", "BA.M1").splitlines()
    assert shown == ["lock     [L01] AUXILIARY POWER FAIL", "fault    [F36] FAN FAILURE",
                     "anomaly  [A08] MAINS UNDERVOLTAGE L1", "anomaly  [A48] AnomalyOnRemoreUnit",
                     "warning  [W03] SHUTDOWN IMMINENT", "command  [C01] REMOTE OFF COMMAND"]
    assert ugwctl.run("states", "SA.BA").returncode == NO_NODE


def test_states_that_never_came_are_no_sign_of_health(plant):
    _, _, ugwctl, _ = plant
    done = ugwctl.run("states", "BB.M1")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == "ugwctl: warning: the states of SA.BB.M1 have never come to this card\n"


def test_metrics(plant):
    card, unit, ugwctl, others = plant
    found = samples(ugwctl.read("metrics"))
    assert value(found, "ugw_up") == 1
    assert 0 <= value(found, "ugw_data_age_seconds") < 5
    assert [value(found, "ugw_cabinet_reachable", cabinet=c) for c in "ABC"] == [1, 1, 1]
    assert value(found, "ugw_output_frequency_hertz", node="SA.BA.M1") == pytest.approx(unit.data.Frq_out / 10)
    assert value(found, "ugw_output_voltage_volts", node="SA.BA.M1", phase="L2") == unit.data.Vout[1]
    assert value(found, "ugw_battery_charge_ratio", node="SA.BA.M1") == pytest.approx(unit.data.Carica_adj / 100)
    assert value(found, "ugw_battery_autonomy_seconds", node="SA.BA.M1") == unit.data.Aut_time * 60
    assert value(found, "ugw_status", node="SA", flag="Output_Powered") == 1
    assert value(found, "ugw_alarm", node="SA", flag="Lock") == 0
    assert value(found, "ugw_module_states", **{"node": "SA.BA.M1", "class": "fault"}) == 0
    assert not [key for key in found if ("node", "SA.BB.M1") in key[1] and key[0] != "ugw_node_info"], \
        "nobody has asked that module for anything"
    others["C"].silent = True
    card.wait_tree(lambda tree: tree.root.sys.UPSBox[2] & 7 == 0, 20)
    found = samples(ugwctl.read("metrics"))
    assert [value(found, "ugw_cabinet_reachable", cabinet=c) for c in "ABC"] == [1, 1, 0]
    assert ("ugw_output_frequency_hertz", (("node", "SA.BC"),)) not in found


def test_nothing_is_left_attached_or_written(plant):
    card, _, ugwctl, _ = plant
    for command in (["tree"], ["show"], ["show", "--json"], ["metrics"], ["watch", "--count", "1"]):
        ugwctl.read(*command)
    assert card.sandbox.segment().attached == 1


def test_hostile_texts_reach_neither_terminal_nor_document(plant):
    card, _, ugwctl, _ = plant
    hostile = b"\x1b[2J\x9b1m\"\\\n\x07\x7f{}" + b"\xff" * 18
    index = card.tree().nodes.index(card.tree().module("B"))
    card.sandbox.write_segment(card.sandbox.segment().id, index * Node.SIZE + 1, hostile)
    for command in (["tree"], ["show"], ["show", "--json"], ["show", "--raw"], ["metrics"], ["watch", "-c", "1"]):
        out = subprocess.run(ugwctl.argv(*command), stdin=subprocess.DEVNULL, capture_output=True, check=True).stdout
        assert all(byte == 0x0A or 0x20 <= byte < 0x7F for byte in out), command
    (node,) = json.loads(ugwctl.read("show", "--json", "SA.BB.M1"))["nodes"]
    assert node["description"] == hostile.decode("latin-1") and len(hostile) == 32
    samples(ugwctl.read("metrics"))


def test_a_node_that_is_not_there(plant):
    done = plant[2].run("show", "SA.BD")
    assert done.returncode == NO_NODE and one_line(done.stderr) and not done.stdout


def test_no_gateway_at_all(gateway, tmp_path):
    card = gateway(start=False)
    ugwctl = Ugwctl(card)
    for command in (["tree"], ["show", "--json"], ["watch"], ["cancel"]):
        done = ugwctl.run(*command)
        assert done.returncode == NO_SEGMENT and one_line(done.stderr) and not done.stdout
    done = ugwctl.run("metrics")
    assert done.returncode == NO_SEGMENT and one_line(done.stderr) and samples(done.stdout) == {("ugw_up", ()): 0}
    done = ugwctl.run("tree", "--dir", str(tmp_path))
    assert done.returncode == NO_SEGMENT and str(tmp_path) in done.stderr


def test_segments_that_hold_no_tree(gateway):
    card = gateway(start=False)
    ugwctl = Ugwctl(card)
    for size, fill in ((100, 0), (446 * 3, 0), (446 * 4, 0), (446 * 10, 0xFF), (6000, 0x5A)):
        segment = card.sandbox.create_segment(size, fill)
        done = ugwctl.run("show")
        assert done.returncode == BAD_SEGMENT and one_line(done.stderr) and not done.stdout, (size, fill)
        card.sandbox.remove_segment(segment)


def test_a_dead_gateway(plant):
    card, _, ugwctl, _ = plant
    card.stop()
    for command in (["tree"], ["show"], ["watch"], ["cancel", "--yes"]):
        done = ugwctl.run(*command)
        assert done.returncode == DEAD and one_line(done.stderr) and "isn't running" in done.stderr
        assert not done.stdout
    assert samples(ugwctl.run("metrics").stdout) == {("ugw_up", ()): 0}
    # Somebody else may still look at the segment: then the age of the data tells.
    card.sandbox.hold_segment(card.sandbox.segment().id)
    at = Node.offset("nominal")
    card.sandbox.write_segment(card.sandbox.segment().id, at, (1000000000).to_bytes(4, "little"))
    done = ugwctl.run("tree")
    assert done.returncode == DEAD and "dead or stands still" in done.stderr
    card.sandbox.release_segments()


def test_a_gateway_that_stands_still_is_warned_of(plant):
    card, _, ugwctl, _ = plant
    card.program.signal(signal.SIGSTOP)
    old = int.from_bytes(card.sandbox.read_segment(card.sandbox.segment().id, 4, Node.offset("nominal")), "little")
    card.sandbox.write_segment(card.sandbox.segment().id, Node.offset("nominal"), (old - 60).to_bytes(4, "little"))
    done = ugwctl.run("tree")
    assert done.returncode == 0 and one_line(done.stderr) and "warning" in done.stderr and done.stdout
    card.program.signal(signal.SIGCONT)


def test_output_that_cannot_be_written(plant):
    with open("/dev/full", "w") as full:
        done = subprocess.run(plant[2].argv("show"), stdout=full, stderr=subprocess.PIPE, text=True,
                              stdin=subprocess.DEVNULL)
    assert done.returncode == 1 and one_line(done.stderr)
