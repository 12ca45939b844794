#include "support/LineRegistry.h"

#include <cerrno>
#include <map>

#include "support/Faults.h"

namespace support {
namespace {

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

const char* nameOf(LineCall call) {
    static const char* const names[LINE_CALLS] = {"open",    "close",   "read",        "write",
                                                  "ioctl",   "fcntl",   "tcgetattr",   "tcsetattr",
                                                  "tcflush", "tcdrain", "tcsendbreak", "select"};
    return names[static_cast<std::size_t>(call)];
}

// So that the many calls on other descriptors cost nothing.
std::atomic<bool> isFake[DESCRIPTORS];

}  // namespace

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

void bind(int fd, const Descriptor& entry) {
    const SignalSafeLock lock(registry().mutex);
    registry().byDescriptor[fd] = entry;
    isFake[fd] = true;
}

void unbind(int fd) {
    const SignalSafeLock lock(registry().mutex);
    isFake[fd] = false;
    registry().byDescriptor.erase(fd);
}

StatePtr lineAt(const char* path) {
    const SignalSafeLock lock(registry().mutex);
    const auto found = registry().byPath.find(path == nullptr ? "" : path);
    return found == registry().byPath.end() ? nullptr : found->second;
}

std::string redirected(const char* path) {
    const SignalSafeLock lock(registry().mutex);
    const auto found = registry().redirected.find(path == nullptr ? "" : path);
    return found == registry().redirected.end() ? std::string() : found->second;
}

bool enter(const StatePtr& state, LineCall call, unsigned long request) {
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
    if (faults::isHit(nameOf(call))) {
        return false;
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
