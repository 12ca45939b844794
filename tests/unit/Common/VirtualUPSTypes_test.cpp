// The layout itself is nailed at compile time, in the headers; here stand the bits and the rules.
#include "Common/VirtualUPSTypes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

TEST(Records, HaveTheirSizes) {
    EXPECT_EQ(sizeof(identification_t), 98U);
    EXPECT_EQ(sizeof(nominal_t), 20U);
    EXPECT_EQ(sizeof(dataObject_t), 160U);
    EXPECT_EQ(sizeof(panel_t), 5U);
    EXPECT_EQ(sizeof(dataBattery_t), 10U);
    EXPECT_EQ(sizeof(dataBatteries_t), 98U);
    EXPECT_EQ(sizeof(descSys_t), 269U);
    EXPECT_EQ(sizeof(descUpsBox_t), 267U);
    EXPECT_EQ(sizeof(descBattBox_t), 111U);
    EXPECT_EQ(sizeof(statusCoding_t), 26U);
    EXPECT_EQ(sizeof(descModule_t), 186U);
    EXPECT_EQ(sizeof(virtualNode_t), 446U);
    EXPECT_EQ(sizeof(extended_t), 446U);
}

TEST(Records, MasterBitOfACabinetNode) {
    virtualNode_t node;
    std::memset(&node, 0, sizeof(node));
    node.desc.upsBox.Ups.extStatus.isMaster = 1;
    uint8 bytes[sizeof(node)];
    std::memcpy(bytes, &node, sizeof(node));
    for (std::size_t i = 0; i < sizeof(bytes); ++i) {
        EXPECT_EQ(bytes[i], i == 187 ? 0x02 : 0x00) << i;
    }
}

TEST(Records, ConstantsOfTheLayout) {
    EXPECT_STREQ(SHMVERSION, "1.0");
    EXPECT_EQ(NULLNODE, 255);
    EXPECT_EQ(MAXBOARDBOX, 4);
    EXPECT_EQ(NUMRCBIT, 176);
    EXPECT_EQ(NUMRCBYTE, 22);
    EXPECT_EQ(BSPCKEXPIRE, 720);
    for (const int expire : {RCPCKEXPIRE, RXPCKEXPIRE, RBPCKEXPIRE, GSPCKEXPIRE}) {
        EXPECT_EQ(expire, 30);
    }
}

// Not a constant: it is cut to the width of each member.
uint8 allOnes = 0xFF;

// Sets one member at a time and looks which bits of the whole record come up.
template <typename Record>
struct Bit {
    const char* name;
    void (*set)(Record&);
    std::size_t byte;
    uint8 mask;
};

template <typename Record>
void expectBits(const std::vector<Bit<Record>>& bits) {
    for (const Bit<Record>& bit : bits) {
        Record record;
        std::memset(&record, 0, sizeof(record));
        bit.set(record);
        uint8 bytes[sizeof(Record)];
        std::memcpy(bytes, &record, sizeof(record));
        for (std::size_t i = 0; i < sizeof(bytes); ++i) {
            EXPECT_EQ(bytes[i], i == bit.byte ? bit.mask : 0x00) << bit.name << " byte " << i;
        }
    }
}

#define BIT(Record, byte, mask, path)                           \
    {                                                           \
#path, [](Record & r) { r.path = allOnes; }, byte, mask \
    }
#define EIGHT(Record, byte, path, b0, b1, b2, b3, b4, b5, b6, b7)                                             \
    BIT(Record, byte, 0x01, path.b0), BIT(Record, byte, 0x02, path.b1), BIT(Record, byte, 0x04, path.b2),     \
        BIT(Record, byte, 0x08, path.b3), BIT(Record, byte, 0x10, path.b4), BIT(Record, byte, 0x20, path.b5), \
        BIT(Record, byte, 0x40, path.b6), BIT(Record, byte, 0x80, path.b7)

