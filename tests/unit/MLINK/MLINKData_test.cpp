// What a module's reply leaves in its node, byte by byte, and that it leaves all else alone.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

#include "unit/MLINK/Link.h"

namespace {

using images::image;
using images::littleEndian32;
using images::overlaid;
using images::pattern;
using modlink::Bytes;
using modlink::bytesOf;
using modlink::frame;
using support::LogCapture;

constexpr time_t STAMP = 0x51627384;

/// A number of a reply and where it belongs. Offsets in the node.
struct Field {
    int d;
    int width;
    std::size_t offset;
    std::size_t size;
};

/// `n` characters, each a nibble; different for each `seed`.
Bytes nibbles(std::size_t n, unsigned seed) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) {
        data[i] = static_cast<uint8>(0x30 + ((i * 7 + i / 5 + seed * 3) & 0x0F));
    }
    return data;
}

std::uint32_t numberAt(const Bytes& data, int d, int width) {
    std::uint32_t value = 0;
    for (int i = 0; i < width; ++i) {
        value = value * 16 + data[static_cast<std::size_t>(d + i)] - 0x30u;
    }
    return value;
}

class Data : public modlink::Card {
  protected:
    Data() { fill(node(), pattern(sizeof(virtualNode_t) - IDENTIFICATION, 0x3B)); }

    /// Hands over a reply in memory of exactly its size.
    void store(const Bytes& pck, int boxId = 0, time_t timestamp = STAMP) {
        Bytes exact(pck);
        exact.shrink_to_fit();
        MLINK_ManageData(static_cast<uint8>(boxId), timestamp, exact.data());
    }
    void reply(const std::string& cmd, const Bytes& data, int boxId = 0) { store(frame('1', 0x20, cmd, data), boxId); }

    /// The tree before, with `fields` of the reply laid over module A's node.
    Bytes expected(Bytes before, const Bytes& data, const std::vector<Field>& fields) {
        for (const Field& field : fields) {
            Bytes value = littleEndian32(numberAt(data, field.d, field.width));
            value.resize(field.size);
            before = overlaid(before, offsetOf('A', field.offset), value);
        }
        return before;
    }
    /// That a reply of numbers stores exactly `fields`, and nothing else anywhere in the tree.
    void expectFields(const std::string& cmd, const std::vector<Field>& fields) {
        for (unsigned seed = 0; seed < 16; ++seed) {
            const Bytes data = nibbles(58, seed);
            const Bytes before = tree();
            LogCapture log;
            reply(cmd, data);
            EXPECT_EQ(tree(), expected(before, data, fields)) << cmd << " " << seed;
            EXPECT_EQ(log.text(), "");
        }
    }
    descModule_t& record() { return node().desc.module; }
    identification_t& id() { return node().identification; }
};

// ---------------------------------------------------------------------------------------------------------------
// Which reply does what

TEST_F(Data, AcknowledgementsAreOnlyLogged) {
    for (const char* const cmd : {"CB", "CD", "CF", "CM", "CP", "CR", "CS", "CU", "SM", "TB"}) {
        const Bytes before = tree();
        LogCapture log;
        store(frame('1', 'C', cmd), 2);
        EXPECT_EQ(log.messages(), std::string("ACK from boxC, comando ") + cmd + " scr:1 dest:C\n");
        EXPECT_EQ(log.count(""), 1u);
        EXPECT_EQ(tree(), before);
    }
}

TEST_F(Data, SomeRepliesChangeNothingAndSayNothing) {
    for (const char* const cmd : {"DC", "ST", "SV"}) {
        const Bytes before = tree();
        LogCapture log;
        store(frame('1', 0x20, cmd, bytesOf("0000")));
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(tree(), before);
    }
}

TEST_F(Data, ADirectReadMustNotComeThroughTheQueues) {
    const Bytes before = tree();
    LogCapture log;
    store(frame('1', 0x20, "GM", bytesOf("1234")));
    EXPECT_EQ(log.messages(), "NON IMPARTIRE LA QUERY GM DALLE CODE!!!\nUSARE LA CHIAMATA DIRETTA InsertSingleQC!!!\n");
    EXPECT_EQ(log.errors(), 2u);
    EXPECT_EQ(tree(), before);
}

TEST_F(Data, AnyOtherReplyIsRefused) {
    const std::set<std::string> known{"CB", "CD", "CF", "CM", "CP", "CR", "CS", "CU", "DC", "DE", "DS", "GE",
                                      "GI", "GM", "GN", "RC", "RE", "RK", "RS", "SM", "ST", "SV", "TB"};
    const std::string mains = "CDGRST";
    const Bytes before = tree();
    for (int main = 0x20; main < 0x7F; ++main) {
        for (int sub = 0x20; sub < 0x7F; ++sub) {
            const std::string cmd{static_cast<char>(main), static_cast<char>(sub)};
            if (known.count(cmd) != 0) {
                continue;
            }
            LogCapture log;
            store(frame('1', 0x20, cmd));
            const std::string told = mains.find(cmd[0]) != std::string::npos
                                         ? "SubCmd " + cmd.substr(1) + " non supportato per il MainCmd " + cmd[0]
                                         : "MainCmd " + cmd.substr(0, 1) + " non supportato";
            ASSERT_TRUE(log.has("Err", told)) << cmd;
            ASSERT_EQ(log.lines().size(), 1u) << cmd;
        }
    }
    EXPECT_EQ(tree(), before);
}

