// The hunt for a frame in whatever the bus brings.
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

using Hunt = bus::Port;

namespace {

constexpr char SILENCE[] = "Errore ricezione: manca il carattere di inizio pacchetto!\n";

const Bytes ASK = frame(0xEA, 0xEB, "BS");
const Bytes ANSWER = frame(0xEC, 0xFF, "BN", filler(20));
const Bytes NONE;

Bytes damaged(Bytes pck, std::size_t at, unsigned value) {
    pck[at] = static_cast<uint8>(value);
    return pck;
}

// The beginning of a frame that announces `n` data bytes.
Bytes announcing(unsigned n) {
    return {0x02, 0xEA, 0xEB, 'B', 'S', static_cast<uint8>(n >> 8), static_cast<uint8>(n)};
}

struct HuntRow {
    const char* shows;
    Bytes garbage;
    Bytes fed;
    Bytes comesOut;  // none: silence
    std::size_t left;
};

const HuntRow huntRows[] = {
    {"a frame without data", NONE, ASK, ASK, 0},
    {"a frame with data", NONE, ANSWER, ANSWER, 0},
    {"the largest frame", NONE, frame(0xEA, 0xFF, "BS", filler(1014)), frame(0xEA, 0xFF, "BS", filler(1014)), 0},
    {"nothing", NONE, NONE, NONE, 0},
    {"noise only", filler(50), NONE, NONE, 0},
    {"noise first", filler(50), ANSWER, ANSWER, 0},
    {"the end of another frame first", Bytes(ANSWER.begin() + 9, ANSWER.end()), ASK, ASK, 0},
    {"STX and ETX in the data", NONE, frame(0xEA, 0xFF, "BS", {2, 3, 2, 2, 3, 3}),
     frame(0xEA, 0xFF, "BS", {2, 3, 2, 2, 3, 3}), 0},
    {"a whole frame as data", NONE, frame(0xEA, 0xFF, "QT", ASK), frame(0xEA, 0xFF, "QT", ASK), 0},
    {"a doubled STX", {0x02}, ASK, ASK, 0},
    {"seven STX announce 514 bytes", Bytes(7, 0x02), ASK, NONE, 0},
    {"an STX with an impossible length", {0x02, 1, 1, 1, 1, 0x03, 0xF7}, ASK, ASK, 0},
    {"an STX with the largest impossible length", {0x02, 1, 1, 1, 1, 0xFF, 0xFF}, ASK, ASK, 0},
    {"a wrong check", damaged(ANSWER, 12, 0x55), ASK, ASK, 0},
    {"a wrong check alone", damaged(ANSWER, 12, 0x55), NONE, NONE, 0},
    {"both bytes of the check swapped", NONE, damaged(damaged(ASK, 7, ASK[8]), 8, ASK[7]), NONE, 0},
    {"a missing end", damaged(ANSWER, 29, 0x04), ASK, ASK, 0},
    {"an interrupted frame", Bytes(ANSWER.begin(), ANSWER.begin() + 20), ANSWER, ANSWER, 0},
    {"an interrupted frame, silence", NONE, Bytes(ANSWER.begin(), ANSWER.end() - 1), NONE, 0},
    {"only an STX", NONE, {0x02}, NONE, 0},
    {"a good frame inside a bad one", NONE, join({announcing(20), filler(10), ASK, {0x03, 0x03, 0x03}}), ASK, 0},
    {"two frames: one at a time", NONE, join({ASK, ANSWER}), ASK, ANSWER.size()},
    {"a frame from nowhere in the plan", NONE, frame(0x77, 0x99, "\x01\xFF"), frame(0x77, 0x99, "\x01\xFF"), 0},
    {"a NAK", NONE,
     frame(0xEA, 0xEB,
           "\x15"
           "5"),
     frame(0xEA, 0xEB,
           "\x15"
           "5"),
     0},
};

}  // namespace

TEST_F(Hunt, RowByRow) {
    for (const HuntRow& row : huntRows) {
        SCOPED_TRACE(row.shows);
        log.clear();
        line.put(row.garbage);
        line.put(row.fed);
        if (row.comesOut.empty()) {
            EXPECT_EQ(receive(), -5);
            EXPECT_EQ(log.warnings(), log.contains("attesi:") ? 2u : 1u);
        } else {
            EXPECT_EQ(receive(), 0);
            EXPECT_EQ(got, row.comesOut);
            EXPECT_EQ(log.text(), "") << "passing over is silent";
        }
        EXPECT_EQ(errnoCABP, 0);
        EXPECT_EQ(line.waiting(), row.left);
        CABP_Init();
    }
}

