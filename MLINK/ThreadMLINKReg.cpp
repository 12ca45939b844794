// Registration of the modules, and what others read and write of a module's data.
#include <cstdlib>
#include <cstring>

#include "CABP/CABPTypes.h"
#include "Common/LogStep.h"
#include "Common/SysMgr.h"
#include "MLINK/MLINKInternal.h"
#include "MLINK/ThreadMLINK.h"
#include "Measure/VirtualUPSMgr.h"

namespace {

/// The polled set, in the order of its registration; the walk goes by the queries' keys.
constexpr uint8 polledQueries[][2] = {{'G', 'I'}, {'G', 'N'}, {'R', 'S'}, {'R', 'E'},
                                      {'R', 'K'}, {'R', 'C'}, {'D', 'S'}, {'D', 'E'}};

constexpr int RX_AGE = 2;  // s; older measures of another cabinet's module are asked for anew

bool isModule(uint8 address) {
    return address >= FIRSTMODULE && address <= LASTMODULE;
}

bool isUnit(uint8 address) {
    return address >= FIRSTMODULE && address <= BYPASSUNIT;
}

pckStruct query(uint8 Src, uint8 Dest, uint8 MainCmd, uint8 SubCmd) {
    pckStruct q;
    q.Src = Src;
    q.Dest = Dest;
    q.MainCmd = MainCmd;
    q.SubCmd = SubCmd;
    return q;
}

#define LOG_NOT_INITIALISED(operation, MCUAdd, UPSAdd) \
    DBG_E_OF(operation, "MODULO NON INIZIALIZZATO!!! MCUAdd:0x%02X UPSAdd:%c\n", MCUAdd, UPSAdd)

// The last cabinets have no slot for every module address.
bool checkIndices(const char* operation, uint8 MCUAdd, uint8 modAdd) {
    if (!isModule(modAdd)) {
        DBG_E_OF(operation, "Indice del modulo non corretto!\n");
        return false;
    }
    if (MCU2id(MCUAdd) >= MAXUPSBOX) {
        DBG_E_OF(operation, "Indice dell'armadio non corretto!\n");
        return false;
    }
    if (slotIndex(MCU2id(MCUAdd), modAdd) < 0) {
        LOG_NOT_INITIALISED(operation, MCUAdd, modAdd);
        return false;
    }
    return true;
}

}  // namespace

namespace mlink {

// The records are made apart and stored whole: other processes read them at any instant, and a lost module's are made
// anew each second.
void InitValueIdentification(identification_t* ptr) {
    identification_t id;
    std::memset(&id, 0, sizeof(id));
    std::memset(id.SN, ' ', 16);
    std::memset(id.Model, ' ', 16);
    std::memset(id.SWVer, ' ', 12);
    std::memset(id.SN_AUX, ' ', 16);
    std::memset(id.SWVer_AUX, ' ', 12);
    id.IO_Cfg = TT;
    id.UPS_Type = OnLine;
    id.Boost_Cfg = DoubleBoost;
    id.Buck_Cfg = DoubleBuck;
    id.Error_CTRL = CRC;
    id.PwrShareCfg = NoPWRSHARE;
    id.BattBenches = TwoBenches;
    id.NBattForBench = 0;
    id.ParallelInfo = ParallelUPS_Slave;
    std::memset(id.tbdGI, 'x', sizeof(id.tbdGI));
    std::memset(id.tbdGE, 'x', sizeof(id.tbdGE));
    id.partialInfo = static_cast<uint8>(~(GIexecuted | GEexecuted));
    std::memcpy(ptr, &id, sizeof(id));
}

void InitValueUPSStatus(descModule_t* ptr) {
    // What this leaves alone, on purpose, is taken over.
    const dataObject_t found = ptr->data;
    dataObject_t data;
    std::memset(&data, 0, sizeof(data));
    data.switchStatus = found.switchStatus;
    data.switchStatus.Bt_present = 1;
    data.switchStatus.Q1 = 0;
    data.switchStatus.LoadOnBypass_Cmd = 0;
    data.switchStatus.BypassDisabled_Cmd = 0;
    data.switchStatus.RemoteCBOff_Cmd = 0;
    data.switchStatus.RemoteEco_Cmd = 0;
    data.PMStatus = found.PMStatus;
    data.PMStatus.wrongPower = 0;
    data.PMStatus.inputDisabled = 0;
    data.PMStatus.bitCmdUnsupported = 1;
    data.Frq_in = 500;
    data.Frq_byp = 500;
    data.Frq_out = 500;
    data.Temp0 = 25;
    data.Temp1 = found.Temp1;
    data.Temp2 = found.Temp2;
    data.Temp3 = found.Temp3;
    data.Temp4 = found.Temp4;
    data.Temp5 = found.Temp5;
    data.Temp6 = found.Temp6;
    data.Cent_kwh = found.Cent_kwh;
    std::memcpy(&ptr->data, &data, sizeof(data));
}

void InitValueUPSData(statusCoding_t* ptr) {
    std::memset(ptr, 0, sizeof(*ptr));
}

void ResetModuleNode(virtualNode_t& node) {
    InitValueIdentification(&node.identification);
    std::memset(&node.nominal, 0, sizeof(node.nominal));
    InitValueUPSStatus(&node.desc.module);
    InitValueUPSData(&node.desc.module.statusDetail);
    uint8* byte = reinterpret_cast<uint8*>(&node.desc) + offsetof(nodeDesc_t, upsBox.Ups.switchStatus);
    *byte = static_cast<uint8>(*byte | 0x08);
}

}  // namespace mlink

