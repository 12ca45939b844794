// The 176 status bits of a module, as its RC reply brings them.
#ifndef COMMON_STATUSBITS_H
#define COMMON_STATUSBITS_H

#include "Common/Common.h"

constexpr int RCDATALENGTH = 44;            // characters of status data in an RC reply
constexpr int NUMRCBIT = RCDATALENGTH * 4;  // four status bits in a character
constexpr int NUMRCBYTE = NUMRCBIT / 8;

/// The named status bits of a module, in the bit order of the RC reply; the names are the family's, spelling included.
union rcStates_t {
    char states[NUMRCBYTE];
    struct {
        // byte 0
        uint8 BypassCommandActive : 1;
        uint8 RemoteBatteryChargerOff : 1;
        uint8 EmergencyOffCommand : 1;
        uint8 ManualBypassCommand : 1;
        uint8 BatteryTestActive : 1;
        uint8 RemoteOnCommand : 1;
        uint8 RemoteBypassCommand : 1;
        uint8 RemoteOffCommand : 1;
        // byte 1
        uint8 ServiceBattery : 1;
        uint8 ServiceUps : 1;
        uint8 spare11 : 1;
        uint8 SynchronizationDisabled : 1;
        uint8 BypassDisabled : 1;
        uint8 ShutdownImminent : 1;
        uint8 ShutdownActive : 1;
        uint8 BatteryLowWarning : 1;
        // byte 2
        uint8 MainsUnderVoltageL1 : 1;
        uint8 MainsOverVoltageL3 : 1;
        uint8 MainsOverVoltageL2 : 1;
        uint8 MainsOverVoltageL1 : 1;
        uint8 ExternalSyncFail : 1;
        uint8 InverterAsynchronous : 1;
        uint8 DisplayError : 1;
        uint8 ConfigurationDataCorrupted : 1;
        // byte 3
        uint8 BypassFrequencyAbnormal : 1;
        uint8 BypassVoltageAbnormalL3 : 1;
        uint8 BypassVoltageAbnormalL2 : 1;
        uint8 BypassVoltageAbnormalL1 : 1;
        uint8 InputSwitchOpen : 1;
        uint8 MainsFrequencyAbnormal : 1;
        uint8 MainsUnderVoltageL3 : 1;
        uint8 MainsUnderVoltageL2 : 1;
        // byte 4
        uint8 LoadGreatUserThresholdL3 : 1;
        uint8 LoadGreatUserThresholdL2 : 1;
        uint8 LoadGreatUserThresholdL1 : 1;
        uint8 OutputPeakOverCurrentL3 : 1;
        uint8 OutputPeakOverCurrentL2 : 1;
        uint8 OutputPeakOverCurrentL1 : 1;
        uint8 BypassVoltageFail : 1;
        uint8 BypassSwitchOpen : 1;
        // byte 5
        uint8 PowerModule1UnderTemperature : 1;
        uint8 SystemOverTemperature : 1;
        uint8 SystemUnderTemperature : 1;
        uint8 TempSensorFault_S0 : 1;
        uint8 ReplaceBattery : 1;
        uint8 BatteryNegNotPresent : 1;
        uint8 BatteryPosNotPresent : 1;
        uint8 OutputSwitchOpen : 1;
        // byte 6
        uint8 BatteryNegReplace : 1;
        uint8 BatteryPosReplace : 1;
        uint8 ExternalBatteryOverTemperature : 1;
        uint8 TempSensorFault_S6 : 1;
        uint8 BatteryOverTemperature : 1;
        uint8 TempSensorFault_S5 : 1;
        uint8 PowerModule3UnderTemperature : 1;
        uint8 BatterySwitchOpen : 1;
        // byte 7
        uint8 AnomalyOnRemoreUnit : 1;
        uint8 DifferentFirmwareVersion : 1;
        uint8 spare59 : 1;
        uint8 spare60 : 1;
        uint8 spare61 : 1;
        uint8 spare62 : 1;
        uint8 spare63 : 1;
        uint8 spare64 : 1;
        // byte 8
        uint8 InputContactLockedL3 : 1;
        uint8 InputContactLockedL2 : 1;
        uint8 InputContactLockedL1 : 1;
        uint8 InputFuseContactFailL3 : 1;
        uint8 InputFuseContactFailL2 : 1;
        uint8 InputFuseContactFailL1 : 1;
        uint8 MainsPhaseReversed : 1;
        uint8 InternalCommunicationError : 1;
        // byte 9
        uint8 InverterSineWaveAbnormalL3 : 1;
        uint8 InverterSineWaveAbnormalL2 : 1;
        uint8 InverterSineWaveAbnormalL1 : 1;
        uint8 spare76 : 1;
        uint8 BypassPhaseReversed : 1;
        uint8 BoosterFault : 1;
        uint8 BusNegPrechargeFail : 1;
        uint8 BusPosPrechargeFail : 1;
        // byte 10
        uint8 OutputOverloadL2 : 1;
        uint8 OutputOverloadL1 : 1;
        uint8 BateryNegUnderVoltage : 1;
        uint8 BateryPosUnderVoltage : 1;
        uint8 BateryNegOverVoltage : 1;
        uint8 BateryPosOverVoltage : 1;
        uint8 spare87 : 1;
        uint8 InverterFault : 1;
        // byte 11
        uint8 BatteryChargerFault : 1;
        uint8 OutputFuseContactFailL3 : 1;
        uint8 OutputFuseContactFailL2 : 1;
        uint8 OutputFuseContactFailL1 : 1;
        uint8 OutputContactLockedL3 : 1;
        uint8 OutputContactLockedL2 : 1;
        uint8 OutputContactLockedL1 : 1;
        uint8 OutputOverloadL3 : 1;
        // byte 12
        uint8 BatteryNegFuseBroken : 1;
        uint8 VdcBusMeasureError : 1;
        uint8 AuxiliaryBatteryChargerFault : 1;
        uint8 BatteryChargerOverTemperature : 1;
        uint8 FanFailure : 1;
        uint8 OverTemperatureTransformer : 1;
        uint8 PowerModuleOverTemperature : 1;
        uint8 BatteryMeasureError : 1;
        // byte 13
        uint8 FaultOnRemoteUnit : 1;
        uint8 ParallelSynchronizationLineFault : 1;
        uint8 ParallelBypassRequestLineFault : 1;
        uint8 ParallelLinkOpen : 1;
        uint8 BatteryFuse3Broken : 1;
        uint8 BatteryFuse2Broken : 1;
        uint8 BatteryFuse1Broken : 1;
        uint8 BatteryPosFuseBroken : 1;
        // byte 14
        uint8 BoosterPosUnderVoltage : 1;
        uint8 BoosterNegOverVoltage : 1;
        uint8 BoosterPosOverVoltage : 1;
        uint8 InputFuseContactFailL3Lock : 1;
        uint8 InputFuseContactFailL2Lock : 1;
        uint8 InputFuseContactFailL1Lock : 1;
        uint8 BoardsLinkFail : 1;
        uint8 AuxiliaryPowerFail : 1;
        // byte 15
        uint8 InverterOverVoltageL3 : 1;
        uint8 InverterOverVoltageL2 : 1;
        uint8 InverterOverVoltageL1 : 1;
        uint8 BypassOutputLockedL3 : 1;
        uint8 BypassOutputLockedL2 : 1;
        uint8 BypassOutputLockedL1 : 1;
        uint8 BypassSCRFail : 1;
        uint8 BoosterNegUnderVoltage : 1;
        // byte 16
        uint8 OutputOverLoadL2 : 1;
        uint8 OutputOverLoadL1 : 1;
        uint8 InverterSineWaveAbnormalL3Lock : 1;
        uint8 InverterSineWaveAbnormalL2Lock : 1;
        uint8 InverterSineWaveAbnormalL1Lock : 1;
        uint8 InverterUnderVoltageL3 : 1;
        uint8 InverterUnderVoltageL2 : 1;
        uint8 InverterUnderVoltageL1 : 1;
        // byte 17
        uint8 ParallelSynchronizationError : 1;
        uint8 OutputFuseContactFailL3Lock : 1;
        uint8 OutputFuseContactFailL2Lock : 1;
        uint8 OutputFuseContactFailL1Lock : 1;
        uint8 OutputShortCircuitL3 : 1;
        uint8 OutputShortCircuitL2 : 1;
        uint8 OutputShortCircuitL1 : 1;
        uint8 OutputOverLoadL3 : 1;
        // byte 18
        uint8 TemperatureSensorFault_S3 : 1;
        uint8 TemperatureSensorFault_S2 : 1;
        uint8 TemperatureSensorFault_S1 : 1;
        uint8 BatteryChargerOverTemperatureLock : 1;
        uint8 PowerModule3OverTemperatureLock : 1;
        uint8 PowerModule2OverTemperatureLock : 1;
        uint8 PowerModule1OverTemperatureLock : 1;
        uint8 ParallelSynchronizationLineFaultLock : 1;
        // byte 19
        uint8 LockOnremoteUnit : 1;
        uint8 ParallelBoardFault : 1;
        uint8 ParallelCommunicationFault : 1;
        uint8 ParallelBusDivision : 1;
        uint8 BatteryFuse3BrokenLock : 1;
        uint8 BatteryFuse2BrokenLock : 1;
        uint8 BatteryFuse1BrokenLock : 1;
        uint8 TemperatureSensorFault_S4 : 1;
        // byte 20
        uint8 OnForSystemOn : 1;
        uint8 ConfigurationChanged : 1;
        uint8 ShutdownDeleted : 1;
        uint8 BatteryCharged : 1;
        uint8 spare157 : 1;
        uint8 PowerOn : 1;
        uint8 LoadOnBypass : 1;
        uint8 BatteryWorking : 1;
        // byte 21
        uint8 OffForLock : 1;
        uint8 OffForAutonomyLimit : 1;
        uint8 OffForBatteryEnded : 1;
        uint8 OffForShutdownCommand : 1;
        uint8 OffForAutoOff : 1;
        uint8 OffForSystemOff : 1;
        uint8 OnForRestoreCommand : 1;
        uint8 OnForAutoRestart : 1;
    } PACKED;
};

#endif
