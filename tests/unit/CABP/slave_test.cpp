// A pass of the slave: where each frame goes, what silence does, and what is overheard. The answers and the aggregation
// are replaced by notes in a journal.
#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace {

using bus::Bytes;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

using Journal = std::vector<std::string>;
Journal journal;
std::function<void()> inAggregation;

void note(const char* step, const pckStruct& q) {
    journal.push_back(QString::asprintf("%s %c%c %02X>%02X (%u)", step, q.MainCmd, q.SubCmd, q.Src, q.Dest, q.ParamLen)
                          .toStdString());
}

}  // namespace

extern "C" {

void __wrap__ZN7CABPMgr12ReplyToQueryER9pckStruct(CABPMgr* /*bus*/, pckStruct& query) {
    note("ReplyToQuery", query);
}

void __wrap__ZN7CABPMgr13ManageCommandER9pckStruct(CABPMgr* /*bus*/, pckStruct& query) {
    note("ManageCommand", query);
}

void __wrap__ZN7CABPMgr12AggregateBoxEv(CABPMgr* bus) {
    journal.push_back("AggregateBox");
    const support::BusThread in(*bus);
    EXPECT_TRUE(in.mutexCABPData->tryLock()) << "it takes the lock itself";
    in.mutexCABPData->unlock();
    if (inAggregation) {
        inAggregation();
    }
}

}  // extern "C"

