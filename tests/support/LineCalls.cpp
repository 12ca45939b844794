// The C library calls on descriptors, replaced: those of fake lines go to their line, all others pass through.
#include <asm/ioctls.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "support/Allocations.h"
#include "support/LineRegistry.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

extern "C" {
int __real_open(const char*, int, ...);
int __real_close(int);
ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, const void*, size_t);
int __real_ioctl(int, unsigned long, ...);
int __real_fcntl(int, int, ...);
int __real_tcgetattr(int, struct termios*);
int __real_tcsetattr(int, int, const struct termios*);
int __real_tcflush(int, int);
int __real_tcdrain(int);
int __real_tcsendbreak(int, int);
}

namespace support {
namespace {

/// A BREAK of duration 0 lasts between 0.25 and 0.5 s.
constexpr std::int64_t BREAK_US = 250000;

std::string flagNames(int flags) {
    static const struct {
        int flag;
        const char* name;
    } table[] = {{O_EXCL, " excl"}, {O_NOCTTY, " noctty"}, {O_SYNC, " sync"}, {O_NONBLOCK, " nonblock"}};
    static const char* const access[] = {"rdonly", "wronly", "rdwr", "?"};
    std::string text = access[flags & O_ACCMODE];
    for (const auto& row : table) {
        if ((flags & row.flag) == row.flag) {
            text += row.name;
        }
    }
    return text;
}

int openLine(const StatePtr& state, int flags) {
    if (!enter(state, LineCall::Open)) {
        const int error = errno;
        Transcript::add(state->name, std::string("open fails: ") + std::strerror(error));
        return failed(error);
    }
    int lowest = 0;
    {
        const SignalSafeLock lock(state->mutex);
        if (!state->present) {
            return failed(ENOENT);
        }
        lowest = state->lowestDescriptor;
    }
    int fd = __real_open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd >= 0 && fd < lowest) {
        const int higher = __real_fcntl(fd, F_DUPFD_CLOEXEC, lowest);
        __real_close(fd);
        fd = higher;
    }
    if (fd < 0 || fd >= DESCRIPTORS) {
        return failed(EMFILE);
    }
    Descriptor entry;
    entry.state = state;
    entry.flags = std::make_shared<std::atomic<int>>(flags);
    {
        const SignalSafeLock lock(state->mutex);
        entry.generation = state->generation;
        ++state->openCount;
        state->descriptor = fd;
        state->openFlags = flags;
        state->statusFlags = entry.flags;
    }
    bind(fd, entry);
    Transcript::add(state->name, "open " + flagNames(flags));
    return fd;
}

int closeLine(int fd, const Descriptor& entry) {
    const bool good = enter(entry.state, LineCall::Close);
    const int error = errno;
    Transcript::add(entry.state->name, good ? "close" : std::string("close fails: ") + std::strerror(error));
    unbind(fd);
    {
        const SignalSafeLock lock(entry.state->mutex);
        --entry.state->openCount;
    }
    __real_close(fd);
    return good ? 0 : failed(error);
}

ssize_t readLine(const Descriptor& entry, void* buffer, size_t length) {
    const StatePtr& state = entry.state;
    if (!enter(state, LineCall::Read)) {
        const int error = errno;
        Transcript::add(state->name, std::string("read fails: ") + std::strerror(error));
        return failed(error);
    }
    for (;;) {
        const std::int64_t now = VirtualClock::now();
        std::int64_t next = INT64_MAX;
        {
            const SignalSafeLock lock(state->mutex);
            if (entry.dead()) {
                return 0;
            }
            const std::size_t there = state->arrived(now);
            if (there > 0) {
                const std::size_t n = there < length ? there : length;
                std::uint8_t* const out = static_cast<std::uint8_t*>(buffer);
                for (std::size_t i = 0; i < n; ++i) {
                    out[i] = state->input.front().value;
                    state->input.pop_front();
                }
                Transcript::addBytes(state->name, "<<", out, n);
                return static_cast<ssize_t>(n);
            }
            if (!entry.waits()) {
                return failed(EAGAIN);
            }
            if (!state->input.empty()) {
                next = state->input.front().at;
            }
        }
        if (next == INT64_MAX && !VirtualClock::hasEvents()) {
            ADD_FAILURE() << state->path << ": a blocking read with nothing waiting and nothing to come never returns";
            return failed(EIO);
        }
        VirtualClock::step(next);
    }
}

// What the product sent goes to the test's callback, then to the script of expected queries.
void deliver(const StatePtr& state, const Bytes& bytes) {
    std::function<void(const Bytes&)> callback;
    {
        const SignalSafeLock lock(state->mutex);
        callback = state->onWrite;
    }
    if (callback) {
        callback(bytes);
    }
    std::vector<std::function<void()>> actions;
    {
        const SignalSafeLock lock(state->mutex);
        Bytes& part = state->partOfQuery;
        part.insert(part.end(), bytes.begin(), bytes.end());
        while (!part.empty()) {
            if (state->expected >= state->expectations.size()) {
                state->unexpected.push_back(part);
                part.clear();
                break;
            }
            auto& wanted = state->expectations[state->expected];
            const std::size_t common = part.size() < wanted.query.size() ? part.size() : wanted.query.size();
            if (!std::equal(part.begin(), part.begin() + static_cast<std::ptrdiff_t>(common), wanted.query.begin())) {
                state->unexpected.push_back(part);
                part.clear();
                break;
            }
            if (part.size() < wanted.query.size()) {
                break;
            }
            part.erase(part.begin(), part.begin() + static_cast<std::ptrdiff_t>(common));
            for (const auto& reply : wanted.replies) {
                state->feedFrom(state->sentUntil + reply.afterUs, reply.bytes);
            }
            if (wanted.action) {
                actions.push_back(wanted.action);
            }
            ++state->expected;
        }
    }
    for (const auto& action : actions) {
        action();
    }
}

ssize_t writeLine(const Descriptor& entry, const void* buffer, size_t length) {
    const StatePtr& state = entry.state;
    if (!enter(state, LineCall::Write)) {
        const int error = errno;
        Transcript::add(state->name, std::string("write fails: ") + std::strerror(error));
        return failed(error);
    }
    const std::uint8_t* const from = static_cast<const std::uint8_t*>(buffer);
    Bytes bytes;
    bool limited = false;
    for (;;) {
        const std::int64_t now = VirtualClock::now();
        std::int64_t roomAt = 0;
        {
            const SignalSafeLock lock(state->mutex);
            if (entry.dead()) {
                return failed(EIO);
            }
            std::size_t n = length - bytes.size();
            limited = state->writeLimit != 0 && state->writeLimit < n;
            n = limited ? state->writeLimit : n;
            const std::size_t room = state->outputRoom(now);
            n = n < room ? n : room;
            bytes.insert(bytes.end(), from + bytes.size(), from + bytes.size() + n);
            if (n > 0) {
                if (state->sentUntil < now) {
                    state->sentUntil = now;
                }
                state->sentUntil += state->timeToSend(n);
            }
            if (bytes.size() == length || limited || !entry.waits()) {
                if (bytes.empty() && length > 0) {
                    return failed(EAGAIN);
                }
                state->writes.push_back(bytes);
                break;
            }
            roomAt = state->roomAt();
        }
        VirtualClock::step(roomAt > now ? roomAt : now + 1);
    }
    Transcript::addBytes(state->name, ">>", bytes.data(), bytes.size());
    deliver(state, bytes);
    return static_cast<ssize_t>(bytes.size());
}

int ioctlLine(const Descriptor& entry, unsigned long request, void* argument) {
    const StatePtr& state = entry.state;
    if (!enter(state, LineCall::Ioctl, request)) {
        return -1;
    }
    const std::int64_t now = VirtualClock::now();
    const SignalSafeLock lock(state->mutex);
    if (entry.dead()) {
        return failed(EIO);
    }
    switch (request) {
        case FIONREAD: {
            const int there = static_cast<int>(state->arrived(now));
            std::memcpy(argument, &there, sizeof(there));
            return 0;
        }
        case TIOCGICOUNT: {
            if (!state->hasBreakCounter) {
                return failed(ENOTTY);
            }
            struct serial_icounter_struct counters;
            std::memset(&counters, 0, sizeof(counters));
            counters.brk = state->breakCount;
            std::memcpy(argument, &counters, sizeof(counters));
            return 0;
        }
        case TIOCGRS485:
        case TIOCSRS485:
            if (!state->hasRs485) {
                return failed(ENOTTY);
            }
            if (request == TIOCGRS485) {
                std::memcpy(argument, &state->rs485, sizeof(state->rs485));
            } else {
                std::memcpy(&state->rs485, argument, sizeof(state->rs485));
                Transcript::add(state->name, "rs485 flags " + std::to_string(state->rs485.flags) + " before " +
                                                 std::to_string(state->rs485.delay_rts_before_send) + " after " +
                                                 std::to_string(state->rs485.delay_rts_after_send));
            }
            return 0;
        case TIOCSCTTY:
            state->controlling = true;
            return 0;
        default:
            return failed(ENOTTY);
    }
}

int fcntlLine(int fd, const Descriptor& entry, int command, long argument) {
    const StatePtr& state = entry.state;
    if (!enter(state, LineCall::Fcntl)) {
        return -1;
    }
    switch (command) {
        case F_GETFL:
            return *entry.flags;
        case F_SETFL:
            *entry.flags = (*entry.flags & ~O_NONBLOCK) | (static_cast<int>(argument) & O_NONBLOCK);
            return 0;
        default:
            return __real_fcntl(fd, command, argument);
    }
}

}  // namespace

}  // namespace support

