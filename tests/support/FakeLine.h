// A serial port at the level of the C library, on the virtual clock. While it lives, open() of its path gives a
// descriptor of its own, and read, write, close, ioctl, fcntl, tcgetattr, tcsetattr, tcflush, tcdrain, tcsendbreak and
// select on that descriptor come here. Other paths and descriptors are not touched.
//
// The line has a speed: what the product writes leaves at the speed the product has set, tcdrain takes that time; what
// the peer feeds arrives byte by byte at the peer's speed (10 bits a byte).
//
//     FakeLine line("/dev/ttyX1");
//     line.expect({0x02, 0x05}).reply({0x06}, 3000);        // 3 ms after the query has left
//     ... product ...
//     EXPECT_TRUE(line.allDone());                          // nothing missing, unexpected or unfetched
//
// All functions may be called from any thread; callbacks run on the calling product thread with no lock held. Every
// read, write, open, close, break, flush is written into the Transcript under the last part of the path.
#ifndef TESTS_SUPPORT_FAKELINE_H
#define TESTS_SUPPORT_FAKELINE_H

#include <gtest/gtest.h>
#include <linux/serial.h>
#include <termios.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<std::uint8_t>;

enum class LineCall {
    Open,
    Close,
    Read,
    Write,
    Ioctl,
    Fcntl,
    Tcgetattr,
    Tcsetattr,
    Tcflush,
    Tcdrain,
    Tcsendbreak,
    Select
};
constexpr std::size_t LINE_CALLS = 12;

class FakeLine {
  public:
    struct State;

    /// `peerBaud` 0: what is fed arrives at once.
    explicit FakeLine(const std::string& path, int peerBaud = 9600);
    /// Open descriptors go on working, as a deaf port.
    ~FakeLine();
    FakeLine(const FakeLine&) = delete;
    FakeLine& operator=(const FakeLine&) = delete;

    // ---- the peer

    /// Bytes that start to arrive `afterUs` after now, or, if the product is still sending, after its last byte has
    /// left; never before what was fed earlier has arrived.
    void feed(const Bytes& bytes, std::int64_t afterUs = 0);
    /// Bytes that start to arrive at that virtual instant (microseconds of VirtualClock::now), whatever else goes on.
    void feedAt(std::int64_t instant, const Bytes& bytes);
    /// Bytes that wait in the input queue right now, without any time on the line.
    void put(const Bytes& bytes);
    /// A BREAK from the line: raises the driver's counter and drops the waiting input.
    void receiveBreak();

    /// Next query the product must send (queries come in the order of the calls), and what answers it.
    class Expectation {
      public:
        /// Answer, fed `afterUs` after the query has left. May be repeated for an answer in pieces.
        Expectation& reply(const Bytes& bytes, std::int64_t afterUs = 0);
        /// Runs once the query is complete.
        Expectation& then(std::function<void()> action);

      private:
        friend class FakeLine;
        Expectation(std::shared_ptr<State> state, std::size_t index) : state_(std::move(state)), index_(index) {}
        std::shared_ptr<State> state_;
        std::size_t index_;
    };
    Expectation expect(const Bytes& query);
    /// Called with the bytes of each write the product makes. Together with `expect`, it sees them first.
    void onWrite(std::function<void(const Bytes&)> callback);
    /// A scripted peer is deaf to what it did not expect, but remembers it. Success if every expected query came,
    /// nothing else was sent (where anything was expected, or `strict` was called), and the product fetched all input.
    testing::AssertionResult allDone() const;
    /// From here on, anything the product sends and nobody expects is a fault for `allDone`.
    void strict();

    // ---- what the product did

    /// All the bytes sent so far, and the writes one by one.
    Bytes sent() const;
    std::vector<Bytes> writes() const;
    void clearSent();
    /// Forgets what was fed, sent, expected and told to fail, and when either side last sent: for a line that outlives
    /// the clock. Settings, callbacks, open descriptors and the counts of calls stay.
    void forget();
    /// Bytes that have arrived and wait for the product; bytes still on their way.
    std::size_t waiting() const;
    std::size_t onTheWay() const;
    /// Virtual instant at which the last byte sent has left or will have.
    std::int64_t sentUntil() const;
    std::size_t calls(LineCall call) const;
    std::size_t totalCalls() const;
    bool isOpen() const { return openCount() > 0; }
    std::size_t openCount() const;
    /// The latest descriptor, open or not; -1 if it was never opened.
    int descriptor() const;
    /// Flags of its open, and what fcntl made of them.
    int openFlags() const;
    int statusFlags() const;
    std::size_t breaksSent() const;
    /// Flushes (tcflush) so far.
    std::size_t flushes() const;
    bool isControllingTerminal() const;

    // ---- settings of the port

    struct termios settings() const;
    void setSettings(const struct termios& settings);
    /// The RS-485 record; a port without RS-485 refuses both requests with ENOTTY (the default has it).
    struct serial_rs485 rs485() const;
    void setRs485(const struct serial_rs485& record);
    void setHasRs485(bool has);
    /// The BREAK counter of TIOCGICOUNT; a port without it refuses with ENOTTY (the default has it, at 0).
    void setBreakCount(int count);
    void setHasBreakCounter(bool has);
    /// Size of the output buffer (4096 at first; 0 is no limit): a write that finds it full waits, or takes a part, or
    /// gives EAGAIN where the descriptor doesn't wait.
    void setOutputBuffer(std::size_t bytes);
    /// Bytes one write takes at most, as if a signal had cut it short; 0 is no limit.
    void limitWrites(std::size_t bytes);
    /// Descriptors are given out from this number on.
    void openAbove(int descriptor);

    // ---- faults

    /// The n-th such call from now on (1 is the next) and the `times` - 1 after it fail with `error`. A close that
    /// fails so has released the descriptor, as Linux does.
    void fail(LineCall call, int error, std::size_t n = 1, std::size_t times = 1);
    /// As above, counting only ioctl calls with this request.
    void failIoctl(unsigned long request, int error, std::size_t n = 1, std::size_t times = 1);
    /// The n-th call of any kind from now on fails.
    void failAny(int error, std::size_t n);
    /// Faults that have not happened yet, and their end.
    bool hasFaultsLeft() const;
    void clearFaults();
    /// Runs before each such call takes effect: the place for what must fall between two calls.
    void before(LineCall call, std::function<void()> action);
    /// The device is gone: every call on its descriptors fails as after a hang-up, opening gives ENOENT.
    void hangUp();
    /// The device is back: it can be opened again; old descriptors stay dead.
    void plugIn();

  private:
    std::shared_ptr<State> state_;
};

}  // namespace support

#endif
