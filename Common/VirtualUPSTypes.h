// The records of the virtual UPS: what the nodes of the tree in shared memory hold.
//
// Other processes attach the segment, so these records are an exchange format: packed, little-endian, with binding
// offsets, sizes and reserved fields. Text fields are meant to end with NUL within their width, but a record taken from
// a wire or changed by another process need not: print them with their width. A bit field's first member is the least
// significant bit. Never take the address of, or a reference to, a multi-byte field: it may lie at an odd offset.
#ifndef COMMON_VIRTUALUPSTYPES_H
#define COMMON_VIRTUALUPSTYPES_H

#include <cstddef>

#include "Common/Common.h"
#include "Common/StatusBits.h"
#include "Measure/elemDesc.h"

#define SHMVERSION "1.0"          // version text of this layout
constexpr int NULLNODE = 255;     // index that marks an absent link
constexpr int MAXUPSBOX = 4;      // UPS cabinets in a plant
constexpr int MAXUPSxUPSBOX = 1;  // modules in a UPS cabinet
constexpr int MAXUPSx25kBOX = 5;
constexpr int MAXUPSxCOMBOBOX = 3;
constexpr int MAXBATTxCOMBOBOX = 5;
constexpr int MAXBATTERYBOX = 0;  // this family has no battery cabinets
constexpr int MAXBATTxBATTERYBOX = 9;
constexpr int MAXBOARDBOX = MAXUPSBOX + MAXBATTERYBOX;
constexpr int MAX_SENSOR_NAME = 16;
constexpr int MAX_GPIO_NUM = 32;

// Seconds after which the data of a packet have expired.
constexpr int RCPCKEXPIRE = 30;
constexpr int RXPCKEXPIRE = 30;
constexpr int RBPCKEXPIRE = 30;
constexpr int GSPCKEXPIRE = 30;
constexpr int BSPCKEXPIRE = 720;

// Bits of identification_t::partialInfo.
constexpr uint8 GIexecuted = 0x01;
constexpr uint8 GEexecuted = 0x02;

/// Value of a measure that arrives as `meas` and a signed `scale`. An unknown positive scale yields 0, an unknown
/// negative one leaves `meas` as it is.
double SCALE(double meas, int scale);

// Most values are characters, because they arrive as characters on the module link. Whatever arrives is stored, so a
// field may hold a value that is not listed.
enum IO_Cfg_e : uint8 { MM = 49, MT = 50, TM = 51, TT = 52 };
enum UPS_Type_e : uint8 {
    LineInt_StepWave = 49,
    LineInt_SinWave = 50,
    OnLine = 51,
    OnLineANDLineInt = 52,
    ATS = 53,
    STS = 54,
    MDU = 55,
    ComboBox = 67,
    PowerBox = 80,
    Power25kBox = 86
};
enum Boost_Cfg_e : uint8 { NoBoost = 48, Boost = 49, DoubleBoost = 50 };
enum Buck_Cfg_e : uint8 { NoBuck = 48, Buck = 49, DoubleBuck = 50 };
enum Error_CTRL_e : uint8 { CHKSUM = 48, CRC = 49 };
enum PwrShare_e : uint8 { NoPWRSHARE = 48, OneSocket = 49 };
enum BattBenches_e : uint8 { OneBench = 49, TwoBenches = 50 };
enum ParallelSystem_e : uint8 { Single = 48, ParallelUPS_Slave = 49, ParallelUPS_Master = 50 };
enum node_t : uint8 { sysNode = 0, upsBoxNode = 1, battBoxNode = 2, moduleNode = 3, bypassNode = 4, extNode = 5 };
enum cmdType_t : uint8 {
    CMD_SHUTDOWN = 0,
    CMD_REBOOT = 1,
    CMD_DELETE = 2,
    CMD_TESTBATT = 3,
    CMD_QPR_OFF = 4,
    CMD_QPR_POWERON = 5,
    CMD_NONE = 255
};
union battStrStatus_t {
    uint8 battStrStatus;
    struct {
        uint8 lost : 1;
        uint8 voltageFault : 1;
        uint8 currentFault : 1;
        uint8 insertFault : 1;
        uint8 chargeOvercurrent : 1;
        uint8 warningDischargeCurrent : 1;
        uint8 alarmDischargeCurrent : 1;
        uint8 notPresent : 1;
    } PACKED;
};

