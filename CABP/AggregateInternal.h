// What the sources of the system aggregation share with one another and with their tests, and with no one else.
//
// A pass folds the records of the cabinets into the record of the system, in this order: seed, first scan (measures and
// states), agreement between the cabinets, finishing of the values, second scan (switches and boxes), agreement of the
// switches, modules in use, redundancy, publishing. All of it with mutexCABPData held, on the bus thread.
#ifndef CABP_AGGREGATEINTERNAL_H
#define CABP_AGGREGATEINTERNAL_H

#include "CABP/CABPTypes.h"
#include "Measure/AnomalyTimer.h"

namespace aggr {

constexpr int LINES = 3;

/// The log's name for all of its steps.
constexpr char OPERATION[] = "AggregateBox";

/// Seconds that a disagreement between cabinets must outlast.
constexpr int AnomalyTimeout = 10;
/// Seconds that the want of redundancy must outlast.
constexpr int RedundancyTimeout = 3;

/// The anomalies that live across the passes; one set for the process.
struct Timers {
    explicit Timers(time32_t now)
        : lock(AnomalyTimeout, now),
          bypassBad(AnomalyTimeout, now),
          batteryWorking(AnomalyTimeout, now),
          outputPowered(AnomalyTimeout, now),
          lostRedundancy(RedundancyTimeout, now),
          lowRedundancy(RedundancyTimeout, now) {}

    AnomalyTimer lock;
    AnomalyTimer bypassBad;
    AnomalyTimer batteryWorking;
    AnomalyTimer outputPowered;
    AnomalyTimer lostRedundancy;
    AnomalyTimer lowRedundancy;
};

/// Readings on their way to an average. The sum wraps.
struct Mean {
    uint32 sum = 0;
    uint32 cnt = 0;

    void add(uint32 value) {
        sum += value;
        ++cnt;
    }
    /// 0 without readings; truncated.
    uint32 value() const { return cnt == 0 ? 0 : sum / cnt; }
};

constexpr std::size_t MEANFIELDS = 21;  // voltages and frequencies of dataObject_t
constexpr std::size_t LOWFIELDS = 3;    // battery voltages

/// Contributors of the first scan: cabinets that are reachable and have sent data.
struct Contributors {
    int actvElem = 0;
    int boxUpsInLock = 0;
    int boxUpsInBypassBad = 0;
    int boxUpsInBatteryLow = 0;
    int boxUpsInBatteryWorking = 0;
    int boxUpsInOutputPowerd = 0;
    int boxWrongPowered = 0;  // Output_Powered differs from the system's
    Mean Load[LINES];
    Mean means[MEANFIELDS];
    int lowCnt[LOWFIELDS] = {};
};

/// Cabinets of the second scan: reachable, and not waiting for their configuration.
struct Switches {
    int actvElem = 0;
    int boxUpsSWOUTOpened = 0;
    int boxUpsSWMBClosed = 0;
    int boxUpsSWINOpened = 0;
    int boxUpsSWBYPOpened = 0;
    int boxUpsSWBATT_EXTOpened = 0;
    Mean barsPosV;
    Mean barsNegV;
};

/// One pass.
struct Pass {
    Pass(const upsBoxQueriesData_t (&boxes)[MAXUPSBOX], const descSys_t& sys, time32_t now)
        : upsBox(boxes), liveSys(sys), nowT(now) {}

    const upsBoxQueriesData_t (&upsBox)[MAXUPSBOX];
    const descSys_t& liveSys;  // as the pass before has left it
    const time32_t nowT;       // wall time
    descSys_t tempSys = {};
    uint32 VA = 0;
    uint32 W = 0;
    Contributors contributors;
    Switches switches;
    int PMNotOnLoad = 0;
    int PMUsed = 0;
};

// A multi-byte field of a packed record by its offset.
template <typename T, typename Record>
T fieldAt(const Record& record, std::size_t offset) {
    T value;
    __builtin_memcpy(&value, reinterpret_cast<const uint8*>(&record) + offset, sizeof(value));
    return value;
}
template <typename T, typename Record>
void setFieldAt(Record& record, std::size_t offset, T value) {
    __builtin_memcpy(reinterpret_cast<uint8*>(&record) + offset, &value, sizeof(value));
}

/// Node of a cabinet that takes part in the polling; null for another one.
inline virtualNode_t* nodeOf(const upsBoxQueriesData_t& box) {
    return box.MCUcommStatus.active ? box.pVN : nullptr;
}

// Scans (AggrScans.cpp).

/// A cabinet's measures and states into the system's.
void addContributor(Pass& pass, const virtualNode_t& node);
/// Stores what was only gathered; values that nobody has told become 0.
void finishValues(Pass& pass);
/// A cabinet's switches and box states into the system's.
void addSwitches(Pass& pass, const descUpsBox_t& box);

// Agreement between the cabinets (AggrAgreement.cpp).

/// Whether the anomaly counts by now; `message` is logged when it begins to.
bool isAnomaly(AnomalyTimer& timer, bool present, time32_t now, const char* message);
/// Lock, bypass, battery and output, with their timers.
void agreeOnStates(Pass& pass, Timers& timers);
void agreeOnSwitches(Pass& pass);

// Modules and redundancy (AggrRedundancy.cpp).

/// Loads of the lines, modules not on load and in use; the two counts go to the system manager.
void countModules(Pass& pass);
void judgeRedundancy(Pass& pass, Timers& timers);

}  // namespace aggr

#endif
