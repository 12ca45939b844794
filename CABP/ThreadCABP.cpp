// The bus thread: its start and end, its two roles and one transaction of the master's round.
#include "CABP/ThreadCABP.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "Common/Monotonic.h"
#include "Common/SysMgr.h"
#include "MLINK/ThreadMLINK.h"
#include "Measure/elemDesc.h"

namespace {

// All in ms but where told otherwise.
constexpr unsigned long UNKNOWNSTATEPAUSE_S = 2;
constexpr unsigned long FAILEDQUERYPAUSE = 250;  // also of a bus port that is gone
constexpr unsigned long DEADPORTPAUSE = 1000;    // after a query that neither went out nor counts
constexpr unsigned long ROLEPAUSE = 20;          // around a hand-over, done or refused
// The shortest frame takes 10 ms at the speed of the bus: a turn that failed earlier found no port to send on.
constexpr int64_t SHORTESTEXCHANGE = 5;

constexpr uint8 CHANNELCLOSED = 0xFF;
constexpr int32 MAXITERATION = 1000;

// What the two walks of the master do about the result of a transaction.
enum class DrainStep { Done, Retry, RetryAfterPause, LeavePass };
enum class RoundStep { Advance, AdvanceAfterPause, Stay };

struct ResultRow {
    int result;
    DrainStep drain;
    RoundStep round;
};
constexpr ResultRow resultTable[] = {
    {SUCC, DrainStep::Done, RoundStep::Advance},
    {NORET, DrainStep::Done, RoundStep::Advance},
    {FAIL, DrainStep::Retry, RoundStep::AdvanceAfterPause},
    {COMMERR, DrainStep::RetryAfterPause, RoundStep::AdvanceAfterPause},
    {BUSY, DrainStep::LeavePass, RoundStep::AdvanceAfterPause},
};
constexpr ResultRow anyOtherResult = {0, DrainStep::Retry, RoundStep::Stay};

const ResultRow& rowOf(int result) {
    for (const ResultRow& row : resultTable) {
        if (row.result == result) {
            return row;
        }
    }
    return anyOtherResult;
}

// Faults of a frame that count as a disturbed line.
bool isLineFault(uint8 fault) {
    static constexpr uint8 lineFaults[] = {STXFAIL, ADDRSFAIL, DATALENFAIL, CMDSFAIL, CRCRCVFAIL};
    return std::memchr(lineFaults, fault, sizeof(lineFaults)) != nullptr;
}

// Commands that act on this card, its own or those to all nodes.
bool isCommand(const pckStruct& query) {
    static constexpr uint8 commands[][2] = {{'S', 'C'}, {'C', 'U'}, {'C', 'N'}, {'C', 'H'}};
    for (const uint8(&command)[2] : commands) {
        if (query.MainCmd == command[0] && query.SubCmd == command[1]) {
            return true;
        }
    }
    return false;
}

bool isOfGroupMaster(uint8 Addr) {
    return (Addr & 0xF0) == GROUPMASTER;
}

}  // namespace

CABPMgr::CABPMgr(QObject* parent)
    : QueuesMgr(parent),
      upsBox(),
      EPOLatched(false),
      EPOReset(false),
      thID(-1),
      iteration(0),
      CNData(),
      mutexForcedonBypass(nullptr),
      forcedOnBypass(-1),
      guiForcedOnBypass(0),
      sys(nullptr),
      mutexState(nullptr),
      mutexCABPChannel(nullptr),
      mutexCABPData(nullptr),
      state(Slave),
      stopped(false),
      cntpckUnverified(0),
      timeWasMaster(0),
      unknownDevPresent(false),
      dipSwBoxType(0),
      userCABPAddr(255),
      userBoxType(PowerBox),
      lastTime(),
      errorCntTimeCleread(0),
      channelHeldByRole(false) {
    CABP_Init();
    currPckStr = "currPck:";
    lastErrStr = "LastErr:";
    mutexForcedonBypass = new myMutex("mutexForcedonBypass");
    mutexState = new myMutex("mutexState");
    mutexCABPChannel = new myMutex("mutexCABPChannel");
    mutexCABPData = new myMutex("mutexCABPData");
    state = CABPAddr == FIRSTUPSBOX ? Master : Slave;
    CABPStateMachineReset();
}

CABPMgr::~CABPMgr() {
    releaseRoleChannel();
    CABP_End();
    delete mutexForcedonBypass;
    delete mutexState;
    delete mutexCABPChannel;
    delete mutexCABPData;
}

void CABPMgr::run() {
    thID = static_cast<int>(syscall(SYS_gettid));
    DBG_P("thID:%d\n", thID.load());
    cntpckUnverified = 0;
    pSysMgr->RegisterAll();
    pSysMgr->pThMLink->unlockIdle();  // only now: the bus queries are there
    while (!stopped) {
        CABP_CheckBreak();
        if (cntBreakDetect != 0) {
            DBG_P("cntBreakDetect:%d\n", static_cast<int>(cntBreakDetect));
            cntBreakDetect = 0;
            RecoveryBus();
        }
        StateMachine();
    }
    stopped = false;
    // A single-shot that waits for this role's promotion would wait for ever.
    releaseRoleChannel();
}

