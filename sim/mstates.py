"""The 176 status bits of a power module, as they stand in its RC reply and in the module's node.

Bit i of the table is bit i % 8 of states[i // 8]. Each has a name and a text for people, most texts with a tag:
C commands, W warnings, A anomalies, F faults, L locks, counted down within each byte. The last sixteen bits are events.
"""

from sim.mlink import nibbles, number

TABLE = (
    # states[0]
    ("BypassCommandActive", "[C08]BYPASS COMMAND ACTIVE"),
    ("RemoteBatteryChargerOff", "[C07]REMOTE BATT. CHARGER OFF"),
    ("EmergencyOffCommand", "[C06]EMERGENCY OFF COMMAND"),
    ("ManualBypassCommand", "[C05]MANUAL BYPASS COMMAND"),
    ("BatteryTestActive", "[C04]BATTERY TEST ACTIVE"),
    ("RemoteOnCommand", "[C03]REMOTE ON COMMAND"),
    ("RemoteBypassCommand", "[C02]REMOTE BYPASS COMMAND"),
    ("RemoteOffCommand", "[C01]REMOTE OFF COMMAND"),
    # states[1]
    ("ServiceBattery", "[W08]"),
    ("ServiceUps", "[W07]SERVICE UPS"),
    ("spare11", "[W06]"),
    ("SynchronizationDisabled", "[W05]SYNCHRONIZATION DISABLED"),
    ("BypassDisabled", "[W04]BYPASS DISABLED"),
    ("ShutdownImminent", "[W03]SHUTDOWN IMMINENT"),
    ("ShutdownActive", "[W02]SHUTDOWN ACTIVE"),
    ("BatteryLowWarning", "[W01]BATTERY LOW WARNING"),
    # states[2]
    ("MainsUnderVoltageL1", "[A08]MAINS UNDERVOLTAGE L1"),
    ("MainsOverVoltageL3", "[A07]MAINS OVERVOLTAGE L3"),
    ("MainsOverVoltageL2", "[A06]MAINS OVERVOLTAGE L2"),
    ("MainsOverVoltageL1", "[A05]MAINS OVERVOLTAGE L1"),
    ("ExternalSyncFail", "[A04]EXTERNAL SYNC. FAIL"),
    ("InverterAsynchronous", "[A03]INVERTER ASYNCHRONOUS"),
    ("DisplayError", "[A02]PM NOT COMPATIBLE"),
    ("ConfigurationDataCorrupted", "[A01]CONFIG. DATA CORRUPTED"),
    # states[3]
    ("BypassFrequencyAbnormal", "[A16]BYPASS FREQ. ABNORMAL"),
    ("BypassVoltageAbnormalL3", "[A15]BYPASS VOLT. ABNORMAL L3"),
    ("BypassVoltageAbnormalL2", "[A14]BYPASS VOLT. ABNORMAL L2"),
    ("BypassVoltageAbnormalL1", "[A13]BYPASS VOLT. ABNORMAL L1"),
    ("InputSwitchOpen", "[A12]"),
    ("MainsFrequencyAbnormal", "[A11]MAINS FREQUENCY ABNORMAL"),
    ("MainsUnderVoltageL3", "[A10]MAINS UNDERVOLTAGE L3"),
    ("MainsUnderVoltageL2", "[A09]MAINS UNDERVOLTAGE L2"),
    # states[4]
    ("LoadGreatUserThresholdL3", "[A24]LOAD> USER THRESHOLD L3"),
    ("LoadGreatUserThresholdL2", "[A23]LOAD> USER THRESHOLD L2"),
    ("LoadGreatUserThresholdL1", "[A22]LOAD> USER THRESHOLD L1"),
    ("OutputPeakOverCurrentL3", "[A21]OUT. PEAK OVERCURRENT L3"),
    ("OutputPeakOverCurrentL2", "[A20]OUT. PEAK OVERCURRENT L2"),
    ("OutputPeakOverCurrentL1", "[A19]OUT. PEAK OVERCURRENT L1"),
    ("BypassVoltageFail", "[A18]BYPASS VOLTAGE FAIL"),
    ("BypassSwitchOpen", "[A17]"),
    # states[5]
    ("PowerModule1UnderTemperature", "[A32]UNDERTEMP. POWER L1"),
    ("SystemOverTemperature", "[A31]INTERNAL OVERTEMP."),
    ("SystemUnderTemperature", "[A30]INTERNAL UNDERTEMP."),
    ("TempSensorFault_S0", "[A29]INT TEMP. SENSOR FAULT"),
    ("ReplaceBattery", "[A28]"),
    ("BatteryNegNotPresent", "[A27](-)BATTERY NOT PRESENT"),
    ("BatteryPosNotPresent", "[A26](+)BATTERY NOT PRESENT"),
    ("OutputSwitchOpen", "[A25]OUTPUT SWITCH OPEN"),
    # states[6]
    ("BatteryNegReplace", "[A40]REPLACE (-)BATTERY"),
    ("BatteryPosReplace", "[A39]REPLACE (+)BATTERY"),
    ("ExternalBatteryOverTemperature", "[A38]"),
    ("TempSensorFault_S6", "[A37]"),
    ("BatteryOverTemperature", "[A36]"),
    ("TempSensorFault_S5", "[A35]"),
    ("PowerModule3UnderTemperature", "[A34]UNDERTEMP. POWER L3"),
    ("BatterySwitchOpen", "[A33]UNDERTEMP. POWER L2"),
    # states[7]
    ("AnomalyOnRemoreUnit", "[A48]"),
    ("DifferentFirmwareVersion", "[A47]DIFFERENT FIRMW. VERSION"),
    ("spare59", "[A46]"),
    ("spare60", "[A45]"),
    ("spare61", "[A44]"),
    ("spare62", "[A43]"),
    ("spare63", "[A42]"),
    ("spare64", "[A41]"),
    # states[8]
    ("InputContactLockedL3", "[F08]INPUT CONTACT LOCKED L3"),
    ("InputContactLockedL2", "[F07]INPUT CONTACT LOCKED L2"),
    ("InputContactLockedL1", "[F06]INPUT CONTACT LOCKED L1"),
    ("InputFuseContactFailL3", "[F05]INP.FUSE/CONTACT FAIL L3"),
    ("InputFuseContactFailL2", "[F04]INP.FUSE/CONTACT FAIL L2"),
    ("InputFuseContactFailL1", "[F03]INP.FUSE/CONTACT FAIL L1"),
    ("MainsPhaseReversed", "[F02]MAINS PHASE REVERSED"),
    ("InternalCommunicationError", "[F01]INTERNAL COMM. ERROR"),
    # states[9]
    ("InverterSineWaveAbnormalL3", "[F16]INV.SINEWAVE ABNORMAL L3"),
    ("InverterSineWaveAbnormalL2", "[F15]INV.SINEWAVE ABNORMAL L2"),
    ("InverterSineWaveAbnormalL1", "[F14]INV.SINEWAVE ABNORMAL L1"),
    ("spare76", "[F13]BOOSTER FAILURE"),
    ("BypassPhaseReversed", "[F12]BYPASS PHASE REVERSED"),
    ("BoosterFault", "[F11]BOOSTER FAULT"),
    ("BusNegPrechargeFail", "[F10]DC (-)BUS PRECHARGE FAIL"),
    ("BusPosPrechargeFail", "[F09]DC (+)BUS PRECHARGE FAIL"),
    # states[10]
    ("OutputOverloadL2", "[F24]BYPASS MODULE FAULT"),
    ("OutputOverloadL1", "[F23]OUTPUT OVERLOAD"),
    ("BateryNegUnderVoltage", "[F22](-)BATTERY UNDERVOLTAGE"),
    ("BateryPosUnderVoltage", "[F21](+)BATTERY UNDERVOLTAGE"),
    ("BateryNegOverVoltage", "[F20](-)BATTERY OVERVOLTAGE"),
    ("BateryPosOverVoltage", "[F19](+)BATTERY OVERVOLTAGE"),
    ("spare87", "[F18]"),
    ("InverterFault", "[F17]INVERTER FAULT"),
    # states[11]
    ("BatteryChargerFault", "[F32]BATTERY CHARGER FAULT"),
    ("OutputFuseContactFailL3", "[F31]OUT.FUSE/CONTACT FAIL L3"),
    ("OutputFuseContactFailL2", "[F30]OUT.FUSE/CONTACT FAIL L2"),
    ("OutputFuseContactFailL1", "[F29]OUT.FUSE/CONTACT FAIL L1"),
    ("OutputContactLockedL3", "[F28]OUTPUT CONTACT LOCKED L3"),
    ("OutputContactLockedL2", "[F27]OUTPUT CONTACT LOCKED L2"),
    ("OutputContactLockedL1", "[F26]OUTPUT CONTACT LOCKED L1"),
    ("OutputOverloadL3", "[F25]POWER ABSORPTION"),
    # states[12]
    ("BatteryNegFuseBroken", "[F40](+) BATTERY FUSE BROKEN"),
    ("VdcBusMeasureError", "[F39]VDC BUS MEASURE ERROR"),
    ("AuxiliaryBatteryChargerFault", "[F38]"),
    ("BatteryChargerOverTemperature", "[F37]BATT. CHARGER OVERTEMP."),
    ("FanFailure", "[F36]FAN FAILURE"),
    ("OverTemperatureTransformer", "[F35]"),
    ("PowerModuleOverTemperature", "[F34]POWER OVERTEMPERATURE"),
    ("BatteryMeasureError", "[F33]BATTERY MEASURE ERROR"),
    # states[13]
    ("FaultOnRemoteUnit", "[F48]"),
    ("ParallelSynchronizationLineFault", "[F47]PARAL. SYNC. LINE FAULT"),
    ("ParallelBypassRequestLineFault", "[F46]PARAL. R_BYP. LINE FAULT"),
    ("ParallelLinkOpen", "[F45]PARALLEL LINK OPEN"),
    ("BatteryFuse3Broken", "[F44]BATTERY SCR3 FAULT"),
    ("BatteryFuse2Broken", "[F43]BATTERY SCR2 FAULT"),
    ("BatteryFuse1Broken", "[F42]BATTERY SCR1 FAULT"),
    ("BatteryPosFuseBroken", "[F41](-) BATTERY FUSE BROKEN"),
    # states[14]
    ("BoosterPosUnderVoltage", "[L08](+)BOOSTER UNDERVOLTAGE"),
    ("BoosterNegOverVoltage", "[L07](-)BOOSTER OVERVOLTAGE"),
    ("BoosterPosOverVoltage", "[L06](+)BOOSTER OVERVOLTAGE"),
    ("InputFuseContactFailL3Lock", "[L05]INP.FUSE/CONTACT FAIL L3"),
    ("InputFuseContactFailL2Lock", "[L04]INP.FUSE/CONTACT FAIL L2"),
    ("InputFuseContactFailL1Lock", "[L03]INP.FUSE/CONTACT FAIL L1"),
    ("BoardsLinkFail", "[L02]BOARDS LINK FAIL"),
    ("AuxiliaryPowerFail", "[L01]AUXILIARY POWER FAIL"),
    # states[15]
    ("InverterOverVoltageL3", "[L16]INVERTER OVERVOLTAGE L3"),
    ("InverterOverVoltageL2", "[L15]INVERTER OVERVOLTAGE L2"),
    ("InverterOverVoltageL1", "[L14]INVERTER OVERVOLTAGE L1"),
    ("BypassOutputLockedL3", "[L13]BYPASS OUTPUT LOCKED L3"),
    ("BypassOutputLockedL2", "[L12]BYPASS OUTPUT LOCKED L2"),
    ("BypassOutputLockedL1", "[L11]BYPASS OUTPUT LOCKED L1"),
    ("BypassSCRFail", "[L10]BYPASS BACKFEED"),
    ("BoosterNegUnderVoltage", "[L09](-)BOOSTER UNDERVOLTAGE"),
    # states[16]
    ("OutputOverLoadL2", "[L24]OUTPUT OVERLOAD L2"),
    ("OutputOverLoadL1", "[L23]OUTPUT OVERLOAD L1"),
    ("InverterSineWaveAbnormalL3Lock", "[L22]INV.SINEWAVE ABNORMAL L3"),
    ("InverterSineWaveAbnormalL2Lock", "[L21]INV.SINEWAVE ABNORMAL L2"),
    ("InverterSineWaveAbnormalL1Lock", "[L20]INV.SINEWAVE ABNORMAL L1"),
    ("InverterUnderVoltageL3", "[L19]INVERTER UNDERVOLTAGE L3"),
    ("InverterUnderVoltageL2", "[L18]INVERTER UNDERVOLTAGE L2"),
    ("InverterUnderVoltageL1", "[L17]INVERTER UNDERVOLTAGE L1"),
    # states[17]
    ("ParallelSynchronizationError", "[L32]PARAL. SYNCHRON. ERROR"),
    ("OutputFuseContactFailL3Lock", "[L31]OUT.FUSE/CONTACT FAIL L3"),
    ("OutputFuseContactFailL2Lock", "[L30]OUT.FUSE/CONTACT FAIL L2"),
    ("OutputFuseContactFailL1Lock", "[L29]OUT.FUSE/CONTACT FAIL L1"),
    ("OutputShortCircuitL3", "[L28]OUTPUT SHORT-CIRCUIT L3"),
    ("OutputShortCircuitL2", "[L27]OUTPUT SHORT-CIRCUIT L2"),
    ("OutputShortCircuitL1", "[L26]OUTPUT SHORT-CIRCUIT L1"),
    ("OutputOverLoadL3", "[L25]OUTPUT OVERLOAD L3"),
    # states[18]
    ("TemperatureSensorFault_S3", "[L40]INV. L3 OVERTEMP/SENSOR"),
    ("TemperatureSensorFault_S2", "[L39]INV. L2 OVERTEMP/SENSOR"),
    ("TemperatureSensorFault_S1", "[L38]INV. L1 OVERTEMP/SENSOR"),
    ("BatteryChargerOverTemperatureLock", "[L37]BATT. CHARGER OVERTEMP."),
    ("PowerModule3OverTemperatureLock", "[L36]BOOST L3 OVERTEMP/SENSOR"),
    ("PowerModule2OverTemperatureLock", "[L35]BOOST L2 OVERTEMP/SENSOR"),
    ("PowerModule1OverTemperatureLock", "[L34]BOOST L1 OVERTEMP/SENSOR"),
    ("ParallelSynchronizationLineFaultLock", "[L33]PARAL. SYNC. LINE FAULT"),
    # states[19]
    ("LockOnremoteUnit", "[L48]"),
    ("ParallelBoardFault", "[L47]PARALLEL BOARD FAULT"),
    ("ParallelCommunicationFault", "[L46]PARAL. COMMUNICAT. FAULT"),
    ("ParallelBusDivision", "[L45]PARALLEL BUS DIVISION"),
    ("BatteryFuse3BrokenLock", "[L44]BATTERY SCR3 FAULT"),
    ("BatteryFuse2BrokenLock", "[L43]BATTERY SCR2 FAULT"),
    ("BatteryFuse1BrokenLock", "[L42]BATTERY SCR1 FAULT"),
    ("TemperatureSensorFault_S4", "[L41]SCR BATT.OVERTEMPERATURE"),
    # states[20]
    ("OnForSystemOn", "ON FOR SYSTEM ON"),
    ("ConfigurationChanged", "CONFIGURATION CHANGED"),
    ("ShutdownDeleted", "SHUTDOWN DELETED"),
    ("BatteryCharged", "BATTERY CHARGED"),
    ("spare157", ""),
    ("PowerOn", "POWER ON"),
    ("LoadOnBypass", "LOAD ON BYPASS"),
    ("BatteryWorking", "BATTERY WORKING"),
    # states[21]
    ("OffForLock", "OFF FOR LOCK"),
    ("OffForAutonomyLimit", "OFF FOR AUTONOMY LIMIT."),
    ("OffForBatteryEnded", "OFF FOR BATTERY ENDED"),
    ("OffForShutdownCommand", "OFF FOR SHUTDOWN COMMAND"),
    ("OffForAutoOff", "OFF FOR AUTO-OFF"),
    ("OffForSystemOff", "OFF FOR SYSTEM OFF"),
    ("OnForRestoreCommand", "ON FOR RESTORE COMMAND"),
    ("OnForAutoRestart", "ON FOR AUTO-RESTART"),
)
BYTES = len(TABLE) // 8
CHARACTERS = len(TABLE) // 4