ModuleQueriesData_t* MLINKMgr::slotOf(int boxId, int modAdd) {
    const int index = slotIndex(boxId, modAdd);
    return index < 0 ? nullptr : &ModulesData[index / MAXUPSxUPSBOX][index % MAXUPSxUPSBOX];
}

int MLINKMgr::RegisterModule(uint8 MCUAdd, uint8 modAdd) {
    if (!checkIndices(__func__, MCUAdd, modAdd)) {
        return FAIL;
    }
    const myMutexLocker lock(mutexMLinkData);
    const uint8 boxId = MCU2id(MCUAdd);
    char path[32];
    std::snprintf(path, sizeof(path), "S%c.B%c.M%c", boxLetter(CABPAddr), 'A' + boxId, modAdd);
    DBG_P("string ricerca %s\n", path);
    virtualNode_t* node = pSysMgr->pVirtualUPSMgr == nullptr ? nullptr : pSysMgr->pVirtualUPSMgr->searchNode(path);
    DBG_P("string ricerca %s\n", path);

    ModuleQueriesData_t& slot = *slotOf(boxId, modAdd);
    slot.commStatus = commStatus_t{};
    slot.commStatus.active = true;
    slot.pVN = node;
    if (node != nullptr) {
        mlink::ResetModuleNode(*node);
    }
    int ret = SUCC;
    if (MCUAdd == CABPAddr) {
        for (const auto& polled : polledQueries) {
            ret |= RegisterElem(query(MasterAdd, modAdd, polled[0], polled[1]));
        }
    }
    return ret;
}

int MLINKMgr::DeRegisterModule(uint8 MCUAdd, uint8 modAdd) {
    if (!checkIndices(__func__, MCUAdd, modAdd)) {
        return FAIL;
    }
    const myMutexLocker lock(mutexMLinkData);
    int ret = SUCC;
    if (MCUAdd == CABPAddr) {
        // Only this one, which was never registered: the polled set goes with the queues.
        ret = DeRegisterElem(query(MasterAdd, modAdd, 'R', 'X'));
    }
    ModuleQueriesData_t& slot = *slotOf(MCU2id(MCUAdd), modAdd);
    slot.commStatus.active = false;
    slot.pVN = nullptr;
    return ret;
}

commStatus_t* MLINKMgr::statusOf(uint8 Dest) {
    ModuleQueriesData_t* slot = isModule(Dest) ? slotOf(ownIndex(), Dest) : nullptr;
    return slot == nullptr ? nullptr : &slot->commStatus;
}