void CABPMgr::Stop() {
    stopped = true;
}

void CABPMgr::StateMachine() {
    switch (state) {
        case Slave:
            SlaveAction();
            break;
        case Master:
            MasterAction();
            break;
        default:
            DBG_E("Stato non contemplato!!\n");
            sleep(UNKNOWNSTATEPAUSE_S);
            break;
    }
}

CABP_status_e CABPMgr::CABPStateMachineState() const {
    return state;
}

// ---------------------------------------------------------------------------------------------------------------
// Roles

void CABPMgr::setState(CABP_status_e newSt) {
    const myMutexLocker locker(mutexState);
    if (newSt == Master) {
        unlockRoleChannel();
        state = newSt;
        timeWasMaster = std::time(nullptr);
        return;
    }
    // A single-shot that is on the line keeps the channel.
    if (!channelHeldByRole) {
        channelHeldByRole = mutexCABPChannel->tryLock();
    }
    state = newSt;
}

// The caller holds mutexState.
void CABPMgr::unlockRoleChannel() {
    if (channelHeldByRole) {
        channelHeldByRole = false;
        mutexCABPChannel->unlock();
    }
}

void CABPMgr::releaseRoleChannel() {
    const myMutexLocker locker(mutexState);
    unlockRoleChannel();
}

void CABPMgr::RecoveryBus() {
    if (state == Master) {
        setState(Slave);
    }
    CABP_UpdateLastMaster(GROUPMASTER);
}

// ---------------------------------------------------------------------------------------------------------------
// Master

void CABPMgr::MasterAction() {
    pushConfigurations();
    if (!drainAsyncQC()) {
        return;
    }
    if (fixRoundIsOver()) {
        if (!pSysMgr->mutexQCSeq->tryLock()) {
            DBG_W("Sequenza comandi in corso non posso lasciare ruolo MASTER!\n");
            msleep(ROLEPAUSE);
            return;
        }
        endFixRound();
        pSysMgr->mutexQCSeq->unlock();
        return;
    }
    askFixQC();
    AggregateBox();
    monitorUnitTB();
    foldForcedOnBypass();
}

// To the cabinets that have asked for it.
void CABPMgr::pushConfigurations() {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        if (upsBox[id].remoteUpdaterequest) {
            SendConfig(static_cast<uint8>(FIRSTUPSBOX + id));
            upsBox[id].remoteUpdaterequest = false;
        }
    }
}

// False when the pass is to end. The number of turns has no limit: a BREAK, an empty queue or the stop ends them.
bool CABPMgr::drainAsyncQC() {
    QCMgr* elem = nullptr;
    while (peekAsyncQC(elem) && cntBreakDetect == 0 && !stopped) {
        const struct timespec begun = monotonicNow();
        switch (rowOf(ManageCmd(elem)).drain) {
            case DrainStep::Done:
                headAsyncQC();
                break;
            case DrainStep::RetryAfterPause:
                msleep(FAILEDQUERYPAUSE);
                break;
            case DrainStep::Retry:
                if (CABP_ch == CHANNELCLOSED || elapsedMs(begun, monotonicNow()) < SHORTESTEXCHANGE) {
                    msleep(FAILEDQUERYPAUSE);
                }
                break;
            case DrainStep::LeavePass:
                return false;
        }
    }
    return true;
}

// The caller holds mutexQCSeq of the system manager.
void CABPMgr::endFixRound() {
    // Counting starts once the module thread has finished a round.
    if (iteration != 0) {
        iteration = MIN<int32>(iteration + 1, MAXITERATION);
    } else if (pSysMgr->pThMLink->getIteration() >= 1) {
        iteration = 1;
    }
    if (!restartFixRound() && state == Master) {
        setState(Slave);
        msleep(ROLEPAUSE);
    }
}

void CABPMgr::askFixQC() {
    QCMgr* elem = nullptr;
    // A query that has no frame fails like one that nobody answers.
    const int ret = peekFixQC(elem) ? ManageCmd(elem) : static_cast<int>(FAIL);
    switch (rowOf(ret).round) {
        case RoundStep::Advance:
            advanceFixQC();
            break;
        case RoundStep::AdvanceAfterPause:
            advanceFixQC();
            msleep(FAILEDQUERYPAUSE);
            break;
        case RoundStep::Stay:
            break;
    }
}

void CABPMgr::foldForcedOnBypass() {
    const myMutexLocker locker(mutexForcedonBypass);
    if (guiForcedOnBypass != 0) {
        forcedOnBypass = guiForcedOnBypass < 0 ? 0 : 1;
        guiForcedOnBypass = 0;
    }
}