TEST_F(Data, StatusRepliesThatNoOneDecodesAreRefused) {
    const Bytes before = tree();
    for (const auto& row : std::map<std::string, std::size_t>{{"RB", 109}, {"RX", 169}}) {
        LogCapture log;
        reply(row.first, nibbles(row.second, 1));
        EXPECT_EQ(log.messages(), "SubCmd " + row.first.substr(1) + " non supportato per il MainCmd R\n");
    }
    EXPECT_EQ(tree(), before);
}

// ---------------------------------------------------------------------------------------------------------------
// Whose node

TEST_F(Data, GoToTheNodeOfTheCabinetThatTheyCameFrom) {
    for (int box = 0; box < 4; ++box) {
        const Bytes before = tree();
        const Bytes data = nibbles(58, static_cast<unsigned>(box));
        reply("DE", data, box);
        const char letter = static_cast<char>('A' + box);
        Bytes after = before;
        for (const Field& field : {Field{43, 4, 262, 4}, Field{47, 4, 266, 4}, Field{51, 4, 270, 4}}) {
            after =
                overlaid(after, offsetOf(letter, field.offset), littleEndian32(numberAt(data, field.d, field.width)));
        }
        EXPECT_EQ(tree(), after) << letter;
    }
}

const std::map<std::string, std::size_t> STORED = {{"GI", 56}, {"GE", 16}, {"GN", 22}, {"RS", 58}, {"RE", 58},
                                                   {"RK", 58}, {"DE", 58}, {"DS", 58}, {"RC", 44}};

TEST_F(Data, OfNoSlotAreDropped) {
    const struct {
        int box;
        unsigned src;
    } table[] = {{4, '1'}, {255, '1'}, {0xBF, '1'}, {0, '5'},   {3, '2'},  {0, '8'},   {0, '0'},
                 {1, '0'}, {3, 0xFF},  {0, 0x00},   {255, '2'}, {2, 0x20}, {255, 0xFF}};
    const Bytes before = tree();
    for (const auto& command : STORED) {
        for (const auto& row : table) {
            LogCapture log;
            store(frame(row.src, 0x20, command.first, nibbles(command.second, 3)), row.box);
            EXPECT_EQ(log.errors(), 1u) << command.first << row.box << " " << row.src;
            EXPECT_TRUE(log.contains("Risposta " + command.first + " scartata"));
        }
    }
    EXPECT_EQ(tree(), before);
}

TEST_F(Data, OfAModuleWithoutNodeAreDropped) {
    mlink().ModulesData[0][0].pVN = nullptr;
    const Bytes before = tree();
    for (const auto& command : STORED) {
        LogCapture log;
        reply(command.first, nibbles(command.second, 3));
        EXPECT_EQ(log.errors(), 1u) << command.first;
    }
    EXPECT_EQ(tree(), before);
}

TEST_F(Data, ThatAreTooShortForTheirCommandAreDropped) {
    const Bytes before = tree();
    for (const auto& command : STORED) {
        for (const std::size_t n : {static_cast<std::size_t>(0), command.second - 1}) {
            LogCapture log;
            reply(command.first, nibbles(n, 3));
            EXPECT_EQ(log.errors(), 1u) << command.first << n;
        }
    }
    EXPECT_EQ(tree(), before);
}

// ---------------------------------------------------------------------------------------------------------------
// Measures

const std::vector<Field> RS_FIELDS = {
    {5, 3, 177 + 77, 2},   {8, 3, 177 + 71, 2},   {11, 3, 177 + 117, 2}, {14, 3, 177 + 111, 2}, {17, 2, 177 + 10, 2},
    {19, 3, 177 + 103, 2}, {22, 3, 177 + 97, 2},  {25, 4, 177 + 57, 2},  {34, 2, 177 + 149, 1}, {36, 3, 177 + 73, 2},
    {39, 3, 177 + 75, 2},  {42, 3, 177 + 113, 2}, {45, 2, 177 + 12, 2},  {47, 3, 177 + 99, 2},  {50, 3, 177 + 115, 2},
    {53, 2, 177 + 14, 2},  {55, 3, 177 + 101, 2}};
const std::vector<Field> RS_BATTERY = {{29, 2, 177 + 56, 1}, {31, 3, 177 + 54, 2}};

TEST_F(Data, OutputCurrentsAndPowers) {
    expectFields("RE", {{16, 4, 177 + 125, 4},
                        {20, 4, 177 + 129, 4},
                        {24, 4, 177 + 133, 4},
                        {28, 5, 177 + 42, 4},
                        {33, 5, 177 + 46, 4},
                        {38, 5, 177 + 50, 4},
                        {43, 5, 177 + 18, 4},
                        {48, 5, 177 + 22, 4},
                        {53, 5, 177 + 26, 4}});
}

TEST_F(Data, PeakCurrentsAndTemperatures) {
    expectFields("RK", {{34, 4, 177 + 137, 4},
                        {38, 4, 177 + 141, 4},
                        {42, 4, 177 + 145, 4},
                        {46, 2, 177 + 150, 1},
                        {48, 2, 177 + 151, 1},
                        {50, 2, 177 + 152, 1},
                        {52, 2, 177 + 153, 1},
                        {54, 2, 177 + 154, 1},
                        {56, 2, 177 + 155, 1}});
}

