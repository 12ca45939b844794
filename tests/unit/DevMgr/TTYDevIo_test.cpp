#include "DevMgr/TTYDev.h"

#include <asm/ioctls.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "support/Allocations.h"
#include "support/FakeLine.h"
#include "support/LogCapture.h"
#include "support/VirtualClock.h"
#include "unit/DevMgr/PortOnALine.h"

using support::AllocationCount;
using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::VirtualClock;

namespace {

class TTYDevIo : public PortOnALine {};

}  // namespace

// ---- the closed port

TEST_F(TTYDevIo, ClosedPortRefusesEverything) {
    EXPECT_EQ(read(10, 100), TTYD_ERR_PORT_CLOSED);
    EXPECT_EQ(counted, 0u);
    EXPECT_EQ(write({1}), TTYD_ERR_PORT_CLOSED);
    EXPECT_EQ(ttyd_sendbreak(port), TTYD_ERR_PORT_CLOSED);
    EXPECT_EQ(ttyd_flush(port), TTYD_ERR_PORT_CLOSED);
    EXPECT_EQ(ttyd_close(port), TTYD_ERR_PORT_CLOSED);
    EXPECT_LT(ttyd_break_count(port), 0);
    EXPECT_EQ(log.text(), "");
    // This one asks the descriptor, and there is none.
    EXPECT_LT(ttyd_write_complete(port), 0);
}

// ---- reading

TEST_F(TTYDevIo, NothingWantedReturnsAtOnceWithoutAsking) {
    openPort();
    const std::size_t before = line.totalCalls();
    EXPECT_EQ(read(0, 100), TTYD_ERR_NOERROR);
    EXPECT_EQ(counted, 0u);
    EXPECT_EQ(line.totalCalls(), before);
    EXPECT_EQ(VirtualClock::now(), 0);
}

TEST_F(TTYDevIo, TakesNoMoreThanWanted) {
    openPort();
    line.put({1, 2, 3, 4, 5});
    EXPECT_EQ(read(3, 100), TTYD_ERR_NOERROR);
    EXPECT_EQ(got, (Bytes{1, 2, 3}));
    EXPECT_EQ(line.waiting(), 2u);
    EXPECT_EQ(VirtualClock::now(), 0);
}