TEST_F(Hunt, EveryCutOfAFrameInTwo) {
    for (std::size_t cut = 1; cut < ANSWER.size(); ++cut) {
        line.put(Bytes(ANSWER.begin(), ANSWER.begin() + static_cast<std::ptrdiff_t>(cut)));
        line.feed(Bytes(ANSWER.begin() + static_cast<std::ptrdiff_t>(cut), ANSWER.end()), 2000000);
        EXPECT_EQ(receive(), 0) << cut;
        EXPECT_EQ(got, ANSWER) << cut;
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Hunt, EveryTruncatedFrameBeforeAGoodOne) {
    for (std::size_t cut = 1; cut < ANSWER.size(); ++cut) {
        if (cut == 5) {
            continue;  // the good frame's STX becomes the length of 748 bytes: below
        }
        line.put(Bytes(ANSWER.begin(), ANSWER.begin() + static_cast<std::ptrdiff_t>(cut)));
        line.put(ANSWER);
        line.put(ANSWER);
        EXPECT_EQ(receive(), 0) << cut;
        EXPECT_EQ(got, ANSWER) << cut;
        CABP_Init();
    }
}

TEST_F(Hunt, TruncatedHeaderThatMakesALengthOfTheNextFrame) {
    line.put(Bytes(ANSWER.begin(), ANSWER.begin() + 5));
    line.put(ANSWER);
    EXPECT_EQ(receive(), -5) << "758 bytes are waited for";
    line.put(ANSWER);
    EXPECT_EQ(receive(), 0) << "no byte survives from one hunt to the next";
}

TEST_F(Hunt, AsksOnlyForTheBytesItNeedsNext) {
    line.put(join({{0x11, 0x12}, ANSWER, {0x13}}));
    Transcript::clear();
    EXPECT_EQ(receive(), 0);
    EXPECT_TRUE(Transcript::matchesGolden("cabp_hunt_reads"));
    EXPECT_EQ(line.waiting(), 1u);
}

TEST_F(Hunt, TakesNoMemory) {
    line.put(join({filler(3000), ANSWER}));
    Bytes buffer(CABP_MAXPCKLEN);
    uint16 len = CABP_MAXPCKLEN;
    const support::AllocationCount allocations;
    EXPECT_EQ(CABP_Rcv(buffer.data(), &len, 30000), 0);
    EXPECT_EQ(allocations.count(), 0u);
}

// ---- the end of the array of 2048 bytes

TEST_F(Hunt, FrameAtAnyPlaceAroundTheEndOfTheFifo) {
    // Among them: STX at the last index, the length split, and a frame whose last byte is stored at the last index.
    for (const std::size_t n : {0u, 20u}) {
        const Bytes pck = frame(0xEA, 0xFF, "BS", filler(n));
        for (std::size_t start = 2048 - pck.size() - 2; start <= 2050; ++start) {
            line.put(filler(start));
            line.put(pck);
            ASSERT_EQ(receive(), 0) << n << " at " << start;
            ASSERT_EQ(got, pck) << n << " at " << start;
        }
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Hunt, FifoIsPassedManyTimes) {
    line.put(filler(5 * 2048 + 2047));
    line.put(ANSWER);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, ANSWER);
}

TEST_F(Hunt, LargestFrameAcrossTheEnd) {
    const Bytes pck = frame(0xEA, 0xFF, "BS", filler(1014));
    line.put(filler(2047));
    line.put(pck);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, pck);
}

TEST_F(Hunt, FrameEndingAtTheLastIndexNeedsItsEnd) {
    line.put(filler(2048 - ANSWER.size()));
    line.put(damaged(ANSWER, ANSWER.size() - 1, 0x04));
    line.put(ASK);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, ASK);
}

// ---- frames that follow one another

TEST_F(Hunt, FrameBehindAnotherWaitsInTheDriver) {
    line.put(join({ASK, ANSWER}));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, ASK);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, ANSWER);
}

TEST_F(Hunt, FrameThatCameIntoTheFifoBehindAnotherIsLostWithIt) {
    // A false STX asks for 40 bytes: both frames come in, the end of the second is taken for the first's.
    const Bytes second = frame(0xED, 0xFF, "BN", filler(6));
    const Bytes first = frame(0xEC, 0xFF, "BN", filler(7));
    line.put(join({announcing(33 - 3), first, second}));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, first);
    EXPECT_EQ(line.waiting(), 0u);
    EXPECT_EQ(receive(), -5);
}

TEST_F(Hunt, EndIsLookedForAtTheEndOfWhatCame) {
    // The good frame is followed by a byte in the same read, which is no ETX.
    line.put(join({announcing(ASK.size() - 2), ASK, {0x44}}));
    EXPECT_EQ(receive(), -5);
    // With an ETX in its place the frame is taken.
    line.put(join({announcing(ASK.size() - 2), ASK, {0x03}}));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, ASK);
}