TEST_F(Data, InputCurrents) {
    expectFields("DE", {{43, 4, 177 + 85, 4}, {47, 4, 177 + 89, 4}, {51, 4, 177 + 93, 4}});
}

TEST_F(Data, CharactersOutsideTheRangeFoldIntoTheField) {
    Bytes data = nibbles(58, 0);
    data[43] = 0xFF;  // 0xCF
    data[44] = 'A';   // 0x11
    data[45] = '0';
    data[46] = 0x2F;  // -1
    reply("DE", data);
    EXPECT_EQ(static_cast<std::uint32_t>(record().data.Iin[0]), 0xCFu * 4096 + 0x11 * 256 - 1);
}

// The five status characters, bit by bit.
struct StatusBit {
    int d;
    int mask;
    std::size_t offset;  // in the node
    int bit;
    bool inverse;
};
const std::vector<StatusBit> STATUS_BITS = {
    {0, 8, 177 + 5, 0, false}, {0, 4, 177 + 4, 3, false}, {0, 2, 177 + 5, 1, false},  {0, 2, 177 + 5, 3, true},
    {0, 1, 177 + 4, 7, false}, {1, 8, 177 + 5, 2, false}, {1, 12, 177 + 6, 2, false}, {2, 8, 177 + 4, 6, false},
    {2, 4, 177 + 6, 6, false}, {2, 1, 177 + 6, 4, false}, {3, 8, 177 + 5, 4, false},  {3, 4, 177 + 5, 5, false},
    {3, 2, 177 + 6, 3, false}, {4, 4, 177 + 4, 5, false}, {4, 2, 177 + 4, 4, false}};

TEST_F(Data, StatusCharactersAndMeasures) {
    for (const bool ones : {false, true}) {
        for (const bool hasBattery : {false, true}) {
            for (int d = 0; d < 5; ++d) {
                for (int character = 0; character < 32; ++character) {
                    // Only the low four bits of a character count.
                    Bytes data = nibbles(58, static_cast<unsigned>(character));
                    std::fill(data.begin(), data.begin() + 5, static_cast<uint8>('0'));
                    data[static_cast<std::size_t>(d)] = static_cast<uint8>(0x30 + character);
                    std::memset(&record().data.alarm, ones ? 0xFF : 0x00, 3);
                    record().data.switchStatus.Bt_present = hasBattery ? 1 : 0;
                    Bytes after = expected(tree(), data, RS_FIELDS);
                    for (const StatusBit& bit : STATUS_BITS) {
                        const int c = data[static_cast<std::size_t>(bit.d)];
                        const bool set = ((c & bit.mask) == bit.mask) != bit.inverse;
                        uint8& byte = after[offsetOf('A', bit.offset)];
                        byte = static_cast<uint8>(set ? byte | 1 << bit.bit : byte & ~(1 << bit.bit));
                    }
                    if (hasBattery) {
                        after = expected(after, data, RS_BATTERY);
                    } else {
                        after = overlaid(after, offsetOf('A', 177 + 54), {0, 0, 0});
                    }
                    LogCapture log;
                    reply("RS", data);
                    ASSERT_EQ(tree(), after) << d << " " << character;
                    ASSERT_EQ(log.text(), "");
                }
            }
        }
    }
}

TEST_F(Data, ThePlaceOfEveryStatusBitIsThatOfItsName) {
    std::memset(&record().data.alarm, 0, 3);
    Bytes data(58, '0');
    data[0] = '8';
    reply("RS", data);
    EXPECT_EQ(record().data.status.Output_Powered, 1);
    EXPECT_EQ(record().data.status.Line_Present, 1);
    data[0] = '2';
    reply("RS", data);
    EXPECT_EQ(record().data.status.Output_Powered, 0);
    EXPECT_EQ(record().data.status.Battery_Working, 1);
    EXPECT_EQ(record().data.status.Line_Present, 0);
    data[1] = '8';
    reply("RS", data);
    EXPECT_EQ(record().data.status.On_Bypass, 1);
    EXPECT_EQ(record().data.extStatus.Eco_Mode, 0);
    data[1] = '4';
    reply("RS", data);
    EXPECT_EQ(record().data.extStatus.Eco_Mode, 0);
    data[1] = '<';
    reply("RS", data);
    EXPECT_EQ(record().data.extStatus.Eco_Mode, 1);
}

TEST_F(Data, AModuleWithoutBatteryHasNoAutonomy) {
    record().data.switchStatus.Bt_present = 0;
    record().data.Aut_time = 321;
    record().data.Carica_adj = 99;
    reply("RS", Bytes(58, '5'));
    EXPECT_EQ(record().data.Aut_time, 0);
    EXPECT_EQ(record().data.Carica_adj, 0);
    record().data.switchStatus.Bt_present = 1;
    reply("RS", Bytes(58, '5'));
    EXPECT_EQ(record().data.Aut_time, 0x555);
    EXPECT_EQ(record().data.Carica_adj, 0x55);
}

// ---------------------------------------------------------------------------------------------------------------
// Battery