TEST_F(TTYDevIo, NoDataAndNoTimeoutEndsAtTheFirstPass) {
    openPort();
    EXPECT_EQ(read(1, 0), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(line.calls(LineCall::Select), 1u);
    EXPECT_EQ(VirtualClock::now(), 10000);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDevIo, DataWaitingComesWithoutTimeout) {
    openPort();
    line.put({7});
    EXPECT_EQ(read(1, 0), TTYD_ERR_NOERROR);
    EXPECT_EQ(got, Bytes{7});
}

TEST_F(TTYDevIo, SilenceEndsAfterTheTimeout) {
    openPort();
    EXPECT_EQ(read(1, 100), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(VirtualClock::now(), 100000);
    EXPECT_EQ(read(1, 95), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(VirtualClock::now(), 200000);
}

// Each pause has its full length although the system counts the limit down.
TEST_F(TTYDevIo, PausesAreAlwaysTenMilliseconds) {
    openPort();
    EXPECT_EQ(read(1, 30000), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(VirtualClock::now(), 30000000);
    EXPECT_EQ(VirtualClock::countWaits("select"), 3000u);
    EXPECT_EQ(VirtualClock::sumWaits("select"), 30000000);
}

TEST_F(TTYDevIo, TimeoutLimitsTheGapsNotTheWhole) {
    openPort();
    for (int i = 1; i <= 10; ++i) {
        line.feedAt(i * 90000, {static_cast<uint8>(i)});
    }
    EXPECT_EQ(read(10, 100), TTYD_ERR_NOERROR);
    EXPECT_EQ(got.size(), 10u);
    EXPECT_EQ(got[9], 10);
    EXPECT_GE(VirtualClock::now(), 900000);
    EXPECT_LE(VirtualClock::now(), 910000);
}

TEST_F(TTYDevIo, PartThatCameBeforeTheTimeoutIsCounted) {
    openPort();
    line.feedAt(50000, {1, 2, 3});
    EXPECT_EQ(read(10, 100), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(counted, 3u);
    EXPECT_EQ(got, (Bytes{1, 2, 3}));
    EXPECT_EQ(VirtualClock::now(), 150000);
}

TEST_F(TTYDevIo, WallClockChangesDoNotDisturbTheTimeout) {
    openPort();
    VirtualClock::at(30000, [] { VirtualClock::setWall(2000000000); });
    VirtualClock::at(60000, [] { VirtualClock::setWall(1000000000); });
    EXPECT_EQ(read(1, 100), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(VirtualClock::now(), 100000);
}

TEST_F(TTYDevIo, InterruptedWaitsAndReadsGoOn) {
    openPort();
    line.fail(LineCall::Select, EINTR, 1, 2);
    line.fail(LineCall::Read, EINTR);
    line.feedAt(20000, {1});
    EXPECT_EQ(read(1, 100), TTYD_ERR_NOERROR);
    EXPECT_EQ(got, Bytes{1});
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 read error -> errno: 4 strerror: Interrupted system call\n");
}

TEST_F(TTYDevIo, ReadFaultsEndTheRead) {
    openPort();
    line.put({1, 2});
    line.failIoctl(FIONREAD, EIO, 2);
    EXPECT_EQ(read(3, 100), TTYD_ERR_IOCTL);
    EXPECT_EQ(counted, 2u);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 ioctl error -> errno: 5 strerror: Input/output error\n");
    log.clear();
    line.put({1, 2});
    line.fail(LineCall::Read, EIO);
    EXPECT_EQ(read(2, 100), TTYD_ERR_READ);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 read error -> errno: 5 strerror: Input/output error\n");
    EXPECT_EQ(read(2, 100), TTYD_ERR_NOERROR);
    log.clear();
    line.fail(LineCall::Select, EBADF);
    EXPECT_EQ(read(2, 100), TTYD_ERR_SELECT);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 select error - > errno:9 strerror: Bad file descriptor\n");
}

TEST_F(TTYDevIo, TimeoutComesBeforeAFailingWait) {
    openPort();
    line.fail(LineCall::Select, EBADF);
    EXPECT_EQ(read(1, 0), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDevIo, HangUpEndsTheReadAtOnce) {
    openPort();
    VirtualClock::at(25000, [&] { line.hangUp(); });
    EXPECT_EQ(read(10, 60000), TTYD_ERR_IOCTL);
    EXPECT_LE(VirtualClock::now(), 40000);
    EXPECT_EQ(log.errors(), 1u);
}

TEST_F(TTYDevIo, FlushBetweenQuestionAndReadDoesNotBlock) {
    openPort();
    ttyd_termios(port);
    line.put({1, 2, 3});
    bool flushed = false;
    line.before(LineCall::Read, [&] {
        if (!flushed) {
            flushed = true;
            ttyd_flush(port);
        }
    });
    line.feedAt(500000, {4});
    EXPECT_EQ(read(1, 100), TTYD_ERR_TIMEOUT);
    EXPECT_TRUE(flushed);
    EXPECT_EQ(VirtualClock::now(), 100000);
    EXPECT_EQ(read(1, 1000), TTYD_ERR_NOERROR);
    EXPECT_EQ(got, Bytes{4});
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDevIo, EverlastingFalseReadinessDoesNotSpin) {
    openPort();
    line.put({1});
    line.fail(LineCall::Read, EAGAIN, 1, 1000000);
    EXPECT_EQ(read(1, 1000), TTYD_ERR_TIMEOUT);
    EXPECT_LE(line.calls(LineCall::Select), 102u);
    EXPECT_EQ(VirtualClock::now(), 1000000);
}

TEST_F(TTYDevIo, ReadingAndWritingAllocateNothing) {
    openPort();
    line.put(Bytes(100, 0x55));
    uint8 buffer[120];
    uint32 count = 0;
    const AllocationCount allocations;
    const int32 first = ttyd_read_timeout(port, buffer, 120, &count, 100);
    const int32 second = ttyd_write(port, buffer, 100, &count);
    const int32 third = ttyd_write_complete(port);
    EXPECT_EQ(allocations.count(), 0u);
    EXPECT_EQ(first, TTYD_ERR_TIMEOUT);
    EXPECT_EQ(second, TTYD_ERR_NOERROR);
    EXPECT_EQ(third, TTYD_ERR_NOERROR);
}

// ---- writing

TEST_F(TTYDevIo, WriteSendsAll) {
    openPort();
    EXPECT_EQ(write({1, 2, 3}), TTYD_ERR_NOERROR);
    EXPECT_EQ(written, 3u);
    EXPECT_EQ(line.sent(), (Bytes{1, 2, 3}));
}

TEST_F(TTYDevIo, NothingIsSentWhileInputIsWaiting) {
    openPort();
    line.put({9});
    EXPECT_EQ(write({1, 2, 3}), TTYD_ERR_WRITE);
    EXPECT_EQ(written, 4711u);
    EXPECT_TRUE(line.sent().empty());
    EXPECT_EQ(log.messages(),
              "dev:/dev/ttyX1 Risposta preparata in ritardo, altri caratteri sono nel frattempo arrivati in "
              "ingresso!!\n");
    EXPECT_EQ(log.errors(), 1u);
}

TEST_F(TTYDevIo, WriteFaultsAreTold) {
    openPort();
    line.failIoctl(FIONREAD, EIO);
    EXPECT_EQ(write({1}), TTYD_ERR_IOCTL);
    EXPECT_EQ(written, 4711u);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 ioctl error -> errno: 5 strerror: Input/output error\n");
    for (const int error : {EIO, EINTR}) {
        log.clear();
        line.fail(LineCall::Write, error);
        EXPECT_EQ(write({1}), TTYD_ERR_WRITE);
        EXPECT_EQ(written, 0u);
        EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 errno: " + std::to_string(error) +
                                      " strerror: " + std::strerror(error) + " TTYD_ERR_WRITE\n");
    }
    EXPECT_TRUE(line.sent().empty());
}

TEST_F(TTYDevIo, WriteWaitsForRoomAndIsNotCutShort) {
    openPort();
    line.setOutputBuffer(16);
    Bytes bytes;
    for (uint8 i = 0; i < 100; ++i) {
        bytes.push_back(i);
    }
    EXPECT_EQ(write(bytes), TTYD_ERR_NOERROR);
    EXPECT_EQ(written, 100u);
    EXPECT_EQ(line.sent(), bytes);
    // All but the last 16 bytes have left by then.
    EXPECT_GE(VirtualClock::now(), 84 * 1041);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDevIo, WriteCutShortByAFaultTellsWhatWentOut) {
    openPort();
    line.setOutputBuffer(16);
    line.fail(LineCall::Write, EIO, 3);
    EXPECT_EQ(write(Bytes(100, 0xAA)), TTYD_ERR_NOERROR);
    EXPECT_EQ(written, line.sent().size());
    EXPECT_LT(written, 100u);
    EXPECT_GE(written, 16u);
}

TEST_F(TTYDevIo, InterruptedWaitForRoomTellsWhatWentOut) {
    openPort();
    line.setOutputBuffer(16);
    line.fail(LineCall::Select, EINTR);
    EXPECT_EQ(write(Bytes(100, 0xAA)), TTYD_ERR_NOERROR);
    EXPECT_EQ(written, 16u);
}

TEST_F(TTYDevIo, DrainTakesTheTimeOfTheBytes) {
    openPort();
    EXPECT_EQ(write(Bytes(96, 0)), TTYD_ERR_NOERROR);
    EXPECT_EQ(ttyd_write_complete(port), 0);
    EXPECT_EQ(VirtualClock::now(), 100000);
}

TEST_F(TTYDevIo, DrainGoesOnAfterASignalAndFailsOtherwise) {
    openPort();
    line.fail(LineCall::Tcdrain, EINTR, 1, 3);
    EXPECT_EQ(ttyd_write_complete(port), 0);
    EXPECT_EQ(line.calls(LineCall::Tcdrain), 4u);
    line.fail(LineCall::Tcdrain, EIO);
    EXPECT_EQ(ttyd_write_complete(port), -1);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 tcdrain() errno: 5 strerror: Input/output error\n");
}

// ---- the rest

TEST_F(TTYDevIo, Break) {
    openPort();
    EXPECT_EQ(ttyd_sendbreak(port), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.breaksSent(), 1u);
    line.fail(LineCall::Tcsendbreak, EIO);
    EXPECT_EQ(ttyd_sendbreak(port), TTYD_ERR_BREAK);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 errno:5 break error\n");
}

TEST_F(TTYDevIo, BreakCounterOfTheDriver) {
    openPort();
    EXPECT_EQ(ttyd_break_count(port), 0);
    line.setBreakCount(41);
    line.receiveBreak();
    EXPECT_EQ(ttyd_break_count(port), 42);
    line.setHasBreakCounter(false);
    EXPECT_LT(ttyd_break_count(port), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDevIo, FlushEmptiesAndFailsSilently) {
    openPort();
    line.put({1, 2});
    EXPECT_EQ(ttyd_flush(port), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.waiting(), 0u);
    line.fail(LineCall::Tcflush, EIO);
    EXPECT_EQ(ttyd_flush(port), TTYD_ERR_FLUSH);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDevIo, ControllingTerminal) {
    openPort();
    EXPECT_EQ(ttyd_SetCtrlTerm(port), 0);
    EXPECT_TRUE(line.isControllingTerminal());
    line.failIoctl(TIOCSCTTY, EPERM);
    EXPECT_EQ(ttyd_SetCtrlTerm(port), -1);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 TIOCSCTTY error (1): Operation not permitted\n");
}

TEST_F(TTYDevIo, IoctlPassesOn) {
    openPort();
    line.put({1, 2});
    int waiting = 0;
    EXPECT_EQ(ttyd_ioctl(port, FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 2);
    line.failIoctl(FIONREAD, EIO);
    EXPECT_EQ(ttyd_ioctl(port, FIONREAD, &waiting), -1);
}

// A whole life with each of its calls failing in turn: no leak, no hang, no descriptor left.
TEST_F(TTYDevIo, SurvivesTheFailureOfAnyCall) {
    std::size_t n = 0;
    while (!line.hasFaultsLeft()) {
        line.failAny(EIO, ++n);
        ttyd_port_t* const one = ttyd_init();
        ttyd_set_device(one, DEVICE);
        line.put({1, 2, 3});
        uint8 buffer[8];
        uint32 count = 0;
        if (ttyd_open(one, true) == TTYD_ERR_NOERROR) {
            ttyd_termios(one);
            line.put({1, 2, 3});
            ttyd_read_timeout(one, buffer, 8, &count, 20);
            ttyd_flush(one);
            ttyd_write(one, buffer, 3, &count);
            ttyd_write_complete(one);
            ttyd_sendbreak(one);
            ttyd_break_count(one);
            ttyd_end(one);
        } else {
            ttyd_discard(one);
        }
        EXPECT_FALSE(line.isOpen()) << "call " << n;
        ASSERT_LT(n, 1000u);
    }
    EXPECT_GT(n, 25u);
}
