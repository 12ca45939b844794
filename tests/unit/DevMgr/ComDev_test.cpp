#include "DevMgr/ComDev.h"

#include <asm/ioctls.h>
#include <gtest/gtest.h>
#include <linux/serial.h>

#include <cerrno>
#include <initializer_list>
#include <string>

#include "support/Allocations.h"
#include "support/FakeLine.h"
#include "support/LogCapture.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

// Only there in programs with the leak checker.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

using support::AllocationCount;
using support::Bytes;
using support::failAllocation;
using support::FakeLine;
using support::LineCall;
using support::LogCapture;
using support::Transcript;
using support::VirtualClock;

namespace {

constexpr char DEVICE[] = "/dev/ttyX1";
constexpr uint8 NONE = 255;

class ComDev : public testing::Test {
  protected:
    ~ComDev() override {
        for (uint8 ch = 0; ch < 4; ++ch) {
            ComDev_End(ch);
        }
    }
    uint8 open(const char* name = DEVICE, int baud = 9600) {
        const uint8 ch = ComDev_Init(name, baud, false);
        log.clear();
        return ch;
    }
    static int send(uint8 ch, const Bytes& bytes) {
        return ComDev_Send(ch, bytes.data(), static_cast<uint16>(bytes.size()));
    }
    int receive(uint8 ch, uint16 wanted, uint32 timeout) {
        got.assign(wanted, 0);
        return ComDev_Rcv(ch, got.data(), wanted, timeout);
    }

    LogCapture log;
    FakeLine line{DEVICE, 0};
    Bytes got;
};

}  // namespace

// ---- opening

TEST_F(ComDev, OnlyTerminalsAreTaken) {
    for (const char* name : {"/dev/null", "COM1", "", "/dev/tt", "ttyX1", "/dev/TTYX1"}) {
        log.clear();
        EXPECT_EQ(ComDev_Init(name, 9600, true), NONE);
        EXPECT_EQ(log.messages(), "Tipo di dispositivo non supportato!\n");
        EXPECT_EQ(log.errors(), 1u);
    }
    EXPECT_EQ(ComDev_Init(nullptr, 9600, true), NONE);
}

TEST_F(ComDev, OrdinaryPortOpensWithTheWarning) {
    EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), 0);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].level, "");
    EXPECT_EQ(entries[0].file, "ComDev.cpp");
    EXPECT_EQ(entries[0].function, "ComDev_Init");
    EXPECT_EQ(entries[0].message, "Trovato canale libero, indice:0");
    EXPECT_EQ(entries[1].level, "War");
    EXPECT_EQ(entries[1].message, "Nessuna ttyQX in uso!!!");
    // The record of its driver stays as found, the line is in its working mode.
    EXPECT_EQ(line.rs485().flags, 0u);
    EXPECT_EQ(line.settings().c_iflag, static_cast<tcflag_t>(BRKINT | IGNPAR));
    EXPECT_EQ(line.settings().c_lflag & ICANON, 0u);
}

TEST_F(ComDev, FourChannelsAndNoMore) {
    FakeLine second("/dev/ttyX2");
    FakeLine third("/dev/ttyX3");
    FakeLine fourth("/dev/ttyX4");
    EXPECT_EQ(open("/dev/ttyX1"), 0);
    EXPECT_EQ(open("/dev/ttyX2"), 1);
    EXPECT_EQ(open("/dev/ttyX3"), 2);
    EXPECT_EQ(open("/dev/ttyX4"), 3);
    EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), NONE);
    EXPECT_EQ(log.messages(), "Non e' disponibile un canale libero!\n");
    EXPECT_EQ(log.errors(), 1u);
    // The first free one is the next to be taken.
    EXPECT_EQ(ComDev_End(2), 0);
    EXPECT_EQ(ComDev_End(1), 0);
    EXPECT_EQ(open("/dev/ttyX3"), 1);
}

TEST_F(ComDev, EverySpeed) {
    const struct {
        int baud;
        speed_t speed;
    } rows[] = {{1200, B1200},   {2400, B2400},   {4800, B4800},   {9600, B9600},
                {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200}};
    for (const auto& row : rows) {
        EXPECT_EQ(ComDev_Init(DEVICE, row.baud, true), 0);
        const struct termios settings = line.settings();
        EXPECT_EQ(cfgetispeed(&settings), row.speed);
        EXPECT_EQ(cfgetospeed(&settings), row.speed);
        EXPECT_EQ(ComDev_End(0), 0);
    }
    EXPECT_EQ(log.errors(), 0u);
}