TEST(Records, BitsOfTheMeasuredState) {
    expectBits<dataObject_t>({
        EIGHT(dataObject_t, 4, alarm, Warning, Anomaly, Fault, Lock, Alarm_Temperature, Alarm_Overload, Bypass_Bad,
              Battery_Low),
        EIGHT(dataObject_t, 5, status, Output_Powered, Battery_Working, On_Bypass, Line_Present, Shutdown_Active,
              Shutdown_Imminent, SWOUT, SWMB),
        EIGHT(dataObject_t, 6, extStatus, Clock_Update, isMaster, Eco_Mode, Test_in_progress, Replace_Battery,
              Parallel_Link_Open, Battery_Charging, UPS_OK),
        EIGHT(dataObject_t, 7, switchStatus, Q1, LoadOnBypass_Cmd, BypassDisabled_Cmd, Bt_present, RemoteCBOff_Cmd,
              RemoteEco_Cmd, FreeSW6, RemoteBatteryWorking_Cmd),
        EIGHT(dataObject_t, 8, PMStatus, wrongPower, inputDisabled, commError, bypassBadAnomaly, batteryWorkingAnomaly,
              outputPoweredAnomaly, differentFirmwareAnomaly, someBatteryDisconnect),
        EIGHT(dataObject_t, 9, PMStatus, SWINCabinetAnomaly, SWBYPCabinetAnomaly, SWMBCabinetAnomaly,
              SWOUTCabinetAnomaly, SWBATT_EXTCabinetAnomaly, bitCmdUnsupported, FreePMS14, FreePMS15),
    });
}

TEST(Records, BitsOfTheSystem) {
    expectBits<descSys_t>({
        EIGHT(descSys_t, 265, sysStatus, ServiceUPS, ServiceBattery, FreeSYS2, FreeSYS3, SWMBOpening, SWMBClosing,
              LostRedundancy, LowRedundancy),
        EIGHT(descSys_t, 266, boxStatus, NotPresentString, ReplaceString, Fault, SWBATT, HighTemp, HighHygro, Anomaly,
              Warning),
        EIGHT(descSys_t, 267, externalSwitchStatus, Fault_PWR1, Fault_PWR2, SWIN, FreeSW3, SWBYP, FreeSW5, SWBATT_EXT,
              EPO),
        BIT(descSys_t, 268, 0x01, MCUMUStatus.commErrorMCU),
        BIT(descSys_t, 268, 0x02, MCUMUStatus.commErrorMU),
        BIT(descSys_t, 268, 0x04, MCUMUStatus.AnomalyMCU),
        BIT(descSys_t, 268, 0x08, MCUMUStatus.FreePMS3),
        BIT(descSys_t, 268, 0x10, MCUMUStatus.FreePMS4),
        BIT(descSys_t, 268, 0xE0, MCUMUStatus.numBypassOff),
    });
}

TEST(Records, BitsOfACabinet) {
    expectBits<descUpsBox_t>({
        EIGHT(descUpsBox_t, 263, boxStatus, NotPresentString, ReplaceString, Fault, SWBATT, HighTemp, HighHygro,
              Anomaly, Warning),
        EIGHT(descUpsBox_t, 264, externalSwitchStatus, Fault_PWR1, Fault_PWR2, SWIN, FreeSW3, SWBYP, FreeSW5,
              SWBATT_EXT, EPO),
        EIGHT(descUpsBox_t, 265, mcuStatus, Slot1Fault, Slot2Fault, FreeMCU2, FreeMCU3, FreeMCU4, FreeMCU5, FreeMCU6,
              FreeMCU7),
        EIGHT(descUpsBox_t, 266, MCUMUStatus, commErrorMCU, commErrorMU, AnomalyMCU, FreePMS3, FreePMS4, FreePMS5,
              FreePMS6, FreePMS7),
    });
}

TEST(Records, BitsOfABatteryCabinet) {
    expectBits<descBattBox_t>({
        EIGHT(descBattBox_t, 0, boxStatus, NotPresentString, ReplaceString, Fault, SWBATT, HighTemp, HighHygro, Anomaly,
              Warning),
        EIGHT(descBattBox_t, 1, externalSwitchStatus, Fault_PWR1, Fault_PWR2, FreeSW2, FreeSW3, FreeSW4, FreeSW5,
              FreeSW6, FreeSW7),
        EIGHT(descBattBox_t, 2, MUStatus, commErrorMU, FreePMS1, FreePMS2, FreePMS3, FreePMS4, FreePMS5, FreePMS6,
              FreePMS7),
    });
}

