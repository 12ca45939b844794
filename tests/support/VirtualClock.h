// One virtual clock behind every call of the product and of the tests that tells or spends time: time, clock_gettime
// (monotonic and wall), gettimeofday, sleep, usleep, nanosleep, clock_nanosleep, select and QThread's sleeps. Each
// wait moves it at once by what was asked for; nothing is ever slept. Calls made inside shared libraries (Qt, libc)
// keep the real time: QThread::wait(ms) and wait conditions are real.
//
// On in every test from its first instruction, at 2024-03-01 12:00:00 UTC; the time zone of tests is UTC. All functions
// may be called from any thread. Several waiting threads share the clock: a wait ends when the clock has reached its
// end, whoever moved it there.
#ifndef TESTS_SUPPORT_VIRTUALCLOCK_H
#define TESTS_SUPPORT_VIRTUALCLOCK_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace support {

class VirtualClock {
  public:
    /// Wall time at start, seconds since 1970: 2024-03-01 12:00:00 UTC.
    static constexpr std::int64_t START_OF_WALL = 1709294400;
    /// CLOCK_MONOTONIC at start, in seconds; apart from the wall, so that a mix-up shows.
    static constexpr std::int64_t START_OF_MONOTONIC = 5000;

    struct Wait {
        std::string call;  ///< name of the call, e.g. "usleep", "select", "QThread::msleep"
        std::int64_t at;   ///< when it began, virtual microseconds
        std::int64_t us;   ///< what was asked for, microseconds
    };

    /// Microseconds since the start of the test.
    static std::int64_t now();
    /// Wall time in microseconds since 1970.
    static std::int64_t wall();
    /// Sets the wall time; the monotonic clock doesn't notice.
    static void setWall(std::int64_t seconds, std::int64_t us = 0);

    /// Moves the clock on, running what falls due on the way, in order of time.
    static void advance(std::int64_t us);
    static void advanceTo(std::int64_t instant);
    /// Moves on to the next event that is due by `limit`, or to `limit`, and runs what is due then.
    static void step(std::int64_t limit);
    /// Runs `action` when the clock reaches `instant` (at once, at the next move, if it has passed). It runs on the
    /// thread whose wait moves the clock, with no lock held; it may feed lines, schedule more and wait itself.
    static void at(std::int64_t instant, std::function<void()> action);
    static void after(std::int64_t us, std::function<void()> action);
    static bool hasEvents();

    /// Real time instead of the virtual one (for pseudo-terminals, and threads that must really wait), or back.
    static void useRealTime(bool real = true);
    static bool isReal();
    /// Every virtual wait also really sleeps this long (0, the default: only yields), so that other threads get their
    /// share while one of them waits in a loop.
    static void setRealPause(std::int64_t us);
    /// Ends the process with a message when the clock passes this instant: for loops that might never end.
    static void setLimit(std::int64_t instant);

    /// The waits so far (at most 100,000 are kept), of every thread.
    static std::vector<Wait> waits();
    /// How many waits of this call, and what they come to in microseconds.
    static std::size_t countWaits(const std::string& call);
    static std::int64_t sumWaits(const std::string& call);
    static void clearWaits();
    /// Called at the beginning of each wait (before the clock moves), on the waiting thread, with no lock held.
    static void onWait(std::function<void(const Wait&)> observer);

    /// As at the start of a test.
    static void reset();

    /// For the replaced calls: notes a wait without moving the clock.
    static void note(const char* call, std::int64_t us);
    /// For the replaced calls: notes a wait and moves the clock by it.
    static void wait(const char* call, std::int64_t us);
    /// Lets other threads run, as told by setRealPause.
    static void giveWay();
};

}  // namespace support

#endif
