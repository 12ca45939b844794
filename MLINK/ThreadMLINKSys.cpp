// System commands towards the modules, and the commands to a single one.
#include <cstdlib>
#include <cstring>

#include "CABP/CABP.h"
#include "CABP/ThreadCABP.h"
#include "Common/LogStep.h"
#include "Common/SysMgr.h"
#include "MLINK/ThreadMLINK.h"

namespace {

constexpr int ATTEMPTS = 5;
constexpr unsigned long PAUSE_AFTER_BUSY = 100;  // ms
constexpr int REFUSED_BUSY = -5;                 // the one refusal that is worth another try

void command(pckStruct& query, uint8 MainCmd, uint8 SubCmd, void* param, uint16 length) {
    query.MainCmd = MainCmd;
    query.SubCmd = SubCmd;
    query.pParam = param;
    query.ParamLen = length;
}

/// Addresses a query to the master's module. False without a master.
bool addressMaster(pckStruct& query) {
    uint8 boxId;
    uint8 upsId;
    if (pSysMgr->searchMaster(boxId, upsId) != SUCC) {
        return false;
    }
    query.Src = static_cast<uint8>('A' + boxId);
    query.Dest = static_cast<uint8>('1' + upsId);
    return true;
}

}  // namespace

#define LOG_COMMAND_FAILED(operation, ret, query)                                                              \
    DBG_E_OF(operation, "Errore errno:%d nell'invio del comando %c%c al modulo %c@%c\n", ret, (query).MainCmd, \
             (query).SubCmd, (query).Dest, (query).Src)

int MLINKMgr::sendToMaster(const char* operation, pckStruct& query) {
    if (!addressMaster(query)) {
        return FAIL;
    }
    int ret = FAIL;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (attempt > 0) {
            msleep(PAUSE_AFTER_BUSY);
        }
        ret = Send(query);
        if (ret == SUCC) {
            return SUCC;
        }
        LOG_COMMAND_FAILED(operation, ret, query);
        if (ret != REFUSED_BUSY) {
            DBG_E_OF(operation, "ESCO\n");
            return ret;
        }
    }
    return ret;
}

int MLINKMgr::sysPowerOn() {
    uint8 param[2] = {'0', '0'};
    pckStruct query;
    command(query, 'C', 'P', param, sizeof(param));
    return sendToMaster(__func__, query);
}

int MLINKMgr::sysShutdown(uint16 delay_shut) {
    uint8 param[4] = {'0', '0', '0', '0'};
    MLINK_Dec2DCd(delay_shut, param, 4);
    pckStruct query;
    command(query, 'C', 'S', param, sizeof(param));
    return sendToMaster(__func__, query);
}

int MLINKMgr::sysRestore(uint16 delay_shut, uint16 delay_reboot) {
    uint8 param[8] = {'0', '0', '0', '0', '0', '0', '0', '0'};
    MLINK_Dec2DCd(delay_shut, param, 4);
    MLINK_Dec2DCd(delay_reboot, param + 4, 4);
    pckStruct query;
    command(query, 'C', 'R', param, sizeof(param));
    return sendToMaster(__func__, query);
}

int MLINKMgr::sysDeleteCmd() {
    pckStruct query;
    command(query, 'C', 'D', nullptr, 0);
    return sendToMaster(__func__, query);
}

int MLINKMgr::sysInv_Byp(char cmd) {
    const myMutexLocker sequence(pSysMgr->mutexQCSeq);
    uint8 param = static_cast<uint8>(cmd);
    pckStruct query;
    command(query, 'C', 'B', &param, 1);
    return sendToMaster(__func__, query) == SUCC ? SUCC : FAIL;
}

int MLINKMgr::sysBatteryTest(uint8 (&paramTB)[3]) {
    pckStruct query;
    if (std::memcmp(paramTB, "CLR", sizeof(paramTB)) == 0) {
        command(query, 'T', 'C', nullptr, 0);
    } else {
        command(query, 'T', 'B', paramTB, sizeof(paramTB));
    }
    if (!addressMaster(query)) {
        return FAIL;
    }
    const int ret = Send(query);
    if (ret != SUCC) {
        LOG_COMMAND_FAILED(__func__, ret, query);
    }
    return ret;
}

