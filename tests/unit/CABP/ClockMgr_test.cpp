// The clock manager: priority, the exits of each stage, the correction and its log lines.
#include "CABP/ClockMgr.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <type_traits>

#include "Clocks.h"

using support::LogCapture;
using support::VirtualClock;
namespace replaced = support::replaced;

static_assert(std::is_same<decltype(static_cast<int (ClockMgr::*)(time_t)>(&ClockMgr::setClock)),
                           int (ClockMgr::*)(time_t)>::value,
              "declared, although nothing calls it");

namespace {

constexpr int64_t SECOND = 1000000;
constexpr int64_t MSEC = 1000;
constexpr int32 NOW_S = VirtualClock::START_OF_WALL;

std::string line(const char* level, const char* function, const std::string& message) {
    return support::logLineOf(level, "ClockMgr.cpp", function, message);
}

// Card A looks at a frame of card B; all cards are there, ordinary and in step.
class ClockTest : public testing::Test {
  protected:
    ClockTest() {
        VirtualClock::setWall(NOW_S, 250000);
        CABPAddr = 0xEA;
        OpenClock::prevdelta = 0;
        replaced::adjtime().reset();
        replaced::adjtime().forget();
        for (clockData& entry : table.clkValue) {
            entry = {stamp(VirtualClock::wall()), 1, 0};
        }
        own().T = {1, 2};  // overwritten by each stamp
    }

    clockData& own() { return table.clkValue[0]; }
    clockData& remote() { return table.clkValue[1]; }

    /// The remote clock shows so much less than the own one.
    void setOffset(int64_t us) { remote().T = stamp(VirtualClock::wall() - us); }
    /// The filter believes in an offset and hears it again, so that the own delta becomes just that. The own entry
    /// takes no part in the group's mean, which so decays by 1/32.
    void believe(int32 ms) {
        OpenClock::prevdelta = ms * 32;
        setOffset(ms * MSEC);
        own().epochT = 0;
    }
    void elaborate(uint8 MCUrf = 1) {
        clock.elaborateClkData(MCUrf, table);
        EXPECT_TRUE(clock.isFree());
    }
    /// Nothing but the own stamp has changed.
    void expectOnlyStamped(clkStruct before) {
        before.clkValue[0].T = stamp(VirtualClock::wall());
        EXPECT_EQ(image(table), image(before));
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(replaced::adjtime().count(), 0u);
    }
    static std::size_t corrections() { return replaced::adjtime().count(); }
    static int64_t lastCorrection() { return microseconds(std::get<0>(replaced::adjtime().calls().back())); }