/// Who a unit is.
struct identification_t {
    time32_t timestamp;  // when the record was last filled, 0 never
    char SN[17];
    char Model[17];
    char SWVer[13];
    IO_Cfg_e IO_Cfg;
    UPS_Type_e UPS_Type;
    Boost_Cfg_e Boost_Cfg;
    Buck_Cfg_e Buck_Cfg;
    Error_CTRL_e Error_CTRL;
    PwrShare_e PwrShareCfg;
    BattBenches_e BattBenches;
    uint8 NBattForBench;
    ParallelSystem_e ParallelInfo;
    uint8 tbdGI[3];
    char SN_AUX[17];
    char SWVer_AUX[13];
    uint8 tbdGE[4];
    uint8 partialInfo;  // GIexecuted, GEexecuted
} PACKED;

struct nominal_t {
    time32_t timestamp;
    uint32 VA;
    uint32 W;
    uint16 BatteryV;
    uint16 BatteryAh;
    uint16 Vout;
    uint16 FreqOut;
} PACKED;

union upsAlarm_t {
    uint8 byte;
    struct {
        uint8 Warning : 1;
        uint8 Anomaly : 1;
        uint8 Fault : 1;
        uint8 Lock : 1;
        uint8 Alarm_Temperature : 1;
        uint8 Alarm_Overload : 1;
        uint8 Bypass_Bad : 1;
        uint8 Battery_Low : 1;
    } PACKED;
};

union upsStatus_t {
    uint8 byte;
    struct {
        uint8 Output_Powered : 1;
        uint8 Battery_Working : 1;
        uint8 On_Bypass : 1;
        uint8 Line_Present : 1;
        uint8 Shutdown_Active : 1;
        uint8 Shutdown_Imminent : 1;
        uint8 SWOUT : 1;
        uint8 SWMB : 1;
    } PACKED;
};

union upsExtStatus_t {
    uint8 byte;
    struct {
        uint8 Clock_Update : 1;
        uint8 isMaster : 1;
        uint8 Eco_Mode : 1;
        uint8 Test_in_progress : 1;
        uint8 Replace_Battery : 1;
        uint8 Parallel_Link_Open : 1;
        uint8 Battery_Charging : 1;
        uint8 UPS_OK : 1;
    } PACKED;
};

union upsSwitchStatus_t {
    uint8 byte;
    struct {
        uint8 Q1 : 1;
        uint8 LoadOnBypass_Cmd : 1;
        uint8 BypassDisabled_Cmd : 1;
        uint8 Bt_present : 1;
        uint8 RemoteCBOff_Cmd : 1;
        uint8 RemoteEco_Cmd : 1;
        uint8 FreeSW6 : 1;
        uint8 RemoteBatteryWorking_Cmd : 1;
    } PACKED;
};

union upsPMStatus_t {
    uint8 bytes[2];
    struct {
        uint8 wrongPower : 1;
        uint8 inputDisabled : 1;
        uint8 commError : 1;
        uint8 bypassBadAnomaly : 1;
        uint8 batteryWorkingAnomaly : 1;
        uint8 outputPoweredAnomaly : 1;
        uint8 differentFirmwareAnomaly : 1;
        uint8 someBatteryDisconnect : 1;
        uint8 SWINCabinetAnomaly : 1;
        uint8 SWBYPCabinetAnomaly : 1;
        uint8 SWMBCabinetAnomaly : 1;
        uint8 SWOUTCabinetAnomaly : 1;
        uint8 SWBATT_EXTCabinetAnomaly : 1;
        uint8 bitCmdUnsupported : 1;
        uint8 FreePMS14 : 1;
        uint8 FreePMS15 : 1;
    } PACKED;
};

/// The measured state of a UPS or of the whole system. Arrays of three are the phases L1, L2, L3.
struct dataObject_t {
    time32_t timestamp;
    upsAlarm_t alarm;
    upsStatus_t status;
    upsExtStatus_t extStatus;
    upsSwitchStatus_t switchStatus;
    upsPMStatus_t PMStatus;
    int16 Load[3];
    int16 maxLoad;
    int32 Va[3];
    int32 VAR[3];
    int32 Watt[3];
    uint16 Aut_time;
    uint8 Carica_adj;
    uint16 VbatRS;
    uint16 Vbatp;
    uint16 Vbatn;
    int32 Ibatp;
    int32 Ibatn;
    uint16 Vin[3];
    uint16 Frq_in;
    uint16 Uin[3];
    uint32 Iin[3];
    uint16 Vbyp[3];
    uint16 Frq_byp;
    uint16 Ubyp[3];
    uint16 Vout[3];
    uint16 Frq_out;
    uint16 Uout[3];
    int32 Iout[3];
    int32 Iout_pk[3];
    uint8 Temp0;
    uint8 Temp1;
    uint8 Temp2;
    uint8 Temp3;
    uint8 Temp4;
    uint8 Temp5;
    uint8 Temp6;
    uint32 Cent_kwh;
} PACKED;

