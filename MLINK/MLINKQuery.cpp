// The asking side of the module link: lengths of the replies, one exchange on the own line, the judging of a reply.
#include <algorithm>
#include <cstring>

#include "Common/CommandTable.h"
#include "Common/LogStep.h"
#include "Common/Monotonic.h"
#include "DevMgr/ComDev.h"
#include "DevMgr/TTYDev.h"
#include "MLINK/MLINK.h"
#include "MLINK/MLINKInternal.h"

using namespace mlink;

namespace {

constexpr uint32 READTIMEOUT = 5000;      // ms, limit of silence in a block read
constexpr uint32 STARTTIMEOUT = 1000;     // ms, limit of silence while a start byte is hunted for
constexpr std::int64_t HUNTLIMIT = 9999;  // ms, limit of the whole hunt

// Length of the reply's data by command. DC is not here: it depends on the query's own content.
struct ReplyLength {
    uint8 main;
    uint8 sub;
    uint16 length;
};
constexpr ReplyLength replyLengths[] = {
    {'C', 'B', 0},
    {'C', 'D', 0},
    {'C', 'F', 0},
    {'C', 'M', 0},
    {'C', 'P', 0},
    {'C', 'R', 0},
    {'C', 'S', 0},
    {'C', 'U', 0},
    {'D', 'E', REDATALENGTH},
    {'D', 'S', REDATALENGTH},
    {'G', 'E', GEDATALENGTH},
    {'G', 'I', GIDATALENGTH},
    {'G', 'M', GMDATALENGTH},
    {'G', 'N', GNDATALENGTH},
    {'R', 'B', RBDATALENGTH},
    {'R', 'C', RCDATALENGTH},
    {'R', 'E', REDATALENGTH},
    {'R', 'K', RKDATALENGTH},
    {'R', 'S', RSDATALENGTH_TT},
    {'R', 'X', RXDATALENGTH},
    {'S', 'M', SMDATALENGTH},
    {'S', 'T', 0},
    {'S', 'V', SVDATALENGTH},
    {'T', 'B', 0},
};

uint16 replyLengthOfDC(const pckStruct& qcs) {
    if (qcs.Dest == BYPASSUNIT) {
        return qcs.ParamLen == 1 ? 4 : 0;
    }
    const uint8* param = static_cast<const uint8*>(qcs.pParam);
    if (qcs.ParamLen != 1 || param == nullptr || (param[0] != '0' && param[0] != '1')) {
        DBG_E_OF("MLINK_GetReplyDataLen", "COMANDO SCONOSCIUTO!!\n");
    }
    return 0;
}

// What a refusal is about. The messages of the first two name a letter of the query.
struct Refusal {
    uint8 code;
    const char* message;
};
constexpr Refusal refusals[] = {
    {'1', "MainCmd:%c non riconosciuto\n"},
    {'2', "SubCmd:%c non riconosciuto\n"},
    {'3', "DataLength non corretta\n"},
    {'4', "CRC o CHKSUM non corretti\n"},
    {'5', "Non e' possibile eseguire il comando in questo momento!\n"},
    {'6', "Security PIN non corretto\n"},
};

const char* refusalMessage(uint8 code) {
    for (const Refusal& refusal : refusals) {
        if (refusal.code == code) {
            return refusal.message;
        }
    }
    return "Errore generico\n";
}

}  // namespace

uint16 MLINK_GetReplyDataLen(const pckStruct& qcs) {
    if (qcs.MainCmd == 'D' && qcs.SubCmd == 'C') {
        return replyLengthOfDC(qcs);
    }
    if (const ReplyLength* const row = findCommand(replyLengths, qcs)) {
        return row->length;
    }
    if (hasMainCmd(replyLengths, qcs.MainCmd)) {
        DBG_E("SubCmd %c non supportato per il MainCmd %c\n", qcs.SubCmd, qcs.MainCmd);
    } else {
        DBG_E("MainCmd %c non supportato\n", qcs.MainCmd);
    }
    return 0;
}

int MLINK_Send(const uint8* stream, uint16 len) {
    // The line keeps lengths in 8 bits.
    return ComDev_Send(MLINK_ch, stream, static_cast<uint8>(len));
}

int MLINK_Rcv(uint8* stream, const uint8* len) {
    const struct timespec start = monotonicNow();
    do {
        const int got = ComDev_Rcv(MLINK_ch, stream, 1, STARTTIMEOUT);
        if (got < 1) {
            if (got == TTYD_ERR_TIMEOUT) {
                DBG_E("Errore ricezione: manca il carattere di inizio pacchetto!\n");
            } else {
                DBG_E("Errore (%d) Provo a resettare la seriale\n", got);
                MLINK_End();
                MLINK_Init();
            }
            return FAIL;
        }
        // Before the byte is looked at: one that comes too late is lost, a start byte too.
        if (elapsedMs(start, monotonicNow()) > HUNTLIMIT) {
            DBG_E("Errore ricezione: TIMEOUT!\n");
            return FAIL;
        }
    } while (stream[0] != STX);

    if (ComDev_Rcv(MLINK_ch, stream + 1, 6, READTIMEOUT) < 6) {
        DBG_E("Errore ricezione: non e' presente il campo lenght!\n");
        return FAIL;
    }
    // Never past the buffer that the query allocated for its reply.
    const uint32 expected = static_cast<uint8>(*len - MLINK_HEAD_QUEUE_LEN);
    const uint32 n = std::min(MLINK_GetLen(stream), expected);
    const int wanted = static_cast<int>(n) + 5;
    const int got = ComDev_Rcv(MLINK_ch, stream + MLINK_DATAOFFSET, static_cast<uint16>(wanted), READTIMEOUT);
    if (got < wanted) {
        DBG_E("Errore ricezione: non sono presenti tutti i byte descritti in lenght!\n");
        if (got < 1) {
            DBG_E(" codice d'errore:%d attesi:%d\n", got, wanted);
        } else {
            DBG_E(" ricevuti:%d attesi:%d\n", got, wanted);
        }
        return FAIL;
    }
    return SUCC;
}

