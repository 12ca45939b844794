// The description of the plant. It travels whole on the bus, so its layout is a wire format. Only the presence data
// have a source in this system (the command line); all the rest is the family's common description and stays zero.
#ifndef CONFIG_SYSCFGMGR_H
#define CONFIG_SYSCFGMGR_H

#include <atomic>

#include "Common/Common.h"
#include "Common/VirtualUPSTypes.h"

constexpr int MAXSENSTEMP = 4;

/// One UPS cabinet.
struct _UpsSysCfg_ {
    bool present;           // the cabinet belongs to the plant
    UPS_Type_e upsBoxType;  // no source in this system: stays 0
    bool modulePresent[MAXUPSxUPSBOX];
    bool batteryPresent[MAXBATTxCOMBOBOX];
    bool sensTPresent[MAXSENSTEMP];
    bool hygroPresent;
} PACKED;
using upsBoxCfg_t = _UpsSysCfg_;

/// One battery cabinet; the plant has none.
struct _BatterySysCfg_ {
    bool present;
    bool batteryPresent[MAXBATTxBATTERYBOX];
    bool sensTPresent[MAXSENSTEMP];
    bool hygroPresent;
} PACKED;
using battBoxCfg_t = _BatterySysCfg_;

struct PlantCfg {
    uint32 DeviceNo;
    uint32 VAModule;  // VA
    uint32 WModule;   // W
    uint32 IoutModule;
    uint32 SingleBatteryAh;
    uint16 threshouldBatteryTemp;
    uint8 redundantUPS;  // redundancy of the plant in modules
    uint8 alarmLoadThreshold;
    uint16 externBattCapacity;
    upsBoxCfg_t Ups[MAXUPSBOX];
    // The array of the battery cabinets stands here, with no elements and no room.
    uint16 word3, word7, word28, word29, word30, word39, word41, word42, word43, word45, word46, word47, word48, word49,
        word52, word53, word160, word161, word162, word163, word164, word165, word167, word174;
    uint16 IN1, IN2, IN3, IN4;
    uint16 word182, word183, word184, word185, word186, word187, word188, word189, word200, word201, word301, word302,
        word303, word304;
    // From here on: carried, looked at by nobody in this system.
    char passwordUser[32];
    char passwordPowerUser[32];
    char passwordExpert[32];
    char languageStr[4];
    uint8 genSetupTimeoutScreenSaver;
    bool genSetupBuzzerEn;
    char timezoneContinent[12];
    char timezoneCity[18];
    char ntpServerName[32];
    uint8 ntpQueryType;
    uint8 ntpQueryDailyHour;
    uint8 ntpQueryWeeklyDay;
    uint8 ntpQueryMonthlyDay;
    bool udpd_Enabled;
    uint16 udpd_port;
    char udpd_password[32];
    bool udpd_CommandEnabled;
    bool httpd_Enabled;
    uint16 httpd_port;
    bool ssh_Enabled;
    bool slot1d_CommandEnabled;
    bool slot2d_CommandEnabled;
    bool PMRedundant_Excluded;
    uint8 reserved;
} PACKED;

// Questions asked of the configuration words of the running system (`pSysMgr->Cfg`).
bool ISNTFREQCONV();
bool ISFREQCONV();
bool ISENERGYSAVINGACTIVE();
bool ISOPTCOMA();
bool ISOPTCOMB();
bool ISOPTCOMC();
bool ISOPTCOM_NONE();
bool WITHOUTBATTERY();
bool WITHPARALLELINK();
bool EXTSYNC_MODEFIXED();

/// Holds the plant's description; constant after construction but for the two counts of the aggregation.
class SysCfgMgr {
  public:
    /// Fills the presence data from moduleBpresent and its sisters; cabinet A is always there.
    SysCfgMgr();
    ~SysCfgMgr();

    /// Gives defaults to a cabinet whose configuration is still empty; true if it did. `newType` is the board's type
    /// (0, 3 or other). A cabinet above the plant's range is left alone. Nothing calls it in this system.
    bool isFirstCfg(uint8 boxId, uint16 newType);

    PlantCfg Cfg;
    uint8 numUPS;         // cabinets in the plant, 1 to 4
    uint8 seventhModule;  // not used
    // Written by the aggregation of the bus thread; InitSysStatus resets them from whichever thread asks.
    std::atomic<uint8> moduleNotOnLoad;
    std::atomic<uint8> moduleUsed;

