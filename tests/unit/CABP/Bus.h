// What the tests of the bus protocol share: frames made apart from the product's code, and a bus port on a fake line.
#ifndef TESTS_UNIT_CABP_BUS_H
#define TESTS_UNIT_CABP_BUS_H

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <initializer_list>
#include <string>

#include "CABP/CABPInternal.h"
#include "support/FakeLine.h"
#include "support/LogCapture.h"

namespace bus {

using support::Bytes;

/// Bit by bit: reflected polynomial 0x8408, start value 0x554D.
inline unsigned crcOf(const Bytes& bytes, std::size_t from, std::size_t to) {
    unsigned value = 0x554D;
    for (std::size_t i = from; i < to; ++i) {
        value ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1U) != 0 ? (value >> 1) ^ 0x8408U : value >> 1;
        }
    }
    return value;
}

inline Bytes frame(unsigned src, unsigned dest, const char* cmd, const Bytes& data = {}) {
    const std::size_t n = data.size();
    Bytes pck(n + 10);
    pck[0] = 0x02;
    pck[1] = static_cast<uint8>(src);
    pck[2] = static_cast<uint8>(dest);
    pck[3] = static_cast<uint8>(cmd[0]);
    pck[4] = static_cast<uint8>(cmd[1]);
    pck[5] = static_cast<uint8>(n >> 8);
    pck[6] = static_cast<uint8>(n);
    std::copy(data.begin(), data.end(), pck.begin() + 7);
    const unsigned crc = crcOf(pck, 1, n + 7);
    pck[n + 7] = static_cast<uint8>(crc >> 8);
    pck[n + 8] = static_cast<uint8>(crc);
    pck[n + 9] = 0x03;
    return pck;
}

/// Data of `n` bytes with neither STX nor ETX in them.
inline Bytes filler(std::size_t n, uint8 first = 0x20) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) {
        data[i] = static_cast<uint8>(first + i % 0x5B);
    }
    return data;
}

inline Bytes join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

inline pckStruct query(unsigned dest, const char* cmd, Bytes* data = nullptr) {
    pckStruct q;
    q.Src = CABPAddr;
    q.Dest = static_cast<uint8>(dest);
    q.MainCmd = static_cast<uint8>(cmd[0]);
    q.SubCmd = static_cast<uint8>(cmd[1]);
    q.pParam = data == nullptr ? nullptr : data->data();
    q.ParamLen = static_cast<uint16>(data == nullptr ? 0 : data->size());
    return q;
}

/// The card 0xEB with its bus port open. The log begins after that.
class Port : public testing::Test {
  protected:
    static constexpr const char* DEVICE = "/dev/ttyBUS";

    Port() {
        CABPAddr = 0xEB;
        LastMaster = GROUPMASTER;
        errnoCABP = 0;
        cntBreakDetect = 0;
        serialPortCABP = DEVICE;
    }
    ~Port() override {
        CABP_End();
        signal(SIGINT, SIG_DFL);
        serialPortCABP = nullptr;
    }
    void SetUp() override {
        CABP_Init();
        log.clear();
    }

    /// As a slave with a full buffer; `got` becomes the frame received, or what the buffer holds.
    int receive(uint32 timeout = 30000) {
        got.assign(CABP_MAXPCKLEN, 0);
        uint16 len = CABP_MAXPCKLEN;
        const int ret = CABP_Rcv(got.data(), &len, timeout);
        EXPECT_EQ(len, CABP_MAXPCKLEN);
        if (ret == SUCC) {
            got.resize(static_cast<std::size_t>(got[5] * 256 + got[6] + 10));
        }
        return ret;
    }

    support::LogCapture log;
    support::FakeLine line{DEVICE, 0};
    Bytes got;
};

}  // namespace bus

#endif
