#include "Common/myMutex.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "support/LogCapture.h"

namespace {

using support::LogCapture;

// Asked from another thread: a thread's own lock says nothing to itself.
bool isFree(myMutex& mutex) {
    bool free = false;
    std::thread([&] {
        free = mutex.tryLock();
        if (free) {
            mutex.unlock();
        }
    }).join();
    return free;
}

TEST(NamedMutex, KeepsItsName) {
    const myMutex mutex("mutexQCSeq");
    EXPECT_EQ(mutex.getName(), QString("mutexQCSeq"));
}

TEST(NamedMutex, LocksAndUnlocks) {
    myMutex mutex("m");
    EXPECT_TRUE(isFree(mutex));
    mutex.lock();
    EXPECT_FALSE(isFree(mutex));
    EXPECT_FALSE(mutex.tryLock()) << "it is not recursive";
    mutex.unlock();
    EXPECT_TRUE(mutex.tryLock());
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(MutexGuard, HoldsTheLockForItsLife) {
    myMutex mutex("m");
    {
        const myMutexLocker guard(&mutex);
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(MutexGuard, WaitsForTheLock) {
    myMutex mutex("m");
    mutex.lock();
    std::atomic<bool> got{false};
    std::thread other([&] {
        const myMutexLocker guard(&mutex);
        got = true;
    });
    EXPECT_FALSE(got);
    mutex.unlock();
    other.join();
    EXPECT_TRUE(got);
}

TEST(MutexGuard, UnlockedBeforeItsEndDoesNotUnlockTwice) {
    LogCapture log;
    myMutex mutex("m");
    {
        myMutexLocker guard(&mutex);
        guard.unlock();
        EXPECT_TRUE(isFree(mutex));
        mutex.lock();
    }
    EXPECT_FALSE(isFree(mutex)) << "the guard's end gave away a lock that isn't its own";
    mutex.unlock();
    EXPECT_EQ(log.text(), "");
}

TEST(MutexGuard, SecondUnlockIsToldWithThreadAndName) {
    LogCapture log;
    myMutex mutex("mutexCABPData");
    {
        myMutexLocker guard(&mutex);
        guard.unlock();
        guard.unlock();
    }
    EXPECT_TRUE(isFree(mutex));
    char expected[128];
    std::snprintf(expected, sizeof(expected), "[from thread:%6ld] Mutex mutexCABPData gia' precedentemente unlocked",
                  static_cast<long>(syscall(SYS_gettid)));
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].level, "Err");
    EXPECT_EQ(log.entries()[0].file, "myMutex.cpp");
    EXPECT_EQ(log.entries()[0].function, "unlock");
    EXPECT_EQ(log.entries()[0].message, expected);
}

TEST(MutexGuard, RelockTakesTheLockAgain) {
    LogCapture log;
    myMutex mutex("m");
    {
        myMutexLocker guard(&mutex);
        guard.unlock();
        guard.relock();
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
    EXPECT_EQ(log.text(), "");
}

}  // namespace
