// A master that has neither a bus port nor a tree: nothing it asks goes out, nothing that fails is counted.
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"

namespace {

using support::LogCapture;
using support::Plant;
using support::VirtualClock;

Plant::Options withoutAnything() {
    Plant::Options options;
    options.hasPort = false;
    options.hasTree = false;
    return options;
}

TEST(DeadPort, RoundWithoutPortAndTreeIsPaced) {
    Plant plant(withoutAnything());
    plant.registerAll();
    LogCapture log;
    const auto begun = VirtualClock::now();
    constexpr int passes = 90;
    for (int i = 0; i < passes; ++i) {
        plant.bus().StateMachine();
    }
    // Eight queries and the end of the round: nine passes, at about a query a second.
    EXPECT_GE(VirtualClock::now() - begun, 75'000'000);
    EXPECT_EQ(plant.in().state, Master);
}

}  // namespace
