// The cabinets of the plant: their addresses, their registration with the queues and the tree, and guarded copies of
// their data for the rest of the program.
#include <cstdio>
#include <cstring>

#include "CABP/ThreadCABP.h"
#include "Common/SysMgr.h"
#include "Measure/VirtualUPSMgr.h"

namespace {

constexpr uint8 MU_END = 0x0E;  // SK boards are below
constexpr uint8 BAD_ID = 255;
constexpr int REGISTERED_SHELTERS = MAXBATTxCOMBOBOX;  // the record has room for more, which stay as found
constexpr std::int64_t SYS_EXPIRE_S = RCPCKEXPIRE;     // age at which the root's data no longer count

pckStruct queryTo(uint8 Dest, uint8 MainCmd, uint8 SubCmd) {
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = Dest;
    query.MainCmd = MainCmd;
    query.SubCmd = SubCmd;
    return query;
}

// The node of the cabinet at `Add`, or null.
virtualNode_t* nodeOf(uint8 Add) {
    if (pSysMgr->pVirtualUPSMgr == nullptr) {
        return nullptr;
    }
    char path[sizeof("S%c.B%c")];
    std::snprintf(path, sizeof(path), "S%c.B%c", boxLetter(CABPAddr), boxLetter(Add));
    return pSysMgr->pVirtualUPSMgr->searchNode(path);
}

// What a cabinet's node holds until the first replies.
void initNode(virtualNode_t& node, const upsBoxCfg_t& cfg) {
    std::memset(&node.nominal, 0, sizeof(node.nominal));
    cabp::InitValueIdentification(&node.identification);
    descUpsBox_t& box = node.desc.upsBox;
    InitUpsBox_UpsStatus(box.Ups);
    box.Ups.status.SWOUT = 1;
    box.Ups.status.SWMB = 0;
    for (int i = 0; i < REGISTERED_SHELTERS; ++i) {
        dataBattery_t& shelter = box.Batteries.shelter[i];
        std::memset(&shelter, 0, sizeof(shelter));
        shelter.statusStrPos.notPresent = 1;
        shelter.statusStrNeg.notPresent = 1;
    }
    box.Batteries.barsPosV = 0;
    box.Batteries.barsNegV = 0;
    box.Batteries.timestamp = 0;
    box.timestamp = 0;
    box.boxStatus.byte = 0;
    box.externalSwitchStatus.byte = 0;
    box.mcuStatus.byte = 0;
    box.MCUMUStatus.byte = 0;
    InitUpsBoxSubSystem(box.subSystem, cfg);
}

void setUnreachable(commStatus_t& commStatus) {
    commStatus.active = false;
    commStatus.isGood = false;
}

// MCU of a cabinet's letter; for any other character an address that no MCU has.
uint8 addressOfLetter(uint8 boxCh) {
    return static_cast<uint8>(boxCh - 'W');
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------
// Addresses

bool CABPMgr::isMCU_NODE(uint8 Addr) {
    return boxIndex(Addr) >= 0;
}

bool CABPMgr::isMU_NODE(uint8 Addr) {
    return Addr < MU_END;
}

bool CABPMgr::AddrGood(uint8 Addr) {
    if (isMCU_NODE(Addr) || isMU_NODE(Addr)) {
        return true;
    }
    DBG_E("Addr 0x%02X non valido!\n", Addr);
    return false;
}

uint8 CABPMgr::add2id(uint8 Add) {
    if (isMU_NODE(Add)) {
        return Add >= FIRSTSKBOX ? static_cast<uint8>(Add - FIRSTSKBOX) : Add;
    }
    if (isMCU_NODE(Add)) {
        return MCU2id(Add);
    }
    DBG_E("Indirizzo 0x%02X senza armadio!\n", Add);
    return BAD_ID;
}

int CABPMgr::isBoardPresent(uint8 key) {
    return AddrGood(key) && isMCU_NODE(key) && upsBox[boxIndex(key)].MCUcommStatus.active ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Registration

void CABPMgr::InitSysData(VirtualUPSMgr& data, PlantCfg& plant) {
    sys = data.virtualUPS;
    if (data.virtualUPS == nullptr) {
        DBG_E("ERRORE, si inizializza il sistema senza riferimento al virtualUPS!!\n");
        return;
    }
    descSys_t& root = data.virtualUPS->desc.sys;
    InitSysStatus(root);
    for (int id = 0; id < MAXUPSBOX; ++id) {
        setElemAlarm(root.subSystem.UPSBox[id], plant.Ups[id].present ? commLostAlarm : noneAlarm);
    }
}

// The caller holds mutexCABPData.
int CABPMgr::RegisterNode(uint8 Add) {
    if (!AddrGood(Add)) {
        DBG_E("Indice della sheda armadio non corretto!\n");
        return FAIL;
    }
    const int id = boxIndex(Add);
    if (id < 0) {
        DBG_E("grave errore di indirizzamento!!\n");
        return FAIL;
    }
    upsBoxQueriesData_t& box = upsBox[id];
    if (box.MCUcommStatus.active) {
        DBG_W("Elemento gia' attivo!\n");
        return FAIL;
    }
    box.pVN = nodeOf(Add);
    if (box.pVN != nullptr) {
        box.MCUcommStatus = commStatus_t();
        box.MCUcommStatus.active = true;
        box.MCUcommStatus.isGood = true;
        initNode(*box.pVN, pSysMgr->Cfg.Ups[id]);
    } else {
        DBG_E("ERRORE, si inizializza un armadio UPS senza riferimento al virtualNode!!\n");
    }
    const int status = RegisterElem(queryTo(Add, 'B', 'S'));
    const int nominal = RegisterElem(queryTo(Add, 'B', 'N'));
    return status | nominal;
}

// The query for the nominal data stays registered; the caller wipes the queues afterwards, and holds mutexCABPData.
int CABPMgr::DeRegisterNode(uint8 Add) {
    if (!AddrGood(Add)) {
        DBG_E("Indice della sheda armadio non corretto!\n");
        return FAIL;
    }
    const int id = boxIndex(Add);
    if (id < 0) {
        DBG_E("grave errore di indirizzamento!!\n");
        return FAIL;
    }
    upsBoxQueriesData_t& box = upsBox[id];
    if (!box.MCUcommStatus.active) {
        DBG_W("Elemento mai attivato!\n");
        return FAIL;
    }
    const int ret = DeRegisterElem(queryTo(Add, 'B', 'S'));
    box.MCUcommStatus.active = false;
    box.pVN = nullptr;
    return ret;
}

void CABPMgr::RegisterBoxNode(PlantCfg& Cfg) {
    const myMutexLocker locker(mutexCABPData);
    for (int id = 0; id < MAXUPSBOX; ++id) {
        if (Cfg.Ups[id].present) {
            RegisterNode(static_cast<uint8>(FIRSTUPSBOX + id));
        } else {
            setUnreachable(upsBox[id].MCUcommStatus);
        }
        upsBox[id].remoteUpdaterequest = false;
    }
}

void CABPMgr::DeRegisterBoxNode(PlantCfg& Cfg) {
    const myMutexLocker locker(mutexCABPData);
    for (int id = 0; id < MAXUPSBOX; ++id) {
        if (Cfg.Ups[id].present) {
            DeRegisterNode(static_cast<uint8>(FIRSTUPSBOX + id));
            // Refused and told: an SK board is no node of the tree.
            DeRegisterNode(static_cast<uint8>(FIRSTSKBOX + id));
        } else {
            setUnreachable(upsBox[id].MCUcommStatus);
        }
    }
    sys = nullptr;  // the tree goes next
}

// ---------------------------------------------------------------------------------------------------------------
// Queries

namespace {

// Only the MCUs' errors are counted: null for an SK board and for all nodes.
commStatus_t* commStatusOf(upsBoxQueriesData_t (&upsBox)[MAXUPSBOX], uint8 Dest) {
    const int id = boxIndex(Dest);
    return id < 0 ? nullptr : &upsBox[id].MCUcommStatus;
}

}  // namespace

int CABPMgr::RegisterElem(const pckStruct& query) {
    if (query.Dest < BROADCAST && !AddrGood(query.Dest)) {
        DBG_E("Indice della scheda non corretto!\n");
        return FAIL;
    }
    QCMgr elem(query, CABP_BuildQuery, CABP_GetReplyDataLen(query));
    elem.pCommStatus = commStatusOf(upsBox, query.Dest);
    DBG_P("Add Query %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    return QueuesMgr::RegisterElem(elem);
}

int CABPMgr::DeRegisterElem(const pckStruct& query) {
    if (query.Dest < BROADCAST && !AddrGood(query.Dest)) {
        DBG_E("Indice della scheda non corretto!\n");
        return FAIL;
    }
    QCMgr elem(query, CABP_BuildQuery, CABP_GetReplyDataLen(query));
    DBG_P("Remove Query %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    return QueuesMgr::DeRegisterElem(elem);
}

int CABPMgr::AddAsyncQC(const pckStruct& query) {
    if (query.Dest < BROADCAST && !AddrGood(query.Dest)) {
        DBG_E("Indice della scheda non corretto!\n");
        return FAIL;
    }
    if (isPresentInAsyncQC(query)) {
        return SUCC;
    }
    DBG_P("Add AsyncQuery %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    QCMgr elem(query, CABP_BuildQuery, CABP_GetReplyDataLen(query));
    elem.pCommStatus = commStatusOf(upsBox, query.Dest);
    return QueuesMgr::AddAsyncQC(elem);
}

int CABPMgr::RemoveAsyncQC(const pckStruct& query) {
    if (query.Dest < BROADCAST && !AddrGood(query.Dest)) {
        DBG_E("Indice della scheda non corretto!\n");
        return FAIL;
    }
    QCMgr elem(query, CABP_BuildQuery, CABP_GetReplyDataLen(query));
    DBG_P("Remove AsyncQuery %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    return QueuesMgr::RemoveAsyncQC(elem);
}

bool CABPMgr::AsyncQCisEmpty() {
    const int num = sizeAsyncQC();
    DBG_P("num:%d\n", num);
    return num == 0;
}

int CABPMgr::AsyncQCSize() {
    return sizeAsyncQC();
}

void CABPMgr::wipeQueues() {
    QueuesMgr::wipeQueues();
}

// ---------------------------------------------------------------------------------------------------------------
// Guarded copies

void CABPMgr::GetIdentification(uint8 boxCh, identification_t* pId) {
    const uint8 Add = addressOfLetter(boxCh);
    myMutexLocker locker(mutexCABPData);
    virtualNode_t* const node = isMCU_NODE(Add) ? upsBox[boxIndex(Add)].pVN : nullptr;
    if (node == nullptr) {
        DBG_E("GRAVE ERRORE DI INDIRIZZAMENTO\n");
        return;
    }
    identification_t& identification = node->identification;
    const information_t& inf = upsBox[boxIndex(Add)].extendedBoardBox.inf;
    if (identification.timestamp != 0) {
        *pId = identification;
    } else if (inf.timestamp != 0) {
        cabp::InitValueIdentification(pId);
        std::memcpy(identification.SN_AUX, inf.ro.SerialNumber, sizeof(identification.SN_AUX));
        std::memcpy(identification.SWVer_AUX, inf.ro.FWVersion, sizeof(identification.SWVer_AUX));
    }
    const bool missing = identification.timestamp == 0;
    locker.unlock();
    if (missing) {
        AddAsyncQC(queryTo(Add, 'B', 'I'));
    }
}

void CABPMgr::GetNominal(uint8 boxCh, nominal_t* pNom) {
    const uint8 Add = addressOfLetter(boxCh);
    myMutexLocker locker(mutexCABPData);
    const virtualNode_t* const node = isMCU_NODE(Add) ? upsBox[boxIndex(Add)].pVN : nullptr;
    if (node == nullptr) {
        DBG_E("GRAVE ERRORE DI INDIRIZZAMENTO\n");
        return;
    }
    const bool missing = node->nominal.timestamp == 0;
    if (missing) {
        std::memset(pNom, 0, sizeof(*pNom));
    } else {
        *pNom = node->nominal;
    }
    locker.unlock();
    if (missing) {
        AddAsyncQC(queryTo(Add, 'B', 'N'));
    }
}

void CABPMgr::GetSysStatus(descSys_t& dataSys) {
    // Looked at under the lock: the tree may go while this waits for it.
    const myMutexLocker locker(mutexCABPData);
    const virtualNode_t* const root = sys;
    if (root == nullptr) {
        DBG_E("SISTEMA NON INIZIALIZZATO!!\n");
        InitSysStatus(dataSys);
        return;
    }
    const time32_t now = NOW();
    const descSys_t& status = root->desc.sys;
    if (ageOf(now, status.Ups.timestamp) > SYS_EXPIRE_S && ageOf(now, status.Batteries.timestamp) > SYS_EXPIRE_S) {
        InitSysStatus(dataSys);
    } else {
        dataSys = status;
    }
}

time_t CABPMgr::getLastErrorCntResetTime() {
    return errorCntTimeCleread;
}

void CABPMgr::clearErrorCnt() {
    const myMutexLocker locker(mutexCABPData);
    for (upsBoxQueriesData_t& box : upsBox) {
        box.MCUcommStatus.errorCnt = 0;
    }
    errorCntTimeCleread = std::time(nullptr);
}