using namespace support;

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
    const UncountedAllocations uncounted;
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (const StatePtr state = lineAt(path)) {
        return openLine(state, flags);
    }
    const std::string other = redirected(path);
    return __real_open(other.empty() ? path : other.c_str(), flags, mode);
}

int __wrap_open64(const char* path, int flags, ...) {
    const UncountedAllocations uncounted;
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return __wrap_open(path, flags, mode);
}

int __wrap_close(int fd) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    return find(fd, entry) ? closeLine(fd, entry) : __real_close(fd);
}

ssize_t __wrap_read(int fd, void* buffer, size_t length) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    return find(fd, entry) ? readLine(entry, buffer, length) : __real_read(fd, buffer, length);
}

ssize_t __wrap_write(int fd, const void* buffer, size_t length) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    return find(fd, entry) ? writeLine(entry, buffer, length) : __real_write(fd, buffer, length);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    const UncountedAllocations uncounted;
    va_list args;
    va_start(args, request);
    void* const argument = va_arg(args, void*);
    va_end(args);
    Descriptor entry;
    return find(fd, entry) ? ioctlLine(entry, request, argument) : __real_ioctl(fd, request, argument);
}

int __wrap_fcntl(int fd, int command, ...) {
    const UncountedAllocations uncounted;
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    Descriptor entry;
    return find(fd, entry) ? fcntlLine(fd, entry, command, argument) : __real_fcntl(fd, command, argument);
}

