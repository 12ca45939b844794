// Clock tables and an open clock manager for the tests.
#ifndef TESTS_UNIT_CABP_CLOCKS_H
#define TESTS_UNIT_CABP_CLOCKS_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "CABP/ClockMgr.h"
#include "support/LogCapture.h"
#include "support/LogLine.h"
#include "support/Replaced.h"
#include "support/VirtualClock.h"

class OpenClock : public ClockMgr {
  public:
    using ClockMgr::epochWhenClockChanged;
    using ClockMgr::lastAdj;
    using ClockMgr::mutexClk;
    using ClockMgr::prevdelta;

    bool isFree() {
        if (!mutexClk->tryLock()) {
            return false;
        }
        mutexClk->unlock();
        return true;
    }
};

inline clkTime_t stamp(std::int64_t us) {
    return {static_cast<int32>(us / 1000000), static_cast<int32>(us % 1000000)};
}

inline std::string image(const clkStruct& table) {
    return std::string(reinterpret_cast<const char*>(&table), sizeof(table));
}

inline std::int64_t microseconds(const timeval& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1000000 + time.tv_usec;
}

#endif
