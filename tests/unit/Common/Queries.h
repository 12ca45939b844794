// Queries for the tests of the queues: short descriptions that own their parameters, and a frame builder.
#ifndef TESTS_UNIT_COMMON_QUERIES_H
#define TESTS_UNIT_COMMON_QUERIES_H

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "Common/QueuesMgr.h"

using Params = std::vector<uint8>;

constexpr std::size_t OVERHEAD = 10;  // bytes of a frame besides its data

/// Commands, then the parameters; the rest of the frame is 0xEE.
inline uint16 buildFrame(const pckStruct& query, uint8*& frame) {
    const std::size_t length = OVERHEAD + query.ParamLen;
    frame = static_cast<uint8*>(std::malloc(length));
    if (frame != nullptr) {
        std::memset(frame, 0xEE, length);
        frame[0] = query.MainCmd;
        frame[1] = query.SubCmd;
        if (query.ParamLen != 0 && query.pParam != nullptr) {
            std::memcpy(frame + 2, query.pParam, query.ParamLen);
        }
    }
    return static_cast<uint16>(length);
}

/// A builder that has no memory for its frame.
inline uint16 buildNothing(const pckStruct&, uint8*& frame) {
    frame = nullptr;
    return 0;
}

/// A description together with the bytes it borrows.
class Description {
  public:
    Description(uint8 dest, const char* commands, Params params = {}, uint8 src = 0xEA) : params_(std::move(params)) {
        query_.Src = src;
        query_.Dest = dest;
        query_.MainCmd = static_cast<uint8>(commands[0]);
        query_.SubCmd = static_cast<uint8>(commands[1]);
        query_.pParam = params_.empty() ? nullptr : params_.data();
        query_.ParamLen = static_cast<uint16>(params_.size());
    }
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;

    pckStruct& operator*() { return query_; }
    pckStruct* operator->() { return &query_; }

  private:
    Params params_;
    pckStruct query_;
};

/// The query object of a description.
inline QCMgr query(uint8 dest, const char* commands, Params params = {}, commStatus_t* status = nullptr) {
    Description description(dest, commands, std::move(params));
    QCMgr made(*description, buildFrame, 4);
    made.pCommStatus = status;
    return made;
}

/// "BS" or "BS(1,2)"
inline std::string nameOf(const QCMgr& element) {
    std::string name = {static_cast<char>(element.QC.MainCmd), static_cast<char>(element.QC.SubCmd)};
    const uint8* params = static_cast<const uint8*>(element.QC.pParam);
    for (int i = 0; i < element.QC.ParamLen; ++i) {
        name += (i == 0 ? "(" : ",") + std::to_string(params[i]);
    }
    return element.QC.ParamLen == 0 ? name : name + ")";
}

/// A manager whose inside is open.
class OpenQueues : public QueuesMgr {
  public:
    OpenQueues() : QueuesMgr(nullptr) {}
    using QueuesMgr::advanceFixQC;
    using QueuesMgr::AsyncQC;
    using QueuesMgr::CurrFixQC;
    using QueuesMgr::currQC;
    using QueuesMgr::DelayedQC;
    using QueuesMgr::FixQuery;
    using QueuesMgr::fixRoundIsOver;
    using QueuesMgr::isKeyPresent;
    using QueuesMgr::isPresentInDelayedQC;
    using QueuesMgr::keyOf;
    using QueuesMgr::mutexQ;
    using QueuesMgr::Queries;
    using QueuesMgr::RemoveDelayedQC;
    using QueuesMgr::restartFixRound;
    using QueuesMgr::sizeAsyncQC;
    using QueuesMgr::tmrRestore;

    // By value, since the operations take what is passed by reference and keep a copy.
    int addFixed(QCMgr q) { return RegisterElem(q); }
    int removeFixed(QCMgr q) { return DeRegisterElem(q); }
    int addAsync(QCMgr q) { return AddAsyncQC(q); }
    int removeAsync(QCMgr q) { return RemoveAsyncQC(q); }
    QCMgr* peekFix() {
        QCMgr* element = nullptr;
        peekFixQC(element);
        return element;
    }
    QCMgr* peekAsync() {
        QCMgr* element = nullptr;
        peekAsyncQC(element);
        return element;
    }

    /// Puts a query of its own into the waiting room.
    QCMgr* delay(QCMgr q, QueueType type) {
        Queries.emplace_back(q);
        DelayedQC.enqueue({&Queries.back(), type, keyOf(q.QC)});
        return &Queries.back();
    }
    /// Takes a fixed query out of circulation.
    void delayFixed(uint32 key) {
        DelayedQC.enqueue({FixQuery.at(key), FixQueue, key});
        FixQuery.erase(key);
        CurrFixQC = FixQuery.begin();
    }
    /// Takes the head of the asynchronous queue out of circulation.
    void delayAsync() { DelayedQC.enqueue({AsyncQC.dequeue(), AsyncQueue, 0}); }

    std::vector<std::string> fixed() const {
        std::vector<std::string> names;
        for (const auto& entry : FixQuery) {
            names.push_back(std::to_string(entry.second->QC.Dest) + ":" + nameOf(*entry.second));
        }
        return names;
    }
    std::vector<std::string> async() const {
        std::vector<std::string> names;
        for (const QCMgr* element : AsyncQC) {
            names.push_back(nameOf(*element));
        }
        return names;
    }
    std::vector<std::string> delayed() const {
        std::vector<std::string> names;
        for (const QCDelayed_t& entry : DelayedQC) {
            names.push_back(nameOf(*entry.QCwrong) + (entry.qType == AsyncQueue ? " async" : " fixed"));
        }
        return names;
    }
    bool owns(const QCMgr* element) const {
        for (const QCMgr& own : Queries) {
            if (&own == element) {
                return true;
            }
        }
        return false;
    }
};

#endif