int __wrap_fcntl64(int fd, int command, ...) {
    const UncountedAllocations uncounted;
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    return __wrap_fcntl(fd, command, argument);
}

int __wrap_tcgetattr(int fd, struct termios* settings) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    if (!find(fd, entry)) {
        return __real_tcgetattr(fd, settings);
    }
    if (!enter(entry.state, LineCall::Tcgetattr)) {
        return -1;
    }
    const SignalSafeLock lock(entry.state->mutex);
    if (entry.dead()) {
        return failed(EIO);
    }
    *settings = entry.state->settings;
    return 0;
}

int __wrap_tcsetattr(int fd, int when, const struct termios* settings) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    if (!find(fd, entry)) {
        return __real_tcsetattr(fd, when, settings);
    }
    if (!enter(entry.state, LineCall::Tcsetattr)) {
        return -1;
    }
    const SignalSafeLock lock(entry.state->mutex);
    if (entry.dead()) {
        return failed(EIO);
    }
    entry.state->settings = *settings;
    return 0;
}

int __wrap_tcflush(int fd, int queue) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    if (!find(fd, entry)) {
        return __real_tcflush(fd, queue);
    }
    if (!enter(entry.state, LineCall::Tcflush)) {
        return -1;
    }
    const std::int64_t now = VirtualClock::now();
    {
        const SignalSafeLock lock(entry.state->mutex);
        if (entry.dead()) {
            return failed(EIO);
        }
        if (queue == TCIFLUSH || queue == TCIOFLUSH) {
            entry.state->dropArrived(now);
        }
        if ((queue == TCOFLUSH || queue == TCIOFLUSH) && entry.state->sentUntil > now) {
            entry.state->sentUntil = now;
        }
    }
    Transcript::add(entry.state->name, queue == TCIOFLUSH ? "flush" : queue == TCIFLUSH ? "flush in" : "flush out");
    return 0;
}

int __wrap_tcdrain(int fd) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    if (!find(fd, entry)) {
        return __real_tcdrain(fd);
    }
    if (!enter(entry.state, LineCall::Tcdrain)) {
        return -1;
    }
    std::int64_t end = 0;
    {
        const SignalSafeLock lock(entry.state->mutex);
        if (entry.dead()) {
            return failed(EIO);
        }
        end = entry.state->sentUntil;
    }
    const std::int64_t now = VirtualClock::now();
    if (end > now) {
        VirtualClock::wait("tcdrain", end - now);
    }
    return 0;
}

int __wrap_tcsendbreak(int fd, int duration) {
    const UncountedAllocations uncounted;
    Descriptor entry;
    if (!find(fd, entry)) {
        return __real_tcsendbreak(fd, duration);
    }
    if (!enter(entry.state, LineCall::Tcsendbreak)) {
        return -1;
    }
    {
        const SignalSafeLock lock(entry.state->mutex);
        if (entry.dead()) {
            return failed(EIO);
        }
        ++entry.state->breaksSent;
    }
    Transcript::add(entry.state->name, "break");
    VirtualClock::wait("tcsendbreak", BREAK_US);
    return 0;
}

}  // extern "C"
