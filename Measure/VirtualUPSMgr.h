// Builds the tree of the plant in shared memory and removes it at the end.
#ifndef MEASURE_VIRTUALUPSMGR_H
#define MEASURE_VIRTUALUPSMGR_H

#include <sys/ipc.h>

#include "Common/VirtualUPSTypes.h"
#include "Config/SysCfgMgr.h"

/// Pid of a child process virtualUPS; nothing in this system starts one, so it stays -1.
extern int virtualUPS_PID;

constexpr int INDENT = 8;  // blanks per level of the printed tree

class VirtualUPSMgr {
  public:
    /// Builds the tree under the key of "./UGW"; a failure is logged and leaves `virtualUPS` null.
    explicit VirtualUPSMgr(PlantCfg& Cfg);
    /// Stops a child, removes the segment (see destroyShm for how long that may take).
    ~VirtualUPSMgr();
    VirtualUPSMgr(const VirtualUPSMgr&) = delete;
    VirtualUPSMgr& operator=(const VirtualUPSMgr&) = delete;

    /// Node by path, or null.
    virtualNode_t* searchNode(const char* str);

    virtualUPS_t virtualUPS;  // node 0 in this process, null without a tree
    int shm_id;               // negative when the build failed

  private:
    int buildSysTree(key_t shm_key, PlantCfg& Cfg);
    void InitNode(virtualNode_t* node);
    void printNode(uint8 level, virtualNode_t* node);

    int nodeCount;  // nodes of the tree; no link beyond them is followed
};

#endif
