// A port of the driver on a fake line where the peer's bytes are there at once.
#ifndef TESTS_UNIT_DEVMGR_PORTONALINE_H
#define TESTS_UNIT_DEVMGR_PORTONALINE_H

#include <gtest/gtest.h>

#include "DevMgr/TTYDev.h"
#include "support/FakeLine.h"
#include "support/LogCapture.h"

constexpr char DEVICE[] = "/dev/ttyX1";

/// Freed at the end unless the test has ended it.
class PortOnALine : public testing::Test {
  protected:
    ~PortOnALine() override {
        if (port != nullptr) {
            ttyd_discard(port);
        }
    }
    void openPort() {
        ttyd_set_device(port, DEVICE);
        ASSERT_EQ(ttyd_open(port, false), TTYD_ERR_NOERROR);
    }
    int32 read(uint32 wanted, uint32 timeout) {
        got.assign(wanted, 0);
        uint32 count = 4711;
        const int32 ret = ttyd_read_timeout(port, got.data(), wanted, &count, timeout);
        got.resize(count <= wanted ? count : 0);
        counted = count;
        return ret;
    }
    int32 write(const support::Bytes& bytes) {
        written = 4711;
        return ttyd_write(port, bytes.data(), static_cast<uint32>(bytes.size()), &written);
    }

    support::LogCapture log;
    support::FakeLine line{DEVICE, 0};
    ttyd_port_t* port = ttyd_init();
    support::Bytes got;
    uint32 counted = 0;
    uint32 written = 0;
};

#endif
