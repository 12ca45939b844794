// The module thread: idle state and commands before polling.
#include "MLINK/ThreadMLINK.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "unit/MLINK/ModuleLine.h"

namespace {

using namespace modline;
using support::LineCall;
using Names = std::vector<std::string>;

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

}  // namespace
