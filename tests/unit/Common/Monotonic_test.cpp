#include "Common/Monotonic.h"

#include <gtest/gtest.h>

#include <limits>

#include "support/VirtualClock.h"

namespace {

struct timespec at(std::int64_t seconds, long nanoseconds) {
    struct timespec moment;
    moment.tv_sec = static_cast<time_t>(seconds);
    moment.tv_nsec = nanoseconds;
    return moment;
}

TEST(Monotonic, CountsWholeMilliseconds) {
    EXPECT_EQ(elapsedMs(at(5, 0), at(5, 0)), 0);
    EXPECT_EQ(elapsedMs(at(5, 0), at(5, 999999)), 0);
    EXPECT_EQ(elapsedMs(at(5, 0), at(5, 1000000)), 1);
    EXPECT_EQ(elapsedMs(at(5, 0), at(14, 999999999)), 9999);
    EXPECT_EQ(elapsedMs(at(5, 0), at(15, 0)), 10000);
}

TEST(Monotonic, CutsTheDifferenceOfTheNanosecondsTowardsZero) {
    EXPECT_EQ(elapsedMs(at(1, 999500000), at(3, 999000000)), 2000);
    EXPECT_EQ(elapsedMs(at(1, 999000000), at(2, 1000000)), 2);
}

TEST(Monotonic, DoesNotOverflow) {
    constexpr std::int64_t FAR = std::numeric_limits<std::int32_t>::max();
    EXPECT_EQ(elapsedMs(at(0, 0), at(FAR, 0)), FAR * 1000);
}

TEST(Monotonic, IsNotTheWallClock) {
    const struct timespec begun = monotonicNow();
    support::VirtualClock::setWall(1000);
    support::VirtualClock::advance(2500000);
    EXPECT_EQ(elapsedMs(begun, monotonicNow()), 2500);
}

}  // namespace
