// The bus thread from its construction to its end.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "support/Allocations.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace {

using bus::Bytes;
using support::LineCall;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

// ---------------------------------------------------------------------------------------------------------------
// Construction

TEST(BusThread, StartsWithDefinedValues) {
    Plant plant(0xEC);
    CABPMgr& bus = plant.bus();
    support::BusThread& in = plant.in();
    for (const upsBoxQueriesData_t& box : bus.upsBox) {
        EXPECT_FALSE(box.MCUcommStatus.active);
        EXPECT_FALSE(box.MCUcommStatus.isGood);
        EXPECT_EQ(box.MCUcommStatus.errorPck, 0);
        EXPECT_EQ(box.extendedBoardBox.inf.timestamp, 0);
        EXPECT_EQ(box.extendedBoardBox.idu, 0);
        EXPECT_EQ(box.pVN, nullptr);
        EXPECT_FALSE(box.remoteUpdaterequest);
    }
    EXPECT_FALSE(bus.EPOLatched);
    EXPECT_FALSE(bus.EPOReset);
    EXPECT_EQ(bus.thID, -1);
    EXPECT_EQ(bus.iteration, 0);
    const Bytes cn(reinterpret_cast<const uint8*>(&bus.CNData), reinterpret_cast<const uint8*>(&bus.CNData + 1));
    EXPECT_EQ(cn, Bytes(93, 0));
    EXPECT_EQ(in.forcedOnBypass, -1);
    EXPECT_EQ(in.guiForcedOnBypass, 0);
    EXPECT_EQ(in.sys, nullptr);
    EXPECT_FALSE(in.stopped);
    EXPECT_EQ(in.cntpckUnverified, 0);
    EXPECT_EQ(in.timeWasMaster, 0);
    EXPECT_FALSE(in.unknownDevPresent);
    EXPECT_EQ(in.dipSwBoxType, 0);
    EXPECT_EQ(in.userCABPAddr, 255);
    EXPECT_EQ(in.userBoxType, PowerBox);
    EXPECT_EQ(in.currPckStr, QString("currPck:"));
    EXPECT_EQ(in.lastErrStr, QString("LastErr:"));
    EXPECT_EQ(in.errorCntTimeCleread, 0);
    EXPECT_EQ(in.mutexForcedonBypass->getName(), QString("mutexForcedonBypass"));
    EXPECT_EQ(in.mutexState->getName(), QString("mutexState"));
    EXPECT_EQ(in.mutexCABPChannel->getName(), QString("mutexCABPChannel"));
    EXPECT_EQ(in.mutexCABPData->getName(), QString("mutexCABPData"));
}

TEST(BusThread, DatesItsConstructionByTheMonotonicClock) {
    VirtualClock::advance(1500000);
    Plant plant;
    EXPECT_EQ(plant.in().lastTime.tv_sec, VirtualClock::START_OF_MONOTONIC + 1);
    EXPECT_EQ(plant.in().lastTime.tv_nsec, 500000000);
    VirtualClock::advance(2000000);
    plant.bus().CABPStateMachineReset();
    EXPECT_EQ(plant.in().lastTime.tv_sec, VirtualClock::START_OF_MONOTONIC + 3);
}

TEST(BusThread, OpensItsPortAndClosesItAtTheEnd) {
    Plant plant;
    EXPECT_TRUE(plant.line().isOpen());
    EXPECT_NE(CABP_ch, 0xFF);
    LogCapture log;
    plant.stop();
    EXPECT_FALSE(plant.line().isOpen());
    EXPECT_TRUE(log.has("", "Chiude il canale di comunicazione"));
}

TEST(BusThread, FlushesThePortThatIsOpenAlready) {
    Plant plant;
    const std::size_t flushes = plant.line().flushes();
    plant.line().put({1, 2, 3});
    plant.bus().FlushRcvFifo();
    EXPECT_EQ(plant.line().calls(LineCall::Open), 1U);
    EXPECT_EQ(plant.line().flushes(), flushes + 1);
    EXPECT_EQ(plant.line().waiting(), 0U);
}

// ---------------------------------------------------------------------------------------------------------------
// run(), on the test's own thread

