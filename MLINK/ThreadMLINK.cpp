// The module thread and its state machine.
#include "MLINK/ThreadMLINK.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "CABP/CABPTypes.h"
#include "Common/LogStep.h"
#include "Common/Monotonic.h"
#include "Common/SysMgr.h"

namespace {

constexpr unsigned long PAUSE_AFTER_FAILURE = 250;  // ms, after a failed query; also of each turn on a closed channel
constexpr unsigned long PAUSE_NOTHING_TO_POLL = 200;
constexpr std::int64_t ROUND_PACE = 1000;  // ms; a quicker round leaves time to restore a delayed query
constexpr std::int64_t EXCHANGE_MIN = 1;   // ms, of the shortest exchange at the highest baud rate
constexpr int32 ITERATION_MAX = 1000;

constexpr uint8 REFUSED_MAINCMD = 1;
constexpr uint8 REFUSED_SUBCMD = 2;
constexpr uint8 REFUSED_BUSY = 5;
constexpr uint8 REFUSED_FOR_GOOD = 7;

// Whether an exchange brought a reply, of whatever kind, is seen by the start byte in the buffer.
void forgetReply(const QCMgr& query) {
    if (query.pckReply != nullptr) {
        query.pckReply[0] = 0;
    }
}
bool hasReply(const QCMgr& query) {
    return query.pckReply != nullptr && query.pckReply[0] == mlink::STX;
}

}  // namespace

MLINKMgr::MLINKMgr(QObject* parent)
    : QueuesMgr(parent),
      requestHALT(false),
      thID(-1),
      iteration(COUNTDOWN_ITERATION),
      stopped(false),
      state(IdleMLink),
      requestUnlockIdlePending(false),
      lastidu(255),
      errnoOfExchange(0) {
    std::memset(ModulesData, 0, sizeof(ModulesData));
    MLINK_Init();
    currPckStr = QStringLiteral("currPck:");
    lastErrStr = QStringLiteral("LastErr:");
    mutexState = new myMutex(QStringLiteral("mutexState"));
    mutexMLinkChannel = new myMutex(QStringLiteral("mutexMLinkChannel"));
    mutexMLinkData = new myMutex(QStringLiteral("mutexMLinkData"));
    lastTime = monotonicNow();
}

MLINKMgr::~MLINKMgr() {
    MLINK_End();
    delete mutexState;
    delete mutexMLinkChannel;
    delete mutexMLinkData;
}

void MLINKMgr::run() {
    thID = static_cast<int>(syscall(SYS_gettid));
    DBG_P("thID:%d\n", thID.load());
    while (!stopped) {
        StateMachine();
    }
    stopped = false;
    DBG_P("EXIT ThMLINK thID:%d\n", thID.load());
}

void MLINKMgr::Stop() {
    stopped = true;
}

void MLINKMgr::unlockIdle() {
    requestUnlockIdlePending = true;
}

void MLINKMgr::forceIdle() {
    setState(IdleMLink);
}

void MLINKMgr::wipeQueues() {
    QueuesMgr::wipeQueues();
}

void MLINKMgr::setState(MLink_status_e newSt) {
    const myMutexLocker lock(mutexState);
    state = newSt;
}

int32 MLINKMgr::getIteration() const {
    return iteration;
}

void MLINKMgr::lockMLinkData() {
    mutexMLinkData->lock();
}

void MLINKMgr::unlockMLinkData() {
    mutexMLinkData->unlock();
}

void MLINKMgr::StateMachine() {
    switch (state.load()) {
        case IdleMLink:
            idlePass();
            break;
        case MasterMLink:
            masterPass();
            break;
        default:
            DBG_E("Stato non contemplato!!\n");
            break;
    }
}

// No delay, deliberately: registration is over after a short time.
void MLINKMgr::idlePass() {
    iteration = COUNTDOWN_ITERATION;
    lastTime = monotonicNow();
    lastidu = 255;
    DBG_P_OF("StateMachine", "MLinkIdle\n");
    if (requestUnlockIdlePending) {
        setState(MasterMLink);
        requestUnlockIdlePending = false;
    }
    yieldCurrentThread();
}

void MLINKMgr::masterPass() {
    drainAsyncQC();
    if (fixRoundIsOver()) {
        endOfRound();
    }
    if (fixRoundIsOver()) {
        msleep(PAUSE_NOTHING_TO_POLL);
        return;
    }
    QCMgr* query;
    if (peekFixQC(query)) {
        switch (ManageCmd(query)) {
            case SUCC:
            case NORET:
                advanceFixQC();
                break;
            case FAIL:
            case BUSY:
            case COMMERR:
                advanceFixQC();
                msleep(PAUSE_AFTER_FAILURE);
                break;
            default:
                break;
        }
    } else {
        // A query that has no frame, for want of memory when it was made, fails like one that nobody answers.
        advanceFixQC();
        msleep(PAUSE_AFTER_FAILURE);
    }
    const int own = ownIndex();
    if (own >= 0 && pSysMgr->Cfg.Ups[own].present) {
        AggregateUPS(&ModulesData[own]);
    }
}

