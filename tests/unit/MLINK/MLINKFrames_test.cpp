// Frames of the module link, the coding of numbers, and the port they travel on.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "support/Allocations.h"
#include "unit/MLINK/Link.h"

namespace {

using modlink::Bytes;
using modlink::bytesOf;
using modlink::frame;
using modlink::query;
using support::LogCapture;
using support::VirtualClock;

Bytes built(const pckStruct& qcs) {
    uint8* pck = nullptr;
    const uint16 len = MLINK_BuildQuery(qcs, pck);
    const Bytes bytes(pck, pck + len);
    std::free(pck);
    return bytes;
}

// ---------------------------------------------------------------------------------------------------------------
// Numbers

struct Coded {
    uint32 value;
    uint8 width;
    const char* text;
};

TEST(NibbleCoding, WritesTheLowNibblesMostSignificantFirst) {
    const Coded table[] = {{56, 2, "38"},
                           {0x0C, 2, "0<"},
                           {0, 2, "00"},
                           {0xABC, 3, ":;<"},
                           {0x1234, 4, "1234"},
                           {0xFEDC, 4, "?>=<"},
                           {0x12345, 5, "12345"},
                           {0xDEADBEEF, 8, "=>:=;>>?"},
                           {0x90000001, 8, "90000001"},
                           {0x123, 2, "23"},
                           {0x9876543, 3, "543"},
                           {0xFFFFFFFF, 5, "?????"}};
    for (const Coded& row : table) {
        LogCapture log;
        uint8 field[10];
        std::memset(field, 0xAA, sizeof(field));
        MLINK_Dec2DCd(row.value, field + 1, row.width);
        EXPECT_EQ(std::string(field + 1, field + 1 + row.width), row.text);
        EXPECT_EQ(field[0], 0xAA) << row.text;
        EXPECT_EQ(field[1 + row.width], 0xAA) << "no terminator " << row.text;
        EXPECT_EQ(log.text(), "");
    }
}

TEST(NibbleCoding, KnowsFiveWidthsOnly) {
    const std::set<int> known{2, 3, 4, 5, 8};
    for (int width = 0; width < 256; ++width) {
        if (known.count(width) != 0) {
            continue;
        }
        LogCapture log;
        Bytes field(256, 0xAA);
        MLINK_Dec2DCd(0x12345678, field.data(), static_cast<uint8>(width));
        EXPECT_EQ(field, Bytes(256, 0xAA)) << width;
        EXPECT_TRUE(log.has("Err", "Valore non contemplato")) << width;
    }
}

TEST(NibbleCoding, ReadsByFolding) {
    const Coded table[] = {{56, 2, "38"},       {12, 2, "0<"},         {0xABC, 3, ":;<"},
                           {0xFEDC, 4, "?>=<"}, {0x12345, 5, "12345"}, {0xDEADBEEF, 8, "=>:=;>>?"}};
    for (const Coded& row : table) {
        EXPECT_EQ(MLINK_DCd2Dec(reinterpret_cast<const uint8*>(row.text), row.width), row.value) << row.text;
    }
}

TEST(NibbleCoding, CharactersOutsideTheRangeAreFoldedToo) {
    const uint8 letters[] = {'A', 'B'};  // 0x11 and 0x12
    EXPECT_EQ(MLINK_DCd2Dec(letters, 2), 0x11u * 16 + 0x12);
    const uint8 high[] = {0xFF, 0xFF};  // unsigned characters everywhere
    EXPECT_EQ(MLINK_DCd2Dec(high, 2), 0xCFu * 16 + 0xCF);
    const uint8 low[] = {0x2F, 0x30};
    EXPECT_EQ(MLINK_DCd2Dec(low, 2), 0xFFFFFFF0u);
}

// ---------------------------------------------------------------------------------------------------------------
// Queries

TEST(Query, WithoutParametersHasTwelveBytes) {
    for (const char* const cmd : {"CD", "DE", "DS", "GE", "GI", "GN", "RC", "RE", "RK", "RS", "RX", "RB", "TC"}) {
        EXPECT_EQ(built(query(0x20, '1', cmd)), frame(0x20, '1', cmd)) << cmd;
        EXPECT_EQ(built(query(0x20, '1', cmd)).size(), 12u) << cmd;
    }
}

TEST(Query, IdentificationIsTheOnlyOneWithASum) {
    // 0x20 + 0x31 + 'G' + 'I' + '0' + '0' = 0x141
    EXPECT_EQ(built(query(0x20, '1', "GI")), (Bytes{0x02, 0x20, 0x31, 'G', 'I', '0', '0', '0', '1', '4', '1', 0x03}));
    for (const char* const cmd : {"GN", "GE", "GM", "CI", "II", "GJ"}) {
        const Bytes pck = built(query(0x20, '1', cmd));
        const unsigned crc = bus::crcOf(pck, 1, 7);
        EXPECT_EQ(Bytes(pck.begin() + 7, pck.begin() + 11), bytesOf(modlink::coded(crc, 4))) << cmd;
    }
}

TEST(Query, CarriesItsParameters) {
    for (const std::size_t n : {1u, 2u, 3u, 4u, 8u, 12u, 56u, 243u}) {
        Bytes data = bus::filler(n);
        for (const char* const cmd : {"CR", "GI"}) {
            const Bytes pck = built(query('B', '3', cmd, &data));
            EXPECT_EQ(pck, frame('B', '3', cmd, data)) << n;
            EXPECT_EQ(pck.size(), n + 12);
        }
    }
}

TEST(Query, LengthsStandInEightBitsOnTheWireButTheMemoryHoldsTheWholeFrame) {
    Bytes data = bus::filler(255);
    uint8* pck = nullptr;
    EXPECT_EQ(MLINK_BuildQuery(query('A', '1', "CS", &data), pck), 267);
    ASSERT_NE(pck, nullptr);
    EXPECT_EQ(Bytes(pck, pck + 7), (Bytes{0x02, 'A', '1', 'C', 'S', '?', '?'}));
    EXPECT_EQ(Bytes(pck + 7, pck + 262), data);
    // 261 bytes under the check, of which 8 bits: 5.
    const unsigned crc = bus::crcOf(Bytes(pck, pck + 262), 1, 6);
    EXPECT_EQ(Bytes(pck + 262, pck + 266), bytesOf(modlink::coded(crc, 4)));
    EXPECT_EQ(pck[266], 0x03);
    std::free(pck);
}

TEST(Query, MissingParametersAreToldAndTheFrameKeepsItsLength) {
    pckStruct qcs = query(0x20, '1', "CS");
    qcs.ParamLen = 4;
    LogCapture log;
    const Bytes pck = built(qcs);
    EXPECT_EQ(pck.size(), 16u);
    EXPECT_EQ(Bytes(pck.begin(), pck.begin() + 7), (Bytes{0x02, 0x20, '1', 'C', 'S', '0', '4'}));
    EXPECT_EQ(pck.back(), 0x03);
    EXPECT_TRUE(log.has("Err", "Puntaore non inizializzato!"));
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Query, WithoutMemoryThereIsNone) {
    uint8* pck = nullptr;
    support::failAllocation(1);
    EXPECT_EQ(MLINK_BuildQuery(query(0x20, '1', "GI"), pck), 0);
    EXPECT_EQ(pck, nullptr);
}

TEST(Query, IsTakenApartWithoutACopyOrACheck) {
    Bytes pck = frame('C', '1', "CR", bytesOf("00120034"));
    pck[15] ^= 0x01;  // in the check
    pckStruct qcs;
    MLINK_ExtractQuery(qcs, pck.data());
    EXPECT_EQ(qcs.Src, 'C');
    EXPECT_EQ(qcs.Dest, '1');
    EXPECT_EQ(qcs.MainCmd, 'C');
    EXPECT_EQ(qcs.SubCmd, 'R');
    EXPECT_EQ(qcs.ParamLen, 8);
    EXPECT_EQ(qcs.pParam, pck.data() + 7);
}

TEST(Query, TakenApartHasAnEightBitLength) {
    Bytes pck = frame('C', '1', "CR");
    for (int c0 = 0; c0 < 256; ++c0) {
        for (int c1 = 0; c1 < 256; ++c1) {
            pck[5] = static_cast<uint8>(c0);
            pck[6] = static_cast<uint8>(c1);
            pckStruct qcs;
            MLINK_ExtractQuery(qcs, pck.data());
            ASSERT_EQ(qcs.ParamLen, ((c0 << 4) + c1 - 0x330) & 0xFF) << c0 << " " << c1;
        }
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Acknowledgements

TEST(Acknowledgement, EchoesTheCommandWithTheRolesSwapped) {
    VirtualClock::setWall(1700000123);
    for (const char* const cmd : {"CB", "CR", "TB", "TC", "GI"}) {
        Bytes data = bytesOf("0012");
        uint8* reply = nullptr;
        time_t timestamp = 0;
        ASSERT_EQ(MLINK_ACKBuildReply(query('D', '1', cmd, &data), reply, timestamp), 12);
        Bytes expected{0x02, '1', 'D', static_cast<uint8>(cmd[0]), static_cast<uint8>(cmd[1]), '0', '0'};
        // A CRC whatever the command.
        const std::string crc = modlink::coded(bus::crcOf(expected, 1, 7), 4);
        expected.insert(expected.end(), crc.begin(), crc.end());
        expected.push_back(0x03);
        EXPECT_EQ(Bytes(reply, reply + 12), expected) << cmd;
        EXPECT_EQ(timestamp, 1700000123);
        std::free(reply);
    }
}

TEST(Acknowledgement, WithoutMemoryThereIsNone) {
    VirtualClock::setWall(1700000123);
    LogCapture log;
    uint8* reply = nullptr;
    time_t timestamp = 0;
    support::failAllocation(1);
    EXPECT_EQ(MLINK_ACKBuildReply(query('D', '1', "CB"), reply, timestamp), 0);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(timestamp, 1700000123);
    EXPECT_TRUE(log.has("Err", "malloc fallita!!"));
}

TEST(Acknowledgement, IsOnlyLogged) {
    LogCapture log;
    MLINK_ACKVerify(2, 0, query('1', 'C', "TB"));
    EXPECT_TRUE(log.has("", "ACK from boxC, comando TB scr:1 dest:C"));
    EXPECT_EQ(log.lines().size(), 1u);
}

// ---------------------------------------------------------------------------------------------------------------
// The port

TEST(ModulePort, IsOpenedOnceAtTheSpeedAskedFor) {
    modlink::ModuleLine module;
    LogCapture log;
    EXPECT_EQ(MLINK_ch, 255);
    MLINK_Init();
    EXPECT_LT(MLINK_ch, 255);
    const uint8 channel = MLINK_ch;
    MLINK_Init();
    EXPECT_EQ(MLINK_ch, channel);
    EXPECT_EQ(module.line.calls(support::LineCall::Open), 1u);
    const struct termios settings = module.line.settings();
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B9600));
    EXPECT_EQ(MLINK_End(), 0);
    EXPECT_EQ(MLINK_ch, 255);
    EXPECT_FALSE(module.line.isOpen());
    EXPECT_TRUE(log.has("", "Chiude il canale di comunicazione"));
}

TEST(ModulePort, ThatCantBeOpenedStaysClosed) {
    modlink::ModuleLine module;
    module.line.fail(support::LineCall::Open, ENOENT);
    LogCapture log;
    MLINK_Init();
    EXPECT_EQ(MLINK_ch, 255);
    EXPECT_TRUE(log.has("Err", "Errore inizializzazione!"));
    MLINK_Init();
    EXPECT_LT(MLINK_ch, 255) << "the next opening finds it";
    MLINK_End();
}

TEST(ModulePort, ClosedTwiceSaysNothingMore) {
    LogCapture log;
    EXPECT_EQ(MLINK_End(), 0);
    EXPECT_EQ(MLINK_End(), 0);
    EXPECT_EQ(log.text(), "");
}

}  // namespace
