"""The plant's own codec against frames and records made by hand."""

import struct

import pytest

from sim import frames, records, tree
from sim.crc import crc16
from sim.frames import Frame, Hunter, encode, parse

BN_QUERY = bytes.fromhex("02 EA EB 42 4E 00 00 9A 83 03")


def test_check_word():
    assert crc16(b"") == 0x554D
    assert crc16(b"\x02") == 0xBAA6
    assert crc16(b"123456789") == 0x63D0


def test_query_without_data_is_ten_bytes():
    assert encode("A", "B", "BN") == BN_QUERY
    assert parse(BN_QUERY) == Frame(0xEA, 0xEB, "BN", b"")


def test_length_is_sent_high_byte_first():
    raw = encode(0xEB, frames.BROADCAST, "BS", bytes(268))
    assert len(raw) == 278
    assert raw[5:7] == b"\x01\x0C"
    assert raw[-1] == frames.ETX


@pytest.mark.parametrize("change, message", [
    (lambda raw: raw[:-1], "9 bytes"),
    (lambda raw: b"\x01" + raw[1:], "no STX"),
    (lambda raw: raw[:-1] + b"\x04", "no ETX"),
    (lambda raw: raw[:6] + b"\x01" + raw[7:], "length"),
    (lambda raw: raw[:3] + b"C" + raw[4:], "check word"),
])
def test_a_bad_frame_is_told(change, message):
    with pytest.raises(ValueError, match=message):
        parse(change(BN_QUERY))


@pytest.mark.parametrize("name, stream, expected", [
    ("one frame", BN_QUERY, [BN_QUERY]),
    ("garbage first", b"\x00\x55\xAA" + BN_QUERY, [b"\x00\x55\xAA", BN_QUERY]),
    ("two back to back", BN_QUERY + BN_QUERY, [BN_QUERY, BN_QUERY]),
    ("a false STX in front", b"\x02" + BN_QUERY, [b"\x02", BN_QUERY]),
    ("an interrupted frame", BN_QUERY[:8] + BN_QUERY, [BN_QUERY[:8], BN_QUERY]),
    ("a wrong check word", BN_QUERY[:7] + b"\0\0\x03" + BN_QUERY, [BN_QUERY[:7] + b"\0\0\x03", BN_QUERY]),
    ("an impossible length", b"\x02\xEA\xEBBN\xFF\xFF" + BN_QUERY, [b"\x02\xEA\xEBBN\xFF\xFF", BN_QUERY]),
    ("noise behind", BN_QUERY + b"\x11\x22", [BN_QUERY, b"\x11\x22"]),
])
@pytest.mark.parametrize("step", [1, 3, 1000])
def test_hunter(name, stream, expected, step):
    hunter, found = Hunter(), []
    for i in range(0, len(stream), step):
        found += hunter.feed(stream[i:i + step])
    found += hunter.flush()
    assert b"".join(f.raw for f in found) == stream
    assert [f.raw for f in found if f.frame] == [raw for raw in expected if raw == BN_QUERY]
    noise = b"".join(raw for raw in expected if raw != BN_QUERY)
    assert b"".join(f.raw for f in found if not f.frame) == noise


def test_hunter_gives_up_after_silence():
    hunter = Hunter(silence=0.05)
    assert hunter.feed(b"\x02\xEA\xEBBN\x01\x00", start=0.0, byte_time=0.001) == []
    found = hunter.feed(BN_QUERY, start=0.1, byte_time=0.001)
    assert [f.raw for f in found] == [b"\x02\xEA\xEBBN\x01\x00", BN_QUERY]
    assert found[1].start == pytest.approx(0.1)
    assert found[1].end == pytest.approx(0.11)


