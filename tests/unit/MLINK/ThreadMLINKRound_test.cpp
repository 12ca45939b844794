// The module thread: the round of the fixed queries, and the consequences of an exchange.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "support/Allocations.h"
#include "unit/MLINK/ModuleLine.h"

namespace {

using namespace modline;
using Names = std::vector<std::string>;

const Names ROUND = {"DE", "DS", "GI", "GN", "RC", "RE", "RK", "RS"};

class Round : public OnTheLine {};

TEST_F(Round, AsksInTheOrderOfTheKeysWithoutAPause) {
    pass(8);
    EXPECT_EQ(module.asked, ROUND);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
    EXPECT_EQ(link().getIteration(), -1);
    for (const Bytes& f : module.frames) {
        EXPECT_EQ(f, frame(0x20, '1', std::string(f.begin() + 3, f.begin() + 5)));
    }
    pass();
    EXPECT_EQ(link().getIteration(), 0) << "the first round";
    EXPECT_EQ(module.asked.back(), "DE");
    pass(8);
    EXPECT_EQ(link().getIteration(), 1);
    EXPECT_TRUE(comm().isGood);
}

TEST_F(Round, FailedPollCostsAPauseAndIsPassedOver) {
    comm().isGood = true;
    module.silent.insert("DS");
    module.refuses["GI"] = '5';
    pass(4);
    EXPECT_EQ(module.asked, (Names{"DE", "DS", "GI", "GN"}));
    EXPECT_EQ(pauses(250), 2U);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 2U);
    EXPECT_EQ(comm().errorPck, 3 - 1) << "the silence alone counts, and the answer behind it heals";
    EXPECT_EQ(comm().errorCnt, 0);
}

TEST_F(Round, QueryThatHasNoFrameIsPassedOver) {
    support::failAllocation(1);
    link().RegisterElem(query("DS"));
    support::failAllocation(0);
    pass(3);
    EXPECT_EQ(module.asked, (Names{"DE", "GI"}));
    EXPECT_EQ(pauses(250), 1U);
}

TEST_F(Round, DeadModuleIsPolledAtTheSamePace) {
    comm().isGood = true;
    module.dead = true;
    pass(4);
    EXPECT_EQ(pauses(250), 4U);
    EXPECT_EQ(module.asked, (Names{"DE", "DS", "GI", "GN"}));
    EXPECT_FALSE(comm().isGood);
    EXPECT_EQ(comm().errorCnt, 3);
    module.dead = false;
    pass();
    EXPECT_TRUE(comm().isGood);
}

TEST_F(Round, ItsIterationsStopAtAThousand) {
    in().FixQuery.clear();
    in().CurrFixQC = in().FixQuery.end();
    in().iteration = 995;
    VirtualClock::clearWaits();
    pass(4);
    EXPECT_EQ(link().getIteration(), 999);
    pass(4);
    EXPECT_EQ(link().getIteration(), 1000);
    EXPECT_EQ(pauses(200), 8U) << "nothing to poll";
    EXPECT_TRUE(module.asked.empty());
    EXPECT_TRUE(plant.box('A').desc.upsBox.timestamp == 0) << "such a pass ends there";
}

TEST_F(Round, CommandsAreServedWithNothingToPoll) {
    in().FixQuery.clear();
    in().CurrFixQC = in().FixQuery.end();
    queue("CP");
    pass();
    EXPECT_EQ(module.asked, Names{"CP"});
}

// Rounds of 200 ms, since nothing is polled.
class DelayedQueries : public Round {
  protected:
    DelayedQueries() {
        in().FixQuery.clear();
        in().CurrFixQC = in().FixQuery.end();
        pass();  // the first round seems to have taken for ever
        for (const char* cmd : {"CP", "CD", "TC"}) {
            queue(cmd);
            in().DelayedQC.enqueue(QCDelayed_t{in().AsyncQC.takeLast(), AsyncQueue, 0});
        }
    }
};

TEST_F(DelayedQueries, OneIsRestoredPerQuickRound) {
    pass();
    EXPECT_EQ(in().DelayedQC.size(), 2);
    EXPECT_EQ(in().async(), Names{"CP"});
    pass();
    EXPECT_EQ(in().DelayedQC.size(), 1);
    EXPECT_EQ(module.asked, Names{"CP"});
}

