// The one answer that a query must get.
#include <asm/ioctls.h>
#include <signal.h>

#include <cerrno>

#include "Bus.h"
#include "support/Allocations.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

using bus::filler;
using bus::frame;
using bus::join;
using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::Transcript;
using support::VirtualClock;

namespace {

// The card 0xEB has asked 0xEC for the nominal data: 20 bytes.
class Answer : public bus::Port {
  protected:
    int receiveReply(uint16 size = 30) {
        got.assign(size, 0);
        length = size;
        return CABP_RcvReply(got.data(), &length, bus::query(0xEC, "BN"));
    }
    uint16 length = 0;
};

const Bytes REPLY = frame(0xEC, 0xFF, "BN", filler(20));
constexpr char NOHEADER[] = "Errore ricezione: manca il carattere di inizio pacchetto della risposta timeout:3000!\n";
constexpr char SHORTBODY[] = "Errore ricezione: non sono presenti tutti i byte descritti in lenght!\n";

struct HeaderRow {
    const char* shows;
    Bytes before;
};
const HeaderRow headerRows[] = {
    {"nothing", {}},
    {"one byte", {0x11}},
    {"six bytes", filler(6)},
    {"seven bytes", filler(7)},
    {"eight bytes", filler(8)},
    {"many bytes", filler(100)},
    {"one STX", {0x02}},
    {"STX at each place", {0x02, 0x02, 0x02, 0x02, 0x02, 0x02, 0x02}},
    {"a foreign answer", frame(0xED, 0xFF, "BN", {})},
    {"the right node's answer to something else", frame(0xEC, 0xFF, "BI", {})},
    {"the query's own echo", frame(0xEB, 0xEC, "BN")},
    {"a busy NAK", frame(0xEC, 0xEB,
                         "\x15"
                         "5")},
    {"the start of the answer, broken off", Bytes(REPLY.begin(), REPLY.begin() + 4)},
};

}  // namespace

TEST_F(Answer, IsFoundBehindWhatCameBeforeRowByRow) {
    for (const HeaderRow& row : headerRows) {
        SCOPED_TRACE(row.shows);
        line.put(join({row.before, REPLY}));
        EXPECT_EQ(receiveReply(), 0);
        EXPECT_EQ(got, REPLY);
        EXPECT_EQ(length, 30);
        EXPECT_EQ(line.waiting(), 0u);
        EXPECT_EQ(log.text(), "");
    }
    EXPECT_EQ(errnoCABP, 0);
}

TEST_F(Answer, IsFoundWithItsStxAtEachPlaceOfTheHeader) {
    for (std::size_t k = 0; k < 20; ++k) {
        line.put(join({filler(k), REPLY}));
        EXPECT_EQ(receiveReply(), 0) << k;
        EXPECT_EQ(got, REPLY) << k;
    }
}

TEST_F(Answer, FirstStxOfAHeaderIsTakenEvenIfItIsFalse) {
    // The bytes 02 11 move to the front; the true STX is found in the next round.
    line.put(join({{0x11, 0x02, 0x12}, REPLY}));
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(got, REPLY);
}

TEST_F(Answer, IsReadHeaderFirstThenTheRestAtOnce) {
    line.put(join({{0x11, 0x12}, REPLY, {0x13}}));
    Transcript::clear();
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_TRUE(Transcript::matchesGolden("cabp_reply_reads"));
    EXPECT_EQ(line.waiting(), 1u);
}

TEST_F(Answer, ReceiverCheckAndEndAreNotLookedAtHere) {
    Bytes reply = frame(0xEC, 0x55, "BN", filler(20));
    reply[28] ^= 0x01;
    reply[29] = 0x44;
    line.put(reply);
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(got, reply);
}

TEST_F(Answer, ShorterThanExpectedGivesItsOwnSize) {
    const Bytes reply = frame(0xEC, 0xEB, "BN", {0x06});
    line.put(reply);
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(length, 11);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 11), reply);
}

