// What travels through the bus for a module of another cabinet: a frame of the module link as the data of a QT frame.
#include "CABP/CABPTunnel.h"

#include <cstdlib>
#include <cstring>

#include "CABP/CABP.h"
#include "CABP/CABPInternal.h"
#include "Common/LogStep.h"
#include "MLINK/MLINK.h"

namespace {

constexpr int STAMPLEN = 4;          // bytes of the time stamp ahead of a tunnelled reply
constexpr int TUNNELDATAMAX = 0xFF;  // the length of the data is kept in 8 bits

// Whether the data reach as far as the frame of the module link in them claims to.
bool isWhole(const pckStruct& carrier, const pckStruct& inner) {
    return inner.ParamLen <= MLINK_MAXDATALEN && inner.ParamLen + MLINK_HEAD_QUEUE_LEN <= carrier.ParamLen;
}

}  // namespace

bool CABP_ExtractTunnelled(const pckStruct& qcs, pckStruct& inner) {
    inner = pckStruct();
    if (qcs.pParam == nullptr || qcs.ParamLen < MLINK_HEAD_QUEUE_LEN) {
        return false;
    }
    MLINK_ExtractQuery(inner, static_cast<uint8*>(qcs.pParam));
    return true;
}

uint16 CABP_GetTunnelReplyDataLen(const pckStruct& qcs) {
    pckStruct inner;
    uint16 length = 0;
    if (CABP_ExtractTunnelled(qcs, inner)) {
        length = MLINK_GetReplyDataLen(inner);
    } else {
        DBG_E_OF("CABP_GetReplyDataLen", "Pacchetto incapsulato non valido: Len:%d\n", qcs.ParamLen);
    }
    return static_cast<uint16>(length + STAMPLEN + MLINK_HEAD_QUEUE_LEN);
}

int CABP_QTReply(const pckStruct& qcs) {
    pckStruct inner;
    if (!CABP_ExtractTunnelled(qcs, inner) || !isWhole(qcs, inner)) {
        DBG_E("Pacchetto incapsulato non valido: Len:%d interno:%d\n", qcs.ParamLen, inner.ParamLen);
        return FAIL;
    }
    uint8* reply = nullptr;
    uint8 length = 0;
    time_t timestamp = 0;
    if (MLINK_BuildReply(inner, reply, length, timestamp) == 0 || reply == nullptr) {
        std::free(reply);
        return FAIL;
    }
    uint8* data = static_cast<uint8*>(std::malloc(static_cast<size_t>(length) + STAMPLEN));
    if (data == nullptr) {
        DBG_E("malloc fallita!!\n");
        std::free(reply);
        return FAIL;
    }
    const time32_t stamp = static_cast<time32_t>(timestamp);
    std::memcpy(data, &stamp, STAMPLEN);
    std::memcpy(data + STAMPLEN, reply, length);
    std::free(reply);
    length = static_cast<uint8>(length + STAMPLEN);  // wraps, and then the frame is cut short
    uint8 frame[TUNNELDATAMAX + CABP_HEAD_QUEUE_LEN];
    const uint16 size = CABP_PutFrame(frame, BROADCAST, 'Q', 'T', data, length);
    std::free(data);
    return CABP_Send(frame, size);
}

void CABP_QTGetData(time_t /*timestamp*/, const pckStruct& reply) {
    time32_t stamp = 0;
    pckStruct carried = reply;
    carried.ParamLen = 0;
    if (reply.ParamLen >= STAMPLEN) {
        std::memcpy(&stamp, reply.pParam, STAMPLEN);
        if (stamp == 0) {
            return;  // the answering card had no valid data
        }
        carried.pParam = static_cast<uint8*>(reply.pParam) + STAMPLEN;
        carried.ParamLen = static_cast<uint16>(reply.ParamLen - STAMPLEN);
    }
    pckStruct inner;
    if (!CABP_ExtractTunnelled(carried, inner) || !isWhole(carried, inner)) {
        DBG_E("Pacchetto incapsulato non valido: Len:%d interno:%d\n", reply.ParamLen, inner.ParamLen);
        return;
    }
    MLINK_ManageData(static_cast<uint8>(inner.Dest - 'A'), stamp, static_cast<uint8*>(carried.pParam));
}
