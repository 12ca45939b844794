"""A card as slave: what it answers to the byte, what it refuses, what it takes from what it overhears."""

import pytest

from sim import frames
from sim.cabinet import Cabinet
from sim.records import (Battery, CabinetStatus, Identification, Measures, Nominal, StatusReply,
                         blank_module_identification)

NOW = 1700000000
NO_MODULE = "Nessun modulo e' in buono stato di comunicazione"


@pytest.fixture
def master(bus):
    """The simulated master, card A."""
    return bus.attach(Cabinet("A"))


@pytest.fixture
def make_slave(gateway, master):
    """Starts a card and waits until it listens; its wall clock stands."""
    def make(card="B", **options):
        slave = gateway(card, start=False, **options)
        slave.clock.freeze(NOW)
        slave.start()
        slave.log.wait_message("attende per")
        return slave
    return make


@pytest.fixture
def slave(make_slave):
    """Card B of a plant of four."""
    return make_slave()


@pytest.fixture
def settled(slave):
    """Card B once it has given up its module, which doesn't answer: its own record stays as it is then."""
    slave.log.wait_message(NO_MODULE)
    return slave


def silent(bus, slave, duration=0.3):
    assert bus.quiet(duration, slave.card)


def fresh_status():
    box = CabinetStatus()
    box.Ups.set("status.SWOUT")
    box.Ups.set("extStatus.UPS_OK")
    box.Ups.set("PMStatus.bitCmdUnsupported")
    for shelter in range(5):
        box.Batteries.shelter[shelter] = Battery(statusStrPos=0x80, statusStrNeg=0x80)
    return box


def status_without_module():
    """What a card tells of its own cabinet while its module is silent."""
    box = fresh_status()
    box.timestamp = NOW
    box.Ups = Measures(timestamp=0)
    box.Ups.set("alarm.Anomaly")
    box.Ups.set("PMStatus.commError")
    return box


# Answers.

def test_nominal_data(master, settled, bus):
    reply = master.ask("B", "BN")
    assert reply == frames.frame("B", 0xFF, "BN", Nominal(timestamp=NOW).pack())
    assert bus.wait("B BN", since=0).raw == bytes.fromhex(
        "02 EB FF 42 4E 00 14 00 F1 53 65" + "00" * 16) + reply.encode()[-3:]


def test_status(master, settled):
    reply = master.ask("B", "BS")
    expected = StatusReply(box=status_without_module(), idu=255)
    assert reply == frames.frame("B", 0xFF, "BS", expected.pack())
    assert reply.data[:267] == settled.tree().cabinet("B").desc[:267]


def identification(parallel):
    record = Identification.unpack(bytes(4) + b" " * 16 + b"\0" + b"QPR UPS BOX     \0" + b" " * 12 + b"\0"
                                   + b"4\x001110" + b"20" + parallel + b"000" + bytes(17 + 13) + b"0000" + b"\0")
    record.timestamp = NOW
    return record


@pytest.mark.parametrize("card, mask, parallel", [("B", "1111", b"1"), ("B", "1100", b"1")])
def test_identification_is_made_at_the_first_question(master, make_slave, card, mask, parallel):
    slave = make_slave(card, mask=mask)
    slave.log.wait_message(NO_MODULE)
    assert slave.tree().cabinet("B").identification == blank_module_identification()
    mark = slave.log.mark()
    reply = master.ask("B", "BI")
    expected = identification(parallel)
    assert Identification.unpack(reply.data).differences(expected) == []
    slave.log.wait_message("CREO DATI identification myMCUid", since=mark)
    slave.log.wait_message("RISPOSTA BI PARZIALE, non sono disponibili dati GI", since=mark)
    # The next look at the silent module takes it away again.
    slave.wait_tree(lambda tree: tree.cabinet("B").identification == blank_module_identification())
    slave.clock.freeze(NOW + 100)
    expected.timestamp = NOW + 100
    assert Identification.unpack(master.ask("B", "BI").data).differences(expected) == []
    assert slave.log.count("CREO DATI") == 2


def test_answers_follow_the_records(master, slave):
    node = slave.tree().cabinet("B")
    offset = slave.tree().nodes.index(node) * 446
    box = node.box
    box.Ups.Vin = [229, 230, 231]
    box.set("boxStatus.HighTemp")
    segment = slave.sandbox.segment()
    # The card writes its own record once a second or less: there is time between two of these.
    slave.log.wait_message(NO_MODULE, since=slave.log.mark())
    slave.sandbox.write_segment(segment.id, offset + 177, box.pack())
    slave.sandbox.write_segment(segment.id, offset + 152, Nominal(timestamp=5, VA=40000).pack())
    assert StatusReply.unpack(master.ask("B", "BS").data).box == box
    assert Nominal.unpack(master.ask("B", "BN").data) == Nominal(timestamp=5, VA=40000)


