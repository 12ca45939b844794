#include "support/VirtualClock.h"

#include <sched.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "support/Allocations.h"
#include "support/Guarded.h"
#include "support/Transcript.h"

extern "C" {
time_t __real_time(time_t*);
int __real_clock_gettime(clockid_t, struct timespec*);
int __real_gettimeofday(struct timeval*, void*);
int __real_usleep(useconds_t);
unsigned int __real_sleep(unsigned int);
int __real_nanosleep(const struct timespec*, struct timespec*);
int __real_clock_nanosleep(clockid_t, int, const struct timespec*, struct timespec*);
void __real__ZN7QThread5sleepEm(unsigned long);
void __real__ZN7QThread6msleepEm(unsigned long);
void __real__ZN7QThread6usleepEm(unsigned long);
}

namespace support {
namespace {

constexpr std::int64_t SECOND = 1000000;
constexpr std::size_t WAITS_KEPT = 100000;

struct Clock {
    std::mutex mutex;
    std::int64_t now = 0;
    std::int64_t wallOffset = VirtualClock::START_OF_WALL * SECOND;
    std::int64_t limit = INT64_MAX;
    std::multimap<std::int64_t, std::function<void()>> events;
    std::vector<VirtualClock::Wait> waits;
    std::map<std::string, std::pair<std::size_t, std::int64_t>> sums;
    std::function<void(const VirtualClock::Wait&)> observer;
    std::atomic<bool> real{false};
    std::atomic<std::int64_t> realPause{0};
};

// Never destroyed: replaced calls come until the very end of the process.
Clock& clock() {
    static Clock* const instance = new Clock;
    return *instance;
}

// Log lines show the local time.
const bool utc = [] {
    setenv("TZ", "UTC0", 1);
    tzset();
    return true;
}();

}  // namespace

std::int64_t VirtualClock::now() {
    const SignalSafeLock lock(clock().mutex);
    return clock().now;
}

std::int64_t VirtualClock::wall() {
    const SignalSafeLock lock(clock().mutex);
    return clock().now + clock().wallOffset;
}

void VirtualClock::setWall(std::int64_t seconds, std::int64_t us) {
    const SignalSafeLock lock(clock().mutex);
    clock().wallOffset = seconds * SECOND + us - clock().now;
}

void VirtualClock::advance(std::int64_t us) {
    advanceTo(now() + (us > 0 ? us : 0));
}

void VirtualClock::advanceTo(std::int64_t instant) {
    do {
        step(instant);
    } while (now() < instant);
}

void VirtualClock::step(std::int64_t limit) {
    const UncountedAllocations uncounted;
    std::function<void()> due;
    {
        Clock& c = clock();
        const SignalSafeLock lock(c.mutex);
        const auto first = c.events.begin();
        if (first != c.events.end() && first->first <= limit) {
            if (first->first > c.now) {
                c.now = first->first;
            }
            due = std::move(first->second);
            c.events.erase(first);
        } else if (limit > c.now) {
            c.now = limit;
        }
        if (c.now > c.limit) {
            std::fprintf(stdout, "virtual clock past its limit of %lld us\n", static_cast<long long>(c.limit));
            std::fflush(stdout);
            std::abort();
        }
    }
    if (due) {
        due();
    }
}

void VirtualClock::at(std::int64_t instant, std::function<void()> action) {
    const SignalSafeLock lock(clock().mutex);
    clock().events.emplace(instant, std::move(action));
}

void VirtualClock::after(std::int64_t us, std::function<void()> action) {
    at(now() + us, std::move(action));
}

bool VirtualClock::hasEvents() {
    const SignalSafeLock lock(clock().mutex);
    return !clock().events.empty();
}

void VirtualClock::useRealTime(bool real) {
    clock().real = real;
}

bool VirtualClock::isReal() {
    return clock().real;
}

void VirtualClock::setRealPause(std::int64_t us) {
    clock().realPause = us;
}

void VirtualClock::setLimit(std::int64_t instant) {
    const SignalSafeLock lock(clock().mutex);
    clock().limit = instant;
}

std::vector<VirtualClock::Wait> VirtualClock::waits() {
    const SignalSafeLock lock(clock().mutex);
    return clock().waits;
}

std::size_t VirtualClock::countWaits(const std::string& call) {
    const SignalSafeLock lock(clock().mutex);
    return clock().sums[call].first;
}

std::int64_t VirtualClock::sumWaits(const std::string& call) {
    const SignalSafeLock lock(clock().mutex);
    return clock().sums[call].second;
}

void VirtualClock::clearWaits() {
    const SignalSafeLock lock(clock().mutex);
    clock().waits.clear();
    clock().sums.clear();
}

void VirtualClock::onWait(std::function<void(const Wait&)> observer) {
    const SignalSafeLock lock(clock().mutex);
    clock().observer = std::move(observer);
}

void VirtualClock::reset() {
    useRealTime(false);
    setRealPause(0);
    setLimit(INT64_MAX);
    clearWaits();
    Clock& c = clock();
    const SignalSafeLock lock(c.mutex);
    c.now = 0;
    c.wallOffset = START_OF_WALL * SECOND;
    c.events.clear();
    c.observer = nullptr;
}

void VirtualClock::note(const char* call, std::int64_t us) {
    const UncountedAllocations uncounted;
    std::function<void(const Wait&)> observer;
    Wait wait{call, 0, us};
    {
        Clock& c = clock();
        const SignalSafeLock lock(c.mutex);
        wait.at = c.now;
        if (c.waits.size() < WAITS_KEPT) {
            c.waits.push_back(wait);
        }
        auto& sum = c.sums[wait.call];
        ++sum.first;
        sum.second += us;
        observer = c.observer;
    }
    Transcript::addWait(call, us);
    if (observer) {
        observer(wait);
    }
}

void VirtualClock::wait(const char* call, std::int64_t us) {
    note(call, us);
    advance(us);
    giveWay();
}

void VirtualClock::giveWay() {
    const std::int64_t pause = clock().realPause;
    if (pause > 0) {
        struct timespec time = {static_cast<time_t>(pause / SECOND), static_cast<long>(pause % SECOND * 1000)};
        __real_nanosleep(&time, nullptr);
    } else {
        sched_yield();
    }
}

}  // namespace support

