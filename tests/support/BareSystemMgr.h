// A system manager without threads, ports, tree and locks, for tests of units that reach it through pSysMgr. Its
// configuration is that of the command line's flags (moduleBpresent and its sisters) at construction. What a test needs
// beyond the configuration it hangs in itself, and owns.
#ifndef TESTS_SUPPORT_BARESYSTEMMGR_H
#define TESTS_SUPPORT_BARESYSTEMMGR_H

#include <cstring>
#include <new>

#include "Common/SysMgr.h"

namespace support {

class BareSystemMgr {
  public:
    BareSystemMgr() {
        std::memset(static_cast<void*>(storage_), 0, sizeof(storage_));
        new (storage_) SysCfgMgr;
        pSysMgr = &get();
        get().build = -1;
        get().cntForSameBuild = 2;
    }
    ~BareSystemMgr() { pSysMgr = nullptr; }
    BareSystemMgr(const BareSystemMgr&) = delete;
    BareSystemMgr& operator=(const BareSystemMgr&) = delete;

    SystemMgr& get() { return *std::launder(static_cast<SystemMgr*>(static_cast<void*>(storage_))); }
    SystemMgr* operator->() { return &get(); }

  private:
    alignas(SystemMgr) unsigned char storage_[sizeof(SystemMgr)];
};

}  // namespace support

#endif