@pytest.mark.parametrize("command", ["BN", "BS", "BI"])
def test_two_milliseconds_before_a_data_answer(bus, master, make_slave, command):
    slave = make_slave(trace=True)
    for _ in range(5):
        master.ask("B", command)
    gaps = [when - query.end for query, (when, _) in zip(bus.frames(sender="A"), slave.writes(), strict=True)]
    assert min(gaps) >= 0.002
    assert min(gaps) < 0.015


def test_configuration_request(bus, master, slave):
    reply = master.ask("B", "UC")
    assert reply == frames.frame("B", "A", "UC", b"\x06")
    slave.log.wait(r"  \(\w+\): Richiesta aggiornamento da MCU:A\n")


def test_unlock(bus, master, slave):
    assert master.ask("B", "CU") == frames.frame("B", "A", "CU", b"\x06")
    slave.log.wait(r"  \(\w+\): UNLOCK: ricevuto comando da:0xEA\n")
    master.send_frame(0xFF, "CU")
    slave.log.wait(r"UNLOCK: ricevuto comando da:0xEA\n", times=2)
    silent(bus, slave)


def test_halt(bus, master, slave):
    assert master.ask("B", "CH") == frames.frame("B", "A", "CH", b"\x06")
    slave.log.wait(r"  \(\w+\): SYSTEM HALT: ricevuto comando da:0xEA\n")
    master.ask("B", "BN")
    assert slave.marks() == ["halt "]
    mark = bus.mark()
    master.send_frame(0xFF, "CH")
    slave.log.wait(r"SYSTEM HALT: ricevuto comando da:0xEA\n", times=2)
    assert master.ask("B", "BN") is not None
    assert slave.marks() == ["halt ", "halt "]
    assert [h.frame.command for h in bus.frames(mark, sender="B")] == ["BN"]


def test_another_cabinet_may_ask(bus, master, slave):
    other = bus.attach(Cabinet("D"))
    assert other.ask("B", "BN") is not None
    assert other.ask("B", "UC") == frames.frame("B", "D", "UC", b"\x06")
    slave.log.wait_message("Richiesta aggiornamento da MCU:D")


def test_own_silence_of_a_query_to_others(bus, master, slave):
    master.send_frame("C", "BN")
    silent(bus, slave)
    assert slave.log.count("BN") == slave.log.count("Add Query BN")


# The master's role.

def test_takes_the_role_by_name(bus, master, slave):
    master.hand_over("C")
    silent(bus, slave)
    mark = bus.mark()
    master.hand_over("B")
    heard = bus.wait("B BN", since=mark)
    assert heard.frame.dest == 0xEA, "its walk begins at the first cabinet"


def test_a_cn_of_another_build_hands_nothing_over(bus, master, slave):
    master.hand_over("B", build=7)
    slave.log.wait(r"War \(\w+\): Versioni MCU differenti: MCU:A\(7\) myMCU\(-1\)\n")
    silent(bus, slave)


def test_a_short_cn_counts_as_another_build(bus, master, slave):
    for data in (b"", b"\xFF", b"\xFF\xFF\xFF"):
        master.send_frame(0xFF, "CN", data)
    slave.log.wait_message("Versioni MCU differenti: MCU:A(", times=3)
    assert master.ask("B", "BN") is not None


def test_an_overlong_cn_is_cut(bus, master, slave):
    record = b"\xFF\xFF\xFF\xFF" + bytes((0xEC,)) + bytes(88)
    master.send_frame(0xFF, "CN", record + b"\xA5" * (1014 - 93))
    assert master.ask("B", "BN") is not None
    assert slave.running


# Refusals: silence on the wire, a line in the log.