/// Command panel of a node: other processes of the card write it, delays first and `value` last.
struct panel_t {
    cmdType_t value;      // the pending command, CMD_NONE when idle
    uint16 delay_shut;    // 65535 not set
    uint16 delay_reboot;  // 65535 not set
} PACKED;

/// One battery shelter.
struct dataBattery_t {
    battStrStatus_t statusStrPos;
    battStrStatus_t statusStrNeg;
    int16 halfStrPosV;
    int16 halfStrNegV;
    int16 strPosI;
    int16 strNegI;
} PACKED;

struct dataBatteries_t {
    time32_t timestamp;
    dataBattery_t shelter[MAXBATTxBATTERYBOX];
    int16 barsPosV;
    int16 barsNegV;
} PACKED;

/// State of each cabinet as the system sees it.
struct cabSubSystem_t {
    elemDesc_t UPSBox[MAXUPSBOX];
} PACKED;

/// State of a cabinet's module.
struct upsSubSystem_t {
    elemDesc_t UPSShelter[MAXUPSxUPSBOX];
} PACKED;

struct battSubSystem_t {
    elemDesc_t BATTShelter[MAXBATTxBATTERYBOX];
    elemDesc_t MUShelter;
} PACKED;

union sysStatus_t {
    uint8 byte;
    struct {
        uint8 ServiceUPS : 1;
        uint8 ServiceBattery : 1;
        uint8 FreeSYS2 : 1;
        uint8 FreeSYS3 : 1;
        uint8 SWMBOpening : 1;
        uint8 SWMBClosing : 1;
        uint8 LostRedundancy : 1;
        uint8 LowRedundancy : 1;
    } PACKED;
};

union boxStatus_t {
    uint8 byte;
    struct {
        uint8 NotPresentString : 1;
        uint8 ReplaceString : 1;
        uint8 Fault : 1;
        uint8 SWBATT : 1;
        uint8 HighTemp : 1;
        uint8 HighHygro : 1;
        uint8 Anomaly : 1;
        uint8 Warning : 1;
    } PACKED;
};

union externalSwitchStatus_t {
    uint8 byte;
    struct {
        uint8 Fault_PWR1 : 1;
        uint8 Fault_PWR2 : 1;
        uint8 SWIN : 1;
        uint8 FreeSW3 : 1;
        uint8 SWBYP : 1;
        uint8 FreeSW5 : 1;
        uint8 SWBATT_EXT : 1;
        uint8 EPO : 1;
    } PACKED;
};

union sysMCUMUStatus_t {
    uint8 byte;
    struct {
        uint8 commErrorMCU : 1;
        uint8 commErrorMU : 1;
        uint8 AnomalyMCU : 1;
        uint8 FreePMS3 : 1;
        uint8 FreePMS4 : 1;
        uint8 numBypassOff : 3;
    } PACKED;
};

/// What the root node holds.
struct descSys_t {
    uint8 LoadRedundancy[3];
    dataObject_t Ups;           // aggregate of the modules
    dataBatteries_t Batteries;  // aggregate of the batteries
    cabSubSystem_t subSystem;
    sysStatus_t sysStatus;
    boxStatus_t boxStatus;
    externalSwitchStatus_t externalSwitchStatus;
    sysMCUMUStatus_t MCUMUStatus;
} PACKED;

union mcuStatus_t {
    uint8 byte;
    struct {
        uint8 Slot1Fault : 1;
        uint8 Slot2Fault : 1;
        uint8 FreeMCU2 : 1;
        uint8 FreeMCU3 : 1;
        uint8 FreeMCU4 : 1;
        uint8 FreeMCU5 : 1;
        uint8 FreeMCU6 : 1;
        uint8 FreeMCU7 : 1;
    } PACKED;
};

