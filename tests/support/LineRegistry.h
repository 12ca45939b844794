// Which descriptor belongs to which fake line: what the replaced calls (LineCalls.cpp, LineSelect.cpp) share.
#ifndef TESTS_SUPPORT_LINEREGISTRY_H
#define TESTS_SUPPORT_LINEREGISTRY_H

#include <fcntl.h>

#include <atomic>
#include <memory>
#include <string>

#include "support/FakeLineState.h"

namespace support {

using StatePtr = std::shared_ptr<FakeLine::State>;

/// An open descriptor of a line.
struct Descriptor {
    StatePtr state;
    unsigned generation = 0;
    std::shared_ptr<std::atomic<int>> flags;  ///< the file status flags
    bool waits() const { return (*flags & O_NONBLOCK) == 0; }
    /// Opened before the line's latest hang-up.
    bool dead() const { return state->generation != generation; }
};

/// False for descriptors of no line.
bool find(int fd, Descriptor& out);
void bind(int fd, const Descriptor& entry);
void unbind(int fd);
/// Numbers a line's descriptor can have are below this.
constexpr int DESCRIPTORS = 65536;

/// The line under that path, null if none; the path that stands for it otherwise, empty if none.
StatePtr lineAt(const char* path);
std::string redirected(const char* path);

/// Runs the test's hook, counts the call; false with errno set if the call is to fail.
bool enter(const StatePtr& state, LineCall call, unsigned long request = 0);
/// -1 with errno set.
int failed(int error);

}  // namespace support

#endif
