// The entry: arguments into globals, the system manager, and then sleep.
#include <QtCore/QThread>
#include <cstdlib>
#include <cstring>

#include "Common/Common.h"
#include "Common/Globals.h"
#include "Common/SysMgr.h"

namespace {

enum Argument_e { ARG_MODULEPORT = 1, ARG_BUSPORT, ARG_BAUDRATE, ARG_MODULEID, ARG_PLANTMASK, ARG_RUNMODE, ARG_COUNT };

constexpr int BASE_10 = 10;
constexpr unsigned long PLANTMASK_OFFSET = 1000;  // cabinet A's digit of the mask 1BCD
constexpr unsigned long LOOP_PACE = 1;            // s

constexpr struct {
    char id;
    uint8 address;
} moduleIds[] = {{'1', 0xEA}, {'2', 0xEB}, {'3', 0xEC}, {'4', 0xED}};

struct RunMode_t {
    const char* banner;
    const char* jsonPath;
    const char* jsonPathTMP;
};
constexpr RunMode_t realGatebox = {"Running on a real gatebox!\n", "/var/log/vu.json", "/var/log/vu.tmp"};
constexpr RunMode_t developmentChroot = {"Running on chroot...\n", "/home/gwdev/vu.json", "/home/gwdev/vu.tmp"};

// Own bus address of a module ID; only its first character counts. An unknown one leaves the address as it was.
uint8 addressOf(const char* moduleId, uint8 unknown) {
    for (const auto& known : moduleIds) {
        if (*moduleId == known.id) {
            return known.address;
        }
    }
    return unknown;
}

// The mask less its offset, in 16 bits: what doesn't fit wraps.
int16 parsePlantMask(const char* mask) {
    const unsigned long value = static_cast<unsigned long>(std::strtol(mask, nullptr, BASE_10));
    return static_cast<int16>(static_cast<uint16>(value - PLANTMASK_OFFSET));
}

constexpr bool isOdd(int digit) {
    return digit % 2 != 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    logSecure();
    logText("*** UGW modbus 485 ***\n");
    logText("%s / %s\n", build_date, build_git_sha);
    if (argc < ARG_COUNT) {
        DBG_E(
            "Missing parameter, #1 Device port name, #2 CABP port name, #2 baud rate, #3 module ID #4 maschera "
            "configurazione #5 true if on real gatebox\n");
        return -1;
    }
    serialPort = argv[ARG_MODULEPORT];
    serialPortCABP = argv[ARG_BUSPORT];
    deviceBaudRate = static_cast<int>(std::strtol(argv[ARG_BAUDRATE], nullptr, BASE_10));
    CABPAddr = addressOf(argv[ARG_MODULEID], CABPAddr);

    const int16 sysCfg = parsePlantMask(argv[ARG_PLANTMASK]);
    if (sysCfg < 0) {
        DBG_E("Invalid system configuration: %d", sysCfg);
        return -1;
    }
    moduleDpresent = isOdd(sysCfg);
    moduleCpresent = isOdd(sysCfg / 10);
    moduleBpresent = isOdd(sysCfg / 100);

    const RunMode_t& mode = std::strcmp(argv[ARG_RUNMODE], "true") == 0 ? realGatebox : developmentChroot;
    logText("%s", mode.banner);
    jsonPath = mode.jsonPath;
    jsonPathTMP = mode.jsonPathTMP;

    // It makes itself known as pSysMgr before its threads start, which read that without a lock.
    const SystemMgr* const system = new SystemMgr;
    while (!needRestart) {
        QThread::sleep(LOOP_PACE);
    }
    DBG_P("bye bye\n");
    delete system;
    return 0;
}