@pytest.mark.parametrize("record, size", [
    (records.Identification, 98), (records.Nominal, 20), (records.Measures, 160), (records.Panel, 5),
    (records.Battery, 10), (records.Batteries, 98), (records.SystemStatus, 269), (records.CabinetStatus, 267),
    (records.StatusReply, 268), (records.ModuleStatus, 186), (records.Node, 446), (records.Extension, 446),
    (records.Handover, 93), (records.CabinetConfig, 13), (records.PlantConfig, 374)])
def test_record_sizes(record, size):
    assert record.SIZE == size
    assert len(record().pack()) == size


@pytest.mark.parametrize("record, path, offset", [
    (records.Node, "ID", 33), (records.Node, "identification", 54), (records.Node, "nominal", 152),
    (records.Node, "panel.value", 172), (records.Node, "desc", 177),
    (records.Measures, "PMStatus", 8), (records.Measures, "Carica_adj", 56), (records.Measures, "Vin[1]", 73),
    (records.Measures, "Frq_byp", 103), (records.Measures, "Iout_pk[2]", 145), (records.Measures, "Cent_kwh", 156),
    (records.CabinetStatus, "Ups.extStatus", 10), (records.CabinetStatus, "Batteries.barsPosV", 258),
    (records.CabinetStatus, "UPSShelter", 262), (records.SystemStatus, "UPSBox[0]", 261),
    (records.Identification, "SN_AUX", 63), (records.Identification, "partialInfo", 97),
    (records.Handover, "clocks[3].delta", 85), (records.Handover, "TftTime", 89),
    (records.PlantConfig, "Ups[1].modulePresent", 41), (records.PlantConfig, "words[15]", 108)])
def test_record_offsets(record, path, offset):
    assert record.offset(path) == offset


def test_numbers_are_little_endian_and_bits_lowest_first():
    status = records.CabinetStatus()
    status.Ups.Vin = [0x0102, 0, 0]
    status.Ups.Ibatp = -2
    status.Ups.set("alarm.Fault")
    status.Ups.set("PMStatus.bitCmdUnsupported")
    data = status.pack()
    assert data[4 + 71:4 + 73] == b"\x02\x01"
    assert data[4 + 63:4 + 67] == b"\xFE\xFF\xFF\xFF"
    assert data[8] == 0x04
    assert struct.unpack_from("<H", data, 12)[0] == 0x2000
    assert records.CabinetStatus.unpack(data) == status
    assert status.bits("Ups.alarm") == {"Fault"}
    status.clear("Ups.alarm.Fault")
    assert status.differences(records.CabinetStatus.unpack(data)) == ["Ups.alarm: 0, 4"]


def test_a_record_refuses_what_it_has_no_room_for():
    with pytest.raises(AttributeError):
        records.Nominal().Voltage = 1
    with pytest.raises(ValueError):
        records.Identification(SN="x" * 18)
    with pytest.raises(ValueError):
        records.Nominal(VA=-1).pack()


def test_start_values_of_an_identification():
    data = records.blank_identification().pack()
    assert data[:4] == bytes(4)
    assert data[4:21] == b" " * 16 + b"\0"
    assert data[51:60] == b"412210201"
    assert data[60:63] == b"xxx"
    assert data[97] == 252


def test_configuration_of_a_plant():
    data = records.plant_config("ACD").pack()
    assert [i for i, byte in enumerate(data) if byte] == [22, 26, 28, 52, 54, 65, 67]


def test_tree_of_four_cabinets():
    nodes = tree.expected_tree("A", "ABCD", fill=0x5A)
    made = tree.Tree(b"".join(node.pack() for node in nodes))
    assert made.ids() == ["SA", None, "SA.BA", "SA.BB", "SA.BC", "SA.BD", "SA.BA.M1", "SA.BB.M1", "SA.BC.M1",
                          "SA.BD.M1"]
    assert list(made.cabinets()) == list("ABCD")
    assert records.text(made.module("C").ID) == "SA.BC.M1"
    assert made.root.Description == b"System QPR -     0\0" + b"\x5A" * 13
    assert len(made.data) == tree.segment_size(4) == 4460
