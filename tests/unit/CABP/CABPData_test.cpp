// What becomes of a frame that brings data: where each block lands, what is refused, and the values that the records
// start with.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>

#include "CABP/CABP.h"
#include "CABP/ThreadCABP.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "unit/CABP/Bus.h"
#include "unit/CABP/Images.h"

namespace {

using images::Bytes;
using images::image;
using images::overlaid;
using images::pattern;
using support::LogCapture;
using support::Plant;

constexpr time_t RECEIVED = 1700000000;
constexpr uint8 MCU[] = {0xEA, 0xEB, 0xEC, 0xED};

// Offsets in a node.
constexpr std::size_t IDENTIFICATION = 54;
constexpr std::size_t NOMINAL = 152;
constexpr std::size_t DESC = 177;

class Data : public testing::Test {
  protected:
    Data() {
        plant.registerAll();
        LastMaster = 0xE0;
    }
    upsBoxQueriesData_t& box(int id) { return plant.bus().upsBox[id]; }
    virtualNode_t& node(int id) { return *box(id).pVN; }
    /// All that a frame could change: the tree and what the bus knows of the cabinets.
    Bytes everything() {
        const support::FakeShm::Segment& segment = plant.shm().only();
        Bytes all(segment.bytes.get(), segment.bytes.get() + segment.size);
        return images::joined(all, image(plant.bus().upsBox));
    }
    static void receive(uint8 src, const std::string& cmd, const Bytes& data = {}) {
        Bytes bytes = bus::frame(src, 0xFF, cmd.c_str(), data);
        CABP_ManageData(RECEIVED, bytes.data());
    }

    Plant plant;
};

// ---------------------------------------------------------------------------------------------------------------
// Cabinet data

TEST_F(Data, NominalDataOfEachCabinetAreStoredWholeWithTheSendersTime) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        const Bytes data = pattern(20, static_cast<uint8>(0x31 + id));
        const Bytes before = image(node(id));
        LogCapture log;
        receive(MCU[id], "BN", data);
        EXPECT_EQ(image(node(id)), overlaid(before, NOMINAL, data)) << id;
        EXPECT_EQ(log.text(), "");
    }
    EXPECT_EQ(image(node(0).nominal), pattern(20, 0x31)) << "no cabinet overwrites another";
}

TEST_F(Data, IdentificationOfEachCabinetIsStoredWholeWithTheSendersTime) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        const Bytes data = pattern(98, static_cast<uint8>(0x51 + id));
        const Bytes before = image(node(id));
        LogCapture log;
        receive(MCU[id], "BI", data);
        EXPECT_EQ(image(node(id)), overlaid(before, IDENTIFICATION, data)) << id;
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Data, StateOfEachCabinetIsStoredWithTheTimeOfItsReception) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        const Bytes data = pattern(268, static_cast<uint8>(0x71 + id));
        Bytes stored = images::firstOf(data, 267);
        stored = overlaid(stored, 0, images::littleEndian32(RECEIVED));
        stored = overlaid(stored, 4, images::littleEndian32(RECEIVED));
        const Bytes before = image(node(id));
        const Bytes boxBefore = image(box(id));
        LogCapture log;
        receive(MCU[id], "BS", data);
        EXPECT_EQ(image(node(id)), overlaid(before, DESC, stored)) << "two bytes of the union are not the cabinet's";
        EXPECT_EQ(box(id).extendedBoardBox.idu, data[267]);
        box(id).extendedBoardBox.idu = 0;
        EXPECT_EQ(image(box(id)), boxBefore) << "nothing else is kept of it";
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Data, ReceptionTimeIsKeptInTheWidthOfTheRecords) {
    Bytes bytes = bus::frame(0xEB, 0xFF, "BS", Bytes(268, 0));
    CABP_ManageData(static_cast<time_t>(0x7FFFFFFF), bytes.data());
    EXPECT_EQ(node(1).desc.upsBox.timestamp, 0x7FFFFFFF);
    EXPECT_EQ(node(1).desc.upsBox.Ups.timestamp, 0x7FFFFFFF);
    EXPECT_EQ(node(1).desc.upsBox.Batteries.timestamp, 0) << "the batteries' own stays the sender's";
}

