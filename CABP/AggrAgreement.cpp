// What only shows when the cabinets are compared: states and switches that some have and some have not. States are
// judged with timers, since the records that are compared are of different age; switches at once.
#include "CABP/AggregateInternal.h"
#include "Common/LogStep.h"

namespace aggr {
namespace {

bool some(int count) {
    return count > 0;
}
bool someButNotAll(int count, int all) {
    return count > 0 && count != all;
}

// Bits that a disagreement raises.
constexpr uint8 ALARM_ANOMALY = 0x02;
constexpr uint8 ALARM_FAULT = 0x04;
constexpr uint8 PM_NONE = 0x00;
constexpr uint8 PM_BYPASSBADANOMALY = 0x08;
constexpr uint8 PM_BATTERYWORKINGANOMALY = 0x10;
constexpr uint8 PM_OUTPUTPOWEREDANOMALY = 0x20;

struct StateRow {
    AnomalyTimer Timers::*timer;
    bool (*disagree)(const Contributors& counts);
    const char* message;
    uint8 alarm;     // raised in alarm
    uint8 PMStatus;  // raised in the low byte of PMStatus
};
constexpr StateRow stateTable[] = {
    {&Timers::lock, [](const Contributors& counts) { return someButNotAll(counts.boxUpsInLock, counts.actvElem); },
     "Non tutti gli armadi sono in Lock!!\n", ALARM_FAULT, PM_NONE},
    {&Timers::bypassBad,
     [](const Contributors& counts) { return someButNotAll(counts.boxUpsInBypassBad, counts.actvElem); },
     "Non tutti gli armadi sono in BypassBad!!\n", ALARM_FAULT, PM_BYPASSBADANOMALY},
    {&Timers::batteryWorking,
     [](const Contributors& counts) { return someButNotAll(counts.boxUpsInBatteryWorking, counts.actvElem); },
     "Non tutti i moduli funzionano da batteria!!\n", ALARM_ANOMALY, PM_BATTERYWORKINGANOMALY},
    {&Timers::outputPowered, [](const Contributors& counts) { return some(counts.boxWrongPowered); },
     "Lo stato Output_Powered non e' coerente!!\n", ALARM_ANOMALY, PM_OUTPUTPOWEREDANOMALY},
};

// States that the system has because all of its cabinets, or enough of them, have them.
void decideStates(dataObject_t& sys, const Contributors& counts) {
    const bool anybody = some(counts.actvElem);
    sys.alarm.Lock = anybody && counts.boxUpsInLock == counts.actvElem ? 1 : 0;
    sys.alarm.Bypass_Bad = anybody && counts.boxUpsInBypassBad == counts.actvElem ? 1 : 0;

    // More than half of the powered cabinets.
    const int notOnBattery = counts.boxUpsInOutputPowerd - counts.boxUpsInBatteryWorking;
    sys.status.Battery_Working = counts.boxUpsInBatteryWorking > notOnBattery ? 1 : 0;
    if (sys.status.Battery_Working == 0) {
        sys.alarm.Battery_Low = 0;
        return;
    }
    sys.status.Line_Present = 0;
    // At least half of all.
    sys.alarm.Battery_Low = counts.boxUpsInBatteryLow >= counts.actvElem - counts.boxUpsInBatteryLow ? 1 : 0;
    if (someButNotAll(counts.boxUpsInBatteryLow, counts.actvElem)) {
        sys.alarm.Warning = 1;
    }
}

}  // namespace

bool isAnomaly(AnomalyTimer& timer, bool present, time32_t now, const char* message) {
    const AnomalyVerdict verdict = timer.look(present, now);
    if (verdict == AnomalyVerdict::JustDetected) {
        DBG_W_OF(OPERATION, "%s", message);
    }
    return verdict != AnomalyVerdict::No;
}

void agreeOnStates(Pass& pass, Timers& timers) {
    dataObject_t& sys = pass.tempSys.Ups;
    for (const StateRow& row : stateTable) {
        if (isAnomaly(timers.*row.timer, row.disagree(pass.contributors), pass.nowT, row.message)) {
            sys.alarm.byte |= row.alarm;
            sys.PMStatus.bytes[0] |= row.PMStatus;
        }
    }
    decideStates(sys, pass.contributors);
}

void agreeOnSwitches(Pass& pass) {
    const Switches& counts = pass.switches;
    const int n = counts.actvElem;
    descSys_t& sys = pass.tempSys;
    upsAlarm_t& alarm = sys.Ups.alarm;
    upsPMStatus_t& PMStatus = sys.Ups.PMStatus;

    if (n == 0) {
        sys.externalSwitchStatus.EPO = 0;
    }
    PMStatus.SWINCabinetAnomaly = counts.boxUpsSWINOpened > 0 && counts.boxUpsSWINOpened < n ? 1 : 0;
    if (some(counts.boxUpsSWINOpened) || n == 0) {
        alarm.Anomaly = 1;
    }
    if (someButNotAll(counts.boxUpsSWBYPOpened, n)) {
        PMStatus.SWBYPCabinetAnomaly = 1;
    }
    if (someButNotAll(counts.boxUpsSWBATT_EXTOpened, n)) {
        PMStatus.SWBATT_EXTCabinetAnomaly = 1;
        sys.boxStatus.Anomaly = 1;
    }
    if (someButNotAll(counts.boxUpsSWMBClosed, n)) {
        PMStatus.SWMBCabinetAnomaly = 1;
        alarm.Warning = 1;
        alarm.Anomaly = 1;
        // The system's own bit still tells which way the operator goes.
        if (pass.liveSys.Ups.status.SWMB != 0) {
            sys.sysStatus.SWMBOpening = 1;
        } else {
            sys.sysStatus.SWMBClosing = 1;
        }
    } else if (counts.boxUpsSWMBClosed == n) {
        PMStatus.SWMBCabinetAnomaly = 0;
        alarm.Warning = 1;
    }
    if (someButNotAll(counts.boxUpsSWOUTOpened, n)) {
        PMStatus.SWOUTCabinetAnomaly = 1;
        alarm.Anomaly = 1;
    }
}

}  // namespace aggr
