// A pass of the system aggregation: the cabinets' records become the system's, which is published in the root of the
// tree and in the status file.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "CABP/AggregateInternal.h"
#include "CABP/StatusFile.h"
#include "CABP/ThreadCABP.h"
#include "Common/LogStep.h"
#include "Common/SysMgr.h"
#include "Measure/VirtualUPSMgr.h"

namespace {

using aggr::Pass;

constexpr std::int64_t PASS_INTERVAL_NS = 201'000'000;
constexpr int EXPIRE_S = RCPCKEXPIRE;       // age of data that no longer count
constexpr int LONG_EXPIRE_S = BSPCKEXPIRE;  // the same where errors are counted beside

constexpr char OWN_MODULE = '1';
constexpr uint16 BATTERY_V = 240;
constexpr uint16 WORD28_60HZ = 0x0010;
constexpr uint16 FREQ_60HZ = 600;  // tenths of Hz
constexpr uint16 FREQ_50HZ = 500;
constexpr uint16 WORD7_VOUT = 0x00FF;

std::int64_t nsBetween(const struct timespec& from, const struct timespec& to) {
    return (static_cast<std::int64_t>(to.tv_sec) - from.tv_sec) * 1'000'000'000 + (to.tv_nsec - from.tv_nsec);
}

// ---------------------------------------------------------------------------------------------------------------
// Before the scans

void seed(Pass& pass) {
    descSys_t& sys = pass.tempSys;
    InitSysStatus(sys);
    sys.subSystem = pass.liveSys.subSystem;
    sys.MCUMUStatus.numBypassOff = pass.liveSys.MCUMUStatus.numBypassOff;
    // Start values of a minimum.
    sys.Ups.VbatRS = 0xFFFF;
    sys.Ups.Vbatp = 0xFFFF;
    sys.Ups.Vbatn = 0xFFFF;
    sys.Ups.Aut_time = 0xFFFF;
    sys.Ups.Carica_adj = 0xFF;
    sys.Ups.PMStatus.bitCmdUnsupported = 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Who the system is

// Node of the module in the own cabinet, or null: the cabinet need not belong to the plant.
const virtualNode_t* ownModule() {
    if (ownIndex() < 0 || pSysMgr->pVirtualUPSMgr == nullptr) {
        return nullptr;
    }
    const char own = boxLetter(CABPAddr);
    char path[sizeof("S%c.B%c.M%c")];
    std::snprintf(path, sizeof(path), "S%c.B%c.M%c", own, own, OWN_MODULE);
    return pSysMgr->pVirtualUPSMgr->searchNode(path);
}

template <std::size_t N>
void blankText(char (&text)[N]) {
    std::memset(text, ' ', N - 1);
    text[N - 1] = '\0';
}

// `module` may be null.
void identify(identification_t& system, const virtualNode_t* module, time32_t now) {
    system = identification_t();
    system.timestamp = now;
    if (module != nullptr) {
        std::memcpy(system.SN, module->identification.SN, sizeof(system.SN));
        std::memcpy(system.Model, module->identification.Model, sizeof(system.Model));
        std::memcpy(system.SWVer, module->identification.SWVer, sizeof(system.SWVer));
        system.IO_Cfg = module->identification.IO_Cfg;
        system.UPS_Type = module->identification.UPS_Type;
    } else {
        blankText(system.SN);
        blankText(system.Model);
        blankText(system.SWVer);
        system.IO_Cfg = static_cast<IO_Cfg_e>('0');
        system.UPS_Type = static_cast<UPS_Type_e>('0');
    }
    system.Boost_Cfg = Boost;
    system.Buck_Cfg = Buck;
    system.Error_CTRL = CRC;
    system.PwrShareCfg = NoPWRSHARE;
    system.BattBenches = TwoBenches;
    system.NBattForBench = '0';
    system.ParallelInfo = Single;
    std::memset(system.tbdGI, '0', sizeof(system.tbdGI));
    blankText(system.SN_AUX);
    blankText(system.SWVer_AUX);
    std::memset(system.tbdGE, '0', sizeof(system.tbdGE));
}

void rate(nominal_t& system, const virtualNode_t* module, const Pass& pass) {
    system.timestamp = pass.nowT;
    system.VA = pass.VA;
    system.W = pass.W;
    system.BatteryV = BATTERY_V;
    system.BatteryAh = module != nullptr ? module->nominal.BatteryAh : static_cast<uint16>(0);
    system.Vout = pSysMgr->Cfg.word7 & WORD7_VOUT;
    system.FreqOut = (pSysMgr->Cfg.word28 & WORD28_60HZ) != 0 ? FREQ_60HZ : FREQ_50HZ;
}

// ---------------------------------------------------------------------------------------------------------------
// After the scans

// The system's data are fresh as long as those of one cabinet are.
time32_t freshness(const Pass& pass) {
    for (const upsBoxQueriesData_t& box : pass.upsBox) {
        const virtualNode_t* const node = aggr::nodeOf(box);
        if (node != nullptr && box.MCUcommStatus.isGood &&
            ageOf(pass.nowT, node->desc.upsBox.Ups.timestamp) < EXPIRE_S) {
            return pass.nowT;
        }
    }
    return 0;
}

void settleBoxes(Pass& pass) {
    descSys_t& sys = pass.tempSys;
    sys.Batteries.barsPosV = static_cast<int16>(pass.switches.barsPosV.value());
    sys.Batteries.barsNegV = static_cast<int16>(pass.switches.barsNegV.value());
    sys.sysStatus.ServiceUPS = 0;
    sys.sysStatus.ServiceBattery = 0;
    sys.boxStatus.Fault |= sys.Ups.alarm.Fault;
    sys.Ups.timestamp = freshness(pass);
}

bool isLost(const virtualNode_t& root, const upsBoxQueriesData_t& box, int id) {
    return elemAlarm(root.desc.sys.subSystem.UPSBox[id]) == commLostAlarm ||
           (box.pVN != nullptr && elemAlarm(box.pVN->desc.upsBox.subSystem.UPSShelter[0]) == commLostAlarm);
}

// State of a cabinet by its alarms; the first match wins.
struct ItemRow {
    uint8 alarm;      // bits of alarm
    uint8 boxStatus;  // bits of boxStatus
    alarmStatus_t state;
};
constexpr ItemRow itemTable[] = {
    {0x08, 0x00, lockAlarm},     // Lock
    {0x04, 0x04, faultAlarm},    // Fault
    {0x02, 0x40, anomalyAlarm},  // Anomaly
    {0x01, 0x80, warningAlarm},  // Warning
};

alarmStatus_t itemState(const upsBoxQueriesData_t& box) {
    const virtualNode_t* const node = aggr::nodeOf(box);
    if (node == nullptr) {
        return noneAlarm;
    }
    if (!box.MCUcommStatus.isGood) {
        return commLostAlarm;
    }
    const descUpsBox_t& record = node->desc.upsBox;
    for (const ItemRow& row : itemTable) {
        if ((record.Ups.alarm.byte & row.alarm) != 0 || (record.boxStatus.byte & row.boxStatus) != 0) {
            return row.state;
        }
    }
    return noneAlarm;
}

}  // namespace

void CABPMgr::AggregateBox() {
    virtualNode_t* const root = sys;
    if (root == nullptr) {
        return;
    }
    const time32_t nowT = NOW();
    struct timespec clock;
    clock_gettime(CLOCK_MONOTONIC, &clock);
    if (nsBetween(lastTime, clock) < PASS_INTERVAL_NS) {
        return;
    }
    lastTime = clock;
    static aggr::Timers timers(nowT);

    const std::lock_guard<myMutex> locker(*mutexCABPData);  // allocates nothing, unlike myMutexLocker
    Pass pass(upsBox, root->desc.sys, nowT);
    seed(pass);
    const int own = ownIndex();
    if (own >= 0 && upsBox[own].pVN != nullptr) {
        root->identification = upsBox[own].pVN->identification;
    }

    scanContributors(pass);
    aggr::agreeOnStates(pass, timers);
    aggr::finishValues(pass);
    scanSwitches(pass);
    aggr::agreeOnSwitches(pass);
    settleBoxes(pass);
    aggr::countModules(pass);
    aggr::judgeRedundancy(pass, timers);

    publish(pass, *root);
    updateItems(nowT);
    writeStatusFile(nowT, pass.tempSys, *root);
    if (state == Master) {
        runSystemPanel(*root, pass.tempSys);
    }
}

// Cabinets that are reachable and have sent data make up the system's measures and states.
void CABPMgr::scanContributors(Pass& pass) {
    for (upsBoxQueriesData_t& box : upsBox) {
        virtualNode_t* const node = aggr::nodeOf(box);
        if (node == nullptr) {
            continue;
        }
        boxMCUMUStatus_t& MCUMUStatus = node->desc.upsBox.MCUMUStatus;
        if (!box.MCUcommStatus.isGood) {
            MCUMUStatus.commErrorMCU = 1;
            MCUMUStatus.AnomalyMCU = 1;
            pass.tempSys.MCUMUStatus.commErrorMCU = 1;
            pass.tempSys.MCUMUStatus.AnomalyMCU = 1;
            continue;
        }
        MCUMUStatus.commErrorMCU = 0;
        if (node->desc.upsBox.Ups.timestamp == 0) {
            pass.tempSys.Ups.alarm.Anomaly = 1;
            pass.tempSys.Ups.PMStatus.commError = 1;
            continue;
        }
        aggr::addContributor(pass, *node);
    }
}

// Cabinets that are reachable, with or without data, make up the system's switches; one whose board has lost its
// configuration doesn't, until it has it.
void CABPMgr::scanSwitches(Pass& pass) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        upsBoxQueriesData_t& box = upsBox[id];
        virtualNode_t* const node = aggr::nodeOf(box);
        if (node == nullptr) {
            continue;
        }
        descUpsBox_t& record = node->desc.upsBox;
        if (!box.MCUcommStatus.isGood) {
            record.MCUMUStatus.commErrorMCU = 1;
            record.boxStatus.Anomaly = 1;
            pass.tempSys.boxStatus.Anomaly = 1;
            pass.tempSys.MCUMUStatus.commErrorMCU = 1;
        } else if (box.extendedBoardBox.Status.Config_Update) {
            answerConfigUpdate(id);
        } else {
            record.MCUMUStatus.commErrorMU = 0;
            aggr::addSwitches(pass, record);
        }
    }
}

