// What a module's reply leaves in its node, byte by byte, and that it leaves all else alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "unit/MLINK/DataCard.h"

namespace {

using images::littleEndian32;
using images::overlaid;
using modlink::Bytes;
using modlink::bytesOf;
using modlink::Field;
using modlink::frame;
using modlink::nibbles;
using modlink::numberAt;
using modlink::STAMP;
using support::LogCapture;

using Data = modlink::DataCard;

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
            EXPECT_EQ(log.entries().front().function, "MLINK_ManageData");
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

}  // namespace
