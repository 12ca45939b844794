// Master and slave: how the role moves, and who holds the right to transmit meanwhile.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>

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
// The start

struct StartCase {
    int own;
    CABP_status_e role;
};

class RoleAtStart : public testing::TestWithParam<StartCase> {};

TEST_P(RoleAtStart, FollowsTheAddressAndTheChannelIsFree) {
    Plant plant(static_cast<uint8>(GetParam().own));
    EXPECT_EQ(plant.in().state, GetParam().role);
    EXPECT_EQ(plant.bus().CABPStateMachineState(), GetParam().role);
    EXPECT_TRUE(plant.in().channelIsFree());
    EXPECT_FALSE(plant.in().channelHeldByRole);
    EXPECT_EQ(plant.in().timeWasMaster, 0);
}

INSTANTIATE_TEST_SUITE_P(EachAddress, RoleAtStart,
                         testing::Values(StartCase{0xEA, Master}, StartCase{0xEB, Slave}, StartCase{0xEC, Slave},
                                         StartCase{0xED, Slave}, StartCase{0xE0, Slave}));

// ---------------------------------------------------------------------------------------------------------------
// Changes, one after the other from the start of the card

enum class Move { Promote, Demote, Break };

struct MoveCase {
    const char* name;
    int own;
    std::vector<Move> moves;
    CABP_status_e role;
    bool channelFree;
    bool stamped;  // time of the promotion
};

class RoleMoves : public testing::TestWithParam<MoveCase> {};

TEST_P(RoleMoves, TakeAndFreeTheChannel) {
    const MoveCase& c = GetParam();
    Plant plant(static_cast<uint8>(c.own));
    VirtualClock::setWall(1800000000);
    LogCapture log;
    LastMaster = 0xEC;
    for (const Move move : c.moves) {
        if (move == Move::Break) {
            plant.bus().RecoveryBus();
            EXPECT_EQ(LastMaster, 0xE0);
        } else {
            plant.bus().setState(move == Move::Promote ? Master : Slave);
        }
    }
    EXPECT_EQ(plant.in().state, c.role);
    EXPECT_EQ(plant.in().channelIsFree(), c.channelFree);
    EXPECT_EQ(plant.in().channelHeldByRole, !c.channelFree);
    EXPECT_EQ(plant.in().timeWasMaster, c.stamped ? 1800000000 : 0);
    EXPECT_EQ(log.text(), "");
    plant.stop();
    EXPECT_FALSE(log.contains("QMutex")) << "no lock is destroyed while it is held";
}

INSTANTIATE_TEST_SUITE_P(
    Each, RoleMoves,
    testing::Values(MoveCase{"Demotion", 0xEA, {Move::Demote}, Slave, false, false},
                    MoveCase{"RepeatedDemotion", 0xEA, {Move::Demote, Move::Demote, Move::Demote}, Slave, false, false},
                    MoveCase{"ThereAndBack", 0xEA, {Move::Demote, Move::Promote}, Master, true, true},
                    MoveCase{"TwiceThereAndBack",
                             0xEA,
                             {Move::Demote, Move::Demote, Move::Promote, Move::Demote, Move::Promote},
                             Master,
                             true,
                             true},
                    MoveCase{"PromotionOfAMaster", 0xEA, {Move::Promote}, Master, true, true},
                    MoveCase{"FirstPromotionOfASlave", 0xEB, {Move::Promote}, Master, true, true},
                    MoveCase{"DemotionOfASlave", 0xEB, {Move::Demote}, Slave, false, false},
                    MoveCase{"BreakOfAMaster", 0xEA, {Move::Break}, Slave, false, false},
                    MoveCase{"BreakOfASlave", 0xEB, {Move::Break}, Slave, true, false},
                    MoveCase{"BreakOfADemotedMaster", 0xEA, {Move::Break, Move::Break}, Slave, false, false},
                    MoveCase{"BreakThenPromotion", 0xEA, {Move::Break, Move::Promote}, Master, true, true}),
    [](const auto& c) { return std::string(c.param.name); });

// ---------------------------------------------------------------------------------------------------------------
// The channel in other hands