TEST_F(ComDev, UnknownSpeedCountsAs9600) {
    for (const int baud : {1234, 0, -1, 230400}) {
        log.clear();
        EXPECT_EQ(ComDev_Init(DEVICE, baud, true), 0);
        EXPECT_TRUE(log.has("Err", "Valore non contemplato! Imposto 9600"));
        EXPECT_EQ(log.errors(), 1u);
        const struct termios settings = line.settings();
        EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B9600));
        EXPECT_EQ(ComDev_End(0), 0);
    }
}

namespace {

struct Rs485Row {
    const char* device;
    const char* message;
    uint32 flags;
};

class Rs485 : public testing::TestWithParam<Rs485Row> {};

}  // namespace

TEST_P(Rs485, IsSetUpByDevice) {
    LogCapture log;
    FakeLine line(GetParam().device);
    struct serial_rs485 found = {};
    found.flags = 0x10;
    found.delay_rts_before_send = 7;
    found.delay_rts_after_send = 8;
    found.padding[0] = 99;
    line.setRs485(found);
    EXPECT_EQ(ComDev_Init(GetParam().device, 9600, true), 0);
    EXPECT_EQ(log.messages(), std::string("Trovato canale libero, indice:0\n") + GetParam().message +
                                  "ANTE - flags:16 delay_before_send:7 delay_after_send:8\nPOST - flags:" +
                                  std::to_string(GetParam().flags) + " delay_before_send:1 delay_after_send:1\n");
    EXPECT_EQ(log.count(""), 4u);
    EXPECT_EQ(line.rs485().flags, GetParam().flags);
    EXPECT_EQ(line.rs485().delay_rts_before_send, 1u);
    EXPECT_EQ(line.rs485().delay_rts_after_send, 1u);
    EXPECT_EQ(line.rs485().padding[0], 99u);
    EXPECT_EQ(ComDev_End(0), 0);
}

INSTANTIATE_TEST_SUITE_P(Ports, Rs485,
                         testing::Values(Rs485Row{"/dev/ttyQX1", "ttyQX1 in uso\n", 5},
                                         Rs485Row{"/dev/ttyQX2", "ttyQX2 in uso\n", 5},
                                         Rs485Row{"/dev/ttyQX4", "ttyQX4 in uso\n", 3}));

TEST_F(ComDev, ThirdPortOfTheCardStaysAsFound) {
    FakeLine third("/dev/ttyQX3");
    struct serial_rs485 found = {};
    found.flags = 0x10;
    third.setRs485(found);
    EXPECT_EQ(ComDev_Init("/dev/ttyQX3", 9600, true), 0);
    EXPECT_EQ(log.messages(), "Trovato canale libero, indice:0\n");
    EXPECT_EQ(third.rs485().flags, 0x10u);
}

TEST_F(ComDev, OnlyTheExactNameIsThatPort) {
    FakeLine longer("/dev/ttyQX11");
    EXPECT_EQ(ComDev_Init("/dev/ttyQX11", 9600, true), 0);
    EXPECT_TRUE(log.has("War", "Nessuna ttyQX in uso!!!"));
    EXPECT_EQ(longer.rs485().flags, 0u);
}

TEST_F(ComDev, PortWithoutRs485GoesOnAndShowsZeros) {
    FakeLine port("/dev/ttyQX1");
    port.setHasRs485(false);
    EXPECT_EQ(ComDev_Init("/dev/ttyQX1", 9600, true), 0);
    EXPECT_TRUE(log.has("", "ANTE - flags:0 delay_before_send:0 delay_after_send:0"));
    EXPECT_TRUE(log.has("", "POST - flags:0 delay_before_send:0 delay_after_send:0"));
    EXPECT_EQ(log.errors(), 0u);
}