REFUSED = [
    ("BE", r"Err \(\w+\): SubCmd E non supportato per il MainCmd B\n(?s:.*?)"
           r"Err \(\w+\): FALLITO Risposta BE inviato alla scheda 0xEA\n"),
    ("BX", r"Err \(\w+\): con 'B' SubCmd X non supportato!\n"),
    ("Be", r"Err \(\w+\): con 'B' SubCmd e non supportato!\n"),
    ("B\xD3", r"Err \(\w+\): con 'B' SubCmd \xD3 non supportato!\n"),
    ("SC", r"Err \(\w+\): con 'S' SubCmd C non supportato!\n"),
    ("SI", r"Err \(\w+\): con 'S' SubCmd I non supportato!\n"),
    ("QX", r"Err \(\w+\): con 'Q' SubCmd X non supportato!\n"),
    ("QT", r"Err \(\w+\): Pacchetto incapsulato non valido: Len:12 interno:208\n(?s:.*?)"
           r"Err \(\w+\): FALLITO Risposta QT inviato alla scheda 0xEA\n"),
    ("UX", r"Err \(\w+\): con 'U' SubCmd X non supportato!\n"),
    ("CX", r"War \(\w+\): MainCmd non gestito!\n"),
    ("GI", r"War \(\w+\): MainCmd non gestito!\n"),
    ("GS", r"War \(\w+\): MainCmd non gestito!\n"),
    ("TB", r"War \(\w+\): MainCmd non gestito!\n"),
    ("OR", r"War \(\w+\): MainCmd non gestito!\n"),
    ("FA", r"War \(\w+\): MainCmd non gestito!\n"),
    ("ZZ", r"War \(\w+\): MainCmd non gestito!\n"),
]


@pytest.mark.parametrize("command, line", REFUSED, ids=[c.encode("unicode_escape").decode() for c, _ in REFUSED])
def test_refusals(bus, master, slave, command, line):
    data = {"SC": bytes(374), "SI": bytes(16), "TB": b"\1", "QT": b"\x02A1RS\0\0\0\0\0\0\x03"}.get(command, b"")
    master.send_frame("B", command, data)
    slave.log.wait(line)
    silent(bus, slave)
    assert master.ask("B", "BN") is not None


@pytest.mark.parametrize("command", ["BN", "BS", "BI", "UC"])
def test_a_card_outside_the_plant_refuses(bus, master, make_slave, command):
    slave = make_slave("B", mask="1010")
    master.send_frame("B", command)
    slave.log.wait(r"Err \(\w+\): ")
    silent(bus, slave)


@pytest.mark.parametrize("source", [0x00, 0x0A, 0x0D, 0x31, 0x7F, 0xDF, 0xF0, 0xFE])
def test_frames_from_outside_the_group_are_dropped_without_a_line(bus, master, slave, source):
    mark = slave.log.mark()
    for command in ("BN", "CU", "CH", "SC", "UC"):
        master.send_raw(frames.encode(source, 0xEB, command))
    silent(bus, slave)
    assert comments(slave, mark) == []
    assert slave.marks() == []


def comments(slave, mark):
    """The lines since a mark, but for those that tell how long the slave goes on waiting and those of the module's line,
    which are no comment on a frame."""
    return [line.text for line in slave.log.lines(mark)
            if "attende per" not in line.text and "MLINK" not in (line.file or "")]


@pytest.mark.parametrize("source", [0xEB, 0xFF])
def test_nobody_may_speak_in_its_name_or_in_that_of_all(bus, master, slave, source):
    for dest in (0xEB, 0xFF):
        master.send_raw(frames.encode(source, dest, "BN"))
    slave.log.wait(r"Err \(\w+\): NON E' AMMESSO 0x%02X COME MITTENTE!\n" % source, times=2)
    silent(bus, slave)


@pytest.mark.parametrize("source", [0xE0, 0xE9, 0xEE, 0xEF])
def test_odd_addresses_of_the_group_do_no_harm(bus, master, slave, source):
    for command in ("UC", "CU", "BN"):
        master.send_raw(frames.encode(source, 0xEB, command))
    for data in (bytes(93), b"\xFF\xFF\xFF\xFF\xEC" + bytes(88)):
        master.send_raw(frames.encode(source, 0xFF, "CN", data))
    for command, size in (("BN", 20), ("BS", 268), ("BI", 98)):
        master.send_raw(frames.encode(source, 0xFF, command, bytes(size)))
    slave.log.wait_message("Ricevo dati da 0x%02X, scheda CABP non registrata su questa MCU!" % source, times=3)
    assert master.ask("B", "BN") is not None


# The receiver.

@pytest.mark.parametrize("name, change", [
    ("a wrong check word", lambda raw: raw[:-3] + bytes((raw[-3] ^ 1,)) + raw[-2:]),
    ("no ETX", lambda raw: raw[:-1] + b"\x04"),
    ("no STX", lambda raw: b"\x01" + raw[1:]),
])
def test_a_bad_query_is_passed_over_in_silence(bus, master, slave, name, change):
    mark = slave.log.mark()
    master.send_raw(change(frames.encode("A", "B", "BN")))
    silent(bus, slave)
    assert slave.log.count(" Err | War ", mark) == 0
    assert master.ask("B", "BN") is not None


