// A pass of the master, with the transactions and the steps of other units replaced: what it does in which order, and
// what becomes of each result.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"

namespace {

using support::LogCapture;
using support::Plant;
using support::VirtualClock;

using Journal = std::vector<std::string>;

// An exchange of the shortest frame and a short reply on the line.
constexpr std::int64_t EXCHANGE_US = 25000;

struct World {
    Journal journal;
    std::deque<int> results;           // of the transactions, NORET after the last
    std::int64_t takes = EXCHANGE_US;  // each of them
    std::function<void()> inQuery;
    int sendConfigResult = SUCC;
};
World world;

void note(const QString& text) {
    world.journal.push_back(text.toStdString());
}

}  // namespace

extern "C" {

int __wrap__Z16CABP_ManageQueryRK5QCMgr(const QCMgr& q) {
    note(QString::asprintf("%c%c to %02X", q.QC.MainCmd, q.QC.SubCmd, q.QC.Dest));
    VirtualClock::advance(world.takes);
    if (world.inQuery) {
        world.inQuery();
    }
    if (world.results.empty()) {
        return NORET;
    }
    const int result = world.results.front();
    world.results.pop_front();
    return result;
}

int __wrap__ZN7CABPMgr10SendConfigEh(CABPMgr* /*bus*/, uint8 Dest) {
    note(QString::asprintf("SendConfig %02X", Dest));
    return world.sendConfigResult;
}

void __wrap__ZN7CABPMgr12AggregateBoxEv(CABPMgr* /*bus*/) {
    note("AggregateBox");
}

void __wrap__ZN7CABPMgr13monitorUnitTBEv(CABPMgr* /*bus*/) {
    note("monitorUnitTB");
}

}  // extern "C"

namespace {

class MasterPass : public testing::Test {
  protected:
    MasterPass() {
        world = World();
        plant.bus().wipeQueues();
    }
    // Queries to all nodes: whatever comes of their transaction is the result of the step.
    static pckStruct toAll(const char* cmd) {
        pckStruct query;
        query.Src = CABPAddr;
        query.Dest = BROADCAST;
        query.MainCmd = static_cast<uint8>(cmd[0]);
        query.SubCmd = static_cast<uint8>(cmd[1]);
        return query;
    }
    void registerFix(const char* cmd) {
        const LogCapture quiet;
        plant.bus().RegisterElem(toAll(cmd));
    }
    void addAsync(const char* cmd) {
        const LogCapture quiet;
        plant.bus().AddAsyncQC(toAll(cmd));
    }
    int asyncSize() { return plant.bus().AsyncQCSize(); }
    Journal pass() {
        world.journal.clear();
        VirtualClock::clearWaits();
        plant.bus().MasterAction();
        return world.journal;
    }
    // What the pass slept, in ms, one after the other.
    static std::vector<std::int64_t> slept() {
        std::vector<std::int64_t> all;
        for (const VirtualClock::Wait& wait : VirtualClock::waits()) {
            all.push_back(wait.us / 1000);
        }
        return all;
    }
    using Sleeps = std::vector<std::int64_t>;

