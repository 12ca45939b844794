// The queues of a plant's card as texts that a test can compare, and the lock of its data.
#ifndef TESTS_UNIT_CABP_QUEUES_H
#define TESTS_UNIT_CABP_QUEUES_H

#include <cstdio>
#include <string>

#include "support/Plant.h"

namespace queues {

using support::Plant;

// "BS>EA BN>EB": the queries in the order of the queue.
inline std::string text(const QCMgr& elem) {
    char shown[16];
    std::snprintf(shown, sizeof(shown), "%c%c>%02X", elem.QC.MainCmd, elem.QC.SubCmd, elem.QC.Dest);
    return shown;
}
inline std::string fixedQueries(Plant& plant) {
    std::string all;
    for (const auto& each : plant.in().FixQuery) {
        all += (all.empty() ? "" : " ") + text(*each.second);
    }
    return all;
}
inline std::string asyncQueries(Plant& plant) {
    std::string all;
    for (const QCMgr* each : plant.in().AsyncQC) {
        all += (all.empty() ? "" : " ") + text(*each);
    }
    return all;
}

inline bool dataLockIsFree(Plant& plant) {
    const bool isFree = plant.in().mutexCABPData->tryLock();
    if (isFree) {
        plant.in().mutexCABPData->unlock();
    }
    return isFree;
}

}  // namespace queues

#endif
