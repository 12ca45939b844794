// Answering for the own module towards other cabinets: out of the records, or by handing the command to the module's
// queue and acknowledging at once.
#include <cstdlib>
#include <cstring>

#include "CABP/CABPTypes.h"
#include "Common/CommandTable.h"
#include "Common/SysMgr.h"
#include "MLINK/MLINK.h"
#include "MLINK/MLINKInternal.h"
#include "MLINK/ThreadMLINK.h"

using namespace mlink;

namespace {

using Builder = uint8 (*)(pckStruct& qcs, uint8*& reply, time_t& timestamp);

// A reply frame for `n` data bytes with everything but data and check; null if there is no memory.
uint8* newReply(const pckStruct& qcs, uint8 n) {
    uint8* reply = static_cast<uint8*>(std::calloc(1, static_cast<size_t>(n) + MLINK_HEAD_QUEUE_LEN));
    if (reply != nullptr) {
        reply[0] = STX;
        MLINK_SetAddrs(reply, qcs.Dest, qcs.Src);
        MLINK_SetCmds(reply, qcs.MainCmd, qcs.SubCmd);
        MLINK_SetLen(reply, n);
        reply[MLINK_DATAOFFSET + n + 4] = ETX;
    }
    return reply;
}

uint8 frameLength(uint8 n) {
    return static_cast<uint8>(n + MLINK_HEAD_QUEUE_LEN);
}

// Four of the builders differ only in the number of their zeros.
uint8 finishZeros(uint8* reply, uint8 n) {
    std::memset(reply + MLINK_DATAOFFSET, '0', n);
    MLINK_SetCRC(reply, n);
    return frameLength(n);
}

uint8 queueAndAcknowledge(pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    pSysMgr->pThMLink->AddAsyncQC(qcs, true);
    return MLINK_ACKBuildReply(qcs, reply, timestamp);
}

uint8 MLINK_DCBuildReply(pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    pSysMgr->pThMLink->AddAsyncQC(qcs, true);
    timestamp = std::time(nullptr);
    const uint8 n = qcs.Dest == BYPASSUNIT && qcs.ParamLen == 1 ? 4 : 0;
    reply = newReply(qcs, n);
    if (reply == nullptr) {
        DBG_E("malloc fallita!!\n");
        return 0;
    }
    return finishZeros(reply, n);
}

uint8 MLINK_SVBuildReply(pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    pSysMgr->pThMLink->AddAsyncQC(qcs, true);
    timestamp = std::time(nullptr);
    reply = newReply(qcs, SVDATALENGTH);
    if (reply == nullptr) {
        DBG_E("malloc fallita!!\n");
        return 0;
    }
    return finishZeros(reply, SVDATALENGTH);
}

uint8 MLINK_GEBuildReply(pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    static constexpr int nibbles[] = {7, 8, 10, 11};
    identification_t id;
    std::memset(&id, 0, sizeof(id));
    pSysMgr->pThMLink->GetIdentification(CABPAddr, qcs.Dest, &id);
    timestamp = id.timestamp;
    reply = newReply(qcs, GEDATALENGTH);
    if (reply == nullptr) {
        DBG_E("malloc fallita!!\n");
        return 0;
    }
    uint8* data = reply + MLINK_DATAOFFSET;
    std::memcpy(data, id.SWVer_AUX, 12);
    // The record keeps letters where the wire has nibble characters.
    for (const int i : nibbles) {
        if (data[i] > '9') {
            data[i] = static_cast<uint8>(data[i] - 7);
        }
    }
    std::memcpy(data + 12, id.tbdGE, sizeof(id.tbdGE));
    MLINK_SetCRC(reply, GEDATALENGTH);
    return frameLength(GEDATALENGTH);
}

uint8 MLINK_GIBuildReply(pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    identification_t id;
    std::memset(&id, 0, sizeof(id));
    pSysMgr->pThMLink->GetIdentification(CABPAddr, qcs.Dest, &id);
    timestamp = id.timestamp;
    reply = newReply(qcs, GIDATALENGTH);
    if (reply == nullptr) {
        DBG_E("malloc fallita!!\n");
        return 0;
    }
    uint8* data = reply + MLINK_DATAOFFSET;
    std::memcpy(data, id.SN, 16);
    std::memcpy(data + 16, id.Model, 16);
    std::memcpy(data + 32, id.SWVer, 12);
    const uint8 configuration[] = {id.IO_Cfg,      id.UPS_Type,    id.Boost_Cfg,     id.Buck_Cfg,    id.Error_CTRL,
                                   id.PwrShareCfg, id.BattBenches, id.NBattForBench, id.ParallelInfo};
    std::memcpy(data + 44, configuration, sizeof(configuration));
    std::memcpy(data + 53, id.tbdGI, sizeof(id.tbdGI));
    MLINK_SetCHKSUM(reply, GIDATALENGTH);
    return frameLength(GIDATALENGTH);
}

uint8 MLINK_GNBuildReply(pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    nominal_t nominal;
    std::memset(&nominal, 0, sizeof(nominal));
    pSysMgr->pThMLink->GetNominal(CABPAddr, qcs.Dest, &nominal);
    timestamp = nominal.timestamp;
    reply = newReply(qcs, GNDATALENGTH);
    if (reply == nullptr) {
        DBG_E("malloc fallita!!\n");
        return 0;
    }
    uint8* data = reply + MLINK_DATAOFFSET;
    MLINK_Dec2DCd(nominal.VA, data, 5);
    MLINK_Dec2DCd(nominal.W, data + 5, 5);
    MLINK_Dec2DCd(nominal.BatteryV, data + 10, 3);
    MLINK_Dec2DCd(nominal.BatteryAh, data + 13, 3);
    MLINK_Dec2DCd(nominal.Vout, data + 16, 3);
    MLINK_Dec2DCd(nominal.FreqOut, data + 19, 3);
    MLINK_SetCRC(reply, GNDATALENGTH);
    return frameLength(GNDATALENGTH);
}

// The only tunnelled query for which the bus waits until the module has answered.
uint8 MLINK_GMBuildReply(pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    uint8 buffer[GMDATALENGTH] = {0, 0, 0, 0};
    int status = FAIL;
    MLINKMgr* link = pSysMgr->pThMLink;
    MLINKMgr::singleQCMgr* exchange = link->InsertSingleQC(MCU2id(CABPAddr), qcs, GMDATALENGTH, buffer, &status);
    while (!link->WaitSingleQC(exchange, WAIT_MLINKSQC)) {
    }
    timestamp = std::time(nullptr);
    reply = newReply(qcs, GMDATALENGTH);
    if (reply == nullptr) {
        DBG_E("malloc fallita!!\n");
        return 0;
    }
    MLINK_SetData(reply, buffer, GMDATALENGTH);  // whatever the status
    MLINK_SetCRC(reply, GMDATALENGTH);
    return frameLength(GMDATALENGTH);
}

uint8 buildNothing(pckStruct& /*qcs*/, uint8*& /*reply*/, time_t& /*timestamp*/) {
    return 0;
}

struct Command {
    uint8 main;
    uint8 sub;
    Builder build;
};
constexpr Command commands[] = {
    {'C', 'B', queueAndAcknowledge}, {'C', 'D', queueAndAcknowledge}, {'C', 'F', queueAndAcknowledge},
    {'C', 'M', queueAndAcknowledge}, {'C', 'P', queueAndAcknowledge}, {'C', 'R', queueAndAcknowledge},
    {'C', 'S', queueAndAcknowledge}, {'C', 'U', queueAndAcknowledge}, {'D', 'C', MLINK_DCBuildReply},
    {'G', 'E', MLINK_GEBuildReply},  {'G', 'I', MLINK_GIBuildReply},  {'G', 'M', MLINK_GMBuildReply},
    {'G', 'N', MLINK_GNBuildReply},  {'R', 'C', buildNothing},        {'S', 'V', MLINK_SVBuildReply},
    {'T', 'B', queueAndAcknowledge}, {'T', 'C', queueAndAcknowledge},
};

}  // namespace

int MLINK_BuildReply(pckStruct& qcs, uint8*& reply, uint8& replyLen, time_t& timestamp) {
    reply = nullptr;
    replyLen = 0;
    timestamp = 0;
    if (const Command* const command = findCommand(commands, qcs)) {
        replyLen = command->build(qcs, reply, timestamp);
    } else if (hasMainCmd(commands, qcs.MainCmd)) {
        DBG_E("SubCmd %c non supportato per il MainCmd %c\n", qcs.SubCmd, qcs.MainCmd);
    } else {
        DBG_E("MainCmd %c non supportato\n", qcs.MainCmd);
    }
    if (replyLen == 0) {
        DBG_E("FALLITA costruzione risposta %c%c\n", qcs.MainCmd, qcs.SubCmd);
    }
    return replyLen;
}
