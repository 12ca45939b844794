// The stages of the clock synchronisation, one by one.
#include "CABP/ClockStages.h"

#include <gtest/gtest.h>

#include <climits>

using namespace clockstages;

namespace {

constexpr int32 RECENT = 1709294400;  // weight 26081

clkStruct table(const int32 (&epochs)[4], const int32 (&deltas)[4] = {0, 0, 0, 0}) {
    clkStruct made = {};
    for (int i = 0; i < 4; ++i) {
        made.clkValue[i].epochT = epochs[i];
        made.clkValue[i].delta = deltas[i];
    }
    return made;
}

TEST(HighestOtherEpoch, LeavesTheOwnEntryOut) {
    EXPECT_EQ(highestOtherEpoch(table({9, 3, 7, 5}), 0), 7);
    EXPECT_EQ(highestOtherEpoch(table({9, 3, 7, 5}), 2), 9);
    EXPECT_EQ(highestOtherEpoch(table({1, 1, 1, 1}), 3), 1);
}

TEST(HighestOtherEpoch, ComparesSignedAndIsNotBelowZero) {
    EXPECT_EQ(highestOtherEpoch(table({-1, -2, INT_MIN, 5}), 3), 0);
    EXPECT_EQ(highestOtherEpoch(table({INT_MAX, -2, INT_MIN, 5}), 3), INT_MAX);
}

struct OffsetCase {
    clkTime_t own, remote;
    bool isPositive;
    std::uint64_t msec;
};

TEST(RawOffset, IsTheDifferenceInMillisecondsAndItsSign) {
    const OffsetCase cases[] = {
        {{100, 500000}, {98, 200000}, true, 2300},
        {{100, 200000}, {98, 500000}, true, 1700},  // borrow
        {{100, 0}, {99, 999001}, true, 0},          // 999 microseconds
        {{98, 200000}, {100, 500000}, false, 2300},
        {{98, 500000}, {100, 200000}, false, 1700},  // borrow
        {{100, 500000}, {100, 200000}, true, 300},
        {{100, 200000}, {100, 500000}, false, 300},
        {{100, 200000}, {100, 200000}, false, 0},
        {{100, 201999}, {100, 200000}, true, 1},
        {{101, 499999}, {100, 0}, true, 1499},
        {{101, 500000}, {100, 0}, true, 1500},
        {{-5, 0}, {5, 0}, false, 10000},
    };
    for (const OffsetCase& c : cases) {
        const RawOffset offset = rawOffset(c.own, c.remote);
        EXPECT_EQ(offset.isPositive, c.isPositive) << c.own.tv_sec << "." << c.own.tv_usec;
        EXPECT_EQ(offset.msec, c.msec) << c.own.tv_sec << "." << c.own.tv_usec;
    }
}

TEST(RawOffset, OfAFarClockDoesNotWrapIntoASmallOne) {
    // 4294968 s are 704 ms in 32 bits.
    EXPECT_EQ(rawOffset({RECENT, 0}, {RECENT - 4294968, 0}).msec, 4294968000u);
    EXPECT_EQ(rawOffset({INT_MAX, 0}, {INT_MIN, 0}).msec, 4294967295000u);
    EXPECT_EQ(rawOffset({INT_MIN, 0}, {INT_MAX, 0}).msec, 4294967295000u);
}

TEST(RawOffset, WithMicrosecondsOutOfTheirRangeIsNeverASmallOne) {
    EXPECT_GE(rawOffset({101, 0}, {100, INT_MAX}).msec, LARGEOFFSET_MS);
    EXPECT_GE(rawOffset({100, 0}, {101, INT_MIN}).msec, LARGEOFFSET_MS);
    EXPECT_GE(rawOffset({100, 0}, {100, INT_MIN}).msec, LARGEOFFSET_MS);
    EXPECT_GE(rawOffset({100, INT_MAX}, {100, INT_MIN}).msec, LARGEOFFSET_MS);
}

TEST(IsStampedAfter, LooksAtTheSecondsOfTheOthers) {
    clkStruct t = {};
    for (clockData& entry : t.clkValue) {
        entry.T = {100, 0};
    }
    t.clkValue[2].T.tv_usec = 999999;
    EXPECT_FALSE(isStampedAfter(t, 0, 1));
    t.clkValue[0].T.tv_sec = 200;
    EXPECT_FALSE(isStampedAfter(t, 0, 1)) << "the own entry doesn't count";
    t.clkValue[3].T.tv_sec = 101;
    EXPECT_TRUE(isStampedAfter(t, 0, 1));
    EXPECT_FALSE(isStampedAfter(t, 0, 3));
}

TEST(WeightOf, IsOneForAnOrdinaryClockAndTheUpperHalfForOneSetByHand) {
    EXPECT_EQ(weightOf(0), 1);
    EXPECT_EQ(weightOf(1), 1);
    EXPECT_EQ(weightOf(0x1FFFF), 1);
    EXPECT_EQ(weightOf(0x20000), 2);
    EXPECT_EQ(weightOf(RECENT), 26081);
    EXPECT_EQ(weightOf(INT_MAX), 32767);
    EXPECT_EQ(weightOf(-1), 1);
    EXPECT_EQ(weightOf(INT_MIN), 1);
}

TEST(Filter, MovesByAThirtiethOfTheWeighedOffset) {
    const clkStruct ordinary = table({1, 1, 1, 1});
    EXPECT_EQ(filtered(ordinary, 1, 1000, 0), 266);  // 1000/4 = 250; 250*32/30
    EXPECT_EQ(filtered(ordinary, 1, -1000, 0), -266);
    EXPECT_EQ(filtered(ordinary, 1, 1001, 0), 266);    // 250.25 is cut
    EXPECT_EQ(filtered(ordinary, 1, -1003, 0), -266);  // -250.75 too, towards zero
    EXPECT_EQ(filtered(ordinary, 1, 3, 0), 0);
    // The others agree with what is believed: (1000 + 3*31)/4 = 273; (1000*29 + 273*32)/30 = 1257
    EXPECT_EQ(filtered(ordinary, 1, 1000, 1000), 1257);
    // -1000 >> 5 is -32: (1000 - 96)/4 = 226; (-29000 + 7232)/30 = -725
    EXPECT_EQ(filtered(ordinary, 1, 1000, -1000), -725);
    EXPECT_EQ(filtered(table({0, 0, 0, 0}), 2, 1000, 0), 266) << "absent clocks weigh 1 too";
}

TEST(Filter, CountsTheReferenceByItsWeight) {
    // 26081*1000/26084 = 999; 999*32/30 = 1065
    EXPECT_EQ(filtered(table({1, RECENT, 1, 1}), 1, 1000, 0), 1065);
    // Next to another heavy clock: 26081*1000/52164 = 499; 499*32/30 = 532
    EXPECT_EQ(filtered(table({1, RECENT, 1, RECENT}), 1, 1000, 0), 532);
    // 32767*1499/131068 = 374; 374*32/30 = 398
    EXPECT_EQ(filtered(table({INT_MAX, INT_MAX, INT_MAX, INT_MAX}), 1, 1499, 0), 398);
}

TEST(Filter, StaysWhereTheOffsetIsWhatItBelieves) {
    for (int32 ms : {-1499, -76, -1, 0, 1, 25, 1499}) {
        EXPECT_EQ(filtered(table({1, RECENT, 1, 1}), 1, ms, ms * 32), ms * 32);
    }
}

TEST(Filter, BelievesInWholeMillisecondsRoundedDown) {
    EXPECT_EQ(smoothed(31), 0);
    EXPECT_EQ(smoothed(32), 1);
    EXPECT_EQ(smoothed(-1), -1);
    EXPECT_EQ(smoothed(-266), -9);
}

TEST(GroupMean, SumsTheClocksThatTakePart) {
    GroupSum sum = sumOfDeltas(table({1, 0, RECENT, -1}, {10, 500, -40, 7}));
    EXPECT_EQ(sum.accT, -23);
    EXPECT_EQ(sum.countMCU, 3);
    sum = sumOfDeltas(table({0, 0, 0, 0}, {10, 500, -40, 7}));
    EXPECT_EQ(sum.accT, 0);
    EXPECT_EQ(sum.countMCU, 0);
    sum = sumOfDeltas(table({1, 1, 1, 1}, {INT_MIN, INT_MIN, INT_MIN, INT_MIN}));
    EXPECT_EQ(sum.accT, 4 * std::int64_t{INT_MIN});
}

TEST(GroupMean, MovesByA32ndOfTheAbsoluteSum) {
    EXPECT_EQ(groupMean({64, 2}, 0), 1000u);
    EXPECT_EQ(groupMean({-64, 2}, 0), 1000u);
    EXPECT_EQ(groupMean({0, 4}, 32000), 31000u);
    EXPECT_EQ(groupMean({100, 3}, 50000), 49479u);  // (33333 + 1550000) >> 5
    EXPECT_EQ(groupMean({0, 1}, 1), 0u);
}

TEST(GroupMean, IsLeftAloneWhileNoClockTakesPart) {
    EXPECT_EQ(groupMean({0, 0}, 77777), 77777u);
    EXPECT_EQ(groupMean({5, 0}, UINT_MAX), UINT_MAX);
}

TEST(GroupMean, NeverExceedsItsLimit) {
    EXPECT_EQ(groupMean({3200, 1}, 0), 100000u);
    EXPECT_EQ(groupMean({3201, 1}, 0), 100000u);
    EXPECT_EQ(groupMean({3199, 1}, 0), 99968u);
    EXPECT_EQ(groupMean({0, 1}, 138547333), 100000u);  // times 31 this is 27 in 32 bits
    EXPECT_EQ(groupMean({4 * std::int64_t{INT_MIN}, 4}, UINT_MAX), 100000u);
    EXPECT_EQ(groupMean({4 * std::int64_t{INT_MAX}, 1}, UINT_MAX), 100000u);
}

TEST(WeightedOffset, SubtractsTheGroupsMeanSigned) {
    EXPECT_EQ(weightedOffset(20, 48999), -28);
    EXPECT_EQ(weightedOffset(-100, 48437), -148);
    EXPECT_EQ(weightedOffset(0, 999), 0);
    EXPECT_EQ(weightedOffset(INT_MIN, UINT_MAX), std::int64_t{INT_MIN} - 4294967);
}

TEST(Slew, GoesAgainstTheOffsetWithBothPartsOfOneSign) {
    struct {
        std::int64_t offset;
        long sec, usec;
    } const cases[] = {{76, 0, -76000},     {-76, 0, 76000},    {1000, -1, 0}, {-1000, 1, 0},
                       {1234, -1, -234000}, {-1499, 1, 499000}, {0, 0, 0}};
    for (const auto& c : cases) {
        const timeval slew = slewAgainst(c.offset);
        EXPECT_EQ(slew.tv_sec, c.sec) << c.offset;
        EXPECT_EQ(slew.tv_usec, c.usec) << c.offset;
    }
}

}  // namespace
