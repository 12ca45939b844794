// The CN frame: the hand-over of the master role, the builds, the orders that it carries, and hostile ones.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace {

using bus::Bytes;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

constexpr int OWN_BUILD = -1;

void put32(Bytes& data, std::size_t at, std::int64_t value) {
    for (std::size_t i = 0; i < 4; ++i) {
        data[at + i] = static_cast<uint8>(value >> (8 * i));
    }
}

// Offsets in the data.
constexpr std::size_t NEXTMASTER = 4;
constexpr std::size_t BITSTATUS = 5;
constexpr std::size_t SUSPENDED = 9;
constexpr std::size_t CLOCKS = 25;
constexpr std::size_t TFTTIME = 89;

Bytes cn(int build, uint8 nextMaster, uint8 bits) {
    Bytes data(93);
    put32(data, 0, build);
    data[NEXTMASTER] = nextMaster;
    data[BITSTATUS] = bits;
    return data;
}

Bytes image(const CNData_t& record) {
    const uint8* const first = reinterpret_cast<const uint8*>(&record);
    return Bytes(first, first + sizeof(record));
}

class HandOver : public testing::Test {
  protected:
    explicit HandOver(uint8 own = 0xEB) : plant(own) { plant.registerAll(); }
    void receive(Bytes data, uint8 src = 0xEA, uint8 dest = 0xFF) {
        data.resize(data.size() + 3, 0xAA);  // the frame's tail
        pckStruct query = bus::query(dest, "CN", &data);
        query.ParamLen = static_cast<uint16>(query.ParamLen - 3);
        query.Src = src;
        plant.bus().ManageCommand(query);
    }
    uint8 sameBuild() { return plant.sys().cntForSameBuild; }

    Plant plant;
    LogCapture log;
};

TEST_F(HandOver, MakesTheNamedSlaveMaster) {
    VirtualClock::setWall(1800000000);
    receive(cn(OWN_BUILD, 0xEB, 3));
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_EQ(plant.in().timeWasMaster, 1800000000);
    EXPECT_TRUE(plant.in().channelIsFree());
    EXPECT_EQ(log.warnings() + log.errors(), 0U);
    EXPECT_TRUE(plant.line().sent().empty()) << "nothing is answered";
}

TEST_F(HandOver, ToAnotherNodeIsTakenInOnly) {
    receive(cn(OWN_BUILD, 0xEC, 3));
    EXPECT_EQ(plant.in().state, Slave);
    EXPECT_EQ(plant.bus().CNData.nextMaster, 0xEC);
    EXPECT_EQ(plant.in().timeWasMaster, 0);
}

TEST_F(HandOver, ToThisNodeAloneCountsAsWell) {
    receive(cn(OWN_BUILD, 0xEB, 3), 0xED, 0xEB);
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_TRUE(plant.line().sent().empty());
}

TEST_F(HandOver, ReturnsTheRoleToADemotedMaster) {
    plant.bus().setState(Master);
    plant.bus().RecoveryBus();
    ASSERT_FALSE(plant.in().channelIsFree());
    receive(cn(OWN_BUILD, 0xEB, 3));
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_TRUE(plant.in().channelIsFree());
}

TEST_F(HandOver, OfAMasterToItselfChangesNothing) {
    plant.bus().setState(Master);
    const time_t since = plant.in().timeWasMaster;
    VirtualClock::advance(5000000);
    receive(cn(OWN_BUILD, 0xEB, 3));
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_EQ(plant.in().timeWasMaster, since);
}

TEST_F(HandOver, OfAMasterToAnotherDoesNotDemoteIt) {
    plant.bus().setState(Master);
    receive(cn(OWN_BUILD, 0xEC, 3));
    EXPECT_EQ(plant.in().state, Master);
}

// ---------------------------------------------------------------------------------------------------------------
// Builds