// Deliberately without the root's three-bit count.
union boxMCUMUStatus_t {
    uint8 byte;
    struct {
        uint8 commErrorMCU : 1;
        uint8 commErrorMU : 1;
        uint8 AnomalyMCU : 1;
        uint8 FreePMS3 : 1;
        uint8 FreePMS4 : 1;
        uint8 FreePMS5 : 1;
        uint8 FreePMS6 : 1;
        uint8 FreePMS7 : 1;
    } PACKED;
};

/// What a cabinet node holds. The data of a cabinet status reply on the bus are this record and one byte more.
struct descUpsBox_t {
    time32_t timestamp;
    dataObject_t Ups;
    dataBatteries_t Batteries;
    upsSubSystem_t subSystem;
    boxStatus_t boxStatus;
    externalSwitchStatus_t externalSwitchStatus;
    mcuStatus_t mcuStatus;
    boxMCUMUStatus_t MCUMUStatus;
} PACKED;

union battExternalSwitchStatus_t {
    uint8 byte;
    struct {
        uint8 Fault_PWR1 : 1;
        uint8 Fault_PWR2 : 1;
        uint8 FreeSW2 : 1;
        uint8 FreeSW3 : 1;
        uint8 FreeSW4 : 1;
        uint8 FreeSW5 : 1;
        uint8 FreeSW6 : 1;
        uint8 FreeSW7 : 1;
    } PACKED;
};

union MUStatus_t {
    uint8 byte;
    struct {
        uint8 commErrorMU : 1;
        uint8 FreePMS1 : 1;
        uint8 FreePMS2 : 1;
        uint8 FreePMS3 : 1;
        uint8 FreePMS4 : 1;
        uint8 FreePMS5 : 1;
        uint8 FreePMS6 : 1;
        uint8 FreePMS7 : 1;
    } PACKED;
};

/// A battery cabinet; declared for the family, no node of this type is made.
struct descBattBox_t {
    boxStatus_t boxStatus;
    battExternalSwitchStatus_t externalSwitchStatus;
    MUStatus_t MUStatus;
    dataBatteries_t data;
    battSubSystem_t subSystem;
} PACKED;

/// The detailed state of a module. The bits are reached as members of this record.
struct statusCoding_t {
    time32_t timestamp;
    union {
        char states[NUMRCBYTE];
        rcStates_t bits;
    } PACKED;
} PACKED;

/// What a module node holds.
struct descModule_t {
    dataObject_t data;
    statusCoding_t statusDetail;
} PACKED;

union nodeDesc_t {
    descSys_t sys;
    descUpsBox_t upsBox;
    descBattBox_t battBox;
    descModule_t module;
};

/// A node of the tree. Links are indices, never addresses: each process maps the segment where it likes.
struct virtualNode_t {
    node_t nodetype;
    char Description[32];
    char ID[16];       // path such as "SA.BA.M1"; 0-1 system, 3-4 cabinet, 6-7 module
    uint8 idx;         // own index in the array
    uint8 nxtBrother;  // or NULLNODE, as all links
    uint8 prvBrother;
    uint8 son;
    uint8 ext;
    identification_t identification;
    nominal_t nominal;
    panel_t panel;
    nodeDesc_t desc;
} PACKED;

/// Address of the first node of the array.
using virtualUPS_t = virtualNode_t*;

/// The extension node: takes up a slot of the size of a node.
struct extData_t {
    node_t nodetype;
    uint8 DevType;
    char DevTypeText[20];
    uint8 ComType;
} PACKED;
union extended_t {
    virtualNode_t node;
    extData_t DataSys;
};

