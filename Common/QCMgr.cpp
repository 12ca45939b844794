// The query object and the error counting.
#include <cstdlib>
#include <cstring>

#include "Common/LogStep.h"
#include "Common/QueuesMgr.h"

namespace {

constexpr int GOOD_INTERVAL_S = 30;  // the score falls once in more than this

// A copy from malloc, or null with its line in the log: where there is no memory, or no bytes to copy.
void* copyOf(const void* bytes, std::size_t size) {
    if (bytes == nullptr) {
        DBG_E_OF("QCMgr", "nessun byte da copiare, attesi:%d\n", static_cast<int>(size));
        return nullptr;
    }
    void* copy = std::malloc(size);
    if (copy == nullptr) {
        DBG_E_OF("QCMgr", "malloc fallita!!\n");
        return nullptr;
    }
    std::memcpy(copy, bytes, size);
    return copy;
}

}  // namespace

QCMgr::QCMgr(const pckStruct& query, BuildQuery_t BUS_BuildQuery, uint16 replyDataLen)
    : QC(query), pckQuery(nullptr), pckReply(nullptr), buildQueryLen(0), expectedReplyLen(0), pCommStatus(nullptr) {
    const QMutexLocker locker(&mutexPck);
    QC.pParam = query.ParamLen != 0 ? copyOf(query.pParam, query.ParamLen) : nullptr;
    buildQueryLen = BUS_BuildQuery(query, pckQuery);
    // The frame's overhead stays the same, the query's data is replaced by the reply's.
    expectedReplyLen = static_cast<uint16>(buildQueryLen + replyDataLen - query.ParamLen);
    pckReply = static_cast<uint8*>(std::calloc(expectedReplyLen, 1));
    if (pckReply == nullptr) {
        DBG_E("malloc fallita!!\n");
    }
}

QCMgr::QCMgr(const QCMgr& other)
    : QC(other.QC),
      pckQuery(nullptr),
      pckReply(nullptr),
      buildQueryLen(other.buildQueryLen),
      expectedReplyLen(other.expectedReplyLen),
      pCommStatus(other.pCommStatus) {
    const QMutexLocker locker(&mutexPck);
    QC.pParam = other.QC.ParamLen != 0 ? copyOf(other.QC.pParam, other.QC.ParamLen) : nullptr;
    if (other.pckQuery != nullptr) {
        pckQuery = static_cast<uint8*>(copyOf(other.pckQuery, other.buildQueryLen));
    }
    if (other.pckReply != nullptr) {
        pckReply = static_cast<uint8*>(copyOf(other.pckReply, other.expectedReplyLen));
    }
}

QCMgr::~QCMgr() {
    // Released before the mutex itself goes.
    const QMutexLocker locker(&mutexPck);
    if (QC.ParamLen != 0) {
        if (QC.pParam != nullptr) {
            std::free(QC.pParam);
            QC.pParam = nullptr;
            QC.ParamLen = 0;
        } else {
            DBG_E("freeError pParam\n");
        }
    }
    if (pckQuery != nullptr) {
        std::free(pckQuery);
        pckQuery = nullptr;
    }
    if (pckReply != nullptr) {
        std::free(pckReply);
        pckReply = nullptr;
        expectedReplyLen = 0;
    }
}

QCMgr& QCMgr::operator=(const QCMgr& other) {
    QC.Dest = other.QC.Dest;
    QC.MainCmd = other.QC.MainCmd;
    QC.SubCmd = other.QC.SubCmd;
    QC.pParam = other.QC.pParam;
    QC.ParamLen = other.QC.ParamLen;
    pckQuery = other.pckQuery;
    pckReply = other.pckReply;
    expectedReplyLen = other.expectedReplyLen;
    pCommStatus = other.pCommStatus;
    return *this;
}

bool QCMgr::operator==(const QCMgr& other) const {
    return QC.Dest == other.QC.Dest && QC.MainCmd == other.QC.MainCmd && QC.SubCmd == other.QC.SubCmd &&
           QC.ParamLen == other.QC.ParamLen && QC.pParam == other.QC.pParam;
}

void incErrorPck(commStatus_t* pCommSt, int limit) {
    const bool previousWasGood = pCommSt->lastPckGood != 0;
    const int score = pCommSt->errorPck + limit / 2;
    if (score < limit) {
        pCommSt->errorPck = score;
    } else {
        pCommSt->errorPck = previousWasGood ? limit - 1 : limit;
    }
    pCommSt->lastPckGood = 0;
}

void decErrorPck(commStatus_t* pCommSt) {
    const time32_t now = NOW();
    if (ageOf(now, pCommSt->lastPckGood) > GOOD_INTERVAL_S) {
        pCommSt->errorPck = MAX<int32>(pCommSt->errorPck - 1, 0);
        pCommSt->lastPckGood = now;
    }
    pCommSt->isGood = true;
}
