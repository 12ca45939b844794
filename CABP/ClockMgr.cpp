#include "CABP/ClockMgr.h"

#include <sys/time.h>

#include <cerrno>
#include <ctime>

#include "Common/LogStep.h"

using namespace clockstages;

int32 ClockMgr::prevdelta = 0;

namespace {

constexpr time32_t ORDINARY = 1;  // epochT of a clock in ordinary running

constexpr char OPERATION[] = "elaborateClkData";  // the log's name for all of its steps

clkTime_t timeOfDay() {
    timeval now;
    gettimeofday(&now, nullptr);
    return {static_cast<int32>(now.tv_sec), static_cast<int32>(now.tv_usec)};
}

void logTable(const clkStruct& table, int64_t offset, const GroupSum& sum) {
    DBG_P_OF(OPERATION, "delta pesato:%ld\n", static_cast<long>(offset));
    for (int i = 0; i < MAXUPSBOX; ++i) {
        const clockData entry = table.clkValue[i];
        DBG_P_OF(OPERATION, "-%d- T:%11i.%03lis delta: %6ims epochT:%11is\n", i, entry.T.tv_sec,
                 static_cast<long>(entry.T.tv_usec / 1000), entry.delta, entry.epochT);
    }
    DBG_P_OF(OPERATION, "accT:%6i countMCU:%d\n", static_cast<int>(sum.accT), sum.countMCU);
    DBG_P_OF(OPERATION, "TftTime:%d\n", static_cast<int>(table.TftTime));
}

}  // namespace

ClockMgr::ClockMgr() : mutexClk(new myMutex("mutexClk")), epochWhenClockChanged(0), lastAdj(1) {}

ClockMgr::~ClockMgr() {
    delete mutexClk;
}

void ClockMgr::prepareClkData(clkStruct& clkData) {
    const myMutexLocker locker(mutexClk);
    const int ownId = ownIndex();
    if (ownId < 0) {
        return;
    }
    clockData& own = clkData.clkValue[ownId];
    own.T = timeOfDay();
    if (own.epochT == 0) {
        own.epochT = ORDINARY;
    }
    if (epochWhenClockChanged != 0) {
        own.epochT = static_cast<time32_t>(epochWhenClockChanged);
    }
}

void ClockMgr::elaborateClkData(uint8 MCUrf, clkStruct& remClks) {
    const myMutexLocker locker(mutexClk);
    const int ownId = ownIndex();
    if (ownId < 0) {
        return;
    }
    if (MCUrf >= MAXUPSBOX) {
        DBG_E("Indice del mittente non corretto! MCU:%d\n", MCUrf);
        return;
    }
    clockData& own = remClks.clkValue[ownId];
    const clockData& remote = remClks.clkValue[MCUrf];

    own.T = timeOfDay();
    const time32_t maxEpoch = highestOtherEpoch(remClks, ownId);
    updatePriority(remClks, ownId, maxEpoch);
    if (maxEpoch < own.epochT) {
        // This clock is the reference: it never adjusts itself and reports the group's mean as its own offset.
        own.delta = static_cast<int32>(remClks.TftTime / 1000);
        return;
    }
    if (remote.epochT < maxEpoch) {
        return;
    }

    const RawOffset offset = rawOffset(own.T, remote.T);
    if (offset.msec >= LARGEOFFSET_MS) {
        restartFilter(remClks, ownId, MCUrf);
        return;
    }
    const int64_t msec = static_cast<int64_t>(offset.msec);
    prevdelta = filtered(remClks, MCUrf, offset.isPositive ? msec : -msec, prevdelta);
    own.delta = smoothed(prevdelta);

    const GroupSum sum = sumOfDeltas(remClks);
    remClks.TftTime = groupMean(sum, remClks.TftTime);
    correct(remClks, ownId, MCUrf, sum);
}

bool ClockMgr::adjustedLately() const {
    return static_cast<int64_t>(std::time(nullptr)) - lastAdj < ADJINTERVAL_S;
}

void ClockMgr::updatePriority(clkStruct& table, int ownId, time32_t maxEpoch) {
    if (epochWhenClockChanged == 0) {
        return;
    }
    clockData& own = table.clkValue[ownId];
    own.epochT = static_cast<time32_t>(epochWhenClockChanged);
    const int64_t age = static_cast<int64_t>(own.T.tv_sec) - epochWhenClockChanged;
    if (ABS(age) >= PRIORITY_S) {
        DBG_P_OF(OPERATION, "Fine priorita' di questo orologio\n");
    } else if (epochWhenClockChanged <= maxEpoch) {
        DBG_P_OF(OPERATION, "Altro display guadagna priorita'\n");
    } else {
        for (int i = 0; i < MAXUPSBOX; ++i) {
            if (i != ownId) {
                table.clkValue[i].epochT = ORDINARY;
            }
        }
        return;
    }
    epochWhenClockChanged = 0;
    own.epochT = ORDINARY;
}

void ClockMgr::restartFilter(clkStruct& table, int ownId, int remoteId) {
    if (adjustedLately() || isStampedAfter(table, ownId, remoteId)) {
        return;
    }
    clockData& own = table.clkValue[ownId];
    DBG_P_OF(OPERATION, "Sincronizzo gli orologi\n my_tv_sec:%ld  rem_tv_sec:%ld\n", static_cast<long>(own.T.tv_sec),
             static_cast<long>(table.clkValue[remoteId].T.tv_sec));
    own.delta = 0;
    prevdelta = 0;
}

void ClockMgr::correct(const clkStruct& table, int ownId, int remoteId, const GroupSum& sum) {
    if (adjustedLately() || epochWhenClockChanged >= table.clkValue[remoteId].epochT) {
        return;
    }
    const int64_t offset = weightedOffset(table.clkValue[ownId].delta, table.TftTime);
    if (ABS(offset) < DEADBAND_MS) {
        return;
    }
    if (ABS(offset) >= CORRECTION_MS) {
        slew(offset);
    }
    logTable(table, offset, sum);
}

void ClockMgr::slew(int64_t offset) {
    const timeval delta = slewAgainst(offset);
    timeval oldDelta = {};
    if (adjtime(&delta, &oldDelta) == 0) {
        lastAdj = std::time(nullptr);
    } else {
        DBG_E_OF(OPERATION, "adjtime() failed, errno = %d\n", errno);
    }
    DBG_P_OF(OPERATION, "delta:%ld.%06ld\n", static_cast<long>(delta.tv_sec), static_cast<long>(delta.tv_usec));
    DBG_P_OF(OPERATION, "oldDelta:%ld.%06ld\n", static_cast<long>(oldDelta.tv_sec),
             static_cast<long>(oldDelta.tv_usec));
}
