"""The virtual bus and its cabinets by themselves."""

import os
import time

import pytest

from sim import frames
from sim.bus import Node
from sim.cabinet import Cabinet
from sim.records import ClockEntry, Handover, StatusReply


class Listener(Node):
    """Keeps what it hears, with the time at which each piece came."""

    def __init__(self, name="listener"):
        super().__init__(name)
        self.pieces = []

    def deliver(self, data, start, byte_time):
        self.pieces.append((time.monotonic(), data))

    def data(self):
        return b"".join(data for _, data in self.pieces)


def wait_until(condition, timeout=3.0):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, "not within %g s" % timeout
        time.sleep(0.002)


def test_every_byte_reaches_all_but_the_sender(bus):
    ears = [bus.attach(Listener(str(i))) for i in range(3)]
    port = bus.pty("port")
    fd = os.open(port.path, os.O_RDWR | os.O_NOCTTY)
    bus.loop.invoke(ears[0].send, b"hello")
    wait_until(lambda: os.read(fd, 10) == b"hello")
    os.write(fd, bytes(range(256)))
    wait_until(lambda: len(ears[0].data()) == 256)
    assert ears[0].data() == bytes(range(256))
    assert ears[1].data() == ears[2].data() == b"hello" + bytes(range(256))
    os.close(fd)


def test_bytes_take_their_time(paced_bus):
    ear = paced_bus.attach(Listener())
    sender = paced_bus.attach(Listener("sender"))
    begin = time.monotonic()
    paced_bus.loop.invoke(sender.send, bytes(96))
    wait_until(lambda: len(ear.data()) == 96)
    took = ear.pieces[-1][0] - begin
    assert 0.100 <= took < 0.160
    assert len(ear.pieces) > 20, "bytes come one after the other, not all at the end"
    for when, _ in ear.pieces:
        assert when >= begin
    heard = 0
    for when, data in ear.pieces:
        heard += len(data)
        assert when - begin >= heard / 960 - 0.001, "no byte comes before its time"
    piece = paced_bus.pieces[0]
    assert piece.end - piece.start == pytest.approx(0.100)


def test_one_sender_queues_up_two_collide(paced_bus):
    one, two = paced_bus.attach(Listener("one")), paced_bus.attach(Listener("two"))
    paced_bus.loop.invoke(lambda: (one.send(bytes(20)), one.send(bytes(20))))
    wait_until(lambda: len(two.data()) == 40)
    assert not paced_bus.collisions
    paced_bus.loop.invoke(lambda: (one.send(bytes(20)), two.send(bytes(5))))
    wait_until(lambda: len(two.data()) == 60)
    assert [(c.sender, c.intruder) for c in paced_bus.collisions] == [("one", "two")]


def test_filters_noise_and_loss(bus):
    ear, sender = bus.attach(Listener()), bus.attach(Listener("sender"))
    undo = bus.corrupt("sender", 2, 0x0F)
    bus.loop.invoke(sender.send, b"\x00\x00\x00\x00")
    wait_until(lambda: len(ear.data()) == 4)
    assert ear.data() == b"\x00\x00\x0F\x00"
    undo()
    undo = bus.drop("sender", 3)
    bus.loop.invoke(sender.send, b"abcde")
    undo()
    bus.noise(b"\x99")
    wait_until(lambda: len(ear.data()) == 7)
    assert ear.data()[4:] == b"de\x99"


def test_a_port_that_goes_away_hangs_up(bus):
    port = bus.pty("port")
    fd = os.open(port.path, os.O_RDWR | os.O_NOCTTY)
    bus.detach(port)
    bus.loop.invoke(port.close)
    with pytest.raises(OSError):
        os.write(fd, b"x")
    os.close(fd)


def test_transcript_tells_frames_and_noise(bus):
    a, b = bus.attach(Cabinet("A")), bus.attach(Cabinet("B"))
    a.ask("B", "CU")
    bus.noise(b"\x01\x04")
    bus.wait(lambda h: h.frame is None, since=0)
    assert bus.transcript(times=False) == ("A      EA>EB CU 0 \n"
                                           "B      EB>EA CU 1 06\n"
                                           "noise  noise 01 04")
    assert b.commands_asked() == ["CU"]


def test_cabinet_answers_like_a_card(bus):
    a, b, c = (bus.attach(Cabinet(letter)) for letter in "ABC")
    b.nominal.VA, b.status.Ups.Vin, b.idu = 40000, [1, 2, 3], 9
    assert a.ask("B", "BN").data == b.nominal.pack()
    reply = a.ask("B", "BS")
    assert (reply.src, reply.dest) == (0xEB, frames.BROADCAST)
    assert StatusReply.unpack(reply.data).box == b.status
    assert reply.data[267] == 9
    assert len(a.ask("B", "BI").data) == 98
    for command in ("SC", "CU", "CH", "UC", "SI"):
        reply = a.ask("B", command, b"\x01" if command == "SC" else b"")
        assert reply.is_ack and reply.dest == 0xEA, command
    assert b.config == b"\x01"
    assert a.ask("B", "GI", timeout=0.1) is None
    assert a.ask("B", "BE", timeout=0.1) is None
    assert [o.frame.command for o in c.overheard] == ["BN", "BS", "BI"]
    assert not c.asked