int MLINK_Decode(const uint8* Query, const uint8* Reply, uint16 replyLen) {
    errnoMLink = 0;
    if (Reply[0] != STX) {
        DBG_W("Errore intestazione\n");
        return FAIL;
    }
    if (Reply[MLINK_SOURCEOFFSET] != Query[MLINK_DESTOFFSET] || Reply[MLINK_DESTOFFSET] != Query[MLINK_SOURCEOFFSET]) {
        DBG_W("Errore Indirizzi Query Src:0x%02X Dest:0x%02X     Reply Src:0x%02X Dest:0x%02X \n",
              Query[MLINK_SOURCEOFFSET], Query[MLINK_DESTOFFSET], Reply[MLINK_SOURCEOFFSET], Reply[MLINK_DESTOFFSET]);
        return FAIL;
    }
    if (Reply[MLINK_MAINCMDOFFSET] != Query[MLINK_MAINCMDOFFSET] ||
        Reply[MLINK_SUBCMDOFFSET] != Query[MLINK_SUBCMDOFFSET]) {
        DBG_W("Errore Comando\n");
        if (Reply[MLINK_MAINCMDOFFSET] != NCK) {
            DBG_E("Formato non riconosciuto!\n");
            return FAIL;
        }
        // A refusal counts whatever its check.
        const uint8 code = Reply[MLINK_SUBCMDOFFSET];
        errnoMLink = static_cast<uint8>(code - 0x30);
        DBG_E(refusalMessage(code), Query[code == '1' ? MLINK_MAINCMDOFFSET : MLINK_SUBCMDOFFSET]);
        return FAIL;
    }
    // A reply that announces more than its buffer holds was read only that far: the check runs over what is there and
    // fails.
    const uint32 room = replyLen > MLINK_HEAD_QUEUE_LEN ? static_cast<uint32>(replyLen - MLINK_HEAD_QUEUE_LEN) : 0;
    const uint32 announced = static_cast<uint8>(MLINK_GetLen(Reply));
    const uint32 n = std::min(announced, room);
    const uint16 calculated = MLINK_IsAdditive(Query[MLINK_MAINCMDOFFSET], Query[MLINK_SUBCMDOFFSET])
                                  ? MLINK_CalcCHKSUM(Reply, n)
                                  : MLINK_CalcCRC(Reply, n);
    const uint16 received = static_cast<uint16>(MLINK_DCd2Dec(Reply + MLINK_DATAOFFSET + n, 4));
    if (calculated != received || announced > room) {
        DBG_W("Errore Codice di Controllo\n");
        DBG_W("Calcolato:0x%04X Ricevuto:0x%04X\n", calculated, received);
        DBG_W("datalen:%d\n", static_cast<int>(announced));
        dumphex("replypck:", static_cast<int>(n) + MLINK_HEAD_QUEUE_LEN, Reply);
        DBG_W("FINE STAMPE Errore Codice di Controllo\n");
        return FAIL;
    }
    return SUCC;
}

int MLINK_ManageQuery(QCMgr& q) {
    ComDev_FlushQueue(MLINK_ch);
    if (q.pckQuery != nullptr && q.pckReply != nullptr && MLINK_Send(q.pckQuery, q.buildQueryLen) == SUCC) {
        const uint8 expected = static_cast<uint8>(q.expectedReplyLen);
        if (MLINK_Rcv(q.pckReply, &expected) != SUCC) {
            errnoMLink = MLINK_NOTRECEIVED;
        } else if (MLINK_Decode(q.pckQuery, q.pckReply, q.expectedReplyLen) == SUCC) {
            const uint32 received = static_cast<uint8>(MLINK_GetLen(q.pckReply));
            if (q.expectedReplyLen == received + MLINK_HEAD_QUEUE_LEN) {
                return SUCC;
            }
            errnoMLink = MLINK_LENGTHMISMATCH;
            DBG_E("!!datalen mismatch: expected:%d received:%d!!\n", q.expectedReplyLen - MLINK_HEAD_QUEUE_LEN,
                  static_cast<int>(received));
        }
    }
    DBG_E("FALLITO Comando %c%c inviato alla scheda 0x%02X\n", q.QC.MainCmd, q.QC.SubCmd, q.QC.Dest);
    return FAIL;
}
