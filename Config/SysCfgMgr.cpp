#include "Config/SysCfgMgr.h"

#include <algorithm>
#include <cstring>

#include "Common/Globals.h"
#include "Common/SysMgr.h"

namespace {

constexpr uint16 OPTCOM_MASK = 0x0700;  // option board bits of word53
constexpr uint16 OPTCOM_A = 0x0600;
constexpr uint16 OPTCOM_B = 0x0700;
constexpr uint16 OPTCOM_C = 0x0500;
constexpr uint16 OPTCOM_NONE = 0x0000;
constexpr uint16 NOFREQCONV_MASK = 0x0100;    // word52
constexpr uint16 WITHOUTBATT_MASK = 0x1000;   // word52
constexpr uint16 ENERGYSAVING_MASK = 0x8000;  // word52
constexpr uint16 PARALLELINK_MASK = 0x0400;   // word28
constexpr uint16 EXTSYNC_FREE_MASK = 0x2000;  // word28
constexpr uint16 EXTSYNC_MASK = 0x0020;       // word29

// Board types as a controller board reports them; any other is a PowerBox.
constexpr uint16 BOARD_POWER25KBOX = 0;
constexpr uint16 BOARD_COMBOBOX = 3;

constexpr bool allSet(uint16 word, uint16 mask) {
    return (word & mask) == mask;
}

const PlantCfg& runningCfg() {
    return pSysMgr->Cfg;
}

bool isOptCom(uint16 board) {
    return (runningCfg().word53 & OPTCOM_MASK) == board;
}

int modulesOfType(UPS_Type_e type) {
    switch (type) {
        case ComboBox:
            return MAXUPSxCOMBOBOX;
        case Power25kBox:
            return MAXUPSx25kBOX;
        default:
            return MAXUPSxUPSBOX;
    }
}

UPS_Type_e typeOfBoard(uint16 board) {
    switch (board) {
        case BOARD_POWER25KBOX:
            return Power25kBox;
        case BOARD_COMBOBOX:
            return ComboBox;
        default:
            return PowerBox;
    }
}

}  // namespace

bool ISNTFREQCONV() {
    return (runningCfg().word52 & NOFREQCONV_MASK) == 0;
}

bool ISFREQCONV() {
    return !ISNTFREQCONV();
}

bool ISENERGYSAVINGACTIVE() {
    return allSet(runningCfg().word52, ENERGYSAVING_MASK);
}

bool ISOPTCOMA() {
    return isOptCom(OPTCOM_A);
}

bool ISOPTCOMB() {
    return isOptCom(OPTCOM_B);
}

bool ISOPTCOMC() {
    return isOptCom(OPTCOM_C);
}

bool ISOPTCOM_NONE() {
    return isOptCom(OPTCOM_NONE);
}

bool WITHOUTBATTERY() {
    return allSet(runningCfg().word52, WITHOUTBATT_MASK);
}

bool WITHPARALLELINK() {
    return allSet(runningCfg().word28, PARALLELINK_MASK);
}

bool EXTSYNC_MODEFIXED() {
    return allSet(runningCfg().word29, EXTSYNC_MASK) && (runningCfg().word28 & EXTSYNC_FREE_MASK) == 0;
}

SysCfgMgr::SysCfgMgr() : numUPS(0), seventhModule(0), moduleNotOnLoad(0), moduleUsed(0) {
    std::memset(&Cfg, 0, sizeof(Cfg));
    const bool fitted[MAXUPSBOX] = {true, moduleBpresent, moduleCpresent, moduleDpresent};
    for (int i = 0; i < MAXUPSBOX; ++i) {
        if (fitted[i]) {
            Cfg.Ups[i].present = true;
            Cfg.Ups[i].modulePresent[0] = true;
            ++numUPS;
        }
    }
    Cfg.redundantUPS = 1;
}

SysCfgMgr::~SysCfgMgr() = default;

bool SysCfgMgr::WITHOUTBATTERY() const {
    return allSet(Cfg.word52, WITHOUTBATT_MASK);
}

bool SysCfgMgr::isFirstCfg(uint8 boxId, uint16 newType) {
    if (boxId >= MAXUPSBOX) {
        return false;
    }
    upsBoxCfg_t& box = Cfg.Ups[boxId];
    if (box.modulePresent[0]) {
        return false;
    }
    const int further = modulesOfType(box.upsBoxType) - 1;
    if (std::any_of(box.batteryPresent, box.batteryPresent + further, [](bool present) { return present; })) {
        return false;
    }
    box.present = true;
    box.upsBoxType = typeOfBoard(newType);
    std::memset(box.modulePresent, 0, sizeof(box.modulePresent));
    std::memset(box.batteryPresent, 0, sizeof(box.batteryPresent));
    const bool combo = box.upsBoxType == ComboBox;
    box.sensTPresent[0] = combo;
    box.sensTPresent[1] = combo;
    box.sensTPresent[2] = true;
    box.sensTPresent[3] = false;
    box.hygroPresent = false;
    return true;
}
