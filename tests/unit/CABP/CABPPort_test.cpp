// Opening and closing the bus port, and the BREAK on its line.
#include <asm/ioctls.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "Bus.h"
#include "DevMgr/ComDev.h"
#include "support/Allocations.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

using bus::frame;
using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::Transcript;
using support::VirtualClock;

namespace {

// Whether SIGINT is handled, and not by the default.
bool isSigintCaught() {
    struct sigaction now;
    sigaction(SIGINT, nullptr, &now);
    return now.sa_handler != SIG_DFL && now.sa_handler != SIG_IGN;
}

// The same port, left closed at first.
class ClosedPort : public bus::Port {
  protected:
    void SetUp() override {}
};

}  // namespace

using Port = bus::Port;

// ---- opening and closing

TEST_F(ClosedPort, OpensAt9600AndStartsEmpty) {
    line.put({1, 2, 3});
    line.before(LineCall::Tcsetattr, [this] { line.put({4}); });
    CABP_Init();
    EXPECT_EQ(CABP_ch, 0);
    EXPECT_EQ(line.openCount(), 1u);
    const struct termios settings = line.settings();
    EXPECT_EQ(cfgetispeed(&settings), static_cast<speed_t>(B9600));
    EXPECT_EQ(line.waiting(), 0u);
    EXPECT_EQ(log.errors(), 0u);
}

TEST_F(ClosedPort, CatchesSigintWithAllSignalsBlockedAndNoRestart) {
    EXPECT_FALSE(isSigintCaught());
    CABP_Init();
    struct sigaction now;
    ASSERT_EQ(sigaction(SIGINT, nullptr, &now), 0);
    EXPECT_NE(now.sa_handler, SIG_DFL);
    EXPECT_EQ(now.sa_flags & (SA_RESTART | SA_SIGINFO | SA_RESETHAND | SA_NODEFER), 0);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGALRM, SIGUSR1}) {
        EXPECT_EQ(sigismember(&now.sa_mask, sig), 1) << sig;
    }
}

TEST_F(ClosedPort, CatchesSigintEvenWithoutAPort) {
    line.hangUp();
    CABP_Init();
    EXPECT_TRUE(isSigintCaught());
    raise(SIGINT);
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(ClosedPort, PortThatIsNotThereLeavesTheChannelClosed) {
    line.hangUp();
    CABP_Init();
    EXPECT_EQ(CABP_ch, 0xFF);
    const auto entries = log.entries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.back().level, "Err");
    EXPECT_EQ(entries.back().file, "CABPRcv.cpp");
    EXPECT_EQ(entries.back().function, "CABP_Init");
    EXPECT_EQ(entries.back().message, "Errore inizializzazione!");
    // The next opening tries again.
    line.plugIn();
    CABP_Init();
    EXPECT_EQ(CABP_ch, 0);
}

TEST_F(ClosedPort, NoPortNamedAtAll) {
    serialPortCABP = nullptr;
    CABP_Init();
    EXPECT_EQ(CABP_ch, 0xFF);
    EXPECT_TRUE(log.has("Err", "Errore inizializzazione!"));
}

TEST_F(Port, OpeningAgainOnlyEmptiesTheQueues) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, nullptr);
    line.put({1, 2, 3});
    const std::size_t opened = line.calls(LineCall::Open);
    const std::size_t flushed = line.flushes();
    CABP_Init();
    EXPECT_EQ(line.calls(LineCall::Open), opened);
    EXPECT_EQ(line.flushes(), flushed + 1);
    EXPECT_EQ(line.waiting(), 0u);
    EXPECT_EQ(CABP_ch, 0);
    EXPECT_FALSE(isSigintCaught()) << "the handler belongs to the opening";
    EXPECT_EQ(log.text(), "");
}

TEST_F(Port, ClosingTellsAndForgetsTheChannel) {
    EXPECT_EQ(CABP_End(), 0);
    EXPECT_EQ(CABP_ch, 0xFF);
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(log.messages(), "Chiude il canale di comunicazione\n");
    EXPECT_EQ(log.count(""), 1u);
    log.clear();
    EXPECT_EQ(CABP_End(), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Port, HandlerIsInstalledWithEachOpening) {
    CABP_End();
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, nullptr);
    CABP_Init();
    EXPECT_TRUE(isSigintCaught());
}

// ---- the signal

