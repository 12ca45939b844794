// The module's status bits: where each is kept, which alarm it raises, and its text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "unit/MLINK/DataCard.h"

namespace {

using images::littleEndian32;
using images::overlaid;
using modlink::Bytes;
using modlink::nibbles;
using modlink::STAMP;
using support::LogCapture;

using Data = modlink::DataCard;

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
