// Single queries: one exchange on a short-lived thread, to the own module or through the bus to another cabinet's.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "CABP/CABP.h"
#include "CABP/ThreadCABP.h"
#include "Common/LogStep.h"
#include "Common/SysMgr.h"
#include "MLINK/ThreadMLINK.h"

namespace {

constexpr int TUNNEL_ATTEMPTS = 5;
constexpr int TUNNEL_REPLY_ROOM = 16;    // of a tunnelled reply beside the module's data
constexpr int TUNNEL_REPLY_OFFSET = 18;  // where the caller's bytes are taken from

}  // namespace

MLINKMgr::singleQCMgr::singleQCMgr(MLINKMgr* owner, uint8 boxId, pckStruct* query, uint8 replyDataLen, uint8* pData,
                                   int* status)
    : m_owner(owner),
      sQC_boxId(boxId),
      sQC_query(query),
      sQC_replyDataLen(replyDataLen),
      sQC_pData(pData),
      sQC_status(status) {}

MLINKMgr::singleQCMgr::~singleQCMgr() = default;

void MLINKMgr::singleQCMgr::run() {
    if (sQC_query->Dest < FIRSTMODULE || sQC_query->Dest > BYPASSUNIT) {
        DBG_E("Indirizzo del modulo non corretto: %d!\n", sQC_query->Dest);
        *sQC_status = FAIL;
        return;
    }
    if (sQC_boxId != MCU2id(CABPAddr)) {
        runTunnelled();
    } else {
        runOwn();
    }
}

// Towards its caller a tunnelled query always ends well: a real failure stands in the log alone.
void MLINKMgr::singleQCMgr::runTunnelled() {
    uint8* frame = nullptr;
    pckStruct busQuery;
    busQuery.ParamLen = MLINK_BuildQuery(*sQC_query, frame);
    busQuery.pParam = frame;
    busQuery.Src = CABPAddr;
    busQuery.Dest = static_cast<uint8>(sQC_boxId + FIRSTUPSBOX);
    busQuery.MainCmd = 'Q';
    busQuery.SubCmd = 'T';
    // Zeroed, and as long as what is taken from it.
    uint8* reply = static_cast<uint8*>(std::calloc(1, static_cast<size_t>(sQC_replyDataLen) + TUNNEL_REPLY_OFFSET));
    if (frame != nullptr && reply != nullptr) {
        for (int attempt = 0; attempt < TUNNEL_ATTEMPTS; ++attempt) {
            int status = FAIL;
            CABPMgr* bus = pSysMgr->pThCABP;
            CABPMgr::singleQCMgr* exchange = bus->InsertSingleQC(
                busQuery, static_cast<uint16>(sQC_replyDataLen + TUNNEL_REPLY_ROOM), reply, &status);
            while (!bus->WaitSingleQC(exchange, WAIT_CABPSQC)) {
            }
            if (status == SUCC) {
                if (sQC_replyDataLen != 0) {
                    std::memcpy(sQC_pData, reply + TUNNEL_REPLY_OFFSET, sQC_replyDataLen);
                }
                break;
            }
            DBG_E_OF("run", "Errore nell'invio del comando CABP_%c%c all'armadio 0x%02X\n", 'Q', 'T', 'A' + sQC_boxId);
        }
    }
    std::free(reply);
    *sQC_status = -100;
    std::free(frame);
    *sQC_status = SUCC;
}

void MLINKMgr::singleQCMgr::runOwn() {
    QCMgr query(*sQC_query, MLINK_BuildQuery, MLINK_GetReplyDataLen(*sQC_query));
    DBG_P_OF("run", "Insert Single QC %c%c to %c\n", query.QC.MainCmd, query.QC.SubCmd, query.QC.Dest);
    DUMPHEX_OF("run", "data", query.QC.ParamLen, query.QC.pParam);
    int ret;
    uint8 result;
    {
        myMutexLocker channel(m_owner->mutexMLinkChannel);
        m_owner->saveCurrPck(&query);
        ret = MLINK_ManageQuery(query);
        result = errnoMLink;
    }
    DBG_P_OF("run", "ret = %d errnoMLink:%d\n", ret, result);
    if (ret == SUCC) {
        const int room = query.expectedReplyLen - MLINK_HEAD_QUEUE_LEN;
        const int count = std::min<int>(sQC_replyDataLen, room);
        if (count > 0) {
            std::memcpy(sQC_pData, query.pckReply + MLINK_DATAOFFSET, static_cast<size_t>(count));
        }
    } else {
        m_owner->saveLastErr(&query);
    }
    // A send that failed before anything was judged leaves 0 here and reads as success.
    *sQC_status = -static_cast<int>(result);
}

MLINKMgr::singleQCMgr* MLINKMgr::InsertSingleQC(uint8 boxId, pckStruct& query, uint8 replyDataLen, uint8* pData,
                                                int* status) {
    singleQCMgr* thread = new singleQCMgr(this, boxId, &query, replyDataLen, pData, status);
    DBG_P("Start singleQC %c%c to %c\n", query.MainCmd, query.SubCmd, query.Dest);
    thread->start(QThread::TimeCriticalPriority);
    return thread;
}

bool MLINKMgr::WaitSingleQC(singleQCMgr* sQC, int timeout) {
    if (sQC == nullptr) {
        return true;
    }
    if (!sQC->wait(static_cast<unsigned long>(timeout))) {
        return false;
    }
    delete sQC;
    return true;
}

int MLINKMgr::Send(pckStruct& cmd) {
    const int index = cmd.Src - 'A';
    const bool isBox = index >= 0 && index < MAXUPSBOX;
    const virtualNode_t* box = isBox ? pSysMgr->pThCABP->upsBox[index].pVN : nullptr;
    // A cabinet has one shelter, its module's. The bypass unit has none and is not tested.
    const bool ready = cmd.Dest == BYPASSUNIT
                           ? isBox
                           : box != nullptr && cmd.Dest == FIRSTMODULE &&
                                 elemAlarm(box->desc.upsBox.subSystem.UPSShelter[0]) != commLostAlarm;
    if (!ready) {
        DBG_E("IL MODULO NON E` PRONTO A RICEVERE IL COMANDO!!!!\n");
        return FAIL;
    }
    int status = FAIL;
    singleQCMgr* exchange = InsertSingleQC(static_cast<uint8>(index), cmd, 0, nullptr, &status);
    while (!WaitSingleQC(exchange, WAIT_MLINKSQC)) {
    }
    if (status != SUCC) {
        DBG_E("Errore nell'invio del comando %c%c al modulo %c@%c\n", cmd.MainCmd, cmd.SubCmd, cmd.Dest, cmd.Src);
    }
    return status;
}
