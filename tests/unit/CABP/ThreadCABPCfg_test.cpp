// What the master tells the other boards: the configuration, the boards' parameters, battery tests, the unlocking.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "CABP/ThreadCABP.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"
#include "unit/CABP/Images.h"

namespace {

using images::Bytes;
using images::image;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

// ---------------------------------------------------------------------------------------------------------------
// Parameters of an SK board

class BoardParameters : public testing::Test {
  protected:
    BoardParameters() : plant(0xEA, "ABC") {}
    upsBoxCfg_t& box(int id) { return plant.cfg().Ups[id]; }
    static Bytes of(uint8 dest) {
        Bytes param(16, 0xAA);
        setParamSI(param.data(), dest);
        return param;
    }
    static Bytes with(std::initializer_list<std::pair<int, int>> bytes) {
        Bytes all(16, 0);
        for (const std::pair<int, int>& each : bytes) {
            all[static_cast<std::size_t>(each.first)] = static_cast<uint8>(each.second);
        }
        return all;
    }
    /// Stores the words of the eight relays.
    void setRelays(const uint16 (&words)[8]) {
        PlantCfg& cfg = plant.cfg();
        cfg.word182 = words[0];
        cfg.word183 = words[1];
        cfg.word184 = words[2];
        cfg.word185 = words[3];
        cfg.word186 = words[4];
        cfg.word187 = words[5];
        cfg.word188 = words[6];
        cfg.word189 = words[7];
    }