namespace {

class SlavePass : public testing::Test {
  protected:
    explicit SlavePass(const std::string& boxes = "ABC") : plant(0xEB, boxes) {
        plant.registerAll();
        journal.clear();
        inAggregation = nullptr;
    }
    Journal hear(const Bytes& frame) {
        journal.clear();
        LastMaster = 0xEA;  // or the length of the wait is told
        plant.line().feed(frame, 1000);
        plant.bus().SlaveAction();
        EXPECT_EQ(plant.line().waiting() + plant.line().onTheWay(), 0U);
        return journal;
    }
    Plant plant;
    LogCapture log;
};

// ---------------------------------------------------------------------------------------------------------------
// Where a frame goes

constexpr uint8 OWN = 0xEB;
const uint8 SOURCES[] = {0x00, 0x0A, 0x0D, 0x41, 0xDF, 0xE0, 0xE9, 0xEA,
                         0xEB, 0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xFE, 0xFF};
const uint8 TARGETS[] = {0x00, 0x0A, 0xE0, 0xEA, 0xEB, 0xEC, 0xFE, 0xFF};
const char* const COMMANDS[] = {"SC", "CU", "CN", "CH", "CX", "SX", "BS", "BN", "BE", "QT", "UC", "GI", "ZZ"};

// Told row by row in words: which of the ways the frame takes.
const char* wayOf(uint8 src, uint8 dest, const std::string& cmd) {
    if (src == 0xFF || src == OWN) {
        return "refused";
    }
    const bool ofGroup = src >= 0xE0 && src <= 0xEF;
    const bool command = cmd == "SC" || cmd == "CU" || cmd == "CN" || cmd == "CH";
    if (ofGroup && command && (dest == OWN || dest == 0xFF)) {
        return "ManageCommand";
    }
    if (ofGroup && dest == OWN) {
        return "ReplyToQuery";
    }
    return dest == 0xFF ? "overheard" : "dropped";
}

TEST_F(SlavePass, EachFrameTakesItsWay) {
    std::size_t seen = 0;
    for (const uint8 src : SOURCES) {
        for (const uint8 dest : TARGETS) {
            for (const char* const cmd : COMMANDS) {
                SCOPED_TRACE(QString::asprintf("%02X>%02X %s", src, dest, cmd).toStdString());
                const std::string way = wayOf(src, dest, cmd);
                log.clear();
                plant.in().unknownDevPresent = false;
                const Journal steps = hear(bus::frame(src, dest, cmd, {9, 9, 9}));
                const std::string told = log.messages();
                if (way == "ManageCommand" || way == "ReplyToQuery") {
                    EXPECT_EQ(
                        steps,
                        Journal{QString::asprintf("%s %s %02X>%02X (3)", way.c_str(), cmd, src, dest).toStdString()});
                    EXPECT_EQ(told, "");
                } else if (way == "overheard") {
                    EXPECT_EQ(steps, Journal{"AggregateBox"});
                    EXPECT_EQ(plant.in().unknownDevPresent, src != 0xEA && src != 0xEC);
                } else if (way == "refused") {
                    EXPECT_EQ(steps, Journal{});
                    EXPECT_EQ(told, QString::asprintf("NON E' AMMESSO 0x%02X COME MITTENTE!\n", src).toStdString());
                    EXPECT_EQ(log.errors(), 1U);
                } else {
                    EXPECT_EQ(steps, Journal{});
                    EXPECT_EQ(told, "") << "dropped without a line";
                }
                ++seen;
            }
        }
    }
    EXPECT_EQ(seen, sizeof(SOURCES) * sizeof(TARGETS) * 13);
    EXPECT_TRUE(plant.line().sent().empty());
}

TEST_F(SlavePass, CommandTakesItsParametersAlong) {
    EXPECT_EQ(hear(bus::frame(0xEA, 0xFF, "CN", Bytes(93))), Journal{"ManageCommand CN EA>FF (93)"});
    EXPECT_EQ(hear(bus::frame(0xEA, 0xEB, "QT", Bytes(1014))), Journal{"ReplyToQuery QT EA>EB (1014)"});
}

TEST_F(SlavePass, LastMasterFollowsTheGroupWhateverTheFrame) {
    hear(bus::frame(0xEC, 0xEA, "BS"));
    EXPECT_EQ(LastMaster, 0xEC);
    hear(bus::frame(0x0A, 0xFF, "GI"));
    EXPECT_EQ(LastMaster, 0xEA) << "as before";
}

// ---------------------------------------------------------------------------------------------------------------
// Nothing heard

TEST_F(SlavePass, SilenceLosesTheFirstCabinetAndNothingElse) {
    cabSubSystem_t& subSystem = plant.root().desc.sys.subSystem;
    std::memset(static_cast<void*>(&subSystem), 0xFF, sizeof(subSystem));
    cabSubSystem_t expected = subSystem;
    setElemAlarm(expected.UPSBox[0], commLostAlarm);
    LastMaster = 0xEA;
    const std::int64_t begun = VirtualClock::now();
    plant.bus().SlaveAction();
    EXPECT_GE(VirtualClock::now() - begun, 30000000);
    EXPECT_LT(VirtualClock::now() - begun, 30100000);
    EXPECT_EQ(std::memcmp(&subSystem, &expected, sizeof(expected)), 0);
    EXPECT_EQ(elemAlarm(subSystem.UPSBox[0]), 0);
    EXPECT_EQ(reinterpret_cast<const uint8&>(subSystem.UPSBox[0]) & 0xF8, 0xF8) << "the upper bits stay";
    EXPECT_EQ(log.messages(),
              "Errore ricezione: manca il carattere di inizio pacchetto!\n"
              "TIMEOUT: QGen -> Mitt:0x00 Dest:0x00 MainCmd:0x00 SubCmd:0x00 Len:0\n");
    EXPECT_EQ(log.entries().back().level, "War");
    EXPECT_EQ(log.entries().back().function, "SlaveAction");
    EXPECT_EQ(journal, Journal{}) << "no aggregation";
    EXPECT_EQ(plant.in().state, Slave);
}

TEST_F(SlavePass, SilenceWithoutATreeIsSurvived) {
    plant.in().sys = nullptr;
    plant.bus().SlaveAction();
    EXPECT_TRUE(log.contains("TIMEOUT: QGen"));
}

TEST_F(SlavePass, BytesOfAFrameThatFailedItsCheckAreTold) {
    Bytes frame = bus::frame(0xEA, 0xFF, "BS", bus::filler(300));
    frame[100] ^= 0x40;
    LastMaster = 0xEA;
    plant.line().feed(frame, 1000);
    plant.bus().SlaveAction();
    EXPECT_TRUE(log.has("War", "TIMEOUT: QGen -> Mitt:0xEA Dest:0xFF MainCmd:0x42 SubCmd:0x53 Len:300"));
    EXPECT_EQ(journal, Journal{});
}

TEST_F(SlavePass, BreakEndsThePassAsSilenceDoes) {
    setElemAlarm(plant.root().desc.sys.subSystem.UPSBox[0], noneAlarm);
    VirtualClock::after(500000, [&] { plant.line().receiveBreak(); });
    plant.line().feed({0x55}, 600000);
    plant.bus().SlaveAction();
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_TRUE(log.contains("TIMEOUT: QGen"));
    EXPECT_EQ(elemAlarm(plant.root().desc.sys.subSystem.UPSBox[0]), commLostAlarm);
}

TEST_F(SlavePass, TheLossIsWrittenUnderTheLockOfTheData) {
    LastMaster = 0xEA;
    plant.bus().lockCABPData();
    bool free = false;
    std::thread pass([&] { plant.bus().SlaveAction(); });
    for (int i = 0; i < 1000 && !log.contains("manca il carattere"); ++i) {
        poll(nullptr, 0, 2);  // real ms
    }
    poll(nullptr, 0, 20);  // real ms
    free = log.contains("TIMEOUT: QGen");
    plant.bus().unlockCABPData();
    pass.join();
    EXPECT_FALSE(free);
    EXPECT_TRUE(log.contains("TIMEOUT: QGen"));
}

// ---------------------------------------------------------------------------------------------------------------
// Overhearing

TEST_F(SlavePass, OverheardReplyIsStoredAndThenAggregated) {
    Bytes data(20);
    data[4] = 0x39;
    data[5] = 0x30;
    inAggregation = [this] { EXPECT_EQ(plant.box('C').nominal.VA, 12345U); };
    EXPECT_EQ(hear(bus::frame(0xEC, 0xFF, "BN", data)), Journal{"AggregateBox"});
    EXPECT_EQ(plant.box('C').nominal.VA, 12345U);
    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(plant.in().unknownDevPresent);
}

TEST_F(SlavePass, OverheardStateIsDatedByThisCard) {
    hear(bus::frame(0xEC, 0xFF, "BS", Bytes(268, 0x11)));
    EXPECT_EQ(plant.box('C').desc.upsBox.timestamp, NOW());
    EXPECT_EQ(plant.box('C').desc.upsBox.Ups.timestamp, NOW());
    EXPECT_EQ(plant.box('C').desc.upsBox.Batteries.timestamp, 0x11111111) << "the sender's";
}

TEST_F(SlavePass, BoardThatIsNotRegisteredIsToldAndRememberedButNotStored) {
    Bytes before(reinterpret_cast<const uint8*>(&plant.root()),
                 reinterpret_cast<const uint8*>(&plant.root()) + plant.shm().only().size);
    EXPECT_EQ(hear(bus::frame(0xED, 0xFF, "BN", Bytes(20, 7))), Journal{"AggregateBox"});
    EXPECT_EQ(log.messages(), "Ricevo dati da 0xED, scheda CABP non registrata su questa MCU!\n");
    EXPECT_EQ(log.warnings(), 1U);
    EXPECT_EQ(log.entries()[0].function, "SniffReply");
    EXPECT_TRUE(plant.in().unknownDevPresent);
    const Bytes after(reinterpret_cast<const uint8*>(&plant.root()),
                      reinterpret_cast<const uint8*>(&plant.root()) + plant.shm().only().size);
    EXPECT_EQ(after, before);
    hear(bus::frame(0xEC, 0xFF, "BN", Bytes(20, 7)));
    EXPECT_TRUE(plant.in().unknownDevPresent) << "latched";
}

TEST_F(SlavePass, SenderThatIsNoCabinetIsUnknown) {
    hear(bus::frame(0x0B, 0xFF, "GI", Bytes(64, 'x')));
    EXPECT_EQ(log.messages(), "Ricevo dati da 0x0B, scheda CABP non registrata su questa MCU!\n");
    EXPECT_EQ(plant.data('B').extendedBoardBox.inf.timestamp, 0);
    log.clear();
    hear(bus::frame(0xEF, 0xFF, "BN", Bytes(20)));
    EXPECT_EQ(log.messages(),
              "Addr 0xEF non valido!\nRicevo dati da 0xEF, scheda CABP non registrata su questa MCU!\n");
}

TEST_F(SlavePass, OverheardReplyHealsTheErrorsOfTheOwnQueries) {
    for (const char letter : {'A', 'B', 'C'}) {
        plant.comm(letter).errorPck = 5;
        plant.comm(letter).isGood = false;
    }
    hear(bus::frame(0xEC, 0xFF, "BN", Bytes(20)));
    // Two queries of the cabinet begin with 'B', but the score falls once in 30 s.
    EXPECT_EQ(plant.comm('C').errorPck, 4);
    EXPECT_TRUE(plant.comm('C').isGood);
    EXPECT_EQ(plant.comm('C').lastPckGood, NOW());
    EXPECT_EQ(plant.comm('A').errorPck, 5);
    EXPECT_FALSE(plant.comm('A').isGood);

    hear(bus::frame(0xEC, 0xFF, "BS", Bytes(268)));
    EXPECT_EQ(plant.comm('C').errorPck, 4);
    VirtualClock::advance(31000000);
    hear(bus::frame(0xEC, 0xFF, "BS", Bytes(268)));
    EXPECT_EQ(plant.comm('C').errorPck, 3);
}

TEST_F(SlavePass, OnlyAMatchingMainCmdHeals) {
    plant.comm('C').errorPck = 5;
    plant.comm('C').isGood = false;
    hear(bus::frame(0xEC, 0xFF, "QT", Bytes(20)));
    EXPECT_EQ(plant.comm('C').errorPck, 5);
    EXPECT_FALSE(plant.comm('C').isGood);
}

TEST_F(SlavePass, CabinetWithoutErrorsIsLeftAlone) {
    plant.comm('C').errorPck = 0;
    plant.comm('C').isGood = false;
    plant.comm('C').lastPckGood = 0;
    hear(bus::frame(0xEC, 0xFF, "BN", Bytes(20)));
    EXPECT_FALSE(plant.comm('C').isGood);
    EXPECT_EQ(plant.comm('C').lastPckGood, 0);
}

TEST_F(SlavePass, QueryToAllNodesInTheFixedQueueHasNothingToHeal) {
    plant.bus().RegisterElem(bus::query(0xFF, "BN"));
    plant.comm('C').errorPck = 5;
    hear(bus::frame(0xEC, 0xFF, "BN", Bytes(20)));
    EXPECT_EQ(plant.comm('C').errorPck, 4);
}

TEST_F(SlavePass, ErrorsAreHealedUnderTheLockOfTheData) {
    plant.comm('C').errorPck = 5;
    Bytes frame = bus::frame(0xEC, 0xFF, "BN", Bytes(20));
    plant.bus().lockCABPData();
    std::thread sniffer([&] { plant.bus().SniffReply(frame.data()); });
    poll(nullptr, 0, 30);  // real ms
    EXPECT_EQ(plant.comm('C').errorPck, 5);
    plant.bus().unlockCABPData();
    sniffer.join();
    EXPECT_EQ(plant.comm('C').errorPck, 4);
}

// ---------------------------------------------------------------------------------------------------------------

TEST(SlaveOutsideThePlant, TakesWhatItOverhears) {
    Plant plant(0xE0, "AB");
    plant.registerAll();
    LogCapture log;
    journal.clear();
    Bytes data(20);
    data[4] = 77;
    plant.line().feed(bus::frame(0xEB, 0xFF, "BN", data), 1000);
    plant.bus().SlaveAction();
    EXPECT_EQ(plant.box('B').nominal.VA, 77U);
    plant.line().feed(bus::frame(0xEB, 0xE0, "BN"), 1000);
    plant.bus().SlaveAction();
    EXPECT_EQ(journal, (Journal{"AggregateBox", "ReplyToQuery BN EB>E0 (0)"}));
}

}  // namespace