TEST_F(Answer, LongerThanExpectedIsReadUpToTheExpectedSizeAndThenRefused) {
    const Bytes reply = frame(0xEC, 0xFF, "BN", filler(300));
    line.put(reply);
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(length, 30);
    EXPECT_EQ(got, Bytes(reply.begin(), reply.begin() + 30));
    EXPECT_EQ(line.waiting(), 280u);
    const Bytes asked = frame(0xEB, 0xEC, "BN");
    EXPECT_EQ(CABP_Decode(asked.data(), got.data(), length), -1);
    EXPECT_EQ(errnoCABP, DATALENFAIL);
}

TEST_F(Answer, LargestAnnouncedLengthStaysInTheBuffer) {
    Bytes reply = REPLY;
    reply[5] = 0xFF;
    reply[6] = 0xFF;
    line.put(reply);
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(length, 30);
}

TEST_F(Answer, BufferSmallerThanAnyFrameIsRefused) {
    for (uint16 size = 0; size < 10; ++size) {
        log.clear();
        line.put(REPLY);
        EXPECT_EQ(receiveReply(size), -1) << size;
        EXPECT_EQ(log.messages(), "Errore lunghezza attesa della risposta:" + std::to_string(size) + "\n");
        EXPECT_EQ(log.errors(), 1u);
        EXPECT_EQ(line.waiting(), REPLY.size());
        CABP_Init();
    }
    line.put(frame(0xEC, 0xFF, "BN"));
    EXPECT_EQ(receiveReply(10), 0);
}

TEST_F(Answer, TakesNoMemory) {
    line.put(join({filler(100), REPLY}));
    got.assign(30, 0);
    length = 30;
    const pckStruct q = bus::query(0xEC, "BN");
    const support::AllocationCount allocations;
    EXPECT_EQ(CABP_RcvReply(got.data(), &length, q), 0);
    EXPECT_EQ(allocations.count(), 0u);
}

// ---- time

TEST_F(Answer, SilenceOfThreeSecondsEndsIt) {
    errnoCABP = CMDSFAIL;
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_EQ(VirtualClock::now(), 3000000);
    EXPECT_EQ(log.messages(), NOHEADER);
    const auto entries = log.entries();
    EXPECT_EQ(entries[0].level, "Err");
    EXPECT_EQ(entries[0].function, "CABP_RcvReply");
    EXPECT_EQ(errnoCABP, CMDSFAIL) << "a time-out leaves the code of the last fault";
}

TEST_F(Answer, NakIsNoiseAndTheAskerRunsIntoTheTimeLimit) {
    line.put(frame(0xEC, 0xEB,
                   "\x15"
                   "5"));
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_EQ(VirtualClock::now(), 3000000);
    EXPECT_TRUE(log.has("Err", std::string(NOHEADER, sizeof(NOHEADER) - 2)));
    EXPECT_EQ(errnoCABP, 0);
}

TEST_F(Answer, EachByteRestartsTheSilence) {
    line.feedAt(2900000, Bytes(REPLY.begin(), REPLY.begin() + 3));
    line.feedAt(5800000, Bytes(REPLY.begin() + 3, REPLY.begin() + 10));
    line.feedAt(8700000, Bytes(REPLY.begin() + 10, REPLY.end()));
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(got, REPLY);
}

TEST_F(Answer, NoiseEndsItAfterAMinute) {
    errnoCABP = CMDSFAIL;
    for (int second = 1; second <= 100; ++second) {
        line.feedAt(second * 1000000, filler(7));
    }
    EXPECT_EQ(receiveReply(), -4);
    EXPECT_EQ(VirtualClock::now(), 60000000);
    EXPECT_EQ(log.messages(), "Errore ricezione: TIMEOUT!\n");
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_EQ(errnoCABP, CMDSFAIL);
}

TEST_F(Answer, HeaderIsInTimeUpTo59999Milliseconds) {
    for (int second = 1; second <= 59; ++second) {
        line.feedAt(second * 1000000, filler(7));
    }
    // From the last noise on the port is looked at every 10 ms.
    line.feedAt(59009000, filler(7));
    line.feedAt(59995000, REPLY);
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(got, REPLY);
    EXPECT_EQ(VirtualClock::now(), 59999000);
}