    LogCapture log;
    OpenClock clock;
    clkStruct table = {};
};

TEST_F(ClockTest, StartsWithoutPriorityAndReadyToCorrect) {
    EXPECT_EQ(clock.mutexClk->getName(), QString("mutexClk"));
    EXPECT_TRUE(clock.isFree());
    EXPECT_EQ(clock.epochWhenClockChanged, 0);
    EXPECT_EQ(clock.lastAdj, 1);
}

// ---------------------------------------------------------------------------------------------------------------
// Stamping

TEST_F(ClockTest, StampsTheOwnEntryBeforeAFrame) {
    own().epochT = 0;
    own().delta = 42;
    table.TftTime = 4711;
    clkStruct expected = table;
    expected.clkValue[0].T = {NOW_S, 250000};
    expected.clkValue[0].epochT = 1;
    clock.prepareClkData(table);
    EXPECT_EQ(image(table), image(expected));
    EXPECT_TRUE(clock.isFree());
}

TEST_F(ClockTest, StampsTheEntryOfItsCabinet) {
    CABPAddr = 0xED;
    clkStruct expected = {};
    expected.clkValue[3] = {{NOW_S, 250000}, 1, 0};
    clkStruct empty = {};
    clock.prepareClkData(empty);
    EXPECT_EQ(image(empty), image(expected));
}

TEST_F(ClockTest, KeepsAMarkThatIsThere) {
    own().epochT = 77;
    clock.prepareClkData(table);
    EXPECT_EQ(time32_t{own().epochT}, 77);
}

TEST_F(ClockTest, MarksAClockSetByHandWithItsMoment) {
    for (int32 mark : {0, 1, NOW_S}) {
        own().epochT = mark;
        clock.epochWhenClockChanged = NOW_S - 1000;  // its age plays no part here
        clock.prepareClkData(table);
        EXPECT_EQ(time32_t{own().epochT}, NOW_S - 1000);
        EXPECT_EQ(clock.epochWhenClockChanged, NOW_S - 1000);
    }
}

TEST_F(ClockTest, ACardOutsideThePlantTakesNoPart) {
    const clkStruct before = table;
    for (uint8 address : {0xE0, 0xE9, 0xEE, 0xEF, 0x00, 0xFF}) {
        CABPAddr = address;
        clock.prepareClkData(table);
        EXPECT_TRUE(clock.isFree());
        elaborate();
        elaborate(246);
        EXPECT_EQ(image(table), image(before)) << int{address};
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(ClockTest, AnIndexOfNoCabinetIsReportedAndDropped) {
    const clkStruct before = table;
    for (uint8 index : {4, 5, 246, 255}) {
        log.clear();
        elaborate(index);
        EXPECT_EQ(log.text(), line("Err", "elaborateClkData",
                                   "Indice del mittente non corretto! MCU:" + std::to_string(index) + "\n"));
        EXPECT_EQ(image(table), image(before));
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Priority

TEST_F(ClockTest, TheReferenceReportsTheGroupsMeanAndAdjustsNothing) {
    own().epochT = 2;
    setOffset(1000 * MSEC);
    OpenClock::prevdelta = 3200;
    for (uint32 mean : {99999u, 999u, 100000u, 4294967295u}) {
        table.TftTime = mean;
        clkStruct before = table;
        before.clkValue[0].delta = static_cast<int32>(mean / 1000);
        elaborate();
        expectOnlyStamped(before);
        EXPECT_EQ(OpenClock::prevdelta, 3200);
    }
}

TEST_F(ClockTest, AloneItIsTheReference) {
    for (int i = 1; i < 4; ++i) {
        table.clkValue[i].epochT = i == 2 ? -5 : 0;
    }
    table.TftTime = 5000;
    elaborate();
    EXPECT_EQ(int32{own().delta}, 5);
}

TEST_F(ClockTest, OrdinaryClocksCompareWithEverySender) {
    for (uint8 sender = 1; sender < 4; ++sender) {
        OpenClock::prevdelta = 0;
        table.clkValue[sender].T = stamp(VirtualClock::wall() - 1000 * MSEC);
        elaborate(sender);
        EXPECT_EQ(OpenClock::prevdelta, 266) << int{sender};
        EXPECT_EQ(int32{own().delta}, 8);
    }
}

TEST_F(ClockTest, IgnoresASenderWhileAThirdClockHasPriority) {
    setOffset(1000 * MSEC);
    table.clkValue[3].epochT = 2;
    table.TftTime = 3000;
    own().delta = 17;
    const clkStruct before = table;
    elaborate();
    expectOnlyStamped(before);
    EXPECT_EQ(OpenClock::prevdelta, 0);
    elaborate(3);
    EXPECT_EQ(int32{own().delta}, 0) << "that of the third clock counts";
}

TEST_F(ClockTest, ANewlySetClockTakesThePriorityOfAllOthers) {
    for (int32 age : {0, 299, -299}) {
        own().epochT = 1;
        remote().epochT = NOW_S - 300;
        table.clkValue[2].epochT = 0;
        clock.epochWhenClockChanged = NOW_S - age;
        table.TftTime = 8000;
        elaborate();
        EXPECT_EQ(time32_t{own().epochT}, NOW_S - age);
        EXPECT_EQ(clock.epochWhenClockChanged, NOW_S - age);
        for (int i = 1; i < 4; ++i) {
            EXPECT_EQ(time32_t{table.clkValue[i].epochT}, 1) << i;
        }
        EXPECT_EQ(int32{own().delta}, 8) << "it is the reference";
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(ClockTest, ThePriorityEndsAfterFiveMinutes) {
    for (int32 age : {300, -300, 100000}) {
        log.clear();
        OpenClock::prevdelta = 0;
        setOffset(1000 * MSEC);
        clock.epochWhenClockChanged = NOW_S - age;
        elaborate();
        EXPECT_EQ(log.text(), line("", "elaborateClkData", "Fine priorita' di questo orologio\n"));
        EXPECT_EQ(clock.epochWhenClockChanged, 0);
        EXPECT_EQ(time32_t{own().epochT}, 1);
        EXPECT_EQ(OpenClock::prevdelta, 266) << "it compares again, in the same call";
    }
}

TEST_F(ClockTest, ANewerOrEqualClockTakesThePriorityAway) {
    for (int32 newer : {0, 1}) {
        log.clear();
        OpenClock::prevdelta = 0;
        setOffset(500 * MSEC);
        clock.epochWhenClockChanged = NOW_S - 10;
        remote().epochT = NOW_S - 10 + newer;
        elaborate();
        EXPECT_EQ(log.text(), line("", "elaborateClkData", "Altro display guadagna priorita'\n"));
        EXPECT_EQ(clock.epochWhenClockChanged, 0);
        EXPECT_EQ(time32_t{own().epochT}, 1);
        EXPECT_EQ(time32_t{remote().epochT}, NOW_S - 10 + newer);
        EXPECT_EQ(OpenClock::prevdelta, 532) << "and is compared with";
    }
}

TEST_F(ClockTest, AnExpiredPriorityIsNotedAsExpiredEvenIfAnotherIsNewer) {
    clock.epochWhenClockChanged = NOW_S - 300;
    remote().epochT = NOW_S;
    elaborate();
    EXPECT_EQ(log.text(), line("", "elaborateClkData", "Fine priorita' di questo orologio\n"));
}

TEST_F(ClockTest, AMarkThatTheFrameBroughtBackMakesItTheReference) {
    // The frame brought back a mark of its own that this card doesn't remember.
    own().epochT = NOW_S - 10000;
    table.TftTime = 2000;
    elaborate();
    EXPECT_EQ(time32_t{own().epochT}, NOW_S - 10000);
    EXPECT_EQ(int32{own().delta}, 2);
}

// ---------------------------------------------------------------------------------------------------------------
// Offsets

TEST_F(ClockTest, FiltersOffsetsBelowOneAndAHalfSeconds) {
    setOffset(1499999);
    elaborate();
    EXPECT_EQ(OpenClock::prevdelta, 398);  // 1499/4 = 374; 374*32/30
    EXPECT_EQ(int32{own().delta}, 12);
    OpenClock::prevdelta = 0;
    setOffset(-1499999);
    elaborate();
    EXPECT_EQ(OpenClock::prevdelta, -398);
    EXPECT_EQ(int32{own().delta}, -13);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ClockTest, StartsTheFilterOverAtOneAndAHalfSeconds) {
    for (int64_t us : {1500 * MSEC, -1500 * MSEC, 86400 * SECOND}) {
        log.clear();
        OpenClock::prevdelta = 3200;
        own().delta = 100;
        setOffset(us);
        clkStruct expected = table;
        expected.clkValue[0].T = {NOW_S, 250000};
        expected.clkValue[0].delta = 0;
        for (int i = 2; i < 4; ++i) {
            table.clkValue[i].T = expected.clkValue[i].T = remote().T;
        }
        elaborate();
        EXPECT_EQ(log.text(), line("", "elaborateClkData",
                                   "Sincronizzo gli orologi\n my_tv_sec:" + std::to_string(NOW_S) +
                                       "  rem_tv_sec:" + std::to_string(remote().T.tv_sec) + "\n"));
        EXPECT_EQ(image(table), image(expected));
        EXPECT_EQ(OpenClock::prevdelta, 0);
        EXPECT_EQ(corrections(), 0u) << "the clock itself is left alone";
    }
}

TEST_F(ClockTest, ALargeOffsetWithinAMinuteOfACorrectionIsIgnored) {
    setOffset(-1500000);
    OpenClock::prevdelta = 3200;
    clock.lastAdj = NOW_S - 59;
    const clkStruct before = table;
    elaborate();
    expectOnlyStamped(before);
    EXPECT_EQ(OpenClock::prevdelta, 3200);
    clock.lastAdj = NOW_S - 60;
    elaborate();
    EXPECT_EQ(OpenClock::prevdelta, 0);
}

TEST_F(ClockTest, ALargeOffsetOfASenderWhoseStampIsNotTheLatestIsIgnored) {
    setOffset(1500000);
    OpenClock::prevdelta = 3200;
    table.clkValue[3].T.tv_sec = remote().T.tv_sec + 1;
    table.clkValue[2].T = remote().T;
    const clkStruct before = table;
    elaborate();
    expectOnlyStamped(before);
    EXPECT_EQ(OpenClock::prevdelta, 3200);
}

TEST_F(ClockTest, SmallOffsetsAreFilteredWithinTheMinuteToo) {
    setOffset(1000 * MSEC);
    clock.lastAdj = NOW_S;
    elaborate();
    EXPECT_EQ(int32{own().delta}, 8);
}

TEST_F(ClockTest, TheGroupsMeanFollowsTheDeltasOfThoseWhoTakePart) {
    setOffset(1000 * MSEC);  // own delta becomes 8
    remote().delta = -100;
    table.clkValue[2].delta = 7000;
    table.clkValue[2].epochT = 0;
    table.clkValue[3].delta = 30;
    table.TftTime = 5000;
    elaborate();
    EXPECT_EQ(uint32{table.TftTime}, (62000u / 3 + 5000u * 31) >> 5);
}

TEST_F(ClockTest, TheGroupsMeanIsCapped) {
    remote().delta = 100000000;
    elaborate();
    EXPECT_EQ(uint32{table.TftTime}, 100000u);
    table.TftTime = 138547333;
    remote().delta = 0;
    elaborate();
    EXPECT_EQ(uint32{table.TftTime}, 100000u);
}

TEST_F(ClockTest, ItsOwnEntryAsASenderIsInStepWithItself) {
    OpenClock::prevdelta = 4000;
    elaborate(0);
    EXPECT_EQ(OpenClock::prevdelta, 3965);  // dm 125; 3*125/4 = 93; (116000 + 2976)/30
}

// ---------------------------------------------------------------------------------------------------------------
// Correction

TEST_F(ClockTest, TheFirstOffsetsAfterAStartAreSmall) {
    setOffset(1499 * MSEC);
    elaborate();
    EXPECT_EQ(corrections(), 0u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ClockTest, LooksAtNothingInTheDeadBand) {
    for (int32 ms : {0, 25, -25}) {
        believe(ms);
        elaborate();
        ASSERT_EQ(int32{own().delta}, ms);
    }
    EXPECT_EQ(corrections(), 0u);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(clock.lastAdj, 1);
}

TEST_F(ClockTest, ShowsTheTableBelowTheCorrection) {
    for (int32 ms : {26, 75, -26, -75}) {
        log.clear();
        believe(ms);
        elaborate();
        EXPECT_EQ(log.lines().size(), 7u);
        EXPECT_EQ(log.lines().at(0) + "\n", line("", "elaborateClkData", "delta pesato:" + std::to_string(ms) + "\n"));
    }
    EXPECT_EQ(corrections(), 0u);
    EXPECT_EQ(clock.lastAdj, 1);
}

TEST_F(ClockTest, WritesEveryLineOfACorrection) {
    believe(176);
    table.clkValue[2] = {{5, 7000}, -3, 6400};
    table.clkValue[3] = {{-1, -7999}, 0, -1234567};
    replaced::adjtime().does([this](const timeval*, timeval* old) {
        EXPECT_FALSE(clock.isFree()) << "nobody else meanwhile";
        *old = {-1, -250000};
        return 0;
    });
    elaborate();
    // Mean of B and C, 6400/2 = 3200 ms, makes 100000 us: 176 - 100.
    ASSERT_EQ(corrections(), 1u);
    EXPECT_EQ(lastCorrection(), -76000);
    EXPECT_EQ(clock.lastAdj, NOW_S);
    EXPECT_EQ(log.text(),
              line("", "elaborateClkData", "delta:0.-76000\n") + line("", "elaborateClkData", "oldDelta:-1.-250000\n") +
                  line("", "elaborateClkData", "delta pesato:76\n") +
                  line("", "elaborateClkData", "-0- T: 1709294400.250s delta:    176ms epochT:          0s\n") +
                  line("", "elaborateClkData", "-1- T: 1709294400.074s delta:      0ms epochT:          1s\n") +
                  line("", "elaborateClkData", "-2- T:          5.007s delta:   6400ms epochT:         -3s\n") +
                  line("", "elaborateClkData", "-3- T:         -1.-07s delta: -1234567ms epochT:          0s\n") +
                  line("", "elaborateClkData", "accT:  6400 countMCU:2\n") +
                  line("", "elaborateClkData", "TftTime:100000\n"));
}

TEST_F(ClockTest, CorrectsByTheWholeOffsetInSecondsAndMicroseconds) {
    struct {
        int32 ms;
        long sec, usec;
    } const cases[] = {{76, 0, -76000}, {-76, 0, 76000}, {1000, -1, 0}, {1499, -1, -499000}, {-1234, 1, 234000}};
    for (const auto& c : cases) {
        clock.lastAdj = 1;
        replaced::adjtime().forget();
        believe(c.ms);
        elaborate();
        ASSERT_EQ(corrections(), 1u) << c.ms;
        const timeval delta = std::get<0>(replaced::adjtime().call(0));
        EXPECT_EQ(delta.tv_sec, c.sec) << c.ms;
        EXPECT_EQ(delta.tv_usec, c.usec) << c.ms;
    }
}

TEST_F(ClockTest, SubtractsTheErrorThatTheGroupShares) {
    // The mean decays from 50000 to 48437 microseconds: 48 ms of the own offset are the group's.
    struct {
        int32 ms;
        const char* shown;
        std::size_t corrections;
    } const cases[] = {{20, "-28", 0}, {73, nullptr, 0}, {74, "26", 0},
                       {123, "75", 0}, {124, "76", 1},   {-28, "-76", 1}};
    for (const auto& c : cases) {
        log.clear();
        clock.lastAdj = 1;
        replaced::adjtime().forget();
        table.TftTime = 50000;
        believe(c.ms);
        elaborate();
        EXPECT_EQ(corrections(), c.corrections) << c.ms;
        EXPECT_EQ(log.has("", std::string("delta pesato:") + (c.shown == nullptr ? "25" : c.shown)), c.shown != nullptr)
            << c.ms;
    }
}

TEST_F(ClockTest, AFailedAdjustmentIsReportedAndDoesNotStartTheInterval) {
    replaced::adjtime().fails(EPERM);
    believe(100);
    elaborate();
    EXPECT_EQ(corrections(), 1u);
    EXPECT_EQ(clock.lastAdj, 1);
    const std::string expected =
        line("Err", "elaborateClkData", "adjtime() failed, errno = " + std::to_string(EPERM) + "\n") +
        line("", "elaborateClkData", "delta:0.-100000\n") + line("", "elaborateClkData", "oldDelta:0.000000\n") +
        line("", "elaborateClkData", "delta pesato:100\n");
    EXPECT_EQ(log.text().substr(0, expected.size()), expected);
    EXPECT_EQ(log.lines().size(), 10u);

    replaced::adjtime().reset();
    believe(100);
    elaborate();
    EXPECT_EQ(corrections(), 2u) << "the next frame tries again";
    EXPECT_EQ(clock.lastAdj, NOW_S);
}

TEST_F(ClockTest, CorrectsAtMostOnceAMinute) {
    believe(1000);
    elaborate();
    ASSERT_EQ(corrections(), 1u);
    log.clear();
    for (int second = 1; second < 60; ++second) {
        VirtualClock::advance(SECOND);
        believe(1000);
        elaborate();
    }
    EXPECT_EQ(corrections(), 1u);
    EXPECT_EQ(log.text(), "");
    VirtualClock::advance(SECOND);
    believe(1000);
    elaborate();
    EXPECT_EQ(corrections(), 2u);
    EXPECT_EQ(clock.lastAdj, NOW_S + 60);
}

TEST_F(ClockTest, AClockStepBackHoldsCorrectionsBack) {
    clock.lastAdj = NOW_S + 3600;
    believe(1000);
    elaborate();
    EXPECT_EQ(corrections(), 0u);
}

TEST_F(ClockTest, DoesNotFollowASenderWithoutAnEntry) {
    for (clockData& entry : table.clkValue) {
        entry.epochT = 0;
    }
    table.TftTime = 7000;
    believe(1000);
    elaborate();
    EXPECT_EQ(int32{own().delta}, 1000);
    EXPECT_EQ(uint32{table.TftTime}, 7000u);
    EXPECT_EQ(corrections(), 0u);
    EXPECT_EQ(log.text(), "");
}

}  // namespace