// A board asks for its parameters: the master queues them.
void CABPMgr::answerConfigUpdate(int id) {
    DBG_P_OF(aggr::OPERATION, "Ho ricevuto la richiesta di configurazione da MU_%c\n", 'A' + id);
    if (state != Master) {
        return;
    }
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = static_cast<uint8>(FIRSTSKBOX + id);
    query.MainCmd = 'S';
    query.SubCmd = 'I';
    uint8 param[SIPARAMLEN];
    setParamSI(param, query.Dest);
    query.pParam = param;  // copied into the queue
    query.ParamLen = sizeof(param);
    AddAsyncQC(query);
}

void CABPMgr::publish(Pass& pass, virtualNode_t& root) {
    const upsAlarm_t alarm = pass.tempSys.Ups.alarm;
    if (alarm.Warning != 0 || alarm.Anomaly != 0 || alarm.Fault != 0 || alarm.Lock != 0) {
        pass.tempSys.Ups.extStatus.UPS_OK = 0;
    }
    const virtualNode_t* const module = ownModule();
    identification_t identification;
    identify(identification, module, pass.nowT);
    root.desc.sys = pass.tempSys;
    root.identification = identification;
    rate(root.nominal, module, pass);
}

void CABPMgr::writeStatusFile(time32_t now, const descSys_t& tempSys, const virtualNode_t& root) {
    statusDocument_t doc = {now, tempSys, root, {}};
    for (int id = 0; id < MAXUPSBOX; ++id) {
        doc.moduleLost[id] = isLost(root, upsBox[id], id);
    }
    switch (StatusFile_Write(jsonPath, jsonPathTMP, doc)) {
        case StatusFileResult::Written:
            break;
        case StatusFileResult::NotOpened:
            DBG_E_OF(aggr::OPERATION, "fopen() ugw.tmp %d %s\n", errno, std::strerror(errno));
            QThread::exit(1);  // this thread runs no event loop: without effect
            break;
        case StatusFileResult::NotWritten:
            DBG_E_OF(aggr::OPERATION, "fclose() ugw.tmp %d %s\n", errno, std::strerror(errno));
            break;
        case StatusFileResult::NotRenamed:
            DBG_E_OF(aggr::OPERATION, "rename() %d %s\n", errno, std::strerror(errno));
            QThread::exit(-1);
            break;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// States of the elements

void CABPMgr::updateItems() {
    updateItems(NOW());
}

void CABPMgr::checkUpsBoxSubSystem(uint8 boxCh) {
    checkUpsBoxSubSystem(boxCh, NOW());
}

void CABPMgr::checkSysSubSystem() {
    checkSysSubSystem(NOW());
}

void CABPMgr::updateItems(time32_t now) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        if (aggr::nodeOf(upsBox[id]) != nullptr) {
            checkUpsBoxSubSystem(static_cast<uint8>('A' + id), now);
        }
    }
    checkSysSubSystem(now);
    virtualNode_t* const root = sys;
    if (root == nullptr) {
        return;
    }
    for (int id = 0; id < MAXUPSBOX; ++id) {
        setElemAlarm(root->desc.sys.subSystem.UPSBox[id], itemState(upsBox[id]));
    }
}