TEST_F(DelayedQueries, NoneAfterASlowRound) {
    VirtualClock::advance(800 * MS);
    pass();
    EXPECT_EQ(in().DelayedQC.size(), 3) << "exactly a second";
    VirtualClock::advance(799 * MS);
    pass();
    EXPECT_EQ(in().DelayedQC.size(), 2);
}

TEST_F(DelayedQueries, AllAtOnceOnRequest) {
    in().requestHALT = true;
    pass();
    EXPECT_TRUE(in().DelayedQC.isEmpty());
    EXPECT_EQ(in().async(), (Names{"CP", "CD", "TC"}));
}

TEST_F(Round, AggregatesOnlyForACabinetOfThePlant) {
    VirtualClock::advance(2 * SECOND);
    plant.cfg().Ups[0].present = false;
    pass();
    EXPECT_EQ(plant.box('A').desc.upsBox.timestamp, 0);
    plant.cfg().Ups[0].present = true;
    pass();
    EXPECT_NE(plant.box('A').desc.upsBox.timestamp, 0);
}

TEST(RoundOutsideThePlant, PassesAreSurvived) {
    Plant plant(withModule(0xE0));
    Module module(plant.moduleLine());
    plant.registerAll();
    plant.inLink().state = MasterMLink;
    const LogCapture quiet;
    EXPECT_TRUE(plant.inLink().FixQuery.empty()) << "no module is its own";
    plant.link().AddAsyncQC(query("CP"), false);
    module.onQuery = [&](const std::string&) { plant.link().Stop(); };
    VirtualClock::advance(2 * SECOND);
    plant.link().StateMachine();
    EXPECT_EQ(module.asked, Names{"CP"});
}

TEST(RoundWithoutATree, PassesAreSurvived) {
    Plant::Options options = withModule();
    options.hasTree = false;
    Plant plant(options);
    Module module(plant.moduleLine());
    plant.registerAll();
    plant.inLink().state = MasterMLink;
    const LogCapture quiet;
    for (int i = 0; i < 16; ++i) {
        plant.link().StateMachine();
    }
    EXPECT_EQ(module.asked.size(), 16U);
    EXPECT_TRUE(plant.slot('A').commStatus.isGood);
}

// ---------------------------------------------------------------------------------------------------------------

class OneCommand : public OnTheLine {
  protected:
    int manage(const char* cmd, bool hasStatus = true, uint8 dest = '1') {
        QCMgr element(query(cmd, nullptr, dest), MLINK_BuildQuery, MLINK_GetReplyDataLen(query(cmd, nullptr, dest)));
        element.pCommStatus = hasStatus ? &comm() : nullptr;
        const int ret = link().ManageCmd(&element);
        EXPECT_TRUE(in().channelIsFree());
        EXPECT_TRUE(in().dataAreFree());
        return ret;
    }
};

TEST_F(OneCommand, GoodReplyIsStoredAndHeals) {
    comm().errorPck = 4;
    module.answers["GN"] = text("0000100002003004005006");
    EXPECT_EQ(manage("GN"), 0);
    EXPECT_TRUE(comm().isGood);
    EXPECT_EQ(comm().errorPck, 3);
    EXPECT_EQ(plant.module('A').nominal.VA, 1U);
    EXPECT_EQ(plant.module('A').nominal.timestamp, VirtualClock::START_OF_WALL);
    EXPECT_EQ(errnoMLink, 0);
}

TEST_F(OneCommand, WithoutAStateIsReportedAndItsReplyLost) {
    module.answers["GN"] = text("0000100002003004005006");
    EXPECT_EQ(manage("GN", false), -1);
    EXPECT_EQ(module.asked, Names{"GN"}) << "it reached the line";
    EXPECT_TRUE(log.has("Err", "Verificare query!!!"));
    EXPECT_EQ(plant.module('A').nominal.VA, 0U);
}

TEST_F(OneCommand, SlotThatTakesNoPartDropsTheReply) {
    comm().active = false;
    module.answers["GN"] = text("0000100002003004005006");
    EXPECT_EQ(manage("GN"), 0);
    EXPECT_EQ(plant.module('A').nominal.VA, 0U);
    EXPECT_FALSE(comm().isGood);
    module.dead = true;
    EXPECT_EQ(manage("GN"), 0) << "a failure is none of its either";
    EXPECT_EQ(comm().errorPck, 0);
}

