// The channels on a real terminal driver.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <thread>

#include "DevMgr/ComDev.h"
#include "support/LogCapture.h"
#include "support/PtyLine.h"
#include "support/VirtualClock.h"

using support::Bytes;
using support::LogCapture;
using support::PtyLine;
using support::VirtualClock;

namespace {

constexpr char DEVICE[] = "/dev/ttyQX1";
/// Longer than a loaded machine ever takes; a test that works never waits for it.
constexpr uint32 PLENTY_MS = 20000;

class ComDevPty : public testing::Test {
  protected:
    void SetUp() override {
        VirtualClock::useRealTime();
        ASSERT_TRUE(line.isThere()) << "no pseudo-terminals here";
        channel = ComDev_Init(DEVICE, 9600, false);
        ASSERT_EQ(channel, 0);
    }
    ~ComDevPty() override {
        if (channel == 0) {
            ComDev_End(0);
        }
    }

    LogCapture log;
    PtyLine line{DEVICE};
    uint8 channel = 255;
};

Bytes everyByte() {
    Bytes bytes;
    for (int i = 0; i < 256; ++i) {
        bytes.push_back(static_cast<uint8>(i));
    }
    return bytes;
}

}  // namespace

TEST_F(ComDevPty, EveryByteComesThrough) {
    // Control characters of a terminal among them.
    Bytes got(256);
    line.feed(everyByte());
    EXPECT_EQ(ComDev_Rcv(0, got.data(), 256, PLENTY_MS), 256);
    EXPECT_EQ(got, everyByte());
    EXPECT_EQ(ComDev_Send(0, everyByte().data(), 256), 0);
    EXPECT_EQ(line.take(256), everyByte());
}

TEST_F(ComDevPty, HasNoRs485AndNoBreakCounter) {
    EXPECT_TRUE(log.has("", "ANTE - flags:0 delay_before_send:0 delay_after_send:0"));
    EXPECT_TRUE(log.has("", "POST - flags:0 delay_before_send:0 delay_after_send:0"));
    EXPECT_LT(ComDev_BreakCount(0), 0);
    EXPECT_EQ(log.errors(), 0u);
}

TEST_F(ComDevPty, SilenceTimesOut) {
    uint8 byte = 0;
    EXPECT_EQ(ComDev_Rcv(0, &byte, 1, 1), -9);
    EXPECT_EQ(log.errors() + log.warnings(), 0u);
}

TEST_F(ComDevPty, SendWaitsForASlowReader) {
    // Several times what the driver buffers.
    Bytes frame;
    for (int i = 0; i < 60000; ++i) {
        frame.push_back(static_cast<uint8>(i * 31 / 7));
    }
    Bytes arrived;
    std::thread reader([&] { arrived = line.take(frame.size()); });
    EXPECT_EQ(ComDev_Send(0, frame.data(), static_cast<uint16>(frame.size())), 0);
    reader.join();
    EXPECT_EQ(arrived, frame);
}

TEST_F(ComDevPty, HangUpIsAFaultAndTheChannelCanBeGivenUp) {
    line.hangUp();
    uint8 byte = 0;
    EXPECT_EQ(ComDev_Rcv(0, &byte, 1, PLENTY_MS), -10);
    EXPECT_EQ(ComDev_Send(0, &byte, 1), -1);
    const int fd = ComDev_Descriptor(0);
    EXPECT_EQ(ComDev_End(0), 0);
    channel = 255;
    int waiting = 0;
    EXPECT_EQ(ioctl(fd, FIONREAD, &waiting), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(log.has("Err", "dev:/dev/ttyQX1 tcsetattr() 5 Input/output error"));
    EXPECT_EQ(ComDev_Init(DEVICE, 9600, false), 255);
}

TEST_F(ComDevPty, FoundSettingsComeBack) {
    EXPECT_EQ(ComDev_End(0), 0);
    ASSERT_EQ(ComDev_Init("/dev/ttyQX1", 1200, false), 0);
    struct termios settings;
    ASSERT_EQ(tcgetattr(ComDev_Descriptor(0), &settings), 0);
    EXPECT_EQ(settings.c_lflag & ICANON, 0u);
    const int other = dup(ComDev_Descriptor(0));
    EXPECT_EQ(ComDev_End(0), 0);
    channel = 255;
    ASSERT_EQ(tcgetattr(other, &settings), 0);
    EXPECT_NE(settings.c_lflag & ICANON, 0u);
    close(other);
}
