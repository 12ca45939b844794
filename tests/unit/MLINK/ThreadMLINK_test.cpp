// The module thread: idle state, commands before polling, the round, and the consequences of an exchange.
#include "MLINK/ThreadMLINK.h"

#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "unit/MLINK/ModuleLine.h"

namespace {

using namespace modline;
using support::LineCall;
using Names = std::vector<std::string>;

const Names ROUND = {"DE", "DS", "GI", "GN", "RC", "RE", "RK", "RS"};

class ModuleThreadTest : public OnTheLine {
  protected:
    using OnTheLine::OnTheLine;
    void stopAfter(std::size_t queries) {
        module.onQuery = [this, queries](const std::string&) {
            if (module.asked.size() >= queries) {
                link().Stop();
            }
        };
    }
};

// ---------------------------------------------------------------------------------------------------------------

TEST(ModuleThreadObject, StartsIdleAndEmpty) {
    Plant plant(withModule());
    support::ModuleThread& in = plant.inLink();
    EXPECT_EQ(in.state, IdleMLink);
    EXPECT_EQ(in.iteration, -1);
    EXPECT_EQ(plant.link().getIteration(), -1);
    EXPECT_EQ(in.thID, -1);
    EXPECT_FALSE(in.stopped);
    EXPECT_FALSE(in.requestHALT);
    EXPECT_FALSE(in.requestUnlockIdlePending);
    EXPECT_EQ(in.lastidu, 255);
    EXPECT_EQ(in.mutexState->getName(), QString("mutexState"));
    EXPECT_EQ(in.mutexMLinkChannel->getName(), QString("mutexMLinkChannel"));
    EXPECT_EQ(in.mutexMLinkData->getName(), QString("mutexMLinkData"));
    EXPECT_EQ(plant.link().getCurrPck(), QString("currPck:"));
    EXPECT_EQ(plant.link().getLastErr(), QString("LastErr:"));
    EXPECT_TRUE(plant.moduleLine().isOpen()) << "before the thread runs";
    const ModuleQueriesData_t zero[MAXUPSBOX][MAXUPSxUPSBOX] = {};
    EXPECT_EQ(std::memcmp(plant.link().ModulesData, zero, sizeof(zero)), 0);
}

TEST(ModuleThreadObject, ClosesItsPort) {
    Plant plant(withModule());
    support::FakeLine& line = plant.moduleLine();
    plant.stop();
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(MLINK_ch, 255);
}

TEST(ModuleThreadObject, RunsUntilStopped) {
    Plant plant(withModule());
    LogCapture log;
    plant.threads().start();
    plant.link().start(QThread::InheritPriority);
    for (int i = 0; i < 5000 && plant.inLink().thID == -1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const int id = plant.inLink().thID;
    EXPECT_NE(id, -1);
    EXPECT_NE(id, static_cast<int>(getpid()));
    plant.link().Stop();
    EXPECT_TRUE(plant.link().wait());
    EXPECT_FALSE(plant.inLink().stopped) << "cleared, so that it can be started again";
    const auto entries = log.entries();
    ASSERT_GE(entries.size(), 2U);
    EXPECT_EQ(entries.front().message, "thID:" + std::to_string(id));
    EXPECT_EQ(entries.front().level, "");
    EXPECT_EQ(entries.back().message, "EXIT ThMLINK thID:" + std::to_string(id));
    EXPECT_EQ(entries.back().level, "");
}

// ---------------------------------------------------------------------------------------------------------------

class Idle : public ModuleThreadTest {
  protected:
    Idle() { in().state = IdleMLink; }
};

TEST_F(Idle, ServesNothing) {
    queue("CP");
    in().iteration = 7;
    in().lastidu = 1;
    VirtualClock::advance(5 * SECOND);
    VirtualClock::clearWaits();
    pass(3);
    EXPECT_TRUE(module.asked.empty());
    EXPECT_EQ(said(), " StateMachine: MLinkIdle\n StateMachine: MLinkIdle\n StateMachine: MLinkIdle\n");
    EXPECT_EQ(link().getIteration(), -1);
    EXPECT_EQ(in().lastidu, 255);
    EXPECT_EQ(in().lastTime.tv_sec, VirtualClock::START_OF_MONOTONIC + 5);
    EXPECT_TRUE(VirtualClock::waits().empty()) << "it doesn't wait";
    EXPECT_EQ(in().state, IdleMLink);
}

TEST_F(Idle, IsLeftWhenRegistrationIsOver) {
    queue("CP");
    link().unlockIdle();
    EXPECT_EQ(in().state, IdleMLink);
    pass();
    EXPECT_EQ(in().state, MasterMLink);
    EXPECT_FALSE(in().requestUnlockIdlePending);
    EXPECT_TRUE(module.asked.empty());
    pass();
    EXPECT_EQ(module.asked, (Names{"CP", "DE"}));
}

TEST_F(Idle, CanBeForcedAgain) {
    link().setState(MasterMLink);
    link().forceIdle();
    pass();
    EXPECT_EQ(said(), " StateMachine: MLinkIdle\n");
    EXPECT_TRUE(in().mutexState->tryLock());
    in().mutexState->unlock();
}

TEST_F(Idle, StateThatIsNoneIsTold) {
    in().state = static_cast<MLink_status_e>(7);
    pass(2);
    EXPECT_EQ(log.errors(), 2U);
    EXPECT_TRUE(log.has("Err", "Stato non contemplato!!"));
    EXPECT_TRUE(module.asked.empty());
}

// ---------------------------------------------------------------------------------------------------------------

class Commands : public ModuleThreadTest {
  protected:
    Commands() { comm().isGood = true; }
};

TEST_F(Commands, GoBeforeEachPoll) {
    queue("CP");
    queue("CD");
    pass();
    EXPECT_EQ(module.asked, (Names{"CP", "CD", "DE"}));
    queue("TC");
    pass();
    EXPECT_EQ(module.asked, (Names{"CP", "CD", "DE", "TC", "DS"}));
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(Commands, RefusalForGoodTakesThemOffOnceTheModuleIsBad) {
    for (const char code : {'1', '2', '7'}) {
        comm().isGood = false;
        comm().errorPck = 0;
        module.asked.clear();
        in().CurrFixQC = in().FixQuery.begin();
        module.refuses["CP"] = code;
        queue("CP");
        pass();
        EXPECT_EQ(Names(module.asked.begin(), module.asked.begin() + 1), Names{"CP"}) << code;
        EXPECT_EQ(module.asked.size(), 2U) << code;
        EXPECT_TRUE(in().AsyncQC.isEmpty()) << code;
    }
    EXPECT_EQ(pauses(250), 0U);
}

TEST_F(Commands, FirstFailureOfAGoodModuleCostsAPauseAndAnotherTry) {
    module.refuses["CP"] = '1';
    queue("CP");
    pass();
    EXPECT_EQ(module.asked, (Names{"CP", "CP", "DE"}));
    EXPECT_EQ(pauses(250), 1U);
    EXPECT_TRUE(in().AsyncQC.isEmpty());
}

TEST_F(Commands, OtherRefusalsAreTriedUntilTheModuleGivesIn) {
    for (const char code : {'3', '4', '6', '8', '9'}) {
        comm().isGood = true;
        comm().errorPck = 0;
        module.asked.clear();
        in().CurrFixQC = in().FixQuery.begin();
        module.refuses["CP"] = code;
        module.refusals["CP"] = 6;
        VirtualClock::clearWaits();
        queue("CP");
        pass();
        EXPECT_EQ(module.asked, (Names{"CP", "CP", "CP", "CP", "CP", "CP", "CP", "DE"})) << code;
        EXPECT_EQ(pauses(250), 1U) << "only while the module counts as good, " << code;
        EXPECT_TRUE(in().AsyncQC.isEmpty()) << code;
    }
}

TEST_F(Commands, BusyModuleIsAskedAgainAtOnceAndCountsNoError) {
    module.refuses["CP"] = '5';
    module.refusals["CP"] = 4;
    queue("CP");
    pass();
    EXPECT_EQ(module.asked, (Names{"CP", "CP", "CP", "CP", "CP", "DE"}));
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
    EXPECT_TRUE(comm().isGood);
    EXPECT_EQ(comm().errorPck, 0);
    EXPECT_EQ(comm().errorCnt, 0);
    EXPECT_EQ(link().getLastErr(), QString("LastErr:"));
}

TEST_F(Commands, ValueSettingIsDroppedOnceItFailsForABadModule) {
    Bytes param = text("00000000");
    for (const char code : {'3', '4', '6'}) {
        comm().isGood = false;
        comm().errorPck = 0;
        module.asked.clear();
        in().CurrFixQC = in().FixQuery.begin();
        module.refuses["SV"] = code;
        queue("SV", &param);
        pass();
        EXPECT_EQ(module.asked, (Names{"SV", "DE"})) << code;
        EXPECT_TRUE(in().AsyncQC.isEmpty());
    }
    comm().isGood = true;
    comm().errorPck = 0;
    module.asked.clear();
    in().CurrFixQC = in().FixQuery.begin();
    module.silent.insert("SV");
    queue("SV", &param);
    pass();
    EXPECT_EQ(module.asked, (Names{"SV", "SV", "DE"}));
}

TEST_F(Commands, ValueSettingOfABusyModuleIsTriedAgain) {
    Bytes param = text("00000000");
    module.refuses["SV"] = '5';
    module.refusals["SV"] = 3;
    queue("SV", &param);
    pass();
    EXPECT_EQ(module.asked, (Names{"SV", "SV", "SV", "SV", "DE"}));
}

TEST_F(Commands, DeadModuleIsTriedWithoutEndAndNotPolled) {
    module.dead = true;
    queue("CP");
    queue("CD");
    stopAfter(12);
    pass();
    EXPECT_EQ(Names(module.asked.begin(), module.asked.begin() + 12), Names(12, "CP"));
    EXPECT_EQ(in().async(), (Names{"CP", "CD"}));
    EXPECT_EQ(pauses(250), 1U + 1U) << "one while it was good, one of the poll that ends the pass";
    EXPECT_FALSE(comm().isGood);
    EXPECT_EQ(comm().errorCnt, 11 + 1) << "each failure after the first counts";
}

TEST_F(Commands, DrainEndsWithTheThread) {
    module.refuses["CP"] = '5';
    queue("CP");
    stopAfter(20);
    pass();
    EXPECT_EQ(module.asked.size(), 21U);
    EXPECT_EQ(in().async(), Names{"CP"});
}

// The bypass unit has no communication state: its answer is lost and it is asked without end.
TEST_F(Commands, QueryWithoutAStateRepeats) {
    queue("CU", nullptr, '8');
    stopAfter(3);
    pass();
    EXPECT_EQ(module.asked, (Names{"CU", "CU", "CU", "DE"}));
    EXPECT_EQ(log.occurrences("Verificare query!!!"), 3U);
    EXPECT_EQ(in().async(), Names{"CU"});
    EXPECT_EQ(pauses(250), 0U);
}

TEST_F(Commands, DeadPortIsPaced) {
    plant.moduleLine().fail(LineCall::Write, EIO, 1, 1000000);
    queue("CP");
    int turns = 0;
    VirtualClock::onWait([&](const VirtualClock::Wait& wait) {
        if (wait.call == "QThread::msleep" && ++turns == 10) {
            link().Stop();
        }
    });
    const std::int64_t begun = VirtualClock::now();
    pass();
    EXPECT_GE(VirtualClock::now() - begun, 10 * 250 * MS);
    EXPECT_EQ(log.occurrences("FALLITO Comando CP"), 10U) << "one try per pause";
    EXPECT_EQ(in().async(), Names{"CP"});
}

// As on a pseudo-terminal: neither the bytes nor the module take any time.
class FastLine : public ModuleThreadTest {
  protected:
    FastLine() : ModuleThreadTest(withoutTime()) {
        struct termios settings = plant.moduleLine().settings();
        cfsetospeed(&settings, B230400);  // none of the fake line's speeds
        EXPECT_EQ(tcsetattr(plant.moduleLine().descriptor(), TCSANOW, &settings), 0);
        module.thinks = 0;
        comm().isGood = true;
    }
    static Plant::Options withoutTime() {
        Plant::Options options = withModule();
        options.moduleBaud = 0;
        return options;
    }
};

TEST_F(FastLine, BusyModuleIsAskedAgainAtOnceToo) {
    module.refuses["CP"] = '5';
    module.refusals["CP"] = 4;
    queue("CP");
    const std::int64_t begun = VirtualClock::now();
    pass();
    EXPECT_EQ(module.asked, (Names{"CP", "CP", "CP", "CP", "CP", "DE"}));
    EXPECT_EQ(VirtualClock::now(), begun) << "no time at all";
}

TEST_F(FastLine, ThatDiesIsPacedAfterTheLastReply) {
    module.refuses["CP"] = '5';
    queue("CP");
    module.onQuery = [this](const std::string&) {
        if (module.asked.size() == 3) {
            plant.moduleLine().fail(LineCall::Write, EIO, 1, 1000000);
        }
    };
    int turns = 0;
    VirtualClock::onWait([&](const VirtualClock::Wait& wait) {
        if (wait.call == "QThread::msleep" && ++turns == 10) {
            link().Stop();
        }
    });
    pass();
    EXPECT_EQ(module.asked, Names(3, "CP"));
    EXPECT_EQ(log.occurrences("FALLITO Comando CP"), 3U + 10U) << "one try per pause";
}

TEST(CommandsWithoutAPort, ArePaced) {
    Plant plant;
    plant.registerAll();
    plant.inLink().state = MasterMLink;
    VirtualClock::setLimit(1000 * SECOND);
    const LogCapture log;
    EXPECT_EQ(MLINK_ch, 255);
    plant.link().AddAsyncQC(query("CP"), false);
    int turns = 0;
    VirtualClock::onWait([&](const VirtualClock::Wait&) {
        if (++turns == 10) {
            plant.link().Stop();
        }
    });
    const std::int64_t begun = VirtualClock::now();
    plant.link().StateMachine();
    EXPECT_EQ(VirtualClock::now() - begun, 11 * 250 * MS) << "ten turns and the poll";
    EXPECT_EQ(log.occurrences("FALLITO Comando CP"), 10U);
}

// ---------------------------------------------------------------------------------------------------------------

class Round : public ModuleThreadTest {};

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

class OneCommand : public ModuleThreadTest {
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
