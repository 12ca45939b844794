// How long a slave listens, and what ends its listening besides a frame.
#include <asm/ioctls.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>

#include "Bus.h"
#include "support/VirtualClock.h"

using bus::filler;
using bus::frame;
using bus::join;
using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::VirtualClock;

using Listen = bus::Port;

namespace {

struct WaitRow {
    uint8 lastMaster;
    uint32 wait[4];  // of the nodes 0xEA to 0xED, ms
};
constexpr WaitRow waitRows[] = {
    {0xE0, {60000, 66000, 72000, 78000}},  {0xEA, {120000, 30000, 60000, 90000}}, {0xEB, {90000, 120000, 30000, 60000}},
    {0xEC, {60000, 90000, 120000, 30000}}, {0xED, {30000, 60000, 90000, 120000}},
};

std::string announcement(unsigned addr, unsigned wait, unsigned lastMaster) {
    char text[100];
    std::snprintf(text, sizeof(text), "UPSBOX:0X%02X attende per %u millisecondi  --- LastMaster:0x%02X\n", addr, wait,
                  lastMaster);
    return text;
}
constexpr char SILENCE[] = "Errore ricezione: manca il carattere di inizio pacchetto!\n";

// By hand all tests run in one process: the fault of an earlier one, on a clock of its own, must lie long ago.
std::int64_t longAfterAnyFault() {
    static std::int64_t hours = 0;
    VirtualClock::advance(++hours * 3600000000);
    return VirtualClock::now();
}

int listen(Bytes& buffer) {
    buffer.assign(CABP_MAXPCKLEN, 0);
    return CABP_waitPck(buffer.data(), CABP_MAXPCKLEN);
}

}  // namespace

// ---- the length of the wait

TEST(SlaveWait, ByDistanceFromTheLastMaster) {
    for (const WaitRow& row : waitRows) {
        for (unsigned i = 0; i < 4; ++i) {
            bool divided = false;
            EXPECT_EQ(CABP_SlaveWait(static_cast<uint8>(0xEA + i), row.lastMaster, divided), row.wait[i]);
            EXPECT_EQ(divided, row.lastMaster == GROUPMASTER) << i;
        }
    }
}

TEST(SlaveWait, AddressesOutsideThePlanNeverGiveNothingOrDays) {
    for (unsigned addr = 0xE0; addr <= 0xEF; ++addr) {
        for (unsigned last = 0xE0; last <= 0xEF; ++last) {
            bool divided = true;
            const uint32 wait = CABP_SlaveWait(static_cast<uint8>(addr), static_cast<uint8>(last), divided);
            EXPECT_GE(wait, 30000u) << addr << " " << last;
            EXPECT_LE(wait, 120000u) << addr << " " << last;
        }
    }
    bool divided = true;
    // Distances of 0 and below count as the farthest slot.
    EXPECT_EQ(CABP_SlaveWait(0xEA, 0xEE, divided), 120000u);
    EXPECT_FALSE(divided);
    EXPECT_EQ(CABP_SlaveWait(0xEA, 0xEF, divided), 120000u);
    EXPECT_EQ(CABP_SlaveWait(0xEB, 0xEF, divided), 120000u);
    EXPECT_EQ(CABP_SlaveWait(0xE0, 0xE0, divided), 120000u);
    // All others are taken as they are.
    EXPECT_EQ(CABP_SlaveWait(0xEB, 0xEE, divided), 30000u);
    EXPECT_EQ(CABP_SlaveWait(0xED, 0xEF, divided), 60000u);
    EXPECT_EQ(CABP_SlaveWait(0xED, 0xE8, divided), 30000u);
    EXPECT_TRUE(divided);
    EXPECT_EQ(CABP_SlaveWait(0xE0, 0xEA, divided), 60000u);
    EXPECT_TRUE(divided);
    EXPECT_EQ(CABP_SlaveWait(0xE0, 0xE2, divided), 60000u);
    EXPECT_FALSE(divided);
}

TEST_F(Listen, WaitsAreKeptAndTheDividedOnesAnnounced) {
    for (const WaitRow& row : waitRows) {
        for (unsigned i = 0; i < 4; ++i) {
            log.clear();
            CABPAddr = static_cast<uint8>(0xEA + i);
            LastMaster = row.lastMaster;
            const std::int64_t start = VirtualClock::now();
            EXPECT_EQ(listen(got), -5);
            EXPECT_EQ(VirtualClock::now() - start, row.wait[i] * 1000LL);
            const bool divided = row.lastMaster == GROUPMASTER;
            EXPECT_EQ(log.messages(),
                      (divided ? announcement(CABPAddr, row.wait[i], row.lastMaster) : std::string()) + SILENCE);
            EXPECT_EQ(log.count(""), divided ? 1u : 0u);
            EXPECT_EQ(LastMaster, row.lastMaster) << "silence changes nothing";
        }
    }
}

