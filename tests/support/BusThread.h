// What the bus thread keeps to itself, for its tests: references to the protected members of a CABPMgr and of its
// bases.
//
//     BusThread in(plant.bus());
//     EXPECT_EQ(in.state, Master);
//     EXPECT_EQ(in.FixQuery.size(), 8U);
#ifndef TESTS_SUPPORT_BUSTHREAD_H
#define TESTS_SUPPORT_BUSTHREAD_H

#include "CABP/ThreadCABP.h"

namespace support {

class BusThread {
    // The way in. No object of this class ever exists: a pointer to a member that is named through a derived class
    // still points into the base.
    struct Members : CABPMgr {
        using CABPMgr::AsyncQC;
        using CABPMgr::channelHeldByRole;
        using CABPMgr::cntpckUnverified;
        using CABPMgr::CurrFixQC;
        using CABPMgr::currPckStr;
        using CABPMgr::currQC;
        using CABPMgr::DelayedQC;
        using CABPMgr::dipSwBoxType;
        using CABPMgr::epochWhenClockChanged;
        using CABPMgr::errorCntTimeCleread;
        using CABPMgr::FixQuery;
        using CABPMgr::FixQueryMap;
        using CABPMgr::forcedOnBypass;
        using CABPMgr::guiForcedOnBypass;
        using CABPMgr::lastAdj;
        using CABPMgr::lastErrStr;
        using CABPMgr::lastTime;
        using CABPMgr::mutexCABPChannel;
        using CABPMgr::mutexCABPData;
        using CABPMgr::mutexClk;
        using CABPMgr::mutexForcedonBypass;
        using CABPMgr::mutexQ;
        using CABPMgr::mutexState;
        using CABPMgr::prevdelta;
        using CABPMgr::Queries;
        using CABPMgr::state;
        using CABPMgr::stopped;
        using CABPMgr::sys;
        using CABPMgr::timeWasMaster;
        using CABPMgr::unknownDevPresent;
        using CABPMgr::userBoxType;
        using CABPMgr::userCABPAddr;
    };

  public:
    explicit BusThread(CABPMgr& bus) : bus_(bus) {}

    /// Whether nobody holds the right to transmit right now.
    bool channelIsFree() {
        if (!mutexCABPChannel->tryLock()) {
            return false;
        }
        mutexCABPChannel->unlock();
        return true;
    }
    /// The fixed query at which the walk stands, as "BS EA"; "end" behind the last.
    std::string walkStandsAt() {
        if (CurrFixQC == FixQuery.end()) {
            return "end";
        }
        const pckStruct& QC = CurrFixQC->second->QC;
        return QString::asprintf("%c%c %02X", QC.MainCmd, QC.SubCmd, QC.Dest).toStdString();
    }

  private:
    CABPMgr& bus_;

  public:
    myMutex*& mutexForcedonBypass = bus_.*&Members::mutexForcedonBypass;
    int& forcedOnBypass = bus_.*&Members::forcedOnBypass;
    int& guiForcedOnBypass = bus_.*&Members::guiForcedOnBypass;
    std::atomic<virtualUPS_t>& sys = bus_.*&Members::sys;
    myMutex*& mutexState = bus_.*&Members::mutexState;
    myMutex*& mutexCABPChannel = bus_.*&Members::mutexCABPChannel;
    myMutex*& mutexCABPData = bus_.*&Members::mutexCABPData;
    std::atomic<CABP_status_e>& state = bus_.*&Members::state;
    std::atomic<bool>& stopped = bus_.*&Members::stopped;
    uint8& cntpckUnverified = bus_.*&Members::cntpckUnverified;
    std::atomic<time_t>& timeWasMaster = bus_.*&Members::timeWasMaster;
    bool& unknownDevPresent = bus_.*&Members::unknownDevPresent;
    uint16& dipSwBoxType = bus_.*&Members::dipSwBoxType;
    uint8& userCABPAddr = bus_.*&Members::userCABPAddr;
    UPS_Type_e& userBoxType = bus_.*&Members::userBoxType;
    struct timespec& lastTime = bus_.*&Members::lastTime;
    QString& currPckStr = bus_.*&Members::currPckStr;
    QString& lastErrStr = bus_.*&Members::lastErrStr;
    std::atomic<time_t>& errorCntTimeCleread = bus_.*&Members::errorCntTimeCleread;
    bool& channelHeldByRole = bus_.*&Members::channelHeldByRole;
    Members::FixQueryMap& FixQuery = bus_.*&Members::FixQuery;
    Members::FixQueryMap::iterator& CurrFixQC = bus_.*&Members::CurrFixQC;
    QQueue<QCMgr*>& AsyncQC = bus_.*&Members::AsyncQC;
    QQueue<QCDelayed_t>& DelayedQC = bus_.*&Members::DelayedQC;
    QMutex& mutexQ = bus_.*&Members::mutexQ;
    std::list<QCMgr>& Queries = bus_.*&Members::Queries;
    QCMgr*& currQC = bus_.*&Members::currQC;
    myMutex*& mutexClk = bus_.*&Members::mutexClk;
    time_t& epochWhenClockChanged = bus_.*&Members::epochWhenClockChanged;
    time_t& lastAdj = bus_.*&Members::lastAdj;
    int32& prevdelta = Members::prevdelta;
};

}  // namespace support

#endif
