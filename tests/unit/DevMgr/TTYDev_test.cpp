#include "DevMgr/TTYDev.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>

#include <cerrno>
#include <cstring>

#include "support/Allocations.h"
#include "support/FakeLine.h"
#include "support/LogCapture.h"
#include "support/VirtualClock.h"
#include "unit/DevMgr/PortOnALine.h"

using support::Bytes;
using support::failAllocation;
using support::FakeLine;
using support::LineCall;
using support::VirtualClock;

namespace {

class TTYDev : public PortOnALine {};

struct Named {
    uint32 value;
    const char* text;
};

void expectNames(const char* (*name)(uint32), std::initializer_list<Named> rows) {
    uint32 count = 0;
    for (const Named& row : rows) {
        EXPECT_STREQ(name(row.value), row.text);
        EXPECT_EQ(row.value, count++);
    }
    EXPECT_EQ(name(count), nullptr);
    EXPECT_EQ(name(0xFFFFFFFF), nullptr);
}

struct NamedError {
    int32 code;
    const char* text;
};

}  // namespace

// ---- names

TEST_F(TTYDev, EveryValueHasItsName) {
    expectNames(ttyd_strbaud, {{TTYD_BAUD_1200, "1200"},
                               {TTYD_BAUD_2400, "2400"},
                               {TTYD_BAUD_4800, "4800"},
                               {TTYD_BAUD_9600, "9600"},
                               {TTYD_BAUD_19200, "19200"},
                               {TTYD_BAUD_38400, "38400"},
                               {TTYD_BAUD_57600, "57600"},
                               {TTYD_BAUD_115200, "115200"}});
    expectNames(ttyd_strdata, {{TTYD_DATA_5, "5"}, {TTYD_DATA_6, "6"}, {TTYD_DATA_7, "7"}, {TTYD_DATA_8, "8"}});
    expectNames(ttyd_strparity, {{TTYD_PARITY_NONE, "none"}, {TTYD_PARITY_ODD, "odd"}, {TTYD_PARITY_EVEN, "even"}});
    expectNames(ttyd_strstop, {{TTYD_STOP_1, "1"}, {TTYD_STOP_2, "2"}});
    expectNames(ttyd_strflow, {{TTYD_FLOW_OFF, "off"}, {TTYD_FLOW_HW, "hardware"}, {TTYD_FLOW_XON_XOFF, "xon/xoff"}});
    EXPECT_EQ(sizeof(ttyd_baud_e), 4u);
    EXPECT_EQ(sizeof(ttyd_err_e), 4u);
}

TEST_F(TTYDev, EveryErrorHasItsText) {
    const NamedError rows[] = {{TTYD_ERR_NOERROR, "no error"},    {TTYD_ERR_UNKNOWN, "unknown error"},
                               {TTYD_ERR_OPEN, "open error"},     {TTYD_ERR_CLOSE, "close error"},
                               {TTYD_ERR_FLUSH, "flush error"},   {TTYD_ERR_CONFIG, "get/set settings error"},
                               {TTYD_ERR_READ, "read error"},     {TTYD_ERR_WRITE, "write error"},
                               {TTYD_ERR_SELECT, "select error"}, {TTYD_ERR_TIMEOUT, "timeout error"},
                               {TTYD_ERR_IOCTL, "ioctl error"},   {TTYD_ERR_PORT_CLOSED, "port closed error"},
                               {TTYD_ERR_BREAK, "break error"}};
    int32 code = 0;
    for (const NamedError& row : rows) {
        EXPECT_EQ(row.code, code--);
        EXPECT_STREQ(ttyd_strerror(row.code), row.text);
    }
    for (const int32 outside : {1, -13, -14, INT32_MAX, INT32_MIN}) {
        log.clear();
        EXPECT_EQ(ttyd_strerror(outside), nullptr);
        EXPECT_EQ(log.messages(), "error=" + std::to_string(outside) + "\n");
        EXPECT_EQ(log.errors(), 1u);
    }
}

// ---- life

TEST_F(TTYDev, NewPortIsClosedAndHasItsDefaults) {
    EXPECT_STREQ(port->dev, "/dev/null");
    EXPECT_EQ(port->baud, TTYD_BAUD_9600);
    EXPECT_EQ(port->data, TTYD_DATA_8);
    EXPECT_EQ(port->stop, TTYD_STOP_1);
    EXPECT_EQ(port->flow, TTYD_FLOW_OFF);
    EXPECT_EQ(port->parity, TTYD_PARITY_NONE);
    EXPECT_TRUE(port->wDBG);
    EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_CLOSED);
    EXPECT_EQ(ttyd_fd(port), -1);
}

