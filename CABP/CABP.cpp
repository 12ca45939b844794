// The protocol's state, its frames, and the check of a reply against its query.
#define TRACELEVEL_WARNING
#include "CABP/CABP.h"

#include <cstdlib>
#include <cstring>

#include "CABP/CABPInternal.h"
#include "Common/crc.h"
#include "DevMgr/ComDev.h"

std::atomic<uint8> CABP_ch{0xFF};
std::atomic<uint8> LastMaster{GROUPMASTER};
std::atomic<uint8> errnoCABP{0};
volatile std::sig_atomic_t cntBreakDetect = 0;

namespace {

constexpr int SENDTRIES = 4;
constexpr uint8 NAK_BUSY = '5';

// What another node says by a NAK frame.
struct NakRow {
    uint8 code;  // SubCmd of the frame
    uint8 errorCode;
    const char* message;
    int shown;  // offset in the query of what the message shows
};
constexpr NakRow nakTable[] = {
    {'1', MAINCMDFAIL, "MainCmd:%c non riconosciuto\n", CABP_MAINCMDOFFSET},
    {'2', SUBCMDFAIL, "SubCmd:%c non riconosciuto\n", CABP_SUBCMDOFFSET},
    {'3', DATALENFAIL, "DataLength non corretta\n", 0},
    {'4', ERRCODEFAIL, "CRC o CHKSUM non corretti\n", 0},
    {NAK_BUSY, BUSYFAIL, "Non e' possibile eseguire il comando in questo momento!\n", 0},
    {'6', SECURITYPINFAIL, "Security PIN non corretto\n", 0},
};
constexpr NakRow unknownNak = {0, GENFAIL, "Errore generico\n", 0};

const NakRow& findNak(uint8 code) {
    for (const NakRow& row : nakTable) {
        if (row.code == code) {
            return row;
        }
    }
    return unknownNak;
}

int reject(uint8 errorCode) {
    errnoCABP = errorCode;
    return FAIL;
}

// A reply to all nodes is judged by its sender alone.
bool areAddressesGood(const uint8* Query, const uint8* Reply) {
    const bool isFromAsked = Reply[CABP_SOURCEOFFSET] == Query[CABP_DESTOFFSET];
    const bool isToAsker = Reply[CABP_DESTOFFSET] == Query[CABP_SOURCEOFFSET];
    return isFromAsked && (isToAsker || Reply[CABP_DESTOFFSET] == BROADCAST);
}

}  // namespace

void CABP_SetCRC(uint8* where, const uint8* bytes, int n) {
    CABP_Put16(where, crcCalc(bytes, n));
}

uint16 CABP_CalcCRC(const uint8* bytes, int n) {
    return crcCalc(bytes, n);
}

uint16 CABP_PutFrame(uint8* frame, uint8 Dest, uint8 MainCmd, uint8 SubCmd, const void* data, uint16 n) {
    frame[0] = cabp::STX;
    frame[CABP_SOURCEOFFSET] = CABPAddr;
    frame[CABP_DESTOFFSET] = Dest;
    frame[CABP_MAINCMDOFFSET] = MainCmd;
    frame[CABP_SUBCMDOFFSET] = SubCmd;
    CABP_Put16(frame + CABP_LENGTHOFFSET, n);
    if (n != 0 && data != nullptr) {
        std::memcpy(frame + CABP_DATAOFFSET, data, n);
    }
    uint8* const tail = frame + CABP_DATAOFFSET + n;
    CABP_SetCtrl(tail, frame + CABP_SOURCEOFFSET, n + CABP_DATAOFFSET - CABP_SOURCEOFFSET);
    tail[2] = cabp::ETX;
    return static_cast<uint16>(n + CABP_HEAD_QUEUE_LEN);
}

int CABP_Send(const uint8* frame, uint16 len) {
    for (int i = 0; i < SENDTRIES; ++i) {
        if (ComDev_Send(CABP_ch, frame, len) == SUCC) {
            return SUCC;
        }
    }
    return FAIL;
}

uint16 CABP_BuildQuery(const pckStruct& qcs, uint8*& query) {
    // Zeros, so that a query whose parameters are missing doesn't put foreign memory on the bus.
    query = static_cast<uint8*>(std::calloc(static_cast<std::size_t>(qcs.ParamLen) + CABP_HEAD_QUEUE_LEN, 1));
    if (query == nullptr) {
        // No failure of its own: a query object without a frame is never sent.
        return static_cast<uint16>(qcs.ParamLen + CABP_HEAD_QUEUE_LEN);
    }
    if (qcs.ParamLen != 0 && qcs.pParam == nullptr) {
        DBG_E("Puntatore non inizializzato!\n");
    }
    return CABP_PutFrame(query, qcs.Dest, qcs.MainCmd, qcs.SubCmd, qcs.pParam, qcs.ParamLen);
}