TEST_F(HandOver, OtherBuildIsToldAndNothingElseTaken) {
    plant.in().forcedOnBypass = 0;
    Bytes data = cn(7, 0xEB, 1);
    data[TFTTIME] = 99;
    receive(data, 0xEC);
    EXPECT_EQ(plant.in().state, Slave);
    EXPECT_EQ(plant.in().forcedOnBypass, 0);
    EXPECT_EQ(image(plant.bus().CNData), Bytes(93, 0));
    EXPECT_EQ(sameBuild(), 8);
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_TRUE(log.has("War", "Versioni MCU differenti: MCU:C(7) myMCU(-1)"));
    EXPECT_EQ(log.entries().front().function, "ManageCommand");
}

TEST_F(HandOver, BuildsCountAsAlikeAgainFrameByFrame) {
    EXPECT_EQ(sameBuild(), 2);
    receive(cn(OWN_BUILD, 0xEC, 3));
    EXPECT_EQ(sameBuild(), 1);
    receive(cn(OWN_BUILD, 0xEC, 3));
    receive(cn(OWN_BUILD, 0xEC, 3));
    EXPECT_EQ(sameBuild(), 0) << "never below";
    receive(cn(0, 0xEC, 3));
    EXPECT_EQ(sameBuild(), 8);
    for (int i = 7; i >= 5; --i) {
        receive(cn(OWN_BUILD, 0xEC, 3));
        EXPECT_EQ(sameBuild(), i);
    }
    receive(cn(0x7FFFFFFF, 0xEC, 3));
    EXPECT_EQ(sameBuild(), 8);
}

TEST_F(HandOver, EachByteOfTheBuildCounts) {
    for (int byte = 0; byte < 4; ++byte) {
        Bytes data = cn(OWN_BUILD, 0xEB, 3);
        data[static_cast<std::size_t>(byte)] ^= 0x01;
        receive(data);
        EXPECT_EQ(plant.in().state, Slave) << byte;
    }
    EXPECT_EQ(log.warnings(), 4U);
}

TEST_F(HandOver, FrameWithoutAWholeBuildCountsAsAnotherBuild) {
    for (std::size_t size = 0; size < 4; ++size) {
        plant.sys().cntForSameBuild = 0;
        receive(Bytes(size, 0xFF));
        EXPECT_EQ(sameBuild(), 8) << size;
    }
    EXPECT_EQ(log.warnings(), 4U);
    EXPECT_EQ(log.occurrences("Versioni MCU differenti: MCU:A("), 4U);
    EXPECT_TRUE(log.contains("myMCU(-1)"));
    EXPECT_EQ(plant.in().state, Slave);
}

TEST_F(HandOver, FrameWithoutAWholeBuildIsNotFilledUpToTheOwn) {
    plant.sys().build = 0;
    for (std::size_t size = 0; size < 4; ++size) {
        plant.sys().cntForSameBuild = 0;
        receive(Bytes(size, 0));
        EXPECT_EQ(sameBuild(), 8) << size;
    }
    receive(Bytes(4, 0));
    EXPECT_EQ(sameBuild(), 7) << "a whole one";
}

// ---------------------------------------------------------------------------------------------------------------
// What is copied

TEST_F(HandOver, WholeRecordIsTakenIn) {
    Bytes data = cn(OWN_BUILD, 0xEC, 3);
    for (std::size_t i = SUSPENDED; i < CLOCKS; ++i) {
        data[i] = static_cast<uint8>(i);
    }
    put32(data, TFTTIME, 12345);
    receive(data, 0xEE);  // a sender without a clock entry: the table stays as it came
    EXPECT_EQ(image(plant.bus().CNData), data);
}

TEST_F(HandOver, ShortFrameLeavesTheRestAsItWas) {
    Bytes before = cn(OWN_BUILD, 0xEC, 3);
    put32(before, TFTTIME, 777);
    receive(before, 0xEE);
    Bytes data = cn(OWN_BUILD, 0xED, 3);
    data.resize(5);
    receive(data, 0xEE);
    before[NEXTMASTER] = 0xED;
    EXPECT_EQ(image(plant.bus().CNData), before);
}