Bytes batteryData(const char* plus, const char* minus, const char* iplus, const char* iminus) {
    Bytes data(58, '7');
    for (int i = 0; i < 3; ++i) {
        data[static_cast<std::size_t>(13 + i)] = static_cast<uint8>(plus[i]);
        data[static_cast<std::size_t>(16 + i)] = static_cast<uint8>(minus[i]);
        data[static_cast<std::size_t>(52 + i)] = static_cast<uint8>(iplus[i]);
        data[static_cast<std::size_t>(55 + i)] = static_cast<uint8>(iminus[i]);
    }
    return data;
}

TEST_F(Data, BatteryVoltagesAreThoseOfAllBatteries) {
    for (const bool working : {false, true}) {
        record().data.status.Battery_Working = working ? 1 : 0;
        id().NBattForBench = 20;
        const Bytes before = tree();
        reply("DS", batteryData("086", "087", "012", "?<0"));  // 134, 135; 18 and 0xFC0
        Bytes after = overlaid(before, offsetOf('A', 177 + 59), {static_cast<uint8>(268 & 0xFF), 1});
        after = overlaid(after, offsetOf('A', 177 + 61), {static_cast<uint8>(270 & 0xFF), 1});
        after = overlaid(after, offsetOf('A', 177 + 63), littleEndian32(working ? -18 : 18));
        after = overlaid(after, offsetOf('A', 177 + 67), littleEndian32(working ? -4032 : 4032));
        EXPECT_EQ(tree(), after) << working;
    }
}

TEST_F(Data, DischargeCurrentsAreNegative) {
    record().data.status.Battery_Working = 1;
    reply("DS", batteryData("000", "000", "001", "000"));
    EXPECT_EQ(static_cast<int32>(record().data.Ibatp), -1);
    EXPECT_EQ(static_cast<int32>(record().data.Ibatn), 0);
}

TEST_F(Data, BatteryVoltageIsCutToItsFieldAfterTheDivision) {
    id().NBattForBench = 0xFF;
    reply("DS", batteryData("???", "009", "000", "000"));
    EXPECT_EQ(static_cast<uint16>(record().data.Vbatp), static_cast<uint16>(255 * 4095 / 10));
    EXPECT_EQ(static_cast<uint16>(record().data.Vbatn), 255 * 9 / 10);
    id().NBattForBench = 0;
    reply("DS", batteryData("???", "???", "000", "000"));
    EXPECT_EQ(static_cast<uint16>(record().data.Vbatp), 0);
}

// ---------------------------------------------------------------------------------------------------------------
// Identification

TEST_F(Data, MainIdentification) {
    for (const int before : {0x00, 0x02, 0xFC, 0xFE}) {
        for (const char batteries : {'0', '5', ':', 'E'}) {
            Bytes data = bus::filler(56, 0x41);
            data[51] = static_cast<uint8>(batteries);
            id().partialInfo = static_cast<uint8>(before);
            Bytes after = tree();
            const std::size_t at = offsetOf('A', IDENTIFICATION);
            const auto part = [&data](std::ptrdiff_t from, std::ptrdiff_t to) {
                return Bytes(data.begin() + from, data.begin() + to);
            };
            after = overlaid(after, at + 4, images::joined(part(0, 16), {0}));
            after = overlaid(after, at + 21, images::joined(part(16, 32), {0}));
            after = overlaid(after, at + 38, images::joined(part(32, 44), {0}));
            after = overlaid(after, at + 51, part(44, 51));
            if (batteries != '0') {
                after[at + 58] = static_cast<uint8>(batteries & 0x0F);
            }
            after[at + 59] = data[52];
            after = overlaid(after, at + 60, part(53, 56));
            after[at + 97] = static_cast<uint8>(before | 0x01);
            if ((before & 0x02) != 0) {
                after = overlaid(after, at, littleEndian32(STAMP));
            }
            LogCapture log;
            reply("GI", data);
            EXPECT_EQ(tree(), after) << before << batteries;
            EXPECT_EQ(log.text(), "");
        }
    }
}

TEST_F(Data, AuxiliaryIdentification) {
    const struct {
        const char* wire;
        const char* text;
    } table[] = {{"SWQ417-01-02", "SWQ417-01-02"},
                 {"SWQ417-:?-<=", "SWQ417-AF-CD"},
                 {":::::::9::9;", ":::::::9:A9B"},
                 {"SWQ417-AB-CD", "SWQ417-HI-JK"}};
    for (const auto& row : table) {
        for (const int before : {0x00, 0x01, 0xFC, 0xFD}) {
            const std::string wire = row.wire;
            const Bytes data = bytesOf(wire + "wxyz");
            std::string text = row.wire;
            for (const std::size_t i : {7u, 8u, 10u, 11u}) {
                text[i] = text[i] > '9' ? static_cast<char>(text[i] + 7) : text[i];
            }
            id().partialInfo = static_cast<uint8>(before);
            Bytes after = tree();
            const std::size_t at = offsetOf('A', IDENTIFICATION);
            after = overlaid(after, at + 80, images::joined(bytesOf(text), {0}));
            after = overlaid(after, at + 93, bytesOf("wxyz"));
            after[at + 97] = static_cast<uint8>(before | 0x02);
            if ((before & 0x01) != 0) {
                after = overlaid(after, at, littleEndian32(STAMP));
            }
            reply("GE", data);
            EXPECT_EQ(tree(), after) << wire;
        }
    }
}