TEST_F(Answer, GoodHeaderAfterAMinuteIsTooLate) {
    for (int second = 1; second <= 59; ++second) {
        line.feedAt(second * 1000000, filler(7));
    }
    line.feedAt(60000000, REPLY);
    EXPECT_EQ(receiveReply(), -4);
    EXPECT_EQ(log.messages(), "Errore ricezione: TIMEOUT!\n");
}

TEST_F(Answer, ShortBody) {
    errnoCABP = CMDSFAIL;
    line.put(Bytes(REPLY.begin(), REPLY.end() - 1));
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_EQ(VirtualClock::now(), 3000000);
    const std::string messages = log.messages();
    const std::string lines = std::string(SHORTBODY) + "Len:20 MainCmd:0x42 SubCmd:0x4E\n";
    ASSERT_GE(messages.size(), lines.size());
    EXPECT_EQ(messages.substr(messages.size() - lines.size()), lines);
    EXPECT_EQ(log.errors(), 2u);
    EXPECT_EQ(errnoCABP, CMDSFAIL);
}

TEST_F(Answer, BodyThatNeverComes) {
    line.put(Bytes(REPLY.begin(), REPLY.begin() + 7));
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_EQ(log.messages(), std::string(SHORTBODY) + "Len:20 MainCmd:0x42 SubCmd:0x4E\n");
}

// ---- the port and the BREAK

TEST_F(Answer, FaultInTheHeaderReopensThePort) {
    errnoCABP = CMDSFAIL;
    line.failIoctl(FIONREAD, EIO);
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_TRUE(log.has("Err", "Errore (-10) Provo a resettare la seriale"));
    EXPECT_TRUE(log.has("", "Chiude il canale di comunicazione"));
    EXPECT_EQ(line.calls(LineCall::Open), 2u);
    EXPECT_EQ(CABP_ch, 0);
    EXPECT_EQ(errnoCABP, CMDSFAIL);
    EXPECT_EQ(VirtualClock::countWaits("usleep"), 0u) << "the master's round has its own pace";
}

TEST_F(Answer, FaultInTheBodyDoesNot) {
    line.put(REPLY);
    line.fail(LineCall::Read, EIO, 2);
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_EQ(line.calls(LineCall::Open), 1u);
    EXPECT_TRUE(log.has("Err", "Len:20 MainCmd:0x42 SubCmd:0x4E"));
}

TEST_F(Answer, ClosedPortIsOpened) {
    CABP_End();
    log.clear();
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_TRUE(log.has("Err", "Errore (-1) Provo a resettare la seriale"));
    EXPECT_FALSE(log.contains("Chiude il canale"));
    EXPECT_EQ(CABP_ch, 0);
    line.put(REPLY);
    EXPECT_EQ(receiveReply(), 0);
}

TEST_F(Answer, InterruptedCallsAreTakenUpAgain) {
    line.fail(LineCall::Select, EINTR, 1, 3);
    line.fail(LineCall::Read, EINTR, 2);
    line.feed(REPLY, 25000);
    EXPECT_EQ(receiveReply(), 0);
    EXPECT_EQ(got, REPLY);
}

TEST_F(Answer, BreakOfTheDriverIsCountedAndTakesTheRestOfTheAnswer) {
    line.put(REPLY);
    line.setBreakCount(1);
    // The flush comes behind the header's read: the body is gone.
    EXPECT_EQ(receiveReply(), -1);
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_EQ(VirtualClock::now(), 3000000);
    // A counted BREAK by itself ends no exchange.
    line.put(REPLY);
    EXPECT_EQ(receiveReply(), 0);
}

TEST_F(Answer, FaultAtEveryCall) {
    std::size_t n = 1;
    for (;; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, 200u);
        VirtualClock::setLimit(VirtualClock::now() + 20000000);
        line.clearFaults();
        CABP_Init();
        line.failAny(EIO, n);
        line.feed(REPLY, 15000);
        const int ret = receiveReply();
        if (line.hasFaultsLeft()) {
            EXPECT_EQ(ret, 0);
            break;
        }
        if (ret == 0) {
            EXPECT_EQ(got, REPLY);
        }
        CABP_End();
        EXPECT_EQ(line.openCount(), 0u);
    }
    EXPECT_GT(n, 5u);
}
