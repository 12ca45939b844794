// How many modules the load needs, how many there are, and what is left in reserve.
#include "CABP/AggregateInternal.h"
#include "Common/SysMgr.h"

namespace aggr {
namespace {

bool isNotOnLoad(const Pass& pass, int id) {
    if (pass.upsBox[id].pVN == nullptr) {
        return true;
    }
    const descUpsBox_t& record = pass.upsBox[id].pVN->desc.upsBox;
    const alarmStatus_t shelter = elemAlarm(record.subSystem.UPSShelter[0]);
    // The record of a silent cabinet is as it was when it was heard last: the system knows better.
    return shelter == commLostAlarm || shelter == lockAlarm || record.Ups.status.Output_Powered == 0 ||
           elemAlarm(pass.tempSys.subSystem.UPSBox[id]) == commLostAlarm;
}

int modulesNotOnLoad(const Pass& pass) {
    int PMNotOnLoad = 0;
    if (pass.tempSys.Ups.status.Output_Powered != 0) {
        for (int id = 0; id < MAXUPSBOX; ++id) {
            PMNotOnLoad += pSysMgr->Cfg.Ups[id].present && isNotOnLoad(pass, id) ? 1 : 0;
        }
    }
    return PMNotOnLoad;
}

// Modules that the system's power takes, out of those on load.
int modulesUsed(const dataObject_t& sys, int PMNotOnLoad) {
    const int powered = sys.status.Output_Powered;
    const uint32 WModule = pSysMgr->Cfg.WModule;
    if (sys.switchStatus.Q1 == 0 || WModule == 0) {
        return powered;
    }
    std::int64_t sysPower = 0;  // of the line that has most
    for (int line = LINE1; line < LINES; ++line) {
        sysPower = MAX<std::int64_t>(sysPower, MAX<int32>(sys.Watt[line], sys.Va[line]));
    }
    const std::int64_t lineOfModule = MAX<std::int64_t>(WModule / LINES, 1);
    const std::int64_t needed = (sysPower + lineOfModule - 1) / lineOfModule;
    const int PMUsed = static_cast<int>(MIN<std::int64_t>(pSysMgr->numUPS - PMNotOnLoad, needed));
    return PMUsed == 0 ? powered : PMUsed;
}

}  // namespace

void countModules(Pass& pass) {
    dataObject_t& sys = pass.tempSys.Ups;
    pass.PMNotOnLoad = modulesNotOnLoad(pass);
    if (sys.status.On_Bypass == 0) {
        for (int line = LINE1; line < LINES; ++line) {
            sys.Load[line] = static_cast<uint8>(pass.contributors.Load[line].value());
        }
    }
    pass.PMUsed = modulesUsed(sys, pass.PMNotOnLoad);
    pSysMgr->moduleNotOnLoad = static_cast<uint8>(pass.PMNotOnLoad);
    pSysMgr->moduleUsed = static_cast<uint8>(pass.PMUsed);
}

void judgeRedundancy(Pass& pass, Timers& timers) {
    const int numUPS = pSysMgr->numUPS;
    const int redundantUPS = pSysMgr->Cfg.redundantUPS;
    if (numUPS == 0 || redundantUPS == 0) {
        return;
    }
    sysStatus_t& sysStatus = pass.tempSys.sysStatus;
    const bool hasReserve = redundantUPS > pass.PMNotOnLoad && pass.PMUsed < numUPS - pass.PMNotOnLoad;
    if (isAnomaly(timers.lostRedundancy, !hasReserve, pass.nowT, "Lost Redundancy Detected\n")) {
        sysStatus.LostRedundancy = 1;
        sysStatus.LowRedundancy = 0;
        pass.tempSys.Ups.alarm.Fault = 1;
        return;
    }
    // Only told: LowRedundancy is not the outcome of this timer.
    const bool isFull = pass.PMNotOnLoad == 0 && pass.PMUsed <= numUPS - redundantUPS;
    isAnomaly(timers.lowRedundancy, !isFull, pass.nowT, "Low Redundancy Detected\n");
}

}  // namespace aggr