// Every pending command, before any polling. A failed one stays at the head and is tried again: the loop has no limit
// of its own but the stop.
void MLINKMgr::drainAsyncQC() {
    QCMgr* query;
    while (!stopped && peekAsyncQC(query)) {
        const bool isSV = query->QC.MainCmd == 'S' && query->QC.SubCmd == 'V';
        forgetReply(*query);
        const struct timespec begun = monotonicNow();
        const int ret = ManageCmd(query);
        const bool tookNoTime = elapsedMs(begun, monotonicNow()) < EXCHANGE_MIN;
        if (ret == SUCC || ret == NORET) {
            headAsyncQC();
            continue;
        }
        if (ret == FAIL && (isSV || errnoOfExchange == REFUSED_MAINCMD || errnoOfExchange == REFUSED_SUBCMD ||
                            errnoOfExchange == REFUSED_FOR_GOOD)) {
            headAsyncQC();
            continue;
        }
        // Without a line nothing else would pace the retries. A port that is open but dead shows by an exchange that
        // took no time and brought nothing: silence costs a second.
        if (ret == COMMERR || MLINK_ch > 254 || (tookNoTime && !hasReply(*query))) {
            msleep(PAUSE_AFTER_FAILURE);
        }
    }
}

void MLINKMgr::endOfRound() {
    static struct timespec lastRoundCompleted = {0, 0};
    restartFixRound();
    const struct timespec now = monotonicNow();
    if (elapsedMs(lastRoundCompleted, now) < ROUND_PACE) {
        if (!DelayedQC.isEmpty()) {
            do {
                manageDelayedQC();
            } while (requestHALT && !DelayedQC.isEmpty());
        }
    }
    lastRoundCompleted = now;
    iteration = MIN<int32>(iteration + 1, ITERATION_MAX);
}

int MLINKMgr::ManageCmd(QCMgr* elem) {
    int ret;
    {
        myMutexLocker channel(mutexMLinkChannel);
        saveCurrPck(elem);
        ret = MLINK_ManageQuery(*elem);
        // While the channel is held: afterwards another thread's exchange may overwrite it.
        errnoOfExchange = errnoMLink;
    }
    yieldCurrentThread();

    const myMutexLocker data(mutexMLinkData);
    commStatus_t* status = elem->pCommStatus;
    if (status == nullptr) {
        DBG_E("Verificare query!!!\n");
        return FAIL;
    }
    if (!status->active || ret == NORET) {
        return SUCC;
    }
    if (ret == SUCC) {
        decErrorPck(status);
        MLINK_ManageData(MCU2id(CABPAddr), std::time(nullptr), elem->pckReply);
        return SUCC;
    }
    if (errnoOfExchange == REFUSED_BUSY) {
        return BUSY;
    }
    saveLastErr(elem);
    incErrorPck(status, MAXPCKERROR);
    if (status->errorPck >= MAXPCKERROR) {
        status->errorCnt = status->errorCnt + 1;
        status->isGood = false;
        return FAIL;
    }
    return status->isGood ? COMMERR : FAIL;
}

// The texts keep whatever bytes a command has, since '%' and control characters may come from a wire.
void MLINKMgr::saveCurrPck(QCMgr* e) {
    QString text = QStringLiteral("currPck:\\02");
    for (const uint8 c : {e->QC.Src, e->QC.Dest, e->QC.MainCmd, e->QC.SubCmd}) {
        text += QChar(static_cast<ushort>(c));
    }
    text += QStringLiteral("...");
    QMutexLocker lock(&mutexDiag);
    currPckStr = std::move(text);
}

void MLINKMgr::saveLastErr(QCMgr* e) {
    const time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char clock[16];
    std::snprintf(clock, sizeof(clock), "%02u:%02u:%02u", static_cast<unsigned>(local.tm_hour) % 100u,
                  static_cast<unsigned>(local.tm_min) % 100u, static_cast<unsigned>(local.tm_sec) % 100u);
    QString text = QStringLiteral("LastErr:\\02");
    for (const uint8 c : {e->QC.Src, e->QC.Dest, e->QC.MainCmd, e->QC.SubCmd}) {
        text += QChar(static_cast<ushort>(c));
    }
    text += QStringLiteral("... @") + QString::fromLatin1(clock);
    QMutexLocker lock(&mutexDiag);
    lastErrStr = std::move(text);
}

QString MLINKMgr::getCurrPck() {
    QMutexLocker lock(&mutexDiag);
    return currPckStr;
}

QString MLINKMgr::getLastErr() {
    QMutexLocker lock(&mutexDiag);
    return lastErrStr;
}

void MLINKMgr::clearLastErr() {
    QMutexLocker lock(&mutexDiag);
    lastErrStr = QStringLiteral("LastErr:");
}
