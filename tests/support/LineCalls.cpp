// The C library calls on descriptors, replaced: those of fake lines go to their line, all others pass through.
#include <asm/ioctls.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <map>

#include "support/Allocations.h"
#include "support/FakeLineState.h"
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
int __real_select(int, fd_set*, fd_set*, fd_set*, struct timeval*);
}

namespace support {
namespace {

constexpr int DESCRIPTORS = 65536;
constexpr std::int64_t BITS_PER_BYTE = 10;
constexpr std::int64_t US_PER_S = 1000000;
/// A BREAK of duration 0 lasts between 0.25 and 0.5 s.
constexpr std::int64_t BREAK_US = 250000;

using StatePtr = std::shared_ptr<FakeLine::State>;

struct Descriptor {
    StatePtr state;
    unsigned generation = 0;
    std::shared_ptr<std::atomic<int>> flags;  ///< the file status flags
    bool waits() const { return (*flags & O_NONBLOCK) == 0; }
    bool dead() const { return state->generation != generation; }
};

struct Registry {
    std::mutex mutex;
    std::map<std::string, StatePtr> byPath;
    std::map<int, Descriptor> byDescriptor;
    std::map<std::string, std::string> redirected;
};

Registry& registry() {
    static Registry* const instance = new Registry;
    return *instance;
}

// So that the many calls on other descriptors cost nothing.
std::atomic<bool> isFake[DESCRIPTORS];

// A select with an empty set counts as one on the line that the thread selected last: a driver may fill its set once.
thread_local StatePtr* lastSelected = nullptr;

bool find(int fd, Descriptor& out) {
    if (fd < 0 || fd >= DESCRIPTORS || !isFake[fd]) {
        return false;
    }
    const SignalSafeLock lock(registry().mutex);
    const auto found = registry().byDescriptor.find(fd);
    if (found == registry().byDescriptor.end()) {
        return false;
    }
    out = found->second;
    return true;
}

// Runs the test's hook, counts the call; false with errno set if the call is to fail.
bool enter(const StatePtr& state, LineCall call, unsigned long request = 0) {
    std::function<void()> hook;
    {
        const SignalSafeLock lock(state->mutex);
        hook = state->before[static_cast<std::size_t>(call)];
    }
    if (hook) {
        hook();
    }
    int error = 0;
    {
        const SignalSafeLock lock(state->mutex);
        error = state->enter(call, request);
    }
    if (error != 0) {
        errno = error;
        return false;
    }
    return true;
}

int failed(int error) {
    errno = error;
    return -1;
}

std::int64_t baudOf(const struct termios& settings) {
    static const struct {
        speed_t code;
        std::int64_t baud;
    } table[] = {{B1200, 1200},   {B2400, 2400},   {B4800, 4800},   {B9600, 9600},
                 {B19200, 19200}, {B38400, 38400}, {B57600, 57600}, {B115200, 115200}};
    for (const auto& row : table) {
        if (cfgetospeed(&settings) == row.code) {
            return row.baud;
        }
    }
    return 0;
}

std::int64_t timeOnLine(std::int64_t bytes, std::int64_t baud) {
    return baud == 0 ? 0 : (bytes * BITS_PER_BYTE * US_PER_S + baud - 1) / baud;
}

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
    {
        const SignalSafeLock lock(registry().mutex);
        registry().byDescriptor[fd] = entry;
    }
    isFake[fd] = true;
    Transcript::add(state->name, "open " + flagNames(flags));
    return fd;
}

int closeLine(int fd, const Descriptor& entry) {
    const bool good = enter(entry.state, LineCall::Close);
    const int error = errno;
    Transcript::add(entry.state->name, good ? "close" : std::string("close fails: ") + std::strerror(error));
    isFake[fd] = false;
    {
        const SignalSafeLock lock(registry().mutex);
        registry().byDescriptor.erase(fd);
    }
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
                state->sentUntil += timeOnLine(static_cast<std::int64_t>(n), baudOf(state->settings));
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

FakeLine::State::State(const std::string& thePath, int thePeerBaud)
    : path(thePath), name(thePath.substr(thePath.rfind('/') + 1)), peerBaud(thePeerBaud) {
    // As a port is found: canonical, with echo, 38400 baud.
    std::memset(&settings, 0, sizeof(settings));
    settings.c_iflag = ICRNL | IXON;
    settings.c_oflag = OPOST | ONLCR;
    settings.c_cflag = CS8 | CREAD | HUPCL;
    settings.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
    static const struct {
        int index;
        cc_t value;
    } characters[] = {{VINTR, 3},   {VQUIT, 28}, {VERASE, 127}, {VKILL, 21}, {VEOF, 4},
                      {VSTART, 17}, {VSTOP, 19}, {VSUSP, 26},   {VMIN, 1},   {VTIME, 0}};
    for (const auto& row : characters) {
        settings.c_cc[row.index] = row.value;
    }
    cfsetispeed(&settings, B38400);
    cfsetospeed(&settings, B38400);
    std::memset(&rs485, 0, sizeof(rs485));
}

void FakeLine::State::feedFrom(std::int64_t instant, const Bytes& bytes) {
    const std::int64_t start = instant > peerBusyUntil ? instant : peerBusyUntil;
    std::int64_t count = 0;
    for (const std::uint8_t byte : bytes) {
        input.push_back({byte, start + timeOnLine(++count, peerBaud)});
    }
    peerBusyUntil = start + timeOnLine(count, peerBaud);
}

std::size_t FakeLine::State::arrived(std::int64_t now) const {
    std::size_t n = 0;
    while (n < input.size() && input[n].at <= now) {
        ++n;
    }
    return n;
}

void FakeLine::State::dropArrived(std::int64_t now) {
    while (!input.empty() && input.front().at <= now) {
        input.pop_front();
    }
}

std::size_t FakeLine::State::outputRoom(std::int64_t now) const {
    if (outputLimit == 0) {
        return SIZE_MAX;
    }
    const std::int64_t baud = baudOf(settings);
    const std::int64_t rest = sentUntil > now ? sentUntil - now : 0;
    const std::size_t pending =
        static_cast<std::size_t>((rest * baud + BITS_PER_BYTE * US_PER_S - 1) / (BITS_PER_BYTE * US_PER_S));
    return pending < outputLimit ? outputLimit - pending : 0;
}

std::int64_t FakeLine::State::roomAt() const {
    // The kernel wakes a writer when fewer than 256 bytes are left to send.
    const std::size_t low = outputLimit == 0 || outputLimit > 256 ? 255 : outputLimit - 1;
    return outputLimit == 0 ? 0 : sentUntil - timeOnLine(static_cast<std::int64_t>(low), baudOf(settings));
}

int FakeLine::State::enter(LineCall call, unsigned long request) {
    ++calls[static_cast<std::size_t>(call)];
    ++totalCalls;
    int error = 0;
    for (auto fault = faults.begin(); fault != faults.end();) {
        const bool concerned =
            fault->anyCall || (fault->call == call && (fault->request == 0 || fault->request == request));
        if (concerned && fault->countdown > 1) {
            --fault->countdown;
        } else if (concerned) {
            error = fault->error;
            if (--fault->times == 0) {
                fault = faults.erase(fault);
                continue;
            }
        }
        ++fault;
    }
    return error;
}

void registerLine(const StatePtr& state) {
    const SignalSafeLock lock(registry().mutex);
    registry().byPath[state->path] = state;
}

void unregisterLine(const StatePtr& state) {
    const SignalSafeLock lock(registry().mutex);
    const auto found = registry().byPath.find(state->path);
    if (found != registry().byPath.end() && found->second == state) {
        registry().byPath.erase(found);
    }
}

void redirectPath(const std::string& path, const std::string& target) {
    const SignalSafeLock lock(registry().mutex);
    if (target.empty()) {
        registry().redirected.erase(path);
    } else {
        registry().redirected[path] = target;
    }
}

}  // namespace support

using namespace support;

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
    const UncountedAllocations uncounted;
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    StatePtr state;
    std::string target;
    {
        const SignalSafeLock lock(registry().mutex);
        const auto found = registry().byPath.find(path == nullptr ? "" : path);
        if (found != registry().byPath.end()) {
            state = found->second;
        }
        const auto other = registry().redirected.find(path == nullptr ? "" : path);
        if (other != registry().redirected.end()) {
            target = other->second;
        }
    }
    if (state) {
        return openLine(state, flags);
    }
    return __real_open(target.empty() ? path : target.c_str(), flags, mode);
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

int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, struct timeval* timeout) {
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

}  // extern "C"