TEST(BusThread, RegistersThePlantThenTurnsItsMachineUntilItIsStopped) {
    Plant plant(0xEB, "AB");
    LogCapture log;
    plant.in().cntpckUnverified = 9;
    VirtualClock::after(100000000, [&] { plant.bus().Stop(); });
    plant.bus().run();
    EXPECT_EQ(plant.bus().thID, syscall(SYS_gettid));
    EXPECT_EQ(log.entries().front().message, "thID:" + std::to_string(syscall(SYS_gettid)));
    EXPECT_EQ(log.entries().front().function, "run");
    EXPECT_EQ(log.entries().front().level, "");
    EXPECT_EQ(plant.in().cntpckUnverified, 0);
    EXPECT_TRUE(plant.comm('A').active);
    // After the start 66 s, then for ever the same: no master is heard.
    EXPECT_EQ(log.occurrences("UPSBOX:0XEB attende per 66000 millisecondi  --- LastMaster:0xE0"), 2U);
    EXPECT_EQ(log.occurrences("TIMEOUT: QGen -> Mitt:0x00 Dest:0x00 MainCmd:0x00 SubCmd:0x00 Len:0"), 2U);
    EXPECT_FALSE(plant.in().stopped) << "it can be started again";
    EXPECT_GE(VirtualClock::now(), 132000000) << "a stop waits for the end of the pass";
    EXPECT_EQ(plant.in().state, Slave) << "silence promotes nobody";
}

TEST(BusThread, StoppedBeforeItsLoopRegistersAndLeaves) {
    Plant plant;
    LogCapture log;
    plant.bus().Stop();
    plant.bus().run();
    EXPECT_FALSE(plant.in().stopped);
    EXPECT_TRUE(plant.comm('D').active);
    EXPECT_EQ(plant.line().calls(LineCall::Write), 0U);
    EXPECT_EQ(plant.bus().iteration, 0);
}

TEST(BusThread, CanRunAgain) {
    Plant plant;
    LogCapture log;
    plant.bus().Stop();
    plant.bus().run();
    VirtualClock::after(1000000, [&] { plant.bus().Stop(); });
    plant.bus().run();
    EXPECT_TRUE(log.has("Err", "SharedMemory gia' inizializzata!!!"));
    EXPECT_GT(plant.line().calls(LineCall::Write), 0U);
}

TEST(BusThread, RealThreadReallyEnds) {
    Plant plant(0xEB);
    VirtualClock::setRealPause(50);
    LogCapture log;
    plant.threads().start();
    plant.bus().start(QThread::InheritPriority);
    plant.bus().Stop();
    EXPECT_TRUE(plant.bus().wait());
    EXPECT_NE(plant.bus().thID, -1);
    EXPECT_NE(plant.bus().thID, syscall(SYS_gettid));
}

// ---------------------------------------------------------------------------------------------------------------
// BREAKs

class BreakInTheLoop : public testing::TestWithParam<bool> {};

TEST_P(BreakInTheLoop, IsToldAndMakesTheMasterASlave) {
    Plant plant;
    LogCapture log;
    bool wasMaster = false;
    VirtualClock::after(5000000, [&] {
        wasMaster = plant.in().state == Master;
        if (GetParam()) {
            raise(SIGINT);
            raise(SIGINT);
        } else {
            plant.line().receiveBreak();
            plant.line().receiveBreak();
        }
    });
    VirtualClock::after(30000000, [&] { plant.bus().Stop(); });
    plant.bus().run();
    EXPECT_TRUE(wasMaster);
    EXPECT_EQ(log.occurrences("cntBreakDetect:"), 1U);
    EXPECT_TRUE(log.has("", "cntBreakDetect:2"));
    EXPECT_EQ(cntBreakDetect, 0);
    EXPECT_EQ(plant.in().state, Slave);
    EXPECT_TRUE(log.contains("UPSBOX:0XEA attende per 60000 millisecondi  --- LastMaster:0xE0"));
}

INSTANTIATE_TEST_SUITE_P(BySignalAndByTheDriversCounter, BreakInTheLoop, testing::Bool());

// A card that is alone never receives, so only the loop itself looks for BREAKs.
TEST(BusThread, BreakIsNoticedWhereNothingIsReceived) {
    Plant plant(0xEA, "A");
    const LogCapture log;
    VirtualClock::after(1000000, [&] { plant.line().receiveBreak(); });
    VirtualClock::after(3000000, [&] { plant.bus().Stop(); });
    plant.bus().run();
    EXPECT_TRUE(log.has("", "cntBreakDetect:1"));
    EXPECT_EQ(plant.in().state, Slave);
}