TEST_F(ComDev, PortThatDoesNotOpenLeavesTheChannelFree) {
    for (int i = 0; i < 10; ++i) {
        log.clear();
        EXPECT_EQ(ComDev_Init("/dev/ttyNoSuchPort", 9600, true), NONE);
        EXPECT_EQ(log.messages(),
                  "Trovato canale libero, indice:0\n"
                  "dev:/dev/ttyNoSuchPort open() 2 No such file or directory\n"
                  "Errore apertura device\n");
    }
}

TEST_F(ComDev, PortThatOpensHalfWayIsClosed) {
    line.fail(LineCall::Tcsetattr, EINVAL, 3);
    EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), NONE);
    EXPECT_TRUE(log.has("Err", "Errore apertura device"));
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(open(), 0);
}

TEST_F(ComDev, PortThatRefusesTheSpeedIsClosed) {
    line.fail(LineCall::Tcsetattr, EINVAL, 6);
    EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), NONE);
    EXPECT_TRUE(log.has("Err", "Errore impostazione Baudrate"));
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(open(), 0);
}

TEST_F(ComDev, PortThatRefusesTheWorkingModeIsUsedAllTheSame) {
    line.fail(LineCall::Tcsetattr, EINVAL, 7);
    EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), 0);
    EXPECT_TRUE(log.has("Err", "tcsetattr() 22 Invalid argument"));
    EXPECT_EQ(send(0, {1}), 0);
}

TEST_F(ComDev, NoPortWithoutMemory) {
    for (std::size_t n = 1; n <= 3; ++n) {
        log.clear();
        failAllocation(n);
        EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), NONE);
        EXPECT_EQ(log.messages(), "Trovato canale libero, indice:0\nErrore inizializzazione tty\n");
    }
    EXPECT_EQ(open(), 0);
}

// ---- closing

TEST_F(ComDev, EndGivesThePortBack) {
    const tcflag_t found = line.settings().c_lflag;
    EXPECT_EQ(open(), 0);
    EXPECT_NE(line.settings().c_lflag, found);
    EXPECT_EQ(ComDev_End(0), 0);
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(line.settings().c_lflag, found);
    EXPECT_EQ(ComDev_End(0), -1);
    EXPECT_EQ(log.messages(), "Canale non inizializzato, ch:0\n");
    EXPECT_EQ(log.errors(), 1u);
}

TEST_F(ComDev, EndOfNoChannelIsTold) {
    for (const uint8 ch : std::initializer_list<uint8>{0, 3, 4, 100, 255}) {
        log.clear();
        EXPECT_EQ(ComDev_End(ch), -1);
        EXPECT_EQ(log.messages(), "Canale non inizializzato, ch:" + std::to_string(ch) + "\n");
    }
}

TEST_F(ComDev, EndAfterAHangUpFreesTheChannelAndItCanBeOpenedAgain) {
    EXPECT_EQ(open(), 0);
    line.hangUp();
    EXPECT_EQ(ComDev_End(0), 0);
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(open(), NONE);
    line.plugIn();
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(send(0, {1, 2}), 0);
}

// ---- channels in no use

TEST_F(ComDev, ChannelsInNoUseAreRefused) {
    uint8 buffer[4] = {1, 2, 3, 4};
    for (const uint8 ch : std::initializer_list<uint8>{4, 5, 255}) {
        log.clear();
        EXPECT_EQ(ComDev_Send(ch, buffer, 4), -1);
        EXPECT_EQ(ComDev_Rcv(ch, buffer, 4, 10), -1);
        ComDev_RecoveryBus(ch);
        EXPECT_EQ(log.messages(), "Canale non valido!\nCanale non valido!\nCanale non valido!\n");
        EXPECT_EQ(log.errors(), 3u);
    }
    for (const uint8 ch : std::initializer_list<uint8>{0, 3}) {
        log.clear();
        EXPECT_EQ(ComDev_Send(ch, buffer, 4), -1);
        EXPECT_EQ(ComDev_Rcv(ch, buffer, 4, 10), -1);
        ComDev_RecoveryBus(ch);
        EXPECT_EQ(log.messages(), "Canale non inizializzato!\nCanale non inizializzato!\nCanale non inizializzato!\n");
        EXPECT_EQ(log.errors(), 3u);
    }
}

