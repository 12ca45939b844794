// What stands behind a FakeLine; shared by its script side (FakeLine.cpp) and the replaced calls (LineCalls.cpp).
#ifndef TESTS_SUPPORT_FAKELINESTATE_H
#define TESTS_SUPPORT_FAKELINESTATE_H

#include <array>
#include <atomic>
#include <deque>

#include "support/FakeLine.h"
#include "support/Guarded.h"

namespace support {

struct FakeLine::State {
    struct Arriving {
        std::uint8_t value;
        std::int64_t at;  ///< virtual microsecond from which it can be read
    };
    struct Reply {
        Bytes bytes;
        std::int64_t afterUs;
    };
    struct Expected {
        Bytes query;
        std::vector<Reply> replies;
        std::function<void()> action;
    };
    struct Fault {
        bool anyCall;
        LineCall call;
        unsigned long request;  ///< of an ioctl; 0 is any
        int error;
        std::size_t countdown;  ///< 1: the next call
        std::size_t times;
    };

    State(const std::string& thePath, int thePeerBaud);

    /// Has the bytes arrive one by one from `instant` on, or as soon as the peer's transmitter is free.
    void feedFrom(std::int64_t instant, const Bytes& bytes);
    std::size_t arrived(std::int64_t now) const;
    void dropArrived(std::int64_t now);
    /// Bytes the output buffer can still take.
    std::size_t outputRoom(std::int64_t now) const;
    /// From when on a select for writing returns.
    std::int64_t roomAt() const;
    /// Microseconds that so many bytes take at the product's speed.
    std::int64_t timeToSend(std::size_t bytes) const;
    /// Counts a call and gives the error it is to fail with, 0 if it isn't.
    int enter(LineCall call, unsigned long request = 0);

    mutable std::mutex mutex;
    const std::string path;
    const std::string name;  ///< in the transcript
    const int peerBaud;

    std::deque<Arriving> input;      ///< in order of arrival
    std::int64_t peerBusyUntil = 0;  ///< the peer's transmitter
    std::int64_t sentUntil = 0;      ///< the product's transmitter
    std::vector<Bytes> writes;
    std::vector<Bytes> unexpected;
    Bytes partOfQuery;
    std::deque<Expected> expectations;
    std::size_t expected = 0;  ///< index of the next one
    bool isStrict = false;
    std::function<void(const Bytes&)> onWrite;
    std::array<std::function<void()>, LINE_CALLS> before;
    std::vector<Fault> faults;
    std::array<std::size_t, LINE_CALLS> calls{};
    std::size_t totalCalls = 0;

    bool present = true;
    unsigned generation = 0;  ///< grows with each hang-up; descriptors of an older one are dead
    std::size_t openCount = 0;
    int descriptor = -1;
    int lowestDescriptor = 0;
    int openFlags = 0;
    std::shared_ptr<std::atomic<int>> statusFlags;  ///< of the latest descriptor
    std::size_t writeLimit = 0;
    std::size_t outputLimit = 4096;
    std::size_t breaksSent = 0;
    bool controlling = false;
    struct termios settings;
    bool hasRs485 = true;
    struct serial_rs485 rs485;
    bool hasBreakCounter = true;
    int breakCount = 0;
};

/// Microseconds; `baud` 0 takes no time.
std::int64_t timeOnLine(std::int64_t bytes, std::int64_t baud);

void registerLine(const std::shared_ptr<FakeLine::State>& state);
void unregisterLine(const std::shared_ptr<FakeLine::State>& state);
/// open() of `path` opens the real `target` from here on; an empty one ends that.
void redirectPath(const std::string& path, const std::string& target);

}  // namespace support

#endif