TEST_F(Data, LettersOfTheVersionAreRaisedWithoutSign) {
    reply("GE", bytesOf("SWQ417-\xF0\x80-\xFF:wxyz"));
    EXPECT_EQ(std::string(id().SWVer_AUX + 7, 5),
              "\xF7\x87-\x06"
              "A");
}

TEST_F(Data, OneVersionNeverCompletesTheIdentification) {
    // As it reads when its letters have been raised, and as it reads on the wire.
    for (const char* const version : {"SWQ417-SS-SS", "SWQ417-ZZ-ZZ"}) {
        for (const bool identificationFirst : {false, true}) {
            id().timestamp = 0;
            id().partialInfo = 0xFC;
            if (identificationFirst) {
                reply("GI", bus::filler(56, 0x41));
            }
            const uint8 before = id().partialInfo;
            reply("GE", bytesOf(std::string(version) + "wxyz"));
            EXPECT_EQ(id().partialInfo, before);
            reply("GI", bus::filler(56, 0x41));
            EXPECT_EQ(static_cast<time32_t>(id().timestamp), 0) << version;
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(id().tbdGE), 4), "wxyz") << "stored all the same";
        }
    }
    reply("GE", bytesOf("SWQ417-ZZ-ZYwxyz"));
    EXPECT_EQ(static_cast<time32_t>(id().timestamp), STAMP);
}