TEST_F(ComDev, FlushAndQuestionsOnNoChannelAreSilent) {
    for (const uint8 ch : std::initializer_list<uint8>{0, 3, 4, 255}) {
        ComDev_FlushQueue(ch);
        EXPECT_LT(ComDev_BreakCount(ch), 0);
        EXPECT_EQ(ComDev_Descriptor(ch), -1);
    }
    EXPECT_EQ(log.text(), "");
}

// ---- sending

TEST_F(ComDev, SendReturnsWhenTheLastByteHasLeft) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(send(0, Bytes(96, 0x5A)), 0);
    EXPECT_EQ(VirtualClock::now(), 100000);
    EXPECT_EQ(line.sent(), Bytes(96, 0x5A));
    EXPECT_EQ(line.calls(LineCall::Tcdrain), 2u);
}

TEST_F(ComDev, SendOfNothingDrainsTwice) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(ComDev_Send(0, nullptr, 0), 0);
    EXPECT_EQ(line.calls(LineCall::Tcdrain), 2u);
    EXPECT_EQ(line.calls(LineCall::Write), 0u);
}

TEST_F(ComDev, SendThatCannotDrainFails) {
    EXPECT_EQ(open(), 0);
    line.fail(LineCall::Tcdrain, EIO);
    EXPECT_EQ(send(0, {1}), -1);
    EXPECT_TRUE(line.sent().empty());
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 tcdrain() errno: 5 strerror: Input/output error\ntcdrain FAIL\n");
    log.clear();
    line.fail(LineCall::Tcdrain, EIO, 2);
    EXPECT_EQ(send(0, {1}), -1);
    EXPECT_EQ(line.sent(), Bytes{1});
    EXPECT_TRUE(log.has("Err", "tcdrain FAIL"));
}

TEST_F(ComDev, SendOverArrivingInputIsRefused) {
    EXPECT_EQ(open(), 0);
    line.put({1});
    EXPECT_EQ(send(0, {1, 2}), -1);
    EXPECT_TRUE(line.sent().empty());
    EXPECT_TRUE(log.has("Err", "errore in scrittura"));
}

TEST_F(ComDev, SendThatCannotWriteFails) {
    EXPECT_EQ(open(), 0);
    line.fail(LineCall::Write, EIO);
    EXPECT_EQ(send(0, {1, 2}), -1);
    EXPECT_EQ(log.messages(),
              "dev:/dev/ttyX1 errno: 5 strerror: Input/output error TTYD_ERR_WRITE\nerrore in scrittura\n");
}

TEST_F(ComDev, LongFramesGoOutWhole) {
    EXPECT_EQ(open(), 0);
    line.setOutputBuffer(64);
    Bytes frame;
    for (int i = 0; i < 1024; ++i) {
        frame.push_back(static_cast<uint8>(i * 7));
    }
    EXPECT_EQ(send(0, frame), 0);
    EXPECT_EQ(line.sent(), frame);
    EXPECT_EQ(VirtualClock::now() / 1000, 1066);
}

// Writes cut short by signals: the rest begins at the count of the latest write, and stays inside the frame.
TEST_F(ComDev, RestOfACutFrameBeginsAtTheLatestCount) {
    EXPECT_EQ(open(), 0);
    const Bytes frame{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    line.limitWrites(4);
    line.fail(LineCall::Write, EINTR, 2);
    EXPECT_EQ(send(0, frame), 0);
    EXPECT_EQ(line.sent(), frame);
    line.clearSent();
    line.fail(LineCall::Write, EINTR, 2);
    line.fail(LineCall::Write, EINTR, 4);
    EXPECT_EQ(send(0, frame), 0);
    EXPECT_EQ(line.sent(), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 5, 6}));
}

// ---- receiving

