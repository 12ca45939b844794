// What the module thread keeps to itself, for its tests: references to the protected members of a MLINKMgr and of its
// bases, and its protected steps.
#ifndef TESTS_SUPPORT_MODULETHREAD_H
#define TESTS_SUPPORT_MODULETHREAD_H

#include <string>
#include <vector>

#include "MLINK/ThreadMLINK.h"

namespace support {

class ModuleThread {
    // The way in. No object of this class ever exists: a pointer to a member that is named through a derived class
    // still points into the base.
    struct Members : MLINKMgr {
        using MLINKMgr::AggregateUPS;
        using MLINKMgr::AsyncQC;
        using MLINKMgr::CurrFixQC;
        using MLINKMgr::DelayedQC;
        using MLINKMgr::FixQuery;
        using MLINKMgr::FixQueryMap;
        using MLINKMgr::iteration;
        using MLINKMgr::lastidu;
        using MLINKMgr::lastTime;
        using MLINKMgr::mutexMLinkChannel;
        using MLINKMgr::mutexMLinkData;
        using MLINKMgr::mutexState;
        using MLINKMgr::Queries;
        using MLINKMgr::requestHALT;
        using MLINKMgr::requestUnlockIdlePending;
        using MLINKMgr::state;
        using MLINKMgr::stopped;
        using MLINKMgr::thID;
    };

  public:
    explicit ModuleThread(MLINKMgr& link) : link_(link) {}

    /// Whether nobody holds the line, or the data, right now.
    bool channelIsFree() { return isFree(*mutexMLinkChannel); }
    bool dataAreFree() { return isFree(*mutexMLinkData); }
    /// The fixed query at which the walk stands, as "RS"; "end" behind the last.
    std::string walkStandsAt() { return CurrFixQC == FixQuery.end() ? "end" : nameOf(*CurrFixQC->second); }
    /// The queues' queries, as "GI", in order.
    std::vector<std::string> async() {
        std::vector<std::string> names;
        for (const QCMgr* query : AsyncQC) {
            names.push_back(nameOf(*query));
        }
        return names;
    }
    std::vector<std::string> fixed() {
        std::vector<std::string> names;
        for (const auto& entry : FixQuery) {
            names.push_back(nameOf(*entry.second));
        }
        return names;
    }
    /// One aggregation of the row of the cabinet 'A' to 'D'.
    void aggregate(char letter) { (link_.*&Members::AggregateUPS)(&link_.ModulesData[letter - 'A']); }

  private:
    static std::string nameOf(const QCMgr& query) {
        return {static_cast<char>(query.QC.MainCmd), static_cast<char>(query.QC.SubCmd)};
    }
    static bool isFree(myMutex& mutex) {
        if (!mutex.tryLock()) {
            return false;
        }
        mutex.unlock();
        return true;
    }
    MLINKMgr& link_;

  public:
    std::atomic<bool>& requestHALT = link_.*&Members::requestHALT;
    std::atomic<int>& thID = link_.*&Members::thID;
    std::atomic<int32>& iteration = link_.*&Members::iteration;
    std::atomic<bool>& stopped = link_.*&Members::stopped;
    myMutex*& mutexState = link_.*&Members::mutexState;
    myMutex*& mutexMLinkChannel = link_.*&Members::mutexMLinkChannel;
    myMutex*& mutexMLinkData = link_.*&Members::mutexMLinkData;
    std::atomic<MLink_status_e>& state = link_.*&Members::state;
    std::atomic<bool>& requestUnlockIdlePending = link_.*&Members::requestUnlockIdlePending;
    uint8& lastidu = link_.*&Members::lastidu;
    struct timespec& lastTime = link_.*&Members::lastTime;
    Members::FixQueryMap& FixQuery = link_.*&Members::FixQuery;
    Members::FixQueryMap::iterator& CurrFixQC = link_.*&Members::CurrFixQC;
    QQueue<QCMgr*>& AsyncQC = link_.*&Members::AsyncQC;
    QQueue<QCDelayed_t>& DelayedQC = link_.*&Members::DelayedQC;
    std::list<QCMgr>& Queries = link_.*&Members::Queries;
};

}  // namespace support

#endif