void CABP_DestroyQuery(uint8*& query) {
    std::free(query);
}

void CABP_ExtractQuery(pckStruct& query, uint8* pck) {
    query.Src = pck[CABP_SOURCEOFFSET];
    query.Dest = pck[CABP_DESTOFFSET];
    query.MainCmd = pck[CABP_MAINCMDOFFSET];
    query.SubCmd = pck[CABP_SUBCMDOFFSET];
    query.ParamLen = CABP_Get16(pck + CABP_LENGTHOFFSET);
    query.pParam = pck + CABP_DATAOFFSET;
}

int CABP_Decode(const uint8* Query, const uint8* Reply, uint16 pckLen) {
    errnoCABP = 0;
    if (Reply[0] != cabp::STX) {
        DBG_W("Errore intestazione\n");
        return reject(STXFAIL);
    }
    if (!areAddressesGood(Query, Reply)) {
        DBG_W("Errore Indirizzi Query Src:0x%02X Dest:0x%02X     Reply Src:0x%02X Dest:0x%02X \n",
              Query[CABP_SOURCEOFFSET], Query[CABP_DESTOFFSET], Reply[CABP_SOURCEOFFSET], Reply[CABP_DESTOFFSET]);
        return reject(ADDRSFAIL);
    }
    if (Reply[CABP_MAINCMDOFFSET] != Query[CABP_MAINCMDOFFSET] ||
        Reply[CABP_SUBCMDOFFSET] != Query[CABP_SUBCMDOFFSET]) {
        if (Reply[CABP_MAINCMDOFFSET] != cabp::NCK) {
            DBG_E("Errore Comando, Main e Sub non coincidono\n");
            return reject(CMDSFAIL);
        }
        const NakRow& nak = findNak(Reply[CABP_SUBCMDOFFSET]);
        DBG_E(nak.message, Query[nak.shown]);
        return reject(nak.errorCode);
    }
    // In int: a size below that of an empty frame equals no length.
    const int DataLength = CABP_Get16(Reply + CABP_LENGTHOFFSET);
    if (DataLength != pckLen - CABP_HEAD_QUEUE_LEN) {
        return reject(DATALENFAIL);
    }
    const uint16 CtrlCalculated = CABP_CalcCtrl(Reply + CABP_SOURCEOFFSET, pckLen - 4);
    const uint16 CtrlReceived = CABP_Get16(Reply + CABP_DATAOFFSET + DataLength);
    if (CtrlCalculated != CtrlReceived) {
        DBG_W("Errore Codice di Controllo\n");
        DBG_W("Calcolato:0x%04X Ricevuto:0x%04X\n", CtrlCalculated, CtrlReceived);
        DBG_W("datalen:%d\n", DataLength);
        dumphex("replypck:", pckLen, Reply);
        DBG_W("FINE STAMPE Errore Codice di Controllo\n");
        return reject(CRCRCVFAIL);
    }
    return SUCC;
}

int CABP_ACKReply(uint8 Src, uint8 MainCmd, uint8 SubCmd) {
    uint8 frame[CABP_HEAD_QUEUE_LEN + 1];
    return CABP_Send(frame, CABP_PutFrame(frame, Src, MainCmd, SubCmd, &cabp::ACK, 1));
}

int CABP_ACKControl(const pckStruct& reply, time_t /*timestamp*/) {
    CABP_UpdateLastMaster(reply.Src);
    if (reply.ParamLen != 1) {
        DBG_E("Formato della risposta errato!!\n");
        return FAIL;
    }
    if (*static_cast<const uint8*>(reply.pParam) != cabp::ACK) {
        DBG_E("NOT_ACKNOWLEDGED a CMD:%c%c da scheda:0x%X!!\n", reply.MainCmd, reply.SubCmd, reply.Src);
        return FAIL;
    }
    DBG_P("ACK a CMD:%c%c da scheda:0x%X!!\n", reply.MainCmd, reply.SubCmd, reply.Src);
    return SUCC;
}

int CABP_BusyReply(uint8 src) {
    uint8 frame[CABP_HEAD_QUEUE_LEN];
    return CABP_Send(frame, CABP_PutFrame(frame, src, cabp::NCK, NAK_BUSY, nullptr, 0));
}

uint8 CABP_getAddr() {
    return FIRSTUPSBOX;
}