// Old battery data would reset the state of a cabinet's shelters but for the first, which is the only one.
void CABPMgr::checkUpsBoxSubSystem(uint8 boxCh, time32_t now) {
    const int id = boxCh - 'A';
    if (id < 0 || id >= MAXUPSBOX || upsBox[id].pVN == nullptr) {
        DBG_E("Armadio '%c' senza nodo!\n", boxCh);
        return;
    }
    descUpsBox_t& record = upsBox[id].pVN->desc.upsBox;
    const std::int64_t age = ageOf(now, record.Ups.timestamp);
    if ((upsBox[id].MCUcommStatus.errorPck == 0 && age > EXPIRE_S) || age > LONG_EXPIRE_S) {
        InitUpsBoxSubSystem(record.subSystem, pSysMgr->Cfg.Ups[id]);
    }
}

void CABPMgr::checkSysSubSystem(time32_t now) {
    virtualNode_t* const root = sys;
    if (root == nullptr) {
        DBG_E("SISTEMA NON INIZIALIZZATO!!\n");
        return;
    }
    descSys_t& record = root->desc.sys;
    if (ageOf(now, record.Ups.timestamp) > EXPIRE_S) {
        for (int id = 0; id < MAXUPSBOX; ++id) {
            setElemAlarm(record.subSystem.UPSBox[id], pSysMgr->Cfg.Ups[id].present ? commLostAlarm : noneAlarm);
        }
    }
}
