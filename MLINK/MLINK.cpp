// Frames of the module link, and the channel they travel on.
#include "MLINK/MLINK.h"

#include <cstdlib>
#include <cstring>

#include "Common/crc.h"
#include "DevMgr/ComDev.h"
#include "MLINK/MLINKInternal.h"

using namespace mlink;

std::atomic<uint8> MLINK_ch{255};
std::atomic<uint8> errnoMLink{0};

void MLINK_Init() {
    if (MLINK_ch <= 254) {
        return;
    }
    MLINK_ch = ComDev_Init(serialPort, deviceBaudRate, false);
    if (MLINK_ch > 254) {
        DBG_E("Errore inizializzazione!\n");
    }
}

int MLINK_End() {
    const uint8 ch = MLINK_ch.exchange(255);
    if (ch < 255) {
        DBG_P("Chiude il canale di comunicazione\n");
        ComDev_End(ch);
    }
    return SUCC;
}

void MLINK_Dec2DCd(uint32 data, uint8* str, uint8 strLen) {
    switch (strLen) {
        case 2:
        case 3:
        case 4:
        case 5:
        case 8:
            for (int i = strLen - 1; i >= 0; --i) {
                str[i] = static_cast<uint8>(0x30 + (data & 0x0F));
                data >>= 4;
            }
            break;
        default:
            DBG_E("Valore non contemplato\n");
            break;
    }
}

uint32 MLINK_DCd2Dec(const uint8* str, int n) {
    uint32 value = 0;
    for (int i = 0; i < n; ++i) {
        value = value * 16 + (static_cast<uint32>(str[i]) - 0x30u);
    }
    return value;
}

void MLINK_SetAddrs(uint8* frame, uint8 Src, uint8 Dest) {
    frame[MLINK_SOURCEOFFSET] = Src;
    frame[MLINK_DESTOFFSET] = Dest;
}

void MLINK_SetCmds(uint8* frame, uint8 MainCmd, uint8 SubCmd) {
    frame[MLINK_MAINCMDOFFSET] = MainCmd;
    frame[MLINK_SUBCMDOFFSET] = SubCmd;
}

void MLINK_SetLen(uint8* frame, uint32 n) {
    MLINK_Dec2DCd(n & 0xFF, frame + MLINK_LENGTHOFFSET, 2);
}

void MLINK_SetData(uint8* frame, const void* data, uint32 n) {
    if (n > 0) {
        std::memcpy(frame + MLINK_DATAOFFSET, data, n);
    }
}

uint16 MLINK_CalcCRC(const uint8* frame, uint32 n) {
    return crcCalc(frame + MLINK_SOURCEOFFSET, static_cast<int>((n + 6) & 0xFF));
}

uint16 MLINK_CalcCHKSUM(const uint8* frame, uint32 n) {
    const uint32 count = (n + 6) & 0xFF;
    uint32 sum = 0;
    for (uint32 i = 0; i < count; ++i) {
        sum += frame[MLINK_SOURCEOFFSET + i];
    }
    return static_cast<uint16>(sum);
}

void MLINK_SetCRC(uint8* frame, uint32 n) {
    MLINK_Dec2DCd(MLINK_CalcCRC(frame, n), frame + MLINK_DATAOFFSET + n, 4);
}

void MLINK_SetCHKSUM(uint8* frame, uint32 n) {
    MLINK_Dec2DCd(MLINK_CalcCHKSUM(frame, n), frame + MLINK_DATAOFFSET + n, 4);
}

uint32 MLINK_GetLen(const uint8* frame) {
    return MLINK_DCd2Dec(frame + MLINK_LENGTHOFFSET, 2);
}

uint16 MLINK_BuildQuery(const pckStruct& qcs, uint8*& query) {
    const uint32 n = qcs.ParamLen;
    // The full sum, although the wire keeps lengths in 8 bits: whoever copies the frame must copy all of it.
    const size_t size = static_cast<size_t>(n) + MLINK_HEAD_QUEUE_LEN;
    query = static_cast<uint8*>(std::calloc(1, size));
    if (query == nullptr) {
        return 0;
    }
    query[0] = STX;
    MLINK_SetAddrs(query, qcs.Src, qcs.Dest);
    MLINK_SetCmds(query, qcs.MainCmd, qcs.SubCmd);
    MLINK_SetLen(query, n);
    if (n > 0) {
        if (qcs.pParam == nullptr) {
            DBG_E("Puntaore non inizializzato!\n");
        } else {
            MLINK_SetData(query, qcs.pParam, n);
        }
    }
    if (MLINK_IsAdditive(qcs.MainCmd, qcs.SubCmd)) {
        MLINK_SetCHKSUM(query, n);
    } else {
        MLINK_SetCRC(query, n);
    }
    query[size - 1] = ETX;
    return static_cast<uint16>(size);
}

void MLINK_ExtractQuery(pckStruct& query, uint8* pck) {
    query.Src = pck[MLINK_SOURCEOFFSET];
    query.Dest = pck[MLINK_DESTOFFSET];
    query.MainCmd = pck[MLINK_MAINCMDOFFSET];
    query.SubCmd = pck[MLINK_SUBCMDOFFSET];
    query.ParamLen = static_cast<uint8>(MLINK_GetLen(pck));
    query.pParam = pck + MLINK_DATAOFFSET;
}

uint8 MLINK_ACKBuildReply(const pckStruct& qcs, uint8*& reply, time_t& timestamp) {
    timestamp = std::time(nullptr);
    reply = static_cast<uint8*>(std::malloc(MLINK_HEAD_QUEUE_LEN));
    if (reply == nullptr) {
        DBG_E("malloc fallita!!\n");
        return 0;
    }
    reply[0] = STX;
    MLINK_SetAddrs(reply, qcs.Dest, qcs.Src);
    MLINK_SetCmds(reply, qcs.MainCmd, qcs.SubCmd);
    MLINK_SetLen(reply, 0);
    MLINK_SetCRC(reply, 0);
    reply[MLINK_HEAD_QUEUE_LEN - 1] = ETX;
    return MLINK_HEAD_QUEUE_LEN;
}

void MLINK_ACKVerify(uint8 boxId, time_t /*timestamp*/, const pckStruct& reply) {
    DBG_P("ACK from box%c, comando %c%c scr:%c dest:%c\n", 'A' + boxId, reply.MainCmd, reply.SubCmd, reply.Src,
          reply.Dest);
}