// Queued and not waited for, so that no thread is held.
int MLINKMgr::sysBatteryCheck() {
    DBG_P("Check batterie\n");
    if (pSysMgr->numUPS == 0) {
        return SUCC;
    }
    uint8 param[3] = {'0', '0', '0'};
    pckStruct query;
    command(query, 'T', 'B', param, sizeof(param));
    if (!addressMaster(query)) {
        return FAIL;
    }
    const uint8 boxId = static_cast<uint8>(query.Src - 'A');
    const int ret = boxId == MCU2id(CABPAddr) ? AddAsyncQC(query, false) : queueTunnelled(boxId, query);
    if (ret != SUCC) {
        LOG_COMMAND_FAILED(__func__, ret, query);
    }
    return ret;
}

int MLINKMgr::queueTunnelled(uint8 boxId, const pckStruct& query) {
    uint8* frame = nullptr;
    pckStruct busQuery;
    busQuery.ParamLen = MLINK_BuildQuery(query, frame);
    if (frame == nullptr) {
        return FAIL;
    }
    busQuery.pParam = frame;
    busQuery.Src = CABPAddr;
    busQuery.Dest = static_cast<uint8>(boxId + FIRSTUPSBOX);
    busQuery.MainCmd = 'Q';
    busQuery.SubCmd = 'T';
    const int ret = pSysMgr->pThCABP->AddAsyncQC(busQuery);
    std::free(frame);
    return ret;
}

int MLINKMgr::sysBypsUnlock() {
    int ret = FAIL;
    for (int id = 0; id < MAXUPSBOX; ++id) {
        if (!pSysMgr->Cfg.Ups[id].present) {
            continue;
        }
        pckStruct query;
        command(query, 'C', 'U', nullptr, 0);
        query.Src = static_cast<uint8>('A' + id);
        query.Dest = BYPASSUNIT;
        ret = Send(query);
        if (ret != SUCC) {
            DBG_E("Comando UNLOCK non inviato al Bypass dell'armadio %c!\n", query.Src);
        }
    }
    return ret;
}

int MLINKMgr::sendModuleSwitch(char boxCh, char modCh, uint8 onOff) {
    pckStruct query;
    command(query, 'D', 'C', &onOff, 1);
    query.Src = static_cast<uint8>(boxCh);
    query.Dest = static_cast<uint8>(modCh);
    return Send(query);
}

void MLINKMgr::moduleOn(char boxCh, char modCh) {
    if (sendModuleSwitch(boxCh, modCh, '1') != SUCC) {
        DBG_E("Comando accensione non accodato!\n");
    }
}

void MLINKMgr::moduleOff(char boxCh, char modCh) {
    if (sendModuleSwitch(boxCh, modCh, '0') != SUCC) {
        DBG_E("Comando spegnimento non accodato!\n");
    }
}

void MLINKMgr::prepareCM02(pckStruct& pck, char boxCh, char modCh, uint8 (&param)[2]) {
    command(pck, 'C', 'M', param, sizeof(param));
    pck.Src = static_cast<uint8>(boxCh);
    pck.Dest = static_cast<uint8>(modCh);
}

int MLINKMgr::sendCM02(char boxCh, char modCh, uint8 (&param)[2]) {
    pckStruct query;
    prepareCM02(query, boxCh, modCh, param);
    const int ret = Send(query);
    if (ret != SUCC) {
        DBG_E("Comando CM02%c%c non accodato!\n", param[0], param[1]);
    }
    return ret;
}

void MLINKMgr::enSa_Active(char boxCh, char modCh) {
    uint8 param[2] = {0x3C, 0x31};
    sendCM02(boxCh, modCh, param);
}

void MLINKMgr::enSa_InverterOn(char boxCh, char modCh) {
    uint8 param[2] = {0x3C, 0x30};
    sendCM02(boxCh, modCh, param);
}
