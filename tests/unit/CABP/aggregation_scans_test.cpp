// How the fields of the cabinets' records come together in the system's: sums, averages, extremes and bits.
#include <limits>
#include <vector>

#include "unit/CABP/Aggregation.h"

namespace {

using namespace aggregation;

class Scans : public AggregationTest {};

TEST_F(Scans, PlantThatIsWellByteForByte) {
    settle();
    pass();
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
}

TEST_F(Scans, NothingIsToldAboutAPlantThatIsWell) {
    settle();
    const LogCapture log;
    passes(60);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
}

// The second record differs from the first by what is set; so does the system's by what is expected.
struct FieldCase {
    const char* name;
    void (*set)(descUpsBox_t&);
    void (*expect)(descSys_t&);
};
std::ostream& operator<<(std::ostream& out, const FieldCase& field) {
    return out << field.name;
}

class ScansField : public AggregationTest, public testing::WithParamInterface<FieldCase> {};

TEST_P(ScansField, OfOneCabinetReachesTheSystem) {
    settle();
    GetParam().set(box('B'));
    descSys_t expected = expectedWell();
    GetParam().expect(expected);
    if ((expected.Ups.alarm.byte & 0x07) != 0) {
        expected.Ups.extStatus.UPS_OK = 0;
    }
    pass();
    expected.Ups.timestamp = now();
    EXPECT_TRUE(sameBytes(expected, root()));
}

#define FIELD(name, set, expect)                                   \
    FieldCase {                                                    \
        name, [](descUpsBox_t& box) { set; }, [](descSys_t& sys) { \
            (void)sys;                                             \
            expect;                                                \
        }                                                          \
    }

// Bits of which the system has each that any cabinet has.
INSTANTIATE_TEST_SUITE_P(
    Alarms, ScansField,
    testing::Values(
        FIELD("Warning", box.Ups.alarm.Warning = 1,
              (sys.Ups.alarm.Warning = 1, setElemAlarm(sys.subSystem.UPSBox[1], warningAlarm))),
        FIELD("Anomaly", box.Ups.alarm.Anomaly = 1,
              (sys.Ups.alarm.Anomaly = 1, setElemAlarm(sys.subSystem.UPSBox[1], anomalyAlarm))),
        FIELD("Fault", box.Ups.alarm.Fault = 1,
              (sys.Ups.alarm.Fault = 1, sys.boxStatus.Fault = 1, setElemAlarm(sys.subSystem.UPSBox[1], faultAlarm))),
        FIELD("Alarm_Temperature", box.Ups.alarm.Alarm_Temperature = 1, sys.Ups.alarm.Alarm_Temperature = 1),
        FIELD("Alarm_Overload", box.Ups.alarm.Alarm_Overload = 1, sys.Ups.alarm.Alarm_Overload = 1),
        // These are decided by all cabinets together.
        FIELD("Lock", box.Ups.alarm.Lock = 1, setElemAlarm(sys.subSystem.UPSBox[1], lockAlarm)),
        FIELD("Bypass_Bad", box.Ups.alarm.Bypass_Bad = 1, ), FIELD("Battery_Low", box.Ups.alarm.Battery_Low = 1, ),
        FIELD("Battery_Working", box.Ups.status.Battery_Working = 1, )));

INSTANTIATE_TEST_SUITE_P(
    States, ScansField,
    testing::Values(
        FIELD("On_Bypass", box.Ups.status.On_Bypass = 1,
              (sys.Ups.status.On_Bypass = 1, sys.Ups.Load[0] = sys.Ups.Load[1] = sys.Ups.Load[2] = 0)),
        FIELD("Line_Present", box.Ups.status.Line_Present = 0, sys.Ups.status.Line_Present = 1),
        FIELD("Shutdown_Active", box.Ups.status.Shutdown_Active = 1, sys.Ups.status.Shutdown_Active = 1),
        FIELD("Shutdown_Imminent", box.Ups.status.Shutdown_Imminent = 1, sys.Ups.status.Shutdown_Imminent = 1),
        FIELD("Clock_Update", box.Ups.extStatus.Clock_Update = 1, sys.Ups.extStatus.Clock_Update = 1),
        FIELD("isMaster", box.Ups.extStatus.isMaster = 1, sys.Ups.extStatus.isMaster = 1),
        FIELD("Eco_Mode", box.Ups.extStatus.Eco_Mode = 1, sys.Ups.extStatus.Eco_Mode = 1),
        FIELD("Test_in_progress", box.Ups.extStatus.Test_in_progress = 1, sys.Ups.extStatus.Test_in_progress = 1),
        FIELD("Replace_Battery", box.Ups.extStatus.Replace_Battery = 1, sys.Ups.extStatus.Replace_Battery = 1),
        FIELD("Parallel_Link_Open", box.Ups.extStatus.Parallel_Link_Open = 1, sys.Ups.extStatus.Parallel_Link_Open = 1),
        FIELD("Battery_Charging", box.Ups.extStatus.Battery_Charging = 1, sys.Ups.extStatus.Battery_Charging = 1),
        FIELD("Q1", box.Ups.switchStatus.Q1 = 0, sys.Ups.switchStatus.Q1 = 1),
        FIELD("LoadOnBypass_Cmd", box.Ups.switchStatus.LoadOnBypass_Cmd = 1, sys.Ups.switchStatus.LoadOnBypass_Cmd = 1),
        FIELD("BypassDisabled_Cmd", box.Ups.switchStatus.BypassDisabled_Cmd = 1,
              sys.Ups.switchStatus.BypassDisabled_Cmd = 1),
        FIELD("Bt_present", box.Ups.switchStatus.Bt_present = 0, sys.Ups.switchStatus.Bt_present = 1),
        FIELD("RemoteCBOff_Cmd", box.Ups.switchStatus.RemoteCBOff_Cmd = 1, sys.Ups.switchStatus.RemoteCBOff_Cmd = 1),
        FIELD("RemoteEco_Cmd", box.Ups.switchStatus.RemoteEco_Cmd = 1, sys.Ups.switchStatus.RemoteEco_Cmd = 1),
        FIELD("FreeSW6", box.Ups.switchStatus.FreeSW6 = 1, sys.Ups.switchStatus.FreeSW6 = 1),
        FIELD("RemoteBatteryWorking_Cmd", box.Ups.switchStatus.RemoteBatteryWorking_Cmd = 1,
              sys.Ups.switchStatus.RemoteBatteryWorking_Cmd = 1)));

INSTANTIATE_TEST_SUITE_P(
    PowerModuleStates, ScansField,
    testing::Values(
        FIELD("wrongPower", box.Ups.PMStatus.wrongPower = 1, sys.Ups.PMStatus.wrongPower = 1),
        FIELD("inputDisabled", box.Ups.PMStatus.inputDisabled = 1, sys.Ups.PMStatus.inputDisabled = 1),
        FIELD("commError", box.Ups.PMStatus.commError = 1, sys.Ups.PMStatus.commError = 1),
        FIELD("bypassBadAnomaly", box.Ups.PMStatus.bypassBadAnomaly = 1, sys.Ups.PMStatus.bypassBadAnomaly = 1),
        FIELD("batteryWorkingAnomaly", box.Ups.PMStatus.batteryWorkingAnomaly = 1,
              sys.Ups.PMStatus.batteryWorkingAnomaly = 1),
        FIELD("outputPoweredAnomaly", box.Ups.PMStatus.outputPoweredAnomaly = 1,
              sys.Ups.PMStatus.outputPoweredAnomaly = 1),
        FIELD("differentFirmwareAnomaly", box.Ups.PMStatus.differentFirmwareAnomaly = 1,
              sys.Ups.PMStatus.differentFirmwareAnomaly = 1),
        FIELD("someBatteryDisconnect", box.Ups.PMStatus.someBatteryDisconnect = 1,
              sys.Ups.PMStatus.someBatteryDisconnect = 1),
        FIELD("bitCmdUnsupported", box.Ups.PMStatus.bitCmdUnsupported = 1, sys.Ups.PMStatus.bitCmdUnsupported = 1),
        // The rest of the upper byte is the system's own.
        FIELD("SWINCabinetAnomaly", box.Ups.PMStatus.SWINCabinetAnomaly = 1, ),
        FIELD("SWBYPCabinetAnomaly", box.Ups.PMStatus.SWBYPCabinetAnomaly = 1, ),
        FIELD("SWMBCabinetAnomaly", box.Ups.PMStatus.SWMBCabinetAnomaly = 1, ),
        FIELD("SWOUTCabinetAnomaly", box.Ups.PMStatus.SWOUTCabinetAnomaly = 1, ),
        FIELD("SWBATT_EXTCabinetAnomaly", box.Ups.PMStatus.SWBATT_EXTCabinetAnomaly = 1, ),
        FIELD("FreePMS14", box.Ups.PMStatus.FreePMS14 = 1, ), FIELD("FreePMS15", box.Ups.PMStatus.FreePMS15 = 1, )));

INSTANTIATE_TEST_SUITE_P(
    BoxStates, ScansField,
    testing::Values(
        FIELD("NotPresentString", box.boxStatus.NotPresentString = 1, sys.boxStatus.NotPresentString = 1),
        FIELD("ReplaceString", box.boxStatus.ReplaceString = 1, sys.boxStatus.ReplaceString = 1),
        FIELD("boxFault", box.boxStatus.Fault = 1,
              (sys.boxStatus.Fault = 1, setElemAlarm(sys.subSystem.UPSBox[1], faultAlarm))),
        FIELD("SWBATT", box.boxStatus.SWBATT = 1, ),
        FIELD("HighTemp", box.boxStatus.HighTemp = 1, sys.boxStatus.HighTemp = 1),
        FIELD("HighHygro", box.boxStatus.HighHygro = 1, sys.boxStatus.HighHygro = 1),
        FIELD("boxAnomaly", box.boxStatus.Anomaly = 1,
              (sys.boxStatus.Anomaly = 1, setElemAlarm(sys.subSystem.UPSBox[1], anomalyAlarm))),
        FIELD("boxWarning", box.boxStatus.Warning = 1,
              (sys.boxStatus.Warning = 1, setElemAlarm(sys.subSystem.UPSBox[1], warningAlarm))),
        FIELD("Fault_PWR1", box.externalSwitchStatus.Fault_PWR1 = 1, sys.externalSwitchStatus.Fault_PWR1 = 1),
        FIELD("Fault_PWR2", box.externalSwitchStatus.Fault_PWR2 = 1, sys.externalSwitchStatus.Fault_PWR2 = 1),
        FIELD("FreeSW3", box.externalSwitchStatus.FreeSW3 = 1, sys.externalSwitchStatus.FreeSW3 = 1),
        FIELD("FreeSW5", box.externalSwitchStatus.FreeSW5 = 1, sys.externalSwitchStatus.FreeSW5 = 1),
        FIELD("EPO", box.externalSwitchStatus.EPO = 0, sys.externalSwitchStatus.EPO = 0),
        FIELD("commErrorMU", box.MCUMUStatus.commErrorMU = 1, sys.MCUMUStatus.commErrorMU = 1),
        FIELD("AnomalyMCU", box.MCUMUStatus.AnomalyMCU = 1, sys.MCUMUStatus.AnomalyMCU = 1),
        // A cabinet that answers has no such error, whatever its record says; its other bits are its own.
        FIELD("commErrorMCU", box.MCUMUStatus.commErrorMCU = 1, ), FIELD("FreePMS3", box.MCUMUStatus.byte = 0xF8, ),
        FIELD("mcuStatus", box.mcuStatus.byte = 0xFF, )));

INSTANTIATE_TEST_SUITE_P(Measures, ScansField,
                         testing::Values(FIELD("maxLoad", box.Ups.maxLoad = 32767, sys.Ups.maxLoad = 32767),
                                         FIELD("negativeMaxLoad", box.Ups.maxLoad = -1, sys.Ups.maxLoad = 73),
                                         FIELD("Va", box.Ups.Va[0] += 7, sys.Ups.Va[0] += 7),
                                         FIELD("Va2", box.Ups.Va[1] += 7, sys.Ups.Va[1] += 7),
                                         FIELD("Va3", box.Ups.Va[2] += 7, sys.Ups.Va[2] += 7),
                                         FIELD("Watt", box.Ups.Watt[0] += 7, sys.Ups.Watt[0] += 7),
                                         FIELD("Watt2", box.Ups.Watt[1] += 7, sys.Ups.Watt[1] += 7),
                                         FIELD("Watt3", box.Ups.Watt[2] += 7, sys.Ups.Watt[2] += 7),
                                         FIELD("Iin", box.Ups.Iin[0] += 7, sys.Ups.Iin[0] += 7),
                                         FIELD("Iin2", box.Ups.Iin[1] += 7, sys.Ups.Iin[1] += 7),
                                         FIELD("Iin3", box.Ups.Iin[2] += 7, sys.Ups.Iin[2] += 7),
                                         FIELD("Iout", box.Ups.Iout[0] -= 7000, sys.Ups.Iout[0] -= 7000),
                                         FIELD("Iout2", box.Ups.Iout[1] += 7, sys.Ups.Iout[1] += 7),
                                         FIELD("Iout3", box.Ups.Iout[2] += 7, sys.Ups.Iout[2] += 7),
                                         FIELD("Iout_pk", box.Ups.Iout_pk[0] += 7, sys.Ups.Iout_pk[0] += 7),
                                         FIELD("Iout_pk2", box.Ups.Iout_pk[1] += 7, sys.Ups.Iout_pk[1] += 7),
                                         FIELD("Iout_pk3", box.Ups.Iout_pk[2] += 7, sys.Ups.Iout_pk[2] += 7),
                                         FIELD("Ibatp", box.Ups.Ibatp -= 7000, sys.Ups.Ibatp -= 7000),
                                         FIELD("Ibatn", box.Ups.Ibatn += 7, sys.Ups.Ibatn += 7),
                                         // Not carried.
                                         FIELD("VAR", box.Ups.VAR[0] = 7, ), FIELD("Cent_kwh", box.Ups.Cent_kwh = 7, ),
                                         FIELD("shelter", box.Batteries.shelter[0].strPosI = 7, )));

INSTANTIATE_TEST_SUITE_P(NeverNegative, ScansField,
                         testing::Values(FIELD("Watt", box.Ups.Watt[0] = -1000000, sys.Ups.Watt[0] = 0),
                                         FIELD("Watt3", box.Ups.Watt[2] = -1000000, sys.Ups.Watt[2] = 0),
                                         FIELD("Va", box.Ups.Va[0] = -1000000, sys.Ups.Va[0] = 0),
                                         FIELD("Va2", box.Ups.Va[1] = -1000000, sys.Ups.Va[1] = 0),
                                         FIELD("Iout_pk", box.Ups.Iout_pk[0] = -1000000, sys.Ups.Iout_pk[0] = 0),
                                         FIELD("Iout_pk2", box.Ups.Iout_pk[1] = -1000000, sys.Ups.Iout_pk[1] = 0)));

INSTANTIATE_TEST_SUITE_P(
    Extremes, ScansField,
    testing::Values(FIELD("VbatRS", box.Ups.VbatRS = 100, sys.Ups.VbatRS = 100),
                    FIELD("deadVbatRS", box.Ups.VbatRS = 99, ),
                    FIELD("Vbatp", box.Ups.Vbatp = 101, (sys.Ups.Vbatp = 101, sys.Ups.Aut_time = 3600)),
                    FIELD("Vbatn", box.Ups.Vbatn = 100, sys.Ups.Vbatn = 100), FIELD("deadVbatn", box.Ups.Vbatn = 99, ),
                    FIELD("Aut_time", box.Ups.Aut_time = 7, sys.Ups.Aut_time = 7),
                    FIELD("Carica_adj", box.Ups.Carica_adj = 7, sys.Ups.Carica_adj = 7),
                    // A battery at 100 V counts as a reading, but its autonomy doesn't yet.
                    FIELD("autonomyAt100V", (box.Ups.Vbatp = 100, box.Ups.Aut_time = 7, box.Ups.Carica_adj = 7),
                          sys.Ups.Vbatp = 100),
                    FIELD("autonomyAt101V", (box.Ups.Vbatp = 101, box.Ups.Aut_time = 7, box.Ups.Carica_adj = 7),
                          (sys.Ups.Vbatp = 101, sys.Ups.Aut_time = 7, sys.Ups.Carica_adj = 7)),
                    FIELD("autonomyAt99V", (box.Ups.Vbatp = 99, box.Ups.Aut_time = 7, box.Ups.Carica_adj = 7), ),
                    FIELD("Temp0", box.Ups.Temp0 = 255, sys.Ups.Temp0 = 255),
                    FIELD("Temp1", box.Ups.Temp1 = 255, sys.Ups.Temp1 = 255),
                    FIELD("Temp2", box.Ups.Temp2 = 255, sys.Ups.Temp2 = 255),
                    FIELD("Temp3", box.Ups.Temp3 = 255, sys.Ups.Temp3 = 255),
                    FIELD("Temp4", box.Ups.Temp4 = 255, sys.Ups.Temp4 = 255),
                    FIELD("Temp5", box.Ups.Temp5 = 255, sys.Ups.Temp5 = 255),
                    FIELD("Temp6", box.Ups.Temp6 = 255, sys.Ups.Temp6 = 255), FIELD("lowTemp", box.Ups.Temp0 = 0, )));

// ---------------------------------------------------------------------------------------------------------------
// Averages

// A field in cabinet and system, and the last value that is no reading.
struct MeanCase {
    const char* name;
    uint16 dead;
    void (*set)(dataObject_t&, uint16);
    uint16 (*get)(const dataObject_t&);
};
std::ostream& operator<<(std::ostream& out, const MeanCase& mean) {
    return out << mean.name;
}

class ScansMean : public AggregationTest, public testing::WithParamInterface<MeanCase> {
  protected:
    uint16 meanOf(const std::vector<int>& values) {
        char letter = 'A';
        for (const int value : values) {
            GetParam().set(ups(letter++), static_cast<uint16>(value));
        }
        pass();
        return GetParam().get(sys());
    }
};

TEST_P(ScansMean, LeavesOutDeadInputs) {
    const int dead = GetParam().dead;
    EXPECT_EQ(meanOf({dead, dead, dead, dead}), 0);
    EXPECT_EQ(meanOf({dead + 1, dead, dead, dead}), dead + 1);
    EXPECT_EQ(meanOf({dead, 0, dead + 1, dead + 3}), dead + 2);
    EXPECT_EQ(meanOf({0, 0, 0, 0}), 0);
}

TEST_P(ScansMean, Truncates) {
    EXPECT_EQ(meanOf({400, 401, 401, 401}), 400);
    EXPECT_EQ(meanOf({0, 400, 401, 0}), 400);
    EXPECT_EQ(meanOf({65535, 65535, 65535, 65535}), 65535);
}

#define MEAN(name, dead, field)                                         \
    MeanCase {                                                          \
        name, dead, [](dataObject_t& ups, uint16 v) { ups.field = v; }, \
            [](const dataObject_t& ups) -> uint16 { return ups.field; } \
    }
#define MEAN3(dead, field) \
    MEAN(#field "1", dead, field[0]), MEAN(#field "2", dead, field[1]), MEAN(#field "3", dead, field[2])

INSTANTIATE_TEST_SUITE_P(Readings, ScansMean,
                         testing::Values(MEAN3(79, Vin), MEAN3(79, Vbyp), MEAN3(79, Vout), MEAN3(138, Uin),
                                         MEAN3(138, Ubyp), MEAN3(138, Uout), MEAN("Frq_in", 19, Frq_in),
                                         MEAN("Frq_byp", 19, Frq_byp), MEAN("Frq_out", 19, Frq_out)));

TEST_F(Scans, LoadIsThatOfPoweredCabinetsOnly) {
    settle();
    ups('B').status.Output_Powered = 0;
    ups('C').Load[LINE1] = 80;  // 40, 80 and 43
    pass();
    EXPECT_EQ(sys().Load[LINE1], 54);
    EXPECT_EQ(sys().Load[LINE2], (50 + 52 + 53) / 3);
}

TEST_F(Scans, LoadKeepsItsLowByte) {
    for (const char letter : letters) {
        ups(letter).Load[LINE1] = 300;
        ups(letter).Load[LINE2] = 255;
        ups(letter).Load[LINE3] = 256;
    }
    settle();
    EXPECT_EQ(sys().Load[LINE1], 44);
    EXPECT_EQ(sys().Load[LINE2], 255);
    EXPECT_EQ(sys().Load[LINE3], 0);
}

TEST_F(Scans, OnBypassThereIsNoLoad) {
    ups('D').status.On_Bypass = 1;
    settle();
    for (int l = 0; l < 3; ++l) {
        EXPECT_EQ(sys().Load[l], 0) << l;
        EXPECT_NE(sys().Watt[l], 0) << l;
    }
    EXPECT_TRUE(jsonHas("\"ONBYPASS\": true"));
    EXPECT_TRUE(jsonHas("\"OUTPUTLOAD\": 0"));
}

TEST_F(Scans, BarsBelowTheirBoundAreLeftOut) {
    box('A').Batteries.barsPosV = 100;
    box('B').Batteries.barsPosV = 99;
    box('C').Batteries.barsPosV = -300;
    box('D').Batteries.barsPosV = 103;
    for (const char letter : letters) {
        box(letter).Batteries.barsNegV = 99;
    }
    settle();
    EXPECT_EQ(root().Batteries.barsPosV, 101);
    EXPECT_EQ(root().Batteries.barsNegV, 0);
}

TEST_F(Scans, SumsWrapInsteadOfOverflowing) {
    for (const char letter : letters) {
        for (int l = 0; l < 3; ++l) {
            ups(letter).Watt[l] = std::numeric_limits<int32>::max();
            ups(letter).Iout[l] = std::numeric_limits<int32>::max();
            ups(letter).Iin[l] = 0x80000001u;
        }
        ups(letter).Ibatp = std::numeric_limits<int32>::min();
        plant.box(letter).nominal.VA = 0x40000001u;
    }
    settle();
    EXPECT_EQ(sys().Watt[0], 0);  // four times 0x7FFFFFFF is -4
    EXPECT_EQ(sys().Iout[0], -4);
    EXPECT_EQ(sys().Iin[0], 4u);
    EXPECT_EQ(sys().Ibatp, 0);
    EXPECT_EQ(plant.root().nominal.VA, 4u);
}

// ---------------------------------------------------------------------------------------------------------------
// Autonomy

TEST_F(Scans, SwitchedOnPlantWithoutBatteryTellsOfItInEachPass) {
    for (const char letter : letters) {
        ups(letter).Vbatp = 99;
    }
    settle();
    LogCapture log;
    pass();
    EXPECT_EQ(sys().Aut_time, 0);
    EXPECT_EQ(sys().Carica_adj, 0);
    EXPECT_EQ(sys().Vbatp, 0);
    EXPECT_EQ(sys().VbatRS, 540);
    EXPECT_EQ(log.messages(), "Nessun armadio acceso ha comunicato l'autonomia\n");
    EXPECT_EQ(log.entries().front().function, "AggregateBox");
    EXPECT_EQ(log.errors(), 1u);
    pass();
    EXPECT_EQ(log.errors(), 2u);
}

TEST_F(Scans, SwitchedOffPlantWithoutBatteryIsSilent) {
    for (const char letter : letters) {
        ups(letter).Vbatp = 0;
        ups(letter).switchStatus.Q1 = 0;
    }
    settle();
    const LogCapture log;
    pass();
    EXPECT_EQ(sys().Aut_time, 0);
    EXPECT_EQ(log.text(), "");
}

// At exactly 100 V the battery counts, its autonomy doesn't, and nothing is told.
TEST_F(Scans, BatteriesThatJustComeUpLeaveTheAutonomyOpen) {
    for (const char letter : letters) {
        ups(letter).Vbatp = 100;
    }
    settle();
    const LogCapture log;
    pass();
    EXPECT_EQ(sys().Aut_time, 0xFFFF);
    EXPECT_EQ(sys().Carica_adj, 0);
    EXPECT_EQ(sys().Vbatp, 100);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Scans, LowestVoltagesHaveTheirOwnCounts) {
    for (const char letter : letters) {
        ups(letter).VbatRS = 99;
        ups(letter).Vbatn = 0xFFFF;
    }
    settle();
    EXPECT_EQ(sys().VbatRS, 0);
    EXPECT_EQ(sys().Vbatp, 270);
    EXPECT_EQ(sys().Vbatn, 0xFFFF);  // counted, so it stays
}

// ---------------------------------------------------------------------------------------------------------------
// Cabinets that take no part, or not in everything

TEST_F(Scans, InactiveCabinetTakesNoPart) {
    settle();
    plant.comm('D').active = false;
    ups('D').alarm.byte = 0xFF;
    ups('D').status.On_Bypass = 1;
    box('D').boxStatus.byte = 0xFF;
    pass();
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(root().boxStatus.byte, 0);
    EXPECT_EQ(sys().status.On_Bypass, 0);
    EXPECT_EQ(sys().Va[0], 3000 + 3001 + 3002);
    EXPECT_EQ(sys().Temp0, 32);
    EXPECT_EQ(itemState('D'), noneAlarm);
    EXPECT_EQ(box('D').MCUMUStatus.byte, 0);
}

TEST_F(Scans, SilentCabinetLeavesSumsAveragesAndCounts) {
    settle();
    plant.comm('C').isGood = false;
    ups('C').alarm.byte = 0xFF;
    ups('C').status.On_Bypass = 1;
    box('C').externalSwitchStatus.byte = 0;
    pass();
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(sys().status.On_Bypass, 0);
    EXPECT_EQ(sys().Va[0], 3000 + 3001 + 3003);
    EXPECT_EQ(sys().Vin[0], (226 + 227 + 229) / 3);
    EXPECT_EQ(plant.root().nominal.VA, 60400u);
    EXPECT_EQ(root().externalSwitchStatus.byte, 0xD4);
    // It is told as lost, in its own record and in the system's.
    EXPECT_EQ(box('C').MCUMUStatus.byte, 0x05);
    EXPECT_EQ(box('C').boxStatus.Anomaly, 1);
    EXPECT_EQ(root().MCUMUStatus.byte, 0x05);
    EXPECT_EQ(root().boxStatus.Anomaly, 1);
    EXPECT_EQ(itemState('C'), commLostAlarm);
}

// What the loss has set in a cabinet's record goes with the next record that it sends.
TEST_F(Scans, CabinetThatComesBackLosesItsErrorAtOnce) {
    settle();
    plant.comm('C').isGood = false;
    pass();
    plant.comm('C').isGood = true;
    pass();
    EXPECT_EQ(box('C').MCUMUStatus.commErrorMCU, 0);
    EXPECT_EQ(root().MCUMUStatus.commErrorMCU, 0);
    EXPECT_EQ(root().MCUMUStatus.AnomalyMCU, 1);
    EXPECT_EQ(itemState('C'), anomalyAlarm);
    makeWell('C');
    pass();
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
}

TEST_F(Scans, CabinetThatHasSentNothingIsAnAnomaly) {
    settle();
    speaking = "ABC";
    box('D').Ups.timestamp = 0;
    box('D').MCUMUStatus.commErrorMCU = 1;
    pass();
    EXPECT_EQ(box('D').MCUMUStatus.commErrorMCU, 0) << "it answers";
    EXPECT_EQ(sys().alarm.Anomaly, 1);
    EXPECT_EQ(sys().PMStatus.commError, 1);
    EXPECT_EQ(sys().Va[0], 3000 + 3001 + 3002);
    EXPECT_EQ(plant.root().nominal.VA, 60300u);
    EXPECT_EQ(root().MCUMUStatus.byte, 0);
    // Its switches count.
    box('D').externalSwitchStatus.SWIN = 0;
    pass();
    EXPECT_EQ(sys().PMStatus.SWINCabinetAnomaly, 1);
}

TEST_F(Scans, NoContributorAtAll) {
    settle();
    speaking = "";
    for (const char letter : letters) {
        plant.comm(letter).isGood = false;
    }
    LogCapture log;
    pass();
    descSys_t expected = {};
    expected.Ups.alarm.Anomaly = 1;
    expected.Ups.alarm.Warning = 1;
    expected.Ups.status.SWOUT = 1;
    expected.boxStatus.Anomaly = 1;
    expected.externalSwitchStatus.SWBATT_EXT = 1;  // no external battery is configured
    expected.MCUMUStatus.commErrorMCU = 1;
    expected.MCUMUStatus.AnomalyMCU = 1;
    EXPECT_TRUE(sameBytes(expected, root()));  // commLostAlarm is 0
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(alarms(),
              "SYSTEM_ANOMALY SWIN_OPEN SWBYP_OPEN BATTERY_NOT_PRESENT_A62 MODULE_1_LOST MODULE_2_LOST MODULE_3_LOST "
              "MODULE_4_LOST");
    EXPECT_TRUE(failure());
}

TEST_F(Scans, ExternalBatteryThatIsConfiguredHasItsSwitchOpenWithoutCabinets) {
    plant.cfg().externBattCapacity = 100;
    for (const char letter : letters) {
        plant.comm(letter).isGood = false;
    }
    settle();
    EXPECT_EQ(root().externalSwitchStatus.byte, 0);
    EXPECT_NE(alarms().find("SWBAT_EXT_OPEN"), std::string::npos);
}

TEST_F(Scans, BoardErrorIsSeenOnceAndThenCleared) {
    settle();
    box('B').MCUMUStatus.commErrorMU = 1;
    pass();
    EXPECT_EQ(root().MCUMUStatus.commErrorMU, 1);
    EXPECT_EQ(box('B').MCUMUStatus.commErrorMU, 0);
    pass();
    EXPECT_EQ(root().MCUMUStatus.commErrorMU, 0);
}

TEST_F(Scans, BypassCountOfTheSystemSurvivesAPass) {
    settle();
    root().MCUMUStatus.numBypassOff = 5;
    root().MCUMUStatus.FreePMS3 = 1;
    pass();
    EXPECT_EQ(root().MCUMUStatus.byte, 0xA0);
}

TEST_F(Scans, CabinetWithoutNodeTakesNoPart) {
    settle();
    plant.data('B').pVN = nullptr;
    pass();
    EXPECT_EQ(sys().Va[0], 3000 + 3002 + 3003);
    EXPECT_EQ(itemState('B'), noneAlarm);
}

// ---------------------------------------------------------------------------------------------------------------
// All is well only if every cabinet says so and the system has no alarm

TEST_F(Scans, OneCabinetThatIsNotOkTakesTheOkAway) {
    settle();
    EXPECT_EQ(sys().extStatus.UPS_OK, 1);
    ups('D').extStatus.UPS_OK = 0;
    pass();
    EXPECT_EQ(sys().extStatus.UPS_OK, 0);
}

class ScansOk : public AggregationTest, public testing::WithParamInterface<uint8> {};

TEST_P(ScansOk, EndsWithTheAlarm) {
    for (const char letter : letters) {
        ups(letter).alarm.byte = GetParam();
    }
    settle();
    const bool isOk = (GetParam() & 0x0F) == 0;  // Warning, Anomaly, Fault, Lock
    EXPECT_EQ(sys().extStatus.UPS_OK, isOk ? 1 : 0);
}
INSTANTIATE_TEST_SUITE_P(Bits, ScansOk, testing::Values(0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80));

}  // namespace