    Plant plant;
};

TEST_F(BoardParameters, AllZeroWhereNothingIsFitted) {
    LogCapture log;
    EXPECT_EQ(of(0x0A), Bytes(16, 0));
    EXPECT_EQ(log.messages(), "paramSI\n" + images::dump(Bytes(16, 0)) + "\n");
    EXPECT_EQ(log.entries().at(0).level, "");
    EXPECT_EQ(log.entries().at(0).function, "setParamSI");
}

TEST_F(BoardParameters, EachSensorHasItsBit) {
    const int bits[] = {0x20, 0x10, 0x08, 0x04};
    for (int i = 0; i < 4; ++i) {
        box(1).sensTPresent[i] = true;
        EXPECT_EQ(of(0x0B), with({{1, bits[i]}})) << i;
        box(1).sensTPresent[i] = false;
    }
    box(1).hygroPresent = true;
    EXPECT_EQ(of(0x0B), with({{1, 0x01}}));
    for (bool& sensor : box(1).sensTPresent) {
        sensor = true;
    }
    EXPECT_EQ(of(0x0B), with({{1, 0x3D}}));
    EXPECT_EQ(of(0x0A), Bytes(16, 0)) << "those of its own cabinet only";
    EXPECT_EQ(of(0x0C), Bytes(16, 0));
}

TEST_F(BoardParameters, EachBatteryHasItsBitTwice) {
    for (int i = 0; i < 5; ++i) {
        box(2).batteryPresent[i] = true;
        EXPECT_EQ(of(0x0C), with({{3, 1 << i}, {5, 1 << i}})) << i;
        box(2).batteryPresent[i] = false;
    }
    for (bool& battery : box(2).batteryPresent) {
        battery = true;
    }
    EXPECT_EQ(of(0x0C), with({{3, 0x1F}, {5, 0x1F}}));
}

TEST_F(BoardParameters, OptionBoardIsToldByItsBits) {
    for (int board = 0; board < 8; ++board) {
        for (const int others : {0x0000, 0xF8FF}) {
            plant.cfg().word53 = static_cast<uint16>(board << 8 | others);
            const int bits = board == 6 ? 0x02 : board == 5 ? 0x40 : 0x00;
            EXPECT_EQ(of(0x0A), with({{1, bits}})) << board;
        }
    }
}

TEST_F(BoardParameters, EachRelayHasItsDelay) {
    setRelays({0x7F01, 0x7F02, 0x7F03, 0x7F04, 0x7F05, 0x7F06, 0x7F07, 0x7FFF});
    EXPECT_EQ(of(0x0A),
              with({{6, 0x01}, {7, 0x02}, {8, 0x03}, {9, 0x04}, {10, 0x05}, {11, 0x06}, {12, 0x07}, {13, 0xFF}}));
}

TEST_F(BoardParameters, RestStatesOfTheUpperRelaysNeedOptionBoardA) {
    for (int board = 0; board < 8; ++board) {
        plant.cfg().word53 = static_cast<uint16>(board << 8);
        const int option = board == 6 ? 0x02 : board == 5 ? 0x40 : 0x00;
        for (int relay = 0; relay < 8; ++relay) {
            uint16 words[8] = {};
            words[relay] = 0x8000;
            setRelays(words);
            const int state = relay < 4 || board == 6 ? 1 << relay : 0;
            EXPECT_EQ(of(0x0A), with({{1, option}, {14, state}})) << board << " " << relay;
        }
        setRelays({0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF});
        EXPECT_EQ(of(0x0A)[14], board == 6 ? 0xFF : 0x0F) << board;
    }
}

TEST_F(BoardParameters, AllTogether) {
    box(0).sensTPresent[0] = true;
    box(0).sensTPresent[2] = true;
    box(0).hygroPresent = true;
    box(0).batteryPresent[0] = true;
    box(0).batteryPresent[4] = true;
    plant.cfg().word53 = 0x0600;
    setRelays({0x8010, 0x0020, 0x8030, 0x0040, 0x8050, 0x0060, 0x8070, 0x0080});
    const Bytes expected = {0, 0x2B, 0, 0x11, 0, 0x11, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80, 0x55, 0};
    LogCapture log;
    EXPECT_EQ(of(0x0A), expected);
    EXPECT_EQ(log.messages(), "paramSI\n" + images::dump(expected) + "\n");
}

TEST_F(BoardParameters, CabinetThatIsNotThereGetsZeros) {
    for (upsBoxCfg_t& each : plant.cfg().Ups) {
        each.hygroPresent = true;
    }
    plant.cfg().word3 = 0x0101;  // what lies behind the cabinets in the record
    setRelays({0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF});
    for (int dest = 0; dest <= 0xFF; ++dest) {
        LogCapture log;
        const Bytes param = of(static_cast<uint8>(dest));
        const bool there = dest >= 0x0A && dest <= 0x0C;
        ASSERT_EQ(param == Bytes(16, 0), !there) << dest;
        std::string expected = "paramSI\n" + images::dump(param) + "\n";
        if (dest < 0x0A) {
            expected = "Si configura un armadio BATTERIE non presente!!\n" + expected;
        } else if (!there) {
            expected = "Si configura un armadio UPS non presente!!\n" + expected;
        }
        ASSERT_EQ(log.messages(), expected) << dest;
        ASSERT_EQ(log.errors(), there ? 0u : 1u);
    }
}

TEST_F(BoardParameters, QueueAsOneQueryForTheBoard) {
    // As the aggregation pushes them.
    Bytes param = of(0x0B);
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = 0x0B;
    query.MainCmd = 'S';
    query.SubCmd = 'I';
    query.pParam = param.data();
    query.ParamLen = 16;
    EXPECT_EQ(plant.bus().AddAsyncQC(query), 0);
    EXPECT_EQ(plant.bus().AddAsyncQC(query), 0);
    EXPECT_EQ(plant.bus().AsyncQCSize(), 1);
    QCMgr* elem = nullptr;
    ASSERT_TRUE(plant.bus().peekAsyncQC(elem));
    EXPECT_EQ(Bytes(elem->pckQuery, elem->pckQuery + elem->buildQueryLen), bus::frame(0xEA, 0x0B, "SI", param));
    EXPECT_EQ(elem->expectedReplyLen, 11);
    EXPECT_EQ(elem->pCommStatus, nullptr);
}

// ---------------------------------------------------------------------------------------------------------------
// Defaults of a new cabinet

TEST(FirstConfiguration, IsTheSystemManagers) {
    Plant plant(0xEA, "A");
    EXPECT_TRUE(isFirstCfg(2, 3));
    EXPECT_TRUE(plant.cfg().Ups[2].present);
    EXPECT_EQ(plant.cfg().Ups[2].upsBoxType, ComboBox);
    EXPECT_TRUE(plant.cfg().Ups[2].sensTPresent[0]);
    EXPECT_FALSE(isFirstCfg(0, 3)) << "its module is fitted";
    EXPECT_EQ(plant.cfg().Ups[0].upsBoxType, 0);
    EXPECT_FALSE(isFirstCfg(4, 3));
}

// ---------------------------------------------------------------------------------------------------------------
// Transactions with a peer on the line

class Push : public testing::Test {
  protected:
    Push() : mgr(plant.bus()) {
        plant.registerAll();
        // Single-shot threads and the waiting one share the virtual clock.
        VirtualClock::setRealPause(20);
    }
    /// Answers each frame that is sent with what `peer` makes of it.
    void answer(std::function<Bytes(const Bytes&)> peer) {
        plant.line().onWrite([this, peer](const Bytes& written) {
            const std::lock_guard<std::mutex> guard(lock_);
            sent_.push_back(written);
            const Bytes reply = peer(written);
            if (!reply.empty()) {
                plant.line().feed(reply, 1000);
            }
        });
    }
    std::vector<Bytes> sent() {
        const std::lock_guard<std::mutex> guard(lock_);
        return sent_;
    }
    static Bytes ack(const Bytes& query) {
        const char cmd[] = {static_cast<char>(query[3]), static_cast<char>(query[4])};
        return bus::frame(query[2], query[1], cmd, {0x06});
    }
    static Bytes silence(const Bytes&) { return {}; }