TEST_F(HandOver, FrameOfOnlyTheBuildKeepsTheLastNextMaster) {
    receive(cn(OWN_BUILD, 0xEB, 3), 0xEE);
    plant.bus().setState(Slave);
    Bytes data = cn(OWN_BUILD, 0xEC, 3);
    data.resize(4);
    receive(data, 0xEE);
    EXPECT_EQ(plant.in().state, Master) << "the record still names this node";
}

TEST_F(HandOver, LongFrameIsCutToTheRecord) {
    for (const std::size_t size : {94U, 200U, 1014U}) {
        Bytes data = cn(OWN_BUILD, 0xEC, 3);
        data.resize(size, 0x5A);
        receive(data, 0xEE);
        data.resize(93);
        EXPECT_EQ(image(plant.bus().CNData), data) << size;
        EXPECT_EQ(plant.in().forcedOnBypass, -1) << "the next members stand";
        EXPECT_EQ(plant.in().state, Slave);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// The order about the bypass: two signed bits

struct BypassCase {
    int bits;
    int before;
    int after;
};

class BypassOrder : public HandOver, public testing::WithParamInterface<BypassCase> {};

TEST_P(BypassOrder, IsTakenUnlessNegative) {
    plant.in().forcedOnBypass = GetParam().before;
    receive(cn(OWN_BUILD, 0xEC, static_cast<uint8>(GetParam().bits)));
    EXPECT_EQ(plant.in().forcedOnBypass, GetParam().after);
}

INSTANTIATE_TEST_SUITE_P(Each, BypassOrder,
                         testing::Values(BypassCase{0, 1, 0}, BypassCase{0, -1, 0}, BypassCase{1, 0, 1},
                                         BypassCase{1, -1, 1}, BypassCase{2, 1, 1}, BypassCase{2, -1, -1},
                                         BypassCase{3, 0, 0}, BypassCase{3, 1, 1}, BypassCase{0xFC, 1, 0},
                                         BypassCase{0xFD, 0, 1}, BypassCase{0xFF, 1, 1}));

TEST_F(HandOver, BypassOrderIsStoredUnderItsLock) {
    std::atomic<bool> done{false};
    plant.in().mutexForcedonBypass->lock();
    std::thread other([&] {
        receive(cn(OWN_BUILD, 0xEC, 1));
        done = true;
    });
    poll(nullptr, 0, 30);  // real ms
    EXPECT_FALSE(done);
    EXPECT_EQ(plant.in().forcedOnBypass, -1);
    plant.in().mutexForcedonBypass->unlock();
    other.join();
    EXPECT_EQ(plant.in().forcedOnBypass, 1);
}

// ---------------------------------------------------------------------------------------------------------------
// Senders

TEST_F(HandOver, ClockOfTheSenderIsComparedWithTheOwn) {
    // All clocks ordinary; the own one stands 1 s behind the sender's.
    Bytes data = cn(OWN_BUILD, 0xEC, 3);
    for (std::size_t i = 0; i < 4; ++i) {
        put32(data, CLOCKS + i * 16 + 8, 1);
    }
    const std::int64_t wall = VirtualClock::wall() / 1000000;
    put32(data, CLOCKS + 2 * 16, wall + 1);
    receive(data, 0xEC);
    const clockData own = plant.bus().CNData.clksData.clkValue[1];
    EXPECT_EQ(own.T.tv_sec, wall);
    EXPECT_EQ(own.delta, -9) << "a quarter of -1000 ms through the filter";
}

class NoCabinetSends : public HandOver, public testing::WithParamInterface<int> {};

TEST_P(NoCabinetSends, HasNoClockButMayHandTheRoleOver) {
    const Bytes before(reinterpret_cast<const uint8*>(plant.bus().upsBox),
                       reinterpret_cast<const uint8*>(plant.bus().upsBox + 4));
    receive(cn(OWN_BUILD, 0xEB, 1), static_cast<uint8>(GetParam()));
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_EQ(plant.in().forcedOnBypass, 1);
    EXPECT_EQ(log.errors(), 1U) << log.text();
    EXPECT_TRUE(log.contains(std::to_string(static_cast<uint8>(GetParam() - 0xEA)))) << "with the offending index";
    const Bytes after(reinterpret_cast<const uint8*>(plant.bus().upsBox),
                      reinterpret_cast<const uint8*>(plant.bus().upsBox + 4));
    EXPECT_EQ(after, before);
    EXPECT_EQ(plant.bus().CNData.clksData.clkValue[1].T.tv_sec, 0);
}

INSTANTIATE_TEST_SUITE_P(EachAddress, NoCabinetSends, testing::Values(0xE0, 0xE1, 0xE5, 0xE9, 0xEE, 0xEF));

TEST(HandOverOutsideThePlant, IsSurvived) {
    Plant plant(0xE0);
    plant.registerAll();
    LogCapture log;
    Bytes data = cn(OWN_BUILD, 0xE0, 1);
    pckStruct query = bus::query(0xFF, "CN", &data);
    query.Src = 0xEA;
    plant.bus().ManageCommand(query);
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_EQ(plant.in().forcedOnBypass, 1);
}

// ---------------------------------------------------------------------------------------------------------------
// The frame that this card could send

TEST_F(HandOver, FrameIsPreparedFromTheRecord) {
    VirtualClock::setWall(1800000000, 250000);
    plant.bus().CNData.bitStatus = 0xFFFFFFF4;
    plant.bus().CNData.remoteTimeSuspended[3] = 4;
    plant.bus().CNData.clksData.TftTime = 321;
    plant.bus().CNData.clksData.clkValue[2].epochT = 9;
    plant.in().forcedOnBypass = 1;
    pckStruct query;
    plant.bus().prepareCNPck(query, 0xED);
    EXPECT_EQ(query.Src, 0xEB);
    EXPECT_EQ(query.Dest, 0xFF);
    EXPECT_EQ(query.MainCmd, 'C');
    EXPECT_EQ(query.SubCmd, 'N');
    EXPECT_EQ(query.ParamLen, 93);
    ASSERT_EQ(query.pParam, &plant.bus().CNData);

    Bytes expected(93);
    put32(expected, 0, -1);
    expected[NEXTMASTER] = 0xED;
    put32(expected, BITSTATUS, 0xFFFFFFF5);
    put32(expected, SUSPENDED + 12, 4);
    put32(expected, CLOCKS + 16, 1800000000);
    put32(expected, CLOCKS + 20, 250000);
    put32(expected, CLOCKS + 24, 1);
    put32(expected, CLOCKS + 2 * 16 + 8, 9);
    put32(expected, TFTTIME, 321);
    EXPECT_EQ(image(plant.bus().CNData), expected);
    EXPECT_TRUE(plant.line().sent().empty());
}

TEST_F(HandOver, PreparedFrameCarriesTheOrderInTwoBits) {
    const struct {
        int order;
        int32 bits;
    } cases[] = {{-1, 3}, {0, 0}, {1, 1}};
    for (const auto& c : cases) {
        plant.in().forcedOnBypass = c.order;
        pckStruct query;
        plant.bus().prepareCNPck(query, 0xEA);
        EXPECT_EQ(plant.bus().CNData.bitStatus & 3U, static_cast<uint32>(c.bits));
        EXPECT_EQ(plant.bus().CNData.forcedOnBypass, c.order);
    }
}

TEST_F(HandOver, PreparedFrameIsUnderstoodByAPeer) {
    plant.in().forcedOnBypass = 1;
    pckStruct query;
    plant.bus().prepareCNPck(query, 0xEB);
    Bytes data(static_cast<uint8*>(query.pParam), static_cast<uint8*>(query.pParam) + query.ParamLen);
    plant.in().forcedOnBypass = 0;
    receive(data, 0xEC);
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_EQ(plant.in().forcedOnBypass, 1);
}

}  // namespace
