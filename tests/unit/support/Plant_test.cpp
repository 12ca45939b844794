#include "support/Plant.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/VirtualClock.h"

namespace {

using support::LogCapture;
using support::Plant;

TEST(Plant, IsACardOfFourCabinetsThatStandsStill) {
    Plant plant;
    EXPECT_EQ(pSysMgr, &plant.sys());
    EXPECT_EQ(plant.threads().heldBack(), 1U);
    EXPECT_FALSE(plant.bus().isRunning());
    EXPECT_TRUE(plant.line().isOpen());
    EXPECT_FALSE(plant.hasTree());
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_TRUE(plant.in().channelIsFree());
}

TEST(Plant, RegistersItsCabinets) {
    Plant plant(0xEC, "ABC");
    plant.registerAll();
    EXPECT_EQ(plant.in().state, Slave);
    EXPECT_EQ(plant.in().FixQuery.size(), 6U);
    EXPECT_EQ(plant.in().walkStandsAt(), "BN EA");
    EXPECT_STREQ(plant.root().ID, "SC");
    EXPECT_STREQ(plant.box('B').ID, "SC.BB");
    EXPECT_STREQ(plant.module('B').ID, "SC.BB.M1");
    EXPECT_THROW(plant.box('D'), std::logic_error);
    EXPECT_TRUE(plant.comm('C').active);
    EXPECT_FALSE(plant.comm('D').active);
    EXPECT_EQ(plant.in().sys, &plant.root());
}

TEST(Plant, CanLackItsPortItsTreeAndItsOwnCabinet) {
    Plant::Options options;
    options.own = 0xE0;
    options.hasPort = false;
    options.hasTree = false;
    Plant plant(options);
    plant.registerAll();
    EXPECT_EQ(CABP_ch, 0xFF);
    EXPECT_FALSE(plant.hasTree());
    EXPECT_EQ(plant.in().sys, nullptr);
}

TEST(Plant, LeavesNothingBehind) {
    LogCapture log;
    {
        Plant plant;
        plant.registerAll();
        EXPECT_EQ(plant.shm().segments().size(), 1U);
        plant.stop();
        EXPECT_TRUE(plant.shm().segments().empty());
        EXPECT_FALSE(plant.line().isOpen());
        EXPECT_EQ(pSysMgr, nullptr);
    }
    EXPECT_EQ(CABP_ch, 0xFF);
}

TEST(Plant, OtherThreadsAreStarted) {
    Plant plant;
    class Other : public QThread {
      public:
        void run() override { ran = true; }
        std::atomic<bool> ran{false};
    } other;
    other.start(QThread::InheritPriority);
    EXPECT_TRUE(other.wait());
    EXPECT_TRUE(other.ran);
}

}  // namespace
