#include "support/FakeLine.h"

#include <asm/ioctls.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>

#include "support/Transcript.h"
#include "support/VirtualClock.h"

using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::Transcript;
using support::VirtualClock;

namespace {

int openPort(const char* path = "/dev/ttyX1") {
    const int fd = open(path, O_RDWR | O_NOCTTY);
    struct termios settings;
    tcgetattr(fd, &settings);
    cfsetospeed(&settings, B9600);
    tcsetattr(fd, TCSANOW, &settings);
    return fd;
}

int waitingOn(int fd) {
    int n = -1;
    EXPECT_EQ(ioctl(fd, FIONREAD, &n), 0);
    return n;
}

// One select on the descriptor, as a driver does it.
int waitFor(int fd, long us) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval timeout = {0, us};
    return select(fd + 1, &set, nullptr, nullptr, &timeout);
}

Bytes readAll(int fd) {
    Bytes bytes(static_cast<std::size_t>(waitingOn(fd)));
    EXPECT_EQ(read(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return bytes;
}

}  // namespace

TEST(FakeLine, OtherPathsAndDescriptorsPassThrough) {
    FakeLine line("/dev/ttyX1");
    const int null = open("/dev/null", O_RDWR);
    ASSERT_GE(null, 0);
    EXPECT_EQ(write(null, "x", 1), 1);
    struct termios settings;
    EXPECT_EQ(tcgetattr(null, &settings), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(close(null), 0);
    EXPECT_EQ(open("/dev/ttyNoSuchPort", O_RDWR), -1);
    EXPECT_EQ(line.totalCalls(), 0u);
}

TEST(FakeLine, DescriptorCanBeUsedInASetAndIsGoneAfterClose) {
    FakeLine line("/dev/ttyX1");
    const int fd = open("/dev/ttyX1", O_RDWR | O_EXCL | O_NOCTTY | O_SYNC);
    ASSERT_GE(fd, 0);
    ASSERT_LT(fd, FD_SETSIZE);
    EXPECT_TRUE(line.isOpen());
    EXPECT_EQ(line.descriptor(), fd);
    EXPECT_EQ(line.openFlags(), O_RDWR | O_EXCL | O_NOCTTY | O_SYNC);
    EXPECT_EQ(close(fd), 0);
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(FakeLine, DescriptorsAboveAChosenNumber) {
    FakeLine line("/dev/ttyX1");
    line.openAbove(FD_SETSIZE);
    const int fd = open("/dev/ttyX1", O_RDWR);
    EXPECT_GE(fd, FD_SETSIZE);
    EXPECT_EQ(waitingOn(fd), 0);
    EXPECT_EQ(close(fd), 0);
}

TEST(FakeLine, BytesArriveOneByOneAtThePeersSpeed) {
    FakeLine line("/dev/ttyX1", 9600);
    const int fd = openPort();
    line.feed({1, 2, 3}, 5000);
    EXPECT_EQ(waitFor(fd, 10000), 1);
    EXPECT_EQ(VirtualClock::now(), 5000 + 1042);
    EXPECT_EQ(waitingOn(fd), 1);
    usleep(2084);
    EXPECT_EQ(readAll(fd), (Bytes{1, 2, 3}));
    EXPECT_EQ(waitFor(fd, 10000), 0);
    EXPECT_EQ(VirtualClock::now(), 5000 + 1042 + 2084 + 10000);
    EXPECT_TRUE(line.allDone());
}

TEST(FakeLine, SelectShortensItsLimitAsLinuxDoes) {
    FakeLine line("/dev/ttyX1", 0);
    const int fd = openPort();
    line.feed({1}, 4000);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval timeout = {0, 10000};
    EXPECT_EQ(select(fd + 1, &set, nullptr, nullptr, &timeout), 1);
    EXPECT_EQ(timeout.tv_usec, 6000);
    readAll(fd);
    EXPECT_EQ(select(fd + 1, &set, nullptr, nullptr, &timeout), 0);
    EXPECT_EQ(timeout.tv_usec, 0);
    EXPECT_FALSE(FD_ISSET(fd, &set));
}

TEST(FakeLine, SendingTakesItsTimeAndRepliesFollowTheQuery) {
    FakeLine line("/dev/ttyX1");
    line.expect({1, 2, 3, 4}).reply({5, 6}, 1000);
    const int fd = openPort();
    const Bytes query{1, 2, 3, 4};
    EXPECT_EQ(write(fd, query.data(), 2), 2);
    EXPECT_EQ(write(fd, query.data() + 2, 2), 2);
    EXPECT_EQ(VirtualClock::now(), 0);
    EXPECT_EQ(tcdrain(fd), 0);
    EXPECT_EQ(VirtualClock::now(), 4168);
    EXPECT_EQ(waitingOn(fd), 0);
    EXPECT_EQ(waitFor(fd, 10000), 1);
    EXPECT_EQ(VirtualClock::now(), 4168 + 1000 + 1042);
    EXPECT_FALSE(line.allDone());
    usleep(1042);
    EXPECT_EQ(readAll(fd), (Bytes{5, 6}));
    EXPECT_TRUE(line.allDone());
    EXPECT_EQ(line.sent(), query);
    EXPECT_EQ(line.writes().size(), 2u);
}

TEST(FakeLine, MissingUnexpectedAndUnfetchedAllShow) {
    FakeLine line("/dev/ttyX1");
    line.expect({1, 2});
    const int fd = openPort();
    EXPECT_FALSE(line.allDone());
    EXPECT_EQ(write(fd, "\x01\x02", 2), 2);
    EXPECT_TRUE(line.allDone());
    EXPECT_EQ(write(fd, "\x09", 1), 1);
    const auto result = line.allDone();
    EXPECT_FALSE(result);
    EXPECT_NE(std::string(result.message()).find("sent but not expected: 09"), std::string::npos);
}

TEST(FakeLine, CallbackAnswersWhatItSees) {
    FakeLine line("/dev/ttyX1", 0);
    line.onWrite([&](const Bytes& bytes) { line.feed({static_cast<std::uint8_t>(bytes[0] + 1)}, 100); });
    const int fd = openPort();
    EXPECT_EQ(write(fd, "\x10", 1), 1);
    tcdrain(fd);
    EXPECT_EQ(waitFor(fd, 10000), 1);
    EXPECT_EQ(readAll(fd), Bytes{0x11});
    EXPECT_TRUE(line.allDone());
}

TEST(FakeLine, FlushDropsWhatHasArrivedOnly) {
    FakeLine line("/dev/ttyX1");
    const int fd = openPort();
    line.feed({1, 2, 3});
    usleep(2100);
    EXPECT_EQ(line.waiting(), 2u);
    EXPECT_EQ(tcflush(fd, TCIOFLUSH), 0);
    EXPECT_EQ(line.waiting(), 0u);
    EXPECT_EQ(line.onTheWay(), 1u);
    EXPECT_EQ(line.flushes(), 1u);
}

TEST(FakeLine, ReadBlocksUnlessToldOtherwise) {
    FakeLine line("/dev/ttyX1", 0);
    const int fd = openPort();
    line.feed({7}, 123456);
    std::uint8_t byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 1);
    EXPECT_EQ(VirtualClock::now(), 123456);
    EXPECT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
    EXPECT_EQ(read(fd, &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_NE(line.statusFlags() & O_NONBLOCK, 0);
}

TEST(FakeLine, TheChosenCallFails) {
    FakeLine line("/dev/ttyX1");
    line.fail(LineCall::Open, EACCES);
    EXPECT_EQ(open("/dev/ttyX1", O_RDWR), -1);
    EXPECT_EQ(errno, EACCES);
    const int fd = openPort();
    line.fail(LineCall::Write, EINTR, 2, 2);
    EXPECT_EQ(write(fd, "a", 1), 1);
    EXPECT_EQ(write(fd, "b", 1), -1);
    EXPECT_EQ(write(fd, "c", 1), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(write(fd, "d", 1), 1);
    line.failIoctl(FIONREAD, EIO);
    struct serial_rs485 record;
    EXPECT_EQ(ioctl(fd, TIOCGRS485, &record), 0);
    int n = 0;
    EXPECT_EQ(ioctl(fd, FIONREAD, &n), -1);
    EXPECT_EQ(errno, EIO);
    line.fail(LineCall::Select, EINTR, 2);
    EXPECT_EQ(waitFor(fd, 100), 0);
    struct timeval timeout = {0, 100};
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &timeout), -1);
    line.fail(LineCall::Close, EIO);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(FakeLine, EveryCallCanBeTheOneThatFails) {
    for (std::size_t n = 1; n <= 4; ++n) {
        FakeLine line("/dev/ttyX1");
        line.failAny(EIO, n);
        const int fd = open("/dev/ttyX1", O_RDWR);
        EXPECT_EQ(fd < 0, n == 1);
        if (fd >= 0) {
            EXPECT_EQ(tcflush(fd, TCIOFLUSH) < 0, n == 2);
            EXPECT_EQ(tcdrain(fd) < 0, n == 3);
            EXPECT_EQ(close(fd) < 0, n == 4);
        }
    }
}

TEST(FakeLine, HookRunsBeforeTheCall) {
    FakeLine line("/dev/ttyX1", 0);
    const int fd = openPort();
    fcntl(fd, F_SETFL, O_NONBLOCK);
    line.put({1, 2});
    line.before(LineCall::Read, [fd] { tcflush(fd, TCIFLUSH); });
    EXPECT_EQ(waitingOn(fd), 2);
    std::uint8_t bytes[2];
    EXPECT_EQ(read(fd, bytes, 2), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(FakeLine, HangUpAndReturn) {
    FakeLine line("/dev/ttyX1");
    const int fd = openPort();
    line.hangUp();
    int n = 0;
    char byte = 0;
    struct termios settings;
    EXPECT_EQ(ioctl(fd, FIONREAD, &n), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read(fd, &byte, 1), 0);
    EXPECT_EQ(write(fd, &byte, 1), -1);
    EXPECT_EQ(tcgetattr(fd, &settings), -1);
    EXPECT_EQ(tcflush(fd, TCIOFLUSH), -1);
    EXPECT_EQ(waitFor(fd, 10000), 1);
    EXPECT_EQ(VirtualClock::now(), 0);
    EXPECT_EQ(open("/dev/ttyX1", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    line.plugIn();
    const int again = openPort();
    EXPECT_EQ(waitingOn(again), 0);
    EXPECT_EQ(ioctl(fd, FIONREAD, &n), -1);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(close(again), 0);
}

TEST(FakeLine, DriverRecords) {
    FakeLine line("/dev/ttyX1");
    const int fd = openPort();
    struct serial_icounter_struct counters;
    EXPECT_EQ(ioctl(fd, TIOCGICOUNT, &counters), 0);
    EXPECT_EQ(counters.brk, 0);
    line.receiveBreak();
    EXPECT_EQ(ioctl(fd, TIOCGICOUNT, &counters), 0);
    EXPECT_EQ(counters.brk, 1);
    line.setHasBreakCounter(false);
    EXPECT_EQ(ioctl(fd, TIOCGICOUNT, &counters), -1);
    EXPECT_EQ(errno, ENOTTY);
    struct serial_rs485 record = {};
    record.flags = 5;
    EXPECT_EQ(ioctl(fd, TIOCSRS485, &record), 0);
    EXPECT_EQ(line.rs485().flags, 5u);
    EXPECT_EQ(ioctl(fd, TIOCSCTTY, 0), 0);
    EXPECT_TRUE(line.isControllingTerminal());
}

TEST(FakeLine, TranscriptTellsWhatHappened) {
    FakeLine line("/dev/ttyX1");
    line.expect({0x02, 0xEA}).reply({0x06}, 3000);
    const int fd = openPort();
    EXPECT_EQ(write(fd, "\x02\xEA", 2), 2);
    tcdrain(fd);
    while (waitingOn(fd) == 0) {
        waitFor(fd, 1000);
    }
    readAll(fd);
    usleep(500);
    tcsendbreak(fd, 0);
    tcflush(fd, TCIOFLUSH);
    close(fd);
    EXPECT_EQ(Transcript::text(),
              "[   0.000000] ttyX1   open rdwr noctty\n"
              "[   0.000000] ttyX1   >> 02 EA\n"
              "[   0.000000]         tcdrain 2084 us\n"
              "[   0.002084]         select 1000 us x5\n"
              "[   0.006126] ttyX1   << 06\n"
              "[   0.006126]         usleep 500 us\n"
              "[   0.006626] ttyX1   break\n"
              "[   0.006626]         tcsendbreak 250000 us\n"
              "[   0.256626] ttyX1   flush\n"
              "[   0.256626] ttyX1   close\n");
    EXPECT_FALSE(Transcript::matchesGolden("no_such_golden_file"));
}

TEST(FakeLine, OutputBufferFillsAndEmpties) {
    FakeLine line("/dev/ttyX1");
    line.setOutputBuffer(4);
    const int fd = openPort();
    const Bytes bytes{1, 2, 3, 4, 5, 6};
    fcntl(fd, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(write(fd, bytes.data(), 6), 4);
    EXPECT_EQ(write(fd, bytes.data() + 4, 2), -1);
    EXPECT_EQ(errno, EAGAIN);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    EXPECT_EQ(select(fd + 1, nullptr, &set, nullptr, nullptr), 1);
    EXPECT_TRUE(FD_ISSET(fd, &set));
    EXPECT_EQ(VirtualClock::now(), 1042);
    EXPECT_EQ(write(fd, bytes.data() + 4, 2), 1);
    // A write that waits takes all.
    fcntl(fd, F_SETFL, 0);
    EXPECT_EQ(write(fd, bytes.data(), 6), 6);
    EXPECT_GE(VirtualClock::now(), 7 * 1041);
    EXPECT_EQ(line.sent(), (Bytes{1, 2, 3, 4, 5, 1, 2, 3, 4, 5, 6}));
}

TEST(FakeLine, SelectOnRealDescriptorsTakesVirtualTime) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(waitFor(ends[0], 10000), 0);
    EXPECT_EQ(VirtualClock::now(), 10000);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(waitFor(ends[0], 10000), 1);
    EXPECT_EQ(VirtualClock::now(), 10000);
    close(ends[0]);
    close(ends[1]);
}
