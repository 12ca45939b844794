"""The codec of the simulated power module: frames, the stream they are found in, the fields of the replies."""

import pytest

from sim import mlink, mstates
from sim.mdata import FLAGS, LENGTHS, ModuleData, decode
from sim.mlink import CARD, Frame, Hunter, encode, nibbles, number, parse

# Frames made by hand: the check of GI is the plain sum of the six bytes before it, that of GN the check word.
GI_QUERY = bytes.fromhex("02 20 31 47 49 30 30 30 31 34 31 03")
GN_QUERY = bytes.fromhex("02 20 31 47 4E 30 30 3E 3E 31 37 03")


def by_shifting(data):
    """The check word, reckoned bit by bit."""
    register = 0x554D
    for byte in data:
        for i in range(8):
            low = (register ^ byte >> i) & 1
            register = register >> 1 ^ (0x8408 if low else 0)
    return register


def test_numbers_travel_as_nibbles():
    assert nibbles(56, 2) == b"38"
    assert nibbles(0x0C, 2) == b"0<"
    assert nibbles(600, 4) == b"0258"
    assert nibbles(0xABCDEF, 6) == b":;<=>?"
    assert number(b"38") == 56
    assert number(b":;<=>?") == 0xABCDEF
    for value, width in ((256, 2), (-1, 2)):
        with pytest.raises(ValueError):
            nibbles(value, width)
    for chars in (b"3A", b"/0", b"\xFF0"):
        with pytest.raises(ValueError):
            number(chars)


def test_queries_without_data_are_twelve_bytes():
    assert encode(CARD, "1", "GI") == GI_QUERY
    assert encode(CARD, "1", "GN") == GN_QUERY
    assert number(GN_QUERY[7:11]) == by_shifting(GN_QUERY[1:7])
    assert parse(GI_QUERY) == Frame(0x20, 0x31, "GI", b"")


def test_length_and_check_of_a_frame_with_data():
    raw = encode("1", CARD, "RS", "x" * 58)
    assert len(raw) == 70
    assert raw[:7] == b"\x02\x31\x20RS3:"
    assert raw[-5:] == nibbles(by_shifting(raw[1:-5]), 4) + b"\x03"
    raw = encode("1", CARD, "GI", "y" * 56)
    assert raw[5:7] == b"38"
    assert number(raw[-5:-1]) == sum(raw[1:63])


def test_a_refusal_is_told_by_its_code():
    refusal = mlink.frame("1", CARD, "\x155")
    assert refusal.encode()[:7] == b"\x02\x31\x20\x15500"
    assert refusal.refusal == "5"
    assert parse(GI_QUERY).refusal is None


@pytest.mark.parametrize("change, message", [
    (lambda raw: raw[:-1], "11 bytes"),
    (lambda raw: b"\x01" + raw[1:], "no STX"),
    (lambda raw: raw[:-1] + b"\x04", "no ETX"),
    (lambda raw: raw[:6] + b"1" + raw[7:], "length"),
    (lambda raw: raw[:6] + b"A" + raw[7:], "nibble"),
    (lambda raw: raw[:3] + b"C" + raw[4:], "check"),
])
def test_a_bad_frame_is_told(change, message):
    with pytest.raises(ValueError, match=message):
        parse(change(GI_QUERY))


def test_a_wrong_check_may_be_let_through():
    frame = parse(GI_QUERY[:-2] + b"2\x03", lenient=True)
    assert frame == Frame(0x20, 0x31, "GI", b"", False)


@pytest.mark.parametrize("stream, expected", [
    (GI_QUERY, [GI_QUERY]),
    (b"\x00\x55" + GN_QUERY, [GN_QUERY]),
    (b"\x02" + GN_QUERY, [GN_QUERY]),
    (GI_QUERY + GN_QUERY, [GI_QUERY, GN_QUERY]),
    (GI_QUERY[:9] + GN_QUERY, [GN_QUERY]),
    (GI_QUERY[:7] + b"0142\x03" + GN_QUERY, [GN_QUERY]),
    (b"\x02\x20\x31GI??" + GN_QUERY, [GN_QUERY]),
])
@pytest.mark.parametrize("step", [1, 5, 1000])
def test_hunter(stream, expected, step):
    hunter, found = Hunter(), []
    for i in range(0, len(stream), step):
        found += hunter.feed(stream[i:i + step])
    found += hunter.flush()
    assert b"".join(f.raw for f in found) == stream
    assert [f.raw for f in found if f.frame] == expected


# What the replies carry.


def test_each_reply_has_its_length():
    data = ModuleData()
    for command, length in LENGTHS.items():
        assert len(data.encode(command)) == length, command


