// The spine of the process: owns the configuration, the link threads, the tree and the lock of command sequences.
#ifndef COMMON_SYSMGR_H
#define COMMON_SYSMGR_H

#include <atomic>

#include "Common/Globals.h"
#include "Common/myMutex.h"
#include "Config/SysCfgMgr.h"

class CABPMgr;
class MLINKMgr;
class VirtualUPSMgr;

class SystemMgr : public SysCfgMgr {
  public:
    /// Sets pSysMgr, opens the ports and starts the bus thread.
    SystemMgr();
    /// The orderly stop: threads, registrations, queues, tree, objects. Waits for the threads without limit.
    ~SystemMgr();
    SystemMgr(const SystemMgr&) = delete;
    SystemMgr& operator=(const SystemMgr&) = delete;

    /// First act of the bus thread: builds the tree and registers the plant.
    void RegisterAll();
    /// Undoes RegisterAll; the bus thread has ended.
    void DeRegisterAll();
    /// Finds the cabinet that is bus master and reachable; the lowest letter wins. 0, or -1 with `boxId` 4. Takes no
    /// lock: it is called with mutexCABPData held.
    int searchMaster(uint8& boxId, uint8& upsId);

    MLINKMgr* pThMLink;                  // owned
    CABPMgr* pThCABP;                    // owned
    myMutex* mutexQCSeq;                 // owned; held for the length of a command of several steps
    VirtualUPSMgr* pVirtualUPSMgr;       // null until RegisterAll and again after DeRegisterAll
    int build;                           // firmware build that CN frames carry; always -1
    std::atomic<uint8> cntForSameBuild;  // CN frames of the same build still to come before builds count as alike

  private:
    void startThreads();
    void leaveModuleOut(int boxId);
};

#endif