TEST_F(Data, OfALongerFrameTheFirstBytesCount) {
    const Bytes data = pattern(300, 0x11);
    receive(0xEB, "BN", data);
    receive(0xEB, "BI", data);
    receive(0xEB, "BS", data);
    EXPECT_EQ(image(node(1).nominal), images::firstOf(data, 20));
    EXPECT_EQ(image(node(1).identification), images::firstOf(data, 98));
    EXPECT_EQ(node(1).desc.upsBox.MCUMUStatus.byte, data[266]);
    EXPECT_EQ(box(1).extendedBoardBox.idu, data[267]);
}

TEST_F(Data, EveryFrameThatIsTooShortIsDroppedWithOneLine) {
    const struct {
        const char* cmd;
        uint8 src;
        std::size_t needed;
    } blocks[] = {{"BN", 0xEB, 20}, {"BS", 0xEB, 268}, {"BI", 0xEB, 98}, {"GI", 0x0B, 64}};
    for (const auto& block : blocks) {
        const Bytes before = everything();
        for (std::size_t length = 0; length < block.needed; ++length) {
            // In its exact size, so that the sanitizer sees a byte taken from behind it.
            Bytes bytes = bus::frame(block.src, 0xFF, block.cmd, pattern(length, 0x99));
            bytes.shrink_to_fit();
            LogCapture log;
            CABP_ManageData(RECEIVED, bytes.data());
            ASSERT_EQ(everything(), before) << block.cmd << length;
            ASSERT_EQ(log.lines().size(), 1u) << log.text();
            ASSERT_EQ(log.errors(), 1u);
            ASSERT_TRUE(
                log.contains("attesi:" + std::to_string(block.needed) + " effettivi:" + std::to_string(length)));
        }
        receive(block.src, block.cmd, pattern(block.needed, 0x99));
        EXPECT_NE(everything(), before) << block.cmd;
    }
}

TEST_F(Data, CabinetDataFromAnyAddressThatIsNoCabinetsAreDropped) {
    const Bytes before = everything();
    for (int src = 0; src <= 0xFF; ++src) {
        if (src >= 0xEA && src <= 0xED) {
            continue;
        }
        for (const char* cmd : {"BN", "BS", "BI"}) {
            LogCapture log;
            receive(static_cast<uint8>(src), cmd, pattern(268, 0x77));
            ASSERT_EQ(everything(), before) << cmd << " " << src;
            ASSERT_EQ(log.lines().size(), 1u);
            ASSERT_EQ(log.errors(), 1u);
        }
    }
}