TEST(Roles, DemotionLeavesTheChannelToWhoeverIsOnTheLine) {
    Plant plant;
    plant.in().mutexCABPChannel->lock();  // as a single-shot does
    plant.bus().setState(Slave);
    EXPECT_EQ(plant.in().state, Slave);
    EXPECT_FALSE(plant.in().channelHeldByRole);
    plant.bus().setState(Master);
    EXPECT_FALSE(plant.in().channelIsFree()) << "the promotion must not take it from its holder";
    plant.in().mutexCABPChannel->unlock();
    EXPECT_TRUE(plant.in().channelIsFree());
}

TEST(Roles, NextDemotionTakesTheChannelThatTheFirstCouldNot) {
    Plant plant;
    plant.in().mutexCABPChannel->lock();
    plant.bus().setState(Slave);
    plant.in().mutexCABPChannel->unlock();
    EXPECT_TRUE(plant.in().channelIsFree());
    plant.bus().RecoveryBus();
    EXPECT_FALSE(plant.in().channelHeldByRole) << "a slave isn't demoted by a BREAK";
    plant.bus().setState(Slave);
    EXPECT_TRUE(plant.in().channelHeldByRole);
}

TEST(Roles, FirstPromotionOfASlaveLeavesASingleShotOnTheLine) {
    Plant plant(0xEB);
    plant.in().mutexCABPChannel->lock();
    plant.bus().setState(Master);
    EXPECT_FALSE(plant.in().channelIsFree());
    plant.in().mutexCABPChannel->unlock();
}

TEST(Roles, AreChangedUnderTheirLock) {
    Plant plant(0xEB);
    plant.in().mutexState->lock();
    std::atomic<bool> done{false};
    std::thread other([&] {
        plant.bus().setState(Master);
        done = true;
    });
    poll(nullptr, 0, 20);  // real ms
    EXPECT_FALSE(done);
    EXPECT_EQ(plant.in().state, Slave);
    plant.in().mutexState->unlock();
    other.join();
    EXPECT_EQ(plant.in().state, Master);
}

TEST(Roles, SingleShotOfADemotedSlaveWaitsForThePromotion) {
    Plant plant;
    plant.registerAll();
    LogCapture log;
    plant.bus().setState(Slave);
    plant.line().expect(bus::frame(0xEA, 0xEB, "CU")).reply(bus::frame(0xEB, 0xEA, "CU", {0x06}), 3000);
    pckStruct query = bus::query(0xEB, "CU");
    uint8 data[1] = {};
    int status = 0;
    CABPMgr::singleQCMgr* const sQC = plant.bus().InsertSingleQC(query, 1, data, &status);
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC));
    }
    EXPECT_EQ(plant.line().calls(LineCall::Write), 0U);
    plant.bus().setState(Master);
    while (!plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC)) {
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(data[0], 0x06);
    EXPECT_TRUE(plant.line().allDone());
}

TEST(Roles, SingleShotOfASlaveThatNeverWasMasterGoesOutAtOnce) {
    Plant plant(0xEB);
    plant.registerAll();
    const LogCapture log;
    plant.line().expect(bus::frame(0xEB, 0xEA, "CU")).reply(bus::frame(0xEA, 0xEB, "CU", {0x06}), 3000);
    pckStruct query = bus::query(0xEA, "CU");
    uint8 data[1] = {};
    int status = 0;
    CABPMgr::singleQCMgr* const sQC = plant.bus().InsertSingleQC(query, 1, data, &status);
    while (!plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC)) {
    }
    EXPECT_EQ(status, 0);
}

// The slave's own receiving and answering takes no lock: the role itself may hold it.
TEST(Roles, DemotedSlaveListensAndAnswersWhileItsRoleHoldsTheChannel) {
    Plant plant;
    plant.registerAll();
    plant.bus().setState(Slave);
    const LogCapture log;
    plant.line().feed(bus::frame(0xEC, 0xEA, "BN"), 1000);
    plant.bus().SlaveAction();
    ASSERT_EQ(plant.line().writes().size(), 1U);
    EXPECT_EQ(plant.line().writes()[0].size(), 30U);
    EXPECT_FALSE(plant.in().channelIsFree());
}

}  // namespace
