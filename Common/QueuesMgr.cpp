#include "Common/QueuesMgr.h"

#include <cstring>
#include <utility>

namespace {

bool sameCommand(const pckStruct& a, const pckStruct& b) {
    return a.Dest == b.Dest && a.MainCmd == b.MainCmd && a.SubCmd == b.SubCmd;
}

// Whether the first bytes of the element's parameters, as many as the query has, are those of the query. An element
// that has fewer differs.
bool sameParams(const pckStruct& element, const pckStruct& query) {
    if (query.ParamLen == 0) {
        return true;
    }
    if (element.ParamLen < query.ParamLen || element.pParam == nullptr || query.pParam == nullptr) {
        return false;
    }
    return std::memcmp(element.pParam, query.pParam, query.ParamLen) == 0;
}

}  // namespace

QueuesMgr::QueuesMgr(QObject* parent) : QThread(parent), CurrFixQC(FixQuery.end()), currQC(nullptr) {
    tmrRestore.moveToThread(thread());
    connect(&tmrRestore, &QTimer::timeout, this, &QueuesMgr::manageDelayedQC);
    wipeQueues();
}

QueuesMgr::~QueuesMgr() = default;

void QueuesMgr::wipeQueues() {
    FixQuery.clear();
    AsyncQC.clear();
    DelayedQC.clear();
    tmrRestore.stop();
    currQC = nullptr;
    CurrFixQC = FixQuery.begin();
}

uint32 QueuesMgr::keyOf(const pckStruct& query) {
    uint8 chksum = 0;
    if (query.pParam != nullptr) {
        const uint8* params = static_cast<const uint8*>(query.pParam);
        for (uint16 i = 0; i < query.ParamLen; ++i) {
            chksum = static_cast<uint8>(chksum + params[i]);
        }
    }
    return static_cast<uint32>(query.Dest) << 24 | static_cast<uint32>(query.MainCmd) << 16 |
           static_cast<uint32>(query.SubCmd) << 8 | chksum;
}

// ---------------------------------------------------------------------------------------------------------------
// Ownership

bool QueuesMgr::isHeld(const QCMgr* query) const {
    for (const auto& fixed : FixQuery) {
        if (fixed.second == query) {
            return true;
        }
    }
    for (const QCMgr* async : AsyncQC) {
        if (async == query) {
            return true;
        }
    }
    for (const QCDelayed_t& delayed : DelayedQC) {
        if (delayed.QCwrong == query) {
            return true;
        }
    }
    return false;
}

// The very element goes, found by its address: an equal one may be held by another queue.
void QueuesMgr::removeQuery(const QCMgr* query) {
    for (auto it = Queries.begin(); it != Queries.end(); ++it) {
        if (&*it != query) {
            continue;
        }
        if (query == currQC) {
            retired.splice(retired.end(), Queries, it);
            currQC = nullptr;  // or a later element at the same address would count as in flight
        } else {
            Queries.erase(it);
        }
        return;
    }
}

// Equal elements that no queue holds any more have no other way out.
void QueuesMgr::removeQueryAndUnheldEquals(const QCMgr* query) {
    for (auto it = Queries.begin(); it != Queries.end();) {
        const QCMgr* element = &*it;
        ++it;
        if (element != query && *element == *query && !isHeld(element)) {
            removeQuery(element);
        }
    }
    removeQuery(query);
}

bool QueuesMgr::handOut(QCMgr* query) {
    retired.clear();
    currQC = query;
    return query != nullptr && query->pckQuery != nullptr;
}

// ---------------------------------------------------------------------------------------------------------------
// Fixed queries

bool QueuesMgr::isKeyPresent(uint32 key) {
    return FixQuery.find(key) != FixQuery.end();
}

int QueuesMgr::RegisterElem(QCMgr& q) {
    const QMutexLocker locker(&mutexQ);
    const uint32 key = keyOf(q.QC);
    const auto present = FixQuery.find(key);
    if (present != FixQuery.end()) {
        DBG_E("Elemento gia' presente, lo devo rimuovere!!\n");
        const QCMgr* replaced = present->second;
        FixQuery.erase(present);
        removeQueryAndUnheldEquals(replaced);
    }
    Queries.emplace_back(q);
    FixQuery[key] = &Queries.back();
    CurrFixQC = FixQuery.begin();
    return SUCC;
}

int QueuesMgr::DeRegisterElem(QCMgr& q) {
    const QMutexLocker locker(&mutexQ);
    const auto present = FixQuery.find(keyOf(q.QC));
    if (present != FixQuery.end()) {
        const QCMgr* element = present->second;
        if (element == currQC) {
            return FAIL;
        }
        FixQuery.erase(present);
        removeQuery(element);
        CurrFixQC = FixQuery.begin();
        return SUCC;
    }
    if (isPresentInDelayedQC(q.QC, FixQueue)) {
        return RemoveDelayedQC(q.QC, FixQueue);
    }
    DBG_E("L'elemento NON e'mai stato registrato\n");
    return FAIL;
}

bool QueuesMgr::peekFixQC(QCMgr*& pFixQC) {
    const QMutexLocker locker(&mutexQ);
    pFixQC = CurrFixQC == FixQuery.end() ? nullptr : CurrFixQC->second;
    return handOut(pFixQC);
}