using support::VirtualClock;

namespace {

constexpr std::int64_t US_PER_S = 1000000;

std::int64_t microseconds(const struct timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * US_PER_S + (time.tv_nsec + 999) / 1000;
}

}  // namespace

extern "C" {

time_t __wrap_time(time_t* out) {
    if (VirtualClock::isReal()) {
        return __real_time(out);
    }
    const time_t seconds = static_cast<time_t>(VirtualClock::wall() / US_PER_S);
    if (out != nullptr) {
        *out = seconds;
    }
    return seconds;
}

int __wrap_clock_gettime(clockid_t id, struct timespec* out) {
    std::int64_t us = 0;
    switch (id) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            us = VirtualClock::wall();
            break;
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_BOOTTIME:
            us = VirtualClock::START_OF_MONOTONIC * US_PER_S + VirtualClock::now();
            break;
        default:
            return __real_clock_gettime(id, out);
    }
    if (VirtualClock::isReal()) {
        return __real_clock_gettime(id, out);
    }
    out->tv_sec = static_cast<time_t>(us / US_PER_S);
    out->tv_nsec = static_cast<long>(us % US_PER_S * 1000);
    return 0;
}

int __wrap_gettimeofday(struct timeval* out, void* zone) {
    if (VirtualClock::isReal()) {
        return __real_gettimeofday(out, zone);
    }
    const std::int64_t us = VirtualClock::wall();
    out->tv_sec = static_cast<time_t>(us / US_PER_S);
    out->tv_usec = static_cast<suseconds_t>(us % US_PER_S);
    return 0;
}

int __wrap_usleep(useconds_t us) {
    if (VirtualClock::isReal()) {
        return __real_usleep(us);
    }
    VirtualClock::wait("usleep", us);
    return 0;
}

unsigned int __wrap_sleep(unsigned int seconds) {
    if (VirtualClock::isReal()) {
        return __real_sleep(seconds);
    }
    VirtualClock::wait("sleep", seconds * US_PER_S);
    return 0;
}

int __wrap_nanosleep(const struct timespec* time, struct timespec* rest) {
    if (VirtualClock::isReal()) {
        return __real_nanosleep(time, rest);
    }
    VirtualClock::wait("nanosleep", microseconds(*time));
    return 0;
}

int __wrap_clock_nanosleep(clockid_t id, int flags, const struct timespec* time, struct timespec* rest) {
    if (VirtualClock::isReal()) {
        return __real_clock_nanosleep(id, flags, time, rest);
    }
    std::int64_t us = microseconds(*time);
    if ((flags & TIMER_ABSTIME) != 0) {
        const std::int64_t base = id == CLOCK_REALTIME
                                      ? VirtualClock::wall()
                                      : VirtualClock::START_OF_MONOTONIC * US_PER_S + VirtualClock::now();
        us = us > base ? us - base : 0;
    }
    VirtualClock::wait("clock_nanosleep", us);
    return 0;
}

void __wrap__ZN7QThread5sleepEm(unsigned long seconds) {
    if (VirtualClock::isReal()) {
        __real__ZN7QThread5sleepEm(seconds);
        return;
    }
    VirtualClock::wait("QThread::sleep", static_cast<std::int64_t>(seconds) * US_PER_S);
}

void __wrap__ZN7QThread6msleepEm(unsigned long ms) {
    if (VirtualClock::isReal()) {
        __real__ZN7QThread6msleepEm(ms);
        return;
    }
    VirtualClock::wait("QThread::msleep", static_cast<std::int64_t>(ms) * 1000);
}

void __wrap__ZN7QThread6usleepEm(unsigned long us) {
    if (VirtualClock::isReal()) {
        __real__ZN7QThread6usleepEm(us);
        return;
    }
    VirtualClock::wait("QThread::usleep", static_cast<std::int64_t>(us));
}

}  // extern "C"
