// select(), replaced: descriptors of fake lines, real ones, or none at all.
#include <sys/select.h>

#include <vector>

#include "support/Allocations.h"
#include "support/LineRegistry.h"
#include "support/VirtualClock.h"

extern "C" int __real_select(int, fd_set*, fd_set*, fd_set*, struct timeval*);

namespace support {
namespace {

constexpr std::int64_t US_PER_S = 1000000;

// A select with an empty set counts as one on the line that the thread selected last: a driver may fill its set once.
thread_local StatePtr* lastSelected = nullptr;

/// One descriptor of a select: for reading or for writing.
struct Watched {
    int fd;
    Descriptor entry;
    bool forWriting;
};

// Now, at a later instant, or (INT64_MAX) not as things are.
std::int64_t readyAt(const Watched& watched, std::int64_t now) {
    const FakeLine::State& state = *watched.entry.state;
    const SignalSafeLock lock(state.mutex);
    if (watched.entry.dead()) {
        return now;
    }
    if (watched.forWriting) {
        return state.roomAt();
    }
    return state.input.empty() ? INT64_MAX : state.input.front().at;
}

// Waits until a descriptor is ready, or for `us`; true in the first case. No limit if `us` is negative.
bool waitReady(const std::vector<Watched>& all, std::int64_t us, std::int64_t* rest) {
    const std::int64_t start = VirtualClock::now();
    const std::int64_t end = us < 0 ? INT64_MAX : start + us;
    for (;;) {
        const std::int64_t now = VirtualClock::now();
        std::int64_t next = INT64_MAX;
        for (const Watched& watched : all) {
            const std::int64_t at = readyAt(watched, now);
            next = at < next ? at : next;
        }
        if (next <= now) {
            *rest = end > now ? end - now : 0;
            return true;
        }
        if (now >= end) {
            *rest = 0;
            return false;
        }
        next = next < end ? next : end;
        if (next == INT64_MAX && !VirtualClock::hasEvents()) {
            ADD_FAILURE() << "a select without limit and with nothing to come never returns";
            *rest = 0;
            return false;
        }
        VirtualClock::step(next);
    }
}

// The fake descriptors of a set; true in `others` if there are real ones too.
void collect(int count, fd_set* set, bool forWriting, std::vector<Watched>& all, bool& others) {
    for (int fd = 0; set != nullptr && fd < count && fd < FD_SETSIZE; ++fd) {
        Descriptor entry;
        if (!FD_ISSET(fd, set)) {
            continue;
        }
        if (find(fd, entry)) {
            all.push_back({fd, entry, forWriting});
        } else {
            others = true;
        }
    }
}

}  // namespace
}  // namespace support

using namespace support;

extern "C" int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, struct timeval* timeout) {
    const UncountedAllocations uncounted;
    if (VirtualClock::isReal()) {
        return __real_select(count, read, write, except, timeout);
    }
    const std::int64_t us = timeout == nullptr ? -1 : timeout->tv_sec * US_PER_S + timeout->tv_usec;
    std::vector<Watched> lines;
    bool others = false;
    collect(count, read, false, lines, others);
    collect(count, write, true, lines, others);
    others = others || except != nullptr;
    if (lines.empty() && others) {
        // Real descriptors: what is there now, or else the virtual time passes.
        struct timeval none = {0, 0};
        const int ready = __real_select(count, read, write, except, us < 0 ? nullptr : &none);
        if (ready == 0 && us > 0) {
            VirtualClock::wait("select", us);
        }
        return ready;
    }
    if (!lines.empty()) {
        if (lastSelected == nullptr) {
            static thread_local StatePtr last;
            lastSelected = &last;
        }
        *lastSelected = lines.front().entry.state;
    }
    if (lastSelected != nullptr && *lastSelected) {
        const StatePtr state = *lastSelected;
        if (!enter(state, LineCall::Select)) {
            return -1;
        }
    }
    std::int64_t rest = 0;
    VirtualClock::note("select", us);
    waitReady(lines, us, &rest);
    VirtualClock::giveWay();
    if (timeout != nullptr) {
        // As Linux does.
        timeout->tv_sec = static_cast<time_t>(rest / US_PER_S);
        timeout->tv_usec = static_cast<suseconds_t>(rest % US_PER_S);
    }
    for (fd_set* const set : {read, write}) {
        if (set != nullptr) {
            FD_ZERO(set);
        }
    }
    const std::int64_t now = VirtualClock::now();
    int ready = 0;
    for (const Watched& watched : lines) {
        if (readyAt(watched, now) <= now) {
            FD_SET(watched.fd, watched.forWriting ? write : read);
            ++ready;
        }
    }
    return ready;
}
