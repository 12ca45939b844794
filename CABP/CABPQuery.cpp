// The asking side: what is known of each command's reply in advance, and one exchange on the wire.
#define TRACELEVEL_WARNING
#include <unistd.h>

#include "CABP/CABPInternal.h"
#include "CABP/CABPTunnel.h"
#include "Common/CommandTable.h"
#include "DevMgr/ComDev.h"

namespace {

// Pauses around the own reply to an own query: the other nodes tell the two frames apart by them.
constexpr useconds_t PAUSEBEFOREOWNREPLY_US = 3000;
constexpr useconds_t PAUSEAFTEROWNREPLY_US = 5000;

constexpr int GISKCFGOFFSET = CABP_DATAOFFSET + 46;  // type of the board in a GI frame, high byte first
constexpr uint16 NOBOARDTYPE = 255;

struct LengthRow {
    uint8 main;
    uint8 sub;
    uint16 replyDataLen;  // 1 is an acknowledge; 0 is no reply, or an empty one
};
constexpr LengthRow lengthTable[] = {
    {'B', 'N', BNDATALEN},  {'B', 'S', BSDATALEN},  {'B', 'I', BIDATALEN},
    {'C', 'N', 0},          {'C', 'H', 1},          {'C', 'U', 1},
    {'G', 'I', REPLYGILEN}, {'G', 'S', REPLYGSLEN}, {'G', 'E', REPLYEXTERRLEN},
    {'O', 'R', 0},          {'O', 'S', 0},          {'S', 'C', 1},
    {'S', 'I', 1},          {'T', 'B', 1},          {'U', 'C', 1},
};

// Empties the input and sends the query. False if no try succeeded.
bool sendQuery(const QCMgr& q) {
    ComDev_FlushQueue(CABP_ch);
    return q.pckQuery != nullptr &&
           CABP_Send(q.pckQuery, static_cast<uint16>(q.QC.ParamLen + CABP_HEAD_QUEUE_LEN)) == SUCC;
}

// Reads the reply. True if it belongs to the query, whatever its length.
bool receiveReply(const QCMgr& q) {
    uint16 len = q.expectedReplyLen;
    return q.pckReply != nullptr && CABP_RcvReply(q.pckReply, &len, q.QC) == SUCC &&
           CABP_Decode(q.pckQuery, q.pckReply, len) == SUCC;
}

int realDatalen(const QCMgr& q) {
    return CABP_Get16(q.pckReply + CABP_LENGTHOFFSET);
}

}  // namespace

uint16 CABP_GetReplyDataLen(const pckStruct& qcs) {
    if (CABP_IsTunnel(qcs)) {
        return CABP_GetTunnelReplyDataLen(qcs);
    }
    if (const LengthRow* const row = findCommand(lengthTable, qcs)) {
        return row->replyDataLen;
    }
    if (CABP_IsMainCmd(qcs.MainCmd)) {
        DBG_E("SubCmd %c non supportato per il MainCmd %c\n", qcs.SubCmd, qcs.MainCmd);
    } else {
        DBG_E("MainCmd %c non supportato\n", qcs.MainCmd);
    }
    return 0;
}

int CABP_ManageQuery(const QCMgr& q) {
    if (sendQuery(q)) {
        if (q.QC.Dest == CABPAddr) {
            usleep(PAUSEBEFOREOWNREPLY_US);
            CABP_ManageReply(q.QC);
            usleep(PAUSEAFTEROWNREPLY_US);
            return NORET;
        }
        if (q.QC.Dest == BROADCAST || (q.QC.MainCmd == 'C' && q.QC.SubCmd == 'N')) {
            return NORET;
        }
        CABP_UpdateLastMaster(CABPAddr);  // who asks and expects an answer is the master
        if (receiveReply(q)) {
            if (realDatalen(q) == q.expectedReplyLen - CABP_HEAD_QUEUE_LEN) {
                return SUCC;
            }
            DBG_E("RealDatalen:%d expectedReplyLen:%d\n", realDatalen(q), q.expectedReplyLen);
        }
    }
    DBG_E("FALLITO Comando %c%c inviato alla scheda 0x%02X\n", q.QC.MainCmd, q.QC.SubCmd, q.QC.Dest);
    pckStruct inner;
    if (CABP_IsTunnel(q.QC) && CABP_ExtractTunnelled(q.QC, inner)) {
        DBG_E("Pacchetto incapsulato %c%c da '%c' per '%c'\n", inner.MainCmd, inner.SubCmd, inner.Src, inner.Dest);
    }
    return FAIL;
}

int CABP_GetUnitBoardType(uint8 Dest, uint16& type) {
    type = NOBOARDTYPE;
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = Dest;
    query.MainCmd = 'G';
    query.SubCmd = 'I';
    const QCMgr q(query, CABP_BuildQuery, CABP_GetReplyDataLen(query));
    if (!sendQuery(q) || !receiveReply(q) || q.expectedReplyLen != realDatalen(q) + CABP_HEAD_QUEUE_LEN) {
        return FAIL;
    }
    type = CABP_Get16(q.pckReply + GISKCFGOFFSET);
    dumphex("verifica GI", q.expectedReplyLen, q.pckReply);
    return SUCC;
}
