#include "support/VirtualClock.h"

#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <QThread>
#include <chrono>
#include <thread>

using support::VirtualClock;

namespace {

std::int64_t monotonic() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

}  // namespace

TEST(VirtualClock, StartsAtAFixedDate) {
    EXPECT_EQ(time(nullptr), VirtualClock::START_OF_WALL);
    struct timeval now;
    gettimeofday(&now, nullptr);
    EXPECT_EQ(now.tv_sec, VirtualClock::START_OF_WALL);
    EXPECT_EQ(now.tv_usec, 0);
    EXPECT_EQ(monotonic(), VirtualClock::START_OF_MONOTONIC * 1000000);
    struct tm local;
    const time_t seconds = time(nullptr);
    localtime_r(&seconds, &local);
    EXPECT_EQ(local.tm_hour, 12);
}

TEST(VirtualClock, EveryWaitMovesItByWhatWasAskedFor) {
    const auto realStart = std::chrono::steady_clock::now();
    usleep(7);
    EXPECT_EQ(VirtualClock::now(), 7);
    sleep(120);
    EXPECT_EQ(VirtualClock::now(), 120000007);
    QThread::msleep(250);
    EXPECT_EQ(VirtualClock::now(), 120250007);
    QThread::sleep(1);
    QThread::usleep(3);
    EXPECT_EQ(VirtualClock::now(), 121250010);
    struct timespec half = {0, 500000000};
    nanosleep(&half, nullptr);
    clock_nanosleep(CLOCK_MONOTONIC, 0, &half, nullptr);
    EXPECT_EQ(VirtualClock::now(), 122250010);
    struct timespec until = {VirtualClock::START_OF_MONOTONIC + 200, 0};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    EXPECT_EQ(VirtualClock::now(), 200000000);
    struct timeval ten = {0, 10000};
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &ten), 0);
    EXPECT_EQ(VirtualClock::now(), 200010000);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(VirtualClock::now(), 202010000);
    EXPECT_EQ(monotonic(), VirtualClock::START_OF_MONOTONIC * 1000000 + 202010000);
    EXPECT_EQ(time(nullptr), VirtualClock::START_OF_WALL + 202);
    EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(5));
}

TEST(VirtualClock, NotesTheWaits) {
    usleep(2000);
    usleep(3000);
    QThread::msleep(5);
    EXPECT_EQ(VirtualClock::countWaits("usleep"), 2u);
    EXPECT_EQ(VirtualClock::sumWaits("usleep"), 5000);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 1u);
    ASSERT_EQ(VirtualClock::waits().size(), 3u);
    EXPECT_EQ(VirtualClock::waits()[1].at, 2000);
    EXPECT_EQ(VirtualClock::waits()[1].us, 3000);
}

TEST(VirtualClock, ObserverSeesEachWaitBeforeItPasses) {
    std::int64_t seen = -1;
    VirtualClock::onWait([&](const VirtualClock::Wait& wait) { seen = wait.us + VirtualClock::now(); });
    usleep(40);
    EXPECT_EQ(seen, 40);
}

TEST(VirtualClock, WallCanBeSetApart) {
    usleep(250000);
    VirtualClock::setWall(1000, 5);
    EXPECT_EQ(time(nullptr), 1000);
    struct timeval now;
    gettimeofday(&now, nullptr);
    EXPECT_EQ(now.tv_usec, 5);
    EXPECT_EQ(VirtualClock::now(), 250000);
}

TEST(VirtualClock, EventsRunInOrderAtTheirInstant) {
    std::vector<std::int64_t> ran;
    VirtualClock::at(3000, [&] { ran.push_back(VirtualClock::now()); });
    VirtualClock::at(1000, [&] {
        ran.push_back(VirtualClock::now());
        VirtualClock::after(500, [&] { ran.push_back(VirtualClock::now()); });
    });
    VirtualClock::at(9000, [&] { ran.push_back(-1); });
    usleep(5000);
    EXPECT_EQ(ran, (std::vector<std::int64_t>{1000, 1500, 3000}));
    EXPECT_EQ(VirtualClock::now(), 5000);
    EXPECT_TRUE(VirtualClock::hasEvents());
}

TEST(VirtualClock, ThreadsShareIt) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 1000; ++n) {
                usleep(10);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GE(VirtualClock::now(), 10000);
    EXPECT_LE(VirtualClock::now(), 40000);
    EXPECT_EQ(VirtualClock::sumWaits("usleep"), 40000);
}

TEST(VirtualClock, RealTimeOnDemand) {
    VirtualClock::useRealTime();
    const std::int64_t before = monotonic();
    usleep(2000);
    EXPECT_GE(monotonic() - before, 2000);
    EXPECT_EQ(VirtualClock::now(), 0);
    VirtualClock::useRealTime(false);
    EXPECT_EQ(time(nullptr), VirtualClock::START_OF_WALL);
}

TEST(VirtualClockDeathTest, LimitEndsALoopThatNeverEnds) {
    EXPECT_DEATH(
        {
            VirtualClock::setLimit(1000000);
            for (;;) {
                usleep(100);
            }
        },
        "");
}
