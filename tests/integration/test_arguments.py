"""The six arguments, the banner and the refusals."""

import os
import re
import subprocess

import pytest

from sim.records import text

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BANNER = (r"\*\*\* UGW modbus 485 \*\*\*\n"
          r"(?P<date>(?:Sun|Mon|Tue|Wed|Thu|Fri|Sat) (?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 0-3]\d "
          r"[0-2]\d:[0-5]\d:[0-6]\d UTC \d{4}) / (?P<revision>[0-9a-f]{7,})\n")
PREFIX = r" *(\d+)-> \[[0-2]\d:[0-5]\d:[0-6]\d\] UGW\.cpp %s \(main\): "
MISSING = ("Missing parameter, #1 Device port name, #2 CABP port name, #2 baud rate, #3 module ID "
           "#4 maschera configurazione #5 true if on real gatebox\n")


def output(card):
    """All that the daemon has written to stderr so far, and nothing may stand on stdout."""
    assert os.path.getsize(os.path.join(card.sandbox.directory, "stdout")) == 0
    return card.log.text()


@pytest.fixture
def idle(gateway):
    """A gateway that isn't started yet."""
    return gateway(start=False)


@pytest.mark.parametrize("count", range(6))
def test_fewer_than_six_arguments_refuse_to_start(idle, count):
    idle.start(idle.arguments[:count])
    assert idle.wait_exit() == 255
    assert re.fullmatch(BANNER + PREFIX % "Err" + re.escape(MISSING), output(idle))
    assert idle.sandbox.segments() == []


@pytest.mark.parametrize("mask, system", [
    ("999", -1), ("0", -1000), ("", -1000), ("-1", -1001), ("abc", -1000), ("33768", -32768), ("66535", -1),
    ("  999", -1), ("0x2000", -1000)])
def test_a_mask_that_comes_out_negative_is_refused(idle, mask, system):
    arguments = idle.arguments
    arguments[4] = mask
    idle.start(arguments)
    assert idle.wait_exit() == 255
    expected = BANNER + PREFIX % "Err" + re.escape("Invalid system configuration: %d" % system)
    assert re.fullmatch(expected, output(idle)), "no line end after the number, nothing behind it"
    assert idle.sandbox.segments() == []


@pytest.mark.parametrize("mask, cabinets", [
    ("1000", "A"), ("1001", "AD"), ("1010", "AC"), ("1100", "AB"), ("1101", "ABD"), ("1111", "ABCD"),
    ("2010", "AC"), ("66536", "A"), ("66647", "ABCD"), ("1222", "A"), ("1333", "ABCD"), ("1111x", "ABCD"),
    (" 1110", "ABC"), ("33767", "ABD")])
def test_mask_tells_the_cabinets(gateway, mask, cabinets):
    card = gateway(mask=mask)
    tree = card.wait_tree(lambda tree: tree.root.son == 2)
    assert len(tree.nodes) == 2 + 2 * len(cabinets)
    assert "".join(tree.cabinets()) == cabinets
    assert [text(tree.module(c).ID) for c in cabinets] == ["SA.B%s.M1" % c for c in cabinets]
    assert card.running


@pytest.mark.parametrize("module_id, system", [
    ("1", "SA"), ("2", "SB"), ("3", "SC"), ("4", "SD"), ("7", "S7"), ("", "S7"), ("0", "S7"), ("5", "S7"),
    ("12", "SA"), ("2x", "SB"), (" 1", "S7")])
def test_first_character_of_the_module_id_tells_the_address(gateway, module_id, system):
    card = gateway(module_id=module_id)
    tree = card.wait_tree(lambda tree: tree.cabinets())
    assert text(tree.root.ID) == system
    assert [text(node.ID) for node in tree.cabinets().values()] == [system + ".B" + c for c in "ABCD"]
    assert card.running


@pytest.mark.parametrize("mode, words, folder", [
    ("true", "Running on a real gatebox!\n", "varlog"), ("false", "Running on chroot...\n", "home"),
    ("TRUE", "Running on chroot...\n", "home"), ("True", "Running on chroot...\n", "home"),
    ("true ", "Running on chroot...\n", "home"), ("", "Running on chroot...\n", "home")])
