// The two small roads beside the master's round: single-shot queries of other threads, and what a slave does about a
// frame that is addressed to it.
#include <cstdlib>
#include <cstring>

#include "CABP/CABPTunnel.h"
#include "CABP/ThreadCABP.h"
#include "Common/LogStep.h"
#include "Common/SysMgr.h"
#include "MLINK/ThreadMLINK.h"

namespace {

constexpr unsigned long TURNAROUND_MS = 2;  // pause before a data reply, for the bus to turn around
constexpr uint8 CNTOTHERBUILD = 8;          // CN frames of the own build until builds count as alike again

// What comes under a MainCmd that this card answers.
struct QueryRow {
    uint8 main;
    const char* subs;              // accepted
    const char* broadcastRefusal;  // with MainCmd, SubCmd and Dest
    bool pauses;                   // before the reply
    bool toModule;                 // carries a frame for the own module
};
constexpr QueryRow queryTable[] = {
    {'B', "EINS", "La query %c%c non puo' essere usata con il broadcast 0x%02X!\n", true, false},
    {'Q', "T", "La query %c%c non puo' essere usata con il broadcast!\n", true, true},
    {'S', "", "", false, false},
    {'U', "C", "La query %c%c non puo' essere usata con il broadcast!\n", false, false},
};

const QueryRow* findQuery(uint8 MainCmd) {
    for (const QueryRow& row : queryTable) {
        if (row.main == MainCmd) {
            return &row;
        }
    }
    return nullptr;
}

bool accepts(const QueryRow& row, uint8 SubCmd) {
    return std::memchr(row.subs, SubCmd, std::strlen(row.subs)) != nullptr;
}

// Whether the frame is for this very card, and its cabinet belongs to the plant.
bool isForOwnBox(const pckStruct& query) {
    const int id = ownIndex();
    return query.Dest == CABPAddr && id >= 0 && pSysMgr->Cfg.Ups[id].present;
}

// Whether the own module can take the tunnelled frame. XA is let through and fails later: no reply is built for it.
bool isModuleReady(const pckStruct& inner) {
    const ModuleQueriesData_t* const slot = pSysMgr->pThMLink->slotOf(ownIndex(), FIRSTMODULE);
    return (inner.Dest == FIRSTMODULE && slot != nullptr && slot->commStatus.active) ||
           (inner.MainCmd == 'X' && inner.SubCmd == 'A');
}

// The tunnelled frame of a query; all zero where the data are too short for one.
pckStruct innerOf(const pckStruct& query) {
    pckStruct inner;
    CABP_ExtractTunnelled(query, inner);
    return inner;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------
// Single-shot queries

CABPMgr::singleQCMgr::singleQCMgr(CABPMgr* owner, pckStruct* query, uint8 replyDataLen, uint8* pData, int* status)
    : m_owner(owner), sQC_query(query), sQC_replyDataLen(replyDataLen), sQC_pData(pData), sQC_status(status) {}

void CABPMgr::singleQCMgr::run() {
    const pckStruct& query = *sQC_query;
    if (query.Dest < BROADCAST && !m_owner->AddrGood(query.Dest)) {
        DBG_E("Indice della scheda non corretto!\n");
        *sQC_status = FAIL;
        return;
    }
    QCMgr elem(query, CABP_BuildQuery, CABP_GetReplyDataLen(query));
    DBG_P("Process Single QC %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    if (query.ParamLen != 0) {
        dumphex("param", query.ParamLen, query.pParam);
    }
    int ret;
    {
        const myMutexLocker locker(m_owner->mutexCABPChannel);
        m_owner->saveCurrPck(&elem);
        ret = CABP_ManageQuery(elem);
    }
    if (query.Dest >= BROADCAST) {
        ret = SUCC;
    } else if (ret == SUCC) {
        const int len = MIN<int>(sQC_replyDataLen, elem.expectedReplyLen - CABP_HEAD_QUEUE_LEN);
        std::memcpy(sQC_pData, elem.pckReply + CABP_DATAOFFSET, static_cast<std::size_t>(len));
    } else {
        m_owner->saveLastErr(&elem);
    }
    *sQC_status = ret;
}

CABPMgr::singleQCMgr* CABPMgr::InsertSingleQC(pckStruct& query, uint16 replyDataLen, uint8* pData, int* status) {
    *status = FAIL;  // stands if the thread can't be started
    singleQCMgr* const sQC = new singleQCMgr(this, &query, static_cast<uint8>(replyDataLen), pData, status);
    DBG_P("Start singleQC %c%c to 0x%02X\n", query.MainCmd, query.SubCmd, query.Dest);
    sQC->start(QThread::TimeCriticalPriority);
    return sQC;
}

bool CABPMgr::WaitSingleQC(singleQCMgr* sQC, int timeout) {
    if (sQC == nullptr) {
        return true;
    }
    if (!sQC->wait(static_cast<unsigned long>(MAX(timeout, 0)))) {
        return false;
    }
    delete sQC;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Frames addressed to this card. What is refused gets no answer: the asker runs into its time limit.

void CABPMgr::ReplyToQuery(pckStruct& query) {
    const QueryRow* const row = findQuery(query.MainCmd);
    if (row == nullptr) {
        DBG_W("MainCmd non gestito!\n");
    } else if (!accepts(*row, query.SubCmd)) {
        DBG_E("con '%c' SubCmd %c non supportato!\n", query.MainCmd, query.SubCmd);
    } else if (query.Dest >= BROADCAST) {
        DBG_E(row->broadcastRefusal, query.MainCmd, query.SubCmd, query.Dest);
    } else if (row->toModule && !(isForOwnBox(query) && isModuleReady(innerOf(query)))) {
        DBG_W("Interrogato modulo %c non ancora attivo!!\n", innerOf(query).Dest);
    } else if (!isForOwnBox(query)) {
        DBG_E("STRANO!! perche' la mia MCU non e' configurata?\n");
    } else {
        if (row->pauses) {
            msleep(TURNAROUND_MS);
        }
        CABP_ManageReply(query);
    }
}

void CABPMgr::ManageCommand(pckStruct& query) {
    struct CommandRow {
        uint8 main;
        uint8 sub;
        const char* message;  // with Src; null: the command isn't acknowledged either
        void (CABPMgr::*action)(const pckStruct& query);
    };
    static constexpr CommandRow commandTable[] = {
        {'C', 'N', nullptr, &CABPMgr::takeCN},
        {'C', 'U', "UNLOCK: ricevuto comando da:0x%02X\n", &CABPMgr::resetEPO},
        {'C', 'H', "SYSTEM HALT: ricevuto comando da:0x%02X\n", &CABPMgr::halt},
    };
    for (const CommandRow& row : commandTable) {
        if (row.main != query.MainCmd || row.sub != query.SubCmd) {
            continue;
        }
        if (row.message != nullptr) {
            if (isForOwnBox(query)) {
                CABP_ManageReply(query);
            }
            DBG_P(row.message, query.Src);
        }
        (this->*row.action)(query);
        return;
    }
    // A configuration that comes over the bus is never taken over.
    if (query.MainCmd == 'C' || query.MainCmd == 'S') {
        DBG_E("con '%c' SubCmd %c non supportato!\n", query.MainCmd, query.SubCmd);
    } else {
        DBG_W("MainCmd non gestito!\n");
    }
}

void CABPMgr::resetEPO(const pckStruct& /*query*/) {
    EPOReset = true;
}

void CABPMgr::halt(const pckStruct& /*query*/) {
    if (std::system("halt") != 0) {
        // The card goes on as it is.
    }
}

// A node of another build can't hand the role over: nothing else of its frame is taken.
void CABPMgr::takeCN(const pckStruct& query) {
    int32 itsBuild = 0;
    std::memcpy(&itsBuild, query.pParam, MIN<std::size_t>(query.ParamLen, sizeof(itsBuild)));
    if (query.ParamLen < sizeof(itsBuild) || itsBuild != pSysMgr->build) {
        pSysMgr->cntForSameBuild = CNTOTHERBUILD;
        DBG_W_OF("ManageCommand", "Versioni MCU differenti: MCU:%c(%d) myMCU(%d)\n", boxLetter(query.Src), itsBuild,
                 pSysMgr->build);
        return;
    }
    if (pSysMgr->cntForSameBuild != 0) {
        --pSysMgr->cntForSameBuild;
    }
    std::memcpy(&CNData, query.pParam, MIN<std::size_t>(query.ParamLen, sizeof(CNData)));
    elaborateClkData(MCU2id(query.Src), CNData.clksData);
    if (CNData.nextMaster == CABPAddr && state == Slave) {
        setState(Master);
    }
    const int ordered = CNData.forcedOnBypass;
    if (ordered >= 0) {
        const myMutexLocker locker(mutexForcedonBypass);
        forcedOnBypass = ordered;
    }
}

void CABPMgr::prepareCNPck(pckStruct& CNpck, uint8 nextMaster) {
    CNData.build = pSysMgr->build;
    CNData.nextMaster = nextMaster;
    CNData.forcedOnBypass = forcedonBypassStatus();
    prepareClkData(CNData.clksData);
    CNpck.Src = CABPAddr;
    CNpck.Dest = BROADCAST;
    CNpck.MainCmd = 'C';
    CNpck.SubCmd = 'N';
    CNpck.pParam = &CNData;
    CNpck.ParamLen = sizeof(CNData);
}