TEST_F(Hunt, FalseStxWithTheLargestLengthTakesThatManyBytes) {
    // 1024 bytes with a good frame at their very end: it reaches the scan in the same FIFO.
    line.put(join({announcing(1014), filler(1024 - 7 - ANSWER.size()), ANSWER, ASK}));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(got, ANSWER);
    EXPECT_EQ(line.waiting(), ASK.size());
    CABP_Init();
    // One byte short of it: the hunt ends with the silence, and the frame is lost.
    line.put(join({announcing(1014), filler(1024 - 8 - ANSWER.size()), ANSWER}));
    EXPECT_EQ(receive(), -5);
}

TEST_F(Hunt, LengthIsLimitedByTheBuffer) {
    Bytes buffer(30, 0);
    uint16 len = 30;
    line.put(frame(0xEC, 0xFF, "BN", filler(21)));
    line.put(ANSWER);
    EXPECT_EQ(CABP_Rcv(buffer.data(), &len, 30000), 0);
    EXPECT_EQ(buffer, ANSWER);
    EXPECT_EQ(len, 30);
}

TEST_F(Hunt, BufferTooSmallForAnyFrameGetsNothing) {
    for (uint16 size = 0; size < 10; ++size) {
        Bytes buffer(size);
        uint16 len = size;
        line.put(ASK);
        EXPECT_EQ(CABP_Rcv(buffer.data(), &len, 1000), -5) << size;
        EXPECT_EQ(buffer, Bytes(size));
    }
}

TEST_F(Hunt, BufferHoldsAFrameWhoseCheckFailed) {
    const Bytes bad = damaged(ANSWER, 12, 0x55);
    line.put(bad);
    EXPECT_EQ(receive(), -5);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + static_cast<std::ptrdiff_t>(bad.size())), bad);
}

// ---- time

TEST_F(Hunt, SilenceEndsIt) {
    errnoCABP = CRCRCVFAIL;
    EXPECT_EQ(receive(30000), -5);
    EXPECT_EQ(VirtualClock::now(), 30000000);
    EXPECT_EQ(log.messages(), SILENCE);
    const auto entries = log.entries();
    EXPECT_EQ(entries[0].level, "War");
    EXPECT_EQ(entries[0].file, "CABPRcv.cpp");
    EXPECT_EQ(entries[0].function, "CABP_Rcv");
    EXPECT_EQ(errnoCABP, CRCRCVFAIL) << "silence is no fault of a frame";
}

TEST_F(Hunt, EachByteRestartsTheSilence) {
    line.feedAt(29000000, {0x11});
    line.feedAt(58000000, {0x12});
    EXPECT_EQ(receive(30000), -5);
    EXPECT_EQ(VirtualClock::now(), 88000000);
}

TEST_F(Hunt, NoiseEndsItAfterAMinute) {
    for (int second = 1; second <= 100; ++second) {
        line.feedAt(second * 1000000, {0x11});
    }
    EXPECT_EQ(receive(30000), -1);
    EXPECT_EQ(VirtualClock::now(), 60000000);
    EXPECT_EQ(errnoCABP, RCV_LONGTIMEOUT);
    EXPECT_EQ(log.messages(),
              "Errore ricezione: TIMEOUT!\n"
              "timeStart:    5000.000000 timeNow:    5060.000000\n");
    EXPECT_EQ(log.errors(), 2u);
}

TEST_F(Hunt, LongerWaitIsItsOwnOverallLimit) {
    for (int second = 1; second <= 200; ++second) {
        line.feedAt(second * 1000000 + 123456, {0x12});
    }
    VirtualClock::advance(7);
    EXPECT_EQ(receive(120000), -1);
    // The port is looked at every 10 ms.
    EXPECT_EQ(VirtualClock::now(), 120130007);
    EXPECT_TRUE(log.has("Err", "timeStart:    5000.000007 timeNow:    5120.130007"));
}

TEST_F(Hunt, OverallLimitIsReachedAtItsVeryMillisecond) {
    line.feedAt(30000000, {0x11});
    line.feedAt(59985000, ASK);
    EXPECT_EQ(receive(60000), 0);
    EXPECT_EQ(VirtualClock::now(), 59990000);
    // Over the limit even a good frame is none.
    const std::int64_t start = VirtualClock::now();
    line.feedAt(start + 30000000, {0x11});
    line.feedAt(start + 60000000, ASK);
    EXPECT_EQ(receive(60000), -1);
    EXPECT_EQ(errnoCABP, RCV_LONGTIMEOUT);
    EXPECT_EQ(VirtualClock::now(), start + 60000000);
}

TEST_F(Hunt, SettingTheWallClockDisturbsNothing) {
    VirtualClock::at(10000000, [] { VirtualClock::setWall(2000000000); });
    VirtualClock::at(20000000, [] { VirtualClock::setWall(1000000000); });
    EXPECT_EQ(receive(30000), -5);
    EXPECT_EQ(VirtualClock::now(), 30000000);
}
