// What becomes of received data: a table of the commands and the places their data go to, and the values these places
// start with.
#include <cstdlib>
#include <cstring>

#include "CABP/CABPInternal.h"
#include "CABP/CABPTunnel.h"
#include "CABP/ThreadCABP.h"
#include "Common/CommandTable.h"
#include "Common/SysMgr.h"

namespace {

constexpr int BSNODELEN = static_cast<int>(sizeof(descUpsBox_t));  // bytes of a BS reply that go to the node
static_assert(sizeof(nominal_t) == BNDATALEN);
static_assert(sizeof(identification_t) == BIDATALEN);
static_assert(BSNODELEN + 1 == BSDATALEN);

// Offsets in the data of a GI reply.
constexpr int GI_SERIALNUMBER = 0;
constexpr int GI_UPSCONFIG = 16;
constexpr int GI_FWVERSION = 32;
constexpr int GI_ADDRESS = 44;
constexpr int GI_SKCFG = 46;
constexpr int GI_CFG = 48;  // eight words

// A reply that is too short would store its own tail, or nothing at all, over good data.
bool isLongEnough(const pckStruct& reply, int length) {
    if (reply.ParamLen >= length) {
        return true;
    }
    DBG_E("%c%c da 0x%02X troppo corto: attesi:%d effettivi:%d\n", reply.MainCmd, reply.SubCmd, reply.Src, length,
          reply.ParamLen);
    return false;
}

// Node of the cabinet that sent `reply`, or null.
virtualNode_t* nodeOfSender(const pckStruct& reply) {
    const int id = boxIndex(reply.Src);
    virtualNode_t* const node = id < 0 ? nullptr : pSysMgr->pThCABP->upsBox[id].pVN;
    if (node == nullptr) {
        DBG_E("%c%c da 0x%02X: nessun armadio per questi dati\n", reply.MainCmd, reply.SubCmd, reply.Src);
    }
    return node;
}

uint16 wordHighFirst(const uint8* bytes) {
    return static_cast<uint16>(bytes[0] << 8 | bytes[1]);
}

// A text of the wire, which isn't terminated, into a field that has room for its NUL.
template <std::size_t N>
void copyText(char (&field)[N], const uint8* text) {
    std::memcpy(field, text, N - 1);
    field[N - 1] = '\0';
}

void CABP_BNGetData(time_t /*timestamp*/, const pckStruct& reply) {
    virtualNode_t* const node = nodeOfSender(reply);
    if (node != nullptr && isLongEnough(reply, BNDATALEN)) {
        std::memcpy(&node->nominal, reply.pParam, BNDATALEN);
    }
}

void CABP_BIGetData(time_t /*timestamp*/, const pckStruct& reply) {
    virtualNode_t* const node = nodeOfSender(reply);
    if (node != nullptr && isLongEnough(reply, BIDATALEN)) {
        std::memcpy(&node->identification, reply.pParam, BIDATALEN);
    }
}

// The state of a cabinet is as old as its reception: the sender's clock may differ.
void CABP_BSGetData(time_t timestamp, const pckStruct& reply) {
    virtualNode_t* const node = nodeOfSender(reply);
    if (node == nullptr || !isLongEnough(reply, BSDATALEN)) {
        return;
    }
    descUpsBox_t& box = node->desc.upsBox;
    std::memcpy(&box, reply.pParam, BSNODELEN);
    box.timestamp = static_cast<time32_t>(timestamp);
    box.Ups.timestamp = static_cast<time32_t>(timestamp);
    pSysMgr->pThCABP->upsBox[boxIndex(reply.Src)].extendedBoardBox.idu =
        static_cast<const uint8*>(reply.pParam)[BSNODELEN];
}

// Identification of an SK board; its words come high byte first.
void CABP_GIGetData(time_t timestamp, const pckStruct& reply) {
    if (reply.Src < FIRSTSKBOX) {
        DBG_E("GI da 0x%02X, scheda impossibile: arresto immediato!!\n", reply.Src);
        std::abort();
    }
    const int id = reply.Src - FIRSTSKBOX;
    if (id >= MAXUPSBOX) {
        DBG_E("GI da 0x%02X: nessun armadio per questi dati\n", reply.Src);
        return;
    }
    if (!isLongEnough(reply, REPLYGILEN)) {
        return;
    }
    const uint8* const data = static_cast<const uint8*>(reply.pParam);
    upsBoxQueriesData_t& box = pSysMgr->pThCABP->upsBox[id];
    information_t& inf = box.extendedBoardBox.inf;

    inf.timestamp = timestamp;
    copyText(inf.ro.SerialNumber, data + GI_SERIALNUMBER);
    copyText(inf.ro.UpsConfig, data + GI_UPSCONFIG);
    copyText(inf.ro.FWVersion, data + GI_FWVERSION);
    inf.ro.Address = wordHighFirst(data + GI_ADDRESS);
    inf.ro.SkCfg = wordHighFirst(data + GI_SKCFG);
    uint16* const cfg[] = {&inf.rw.cfg1, &inf.rw.cfg2, &inf.rw.cfg3, &inf.rw.cfg4,
                           &inf.rw.cfg5, &inf.rw.cfg6, &inf.rw.cfg7, &inf.rw.cfg8};
    const uint8* word = data + GI_CFG;
    for (uint16* const each : cfg) {
        *each = wordHighFirst(word);
        word += sizeof(uint16);
    }

    if (box.pVN == nullptr) {
        DBG_W("VirtualNode non inizializzato!\n");
        return;
    }
    identification_t& identification = box.pVN->identification;
    static_assert(sizeof(identification.SN_AUX) == sizeof(inf.ro.SerialNumber));
    static_assert(sizeof(identification.SWVer_AUX) == sizeof(inf.ro.FWVersion));
    std::memcpy(identification.SN_AUX, inf.ro.SerialNumber, sizeof(identification.SN_AUX));
    std::memcpy(identification.SWVer_AUX, inf.ro.FWVersion, sizeof(identification.SWVer_AUX));
}

void acknowledge(time_t timestamp, const pckStruct& reply) {
    CABP_ACKControl(reply, timestamp);
}

void nothing(time_t /*timestamp*/, const pckStruct& /*reply*/) {}

struct DataRow {
    uint8 main;
    uint8 sub;
    void (*store)(time_t timestamp, const pckStruct& reply);
};

// Replies that aren't listed are refused, GS and GE among them.
constexpr DataRow dataTable[] = {
    {'B', 'N', CABP_BNGetData}, {'B', 'S', CABP_BSGetData}, {'B', 'I', CABP_BIGetData}, {'C', 'H', acknowledge},
    {'C', 'U', acknowledge},    {'G', 'I', CABP_GIGetData}, {'O', 'R', nothing},        {'O', 'S', nothing},
    {'Q', 'T', CABP_QTGetData}, {'S', 'C', acknowledge},    {'S', 'I', acknowledge},    {'T', 'B', acknowledge},
    {'U', 'C', acknowledge},
};

}  // namespace