TEST_F(Data, CabinetDataForACabinetWithoutNodeAreDropped) {
    box(2).pVN = nullptr;
    const Bytes before = everything();
    for (const char* cmd : {"BN", "BS", "BI"}) {
        LogCapture log;
        receive(0xEC, cmd, pattern(268, 0x77));
        EXPECT_EQ(everything(), before) << cmd;
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(log.errors(), 1u);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// SK board data

Bytes giData() {
    const Bytes texts = images::text("SERIAL0123456789CONFIG0123456789FW0123456789");
    const Bytes words = {0xA1, 0xA2, 0xB1, 0xB2, 0xC1, 0x01, 0xC2, 0x02, 0xC3, 0x03,
                         0xC4, 0x04, 0xC5, 0x05, 0xC6, 0x06, 0xC7, 0x07, 0xC8, 0x08};
    return images::joined(texts, words);
}

TEST_F(Data, BoardIdentificationIsTakenApart) {
    ASSERT_EQ(giData().size(), 64u);
    const Bytes before = image(node(2));
    LogCapture log;
    receive(0x0C, "GI", giData());
    const information_t& inf = box(2).extendedBoardBox.inf;
    EXPECT_EQ(inf.timestamp, RECEIVED);
    EXPECT_EQ(std::string(inf.ro.SerialNumber, 17), std::string("SERIAL0123456789\0", 17));
    EXPECT_EQ(std::string(inf.ro.UpsConfig, 17), std::string("CONFIG0123456789\0", 17));
    EXPECT_EQ(std::string(inf.ro.FWVersion, 13), std::string("FW0123456789\0", 13));
    EXPECT_EQ(inf.ro.Address, 0xA1A2);
    EXPECT_EQ(inf.ro.SkCfg, 0xB1B2);
    EXPECT_EQ(inf.rw.cfg1, 0xC101);
    EXPECT_EQ(inf.rw.cfg2, 0xC202);
    EXPECT_EQ(inf.rw.cfg3, 0xC303);
    EXPECT_EQ(inf.rw.cfg4, 0xC404);
    EXPECT_EQ(inf.rw.delayActR1, 0xC4);
    EXPECT_EQ(inf.rw.delayActR2, 0x04);
    EXPECT_EQ(inf.rw.cfg5, 0xC505);
    EXPECT_EQ(inf.rw.delayActR3, 0xC5);
    EXPECT_EQ(inf.rw.delayActR4, 0x05);
    EXPECT_EQ(inf.rw.cfg6, 0xC606);
    EXPECT_EQ(inf.rw.delayActR5, 0xC6);
    EXPECT_EQ(inf.rw.delayActR6, 0x06);
    EXPECT_EQ(inf.rw.cfg7, 0xC707);
    EXPECT_EQ(inf.rw.delayActR7, 0xC7);
    EXPECT_EQ(inf.rw.delayActR8, 0x07);
    EXPECT_EQ(inf.rw.cfg8, 0xC808);
    EXPECT_EQ(inf.rw.normalON, 0xC8);
    EXPECT_EQ(inf.rw.spare, 0x08);
    Bytes after = overlaid(before, IDENTIFICATION + 63, images::text(std::string("SERIAL0123456789\0", 17)));
    after = overlaid(after, IDENTIFICATION + 80, images::text(std::string("FW0123456789\0", 13)));
    EXPECT_EQ(image(node(2)), after) << "two strings of the node, and nothing else";
    EXPECT_EQ(log.text(), "");
}

TEST_F(Data, EachBoardUpdatesItsOwnCabinet) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        receive(static_cast<uint8>(0x0A + id), "GI", pattern(64, static_cast<uint8>(id + 1)));
    }
    for (int id = 0; id < MAXUPSBOX; ++id) {
        EXPECT_EQ(box(id).extendedBoardBox.inf.ro.SerialNumber[0], id + 1);
        EXPECT_EQ(node(id).identification.SN_AUX[0], id + 1);
    }
}

TEST_F(Data, BoardIdentificationWithoutANodeIsKeptAllTheSame) {
    box(1).pVN = nullptr;
    LogCapture log;
    receive(0x0B, "GI", giData());
    EXPECT_EQ(log.messages(), "VirtualNode non inizializzato!\n");
    EXPECT_EQ(log.warnings(), 1u);
    EXPECT_EQ(box(1).extendedBoardBox.inf.timestamp, RECEIVED);
    EXPECT_STREQ(box(1).extendedBoardBox.inf.ro.SerialNumber, "SERIAL0123456789");
}

TEST_F(Data, BoardIdentificationFromAnAddressAboveTheBoardsIsDropped) {
    const Bytes before = everything();
    for (int src = 0x0E; src <= 0xFF; ++src) {
        LogCapture log;
        receive(static_cast<uint8>(src), "GI", giData());
        ASSERT_EQ(everything(), before) << src;
        ASSERT_EQ(log.lines().size(), 1u);
        ASSERT_EQ(log.errors(), 1u);
    }
}

