"""The status file as another process of the card sees it."""

import json
import os
import threading
import time

from sim import statusfile


def test_shape_of_the_document(bus, cabinets, gateway):
    cabinets("BCD")
    card = gateway()
    card.wait_tree(lambda tree: all(tree.cabinet(c).box.Ups.timestamp for c in "BCD"))
    document = card.wait_status()
    assert statusfile.problems(document) == []
    raw = card.status_file.raw()
    assert raw.startswith(b'{\n"timestamp": ')
    assert raw.endswith((b'],\n"UPSFAILURE": true}', b'],\n"UPSFAILURE": false}'))
    assert b'\n"LINEPRESENT": ' in raw and b',\n"statusAlarms":[\n' in raw


def test_a_reader_never_sees_half_a_document(bus, cabinets, gateway):
    cabinets("BCD", turnaround=0)
    card = gateway()
    card.wait_status()
    reads, inodes, broken, stop = [0], set(), [], threading.Event()

    def read():
        while not stop.is_set():
            with open(card.status_file.path, "rb") as file:
                inodes.add(os.fstat(file.fileno()).st_ino)
                raw = file.read()
            reads[0] += 1
            try:
                if list(json.loads(raw)) != list(statusfile.ALL_KEYS):
                    broken.append(raw)
            except ValueError:
                broken.append(raw)
    reader = threading.Thread(target=read)
    stamps = set()
    reader.start()
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline:
        stamps.add(os.stat(card.status_file.path).st_mtime_ns)
        time.sleep(0.02)
    stop.set()
    reader.join()
    assert broken == []
    assert reads[0] > 1000
    assert 10 < len(stamps) <= 26, "about five times a second, never more"


def test_no_more_than_five_times_a_second(bus, cabinets, gateway):
    cabinets("BCD", turnaround=0)
    card = gateway()
    card.wait_status()
    begin, seen, last = time.monotonic(), [], None
    while time.monotonic() - begin < 3:
        stamp = os.stat(card.status_file.path).st_mtime_ns
        if stamp != last:
            seen.append(stamp)
            last = stamp
        time.sleep(0.005)
    gaps = [(b - a) / 1e9 for a, b in zip(seen, seen[1:])]
    assert min(gaps) > 0.185
    assert max(gaps) < 0.6


def test_a_directory_that_is_missing_is_told_and_survived(bus, cabinets, gateway):
    cabinets("BCD")
    card = gateway()
    card.wait_status()
    aside = card.sandbox.home
    # In the card's view the folder stays mounted; with its files gone and no right to make new ones nothing opens.
    mark = card.log.mark()
    os.unlink(os.path.join(aside, "vu.json"))
    os.mkdir(os.path.join(aside, "vu.tmp")) if not os.path.exists(os.path.join(aside, "vu.tmp")) else None
    card.log.wait(r"Err \(\w+\): fopen\(\) ugw\.tmp 21 Is a directory\n", since=mark)
    assert card.running
    assert not os.path.exists(os.path.join(aside, "vu.json"))
    assert card.log.count(r"rename\(\)", mark) == 0, "what wasn't written isn't renamed"
    os.rmdir(os.path.join(aside, "vu.tmp"))
    card.wait_status()


def test_a_rename_that_fails_is_told_and_survived(bus, cabinets, gateway):
    cabinets("BCD")
    card = gateway(start=False)
    os.makedirs(os.path.join(card.sandbox.home, "vu.json", "in-the-way"))
    card.start()
    card.log.wait(r"Err \(\w+\): rename\(\) (39 Directory not empty|21 Is a directory)\n")
    assert card.running
    os.rmdir(os.path.join(card.sandbox.home, "vu.json", "in-the-way"))
    os.rmdir(os.path.join(card.sandbox.home, "vu.json"))
    card.wait_status()