int CABPMgr::ManageCmd(QCMgr* elem) {
    const struct timespec begun = monotonicNow();
    myMutexLocker channel(mutexCABPChannel);
    saveCurrPck(elem);
    const int ret = CABP_ManageQuery(*elem);
    const uint8 fault = errnoCABP;  // of this exchange: the next one may be another thread's
    channel.unlock();
    yieldCurrentThread();
    if (elem->QC.Dest == BROADCAST) {
        return ret;
    }
    // Without a tree no node is active and no failure counts: on a dead port nothing else would pace the walks.
    const bool isUncounted = elem->pCommStatus != nullptr && !elem->pCommStatus->active;
    if (ret == FAIL && isUncounted && elapsedMs(begun, monotonicNow()) < SHORTESTEXCHANGE) {
        msleep(DEADPORTPAUSE);
    }
    const myMutexLocker data(mutexCABPData);
    if (elem->pCommStatus == nullptr) {
        DBG_E("Verificare query!!!\n");
        return FAIL;
    }
    if (!elem->pCommStatus->active || ret == NORET) {
        return SUCC;
    }
    if (ret == SUCC) {
        decErrorPck(elem->pCommStatus);
        CABP_ManageData(std::time(nullptr), elem->pckReply);
        return SUCC;
    }
    return countFailure(elem, ret, fault);
}

// The caller holds mutexCABPData. The BREAK goes out without the channel: the two are never held together.
int CABPMgr::countFailure(QCMgr* elem, int ret, uint8 fault) {
    commStatus_t& commStatus = *elem->pCommStatus;
    saveLastErr(elem);
    incErrorPck(&commStatus, MAXPCKERROR);
    if (commStatus.errorPck < MAXPCKERROR) {
        return commStatus.isGood ? static_cast<int>(COMMERR) : ret;
    }
    commStatus.errorCnt = commStatus.errorCnt + 1;
    commStatus.isGood = false;
    if (isLineFault(fault)) {
        // The first cabinet's place in the ring is behind the last one's.
        const uint8 Src = elem->QC.Src;
        CABP_UpdateLastMaster(Src == FIRSTUPSBOX ? static_cast<uint8>(FIRSTUPSBOX + MAXMCU - 1) : Src);
        CABP_RecoveryBus();
    }
    return ret;
}

// ---------------------------------------------------------------------------------------------------------------
// Slave. No channel lock here: after a demotion the role itself holds it.

void CABPMgr::SlaveAction() {
    uint8 pck[CABP_MAXPCKLEN] = {};
    const int ret = CABP_waitPck(pck, sizeof(pck));
    pckStruct query;
    CABP_ExtractQuery(query, pck);
    if (ret != SUCC) {
        loseFirstBox();
        DBG_W("TIMEOUT: QGen -> Mitt:0x%02X Dest:0x%02X MainCmd:0x%02X SubCmd:0x%02X Len:%d\n", query.Src, query.Dest,
              query.MainCmd, query.SubCmd, query.ParamLen);
        return;
    }
    if (query.Src == BROADCAST || query.Src == CABPAddr) {
        DBG_E("NON E' AMMESSO 0x%02X COME MITTENTE!\n", query.Src);
        return;
    }
    if (isOfGroupMaster(query.Src) && (query.Dest == CABPAddr || query.Dest >= BROADCAST)) {
        if (isCommand(query)) {
            ManageCommand(query);
            return;
        }
        if (query.Dest == CABPAddr) {
            ReplyToQuery(query);
            return;
        }
    }
    if (query.Dest < BROADCAST) {
        return;
    }
    SniffReply(pck);
    AggregateBox();
}

// Nobody polls the bus any more: cabinet A, where the master starts, counts as lost.
void CABPMgr::loseFirstBox() {
    const myMutexLocker locker(mutexCABPData);
    if (virtualNode_t* const root = sys) {
        setElemAlarm(root->desc.sys.subSystem.UPSBox[0], commLostAlarm);
    }
}

void CABPMgr::SniffReply(uint8* pck) {
    pckStruct reply;
    CABP_ExtractQuery(reply, pck);
    if (isBoardPresent(reply.Src) == 0) {
        DBG_W("Ricevo dati da 0x%02X, scheda CABP non registrata su questa MCU!\n", reply.Src);
        unknownDevPresent = true;
        return;
    }
    const myMutexLocker locker(mutexCABPData);
    healErrorsOf(reply);
    CABP_ManageData(std::time(nullptr), pck);
}

// A reply that was overheard heals the matching queries of the own queue. The caller holds mutexCABPData.
void CABPMgr::healErrorsOf(const pckStruct& reply) {
    const QMutexLocker locker(&mutexQ);
    for (const auto& fixed : FixQuery) {
        const QCMgr& elem = *fixed.second;
        if (elem.pCommStatus != nullptr && elem.pCommStatus->errorPck != 0 && elem.QC.Dest == reply.Src &&
            elem.QC.MainCmd == reply.MainCmd) {
            decErrorPck(elem.pCommStatus);
        }
    }
}