using DataDeathTest = Data;

TEST_F(DataDeathTest, BoardIdentificationFromAnImpossibleAddressStopsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(receive(0x09, "GI", giData()), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(receive(0x00, "GI", {}), testing::KilledBySignal(SIGABRT), "");
}

// ---------------------------------------------------------------------------------------------------------------
// The table

const std::set<std::string> stored = {"BN", "BS", "BI", "GI", "QT"};
const std::set<std::string> acknowledged = {"CH", "CU", "SC", "SI", "TB", "UC"};
const std::set<std::string> silent = {"OR", "OS"};
const std::string mains = "BCFGOQSTU";

TEST_F(Data, EveryCommandTakesTheRoadOfItsRow) {
    const std::string subs = std::string("\0\x03\x06\x15", 4) + "1ABCDEFGHIJKLMNOPQRSTUVWXYZb\x80\xFF";
    const Bytes before = everything();
    for (int main = 0; main <= 0xFF; ++main) {
        for (const char sub : subs) {
            const std::string cmd = {static_cast<char>(main), sub};
            if (stored.count(cmd) != 0) {
                continue;
            }
            LogCapture log;
            const Bytes bytes = bus::frame(0x0B, 0xFF, cmd.c_str(), {0x06});
            receive(0x0B, cmd, {0x06});
            std::string expected;
            std::string level = "Err";
            if (main == 0x15) {
                level = "War";
                expected = std::string("Ricevuto NAK, codice ") + cmd[1] + "\n";
            } else if (acknowledged.count(cmd) != 0) {
                level = "";
                expected = "ACK a CMD:" + cmd + " da scheda:0xB!!\n";
            } else if (silent.count(cmd) == 0 && mains.find(cmd[0]) != std::string::npos) {
                expected = std::string("SubCmd ") + cmd[1] + " non supportato per il MainCmd " + cmd[0] + "\n";
            } else if (silent.count(cmd) == 0) {
                expected =
                    std::string("MainCmd ") + cmd[0] + " non supportato\npckReply\n" + images::dump(bytes) + "\n";
            }
            ASSERT_EQ(log.messages(), expected) << main << " " << sub;
            if (!expected.empty() && main != '\n') {
                ASSERT_EQ(log.entries().at(0).level, level) << main << " " << sub;
            }
        }
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(Data, AcknowledgesAreJudged) {
    const Bytes before = everything();
    for (const std::string& cmd : acknowledged) {
        LastMaster = 0xE0;
        {
            LogCapture log;
            receive(0xEB, cmd, {0x06});
            EXPECT_TRUE(log.has("", "ACK a CMD:" + cmd + " da scheda:0xEB!!")) << cmd;
            EXPECT_EQ(log.lines().size(), 1u);
        }
        EXPECT_EQ(LastMaster, 0xEB);
        {
            LogCapture log;
            receive(0xEB, cmd, {0x07});
            EXPECT_TRUE(log.has("Err", "NOT_ACKNOWLEDGED a CMD:" + cmd + " da scheda:0xEB!!")) << cmd;
        }
        for (const Bytes& data : {Bytes{}, Bytes{0x06, 0x06}}) {
            LogCapture log;
            receive(0xEB, cmd, data);
            EXPECT_TRUE(log.has("Err", "Formato della risposta errato!!")) << cmd;
        }
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(Data, BoardStatusAndErrorCountersAreRefused) {
    const Bytes before = everything();
    LogCapture log;
    receive(0x0B, "GS", pattern(109, 1));
    receive(0x0B, "GE", pattern(30, 1));
    EXPECT_EQ(log.messages(),
              "SubCmd S non supportato per il MainCmd G\n"
              "SubCmd E non supportato per il MainCmd G\n");
    EXPECT_EQ(log.errors(), 2u);
    EXPECT_EQ(everything(), before);
}

TEST_F(Data, MasterHandoverIsNoDataAndIsRefused) {
    LogCapture log;
    receive(0xEB, "CN", Bytes(93, 0));
    EXPECT_TRUE(log.has("Err", "SubCmd N non supportato per il MainCmd C"));
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(Data, UnknownCommandIsDumpedWhole) {
    const Bytes bytes = bus::frame(0xEB, 0xFF, "Va", pattern(300, 9));
    LogCapture log;
    receive(0xEB, "Va", pattern(300, 9));
    const std::vector<support::LogEntry> entries = log.entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].level, "Err");
    EXPECT_EQ(entries[0].message, "MainCmd V non supportato");
    EXPECT_EQ(entries[0].function, "CABP_ManageData");
    EXPECT_EQ(entries[1].level, "");
    EXPECT_EQ(entries[1].message, "pckReply");
    EXPECT_EQ(entries[2].message, images::dump(bytes));
}

// ---------------------------------------------------------------------------------------------------------------
// Start values

TEST_F(Data, SystemStatusStartsWithItsBits) {
    for (const uint16 capacity : {0, 1, 0x100}) {
        plant.cfg().externBattCapacity = capacity;
        plant.sys().moduleNotOnLoad = 77;
        plant.sys().moduleUsed = 77;
        descSys_t sys;
        std::memset(&sys, 0xAA, sizeof(sys));
        InitSysStatus(sys);
        Bytes expected(269, 0);
        expected[3 + 5] = 0x40;                       // status: SWOUT
        expected[3 + 6] = 0x80;                       // extStatus: UPS_OK
        expected[3 + 9] = 0x20;                       // PMStatus 0x2000: bitCmdUnsupported
        expected[267] = capacity == 0 ? 0xC0 : 0x80;  // EPO, SWBATT_EXT
        EXPECT_EQ(image(sys), expected) << capacity;
        EXPECT_EQ(plant.sys().moduleNotOnLoad, plant.sys().numUPS);
        EXPECT_EQ(plant.sys().moduleNotOnLoad, 4);
        EXPECT_EQ(plant.sys().moduleUsed, 0);
    }
}

TEST_F(Data, CabinetStatusStartsWithItsBits) {
    dataObject_t ups;
    std::memset(&ups, 0xAA, sizeof(ups));
    InitUpsBox_UpsStatus(ups);
    Bytes expected(160, 0);
    expected[6] = 0x80;
    expected[9] = 0x20;
    EXPECT_EQ(image(ups), expected);
}

TEST_F(Data, ModuleStateStartsByPresenceAndKeepsItsUpperBits) {
    upsBoxCfg_t cfg = {};
    for (int found = 0; found <= 0xFF; ++found) {
        upsSubSystem_t subSystem;
        subSystem.UPSShelter[0].desc = static_cast<uint8>(found);
        cfg.modulePresent[0] = true;
        InitUpsBoxSubSystem(subSystem, cfg);
        ASSERT_EQ(subSystem.UPSShelter[0].desc, found & 0xF8);
        subSystem.UPSShelter[0].desc = static_cast<uint8>(found);
        cfg.modulePresent[0] = false;
        InitUpsBoxSubSystem(subSystem, cfg);
        ASSERT_EQ(subSystem.UPSShelter[0].desc, (found & 0xF8) | 1);
    }
}

TEST_F(Data, IdentificationStartsBlank) {
    identification_t identification;
    std::memset(&identification, 0xAA, sizeof(identification));
    cabp::InitValueIdentification(&identification);
    const std::string blank16 = std::string(16, ' ') + '\0';
    const std::string blank12 = std::string(12, ' ') + '\0';
    const std::string expected =
        std::string(4, '\0') + blank16 + blank16 + blank12 + "412210201" + "xxx" + blank16 + blank12 + "xxxx" + '\xFC';
    EXPECT_EQ(image(identification), images::text(expected));
}

}  // namespace