void CABP_ManageData(time_t timestamp, uint8* pckReply) {
    pckStruct reply;
    CABP_ExtractQuery(reply, pckReply);
    if (reply.MainCmd == cabp::NCK) {
        DBG_W("Ricevuto NAK, codice %c\n", reply.SubCmd);
    } else if (const DataRow* const row = findCommand(dataTable, reply)) {
        row->store(timestamp, reply);
    } else if (CABP_IsMainCmd(reply.MainCmd)) {
        DBG_E("SubCmd %c non supportato per il MainCmd %c\n", reply.SubCmd, reply.MainCmd);
    } else {
        DBG_E("MainCmd %c non supportato\n", reply.MainCmd);
        dumphex("pckReply", reply.ParamLen + CABP_HEAD_QUEUE_LEN, pckReply);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Start values

void InitSysStatus(descSys_t& sys) {
    std::memset(&sys, 0, sizeof(sys));
    pSysMgr->moduleNotOnLoad = pSysMgr->numUPS;
    pSysMgr->moduleUsed = 0;
    InitUpsBox_UpsStatus(sys.Ups);
    sys.Ups.status.SWOUT = 1;
    sys.externalSwitchStatus.EPO = 1;
    sys.externalSwitchStatus.SWBATT_EXT = pSysMgr->Cfg.externBattCapacity == 0 ? 1 : 0;
}

void InitUpsBox_UpsStatus(dataObject_t& ups) {
    std::memset(&ups, 0, sizeof(ups));
    ups.extStatus.UPS_OK = 1;
    ups.PMStatus.bitCmdUnsupported = 1;
}

void InitUpsBoxSubSystem(upsSubSystem_t& subSys, const upsBoxCfg_t& upsBoxCfg) {
    setElemAlarm(subSys.UPSShelter[0], upsBoxCfg.modulePresent[0] ? commLostAlarm : noneAlarm);
}

namespace {

// Blanks up to the last place, and the NUL there.
template <std::size_t N>
void blankText(char (&field)[N]) {
    std::memset(field, ' ', N - 1);
    field[N - 1] = '\0';
}

}  // namespace

void cabp::InitValueIdentification(identification_t* ptr) {
    constexpr uint8 NOTHING_EXECUTED = static_cast<uint8>(~(GIexecuted | GEexecuted));
    ptr->timestamp = 0;
    blankText(ptr->SN);
    blankText(ptr->Model);
    blankText(ptr->SWVer);
    ptr->IO_Cfg = TT;
    ptr->UPS_Type = LineInt_StepWave;
    ptr->Boost_Cfg = DoubleBoost;
    ptr->Buck_Cfg = DoubleBuck;
    ptr->Error_CTRL = CRC;
    ptr->PwrShareCfg = NoPWRSHARE;
    ptr->BattBenches = TwoBenches;
    ptr->NBattForBench = '0';
    ptr->ParallelInfo = ParallelUPS_Slave;
    std::memset(ptr->tbdGI, 'x', sizeof(ptr->tbdGI));
    blankText(ptr->SN_AUX);
    blankText(ptr->SWVer_AUX);
    std::memset(ptr->tbdGE, 'x', sizeof(ptr->tbdGE));
    ptr->partialInfo = NOTHING_EXECUTED;
}
