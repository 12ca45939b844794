// The timer behind every disagreement: a condition that must outlast its limit.
#include "Measure/AnomalyTimer.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

constexpr time32_t T0 = 1709294400;
constexpr time32_t LATEST = std::numeric_limits<time32_t>::max();
constexpr time32_t EARLIEST = std::numeric_limits<time32_t>::min();

TEST(AnomalyTimer, StartsWithoutAnomaly) {
    const AnomalyTimer timer(10, T0);
    EXPECT_EQ(timer.state(), AnomalyNotPresent);
}

TEST(AnomalyTimer, StatesHaveTheValuesThatAreKnown) {
    EXPECT_EQ(AnomalyNotPresent, 0);
    EXPECT_EQ(AnomalyAnalizing, 1);
    EXPECT_EQ(AnomalyDetected, 2);
}

TEST(AnomalyTimer, AbsentConditionIsNoAnomaly) {
    AnomalyTimer timer(10, T0);
    EXPECT_EQ(timer.look(false, T0 + 1000), AnomalyVerdict::No);
    EXPECT_EQ(timer.state(), AnomalyNotPresent);
}

TEST(AnomalyTimer, FirstLookOnlyStartsTheTime) {
    AnomalyTimer timer(10, T0);
    // However long ago the timer was made.
    EXPECT_EQ(timer.look(true, T0 + 1000), AnomalyVerdict::No);
    EXPECT_EQ(timer.state(), AnomalyAnalizing);
}

// The limit itself is not enough, one second more is.
class AnomalyTimerLimit : public testing::TestWithParam<int> {};

TEST_P(AnomalyTimerLimit, MustBeExceeded) {
    const int limit = GetParam();
    AnomalyTimer timer(limit, T0);
    for (int s = 0; s <= limit; ++s) {
        EXPECT_EQ(timer.look(true, T0 + s), AnomalyVerdict::No) << s;
        EXPECT_EQ(timer.state(), AnomalyAnalizing) << s;
    }
    EXPECT_EQ(timer.look(true, T0 + limit + 1), AnomalyVerdict::JustDetected);
    EXPECT_EQ(timer.state(), AnomalyDetected);
}
INSTANTIATE_TEST_SUITE_P(Limits, AnomalyTimerLimit, testing::Values(0, 3, 5, 10));

TEST(AnomalyTimer, IsDetectedOnceAndThenStands) {
    AnomalyTimer timer(3, T0);
    timer.look(true, T0);
    EXPECT_EQ(timer.look(true, T0 + 4), AnomalyVerdict::JustDetected);
    EXPECT_EQ(timer.look(true, T0 + 4), AnomalyVerdict::StillDetected);
    EXPECT_EQ(timer.look(true, T0 + 100000), AnomalyVerdict::StillDetected);
    // Also if the clock is set back meanwhile.
    EXPECT_EQ(timer.look(true, T0 - 100000), AnomalyVerdict::StillDetected);
    EXPECT_EQ(timer.state(), AnomalyDetected);
}

TEST(AnomalyTimer, EndsWithTheConditionAndStartsAnew) {
    AnomalyTimer timer(3, T0);
    timer.look(true, T0);
    timer.look(true, T0 + 4);
    EXPECT_EQ(timer.look(false, T0 + 5), AnomalyVerdict::No);
    EXPECT_EQ(timer.state(), AnomalyNotPresent);
    EXPECT_EQ(timer.look(true, T0 + 6), AnomalyVerdict::No);
    EXPECT_EQ(timer.look(true, T0 + 9), AnomalyVerdict::No);
    EXPECT_EQ(timer.look(true, T0 + 10), AnomalyVerdict::JustDetected);
}

TEST(AnomalyTimer, InterruptionStartsTheTimeAnew) {
    AnomalyTimer timer(10, T0);
    timer.look(true, T0);
    timer.look(true, T0 + 10);
    timer.look(false, T0 + 10);
    EXPECT_EQ(timer.look(true, T0 + 11), AnomalyVerdict::No);
    EXPECT_EQ(timer.look(true, T0 + 21), AnomalyVerdict::No);
    EXPECT_EQ(timer.look(true, T0 + 22), AnomalyVerdict::JustDetected);
}

TEST(AnomalyTimer, ClockSetBackPutsItOff) {
    AnomalyTimer timer(3, T0);
    timer.look(true, T0);
    EXPECT_EQ(timer.look(true, T0 - 3600), AnomalyVerdict::No);
    EXPECT_EQ(timer.look(true, T0 + 3), AnomalyVerdict::No);
    EXPECT_EQ(timer.look(true, T0 + 4), AnomalyVerdict::JustDetected);
}

TEST(AnomalyTimer, FarthestTimesDoNotOverflow) {
    AnomalyTimer forth(3, EARLIEST);
    forth.look(true, EARLIEST);
    EXPECT_EQ(forth.look(true, LATEST), AnomalyVerdict::JustDetected);
    AnomalyTimer back(3, LATEST);
    back.look(true, LATEST);
    EXPECT_EQ(back.look(true, EARLIEST), AnomalyVerdict::No);
}

TEST(AnomalyTimer, EachHasItsOwnTime) {
    AnomalyTimer first(3, T0);
    AnomalyTimer second(3, T0);
    first.look(true, T0);
    second.look(true, T0 + 2);
    EXPECT_EQ(first.look(true, T0 + 4), AnomalyVerdict::JustDetected);
    EXPECT_EQ(second.look(true, T0 + 4), AnomalyVerdict::No);
}

}  // namespace