// ---------------------------------------------------------------------------------------------------------------
// The layout is binding: every size and offset is nailed.
#define NAIL_SIZE(type, size) static_assert(sizeof(type) == (size), #type)
#define NAIL(type, field, offset, size) \
    static_assert(offsetof(type, field) == (offset) && sizeof(type::field) == (size), #type "::" #field)

NAIL_SIZE(elemDesc_t, 1);
NAIL_SIZE(battStrStatus_t, 1);
NAIL_SIZE(upsAlarm_t, 1);
NAIL_SIZE(upsStatus_t, 1);
NAIL_SIZE(upsExtStatus_t, 1);
NAIL_SIZE(upsSwitchStatus_t, 1);
NAIL_SIZE(upsPMStatus_t, 2);
NAIL_SIZE(sysStatus_t, 1);
NAIL_SIZE(boxStatus_t, 1);
NAIL_SIZE(externalSwitchStatus_t, 1);
NAIL_SIZE(sysMCUMUStatus_t, 1);
NAIL_SIZE(mcuStatus_t, 1);
NAIL_SIZE(boxMCUMUStatus_t, 1);
NAIL_SIZE(battExternalSwitchStatus_t, 1);
NAIL_SIZE(MUStatus_t, 1);
NAIL_SIZE(rcStates_t, 22);

NAIL_SIZE(identification_t, 98);
NAIL(identification_t, timestamp, 0, 4);
NAIL(identification_t, SN, 4, 17);
NAIL(identification_t, Model, 21, 17);
NAIL(identification_t, SWVer, 38, 13);
NAIL(identification_t, IO_Cfg, 51, 1);
NAIL(identification_t, UPS_Type, 52, 1);
NAIL(identification_t, Boost_Cfg, 53, 1);
NAIL(identification_t, Buck_Cfg, 54, 1);
NAIL(identification_t, Error_CTRL, 55, 1);
NAIL(identification_t, PwrShareCfg, 56, 1);
NAIL(identification_t, BattBenches, 57, 1);
NAIL(identification_t, NBattForBench, 58, 1);
NAIL(identification_t, ParallelInfo, 59, 1);
NAIL(identification_t, tbdGI, 60, 3);
NAIL(identification_t, SN_AUX, 63, 17);
NAIL(identification_t, SWVer_AUX, 80, 13);
NAIL(identification_t, tbdGE, 93, 4);
NAIL(identification_t, partialInfo, 97, 1);

NAIL_SIZE(nominal_t, 20);
NAIL(nominal_t, timestamp, 0, 4);
NAIL(nominal_t, VA, 4, 4);
NAIL(nominal_t, W, 8, 4);
NAIL(nominal_t, BatteryV, 12, 2);
NAIL(nominal_t, BatteryAh, 14, 2);
NAIL(nominal_t, Vout, 16, 2);
NAIL(nominal_t, FreqOut, 18, 2);

NAIL_SIZE(dataObject_t, 160);
NAIL(dataObject_t, timestamp, 0, 4);
NAIL(dataObject_t, alarm, 4, 1);
NAIL(dataObject_t, status, 5, 1);
NAIL(dataObject_t, extStatus, 6, 1);
NAIL(dataObject_t, switchStatus, 7, 1);
NAIL(dataObject_t, PMStatus, 8, 2);
NAIL(dataObject_t, Load, 10, 6);
NAIL(dataObject_t, maxLoad, 16, 2);
NAIL(dataObject_t, Va, 18, 12);
NAIL(dataObject_t, VAR, 30, 12);
NAIL(dataObject_t, Watt, 42, 12);
NAIL(dataObject_t, Aut_time, 54, 2);
NAIL(dataObject_t, Carica_adj, 56, 1);
NAIL(dataObject_t, VbatRS, 57, 2);
NAIL(dataObject_t, Vbatp, 59, 2);
NAIL(dataObject_t, Vbatn, 61, 2);
NAIL(dataObject_t, Ibatp, 63, 4);
NAIL(dataObject_t, Ibatn, 67, 4);
NAIL(dataObject_t, Vin, 71, 6);
NAIL(dataObject_t, Frq_in, 77, 2);
NAIL(dataObject_t, Uin, 79, 6);
NAIL(dataObject_t, Iin, 85, 12);
NAIL(dataObject_t, Vbyp, 97, 6);
NAIL(dataObject_t, Frq_byp, 103, 2);
NAIL(dataObject_t, Ubyp, 105, 6);
NAIL(dataObject_t, Vout, 111, 6);
NAIL(dataObject_t, Frq_out, 117, 2);
NAIL(dataObject_t, Uout, 119, 6);
NAIL(dataObject_t, Iout, 125, 12);
NAIL(dataObject_t, Iout_pk, 137, 12);
NAIL(dataObject_t, Temp0, 149, 1);
NAIL(dataObject_t, Temp1, 150, 1);
NAIL(dataObject_t, Temp2, 151, 1);
NAIL(dataObject_t, Temp3, 152, 1);
NAIL(dataObject_t, Temp4, 153, 1);
NAIL(dataObject_t, Temp5, 154, 1);
NAIL(dataObject_t, Temp6, 155, 1);
NAIL(dataObject_t, Cent_kwh, 156, 4);

NAIL_SIZE(panel_t, 5);
NAIL(panel_t, value, 0, 1);
NAIL(panel_t, delay_shut, 1, 2);
NAIL(panel_t, delay_reboot, 3, 2);

NAIL_SIZE(dataBattery_t, 10);
NAIL(dataBattery_t, statusStrPos, 0, 1);
NAIL(dataBattery_t, statusStrNeg, 1, 1);
NAIL(dataBattery_t, halfStrPosV, 2, 2);
NAIL(dataBattery_t, halfStrNegV, 4, 2);
NAIL(dataBattery_t, strPosI, 6, 2);
NAIL(dataBattery_t, strNegI, 8, 2);

NAIL_SIZE(dataBatteries_t, 98);
NAIL(dataBatteries_t, timestamp, 0, 4);
NAIL(dataBatteries_t, shelter, 4, 90);
NAIL(dataBatteries_t, barsPosV, 94, 2);
NAIL(dataBatteries_t, barsNegV, 96, 2);

NAIL_SIZE(cabSubSystem_t, 4);
NAIL_SIZE(upsSubSystem_t, 1);
NAIL_SIZE(battSubSystem_t, 10);
NAIL(battSubSystem_t, BATTShelter, 0, 9);
NAIL(battSubSystem_t, MUShelter, 9, 1);

NAIL_SIZE(descSys_t, 269);
NAIL(descSys_t, LoadRedundancy, 0, 3);
NAIL(descSys_t, Ups, 3, 160);
NAIL(descSys_t, Batteries, 163, 98);
NAIL(descSys_t, subSystem, 261, 4);
NAIL(descSys_t, sysStatus, 265, 1);
NAIL(descSys_t, boxStatus, 266, 1);
NAIL(descSys_t, externalSwitchStatus, 267, 1);
NAIL(descSys_t, MCUMUStatus, 268, 1);

NAIL_SIZE(descUpsBox_t, 267);
NAIL(descUpsBox_t, timestamp, 0, 4);
NAIL(descUpsBox_t, Ups, 4, 160);
NAIL(descUpsBox_t, Batteries, 164, 98);
NAIL(descUpsBox_t, subSystem, 262, 1);
NAIL(descUpsBox_t, boxStatus, 263, 1);
NAIL(descUpsBox_t, externalSwitchStatus, 264, 1);
NAIL(descUpsBox_t, mcuStatus, 265, 1);
NAIL(descUpsBox_t, MCUMUStatus, 266, 1);

NAIL_SIZE(descBattBox_t, 111);
NAIL(descBattBox_t, boxStatus, 0, 1);
NAIL(descBattBox_t, externalSwitchStatus, 1, 1);
NAIL(descBattBox_t, MUStatus, 2, 1);
NAIL(descBattBox_t, data, 3, 98);
NAIL(descBattBox_t, subSystem, 101, 10);

NAIL_SIZE(statusCoding_t, 26);
NAIL(statusCoding_t, timestamp, 0, 4);
NAIL(statusCoding_t, states, 4, 22);
NAIL(statusCoding_t, bits, 4, 22);

NAIL_SIZE(descModule_t, 186);
NAIL(descModule_t, data, 0, 160);
NAIL(descModule_t, statusDetail, 160, 26);

NAIL_SIZE(nodeDesc_t, 269);
NAIL_SIZE(virtualNode_t, 446);
NAIL(virtualNode_t, nodetype, 0, 1);
NAIL(virtualNode_t, Description, 1, 32);
NAIL(virtualNode_t, ID, 33, 16);
NAIL(virtualNode_t, idx, 49, 1);
NAIL(virtualNode_t, nxtBrother, 50, 1);
NAIL(virtualNode_t, prvBrother, 51, 1);
NAIL(virtualNode_t, son, 52, 1);
NAIL(virtualNode_t, ext, 53, 1);
NAIL(virtualNode_t, identification, 54, 98);
NAIL(virtualNode_t, nominal, 152, 20);
NAIL(virtualNode_t, panel, 172, 5);
NAIL(virtualNode_t, desc, 177, 269);

NAIL_SIZE(extended_t, 446);
NAIL(extData_t, nodetype, 0, 1);
NAIL(extData_t, DevType, 1, 1);
NAIL(extData_t, DevTypeText, 2, 20);
NAIL(extData_t, ComType, 22, 1);

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the records are images of little-endian memory");

#endif