TEST_F(TTYDev, NoPortWithoutMemory) {
    for (std::size_t n = 1; n <= 2; ++n) {
        failAllocation(n);
        EXPECT_EQ(ttyd_init(), nullptr);
    }
}

TEST_F(TTYDev, DeviceNameIsCutAtThirtyCharacters) {
    ttyd_set_device(port, "/dev/tty456789012345678901234567890");
    EXPECT_STREQ(port->dev, "/dev/tty4567890123456789012345");
    EXPECT_EQ(std::strlen(port->dev), 30u);
    ttyd_set_device(port, "/dev/ttyA");
    EXPECT_STREQ(port->dev, "/dev/ttyA");
}

TEST_F(TTYDev, OpenUsesTheFlagsAndSettingsOfThePort) {
    openPort();
    // Found waiting: emptied.
    EXPECT_EQ(line.flushes(), 1u);
    EXPECT_EQ(line.openFlags(), O_RDWR | O_EXCL | O_NOCTTY | O_SYNC);
    EXPECT_NE(line.statusFlags() & O_NONBLOCK, 0);
    EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_OPEN);
    EXPECT_EQ(ttyd_fd(port), line.descriptor());
    EXPECT_FALSE(port->wDBG);
    const struct termios settings = line.settings();
    EXPECT_EQ(cfgetispeed(&settings), static_cast<speed_t>(B9600));
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B9600));
    EXPECT_EQ(settings.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(settings.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0u);
    EXPECT_EQ(settings.c_iflag & (IXON | IXOFF | IXANY), 0u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDev, OpenEmptiesTheQueues) {
    line.put({1, 2, 3});
    openPort();
    EXPECT_EQ(line.waiting(), 0u);
}

TEST_F(TTYDev, MissingDeviceIsTold) {
    ttyd_set_device(port, "/dev/ttyNoSuchPort");
    EXPECT_EQ(ttyd_open(port, true), TTYD_ERR_OPEN);
    EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_CLOSED);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyNoSuchPort open() 2 No such file or directory\n");
    EXPECT_EQ(log.entries()[0].level, "Err");
    EXPECT_EQ(log.entries()[0].file, "TTYDev.cpp");
    EXPECT_EQ(log.entries()[0].function, "ttyd_open");
}

TEST_F(TTYDev, OpenThatCannotEmptyTheQueuesFails) {
    ttyd_set_device(port, DEVICE);
    line.fail(LineCall::Tcflush, EIO);
    EXPECT_EQ(ttyd_open(port, true), TTYD_ERR_CONFIG);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 tcflush() 5 Input/output error\n");
    EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_CLOSED);
    EXPECT_TRUE(line.isOpen());
}

TEST_F(TTYDev, OpenStopsAtTheFirstSettingThatFails) {
    ttyd_set_device(port, DEVICE);
    for (std::size_t n = 1; n <= 5; ++n) {
        log.clear();
        const std::size_t before = line.calls(LineCall::Tcsetattr);
        line.fail(LineCall::Tcsetattr, EINVAL, n);
        EXPECT_EQ(ttyd_open(port, true), TTYD_ERR_CONFIG);
        EXPECT_EQ(line.calls(LineCall::Tcsetattr) - before, n);
        EXPECT_EQ(log.messages(), "tcsetattr() 22 Invalid argument\n");
        EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_CLOSED);
        // It stays open until the next try or the end of the port; tries don't pile up.
        EXPECT_EQ(line.openCount(), 1u);
    }
    ttyd_discard(port);
    port = nullptr;
    EXPECT_FALSE(line.isOpen());
}

TEST_F(TTYDev, DescriptorThatASetCannotHoldIsRefused) {
    ttyd_set_device(port, DEVICE);
    line.openAbove(FD_SETSIZE);
    EXPECT_EQ(ttyd_open(port, true), TTYD_ERR_OPEN);
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_TRUE(log.contains("dev:/dev/ttyX1 open() descrittore 1024"));
    line.openAbove(FD_SETSIZE - 1);
    EXPECT_EQ(ttyd_open(port, true), TTYD_ERR_NOERROR);
    EXPECT_EQ(ttyd_fd(port), FD_SETSIZE - 1);
    line.put({1});
    EXPECT_EQ(read(2, 20), TTYD_ERR_TIMEOUT);
    EXPECT_EQ(got, Bytes{1});
}