  protected:
    // The same questions as this class's own code asks them: no option board is known here.
    static constexpr bool ISOPTCOMA() { return false; }
    static constexpr bool ISOPTCOMB() { return false; }
    static constexpr bool ISOPTCOMC() { return false; }
    static constexpr bool ISOPTCOM_NONE() { return true; }
    /// Asked of this object's words.
    bool WITHOUTBATTERY() const;
};

NAIL_SIZE(upsBoxCfg_t, 13);
NAIL(upsBoxCfg_t, present, 0, 1);
NAIL(upsBoxCfg_t, upsBoxType, 1, 1);
NAIL(upsBoxCfg_t, modulePresent, 2, 1);
NAIL(upsBoxCfg_t, batteryPresent, 3, 5);
NAIL(upsBoxCfg_t, sensTPresent, 8, 4);
NAIL(upsBoxCfg_t, hygroPresent, 12, 1);
NAIL_SIZE(battBoxCfg_t, 15);
NAIL(battBoxCfg_t, present, 0, 1);
NAIL(battBoxCfg_t, batteryPresent, 1, 9);
NAIL(battBoxCfg_t, sensTPresent, 10, 4);
NAIL(battBoxCfg_t, hygroPresent, 14, 1);
NAIL_SIZE(PlantCfg, 374);
NAIL(PlantCfg, DeviceNo, 0, 4);
NAIL(PlantCfg, VAModule, 4, 4);
NAIL(PlantCfg, WModule, 8, 4);
NAIL(PlantCfg, IoutModule, 12, 4);
NAIL(PlantCfg, SingleBatteryAh, 16, 4);
NAIL(PlantCfg, threshouldBatteryTemp, 20, 2);
NAIL(PlantCfg, redundantUPS, 22, 1);
NAIL(PlantCfg, alarmLoadThreshold, 23, 1);
NAIL(PlantCfg, externBattCapacity, 24, 2);
NAIL(PlantCfg, Ups, 26, 52);
NAIL(PlantCfg, word3, 78, 2);
NAIL(PlantCfg, word53, 108, 2);
NAIL(PlantCfg, word174, 124, 2);
NAIL(PlantCfg, IN1, 126, 2);
NAIL(PlantCfg, IN4, 132, 2);
NAIL(PlantCfg, word182, 134, 2);
NAIL(PlantCfg, word304, 160, 2);
NAIL(PlantCfg, passwordUser, 162, 32);
NAIL(PlantCfg, passwordPowerUser, 194, 32);
NAIL(PlantCfg, passwordExpert, 226, 32);
NAIL(PlantCfg, languageStr, 258, 4);
NAIL(PlantCfg, genSetupTimeoutScreenSaver, 262, 1);
NAIL(PlantCfg, genSetupBuzzerEn, 263, 1);
NAIL(PlantCfg, timezoneContinent, 264, 12);
NAIL(PlantCfg, timezoneCity, 276, 18);
NAIL(PlantCfg, ntpServerName, 294, 32);
NAIL(PlantCfg, ntpQueryType, 326, 1);
NAIL(PlantCfg, ntpQueryDailyHour, 327, 1);
NAIL(PlantCfg, ntpQueryWeeklyDay, 328, 1);
NAIL(PlantCfg, ntpQueryMonthlyDay, 329, 1);
NAIL(PlantCfg, udpd_Enabled, 330, 1);
NAIL(PlantCfg, udpd_port, 331, 2);
NAIL(PlantCfg, udpd_password, 333, 32);
NAIL(PlantCfg, udpd_CommandEnabled, 365, 1);
NAIL(PlantCfg, httpd_Enabled, 366, 1);
NAIL(PlantCfg, httpd_port, 367, 2);
NAIL(PlantCfg, ssh_Enabled, 369, 1);
NAIL(PlantCfg, slot1d_CommandEnabled, 370, 1);
NAIL(PlantCfg, slot2d_CommandEnabled, 371, 1);
NAIL(PlantCfg, PMRedundant_Excluded, 372, 1);
NAIL(PlantCfg, reserved, 373, 1);

#endif