TEST(BusThread, BreakOfASlaveForgetsTheMasterOnly) {
    Plant plant(0xED);
    plant.registerAll();
    LogCapture log;
    LastMaster = 0xEB;
    VirtualClock::after(1000000, [] { raise(SIGINT); });
    VirtualClock::after(2000000, [&] { plant.line().feed(bus::frame(0x41, 0x42, "XX")); });
    VirtualClock::after(3000000, [&] { plant.bus().Stop(); });
    plant.bus().run();
    EXPECT_TRUE(log.has("", "cntBreakDetect:1"));
    EXPECT_EQ(LastMaster, 0xE0);
    EXPECT_EQ(plant.in().state, Slave);
    EXPECT_TRUE(plant.in().channelIsFree()) << "it never was master";
}

// ---------------------------------------------------------------------------------------------------------------
// The end

TEST(BusThread, LeavingTheLoopFreesTheChannelOfADemotedSlave) {
    Plant plant;
    const LogCapture log;
    plant.bus().setState(Slave);
    pckStruct query = bus::query(0xFF, "CU");
    uint8 data[1];
    int status = -7;
    CABPMgr::singleQCMgr* const sQC = plant.bus().InsertSingleQC(query, 0, data, &status);
    EXPECT_FALSE(plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC));
    plant.bus().Stop();
    plant.bus().run();
    while (!plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC)) {
    }
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(plant.in().channelHeldByRole);
    EXPECT_TRUE(plant.in().channelIsFree());
}

TEST(BusThread, DestroyedAsADemotedSlaveLeavesNoHeldLock) {
    Plant plant;
    plant.bus().setState(Slave);
    ASSERT_FALSE(plant.in().channelIsFree());
    LogCapture log;
    plant.stop();
    EXPECT_FALSE(log.contains("destroying locked mutex"));
}

// ---------------------------------------------------------------------------------------------------------------
// The machine

TEST(BusThread, StateThatThereIsNotIsToldAndPaced) {
    Plant plant;
    LogCapture log;
    VirtualClock::clearWaits();
    plant.in().state = static_cast<CABP_status_e>(2);
    plant.bus().StateMachine();
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_TRUE(log.has("Err", "Stato non contemplato!!"));
    EXPECT_EQ(log.entries()[0].function, "StateMachine");
    ASSERT_EQ(VirtualClock::waits().size(), 1U);
    EXPECT_EQ(VirtualClock::waits()[0].us, 2000000);
}

TEST(BusThread, MachineTurnsTheRoleThatIsHeld) {
    Plant plant;
    plant.registerAll();
    const LogCapture log;
    plant.bus().StateMachine();
    EXPECT_EQ(plant.line().writes().at(0), bus::frame(0xEA, 0xEA, "BN")) << "the master asks";
    plant.bus().setState(Slave);
    plant.line().clearSent();
    plant.bus().StateMachine();
    EXPECT_TRUE(log.contains("TIMEOUT: QGen")) << "the slave listens";
    EXPECT_TRUE(plant.line().sent().empty());
}

TEST(BusThread, SlaveWithoutAPortTurnsOnceASecond) {
    Plant::Options options;
    options.own = 0xEB;
    options.hasPort = false;
    Plant plant(options);
    LogCapture log;
    VirtualClock::after(20000000, [&] { plant.bus().Stop(); });
    plant.bus().run();
    EXPECT_GE(log.occurrences("TIMEOUT: QGen"), 10U);
    EXPECT_LE(log.occurrences("TIMEOUT: QGen"), 21U);
}

TEST(BusThread, MasterWithoutAPortIsPaced) {
    Plant::Options options;
    options.hasPort = false;
    Plant plant(options);
    LogCapture log;
    VirtualClock::after(20000000, [&] { plant.bus().Stop(); });
    plant.bus().run();
    EXPECT_LE(log.occurrences("FALLITO Comando"), 81U);
    EXPECT_EQ(plant.in().state, Master);
}

TEST(BusThread, RunsWithoutATreeAndWithoutAnOwnCabinet) {
    for (const int own : {0xE0, 0xEA, 0xEB}) {
        Plant::Options options;
        options.own = static_cast<uint8>(own);
        options.hasTree = false;
        Plant plant(options);
        const LogCapture log;
        VirtualClock::after(1000000, [&] { plant.line().feed(bus::frame(0xEC, 0xFF, "BS", Bytes(268))); });
        VirtualClock::after(200000000, [&] { plant.bus().Stop(); });
        plant.bus().run();
        EXPECT_FALSE(plant.in().stopped);
    }
}

}  // namespace