TEST_F(Port, SignalCountsAndEmptiesThePort) {
    line.put({1, 2, 3});
    raise(SIGINT);
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_EQ(line.waiting(), 0u);
    raise(SIGINT);
    EXPECT_EQ(cntBreakDetect, 2);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Port, SignalWritesNothingAndKeepsErrno) {
    line.fail(LineCall::Tcflush, ENXIO);
    const support::AllocationCount allocations;
    errno = EDOM;
    raise(SIGINT);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(allocations.count(), 0u);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(Port, FlushThatFailedInTheHandlerIsToldAtTheNextLook) {
    line.fail(LineCall::Tcflush, EIO);
    raise(SIGINT);
    EXPECT_EQ(log.text(), "");
    CABP_CheckBreak();
    EXPECT_EQ(log.messages(), "flush error:-4\n");
    EXPECT_EQ(log.errors(), 1u);
    log.clear();
    CABP_CheckBreak();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(Port, SignalOnAClosedPortOnlyCounts) {
    CABP_End();
    log.clear();
    const std::size_t flushed = line.flushes();
    raise(SIGINT);
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_EQ(line.flushes(), flushed);
    CABP_CheckBreak();
    EXPECT_EQ(log.text(), "");
}

TEST_F(ClosedPort, SignalBeforeEveryCallOfALifeOfThePort) {
    // Not before the first opening: until then nobody catches it.
    CABP_Init();
    CABP_End();
    for (const LineCall call :
         {LineCall::Open, LineCall::Close, LineCall::Read, LineCall::Ioctl, LineCall::Fcntl, LineCall::Tcgetattr,
          LineCall::Tcsetattr, LineCall::Tcdrain, LineCall::Write, LineCall::Select, LineCall::Tcsendbreak}) {
        cntBreakDetect = 0;
        line.before(call, [] { raise(SIGINT); });
        CABP_Init();
        EXPECT_EQ(CABP_ch, 0);
        CABP_BusyReply(0xEA);
        line.feed(frame(0xEA, 0xFF, "BS"), 5000);
        receive(100);
        CABP_RecoveryBus();
        CABP_End();
        line.before(call, nullptr);
        EXPECT_GT(cntBreakDetect, 0);
        EXPECT_FALSE(line.isOpen());
    }
}

TEST_F(Port, ClosingWaitsForAHandlerOnAnotherThread) {
    VirtualClock::useRealTime();
    std::atomic<bool> isInHandler{false};
    std::atomic<bool> mayLeave{false};
    std::atomic<bool> hasClosed{false};
    line.before(LineCall::Tcflush, [&] {
        if (!isInHandler.exchange(true)) {
            while (!mayLeave) {
                std::this_thread::yield();
            }
            EXPECT_TRUE(line.isOpen()) << "the descriptor was given back under the handler";
        }
    });
    std::thread interrupted([] { raise(SIGINT); });
    while (!isInHandler) {
        std::this_thread::yield();
    }
    std::thread closing([&] {
        CABP_End();
        hasClosed = true;
    });
    for (int i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(hasClosed);
    mayLeave = true;
    interrupted.join();
    closing.join();
    EXPECT_FALSE(line.isOpen());
}

// ---- the driver's counter

TEST_F(Port, BreakOfTheDriverCountsLikeTheSignal) {
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 0);
    line.receiveBreak();
    line.put({1, 2, 3});
    const std::size_t flushed = line.flushes();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_EQ(line.flushes(), flushed + 1);
    EXPECT_EQ(line.waiting(), 0u);
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_EQ(line.flushes(), flushed + 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Port, EveryBreakSinceTheLastLookCounts) {
    line.setBreakCount(3);
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 3);
    line.setBreakCount(1);  // a driver that began anew
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 3);
    line.setBreakCount(2);
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 4);
}

TEST_F(ClosedPort, BreaksBeforeTheOpeningAreNone) {
    line.setBreakCount(7);
    CABP_Init();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 0);
    CABP_End();
    line.setBreakCount(9);
    CABP_CheckBreak();
    CABP_Init();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 0);
    line.receiveBreak();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(ClosedPort, PortWithoutACounterIsLeftToTheSignalSilently) {
    line.setHasBreakCounter(false);
    CABP_Init();
    log.clear();
    CABP_CheckBreak();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 0);
    EXPECT_EQ(log.text(), "");
    raise(SIGINT);
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(Port, CounterThatFailsOnceStartsAnew) {
    line.failIoctl(TIOCGICOUNT, EIO);
    CABP_CheckBreak();
    line.setBreakCount(5);
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 0);
    line.receiveBreak();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 1);
}

// ---- the own BREAK

TEST_F(Port, OwnBreakIsSentAfterTwoMilliseconds) {
    Transcript::clear();
    line.put({1, 2, 3});
    CABP_RecoveryBus();
    EXPECT_EQ(line.breaksSent(), 1u);
    EXPECT_EQ(line.waiting(), 0u);
    EXPECT_EQ(VirtualClock::sumWaits("usleep"), 2000);
    EXPECT_EQ(log.messages(), "Invio del carattere BREAK!!!\n");
    EXPECT_TRUE(Transcript::matchesGolden("cabp_own_break"));
}

TEST_F(Port, OwnBreakIsNoneThatWasReceived) {
    // The receiver hears what the transmitter sends.
    line.before(LineCall::Tcsendbreak, [this] { line.receiveBreak(); });
    CABP_RecoveryBus();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 0);
    line.receiveBreak();
    CABP_CheckBreak();
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(Port, OwnBreakOnAClosedPortIsHarmless) {
    CABP_End();
    log.clear();
    CABP_RecoveryBus();
    EXPECT_EQ(log.messages(), "Canale non valido!\n");
    EXPECT_EQ(line.breaksSent(), 0u);
}
