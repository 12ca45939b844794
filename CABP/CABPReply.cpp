// What this card answers. Data replies go to all nodes, so that one exchange tells every card; acknowledges go to the
// asker. A query that can't be answered gets nothing: the asker runs into its time limit.
#include <cstring>

#include "CABP/CABPInternal.h"
#include "CABP/CABPTunnel.h"
#include "CABP/ThreadCABP.h"
#include "Common/CommandTable.h"
#include "Common/SysMgr.h"

namespace {

constexpr char BOXMODEL[] = "QPR UPS BOX     ";
constexpr uint8 BSFILLER = 'z';

// Own cabinet's record and node.
struct OwnBox {
    upsBoxQueriesData_t* data;
    virtualNode_t* node;
};

// False on a card whose own cabinet is none of the plant's: it has nothing to answer from.
bool findOwnBox(OwnBox& own) {
    const int id = ownIndex();
    if (id < 0) {
        return false;
    }
    own.data = &pSysMgr->pThCABP->upsBox[id];
    own.node = own.data->pVN;
    return own.node != nullptr;
}

// Sends `n` data bytes to all nodes. 0 or -1.
template <std::size_t N>
int sendData(const pckStruct& qcs, const uint8 (&data)[N]) {
    uint8 frame[N + CABP_HEAD_QUEUE_LEN];
    return CABP_Send(frame, CABP_PutFrame(frame, BROADCAST, qcs.MainCmd, qcs.SubCmd, data, N));
}

// As strcpy into a field that may be smaller than the text: what is behind the NUL stays.
template <std::size_t N, std::size_t M>
void copyString(char (&field)[N], const char (&text)[M]) {
    const std::size_t length = strnlen(text, MIN(N, M) - 1);
    std::memcpy(field, text, length);
    field[length] = '\0';
}

int CABP_BNReply(const pckStruct& qcs) {
    OwnBox own;
    if (!findOwnBox(own)) {
        return FAIL;
    }
    uint8 data[BNDATALEN];
    std::memcpy(data, &own.node->nominal, sizeof(data));
    return sendData(qcs, data);
}

int CABP_BSReply(const pckStruct& qcs) {
    OwnBox own;
    if (!findOwnBox(own)) {
        return FAIL;
    }
    uint8 data[BSDATALEN];
    std::memset(data, BSFILLER, sizeof(data));
    std::memcpy(data, &own.node->desc.upsBox, sizeof(descUpsBox_t));
    data[BSDATALEN - 1] = own.data->extendedBoardBox.idu;
    return sendData(qcs, data);
}

ParallelSystem_e parallelInfoOf(const PlantCfg& Cfg) {
    int present = 0;
    for (const upsBoxCfg_t& box : Cfg.Ups) {
        present += box.present ? 1 : 0;
    }
    return present >= 2 ? ParallelUPS_Slave : Single;
}

// Makes up the own cabinet's identification as long as there is none from its module.
void CABP_BISetData(const OwnBox& own) {
    DBG_P("CREO DATI identification myMCUid\n");
    identification_t& id = own.node->identification;
    std::memset(&id, 0, sizeof(id));
    std::memset(id.SN, ' ', sizeof(id.SN) - 1);
    std::memset(id.Model, ' ', sizeof(id.Model) - 1);
    std::memset(id.SWVer, ' ', sizeof(id.SWVer) - 1);
    std::memset(id.SN_AUX, ' ', sizeof(id.SN_AUX) - 1);
    std::memset(id.SWVer_AUX, ' ', sizeof(id.SWVer_AUX) - 1);
    id.timestamp = NOW();
    static_assert(sizeof(BOXMODEL) == sizeof(id.Model));
    std::memcpy(id.Model, BOXMODEL, sizeof(id.Model));
    // UPS_Type stays 0, deliberately.
    id.IO_Cfg = TT;
    id.Boost_Cfg = Boost;
    id.Buck_Cfg = Buck;
    id.Error_CTRL = CRC;
    id.PwrShareCfg = NoPWRSHARE;
    id.BattBenches = TwoBenches;
    id.NBattForBench = '0';
    id.ParallelInfo = parallelInfoOf(pSysMgr->Cfg);
    std::memset(id.tbdGI, '0', sizeof(id.tbdGI));
    copyString(id.SWVer_AUX, own.data->extendedBoardBox.inf.ro.FWVersion);
    copyString(id.SN_AUX, own.data->extendedBoardBox.inf.ro.SerialNumber);
    std::memset(id.tbdGE, '0', sizeof(id.tbdGE));
}

int CABP_BIReply(const pckStruct& qcs) {
    OwnBox own;
    if (!findOwnBox(own)) {
        return FAIL;
    }
    if (own.node->identification.timestamp == 0) {
        CABP_BISetData(own);
    }
    uint8 data[BIDATALEN];
    std::memcpy(data, &own.node->identification, sizeof(data));
    if (own.data->extendedBoardBox.inf.timestamp == 0) {
        DBG_P("RISPOSTA BI PARZIALE, non sono disponibili dati GI\n");
        std::memset(data + offsetof(identification_t, SN_AUX), 0, sizeof(identification_t::SN_AUX));
        std::memset(data + offsetof(identification_t, SWVer_AUX), 0, sizeof(identification_t::SWVer_AUX));
    }
    return sendData(qcs, data);
}

int acknowledge(const pckStruct& qcs) {
    return CABP_ACKReply(qcs.Src, qcs.MainCmd, qcs.SubCmd);
}

// The master's loop sends the configuration to the cabinet that has asked here, and clears the flag.
int CABP_UCReply(const pckStruct& qcs) {
    DBG_P("Richiesta aggiornamento da MCU:%c\n", boxLetter(qcs.Src));
    const int id = boxIndex(qcs.Src);
    if (id >= 0) {
        pSysMgr->pThCABP->upsBox[id].remoteUpdaterequest = true;
    } else {
        DBG_E("UC da 0x%02X: non e' la MCU di un armadio\n", qcs.Src);
    }
    return acknowledge(qcs);
}

struct ReplyRow {
    uint8 main;
    uint8 sub;
    int (*reply)(const pckStruct& qcs);
};

// What isn't listed is refused; the G commands, for one, are the SK boards' to answer.
constexpr ReplyRow replyTable[] = {
    {'B', 'N', CABP_BNReply}, {'B', 'S', CABP_BSReply}, {'B', 'I', CABP_BIReply},
    {'C', 'H', acknowledge},  {'C', 'U', acknowledge},  {'Q', 'T', CABP_QTReply},
    {'S', 'C', acknowledge},  {'S', 'I', acknowledge},  {'U', 'C', CABP_UCReply},
};

}  // namespace

