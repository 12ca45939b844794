// A card in a plant of cabinets: the globals of the command line, the bus port on a fake line, the status file in a
// directory of the test's own, the tree in fake shared memory, and the real system manager above all that. The bus
// thread is there but isn't started: the test turns it itself, on its own thread and in virtual time.
//
//     Plant plant;                              // card A of four cabinets, master
//     plant.registerAll();                      // as the bus thread does when it starts
//     plant.line().expect(...).reply(...);
//     plant.bus().StateMachine();
//     EXPECT_EQ(plant.in().state, Master);
//
// While it lives no bus or module thread is started by QThread::start unless the test asks for it; other threads, such
// as the single-shot queries, are. At its end the orderly stop runs. Log lines of its beginning and its end are kept
// from stderr unless the test fails.
#ifndef TESTS_SUPPORT_PLANT_H
#define TESTS_SUPPORT_PLANT_H

#include <memory>
#include <string>

#include "CABP/ThreadCABP.h"
#include "Common/SysMgr.h"
#include "MLINK/ThreadMLINK.h"
#include "Measure/VirtualUPSMgr.h"
#include "support/BusThread.h"
#include "support/FakeLine.h"
#include "support/FakeShm.h"
#include "support/LinkThreads.h"
#include "support/ModuleThread.h"
#include "support/ScratchDir.h"

namespace support {

class Plant {
  public:
    static constexpr const char* BUSPORT = "/dev/ttyBUS";
    static constexpr const char* MODULEPORT = "/dev/ttyMOD";

    struct Options {
        std::uint8_t own = 0xEA;     ///< address of this card; 0xE0 for one whose module ID was none of the plant's
        std::string boxes = "ABCD";  ///< cabinets of the plant; A belongs to it in any case
        int peerBaud = 9600;         ///< speed of the other nodes; 0: what they send is there at once
        bool hasPort = true;         ///< false: the bus port can't be opened
        bool hasTree = true;         ///< false: the tree can't be built
        bool hasModulePort = false;  ///< the module port is a fake line too; otherwise it can't be opened
        int moduleBaud = 9600;       ///< of the module port, both ends
    };
    explicit Plant(const Options& options);
    explicit Plant(std::uint8_t own = 0xEA, const std::string& boxes = "ABCD");
    ~Plant();
    Plant(const Plant&) = delete;
    Plant& operator=(const Plant&) = delete;

    /// SystemMgr::RegisterAll, without its log lines. Tests of these call sys().RegisterAll() themselves.
    void registerAll();
    /// Ends the card before the plant's own end, log lines and all.
    void stop();

    SystemMgr& sys() { return *sys_; }
    CABPMgr& bus() { return *sys_->pThCABP; }
    /// What the bus thread keeps to itself.
    BusThread& in() { return *in_; }
    MLINKMgr& link() { return *sys_->pThMLink; }
    /// What the module thread keeps to itself.
    ModuleThread& inLink() { return *inLink_; }
    PlantCfg& cfg() { return sys_->Cfg; }
    /// The other end of the bus.
    FakeLine& line() { return *line_; }
    /// The other end of the module line, where the card has one.
    FakeLine& moduleLine() { return *moduleLine_; }
    FakeShm& shm() { return shm_; }
    ScratchDir& dir() { return dir_; }
    LinkThreads& threads() { return threads_; }

    // After registerAll.
    VirtualUPSMgr& tree() { return *sys_->pVirtualUPSMgr; }
    bool hasTree() const { return sys_->pVirtualUPSMgr != nullptr && sys_->pVirtualUPSMgr->virtualUPS != nullptr; }
    virtualNode_t& root() { return *tree().virtualUPS; }
    /// Node of the cabinet 'A' to 'D', of its module; throws where there is none.
    virtualNode_t& box(char letter);
    virtualNode_t& module(char letter);
    upsBoxQueriesData_t& data(char letter) { return bus().upsBox[letter - 'A']; }
    commStatus_t& comm(char letter) { return data(letter).MCUcommStatus; }
    ModuleQueriesData_t& slot(char letter) { return link().ModulesData[letter - 'A'][0]; }

  private:
    virtualNode_t& nodeAt(const std::string& path);

    ScratchDir dir_{"UGW"};
    FakeShm shm_;
    LinkThreads threads_;
    std::unique_ptr<FakeLine> line_;
    std::unique_ptr<FakeLine> moduleLine_;
    std::string port_;
    std::string modulePort_;
    std::string json_;
    std::string jsonTmp_;
    std::unique_ptr<SystemMgr> sys_;
    std::unique_ptr<BusThread> in_;
    std::unique_ptr<ModuleThread> inLink_;
};

}  // namespace support

#endif