    Plant plant;
    CABPMgr& mgr;

  private:
    std::mutex lock_;
    std::vector<Bytes> sent_;
};

TEST_F(Push, ConfigurationGoesWholeToTheCabinet) {
    const Bytes noise = images::pattern(374, 3);
    // Only what is no truth value, which would not stay such.
    std::memcpy(plant.cfg().passwordUser, noise.data(), 96);
    plant.cfg().word53 = 0x1234;
    plant.cfg().DeviceNo = 0x01020304;
    const Bytes plantImage = image(plant.cfg());
    ASSERT_EQ(plantImage.size(), 374u);
    answer(ack);
    LogCapture log;
    EXPECT_EQ(mgr.SendConfig(0xEC), 0);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0], bus::frame(0xEA, 0xEC, "SC", plantImage));
    const std::string all = log.messages();
    EXPECT_EQ(all.rfind("send SC:\n" + images::dump(plantImage) + "\nSalvo la configurazione nel UPSBOX:C\ncnt:1\n", 0),
              0u)
        << all;
    EXPECT_EQ(log.occurrences("cnt:"), 1u);
    EXPECT_EQ(log.errors(), 0u);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0u);
}

TEST_F(Push, SilentCabinetIsTriedTwice) {
    answer(silence);
    LogCapture log;
    EXPECT_NE(mgr.SendConfig(0xEB), 0);
    EXPECT_EQ(sent().size(), 2u);
    EXPECT_EQ(log.occurrences("cnt:1\n"), 1u);
    EXPECT_EQ(log.occurrences("cnt:0\n"), 1u);
    EXPECT_EQ(log.occurrences("Errore nell'invio del comando SC a:B\n"), 2u);
    EXPECT_TRUE(log.has("Err", "Errore nell'invio del comando SC a:B"));
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 2u);
    EXPECT_EQ(VirtualClock::sumWaits("QThread::msleep"), 40000);
    EXPECT_TRUE(mgr.getLastErr().startsWith("LastErr:\\02 0xea 0xeb SC... @")) << mgr.getLastErr().toStdString();
}

TEST_F(Push, SecondAttemptMaySucceed) {
    int asked = 0;
    answer([&asked](const Bytes& query) { return ++asked == 1 ? Bytes() : ack(query); });
    LogCapture log;
    EXPECT_EQ(mgr.SendConfig(0xED), 0);
    EXPECT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], sent()[1]);
    EXPECT_EQ(log.occurrences("Errore nell'invio del comando SC a:D\n"), 1u);
    EXPECT_EQ(VirtualClock::sumWaits("QThread::msleep"), 20000);
}

TEST_F(Push, ConfigurationToABadAddressFails) {
    answer(ack);
    LogCapture log;
    EXPECT_EQ(mgr.SendConfig(0xEE), -1);
    EXPECT_EQ(sent().size(), 0u);
    EXPECT_EQ(log.occurrences("Errore nell'invio del comando SC a:E\n"), 2u);
}

class BatteryTest : public Push {
  protected:
    BatteryTest() {
        for (const int id : {0, 2}) {
            plant.cfg().Ups[id].upsBoxType = ComboBox;
        }
        plant.cfg().Ups[1].upsBoxType = PowerBox;
        plant.cfg().Ups[3].upsBoxType = Power25kBox;
    }
    void setTest(bool running) { plant.root().desc.sys.Ups.extStatus.Test_in_progress = running ? 1 : 0; }
};