def _tags():
    return {text[1:4]: i for i, (_, text) in enumerate(TABLE) if text.startswith("[")}


_INDEX = {name: i for i, (name, _) in enumerate(TABLE)}
_INDEX.update(_tags())


def index(bit):
    """Place in the table of a bit given by its tag "A08", its name, (byte, mask) or its place already."""
    if isinstance(bit, int):
        return bit
    if isinstance(bit, str):
        return _INDEX[bit]
    byte, mask = bit
    return byte * 8 + mask.bit_length() - 1


def encode(states):
    """The 44 characters for 22 bytes: each character holds four bits, the first of them as its most significant."""
    chars = b""
    for byte in states:
        turned = int("{:08b}".format(byte)[::-1], 2)
        chars += nibbles(turned, 2)
    return chars


def decode(chars):
    """The 22 bytes in 44 characters."""
    return [int("{:08b}".format(number(chars[i:i + 2]))[::-1], 2) for i in range(0, len(chars), 2)]


def names(states):
    """Names of the bits that are set in 22 bytes."""
    return {name for i, (name, _) in enumerate(TABLE) if states[i // 8] >> i % 8 & 1}


def texts(states):
    """Texts of the bits that are set, in order."""
    return [text or name for i, (name, text) in enumerate(TABLE) if states[i // 8] >> i % 8 & 1]