TEST(Records, BitsOfABatteryString) {
    expectBits<dataBattery_t>({
        EIGHT(dataBattery_t, 0, statusStrPos, lost, voltageFault, currentFault, insertFault, chargeOvercurrent,
              warningDischargeCurrent, alarmDischargeCurrent, notPresent),
        EIGHT(dataBattery_t, 1, statusStrNeg, lost, voltageFault, currentFault, insertFault, chargeOvercurrent,
              warningDischargeCurrent, alarmDischargeCurrent, notPresent),
    });
}

#define STATES(byte, ...) EIGHT(statusCoding_t, 4 + byte, bits, __VA_ARGS__)

TEST(Records, StatusBitsOfAModule) {
    const std::vector<Bit<statusCoding_t>> bits = {
        STATES(0, BypassCommandActive, RemoteBatteryChargerOff, EmergencyOffCommand, ManualBypassCommand,
               BatteryTestActive, RemoteOnCommand, RemoteBypassCommand, RemoteOffCommand),
        STATES(1, ServiceBattery, ServiceUps, spare11, SynchronizationDisabled, BypassDisabled, ShutdownImminent,
               ShutdownActive, BatteryLowWarning),
        STATES(2, MainsUnderVoltageL1, MainsOverVoltageL3, MainsOverVoltageL2, MainsOverVoltageL1, ExternalSyncFail,
               InverterAsynchronous, DisplayError, ConfigurationDataCorrupted),
        STATES(3, BypassFrequencyAbnormal, BypassVoltageAbnormalL3, BypassVoltageAbnormalL2, BypassVoltageAbnormalL1,
               InputSwitchOpen, MainsFrequencyAbnormal, MainsUnderVoltageL3, MainsUnderVoltageL2),
        STATES(4, LoadGreatUserThresholdL3, LoadGreatUserThresholdL2, LoadGreatUserThresholdL1, OutputPeakOverCurrentL3,
               OutputPeakOverCurrentL2, OutputPeakOverCurrentL1, BypassVoltageFail, BypassSwitchOpen),
        STATES(5, PowerModule1UnderTemperature, SystemOverTemperature, SystemUnderTemperature, TempSensorFault_S0,
               ReplaceBattery, BatteryNegNotPresent, BatteryPosNotPresent, OutputSwitchOpen),
        STATES(6, BatteryNegReplace, BatteryPosReplace, ExternalBatteryOverTemperature, TempSensorFault_S6,
               BatteryOverTemperature, TempSensorFault_S5, PowerModule3UnderTemperature, BatterySwitchOpen),
        STATES(7, AnomalyOnRemoreUnit, DifferentFirmwareVersion, spare59, spare60, spare61, spare62, spare63, spare64),
        STATES(8, InputContactLockedL3, InputContactLockedL2, InputContactLockedL1, InputFuseContactFailL3,
               InputFuseContactFailL2, InputFuseContactFailL1, MainsPhaseReversed, InternalCommunicationError),
        STATES(9, InverterSineWaveAbnormalL3, InverterSineWaveAbnormalL2, InverterSineWaveAbnormalL1, spare76,
               BypassPhaseReversed, BoosterFault, BusNegPrechargeFail, BusPosPrechargeFail),
        STATES(10, OutputOverloadL2, OutputOverloadL1, BateryNegUnderVoltage, BateryPosUnderVoltage,
               BateryNegOverVoltage, BateryPosOverVoltage, spare87, InverterFault),
        STATES(11, BatteryChargerFault, OutputFuseContactFailL3, OutputFuseContactFailL2, OutputFuseContactFailL1,
               OutputContactLockedL3, OutputContactLockedL2, OutputContactLockedL1, OutputOverloadL3),
        STATES(12, BatteryNegFuseBroken, VdcBusMeasureError, AuxiliaryBatteryChargerFault,
               BatteryChargerOverTemperature, FanFailure, OverTemperatureTransformer, PowerModuleOverTemperature,
               BatteryMeasureError),
        STATES(13, FaultOnRemoteUnit, ParallelSynchronizationLineFault, ParallelBypassRequestLineFault,
               ParallelLinkOpen, BatteryFuse3Broken, BatteryFuse2Broken, BatteryFuse1Broken, BatteryPosFuseBroken),
        STATES(14, BoosterPosUnderVoltage, BoosterNegOverVoltage, BoosterPosOverVoltage, InputFuseContactFailL3Lock,
               InputFuseContactFailL2Lock, InputFuseContactFailL1Lock, BoardsLinkFail, AuxiliaryPowerFail),
        STATES(15, InverterOverVoltageL3, InverterOverVoltageL2, InverterOverVoltageL1, BypassOutputLockedL3,
               BypassOutputLockedL2, BypassOutputLockedL1, BypassSCRFail, BoosterNegUnderVoltage),
        STATES(16, OutputOverLoadL2, OutputOverLoadL1, InverterSineWaveAbnormalL3Lock, InverterSineWaveAbnormalL2Lock,
               InverterSineWaveAbnormalL1Lock, InverterUnderVoltageL3, InverterUnderVoltageL2, InverterUnderVoltageL1),
        STATES(17, ParallelSynchronizationError, OutputFuseContactFailL3Lock, OutputFuseContactFailL2Lock,
               OutputFuseContactFailL1Lock, OutputShortCircuitL3, OutputShortCircuitL2, OutputShortCircuitL1,
               OutputOverLoadL3),
        STATES(18, TemperatureSensorFault_S3, TemperatureSensorFault_S2, TemperatureSensorFault_S1,
               BatteryChargerOverTemperatureLock, PowerModule3OverTemperatureLock, PowerModule2OverTemperatureLock,
               PowerModule1OverTemperatureLock, ParallelSynchronizationLineFaultLock),
        STATES(19, LockOnremoteUnit, ParallelBoardFault, ParallelCommunicationFault, ParallelBusDivision,
               BatteryFuse3BrokenLock, BatteryFuse2BrokenLock, BatteryFuse1BrokenLock, TemperatureSensorFault_S4),
        STATES(20, OnForSystemOn, ConfigurationChanged, ShutdownDeleted, BatteryCharged, spare157, PowerOn,
               LoadOnBypass, BatteryWorking),
        STATES(21, OffForLock, OffForAutonomyLimit, OffForBatteryEnded, OffForShutdownCommand, OffForAutoOff,
               OffForSystemOff, OnForRestoreCommand, OnForAutoRestart),
    };
    EXPECT_EQ(bits.size(), 176U);
    expectBits<statusCoding_t>(bits);
}