bool QueuesMgr::fixRoundIsOver() {
    const QMutexLocker locker(&mutexQ);
    return CurrFixQC == FixQuery.end();
}

bool QueuesMgr::restartFixRound() {
    const QMutexLocker locker(&mutexQ);
    CurrFixQC = FixQuery.begin();
    return CurrFixQC != FixQuery.end();
}

void QueuesMgr::advanceFixQC() {
    const QMutexLocker locker(&mutexQ);
    if (CurrFixQC != FixQuery.end()) {
        ++CurrFixQC;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Asynchronous queries

int QueuesMgr::AddAsyncQC(QCMgr& q) {
    const QMutexLocker locker(&mutexQ);
    Queries.emplace_back(q);
    AsyncQC.enqueue(&Queries.back());
    return SUCC;
}

// It is the element with other parameters that goes; the one with equal parameters stays.
int QueuesMgr::RemoveAsyncQC(QCMgr& q) {
    const QMutexLocker locker(&mutexQ);
    int ret = FAIL;
    for (auto left = AsyncQC.size(); left > 0; --left) {
        QCMgr* element = AsyncQC.dequeue();
        if (sameCommand(element->QC, q.QC) && !sameParams(element->QC, q.QC)) {
            removeQuery(element);
            ret = SUCC;
        } else {
            AsyncQC.enqueue(element);
        }
    }
    RemoveDelayedQC(q.QC, AsyncQueue);
    return ret;
}

bool QueuesMgr::peekAsyncQC(QCMgr*& pAsyncQC) {
    const QMutexLocker locker(&mutexQ);
    pAsyncQC = AsyncQC.isEmpty() ? nullptr : AsyncQC.head();
    return handOut(pAsyncQC);
}

int QueuesMgr::headAsyncQC() {
    const QMutexLocker locker(&mutexQ);
    if (AsyncQC.isEmpty()) {
        DBG_E("coda vuota!!\n");
        return FAIL;
    }
    removeQuery(AsyncQC.dequeue());
    return SUCC;
}

int QueuesMgr::sizeAsyncQC() {
    const QMutexLocker locker(&mutexQ);
    return static_cast<int>(AsyncQC.size());
}

bool QueuesMgr::isPresentInAsyncQC(const pckStruct& query) {
    const QMutexLocker locker(&mutexQ);
    for (const QCMgr* element : std::as_const(AsyncQC)) {
        if (sameCommand(element->QC, query) && sameParams(element->QC, query)) {
            return true;
        }
    }
    return isPresentInDelayedQC(query, AsyncQueue);
}

// ---------------------------------------------------------------------------------------------------------------
// Delayed queries

bool QueuesMgr::peekDelayedQC(QCDelayed_t& delayed) {
    const QMutexLocker locker(&mutexQ);
    if (DelayedQC.isEmpty()) {
        return false;
    }
    delayed = DelayedQC.head();
    return true;
}

bool QueuesMgr::isPresentInDelayedQC(const pckStruct& query, QueueType Type) {
    for (const QCDelayed_t& delayed : std::as_const(DelayedQC)) {
        const pckStruct& element = delayed.QCwrong->QC;
        if (delayed.qType == Type && sameCommand(element, query) && sameParams(element, query)) {
            return true;
        }
    }
    return false;
}

// Parameters play no part here.
int QueuesMgr::RemoveDelayedQC(const pckStruct& query, QueueType Type) {
    int ret = FAIL;
    for (auto left = DelayedQC.size(); left > 0; --left) {
        const QCDelayed_t delayed = DelayedQC.dequeue();
        if (delayed.qType == Type && sameCommand(delayed.QCwrong->QC, query)) {
            removeQuery(delayed.QCwrong);
            ret = SUCC;
        } else {
            DelayedQC.enqueue(delayed);
        }
    }
    return ret;
}

void QueuesMgr::manageDelayedQC() {
    const QMutexLocker locker(&mutexQ);
    if (DelayedQC.isEmpty()) {
        DBG_E("GRAVE ERRORE, deve esserci un elemento!!\n");
        tmrRestore.stop();
        return;
    }
    const QCDelayed_t qDelayed = DelayedQC.dequeue();
    if (qDelayed.qType == AsyncQueue) {
        AsyncQC.enqueue(qDelayed.QCwrong);
    } else if (qDelayed.qType == FixQueue) {
        FixQuery[qDelayed.key] = qDelayed.QCwrong;
    } else {
        DBG_E("caso non contemplato!!\n");
    }
    const pckStruct& QC = qDelayed.QCwrong->QC;
    DBG_W("Ripristinato query %c%c su Add:%d tipo:%s rimangono %d elem\n", QC.MainCmd, QC.SubCmd, QC.Dest,
          qDelayed.qType != AsyncQueue ? "FIXED" : "ASYNC", static_cast<int>(DelayedQC.size()));
    if (DelayedQC.isEmpty()) {
        tmrRestore.stop();
        DBG_W(">>>>>>>>>>>>>>>>>>>FINE RIPRISTINO<<<<<<<<<<<<<<<<<<<<<<\n");
    }
}
