#include "CABP/ClockStages.h"

namespace clockstages {

namespace {

constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int64_t MSEC_PER_SEC = 1000;
constexpr int64_t USEC_PER_MSEC = 1000;
// One new offset moves the filter by 1/30.
constexpr int64_t FILTERKEEP = 29;
constexpr int64_t FILTERLENGTH = 30;
constexpr int64_t FILTERSCALE = 1 << FILTERSHIFT;
// The group's mean moves by 1/32.
constexpr uint64_t MEANKEEP = 31;
constexpr int MEANSHIFT = 5;

// Milliseconds from `earlier` to `later`.
int64_t msecBetween(const clkTime_t& earlier, const clkTime_t& later) {
    int64_t seconds = static_cast<int64_t>(later.tv_sec) - earlier.tv_sec;
    int64_t usec = static_cast<int64_t>(later.tv_usec) - earlier.tv_usec;
    if (usec < 0) {
        usec += USEC_PER_SEC;
        --seconds;
    }
    return usec / USEC_PER_MSEC + seconds * MSEC_PER_SEC;
}

}  // namespace

time32_t highestOtherEpoch(const clkStruct& table, int own) {
    time32_t highest = 0;
    for (int i = 0; i < MAXUPSBOX; ++i) {
        if (i != own) {
            highest = MAX<time32_t>(highest, table.clkValue[i].epochT);
        }
    }
    return highest;
}

RawOffset rawOffset(const clkTime_t& own, const clkTime_t& remote) {
    if (own.tv_sec > remote.tv_sec) {
        return {true, static_cast<uint64_t>(msecBetween(remote, own))};
    }
    if (own.tv_sec < remote.tv_sec) {
        return {false, static_cast<uint64_t>(msecBetween(own, remote))};
    }
    const int64_t usec = static_cast<int64_t>(own.tv_usec) - remote.tv_usec;
    return {usec > 0, static_cast<uint64_t>(ABS(usec) / USEC_PER_MSEC)};
}

bool isStampedAfter(const clkStruct& table, int own, int remote) {
    for (int i = 0; i < MAXUPSBOX; ++i) {
        if (i != own && table.clkValue[i].T.tv_sec > table.clkValue[remote].T.tv_sec) {
            return true;
        }
    }
    return false;
}

int64_t weightOf(time32_t epochT) {
    return MAX<int64_t>(epochT >> EPOCHSHIFT, 1);
}

int32 filtered(const clkStruct& table, int remote, int64_t offset, int32 previous) {
    int64_t sum = 0;
    for (const clockData& entry : table.clkValue) {
        sum += weightOf(entry.epochT);
    }
    // The reference counts by its weight; the others are taken to agree with what the filter already believes.
    const int64_t weight = weightOf(table.clkValue[remote].epochT);
    const int64_t mixed = (weight * offset + (sum - weight) * smoothed(previous)) / sum;
    return static_cast<int32>((previous * FILTERKEEP + mixed * FILTERSCALE) / FILTERLENGTH);
}

int32 smoothed(int32 state) {
    return state >> FILTERSHIFT;
}

GroupSum sumOfDeltas(const clkStruct& table) {
    GroupSum sum = {0, 0};
    for (const clockData& entry : table.clkValue) {
        if (entry.epochT != 0) {
            sum.accT += entry.delta;
            ++sum.countMCU;
        }
    }
    return sum;
}

uint32 groupMean(const GroupSum& sum, uint32 TftTime) {
    if (sum.countMCU == 0) {
        return TftTime;
    }
    const uint64_t mean = static_cast<uint64_t>(ABS(sum.accT) * USEC_PER_MSEC / sum.countMCU);
    const uint64_t moved = (mean + TftTime * MEANKEEP) >> MEANSHIFT;
    return static_cast<uint32>(MIN<uint64_t>(moved, MAXTFTTIME));
}

int64_t weightedOffset(int32 delta, uint32 TftTime) {
    return static_cast<int64_t>(delta) - static_cast<int64_t>(TftTime / 1000);
}

timeval slewAgainst(int64_t offset) {
    timeval slew;
    slew.tv_sec = static_cast<decltype(slew.tv_sec)>(-(offset / MSEC_PER_SEC));
    slew.tv_usec = static_cast<decltype(slew.tv_usec)>(-(offset % MSEC_PER_SEC) * USEC_PER_MSEC);
    return slew;
}

}  // namespace clockstages