TEST(Records, AlarmStateOfAnElementKeepsTheUpperBits) {
    elemDesc_t elem;
    elem.desc = 0xF8;
    setElemAlarm(elem, lockAlarm);
    EXPECT_EQ(elem.desc, 0xFD);
    EXPECT_EQ(elemAlarm(elem), lockAlarm);
    setElemAlarm(elem, commLostAlarm);
    EXPECT_EQ(elem.desc, 0xF8);
}

TEST(Scale, KnownScales) {
    const struct {
        int scale;
        double value;  // of 230
    } cases[] = {{0, 230.0},  {1, 460.0},   {2, 920.0},    {3, 1150.0}, {4, 1840.0},
                 {5, 2300.0}, {6, 23000.0}, {7, 230000.0}, {-1, 115.0}, {-2, 57.5},
                 {-3, 46.0},  {-4, 28.75},  {-5, 23.0},    {-6, 2.3},   {-7, 0.23}};
    for (const auto& c : cases) {
        EXPECT_DOUBLE_EQ(SCALE(230, c.scale), c.value) << c.scale;
    }
}

TEST(Scale, UnknownPositiveScaleGivesNothingUnknownNegativeOneTheMeasure) {
    for (const int scale : {8, 9, 127}) {
        EXPECT_EQ(SCALE(230, scale), 0.0) << scale;
    }
    for (const int scale : {-8, -9, -128}) {
        EXPECT_EQ(SCALE(230, scale), 230.0) << scale;
    }
}

}  // namespace