TEST_F(Listen, OwnAddressAsLastMasterWaitsLongestWithoutALine) {
    LastMaster = 0xEB;
    EXPECT_EQ(listen(got), -5);
    EXPECT_EQ(VirtualClock::now(), 120000000);
    EXPECT_EQ(log.messages(), SILENCE);
}

TEST_F(Listen, NodeECAfterABreakWaits72Seconds) {
    CABPAddr = 0xEC;
    EXPECT_EQ(listen(got), -5);
    EXPECT_EQ(VirtualClock::now(), 72000000);
    EXPECT_EQ(log.messages(), announcement(0xEC, 72000, 0xE0) + SILENCE);
}

TEST_F(Listen, SenderOfTheFrameBecomesLastMaster) {
    const struct {
        uint8 src;
        uint8 lastMaster;
    } rows[] = {{0xEA, 0xEA}, {0xED, 0xED}, {0xEE, 0xEE}, {0xFF, 0xEC}, {0x0A, 0xEC}, {0x0D, 0xEC}, {0x77, 0xEC}};
    for (const auto& row : rows) {
        LastMaster = 0xEC;
        const Bytes pck = frame(row.src, 0xEB, "BS");
        line.put(join({{0x11, 0x02}, pck}));
        EXPECT_EQ(listen(got), 0);
        got.resize(pck.size());
        EXPECT_EQ(got, pck);
        EXPECT_EQ(LastMaster, row.lastMaster);
    }
}

TEST_F(Listen, FrameLargerThanTheBufferIsNone) {
    Bytes buffer(29);
    LastMaster = 0xEA;
    line.put(frame(0xEC, 0xFF, "BN", filler(20)));
    EXPECT_EQ(CABP_waitPck(buffer.data(), 29), -5);
    EXPECT_EQ(LastMaster, 0xEA);
}

// ---- BREAK

TEST_F(Listen, CountedBreakEndsItEvenWithAGoodFrame) {
    LastMaster = 0xEA;
    cntBreakDetect = 1;
    line.put(frame(0xEC, 0xEB, "BS"));
    EXPECT_EQ(listen(got), -1);
    EXPECT_EQ(LastMaster, 0xEA);
    EXPECT_EQ(cntBreakDetect, 1) << "the bus thread deals with it";
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(errnoCABP, 0);
}

TEST_F(Listen, SignalDoesNotCutARunningReadShort) {
    LastMaster = 0xEA;
    line.before(LineCall::Select, [this] {
        if (VirtualClock::now() >= 5000000 && cntBreakDetect == 0) {
            line.fail(LineCall::Select, EINTR);
            raise(SIGINT);
        }
    });
    line.feedAt(20000000, {0x11});
    EXPECT_EQ(listen(got), -1);
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_EQ(VirtualClock::now(), 20000000);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Listen, SilenceAfterABreakIsABreak) {
    LastMaster = 0xEA;
    VirtualClock::at(5000000, [] { raise(SIGINT); });
    EXPECT_EQ(listen(got), -1);
    EXPECT_EQ(VirtualClock::now(), 30000000);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Listen, BreakThatRaisesNoSignalIsFoundInTheDriver) {
    LastMaster = 0xEA;
    VirtualClock::at(5000000, [this] { line.receiveBreak(); });
    line.feedAt(6000000, frame(0xEC, 0xEB, "BS"));
    EXPECT_EQ(listen(got), -1);
    EXPECT_EQ(cntBreakDetect, 1);
    EXPECT_EQ(LastMaster, 0xEA);
    EXPECT_EQ(line.waiting(), 0u) << "what came with it is thrown away";
    cntBreakDetect = 0;
    line.put(frame(0xEC, 0xEB, "BS"));
    EXPECT_EQ(listen(got), 0);
}

TEST_F(Listen, FlushThatFailedInTheHandlerIsToldWhenTheReadReturns) {
    LastMaster = 0xEA;
    VirtualClock::at(5000000, [this] {
        line.fail(LineCall::Tcflush, EIO);
        raise(SIGINT);
        EXPECT_EQ(log.text(), "");
    });
    EXPECT_EQ(listen(got), -1);
    EXPECT_EQ(log.messages(), "flush error:-4\n");
}

TEST_F(Listen, InterruptedCallsAreTakenUpAgain) {
    LastMaster = 0xEA;
    const Bytes pck = frame(0xEC, 0xEB, "BS");
    line.fail(LineCall::Select, EINTR, 1, 3);
    line.fail(LineCall::Read, EINTR, 2);
    line.feed(pck, 25000);
    EXPECT_EQ(listen(got), 0);
    got.resize(pck.size());
    EXPECT_EQ(got, pck);
    EXPECT_EQ(cntBreakDetect, 0);
}

