#include "support/Plant.h"

#include <signal.h>

#include <cerrno>
#include <stdexcept>

#include "support/LogCapture.h"
#include "support/Replaced.h"

namespace support {
namespace {

Plant::Options optionsOf(std::uint8_t own, const std::string& boxes) {
    Plant::Options options;
    options.own = own;
    options.boxes = boxes;
    return options;
}

}  // namespace

Plant::Plant(std::uint8_t own, const std::string& boxes) : Plant(optionsOf(own, boxes)) {}

Plant::Plant(const Options& options)
    : port_(options.hasPort ? BUSPORT : "/dev/ttyThatIsNotThere"),
      modulePort_(options.hasModulePort ? MODULEPORT : "/dev/ttyNoModule"),
      json_(dir_.path("vu.json")),
      jsonTmp_(dir_.path("vu.tmp")) {
    if (options.hasPort) {
        line_ = std::make_unique<FakeLine>(BUSPORT, options.peerBaud);
    }
    if (options.hasModulePort) {
        moduleLine_ = std::make_unique<FakeLine>(MODULEPORT, options.moduleBaud);
    }
    if (options.hasModulePort || serialPort == nullptr) {  // or the test has a line of its own
        serialPort = modulePort_.c_str();
    }
    deviceBaudRate = options.moduleBaud;
    errnoMLink = 0;
    if (!options.hasTree) {
        replaced::shmget().fails(ENOSPC);
    }
    CABPAddr = options.own;
    serialPortCABP = port_.c_str();
    jsonPath = json_.c_str();
    jsonPathTMP = jsonTmp_.c_str();
    moduleBpresent = options.boxes.find('B') != std::string::npos;
    moduleCpresent = options.boxes.find('C') != std::string::npos;
    moduleDpresent = options.boxes.find('D') != std::string::npos;
    LastMaster = GROUPMASTER;
    errnoCABP = 0;
    cntBreakDetect = 0;
    const LogCapture quiet;
    sys_ = std::make_unique<SystemMgr>();
    in_ = std::make_unique<BusThread>(bus());
    inLink_ = std::make_unique<ModuleThread>(link());
}

Plant::~Plant() {
    const LogCapture quiet;
    stop();
    signal(SIGINT, SIG_DFL);
    serialPortCABP = nullptr;
    serialPort = nullptr;
    deviceBaudRate = 1200;
    jsonPath = nullptr;
    jsonPathTMP = nullptr;
    CABPAddr = GROUPMASTER;
}

void Plant::registerAll() {
    const LogCapture quiet;
    sys_->RegisterAll();
}

void Plant::stop() {
    in_.reset();
    inLink_.reset();
    sys_.reset();
    pSysMgr = nullptr;
}

virtualNode_t& Plant::box(char letter) {
    return nodeAt(std::string("S") + boxLetter(CABPAddr) + ".B" + letter);
}

virtualNode_t& Plant::module(char letter) {
    return nodeAt(std::string("S") + boxLetter(CABPAddr) + ".B" + letter + ".M1");
}

virtualNode_t& Plant::nodeAt(const std::string& path) {
    virtualNode_t* const node = tree().searchNode(path.c_str());
    if (node == nullptr) {
        throw std::logic_error("no node " + path);
    }
    return *node;
}

}  // namespace support