int MLINKMgr::RegisterElem(const pckStruct& query) {
    if (!isUnit(query.Dest)) {
        DBG_E("Indice della scheda non corretto!\n");
        return FAIL;
    }
    QCMgr element(query, MLINK_BuildQuery, MLINK_GetReplyDataLen(query));
    element.pCommStatus = statusOf(query.Dest);
    DBG_P("Add Query %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    return QueuesMgr::RegisterElem(element);
}

int MLINKMgr::DeRegisterElem(const pckStruct& query) {
    if (!isUnit(query.Dest)) {
        DBG_E("Indice del modulo non corretto!\n");
        return FAIL;
    }
    QCMgr element(query, MLINK_BuildQuery, MLINK_GetReplyDataLen(query));
    DBG_P("Remove Query %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    return QueuesMgr::DeRegisterElem(element);
}

int MLINKMgr::AddAsyncQC(const pckStruct& query, bool verbose) {
    if (!isUnit(query.Dest)) {
        DBG_E("Indirizzo del modulo non corretto: %d!\n", query.Dest);
        return FAIL;
    }
    if (isPresentInAsyncQC(query)) {
        return SUCC;
    }
    QCMgr element(query, MLINK_BuildQuery, MLINK_GetReplyDataLen(query));
    element.pCommStatus = statusOf(query.Dest);
    if (verbose) {
        DBG_P("Add AsyncQuery %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    }
    return QueuesMgr::AddAsyncQC(element);
}

int MLINKMgr::RemoveAsyncQC(const pckStruct& query) {
    if (!isUnit(query.Dest)) {
        DBG_E("Indirizzo del modulo non corretto: %d!\n", query.Dest);
        return FAIL;
    }
    QCMgr element(query, MLINK_BuildQuery, MLINK_GetReplyDataLen(query));
    DBG_P("Remove AsyncQuery %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    return QueuesMgr::RemoveAsyncQC(element);
}

int MLINKMgr::RefreshClockModule(uint8 modAdd) {
    if (!isModule(modAdd)) {
        DBG_E("Indice del modulo non corretto!\n");
        return FAIL;
    }
    const time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    std::snprintf(text, sizeof(text), "%02u%02u%02u%02u%02u%02u", static_cast<unsigned>(local.tm_mday),
                  static_cast<unsigned>(local.tm_mon + 1), static_cast<unsigned>(local.tm_year) % 100u,
                  static_cast<unsigned>(local.tm_hour), static_cast<unsigned>(local.tm_min),
                  static_cast<unsigned>(local.tm_sec));
    pckStruct setClock = query(MasterAdd, modAdd, 'S', 'T');
    setClock.pParam = text;
    setClock.ParamLen = 12;
    int status = FAIL;
    singleQCMgr* exchange = InsertSingleQC(MCU2id(CABPAddr), setClock, 0, nullptr, &status);
    while (!WaitSingleQC(exchange, WAIT_MLINKSQC)) {
    }
    if (status != SUCC) {
        DBG_E("Errore nell'aggiornamento dell'orologio del modulo %c\n", modAdd);
    }
    return status;
}

// Null, with its line, where the slot has no node.
virtualNode_t* MLINKMgr::nodeOf(const char* operation, uint8 MCUAdd, uint8 UPSAdd) {
    ModuleQueriesData_t* slot = slotOf(MCU2id(MCUAdd), UPSAdd);
    if (slot == nullptr || slot->pVN == nullptr) {
        LOG_NOT_INITIALISED(operation, MCUAdd, UPSAdd);
        return nullptr;
    }
    return slot->pVN;
}

// Asks for data that aren't there yet: the own module by its queue, another cabinet's through the bus.
void MLINKMgr::requestData(uint8 MCUAdd, uint8 Add, uint8 MainCmd, uint8 SubCmd) {
    if (MCUAdd == CABPAddr) {
        AddAsyncQC(query(MasterAdd, Add, MainCmd, SubCmd), true);
    } else {
        queueTunnelled(MCU2id(MCUAdd), query(static_cast<uint8>(MCUAdd + 'W'), Add, MainCmd, SubCmd));
    }
}

void MLINKMgr::GetIdentification(uint8 MCUAdd, uint8 Add, identification_t* pId) {
    if (!isModule(Add)) {
        DBG_E("GRAVE ERRORE DI INDIRIZZAMENTO\n");
        if (Add == BYPASSUNIT) {
            std::abort();  // the unit has no slot: an error of the program, not of a peer
        }
        return;
    }
    virtualNode_t* node = nodeOf(__func__, MCUAdd, Add);
    if (node == nullptr) {
        return;
    }
    identification_t* record = &node->identification;
    if (record->timestamp != 0) {
        if (pId != record) {
            const myMutexLocker lock(mutexMLinkData);
            std::memcpy(pId, record, sizeof(*pId));
        }
    } else {
        mlink::InitValueIdentification(pId);
    }
    if (record->timestamp == 0) {
        requestData(MCUAdd, Add, 'G', 'I');
        requestData(MCUAdd, Add, 'G', 'E');
    }
}

void MLINKMgr::GetNominal(uint8 MCUAdd, uint8 Add, nominal_t* pNom) {
    if (!isModule(Add)) {
        DBG_E("GRAVE ERRORE DI INDIRIZZAMENTO\n");
        return;
    }
    virtualNode_t* node = nodeOf(__func__, MCUAdd, Add);
    if (node == nullptr) {
        return;
    }
    nominal_t* record = &node->nominal;
    if (record->timestamp != 0) {
        const myMutexLocker lock(mutexMLinkData);
        std::memcpy(pNom, record, sizeof(*pNom));
    } else {
        std::memset(pNom, 0, sizeof(*pNom));
    }
    if (record->timestamp == 0) {
        requestData(MCUAdd, Add, 'G', 'N');
    }
}

void MLINKMgr::SetUPSStatusDetail(uint8 MCUAdd, uint8 UPSAdd, statusCoding_t* pStatusDetail) {
    virtualNode_t* node = nodeOf(__func__, MCUAdd, UPSAdd);
    if (node == nullptr) {
        return;
    }
    const myMutexLocker lock(mutexMLinkData);
    std::memcpy(&node->desc.module.statusDetail, pStatusDetail, sizeof(*pStatusDetail));
}

void MLINKMgr::GetUPSStatus(uint8 MCUAdd, uint8 UPSAdd, descModule_t* pDataModule) {
    virtualNode_t* node = nodeOf(__func__, MCUAdd, UPSAdd);
    if (node == nullptr) {
        return;
    }
    descModule_t* record = &node->desc.module;
    if (ageOf(std::time(nullptr), record->data.timestamp) <= RXPCKEXPIRE) {
        if (pDataModule != record) {
            const myMutexLocker lock(mutexMLinkData);
            std::memcpy(pDataModule, record, sizeof(*pDataModule));
        }
    } else {
        mlink::InitValueUPSStatus(pDataModule);
    }
    if (ageOf(std::time(nullptr), record->data.timestamp) > RX_AGE && MCUAdd != CABPAddr) {
        requestData(MCUAdd, UPSAdd, 'R', 'X');
    }
}

void MLINKMgr::GetUPSCommStatus(uint8 MCUAdd, uint8 UPSAdd, commStatus_t* pCommStatus) {
    ModuleQueriesData_t* slot = slotOf(MCU2id(MCUAdd), UPSAdd);
    if (slot == nullptr) {
        LOG_NOT_INITIALISED(__func__, MCUAdd, UPSAdd);
        return;
    }
    const myMutexLocker lock(mutexMLinkData);
    std::memcpy(pCommStatus, &slot->commStatus, sizeof(*pCommStatus));
}

void MLINKMgr::clearErrorCnt() {
    const myMutexLocker lock(mutexMLinkData);
    ModuleQueriesData_t* slot = slotOf(ownIndex(), FIRSTMODULE);
    if (slot != nullptr) {
        slot->commStatus.errorCnt = 0;
    }
}