def test_cabinet_turns_around_in_two_milliseconds(paced_bus):
    a, _ = paced_bus.attach(Cabinet("A")), paced_bus.attach(Cabinet("B"))
    a.ask("B", "BN")
    query, reply = paced_bus.frames()
    assert 0.0019 < reply.start - query.end < 0.020
    assert query.end - query.start == pytest.approx(10 / 960)
    assert reply.end - reply.start == pytest.approx(30 / 960)


@pytest.mark.parametrize("kind, options, raw", [
    ("bad_crc", {"flip": 0x0100}, lambda good: good[:-3] + bytes((good[-3] ^ 1, good[-2], 3))),
    ("bad_etx", {}, lambda good: good[:-1] + b"\0"),
    ("false_length", {"by": 1}, lambda good: good[:6] + b"\x15" + good[7:]),
    ("wrong_length", {"by": -1}, lambda good: frames.encode(0xEB, 0xFF, "BN", good[7:26])),
    ("wrong_source", {"source": 0xEC}, lambda good: frames.encode(0xEC, 0xFF, "BN", good[7:27])),
    ("wrong_dest", {"dest": 0xED}, lambda good: frames.encode(0xEB, 0xED, "BN", good[7:27])),
    ("wrong_command", {"instead": "BI"}, lambda good: frames.encode(0xEB, 0xFF, "BI", good[7:27])),
    ("nak", {"code": "1"}, lambda good: frames.encode(0xEB, 0xEA, "\x151")),
    ("split", {"at": 5, "pause": 0.05}, lambda good: good),
    ("garbage", {"data": b"\x09"}, lambda good: b"\x09" + good),
    ("truncated", {"keep": 4}, lambda good: good[:4]),
    ("twice", {}, lambda good: good + good),
    ("late", {"delay": 0.1}, lambda good: good),
    ("silent", {}, lambda good: b""),
])
def test_cabinet_misbehaves_as_told_and_once(bus, kind, options, raw):
    a, b = bus.attach(Cabinet("A")), bus.attach(Cabinet("B"))
    good = frames.encode(0xEB, 0xFF, "BN", b.nominal.pack())
    b.fault(kind, "BN", **options)
    a.send_frame("B", "CU")
    a.send_frame("B", "BN")
    time.sleep(0.15)
    sent = [p.data for p in bus.pieces if p.sender == "B"]
    assert sent[0] == frames.encode("B", "A", "CU", b"\x06"), "another command is answered well"
    assert b"".join(sent[1:]) == raw(good)
    assert a.ask("B", "BN").data == b.nominal.pack()


def test_master_hands_over_with_a_clock_table(bus):
    a, b = bus.attach(Cabinet("A")), bus.attach(Cabinet("B"))
    a.hand_over("B", build=7, forced_on_bypass=1, clocks={"A": ClockEntry(sec=100, usec=5, epochT=1, delta=-3)},
                tft_time=1000)
    frame = bus.wait("CN", since=0).frame
    record = Handover.unpack(frame.data)
    assert (record.build, record.nextMaster, record.bitStatus, record.TftTime) == (7, 0xEB, 1, 1000)
    assert record.clocks[0] == ClockEntry(sec=100, usec=5, epochT=1, delta=-3)
    assert b.commands_asked() == ["CN"]


def test_polling_walks_the_plant(bus):
    cabinets = {letter: bus.attach(Cabinet(letter)) for letter in "ABC"}
    cabinets["A"].start_polling("ABC", pause=0.001, timeout=0.02)
    bus.wait(lambda h: len(bus.frames()) > 30, since=0)
    cabinets["A"].stop_polling()
    told = ["%s%s" % (h.sender, h.frame.command) for h in bus.frames()][:12]
    assert told == ["ABN", "ABN", "ABS", "ABS", "ABN", "BBN", "ABS", "BBS", "ABN", "CBN", "ABS", "CBS"]
    time.sleep(0.01)
    cabinets["B"].silent = True
    silent = bus.mark()
    cabinets["A"].start_polling("B", timeout=0.02)
    bus.wait(lambda h: len(bus.frames(silent)) > 6)
    cabinets["A"].stop_polling()
    assert not bus.frames(silent, sender="B")


def test_a_disturbed_bus_spoils_so_many_transmissions(bus):
    ear, sender = bus.attach(Listener()), bus.attach(Listener("sender"))
    bus.disturb(25, seed=1)
    for _ in range(400):
        bus.loop.invoke(sender.send, bytes(10))
    wait_until(lambda: len(ear.data()) == 4000)
    spoiled = [data for _, data in ear.pieces if any(data)]
    assert len(spoiled) == bus.spoiled and 60 < bus.spoiled < 140
    assert all(sum(bin(byte).count("1") for byte in data) == 1 for data in spoiled)
    bus.disturb(0)
    bus.loop.invoke(sender.send, bytes(1000))
    wait_until(lambda: len(ear.data()) == 5000)
    assert not any(ear.data()[4000:])


def test_an_unplugged_endpoint_is_neither_heard_nor_hears(bus):
    ear, other = bus.attach(Listener()), bus.attach(Listener("other"))
    port = bus.pty("port")
    fd = os.open(port.path, os.O_RDWR | os.O_NOCTTY)
    bus.detach(port)
    bus.loop.invoke(other.send, b"unheard")
    os.write(fd, b"lost")
    wait_until(lambda: not port.waiting())
    assert ear.data() == b"unheard"
    bus.attach(port)
    bus.loop.invoke(other.send, b"heard")
    os.write(fd, b"again")
    wait_until(lambda: ear.data() == b"unheardheardagain")
    assert os.read(fd, 100) == b"heard"
    os.close(fd)