TEST_F(OneCommand, FailuresCountUntilTheModuleIsLost) {
    comm().isGood = true;
    module.dead = true;
    EXPECT_EQ(manage("RS"), -3);
    EXPECT_EQ(comm().errorPck, 3);
    EXPECT_EQ(comm().errorCnt, 0);
    EXPECT_TRUE(comm().isGood);
    EXPECT_EQ(errnoMLink, 255);
    EXPECT_EQ(manage("RS"), -1) << "the second in a row";
    EXPECT_EQ(comm().errorPck, 6);
    EXPECT_EQ(comm().errorCnt, 1);
    EXPECT_FALSE(comm().isGood);
    EXPECT_EQ(manage("RS"), -1);
    EXPECT_EQ(comm().errorCnt, 2) << "one each from here on";
    EXPECT_EQ(manage("RS"), -1);
    EXPECT_EQ(comm().errorCnt, 3);
    module.dead = false;
    EXPECT_EQ(manage("RS"), 0);
    EXPECT_TRUE(comm().isGood);
    EXPECT_EQ(comm().errorCnt, 3);
}

TEST_F(OneCommand, FreshModuleIsNotGoodAtItsFirstFailure) {
    module.dead = true;
    EXPECT_EQ(manage("RS"), -1);
    EXPECT_EQ(comm().errorPck, 3);
    EXPECT_EQ(comm().errorCnt, 0);
}

TEST_F(OneCommand, BusyModuleCountsNoError) {
    comm().isGood = true;
    module.refuses["RS"] = '5';
    EXPECT_EQ(manage("RS"), -2);
    EXPECT_EQ(comm().errorPck, 0);
    EXPECT_EQ(link().getLastErr(), QString("LastErr:"));
    EXPECT_EQ(link().getCurrPck(), QString("currPck:\\02 1RS..."));
}

TEST_F(OneCommand, FailureIsTold) {
    module.refuses["RS"] = '3';
    VirtualClock::setWall(VirtualClock::START_OF_WALL + 3 * 3600 + 4 * 60 + 5);
    manage("RS");
    EXPECT_EQ(link().getLastErr(), QString("LastErr:\\02 1RS... @15:04:05"));
    link().clearLastErr();
    EXPECT_EQ(link().getLastErr(), QString("LastErr:"));
}

// Commands come from wires too.
TEST_F(OneCommand, OddCharactersAreToldAsTheyAre) {
    pckStruct odd = query("%1");
    odd.Src = '%';
    odd.Dest = '2';
    QCMgr element(odd, MLINK_BuildQuery, 0);
    link().saveCurrPck(&element);
    EXPECT_EQ(link().getCurrPck(), QString("currPck:\\02%2%1..."));
    link().saveLastErr(&element);
    EXPECT_EQ(link().getLastErr(), QString("LastErr:\\02%2%1... @12:00:00"));
}

// Another thread's exchange can follow before the consequences of this one are drawn.
TEST_F(OneCommand, ResultIsThatOfItsOwnExchange) {
    comm().isGood = true;
    module.refuses["RS"] = '5';
    std::atomic<bool> asked{false};
    module.onQuery = [&](const std::string&) { asked = true; };
    QCMgr element(query("RS"), MLINK_BuildQuery, 58);
    element.pCommStatus = &comm();
    std::atomic<int> ret{99};
    link().lockMLinkData();
    std::thread other([&] { ret = link().ManageCmd(&element); });
    while (!asked || !in().channelIsFree()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    errnoMLink = 255;
    link().unlockMLinkData();
    other.join();
    EXPECT_EQ(ret, -2);
    EXPECT_EQ(comm().errorPck, 0);
}

TEST_F(OneCommand, LocksForDataArePublic) {
    link().lockMLinkData();
    EXPECT_FALSE(in().dataAreFree());
    link().unlockMLinkData();
    EXPECT_TRUE(in().dataAreFree());
}

TEST_F(OneCommand, QueuesCanBeWiped) {
    queue("CP");
    link().wipeQueues();
    EXPECT_TRUE(in().FixQuery.empty());
    EXPECT_TRUE(in().AsyncQC.isEmpty());
}

}  // namespace