TEST_F(Data, IdentificationIsCompleteWithBothPartsInAnyOrder) {
    for (const bool mainFirst : {false, true}) {
        id().timestamp = 0;
        id().partialInfo = 0xFC;
        const auto part = [this](bool main) {
            main ? reply("GI", bus::filler(56, 0x41)) : reply("GE", bytesOf("SWQ417-01-02wxyz"));
        };
        part(mainFirst);
        EXPECT_EQ(static_cast<time32_t>(id().timestamp), 0);
        part(!mainFirst);
        EXPECT_EQ(static_cast<time32_t>(id().timestamp), STAMP);
        EXPECT_EQ(id().partialInfo, 0xFF);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Nominal values

const std::vector<Field> GN_FIELDS = {{0, 5, 152 + 4, 4},   {5, 5, 152 + 8, 4},   {10, 3, 152 + 12, 2},
                                      {13, 3, 152 + 14, 2}, {16, 3, 152 + 16, 2}, {19, 3, 152 + 18, 2}};

TEST_F(Data, NominalValues) {
    plant.cfg().WModule = 0;
    id().NBattForBench = 3;
    for (unsigned seed = 0; seed < 16; ++seed) {
        const Bytes data = nibbles(22, seed);
        const Bytes after = overlaid(expected(tree(), data, GN_FIELDS), offsetOf('A', NOMINAL), littleEndian32(STAMP));
        LogCapture log;
        reply("GN", data);
        EXPECT_EQ(tree(), after) << seed;
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Data, AnotherPowerThanThePlantsIsRememberedForGood) {
    record().data.PMStatus.wrongPower = 0;
    reply("GN", bytesOf("0271003:980:000000000000000000"));
    EXPECT_EQ(record().data.PMStatus.wrongPower, 0) << "the plant's power isn't known";

    const auto nominal = [](std::uint32_t watts) {
        return bytesOf(modlink::coded(10000, 5) + modlink::coded(watts, 5) + "000000000000");
    };
    plant.cfg().WModule = 9000;
    reply("GN", nominal(9000));
    EXPECT_EQ(record().data.PMStatus.wrongPower, 0);
    const uint8 others = static_cast<uint8>(record().data.PMStatus.bytes[0] | 0x01);
    reply("GN", nominal(9001));
    EXPECT_EQ(record().data.PMStatus.wrongPower, 1);
    EXPECT_EQ(record().data.PMStatus.bytes[0], others);
    reply("GN", nominal(9000));
    EXPECT_EQ(record().data.PMStatus.wrongPower, 1) << "a later good value doesn't clear it";
}

TEST_F(Data, NumberOfBatteriesComesFromTheVoltageUntilItIsTold) {
    id().NBattForBench = 0;
    const std::string voltage = modlink::coded(240, 3);
    reply("GN", bytesOf("0000000000" + voltage + "000000000"));
    EXPECT_EQ(id().NBattForBench, 20);
    reply("GN", bytesOf("0000000000" + modlink::coded(120, 3) + "000000000"));
    EXPECT_EQ(id().NBattForBench, 20) << "only where it is still 0";
    Bytes data = bus::filler(56, 0x41);
    data[51] = '0';
    reply("GI", data);
    EXPECT_EQ(id().NBattForBench, 20);
    data[51] = '7';
    reply("GI", data);
    EXPECT_EQ(id().NBattForBench, 7);
    id().NBattForBench = 0;
    reply("GN", bytesOf("0000000000" + modlink::coded(4095, 3) + "000000000"));
    EXPECT_EQ(id().NBattForBench, static_cast<uint8>(4095 / 12));
    id().NBattForBench = 0;
    reply("GN", bytesOf("0000000000" + modlink::coded(11, 3) + "000000000"));
    EXPECT_EQ(id().NBattForBench, 0);
}

// ---------------------------------------------------------------------------------------------------------------
// Status bits

/// What the status bits must leave in module A's node.
Bytes afterStatus(Bytes before, std::size_t node, const Bytes& states) {
    const auto any = [&states](std::size_t from, std::size_t to) {
        bool found = false;
        for (std::size_t i = from; i <= to; ++i) {
            found = found || states[i] != 0;
        }
        return found;
    };
    before = overlaid(before, node + 337, littleEndian32(STAMP));
    before = overlaid(before, node + 341, states);
    uint8& alarm = before[node + 177 + 4];
    alarm = static_cast<uint8>((alarm & 0xF0) | (any(0, 1) ? 1 : 0) | (any(2, 7) ? 2 : 0) | (any(8, 13) ? 4 : 0) |
                               (any(14, 19) ? 8 : 0));
    uint8& switches = before[node + 177 + 7];
    const bool hasBattery = (states[5] & 0x60) == 0;
    switches = static_cast<uint8>(hasBattery ? switches | 0x08 : switches & ~0x08);
    return before;
}

TEST_F(Data, EachOfTheStatusBitsHasItsPlaceAndItsAlarm) {
    for (int bit = 0; bit < 176; ++bit) {
        for (const bool ones : {false, true}) {
            record().data.alarm.byte = ones ? 0xFF : 0x00;
            record().data.switchStatus.byte = ones ? 0xFF : 0x00;
            Bytes data(44, '0');
            data[static_cast<std::size_t>(bit / 4)] = static_cast<uint8>('0' + (8 >> (bit % 4)));
            Bytes states(22, 0);
            states[static_cast<std::size_t>(bit / 8)] = static_cast<uint8>(1 << (bit % 8));
            const Bytes after = afterStatus(tree(), offsetOf('A', 0), states);
            LogCapture log;
            reply("RC", data);
            ASSERT_EQ(tree(), after) << bit;
            ASSERT_EQ(log.text(), "");
        }
    }
}

TEST_F(Data, ManyStatusBitsAtOnce) {
    for (unsigned seed = 0; seed < 16; ++seed) {
        const Bytes data = nibbles(44, seed);
        Bytes states(22, 0);
        for (std::size_t bit = 0; bit < 176; ++bit) {
            if ((data[bit / 4] >> (3 - bit % 4) & 1) != 0) {
                states[bit / 8] = static_cast<uint8>(states[bit / 8] | 1 << (bit % 8));
            }
        }
        const Bytes after = afterStatus(tree(), offsetOf('A', 0), states);
        reply("RC", data);
        EXPECT_EQ(tree(), after) << seed;
    }
}

TEST_F(Data, StatusBitsByName) {
    Bytes data(44, '0');
    data[0] = '8';
    reply("RC", data);
    EXPECT_EQ(record().statusDetail.bits.BypassCommandActive, 1);
    EXPECT_EQ(record().statusDetail.states[0], 1);
    data[0] = '1';
    reply("RC", data);
    EXPECT_EQ(record().statusDetail.states[0], 8);
    data[0] = '0';
    data[11] = '2';  // states[5], the third bit from the top in the wire's order
    reply("RC", data);
    EXPECT_EQ(record().statusDetail.bits.BatteryPosNotPresent, 1);
    EXPECT_EQ(record().data.switchStatus.Bt_present, 0);
    data[11] = '4';
    reply("RC", data);
    EXPECT_EQ(record().statusDetail.bits.BatteryNegNotPresent, 1);
    EXPECT_EQ(record().data.switchStatus.Bt_present, 0);
    data[11] = '0';
    reply("RC", data);
    EXPECT_EQ(record().data.switchStatus.Bt_present, 1);
}

TEST_F(Data, EventsRaiseNoAlarm) {
    record().data.alarm.byte = 0xFF;
    Bytes data(44, '0');
    std::fill(data.begin() + 40, data.end(), static_cast<uint8>('?'));
    reply("RC", data);
    EXPECT_EQ(record().data.alarm.byte, 0xF0);
}

TEST_F(Data, TheLaterOfTwoRepliesDecidesOnTheLock) {
    Bytes status(44, '0');
    status[28] = '8';  // states[14]
    Bytes measures(58, '0');
    reply("RC", status);
    EXPECT_EQ(record().data.alarm.Lock, 1);
    reply("RS", measures);
    EXPECT_EQ(record().data.alarm.Lock, 0);
    measures[0] = '4';
    reply("RS", measures);
    EXPECT_EQ(record().data.alarm.Lock, 1);
    reply("RC", Bytes(44, '0'));
    EXPECT_EQ(record().data.alarm.Lock, 0);
}

// ---------------------------------------------------------------------------------------------------------------
// Texts of the status bits

const char* const TEXTS[] = {
    // byte 0
    "[C08]BYPASS COMMAND ACTIVE",
    "[C07]REMOTE BATT. CHARGER OFF",
    "[C06]EMERGENCY OFF COMMAND",
    "[C05]MANUAL BYPASS COMMAND",
    "[C04]BATTERY TEST ACTIVE",
    "[C03]REMOTE ON COMMAND",
    "[C02]REMOTE BYPASS COMMAND",
    "[C01]REMOTE OFF COMMAND",
    // byte 1
    "[W08]",
    "[W07]SERVICE UPS",
    "[W06]",
    "[W05]SYNCHRONIZATION DISABLED",
    "[W04]BYPASS DISABLED",
    "[W03]SHUTDOWN IMMINENT",
    "[W02]SHUTDOWN ACTIVE",
    "[W01]BATTERY LOW WARNING",
    // byte 2
    "[A08]MAINS UNDERVOLTAGE L1",
    "[A07]MAINS OVERVOLTAGE L3",
    "[A06]MAINS OVERVOLTAGE L2",
    "[A05]MAINS OVERVOLTAGE L1",
    "[A04]EXTERNAL SYNC. FAIL",
    "[A03]INVERTER ASYNCHRONOUS",
    "[A02]PM NOT COMPATIBLE",
    "[A01]CONFIG. DATA CORRUPTED",
    // byte 3
    "[A16]BYPASS FREQ. ABNORMAL",
    "[A15]BYPASS VOLT. ABNORMAL L3",
    "[A14]BYPASS VOLT. ABNORMAL L2",
    "[A13]BYPASS VOLT. ABNORMAL L1",
    "[A12]",
    "[A11]MAINS FREQUENCY ABNORMAL",
    "[A10]MAINS UNDERVOLTAGE L3",
    "[A09]MAINS UNDERVOLTAGE L2",
    // byte 4
    "[A24]LOAD> USER THRESHOLD L3",
    "[A23]LOAD> USER THRESHOLD L2",
    "[A22]LOAD> USER THRESHOLD L1",
    "[A21]OUT. PEAK OVERCURRENT L3",
    "[A20]OUT. PEAK OVERCURRENT L2",
    "[A19]OUT. PEAK OVERCURRENT L1",
    "[A18]BYPASS VOLTAGE FAIL",
    "[A17]",
    // byte 5
    "[A32]UNDERTEMP. POWER L1",
    "[A31]INTERNAL OVERTEMP.",
    "[A30]INTERNAL UNDERTEMP.",
    "[A29]INT TEMP. SENSOR FAULT",
    "[A28]",
    "[A27](-)BATTERY NOT PRESENT",
    "[A26](+)BATTERY NOT PRESENT",
    "[A25]OUTPUT SWITCH OPEN",
    // byte 6
    "[A40]REPLACE (-)BATTERY",
    "[A39]REPLACE (+)BATTERY",
    "[A38]",
    "[A37]",
    "[A36]",
    "[A35]",
    "[A34]UNDERTEMP. POWER L3",
    "[A33]UNDERTEMP. POWER L2",
    // byte 7
    "[A48]",
    "[A47]DIFFERENT FIRMW. VERSION",
    "[A46]",
    "[A45]",
    "[A44]",
    "[A43]",
    "[A42]",
    "[A41]",
    // byte 8
    "[F08]INPUT CONTACT LOCKED L3",
    "[F07]INPUT CONTACT LOCKED L2",
    "[F06]INPUT CONTACT LOCKED L1",
    "[F05]INP.FUSE/CONTACT FAIL L3",
    "[F04]INP.FUSE/CONTACT FAIL L2",
    "[F03]INP.FUSE/CONTACT FAIL L1",
    "[F02]MAINS PHASE REVERSED",
    "[F01]INTERNAL COMM. ERROR",
    // byte 9
    "[F16]INV.SINEWAVE ABNORMAL L3",
    "[F15]INV.SINEWAVE ABNORMAL L2",
    "[F14]INV.SINEWAVE ABNORMAL L1",
    "[F13]BOOSTER FAILURE",
    "[F12]BYPASS PHASE REVERSED",
    "[F11]BOOSTER FAULT",
    "[F10]DC (-)BUS PRECHARGE FAIL",
    "[F09]DC (+)BUS PRECHARGE FAIL",
    // byte 10
    "[F24]BYPASS MODULE FAULT",
    "[F23]OUTPUT OVERLOAD",
    "[F22](-)BATTERY UNDERVOLTAGE",
    "[F21](+)BATTERY UNDERVOLTAGE",
    "[F20](-)BATTERY OVERVOLTAGE",
    "[F19](+)BATTERY OVERVOLTAGE",
    "[F18]",
    "[F17]INVERTER FAULT",
    // byte 11
    "[F32]BATTERY CHARGER FAULT",
    "[F31]OUT.FUSE/CONTACT FAIL L3",
    "[F30]OUT.FUSE/CONTACT FAIL L2",
    "[F29]OUT.FUSE/CONTACT FAIL L1",
    "[F28]OUTPUT CONTACT LOCKED L3",
    "[F27]OUTPUT CONTACT LOCKED L2",
    "[F26]OUTPUT CONTACT LOCKED L1",
    "[F25]POWER ABSORPTION",
    // byte 12
    "[F40](+) BATTERY FUSE BROKEN",
    "[F39]VDC BUS MEASURE ERROR",
    "[F38]",
    "[F37]BATT. CHARGER OVERTEMP.",
    "[F36]FAN FAILURE",
    "[F35]",
    "[F34]POWER OVERTEMPERATURE",
    "[F33]BATTERY MEASURE ERROR",
    // byte 13
    "[F48]",
    "[F47]PARAL. SYNC. LINE FAULT",
    "[F46]PARAL. R_BYP. LINE FAULT",
    "[F45]PARALLEL LINK OPEN",
    "[F44]BATTERY SCR3 FAULT",
    "[F43]BATTERY SCR2 FAULT",
    "[F42]BATTERY SCR1 FAULT",
    "[F41](-) BATTERY FUSE BROKEN",
    // byte 14
    "[L08](+)BOOSTER UNDERVOLTAGE",
    "[L07](-)BOOSTER OVERVOLTAGE",
    "[L06](+)BOOSTER OVERVOLTAGE",
    "[L05]INP.FUSE/CONTACT FAIL L3",
    "[L04]INP.FUSE/CONTACT FAIL L2",
    "[L03]INP.FUSE/CONTACT FAIL L1",
    "[L02]BOARDS LINK FAIL",
    "[L01]AUXILIARY POWER FAIL",
    // byte 15
    "[L16]INVERTER OVERVOLTAGE L3",
    "[L15]INVERTER OVERVOLTAGE L2",
    "[L14]INVERTER OVERVOLTAGE L1",
    "[L13]BYPASS OUTPUT LOCKED L3",
    "[L12]BYPASS OUTPUT LOCKED L2",
    "[L11]BYPASS OUTPUT LOCKED L1",
    "[L10]BYPASS BACKFEED",
    "[L09](-)BOOSTER UNDERVOLTAGE",
    // byte 16
    "[L24]OUTPUT OVERLOAD L2",
    "[L23]OUTPUT OVERLOAD L1",
    "[L22]INV.SINEWAVE ABNORMAL L3",
    "[L21]INV.SINEWAVE ABNORMAL L2",
    "[L20]INV.SINEWAVE ABNORMAL L1",
    "[L19]INVERTER UNDERVOLTAGE L3",
    "[L18]INVERTER UNDERVOLTAGE L2",
    "[L17]INVERTER UNDERVOLTAGE L1",
    // byte 17
    "[L32]PARAL. SYNCHRON. ERROR",
    "[L31]OUT.FUSE/CONTACT FAIL L3",
    "[L30]OUT.FUSE/CONTACT FAIL L2",
    "[L29]OUT.FUSE/CONTACT FAIL L1",
    "[L28]OUTPUT SHORT-CIRCUIT L3",
    "[L27]OUTPUT SHORT-CIRCUIT L2",
    "[L26]OUTPUT SHORT-CIRCUIT L1",
    "[L25]OUTPUT OVERLOAD L3",
    // byte 18
    "[L40]INV. L3 OVERTEMP/SENSOR",
    "[L39]INV. L2 OVERTEMP/SENSOR",
    "[L38]INV. L1 OVERTEMP/SENSOR",
    "[L37]BATT. CHARGER OVERTEMP.",
    "[L36]BOOST L3 OVERTEMP/SENSOR",
    "[L35]BOOST L2 OVERTEMP/SENSOR",
    "[L34]BOOST L1 OVERTEMP/SENSOR",
    "[L33]PARAL. SYNC. LINE FAULT",
    // byte 19
    "[L48]",
    "[L47]PARALLEL BOARD FAULT",
    "[L46]PARAL. COMMUNICAT. FAULT",
    "[L45]PARALLEL BUS DIVISION",
    "[L44]BATTERY SCR3 FAULT",
    "[L43]BATTERY SCR2 FAULT",
    "[L42]BATTERY SCR1 FAULT",
    "[L41]SCR BATT.OVERTEMPERATURE",
    // byte 20
    "ON FOR SYSTEM ON",
    "CONFIGURATION CHANGED",
    "SHUTDOWN DELETED",
    "BATTERY CHARGED",
    "",
    "POWER ON",
    "LOAD ON BYPASS",
    "BATTERY WORKING",
    // byte 21
    "OFF FOR LOCK",
    "OFF FOR AUTONOMY LIMIT.",
    "OFF FOR BATTERY ENDED",
    "OFF FOR SHUTDOWN COMMAND",
    "OFF FOR AUTO-OFF",
    "OFF FOR SYSTEM OFF",
    "ON FOR RESTORE COMMAND",
    "ON FOR AUTO-RESTART",
};

TEST(StatusTexts, ArePaddedByKind) {
    static_assert(sizeof(TEXTS) / sizeof(TEXTS[0]) == 176, "eight for each of 22 bytes");
    static_assert(NUMRCBIT == 176 && NUMSTATUSBIT == 160, "conditions, then events");
    for (std::size_t i = 0; i < 176; ++i) {
        std::string text = TEXTS[i];
        text.resize(i < 160 ? 29 : 24, ' ');
        EXPECT_EQ(std::string(statusDetailString[i]), text) << i;
    }
}

// The classes' numbers run on over their bytes and count down within each.
TEST(StatusTexts, OfConditionsBeginWithTheirTag) {
    const std::string classes = "CWAAAAAAFFFFFFLLLLLL";
    std::map<char, int> before;
    for (std::size_t byte = 0; byte < 20; ++byte) {
        int& last = before[classes[byte]];
        last += 8;
        for (std::size_t bit = 0; bit < 8; ++bit) {
            char tag[16];
            std::snprintf(tag, sizeof(tag), "[%c%02d]", classes[byte], last - static_cast<int>(bit));
            EXPECT_EQ(std::string(statusDetailString[byte * 8 + bit]).substr(0, 5), tag);
        }
    }
}

}  // namespace