int CABP_ManageReply(const pckStruct& qcs) {
    CABP_UpdateLastMaster(qcs.Src);
    int ret = FAIL;
    if (const ReplyRow* const row = findCommand(replyTable, qcs)) {
        ret = row->reply(qcs);
    } else if (CABP_IsMainCmd(qcs.MainCmd)) {
        if (qcs.MainCmd == 'C' && qcs.SubCmd == 'N') {
            DBG_E("Il comando CN non prevede risposta... grave errore logico!!\n");
        }
        DBG_E("SubCmd %c non supportato per il MainCmd %c\n", qcs.SubCmd, qcs.MainCmd);
    } else {
        DBG_E("MainCmd %c non supportato\n", qcs.MainCmd);
    }
    if (ret != SUCC) {
        DBG_E("FALLITO Risposta %c%c inviato alla scheda 0x%02X\n", qcs.MainCmd, qcs.SubCmd, qcs.Src);
        pckStruct inner;
        if (CABP_IsTunnel(qcs) && CABP_ExtractTunnelled(qcs, inner)) {
            DBG_E("Pacchetto incapsulato %c%c da '%c' per '%c'\n", inner.MainCmd, inner.SubCmd, inner.Src, inner.Dest);
        }
        return FAIL;
    }
    return SUCC;
}