TEST_F(BatteryTest, EachChangeIsToldToTheBoardsOfComboCabinets) {
    answer(ack);
    LogCapture log;
    mgr.monitorUnitTB();
    EXPECT_EQ(sent().size(), 0u) << "no test has been running before";
    EXPECT_EQ(log.text(), "");

    setTest(true);
    mgr.monitorUnitTB();
    EXPECT_EQ(sent(), (std::vector<Bytes>{bus::frame(0xEA, 0x0A, "TB", {1}), bus::frame(0xEA, 0x0C, "TB", {1})}));
    EXPECT_TRUE(log.has("", "INIZIO TEST BATTERIE"));
    mgr.monitorUnitTB();
    EXPECT_EQ(sent().size(), 2u) << "told once";

    setTest(false);
    mgr.monitorUnitTB();
    ASSERT_EQ(sent().size(), 4u);
    EXPECT_EQ(sent()[2], bus::frame(0xEA, 0x0A, "TB", {0}));
    EXPECT_EQ(sent()[3], bus::frame(0xEA, 0x0C, "TB", {0}));
    EXPECT_EQ(log.occurrences("INIZIO TEST BATTERIE\n"), 1u);
    EXPECT_EQ(log.occurrences("FINE TEST BATTERIE\n"), 1u);
    EXPECT_EQ(log.errors(), 0u);
}

TEST_F(BatteryTest, AbsentCabinetIsNotTold) {
    plant.cfg().Ups[2].present = false;
    answer(ack);
    setTest(true);
    mgr.monitorUnitTB();
    EXPECT_EQ(sent(), (std::vector<Bytes>{bus::frame(0xEA, 0x0A, "TB", {1})}));
}

TEST_F(BatteryTest, PlantOfOtherCabinetsIsNotTold) {
    for (upsBoxCfg_t& box : plant.cfg().Ups) {
        box.upsBoxType = PowerBox;
    }
    answer(ack);
    setTest(true);
    LogCapture log;
    mgr.monitorUnitTB();
    EXPECT_EQ(sent().size(), 0u);
    EXPECT_EQ(log.messages(), "INIZIO TEST BATTERIE\n");
}

TEST_F(BatteryTest, BoardThatDoesNotAnswerIsNotToldAgain) {
    answer([](const Bytes& query) { return query[2] == 0x0A ? Bytes() : ack(query); });
    setTest(true);
    LogCapture log;
    mgr.monitorUnitTB();
    EXPECT_EQ(sent().size(), 2u);
    EXPECT_TRUE(log.has("Err", "Errore nell'invio del comando TB alla MU A"));
    EXPECT_FALSE(log.contains("alla MU C"));
    EXPECT_TRUE(mgr.getLastErr().startsWith("LastErr:\\02 0xea 0x a TB... @")) << mgr.getLastErr().toStdString();
    mgr.monitorUnitTB();
    EXPECT_EQ(sent().size(), 2u);
}

TEST_F(BatteryTest, WithoutATreeNothingIsTold) {
    answer(ack);
    setTest(true);
    mgr.DeRegisterBoxNode(plant.cfg());
    LogCapture log;
    mgr.monitorUnitTB();
    EXPECT_EQ(sent().size(), 0u);
    EXPECT_EQ(log.text(), "");
}

// ---------------------------------------------------------------------------------------------------------------
// Unlocking

std::string asyncDests(CABPMgr& mgr) {
    std::string all;
    QCMgr* elem = nullptr;
    while (mgr.peekAsyncQC(elem)) {
        char shown[32];
        std::snprintf(shown, sizeof(shown), "%c%c>%02X/%d ", elem->QC.MainCmd, elem->QC.SubCmd, elem->QC.Dest,
                      elem->QC.ParamLen);
        all += shown;
        mgr.headAsyncQC();
    }
    return all;
}

TEST(Unlocking, GoesToEachOtherCabinetOfThePlant) {
    const struct {
        int own;
        const char* boxes;
        const char* expected;
    } cases[] = {{0xEA, "ABCD", "CU>EB/0 CU>EC/0 CU>ED/0 "},
                 {0xEC, "ABCD", "CU>EA/0 CU>EB/0 CU>ED/0 "},
                 {0xEA, "ABD", "CU>EB/0 CU>ED/0 "},
                 {0xEA, "A", ""},
                 {0xEB, "A", "CU>EA/0 "},
                 {0xE0, "AC", "CU>EA/0 CU>EC/0 "}};
    for (const auto& each : cases) {
        Plant plant(static_cast<uint8>(each.own), each.boxes);
        LogCapture log;
        plant.bus().sysMCUUnlock();
        plant.bus().sysMCUUnlock();
        EXPECT_EQ(asyncDests(plant.bus()), each.expected) << each.own << " " << each.boxes << ": queued once";
    }
}

}  // namespace