TEST_F(ComDev, ReceiveGivesTheWantedBytes) {
    EXPECT_EQ(open(), 0);
    line.feedAt(25000, {1, 2, 3, 4});
    EXPECT_EQ(receive(0, 3, 1000), 3);
    EXPECT_EQ(got, (Bytes{1, 2, 3}));
    EXPECT_EQ(receive(0, 0, 1000), 0);
    EXPECT_EQ(receive(0, 1, 1000), 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ComDev, SilenceIsAnOrdinaryTimeOut) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(receive(0, 5, 100), -9);
    EXPECT_EQ(VirtualClock::now(), 100000);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ComDev, HalfAFrameIsDumped) {
    EXPECT_EQ(open(), 0);
    line.put({0x02, 0xEA, 0x0B});
    EXPECT_EQ(receive(0, 7, 100), -9);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 3), (Bytes{0x02, 0xEA, 0x0B}));
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].level, "War");
    EXPECT_EQ(entries[0].message, "attesi:7 effettivi:3");
    EXPECT_EQ(entries[1].level, "");
    EXPECT_EQ(entries[1].message, "rcvBuff");
    EXPECT_EQ(entries[2].message, "0x02 0xEA 0x0B ");
}

TEST_F(ComDev, ReceivePassesTheDriversCodes) {
    EXPECT_EQ(open(), 0);
    line.failIoctl(FIONREAD, EIO);
    EXPECT_EQ(receive(0, 1, 100), -10);
    line.put({1});
    line.fail(LineCall::Read, EIO);
    EXPECT_EQ(receive(0, 1, 100), -6);
    EXPECT_EQ(receive(0, 1, 100), 1);
    line.fail(LineCall::Select, EBADF);
    EXPECT_EQ(receive(0, 1, 100), -8);
    EXPECT_EQ(log.warnings(), 0u);
}

TEST_F(ComDev, SendingAndReceivingAllocateNothing) {
    EXPECT_EQ(open(), 0);
    line.put(Bytes(10, 1));
    uint8 buffer[384] = {};
    const AllocationCount allocations;
    const int first = ComDev_Rcv(0, buffer, 12, 30);
    const int second = ComDev_Send(0, buffer, sizeof(buffer));
    ComDev_FlushQueue(0);
    EXPECT_EQ(allocations.count(), 0u);
    EXPECT_EQ(first, -9);
    EXPECT_EQ(second, 0);
}

// ---- flush, BREAK and the rest

TEST_F(ComDev, FlushEmptiesTheQueues) {
    EXPECT_EQ(open(), 0);
    line.put({1, 2, 3});
    ComDev_FlushQueue(0);
    EXPECT_EQ(line.waiting(), 0u);
    EXPECT_EQ(log.text(), "");
    line.fail(LineCall::Tcflush, EIO);
    ComDev_FlushQueue(0);
    EXPECT_EQ(log.messages(), "flush error:-4\n");
    EXPECT_EQ(log.errors(), 1u);
}

TEST_F(ComDev, RecoverySendsABreakAndFlushes) {
    EXPECT_EQ(open(), 0);
    line.put({1, 2, 3});
    const std::size_t flushes = line.flushes();
    ComDev_RecoveryBus(0);
    EXPECT_EQ(line.breaksSent(), 1u);
    EXPECT_EQ(line.flushes(), flushes + 1);
    EXPECT_EQ(line.waiting(), 0u);
    EXPECT_EQ(log.messages(), "Invio del carattere BREAK!!!\n");
    EXPECT_EQ(log.count(""), 1u);
    line.fail(LineCall::Tcsendbreak, EIO);
    ComDev_RecoveryBus(0);
    EXPECT_EQ(line.flushes(), flushes + 2);
}

TEST_F(ComDev, BreaksOfTheLineAreCounted) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(ComDev_BreakCount(0), 0);
    line.receiveBreak();
    line.receiveBreak();
    EXPECT_EQ(ComDev_BreakCount(0), 2);
    line.setHasBreakCounter(false);
    EXPECT_LT(ComDev_BreakCount(0), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ComDev, DescriptorIsThatOfThePort) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(ComDev_Descriptor(0), line.descriptor());
    ComDev_End(0);
    EXPECT_EQ(ComDev_Descriptor(0), -1);
}

TEST_F(ComDev, ControllingTerminal) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(ComDev_SetCtrlTerm(0), 0);
    EXPECT_TRUE(line.isControllingTerminal());
    line.failIoctl(TIOCSCTTY, EPERM);
    EXPECT_EQ(ComDev_SetCtrlTerm(0), -1);
    EXPECT_EQ(ComDev_SetCtrlTerm(1), -1);
    EXPECT_EQ(ComDev_SetCtrlTerm(255), -1);
}

// ---- a port given up while it is in use