    Plant plant;
    LogCapture log;
};

// ---------------------------------------------------------------------------------------------------------------
// The order of a pass

TEST_F(MasterPass, GoesFromConfigurationsOverTheQueuesToTheAggregation) {
    registerFix("BN");
    addAsync("BI");
    addAsync("BS");
    plant.data('C').remoteUpdaterequest = true;
    plant.bus().incGuiForcedonBypass();
    world.inQuery = [this] { EXPECT_EQ(plant.in().guiForcedOnBypass, 1) << "folded at the end"; };
    EXPECT_EQ(pass(), (Journal{"SendConfig EC", "BI to FF", "BS to FF", "BN to FF", "AggregateBox", "monitorUnitTB"}));
    EXPECT_EQ(slept(), Sleeps{});
    EXPECT_EQ(plant.in().forcedOnBypass, 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(MasterPass, EndOfTheRoundSendsNoFixedQueryAndAggregatesNothing) {
    registerFix("BN");
    plant.bus().incGuiForcedonBypass();
    pass();
    EXPECT_EQ(plant.in().walkStandsAt(), "end");
    addAsync("BI");
    plant.bus().incGuiForcedonBypass();
    EXPECT_EQ(pass(), Journal{"BI to FF"});
    EXPECT_EQ(plant.in().walkStandsAt(), "BN FF");
    EXPECT_EQ(plant.in().guiForcedOnBypass, 1) << "left for the next pass";
}

TEST_F(MasterPass, AsynchronousQueriesGoBeforeEachFixedOne) {
    registerFix("BN");
    registerFix("BS");
    world.inQuery = [this] {
        if (world.journal.back() == "BN to FF") {
            addAsync("BI");
        }
    };
    EXPECT_EQ(pass(), (Journal{"BN to FF", "AggregateBox", "monitorUnitTB"}));
    world.inQuery = nullptr;
    EXPECT_EQ(pass(), (Journal{"BI to FF", "BS to FF", "AggregateBox", "monitorUnitTB"}));
}

// ---------------------------------------------------------------------------------------------------------------
// Configurations

TEST_F(MasterPass, ConfigurationsGoOutInTheOrderOfTheCabinetsAndOnce) {
    registerFix("BN");
    for (const char letter : {'D', 'A', 'B'}) {
        plant.data(letter).remoteUpdaterequest = true;
    }
    EXPECT_EQ(pass(), (Journal{"SendConfig EA", "SendConfig EB", "SendConfig ED", "BN to FF", "AggregateBox",
                               "monitorUnitTB"}));
    EXPECT_EQ(pass(), Journal{});
}

TEST_F(MasterPass, RequestIsClearedThoughItsConfigurationDidNotArrive) {
    plant.data('B').remoteUpdaterequest = true;
    world.sendConfigResult = FAIL;
    pass();
    EXPECT_FALSE(plant.data('B').remoteUpdaterequest);
}

// ---------------------------------------------------------------------------------------------------------------
// The asynchronous queue: what becomes of each result

struct DrainCase {
    const char* name;
    int result;
    bool staysQueued;  // by that result alone
    bool passGoesOn;
    std::int64_t slept;  // ms
};

class AsyncResult : public MasterPass, public testing::WithParamInterface<DrainCase> {};

TEST_P(AsyncResult, DecidesAboutTheElement) {
    const DrainCase& c = GetParam();
    registerFix("BN");
    addAsync("BI");
    world.results = {c.result};
    Journal expected = {"BI to FF"};
    if (c.passGoesOn) {
        if (c.staysQueued) {
            expected.push_back("BI to FF");  // tried again, successfully
        }
        for (const char* step : {"BN to FF", "AggregateBox", "monitorUnitTB"}) {
            expected.push_back(step);
        }
    }
    EXPECT_EQ(pass(), expected);
    EXPECT_EQ(slept(), c.slept == 0 ? Sleeps{} : Sleeps{c.slept});
    EXPECT_EQ(asyncSize(), c.passGoesOn ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(
    Each, AsyncResult,
    testing::Values(DrainCase{"Succ", SUCC, false, true, 0}, DrainCase{"NoReply", NORET, false, true, 0},
                    DrainCase{"Fail", FAIL, true, true, 0}, DrainCase{"CommErr", COMMERR, true, true, 250},
                    DrainCase{"Busy", BUSY, true, false, 0}, DrainCase{"Timeout", TIMEOUT, true, true, 0},
                    DrainCase{"NoActivity", NOACTIVITY, true, true, 0}, DrainCase{"Unknown", 7, true, true, 0}),
    [](const auto& c) { return std::string(c.param.name); });

TEST_F(MasterPass, QueueIsDrainedInItsOrder) {
    registerFix("BN");
    for (const char* cmd : {"CU", "BI", "BS"}) {
        addAsync(cmd);
    }
    world.results = {SUCC, COMMERR, FAIL, NORET, SUCC};
    EXPECT_EQ(pass(), (Journal{"CU to FF", "BI to FF", "BI to FF", "BI to FF", "BS to FF", "BN to FF", "AggregateBox",
                               "monitorUnitTB"}));
}

TEST_F(MasterPass, BusyLeavesTheRestOfTheQueueToo) {
    addAsync("BI");
    addAsync("BS");
    world.results = {SUCC, BUSY};
    EXPECT_EQ(pass(), (Journal{"BI to FF", "BS to FF"}));
    EXPECT_EQ(asyncSize(), 1);
}

TEST_F(MasterPass, BreakEndsTheDrainAndTheRoundGoesOn) {
    registerFix("BN");
    addAsync("BI");
    addAsync("BS");
    world.results = {FAIL, FAIL};
    world.inQuery = [] {
        if (world.journal.size() == 2) {
            cntBreakDetect = 1;
        }
    };
    EXPECT_EQ(pass(), (Journal{"BI to FF", "BI to FF", "BN to FF", "AggregateBox", "monitorUnitTB"}));
    EXPECT_EQ(asyncSize(), 2);
    EXPECT_EQ(plant.in().state, Master) << "it is the thread's loop that deals with the BREAK";
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(MasterPass, BreakThatIsCountedAlreadySendsNothingOfTheQueue) {
    registerFix("BN");
    addAsync("BI");
    cntBreakDetect = 1;
    EXPECT_EQ(pass(), (Journal{"BN to FF", "AggregateBox", "monitorUnitTB"}));
    EXPECT_EQ(asyncSize(), 1);
}

TEST_F(MasterPass, StopEndsADrainThatNothingElseWouldEnd) {
    registerFix("BN");
    addAsync("BI");
    world.results.assign(100, FAIL);
    world.inQuery = [this] {
        if (world.journal.size() == 5) {
            plant.bus().Stop();
        }
    };
    EXPECT_EQ(pass(), (Journal{"BI to FF", "BI to FF", "BI to FF", "BI to FF", "BI to FF", "BN to FF", "AggregateBox",
                               "monitorUnitTB"}));
    EXPECT_EQ(asyncSize(), 1);
}

TEST_F(MasterPass, TurnsOfTheDrainArePacedWhileThePortIsClosed) {
    registerFix("BN");
    addAsync("BI");
    world.results = {FAIL, FAIL, TIMEOUT, COMMERR, NORET};
    const uint8 ch = CABP_ch;
    CABP_ch = 0xFF;
    pass();
    CABP_ch = ch;
    EXPECT_EQ(slept(), (Sleeps{250, 250, 250, 250}));
}

TEST_F(MasterPass, TurnsThatFailWithoutTimeOnTheLineArePaced) {
    registerFix("BN");
    addAsync("BI");
    world.results = {FAIL, FAIL, FAIL, COMMERR, NORET};
    world.takes = 4000;
    world.inQuery = [] {
        if (world.journal.size() == 2) {
            world.takes = 5000;  // the third is on the line
        } else if (world.journal.size() == 3) {
            world.takes = 0;
        }
    };
    pass();
    EXPECT_EQ(slept(), (Sleeps{250, 250, 250})) << "none after the third";
}

TEST_F(MasterPass, GoodTurnsAreNotPacedHoweverShort) {
    registerFix("BN");
    addAsync("BI");
    addAsync("BS");
    world.takes = 0;
    world.results = {SUCC, NORET};
    pass();
    EXPECT_EQ(slept(), Sleeps{});
}

// ---------------------------------------------------------------------------------------------------------------
// The fixed queue: what becomes of each result

struct RoundCase {
    const char* name;
    int result;
    bool advances;
    std::int64_t slept;  // ms
};

class FixedResult : public MasterPass, public testing::WithParamInterface<RoundCase> {};

TEST_P(FixedResult, DecidesAboutTheWalk) {
    const RoundCase& c = GetParam();
    registerFix("BN");
    registerFix("BS");
    world.results = {c.result};
    EXPECT_EQ(pass(), (Journal{"BN to FF", "AggregateBox", "monitorUnitTB"}));
    EXPECT_EQ(plant.in().walkStandsAt(), c.advances ? "BS FF" : "BN FF");
    EXPECT_EQ(slept(), c.slept == 0 ? Sleeps{} : Sleeps{c.slept});
}

INSTANTIATE_TEST_SUITE_P(Each, FixedResult,
                         testing::Values(RoundCase{"Succ", SUCC, true, 0}, RoundCase{"NoReply", NORET, true, 0},
                                         RoundCase{"Fail", FAIL, true, 250}, RoundCase{"CommErr", COMMERR, true, 250},
                                         RoundCase{"Busy", BUSY, true, 250}, RoundCase{"Timeout", TIMEOUT, false, 0},
                                         RoundCase{"NoActivity", NOACTIVITY, false, 0},
                                         RoundCase{"Unknown", 7, false, 0}),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(MasterPass, FailingQueryIsNotRetriedInItsRound) {
    registerFix("BN");
    registerFix("BS");
    world.results = {FAIL, FAIL};
    EXPECT_EQ(pass().front(), "BN to FF");
    EXPECT_EQ(pass().front(), "BS to FF");
    EXPECT_EQ(pass(), Journal{});
    EXPECT_EQ(pass().front(), "BN to FF");
}

TEST_F(MasterPass, QueryWithoutAFrameIsPassedOverLikeOneThatNobodyAnswers) {
    registerFix("BN");
    registerFix("BS");
    QCMgr& elem = *plant.in().FixQuery.begin()->second;
    uint8* const frame = elem.pckQuery;
    elem.pckQuery = nullptr;
    EXPECT_EQ(pass(), (Journal{"AggregateBox", "monitorUnitTB"}));
    EXPECT_EQ(slept(), Sleeps{250});
    EXPECT_EQ(plant.in().walkStandsAt(), "BS FF");
    elem.pckQuery = frame;
}

// ---------------------------------------------------------------------------------------------------------------
// The end of the round

TEST_F(MasterPass, EmptyFixedQueueMakesASlaveAtOnce) {
    EXPECT_EQ(pass(), Journal{});
    EXPECT_EQ(plant.in().state, Slave);
    EXPECT_FALSE(plant.in().channelIsFree());
    EXPECT_EQ(slept(), Sleeps{20});
    EXPECT_TRUE(plant.sys().mutexQCSeq->tryLock()) << "released again";
    plant.sys().mutexQCSeq->unlock();
    EXPECT_EQ(log.text(), "");
}

TEST_F(MasterPass, RoleIsKeptRoundAfterRound) {
    registerFix("BN");
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(pass().size(), 3U);
        EXPECT_EQ(pass().size(), 0U);
        EXPECT_EQ(slept(), Sleeps{});
        EXPECT_EQ(plant.in().state, Master);
    }
}

TEST_F(MasterPass, CommandSequenceHoldsTheRoundAtItsEnd) {
    registerFix("BN");
    pass();
    plant.bus().iteration = 5;
    plant.sys().mutexQCSeq->lock();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pass(), Journal{});
        EXPECT_EQ(slept(), Sleeps{20});
        EXPECT_EQ(plant.in().walkStandsAt(), "end");
        EXPECT_EQ(plant.bus().iteration, 5);
    }
    plant.sys().mutexQCSeq->unlock();
    EXPECT_EQ(log.warnings(), 3U);
    ASSERT_EQ(log.entries().size(), 3U);
    EXPECT_TRUE(log.has("War", "Sequenza comandi in corso non posso lasciare ruolo MASTER!"));
    EXPECT_EQ(log.entries()[0].function, "MasterAction");
    EXPECT_EQ(pass(), Journal{});
    EXPECT_EQ(slept(), Sleeps{});
    EXPECT_EQ(plant.in().walkStandsAt(), "BN FF");
    EXPECT_EQ(plant.bus().iteration, 6);
}

TEST_F(MasterPass, CommandSequenceKeepsTheRoleWithAnEmptyQueueToo) {
    plant.sys().mutexQCSeq->lock();
    pass();
    EXPECT_EQ(plant.in().state, Master);
    plant.sys().mutexQCSeq->unlock();
    pass();
    EXPECT_EQ(plant.in().state, Slave);
}

TEST_F(MasterPass, CommandSequenceDoesNotHoldTheQueries) {
    registerFix("BN");
    addAsync("BI");
    plant.sys().mutexQCSeq->lock();
    EXPECT_EQ(pass(), (Journal{"BI to FF", "BN to FF", "AggregateBox", "monitorUnitTB"}));
    plant.sys().mutexQCSeq->unlock();
}

TEST_F(MasterPass, RoundsAreNotCountedBeforeTheModuleLinkHasFinishedOne) {
    registerFix("BN");
    for (int i = 0; i < 10; ++i) {
        pass();
    }
    EXPECT_EQ(plant.bus().iteration, 0);
}

TEST_F(MasterPass, RoundsAreCountedFromTheFirstOneOfTheModuleLinkOn) {
    registerFix("BN");
    const auto round = [this] {
        pass();
        pass();
        return plant.bus().iteration.load();
    };
    for (const int32 rounds : {-1, 0}) {
        plant.inLink().iteration = rounds;
        EXPECT_EQ(round(), 0) << rounds;
    }
    plant.inLink().iteration = 1;
    EXPECT_EQ(round(), 1);
    plant.inLink().iteration = 0;
    EXPECT_EQ(round(), 2) << "once begun, by its own rounds alone";
    plant.bus().iteration = 0;
    plant.inLink().iteration = 1000;
    EXPECT_EQ(round(), 1) << "its own first one, however many the module link has had";
}

TEST_F(MasterPass, RoundsAreCountedUpToAThousand) {
    registerFix("BN");
    plant.bus().iteration = 1;
    const auto round = [this] {
        pass();
        pass();
    };
    round();
    EXPECT_EQ(plant.bus().iteration, 2);
    for (int i = 3; i <= 1000; ++i) {
        round();
        ASSERT_EQ(plant.bus().iteration, i);
    }
    round();
    EXPECT_EQ(plant.bus().iteration, 1000);
}

TEST_F(MasterPass, RegistrationRestartsTheWalk) {
    registerFix("BN");
    registerFix("BS");
    pass();
    EXPECT_EQ(plant.in().walkStandsAt(), "BS FF");
    registerFix("BI");
    EXPECT_EQ(plant.in().walkStandsAt(), "BI FF");
}

TEST_F(MasterPass, QueryThatIsTakenAwayAtTheEndOfTheRoundIsSurvived) {
    registerFix("BN");
    registerFix("BS");
    pass();
    world.inQuery = [this] {
        const LogCapture quiet;
        EXPECT_EQ(plant.bus().DeRegisterElem(toAll("BS")), -1) << "in flight";
        EXPECT_EQ(plant.bus().DeRegisterElem(toAll("BN")), 0);
    };
    pass();
    world.inQuery = nullptr;
    EXPECT_EQ(plant.in().FixQuery.size(), 1U);
    pass();
    pass();
    EXPECT_EQ(plant.in().state, Master);
}

// ---------------------------------------------------------------------------------------------------------------
// Requests of the operator side

struct FoldCase {
    int before;
    int requests;
    int after;
};

class OperatorRequest : public MasterPass, public testing::WithParamInterface<FoldCase> {};

TEST_P(OperatorRequest, IsFoldedByItsSign) {
    const FoldCase& c = GetParam();
    registerFix("BN");
    plant.in().forcedOnBypass = c.before;
    plant.in().guiForcedOnBypass = c.requests;
    pass();
    EXPECT_EQ(plant.in().forcedOnBypass, c.after);
    EXPECT_EQ(plant.in().guiForcedOnBypass, 0);
}

TEST_F(MasterPass, OperatorRequestsAreFoldedUnderTheirLock) {
    registerFix("BN");
    plant.in().guiForcedOnBypass = 1;
    std::atomic<bool> done{false};
    plant.in().mutexForcedonBypass->lock();
    std::thread other([&] {
        plant.bus().MasterAction();
        done = true;
    });
    poll(nullptr, 0, 30);  // real ms
    EXPECT_FALSE(done);
    EXPECT_EQ(plant.in().forcedOnBypass, -1);
    plant.in().mutexForcedonBypass->unlock();
    other.join();
    EXPECT_EQ(plant.in().forcedOnBypass, 1);
    EXPECT_TRUE(plant.in().mutexForcedonBypass->tryLock()) << "released again";
    plant.in().mutexForcedonBypass->unlock();
}

INSTANTIATE_TEST_SUITE_P(Each, OperatorRequest,
                         testing::Values(FoldCase{-1, 0, -1}, FoldCase{0, 0, 0}, FoldCase{1, 0, 1}, FoldCase{-1, 1, 1},
                                         FoldCase{0, 3, 1}, FoldCase{1, 1, 1}, FoldCase{-1, -1, 0}, FoldCase{1, -5, 0},
                                         FoldCase{0, -1, 0}));

}  // namespace