def test_mode_tells_where_the_status_file_goes(gateway, mode, words, folder):
    card = gateway(mode=mode, mask="1000")
    card.wait_status()
    assert re.match(BANNER + re.escape(words), output(card))
    files = set(os.listdir(getattr(card.sandbox, folder)))
    assert "vu.json" in files and files <= {"vu.json", "vu.tmp"}
    other = {"varlog": "home", "home": "varlog"}[folder]
    assert os.listdir(getattr(card.sandbox, other)) == []


def test_order_of_the_start(gateway):
    card = gateway(mask="1000")
    card.log.wait_message("Avvio la thread CABP")
    log = output(card)
    marks = ["Running on chroot...\n", "  (SystemMgr): \n", "Trovato canale libero, indice:", "Avvio la thread CABP\n"]
    places = [log.find(mark) for mark in marks]
    assert -1 not in places, marks[places.index(-1)]
    assert places == sorted(places)


def test_surplus_arguments_are_ignored(idle):
    idle.start(idle.arguments + ["surplus", "and more"])
    idle.wait_status()
    assert idle.running


@pytest.mark.parametrize("name, message", [
    ("/dev/null", "Tipo di dispositivo non supportato!"), ("COM1", "Tipo di dispositivo non supportato!"),
    ("", "Tipo di dispositivo non supportato!"), ("/dev/ttyNone", "Errore apertura device")])
def test_a_bus_port_that_cannot_be_opened_leaves_the_process_running(gateway, name, message):
    card = gateway(start=False)
    arguments = card.arguments
    arguments[1] = name
    card.start(arguments)
    card.log.wait_message(message)
    card.log.wait_message("Errore inizializzazione!")
    card.log.wait_message("Avvio la thread CABP")
    assert card.wait_status()["UPSFAILURE"] is True
    assert card.running


def test_status_of_a_signal(gateway):
    card = gateway()
    card.wait_status()
    card.program.signal(15)
    assert card.wait_exit() == -15
    assert card.sandbox.segment() is not None, "the segment stays for the next start"


def test_banner_tells_the_revision_that_was_built(idle, build):
    idle.start([])
    idle.wait_exit()
    revision = re.match(BANNER, output(idle)).group("revision")
    with open(os.path.join(build, "revision.txt")) as file:
        assert file.read().strip() == revision
    if os.path.exists(os.path.join(ROOT, ".git")):
        git = ["git", "-c", "safe.directory=*", "-C", ROOT]
        kind = subprocess.run(git + ["cat-file", "-t", revision], stdout=subprocess.PIPE, text=True, check=True)
        assert kind.stdout == "commit\n"


def test_an_archive_without_git_knows_its_revision(workdir):
    if not os.path.exists(os.path.join(ROOT, ".git")):
        pytest.skip("this tree is such an archive")
    git = ["git", "-c", "safe.directory=*", "-C", ROOT]
    head = subprocess.run(git + ["rev-parse", "HEAD"], stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
    archive = os.path.join(workdir, "tree")
    os.mkdir(archive)
    packed = subprocess.run(git + ["archive", "HEAD"], stdout=subprocess.PIPE, check=True).stdout
    subprocess.run(["tar", "-x", "-C", archive], input=packed, check=True)
    out = os.path.join(workdir, "revision.txt")
    env = dict(os.environ, GIT_CEILING_DIRECTORIES=workdir)
    subprocess.run(["cmake", "-DSRC=" + archive, "-DOUT=" + out, "-P", archive + "/cmake/Revision.cmake"], check=True,
                   env=env)
    with open(out) as file:
        revision = file.read().strip()
    assert len(revision) >= 7 and head.startswith(revision)
    source = os.path.join(workdir, "BuildInfo.cpp")
    subprocess.run(["cmake", "-DREVISION_FILE=" + out, "-DOUT=" + source, "-P",
                    archive + "/cmake/WriteBuildInfo.cmake"], check=True, env=env)
    with open(source) as file:
        written = file.read()
    assert 'build_git_sha = "%s"' % revision in written
    assert re.search(r'build_date = "\w{3} \w{3} \d\d \d\d:\d\d:\d\d UTC \d{4}"', written)