TEST_F(ComDev, CallInProgressKeepsItsPort) {
    EXPECT_EQ(open(), 0);
    const int first = line.descriptor();
    // Halfway through the read, as another thread after a fault: the channel is closed and opened again.
    VirtualClock::at(50000, [&] {
        EXPECT_EQ(ComDev_End(0), 0);
        EXPECT_EQ(line.openCount(), 1u);
        EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), 0);
        EXPECT_EQ(line.openCount(), 2u);
        EXPECT_NE(line.descriptor(), first);
    });
    EXPECT_EQ(receive(0, 4, 100), -9);
    // The old port is closed by its last user, and that leaves the line in its working mode and its input in place.
    EXPECT_EQ(line.openCount(), 1u);
    EXPECT_NE(ComDev_Descriptor(0), first);
    EXPECT_EQ(line.settings().c_lflag & ICANON, 0u);
    line.put({1, 2});
    EXPECT_EQ(receive(0, 2, 100), 2);
}

TEST_F(ComDev, LateEndOfAPortDoesNotDisturbItsSuccessor) {
    EXPECT_EQ(open(), 0);
    VirtualClock::at(50000, [&] {
        EXPECT_EQ(ComDev_End(0), 0);
        EXPECT_EQ(ComDev_Init(DEVICE, 9600, true), 0);
    });
    // The read's last look at the line is behind, its port still to be closed.
    line.before(LineCall::Close, [&] { line.put({7, 8}); });
    EXPECT_EQ(receive(0, 4, 100), -9);
    line.before(LineCall::Close, nullptr);
    EXPECT_EQ(receive(0, 2, 100), 2);
    EXPECT_EQ(got, (Bytes{7, 8}));
}

TEST_F(ComDev, PortInUseWhoseDeviceIsGoneIsClosedByItsLastUser) {
    EXPECT_EQ(open(), 0);
    VirtualClock::at(50000, [&] {
        line.fail(LineCall::Tcsetattr, EIO);
        EXPECT_EQ(ComDev_End(0), 0);
    });
    EXPECT_EQ(receive(0, 4, 100), -9);
    EXPECT_FALSE(line.isOpen());
    EXPECT_TRUE(log.has("Err", "dev:/dev/ttyX1 tcsetattr() 5 Input/output error"));
}

TEST_F(ComDev, PortThatCannotBeGivenBackStaysOpenAndTheChannelIsFree) {
    // What is left open is out of reach for good, and meant to be.
    if (__lsan_disable != nullptr) {
        __lsan_disable();
    }
    EXPECT_EQ(open(), 0);
    if (__lsan_enable != nullptr) {
        __lsan_enable();
    }
    line.fail(LineCall::Tcsetattr, EPERM);
    EXPECT_EQ(ComDev_End(0), 0);
    EXPECT_TRUE(log.has("Err", "dev:/dev/ttyX1 tcsetattr() 1 Operation not permitted"));
    EXPECT_TRUE(line.isOpen());
    EXPECT_EQ(ComDev_End(0), -1);
    EXPECT_EQ(open(), 0);
}

TEST_F(ComDev, PollAsATranscript) {
    FakeLine bus("/dev/ttyQX1");
    bus.expect({0x02, 0xEB, 0xEA, 0x42, 0x53, 0x00, 0x00, 0x12, 0x34, 0x03})
        .reply({0x02, 0xFF, 0xEB, 0x42, 0x53, 0x00, 0x01}, 12000)
        .reply({0x55, 0x12, 0x34, 0x03}, 15000);
    EXPECT_EQ(ComDev_Init("/dev/ttyQX1", 9600, true), 0);
    ComDev_FlushQueue(0);
    EXPECT_EQ(send(0, {0x02, 0xEB, 0xEA, 0x42, 0x53, 0x00, 0x00, 0x12, 0x34, 0x03}), 0);
    EXPECT_EQ(receive(0, 7, 3000), 7);
    EXPECT_EQ(receive(0, 4, 3000), 4);
    EXPECT_TRUE(bus.allDone());
    EXPECT_EQ(receive(0, 1, 50), -9);
    ComDev_RecoveryBus(0);
    EXPECT_EQ(ComDev_End(0), 0);
    EXPECT_TRUE(Transcript::matchesGolden("comdev_poll"));
}