def test_fields_lie_where_they_belong():
    """Values made so that each place is told from every other."""
    data = ModuleData()
    data.flags = [8, 0, 1, 0, 0]
    data.Frq_in, data.Vin = 0x123, [0x111, 0x112, 0x113]
    data.Frq_out, data.Vout, data.Load = 0x456, [0x221, 0x222, 0x223], [1, 2, 3]
    data.Frq_byp, data.Vbyp, data.VbatRS, data.Carica_adj = 0x789, [0x331, 0x332, 0x333], 0x1234, 0x60
    data.Aut_time, data.Temp0 = 0x345, 0x19
    assert data.encode("RS") == (b"80100" b"123" b"111" b"456" b"221" b"01" b"789" b"331" b"1234" b"60" b"345" b"19"
                                 b"112" b"113" b"222" b"02" b"332" b"223" b"03" b"333")
    data.Iout, data.Watt, data.Va = [0x1001, 0x1002, 0x1003], [0x20001, 0x20002, 0x20003], [0x30001, 0x30002, 0x30003]
    assert data.encode("RE") == b"0" * 16 + b"100110021003" + b"200012000220003" + b"300013000230003"
    data.Iout_pk, data.Temp1, data.Temp6 = [0x4001, 0x4002, 0x4003], 0x11, 0x66
    data.Temp2, data.Temp3, data.Temp4, data.Temp5 = 0x22, 0x33, 0x44, 0x55
    assert data.encode("RK") == b"0" * 34 + b"400140024003" + b"112233445566"
    data.Iin = [0x5001, 0x5002, 0x5003]
    assert data.encode("DE") == b"0" * 43 + b"500150025003" + b"000"
    data.Vbatp, data.Vbatn, data.Ibatp, data.Ibatn = 0x601, 0x602, 0x603, 0x604
    assert data.encode("DS") == b"0" * 13 + b"601602" + b"0" * 33 + b"603604"
    data.VA, data.W, data.BatteryV, data.BatteryAh = 0x70001, 0x70002, 0x703, 0x704
    data.VoutNominal, data.FreqOut = 0x705, 0x706
    assert data.encode("GN") == b"7000170002703704705706"
    data.SN, data.Model, data.SWVer, data.NBattForBench, data.tbdGI = "SERIAL", "MODEL", "VERSION", ";", "xyz"
    assert data.encode("GI") == (b"SERIAL          " b"MODEL           " b"VERSION     " b"4322102" b";1xyz")
    data.tbdGE = "wxyz"
    data.SWVer_AUX = "SWA017-1A-F9"
    assert data.encode("GE") == b"SWA017-1:-?9wxyz", "the letters of the version are nibbles on the wire"
    for command in LENGTHS:
        for field, value in decode(command, data.encode(command)).items():
            assert value == getattr(data, field), field


def test_what_surrounds_the_fields_can_be_set():
    data = ModuleData()
    data.base["RE"] = bytes(range(0x40, 0x7A))
    assert data.encode("RE")[:16] == bytes(range(0x40, 0x50))
    assert decode("RE", data.encode("RE"))["Iout"] == data.Iout


@pytest.mark.parametrize("name, value", [("Vin", [1, 2]), ("Vin", [1, 2, 0x1000]), ("Frq_in", -1),
                                         ("Load", [256, 0, 0]), ("SN", "x" * 17), ("states", [0] * 21)])
def test_a_value_that_does_not_fit_is_refused(name, value):
    with pytest.raises(ValueError):
        setattr(ModuleData(), name, value)
    with pytest.raises(AttributeError):
        ModuleData().nosuch = 1


@pytest.mark.parametrize("name", FLAGS)
def test_flags_of_the_status_reply(name):
    data = ModuleData()
    data.flags = [0] * 5
    data.set(name)
    place, mask = FLAGS[name]
    assert data.encode("RS")[:5] == bytes(0x30 + (mask if i == place else 0) for i in range(5))
    assert data.get(name)
    data.clear(name)
    assert data.encode("RS")[:5] == b"00000"


@pytest.mark.parametrize("bit, chars", [("BypassCommandActive", b"8000"), ("ManualBypassCommand", b"1000"),
                                        ("BatteryTestActive", b"0800"), ("C01", b"0100"), ("W01", b"0001"),
                                        ((1, 0x01), b"0080")])
def test_status_bits_run_from_left_to_right(bit, chars):
    data = ModuleData()
    data.set(bit)
    assert data.encode("RC") == chars + b"0" * 40
    assert data.get(bit)
    assert mstates.decode(data.encode("RC")) == data.states


def test_status_bits_by_tag_name_and_place():
    assert (mstates.index("A08"), mstates.index("A01")) == (16, 23)
    assert mstates.index("BatteryNegNotPresent") == mstates.index("A27") == mstates.index((5, 0x20))
    assert mstates.index("OffForLock") == 21 * 8
    assert len(mstates.TABLE) == 176
    assert len({name for name, _ in mstates.TABLE}) == 176
    tagged = [text[1:4] for _, text in mstates.TABLE[:160]]
    for byte, letter in enumerate("CWAAAAAAFFFFFFLLLLLL"):
        last = 8 * (byte - "CWAAAAAAFFFFFFLLLLLL".index(letter)) + 8
        assert tagged[8 * byte:8 * byte + 8] == ["%s%02d" % (letter, last - i) for i in range(8)]
    assert not any(text.startswith("[") for _, text in mstates.TABLE[160:])