TEST_F(TTYDev, CloseAloneKeepsThePort) {
    openPort();
    EXPECT_EQ(ttyd_close(port), TTYD_ERR_NOERROR);
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_CLOSED);
    EXPECT_EQ(ttyd_close(port), TTYD_ERR_PORT_CLOSED);
    EXPECT_EQ(ttyd_open(port, true), TTYD_ERR_NOERROR);
    EXPECT_TRUE(line.isOpen());
}

TEST_F(TTYDev, FailingCloseIsToldAndLeavesTheStatus) {
    openPort();
    line.fail(LineCall::Close, EIO);
    EXPECT_EQ(ttyd_close(port), TTYD_ERR_CLOSE);
    EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_OPEN);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 close() 5 Input/output error\n");
}

TEST_F(TTYDev, EndPutsTheFoundSettingsBackAndCloses) {
    openPort();
    const struct termios found = line.settings();
    EXPECT_EQ(ttyd_termios(port), TTYD_ERR_NOERROR);
    line.put({1, 2});
    ttyd_end(port);
    port = nullptr;
    EXPECT_FALSE(line.isOpen());
    EXPECT_EQ(line.waiting(), 0u);
    const struct termios left = line.settings();
    EXPECT_EQ(left.c_iflag, found.c_iflag);
    EXPECT_EQ(left.c_oflag, found.c_oflag);
    EXPECT_EQ(left.c_cflag, found.c_cflag);
    EXPECT_EQ(left.c_lflag, found.c_lflag);
    EXPECT_EQ(std::memcmp(left.c_cc, found.c_cc, sizeof(left.c_cc)), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDev, EndOfAPortThatIsNotOpenDoesNothing) {
    ttyd_end(port);
    EXPECT_STREQ(port->dev, "/dev/null");
    EXPECT_EQ(line.totalCalls(), 0u);
}

TEST_F(TTYDev, EndDoesNotPutBackWhatItNeverRead) {
    openPort();
    line.fail(LineCall::Tcgetattr, EIO, 2);
    EXPECT_EQ(ttyd_termios(port), TTYD_ERR_CONFIG);
    const std::size_t before = line.calls(LineCall::Tcsetattr);
    ttyd_end(port);
    port = nullptr;
    EXPECT_EQ(line.calls(LineCall::Tcsetattr), before);
    EXPECT_FALSE(line.isOpen());
}

TEST_F(TTYDev, EndThatCannotPutTheSettingsBackLeavesThePortOpen) {
    openPort();
    ttyd_termios(port);
    line.fail(LineCall::Tcsetattr, EPERM);
    ttyd_end(port);
    EXPECT_EQ(log.messages(), "dev:/dev/ttyX1 tcsetattr() 1 Operation not permitted\n");
    EXPECT_EQ(log.entries()[0].function, "ttyd_end");
    EXPECT_TRUE(line.isOpen());
    EXPECT_EQ(ttyd_port_open(port), TTYD_PORT_OPEN);
    ttyd_end(port);
    port = nullptr;
    EXPECT_FALSE(line.isOpen());
}

TEST_F(TTYDev, EndOfAPortWhoseDeviceIsGoneClosesAllTheSame) {
    for (const int error : {EIO, ENXIO, ENODEV, EBADF}) {
        ttyd_port_t* const other = ttyd_init();
        ttyd_set_device(other, DEVICE);
        ASSERT_EQ(ttyd_open(other, true), TTYD_ERR_NOERROR);
        ttyd_termios(other);
        log.clear();
        line.fail(LineCall::Tcsetattr, error);
        ttyd_end(other);
        EXPECT_EQ(log.messages(),
                  "dev:/dev/ttyX1 tcsetattr() " + std::to_string(error) + " " + std::strerror(error) + "\n");
        EXPECT_FALSE(line.isOpen());
    }
}

TEST_F(TTYDev, EndAfterAHangUp) {
    openPort();
    ttyd_termios(port);
    line.hangUp();
    ttyd_end(port);
    port = nullptr;
    EXPECT_FALSE(line.isOpen());
}

TEST_F(TTYDev, EndWithAFailingCloseEndsAndClosesNobodyElsesDescriptor) {
    openPort();
    const int fd = ttyd_fd(port);
    line.fail(LineCall::Close, EIO);
    FakeLine other("/dev/ttyX2");
    int otherFd = -1;
    // Another thread gets the number that was just released.
    line.before(LineCall::Close, [&] { VirtualClock::advance(1); });
    ttyd_close(port);
    otherFd = open("/dev/ttyX2", O_RDWR);
    EXPECT_EQ(otherFd, fd);
    ttyd_end(port);
    port = nullptr;
    EXPECT_TRUE(other.isOpen());
    close(otherFd);
    EXPECT_EQ(log.messages(),
              "dev:/dev/ttyX1 close() 5 Input/output error\n"
              "dev:/dev/ttyX1 close() 9 Bad file descriptor\n");
}

// ---- settings

TEST_F(TTYDev, BaudRates) {
    openPort();
    const struct {
        ttyd_baud_e value;
        speed_t speed;
    } rows[] = {{TTYD_BAUD_1200, B1200},   {TTYD_BAUD_2400, B2400},    {TTYD_BAUD_4800, B4800},
                {TTYD_BAUD_9600, B9600},   {TTYD_BAUD_19200, B19200},  {TTYD_BAUD_38400, B38400},
                {TTYD_BAUD_57600, B57600}, {TTYD_BAUD_115200, B115200}};
    for (const auto& row : rows) {
        EXPECT_EQ(ttyd_set_baud(port, row.value), TTYD_ERR_NOERROR);
        const struct termios settings = line.settings();
        EXPECT_EQ(cfgetispeed(&settings), row.speed);
        EXPECT_EQ(cfgetospeed(&settings), row.speed);
        EXPECT_EQ(port->baud, row.value);
    }
}

TEST_F(TTYDev, DataBits) {
    openPort();
    const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    for (uint32 i = 0; i < 4; ++i) {
        EXPECT_EQ(ttyd_set_data(port, static_cast<ttyd_data_e>(i)), TTYD_ERR_NOERROR);
        EXPECT_EQ(line.settings().c_cflag & CSIZE, sizes[i]);
        EXPECT_EQ(port->data, i);
    }
}

TEST_F(TTYDev, Parity) {
    openPort();
    EXPECT_EQ(ttyd_set_parity(port, TTYD_PARITY_ODD), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.settings().c_cflag & (PARENB | PARODD), static_cast<tcflag_t>(PARENB | PARODD));
    // None leaves the kind as found.
    EXPECT_EQ(ttyd_set_parity(port, TTYD_PARITY_NONE), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.settings().c_cflag & (PARENB | PARODD), static_cast<tcflag_t>(PARODD));
    EXPECT_EQ(ttyd_set_parity(port, TTYD_PARITY_EVEN), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.settings().c_cflag & (PARENB | PARODD), static_cast<tcflag_t>(PARENB));
    EXPECT_EQ(port->parity, TTYD_PARITY_EVEN);
}

TEST_F(TTYDev, StopBits) {
    openPort();
    EXPECT_EQ(ttyd_set_stop(port, TTYD_STOP_2), TTYD_ERR_NOERROR);
    EXPECT_NE(line.settings().c_cflag & CSTOPB, 0u);
    EXPECT_EQ(port->stop, TTYD_STOP_2);
    EXPECT_EQ(ttyd_set_stop(port, TTYD_STOP_1), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.settings().c_cflag & CSTOPB, 0u);
}

TEST_F(TTYDev, FlowControl) {
    openPort();
    constexpr tcflag_t xonxoff = IXON | IXOFF | IXANY;
    EXPECT_EQ(ttyd_set_flow(port, TTYD_FLOW_HW), TTYD_ERR_NOERROR);
    EXPECT_NE(line.settings().c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(line.settings().c_iflag & xonxoff, 0u);
    EXPECT_EQ(ttyd_set_flow(port, TTYD_FLOW_XON_XOFF), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.settings().c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(line.settings().c_iflag & xonxoff, xonxoff);
    EXPECT_EQ(port->flow, TTYD_FLOW_XON_XOFF);
    EXPECT_EQ(ttyd_set_flow(port, TTYD_FLOW_OFF), TTYD_ERR_NOERROR);
    EXPECT_EQ(line.settings().c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(line.settings().c_iflag & xonxoff, 0u);
}

TEST_F(TTYDev, ValuesOutOfRangeChangeNothing) {
    openPort();
    const std::size_t before = line.totalCalls();
    EXPECT_EQ(ttyd_set_baud(port, TTYD_BAUD_MAX), TTYD_ERR_UNKNOWN);
    EXPECT_EQ(ttyd_set_data(port, TTYD_DATA_MAX), TTYD_ERR_UNKNOWN);
    EXPECT_EQ(ttyd_set_parity(port, TTYD_PARITY_MAX), TTYD_ERR_UNKNOWN);
    EXPECT_EQ(ttyd_set_stop(port, TTYD_STOP_MAX), TTYD_ERR_UNKNOWN);
    EXPECT_EQ(ttyd_set_flow(port, TTYD_FLOW_MAX), TTYD_ERR_UNKNOWN);
    EXPECT_EQ(line.totalCalls(), before);
    EXPECT_EQ(port->baud, TTYD_BAUD_9600);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TTYDev, FailingSettingsAreToldAndNotStored) {
    openPort();
    const auto expectFailure = [&](const char* function, auto set) {
        log.clear();
        line.fail(LineCall::Tcgetattr, EIO);
        EXPECT_EQ(set(), TTYD_ERR_CONFIG);
        EXPECT_EQ(log.messages(), "tcgetattr() 5 Input/output error\n");
        EXPECT_EQ(log.entries()[0].function, function);
        log.clear();
        line.fail(LineCall::Tcsetattr, EINVAL);
        EXPECT_EQ(set(), TTYD_ERR_CONFIG);
        EXPECT_EQ(log.messages(), "tcsetattr() 22 Invalid argument\n");
        EXPECT_EQ(log.entries()[0].function, function);
    };
    expectFailure("ttyd_set_baud", [&] { return ttyd_set_baud(port, TTYD_BAUD_1200); });
    expectFailure("ttyd_set_data", [&] { return ttyd_set_data(port, TTYD_DATA_5); });
    expectFailure("ttyd_set_parity", [&] { return ttyd_set_parity(port, TTYD_PARITY_ODD); });
    expectFailure("ttyd_set_stop", [&] { return ttyd_set_stop(port, TTYD_STOP_2); });
    expectFailure("ttyd_set_flow", [&] { return ttyd_set_flow(port, TTYD_FLOW_HW); });
    EXPECT_EQ(port->baud, TTYD_BAUD_9600);
    EXPECT_EQ(port->data, TTYD_DATA_8);
    EXPECT_EQ(port->parity, TTYD_PARITY_NONE);
    EXPECT_EQ(port->stop, TTYD_STOP_1);
    EXPECT_EQ(port->flow, TTYD_FLOW_OFF);
}

TEST_F(TTYDev, WorkingModeIsRawWithBreakAsSignal) {
    struct termios found = line.settings();
    found.c_iflag = INPCK | ISTRIP | ICRNL | IXON;
    found.c_cflag &= ~static_cast<tcflag_t>(CREAD | CLOCAL);
    found.c_lflag = ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
    found.c_cc[VMIN] = 9;
    found.c_cc[VTIME] = 8;
    line.setSettings(found);
    openPort();
    EXPECT_EQ(ttyd_termios(port), TTYD_ERR_NOERROR);
    const struct termios settings = line.settings();
    EXPECT_EQ(settings.c_iflag, static_cast<tcflag_t>(BRKINT | IGNPAR));
    EXPECT_EQ(settings.c_oflag, 0u);
    EXPECT_EQ(settings.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_NE(settings.c_cflag & HUPCL, 0u);
    EXPECT_EQ(settings.c_lflag, static_cast<tcflag_t>(ISIG | ECHOK | IEXTEN));
    for (const int index : {VINTR, VQUIT, VSTART, VSTOP, VSUSP, VEOF, VEOL, VERASE, VKILL}) {
        EXPECT_EQ(settings.c_cc[index], 0);
    }
    EXPECT_EQ(settings.c_cc[VMIN], 9);
    EXPECT_EQ(settings.c_cc[VTIME], 8);
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B9600));
}

TEST_F(TTYDev, WorkingModeThatFailsIsTold) {
    openPort();
    for (const std::size_t n : {1u, 2u}) {
        log.clear();
        line.fail(LineCall::Tcgetattr, EIO, n);
        EXPECT_EQ(ttyd_termios(port), TTYD_ERR_CONFIG);
        EXPECT_EQ(log.messages(), "tcgetattr() 5 Input/output error\n");
        EXPECT_EQ(log.entries()[0].function, "ttyd_termios");
    }
    log.clear();
    line.fail(LineCall::Tcsetattr, EIO);
    EXPECT_EQ(ttyd_termios(port), TTYD_ERR_CONFIG);
    EXPECT_EQ(log.messages(), "tcsetattr() 5 Input/output error\n");
}