// ---- faults of the port

TEST_F(Listen, FaultOfThePortReopensIt) {
    longAfterAnyFault();
    LastMaster = 0xEA;
    line.fail(LineCall::Read, EIO);
    line.put({0x11});
    EXPECT_EQ(listen(got), -1);
    EXPECT_EQ(errnoCABP, RCV_NOSTXDETECT);
    EXPECT_TRUE(log.has("Err", "Errore (16) Provo a resettare la seriale"));
    EXPECT_TRUE(log.has("", "Chiude il canale di comunicazione"));
    EXPECT_EQ(line.calls(LineCall::Open), 2u);
    EXPECT_EQ(CABP_ch, 0);
    EXPECT_EQ(VirtualClock::countWaits("usleep"), 0u) << "a single fault is no reason to pause";
    // And all is well again.
    line.put(frame(0xEC, 0xEB, "BS"));
    EXPECT_EQ(listen(got), 0);
}

TEST_F(Listen, GonePortIsTriedOnceASecond) {
    LastMaster = 0xEA;
    const std::int64_t start = longAfterAnyFault();
    line.hangUp();
    for (int turn = 1; turn <= 20; ++turn) {
        log.clear();
        EXPECT_EQ(listen(got), -1);
        EXPECT_EQ(VirtualClock::now() - start, turn * 1000000LL);
        EXPECT_EQ(CABP_ch, 0xFF);
        EXPECT_TRUE(log.has("Err", "Errore (16) Provo a resettare la seriale"));
        EXPECT_EQ(log.contains("Chiude il canale"), turn == 1);
    }
    EXPECT_EQ(line.openCount(), 0u);
    line.plugIn();
    EXPECT_EQ(listen(got), -1) << "this turn found it closed and opens it";
    EXPECT_EQ(CABP_ch, 0);
    line.put(frame(0xEC, 0xEB, "BS"));
    EXPECT_EQ(listen(got), 0);
}

TEST_F(Listen, PortThatOpensButAlwaysFailsIsPacedToo) {
    LastMaster = 0xEA;
    const std::int64_t start = longAfterAnyFault();
    line.failIoctl(FIONREAD, EIO, 1, 1000000);
    for (int turn = 0; turn < 20; ++turn) {
        EXPECT_EQ(listen(got), -1);
        EXPECT_EQ(VirtualClock::now() - start, turn * 1000000LL);
        EXPECT_EQ(line.openCount(), 1u);
    }
}

TEST_F(Listen, RareFaultsAreNotPaced) {
    longAfterAnyFault();
    LastMaster = 0xEA;
    for (int turn = 0; turn < 5; ++turn) {
        line.failIoctl(FIONREAD, EIO);
        EXPECT_EQ(listen(got), -1);
        VirtualClock::advance(1000000);
    }
    EXPECT_EQ(VirtualClock::countWaits("usleep"), 0u);
    line.failIoctl(FIONREAD, EIO);
    EXPECT_EQ(listen(got), -1);
    VirtualClock::advance(999000);
    line.failIoctl(FIONREAD, EIO);
    EXPECT_EQ(listen(got), -1);
    EXPECT_EQ(VirtualClock::sumWaits("usleep"), 1000000);
}

TEST_F(Listen, FaultAtEveryCallOfALife) {
    CABP_End();
    std::size_t n = 1;
    for (;; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, 500u);
        line.clearFaults();
        CABP_Init();
        CABP_End();
        line.failAny(n % 2 == 0 ? EIO : ENXIO, n);
        VirtualClock::setLimit(VirtualClock::now() + 200000000);
        LastMaster = 0xEA;
        cntBreakDetect = 0;
        CABP_Init();
        line.feed(join({{0x11, 0x12}, frame(0xEC, 0xEB, "BS", filler(5))}), 15000);
        listen(got);
        CABP_BusyReply(0xEA);
        CABP_CheckBreak();
        CABP_RecoveryBus();
        CABP_Init();
        CABP_End();
        EXPECT_EQ(CABP_ch, 0xFF);
        EXPECT_EQ(line.openCount(), 0u);
        EXPECT_EQ(cntBreakDetect, 0);
        if (line.hasFaultsLeft()) {
            break;
        }
        // Whatever failed, the next life is a good one.
        line.clearFaults();
        CABP_Init();
        line.put(frame(0xEC, 0xEB, "BS"));
        EXPECT_EQ(listen(got), 0);
        CABP_End();
    }
    EXPECT_GT(n, 30u);
}