@pytest.mark.parametrize("noise", [b"\x00", b"\xFF" * 50, b"\x03\x03", b"\x02", b"\x02\x02\x02", bytes(range(3, 256))])
def test_noise_before_a_query(bus, master, slave, noise):
    master.send_raw(noise + frames.encode("A", "B", "BN"))
    bus.wait("B BN", since=0)


def test_a_query_in_pieces(bus, master, slave):
    raw = frames.encode("A", "B", "BN")
    for at in range(len(raw)):
        master.send_raw(raw[at:at + 1])
        bus.quiet(0.02, "B")
    bus.wait("B BN", since=0)


def test_an_answer_is_withheld_while_others_speak(bus, master, slave):
    master.send_raw(frames.encode("A", "B", "BN") + frames.encode("A", "C", "BN"))
    slave.log.wait_message("Risposta preparata in ritardo, altri caratteri sono nel frattempo arrivati in ingresso!!",
                           times=4)
    slave.log.wait(r"FALLITO Risposta BN inviato alla scheda 0xEA\n")
    silent(bus, slave)
    assert master.ask("B", "BN") is not None


# What it overhears.

def report(master, sender, command, data):
    """A broadcast answer of another card."""
    master.send_raw(frames.encode(sender, 0xFF, command, data))


def test_overheard_answers_are_stored(bus, master, slave):
    box = CabinetStatus(timestamp=1)
    box.Ups.timestamp, box.Ups.Vin, box.UPSShelter = 2, [201, 202, 203], 4
    box.Ups.status = 0x49
    report(master, "C", "BS", StatusReply(box=box, idu=17).pack())
    nominal = Nominal(timestamp=77, VA=30000, W=27000, BatteryV=240, BatteryAh=9, Vout=230, FreqOut=500)
    report(master, "C", "BN", nominal.pack())
    ident = Identification(timestamp=78, SN="C0000000000000001")
    report(master, "C", "BI", ident.pack())
    tree = slave.wait_tree(lambda tree: tree.cabinet("C").identification.timestamp)
    node = tree.cabinet("C")
    assert node.identification == ident
    assert node.nominal == nominal
    box.timestamp = box.Ups.timestamp = NOW
    assert node.box.differences(box) == []
    assert tree.cabinet("D").box == fresh_status()
    silent(bus, slave)


def test_a_slave_publishes_what_it_overhears(bus, master, slave):
    assert slave.status() is None, "nothing heard, nothing published"
    box = CabinetStatus()
    box.Ups.status, box.Ups.Vin, box.UPSShelter = 0x49, [221, 222, 223], 4
    for _ in range(2):
        report(master, "C", "BS", StatusReply(box=box, idu=255).pack())
        bus.quiet(0.21, "B")
    status = slave.wait_status()
    assert status["timestamp"] == NOW
    assert [status[key] for key in ("INPUTVOLTAGE", "INPUTVOLTAGE2", "INPUTVOLTAGE3")] == [221, 222, 223]


@pytest.mark.parametrize("command, size", [("BN", 20), ("BS", 268), ("BI", 98)])
@pytest.mark.parametrize("left", [0, 1, None])
def test_short_reports_change_nothing(bus, master, slave, command, size, left):
    before = slave.tree().cabinet("C").pack()
    report(master, "C", command, b"\xA5" * (size - 1 if left is None else left))
    assert master.ask("B", "BN") is not None
    after = slave.tree().cabinet("C")
    untouched = after.copy()
    assert untouched.pack() == before


def test_unknown_boards_are_reported_and_not_stored(bus, master, make_slave):
    slave = make_slave("B", mask="1110")
    before = [node.pack() for node in slave.tree().nodes[2:]]
    for source in (0xED, 0x0A, 0x31):
        report(master, source, "BN", b"\xA5" * 20)
        slave.log.wait(r"War \(\w+\): Ricevo dati da 0x%02X, scheda CABP non registrata su questa MCU!\n" % source)
    assert [node.pack() for node in slave.tree().nodes[2:]] == before
    silent(bus, slave)


def test_every_address_hears_itself_called(bus, master, make_slave):
    for card in "BCD":
        make_slave(card)
    for card in "BCD":
        assert master.ask(card, "BN").src == frames.address(card)
    assert not bus.noises()
