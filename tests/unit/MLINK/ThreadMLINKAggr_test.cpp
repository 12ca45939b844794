// The own module folded into the cabinet's record.
#include <cstring>

#include "unit/MLINK/ModuleAggregation.h"

namespace {

using namespace modline;

// ---------------------------------------------------------------------------------------------------------------

TEST_F(ModuleAggregation, OnceASecond) {
    run();
    const time32_t first = box().timestamp;
    EXPECT_EQ(first, now());
    node.panel.value = CMD_QPR_OFF;
    run(1000);
    EXPECT_EQ(box().timestamp, first);
    EXPECT_EQ(node.panel.value, CMD_QPR_OFF) << "nothing at all";
    run(1);
    EXPECT_EQ(box().timestamp, now());
    EXPECT_GT(box().timestamp, first);
    EXPECT_EQ(node.panel.value, CMD_NONE);
}

TEST_F(ModuleAggregation, SlotWithoutANodeIsReportedAndLeft) {
    plant.slot('A').pVN = nullptr;
    run();
    EXPECT_EQ(log.messages(), "Grave errore, puntatore ai dati del modulo 1 non inizializzato!!\nESCO\n");
    EXPECT_EQ(log.errors(), 2U);
    EXPECT_EQ(box().timestamp, 0);
    run(1000);
    EXPECT_EQ(log.errors(), 2U) << "once a second";
}

TEST_F(ModuleAggregation, CabinetWithoutANodeIsLeft) {
    virtualNode_t* const own = plant.data('A').pVN;
    plant.data('A').pVN = nullptr;
    node.panel.value = CMD_QPR_OFF;
    run();
    EXPECT_EQ(log.messages(), "");
    EXPECT_EQ(node.panel.value, CMD_QPR_OFF);
    plant.data('A').pVN = own;
    EXPECT_TRUE(plant.in().mutexCABPData->tryLock());
    plant.in().mutexCABPData->unlock();
}

TEST_F(ModuleAggregation, KeepsWhatIsNotTheModules) {
    std::memset(&box().Batteries, 0x11, sizeof(box().Batteries));
    box().boxStatus.byte = 0x40;
    box().externalSwitchStatus.byte = 0x80;
    box().mcuStatus.byte = 0x33;
    box().MCUMUStatus.byte = 0x44;
    const dataBatteries_t batteries = box().Batteries;
    plant.comm('A').isGood = false;
    detail.bits.BatterySwitchOpen = 1;
    detail.bits.InputSwitchOpen = 1;
    detail.bits.BypassSwitchOpen = 1;
    run();
    EXPECT_EQ(std::memcmp(&box().Batteries, &batteries, sizeof(batteries)), 0);
    EXPECT_EQ(box().boxStatus.byte, 0x40);
    EXPECT_EQ(box().externalSwitchStatus.byte, 0x80);
    EXPECT_EQ(box().mcuStatus.byte, 0x33);
    EXPECT_EQ(box().MCUMUStatus.byte, 0x44);
    EXPECT_TRUE(plant.comm('A').isGood) << "the own cabinet is reachable";
}

TEST_F(ModuleAggregation, SwitchesOnceClosedStayClosed) {
    run();
    EXPECT_EQ(box().boxStatus.SWBATT, 1);
    EXPECT_EQ(box().externalSwitchStatus.SWIN, 1);
    EXPECT_EQ(box().externalSwitchStatus.SWBYP, 1);
    EXPECT_EQ(ups().status.SWOUT, 1);
    detail.bits.BatterySwitchOpen = 1;
    detail.bits.InputSwitchOpen = 1;
    detail.bits.BypassSwitchOpen = 1;
    detail.bits.OutputSwitchOpen = 1;
    run();
    EXPECT_EQ(box().boxStatus.SWBATT, 1);
    EXPECT_EQ(box().externalSwitchStatus.SWIN, 1);
    EXPECT_EQ(box().externalSwitchStatus.SWBYP, 1);
    EXPECT_EQ(ups().status.SWOUT, 0) << "but this one";
    EXPECT_EQ(ups().alarm.Anomaly, 1);
    EXPECT_EQ(ups().extStatus.UPS_OK, 1) << "set too late to matter";
}

TEST_F(ModuleAggregation, ManualBypassIsAWarning) {
    detail.bits.ManualBypassCommand = 1;
    run();
    EXPECT_EQ(ups().status.SWMB, 1);
    EXPECT_EQ(ups().alarm.Warning, 1);
    EXPECT_EQ(ups().extStatus.UPS_OK, 1);
}

TEST_F(ModuleAggregation, WellModuleMakesAWellCabinet) {
    run();
    EXPECT_EQ(ups().alarm.byte, 0);
    EXPECT_EQ(ups().extStatus.byte, 0x80);
    EXPECT_EQ(ups().status.byte, m.status.byte | 0x40);
    EXPECT_EQ(ups().switchStatus.byte, m.switchStatus.byte);
    EXPECT_EQ(ups().PMStatus.bytes[0], 0);
    EXPECT_EQ(ups().PMStatus.bytes[1], 0) << "a module that knows its commands";
    EXPECT_EQ(ups().timestamp, now());
    EXPECT_EQ(shelter(), faultAlarm) << "deliberately";
    EXPECT_EQ(static_cast<int>(shelter()), 4);
    EXPECT_EQ(log.messages(), "");
}

TEST_F(ModuleAggregation, AlarmsAreMerged) {
    m.alarm.Warning = 1;
    m.alarm.Alarm_Overload = 1;
    run();
    EXPECT_EQ(ups().alarm.byte, 0x21);
    makeWell();
    m.alarm.Anomaly = 1;
    run();
    EXPECT_EQ(ups().alarm.byte, 0x02);
    makeWell();
    m.alarm.Fault = 1;
    run();
    EXPECT_EQ(ups().alarm.byte, 0x04);
    makeWell();
    m.alarm.Alarm_Temperature = 1;
    run();
    EXPECT_EQ(ups().alarm.byte, 0x04) << "the module's temperature is a fault";
    EXPECT_EQ(ups().extStatus.UPS_OK, 0);
    makeWell();
    plant.data('A').extendedBoardBox.Status.Cabinet_Overtemp = 1;
    run();
    EXPECT_EQ(ups().alarm.byte, 0x10) << "the cabinet's is its own";
    EXPECT_EQ(ups().extStatus.UPS_OK, 1);
}

TEST_F(ModuleAggregation, StatesAreMerged) {
    m.status.byte = 0;
    m.status.On_Bypass = 1;
    m.status.Shutdown_Active = 1;
    m.status.Shutdown_Imminent = 1;
    m.extStatus.byte = 0x7D;
    m.switchStatus.byte = 0xFF;
    m.PMStatus.wrongPower = 1;
    m.PMStatus.inputDisabled = 1;
    m.PMStatus.bitCmdUnsupported = 1;
    m.maxLoad = 55;
    m.extStatus.Clock_Update = 0;
    run();
    EXPECT_EQ(ups().status.byte, 0x04 | 0x10 | 0x20 | 0x40);
    EXPECT_EQ(ups().extStatus.byte, 0x7C) << "and a module that isn't OK takes it away";
    EXPECT_EQ(ups().switchStatus.byte, 0xFF);
    EXPECT_EQ(ups().PMStatus.bytes[0] & 0x07, 0x03);
    EXPECT_EQ(ups().PMStatus.bitCmdUnsupported, 1);
    EXPECT_EQ(ups().maxLoad, 55);
    m.maxLoad = -5;
    run();
    EXPECT_EQ(ups().maxLoad, 0) << "the greater, signed";
}

TEST_F(ModuleAggregation, CommErrorGoesOnceTheModuleIsBack) {
    m.PMStatus.commError = 1;
    run();
    EXPECT_EQ(m.PMStatus.commError, 0);
    EXPECT_EQ(ups().PMStatus.commError, 0);
}

// ---------------------------------------------------------------------------------------------------------------

TEST_F(ModuleAggregation, MeasuresAreCarried) {
    for (int l = 0; l < 3; ++l) {
        m.Load[l] = static_cast<int16>(40 + l);
        m.Va[l] = 1000 + l;
        m.VAR[l] = 77;
        m.Watt[l] = 900 + l;
        m.Iin[l] = static_cast<uint32>(30 + l);
        m.Iout[l] = 20 + l;
        m.Iout_pk[l] = 25 + l;
    }
    m.Ibatp = -12;
    m.Ibatn = 13;
    m.Temp0 = 30;
    m.Temp1 = 31;
    m.Temp2 = 32;
    m.Temp3 = 33;
    m.Temp4 = 34;
    m.Temp5 = 35;
    m.Temp6 = 36;
    m.Cent_kwh = 99;
    run();
    for (int l = 0; l < 3; ++l) {
        EXPECT_EQ(ups().Load[l], 40 + l);
        EXPECT_EQ(ups().Va[l], 1000 + l);
        EXPECT_EQ(ups().VAR[l], 0) << "not carried";
        EXPECT_EQ(ups().Watt[l], 900 + l);
        EXPECT_EQ(ups().Iin[l], static_cast<uint32>(30 + l));
        EXPECT_EQ(ups().Iout[l], 20 + l);
        EXPECT_EQ(ups().Iout_pk[l], 25 + l);
    }
    EXPECT_EQ(ups().Ibatp, -12);
    EXPECT_EQ(ups().Ibatn, 13);
    EXPECT_EQ(ups().Temp0, 30);
    EXPECT_EQ(ups().Temp1, 31);
    EXPECT_EQ(ups().Temp2, 32);
    EXPECT_EQ(ups().Temp3, 33);
    EXPECT_EQ(ups().Temp4, 34);
    EXPECT_EQ(ups().Temp5, 35);
    EXPECT_EQ(ups().Temp6, 36);
    EXPECT_EQ(ups().Cent_kwh, static_cast<decltype(ups().Cent_kwh + 0)>(0));
    EXPECT_EQ(ups().Aut_time, 3600);
    EXPECT_EQ(ups().Carica_adj, 90);
}

TEST_F(ModuleAggregation, LoadCountsWithPowerAndIsCutToAByte) {
    m.Load[0] = 300;
    m.Load[1] = -1;
    m.Load[2] = 100;
    run();
    EXPECT_EQ(ups().Load[0], 44);
    EXPECT_EQ(ups().Load[1], 255);
    EXPECT_EQ(ups().Load[2], 100);
    m.status.Output_Powered = 0;
    run();
    EXPECT_EQ(ups().Load[0], 0);
    EXPECT_EQ(ups().Load[2], 0);
}

TEST_F(ModuleAggregation, VoltagesAndFrequenciesFromTheirThresholds) {
    const struct {
        uint16 phase, line, frq, batt;
        bool taken;
    } cases[] = {{79, 138, 19, 99, false}, {80, 139, 20, 100, true}, {65535, 65535, 65535, 65535, true}};
    for (const auto& c : cases) {
        for (int l = 0; l < 3; ++l) {
            m.Vin[l] = m.Vbyp[l] = m.Vout[l] = c.phase;
            m.Uin[l] = m.Ubyp[l] = m.Uout[l] = c.line;
        }
        m.Frq_in = m.Frq_byp = m.Frq_out = c.frq;
        m.VbatRS = m.Vbatp = m.Vbatn = c.batt;
        run();
        for (int l = 0; l < 3; ++l) {
            EXPECT_EQ(ups().Vin[l], c.taken ? c.phase : 0);
            EXPECT_EQ(ups().Vbyp[l], c.taken ? c.phase : 0);
            EXPECT_EQ(ups().Vout[l], c.taken ? c.phase : 0);
            EXPECT_EQ(ups().Uin[l], c.taken ? c.line : 0);
            EXPECT_EQ(ups().Ubyp[l], c.taken ? c.line : 0);
            EXPECT_EQ(ups().Uout[l], c.taken ? c.line : 0);
        }
        EXPECT_EQ(ups().Frq_in, c.taken ? c.frq : 0);
        EXPECT_EQ(ups().Frq_byp, c.taken ? c.frq : 0);
        EXPECT_EQ(ups().Frq_out, c.taken ? c.frq : 0);
        EXPECT_EQ(ups().VbatRS, c.taken ? c.batt : 0);
        EXPECT_EQ(ups().Vbatp, c.taken ? c.batt : 0);
        EXPECT_EQ(ups().Vbatn, c.taken ? c.batt : 0);
    }
}

TEST_F(ModuleAggregation, MeansKeepTheirPhasesAndTheirPlaces) {
    for (int l = 0; l < 3; ++l) {
        m.Vin[l] = static_cast<uint16>(200 + l);
        m.Vbyp[l] = static_cast<uint16>(210 + l);
        m.Vout[l] = static_cast<uint16>(220 + l);
        m.Uin[l] = static_cast<uint16>(380 + l);
        m.Ubyp[l] = static_cast<uint16>(390 + l);
        m.Uout[l] = static_cast<uint16>(400 + l);
    }
    m.Frq_in = 499;
    m.Frq_byp = 501;
    m.Frq_out = 502;
    run();
    for (int l = 0; l < 3; ++l) {
        EXPECT_EQ(ups().Vin[l], 200 + l);
        EXPECT_EQ(ups().Vbyp[l], 210 + l);
        EXPECT_EQ(ups().Vout[l], 220 + l);
        EXPECT_EQ(ups().Uin[l], 380 + l);
        EXPECT_EQ(ups().Ubyp[l], 390 + l);
        EXPECT_EQ(ups().Uout[l], 400 + l);
    }
    EXPECT_EQ(ups().Frq_in, 499);
    EXPECT_EQ(ups().Frq_byp, 501);
    EXPECT_EQ(ups().Frq_out, 502);
    EXPECT_EQ(ups().VbatRS, 540);
    EXPECT_EQ(ups().Vbatp, 270);
    EXPECT_EQ(ups().Vbatn, 271);
}

TEST_F(ModuleAggregation, OnePhaseBelowItsThresholdLeavesTheOthers) {
    for (int l = 0; l < 3; ++l) {
        m.Vin[l] = l == 1 ? 79 : 230;
        m.Uout[l] = l == 2 ? 138 : 400;
    }
    run();
    EXPECT_EQ(ups().Vin[0], 230);
    EXPECT_EQ(ups().Vin[1], 0);
    EXPECT_EQ(ups().Vin[2], 230);
    EXPECT_EQ(ups().Uout[0], 400);
    EXPECT_EQ(ups().Uout[1], 400);
    EXPECT_EQ(ups().Uout[2], 0);
}

TEST_F(ModuleAggregation, AutonomyNeedsTheBattery) {
    constexpr const char* MISSING = "Nessun modulo acceso ha comunicato l'autonomia";
    m.Vbatp = 100;
    run();
    EXPECT_EQ(ups().Aut_time, 0xFFFF) << "neither taken nor missing";
    EXPECT_EQ(ups().Carica_adj, 0);
    EXPECT_EQ(log.errors(), 0U);
    m.Vbatp = 101;
    run();
    EXPECT_EQ(ups().Aut_time, 3600);
    EXPECT_EQ(ups().Carica_adj, 90);
    m.Vbatp = 99;
    runs(2);
    EXPECT_EQ(ups().Aut_time, 0);
    EXPECT_EQ(ups().Carica_adj, 0);
    EXPECT_EQ(log.occurrences(MISSING), 2U) << "at each run";
    EXPECT_TRUE(log.has("Err", MISSING));
    EXPECT_EQ(tellersOf(log, MISSING), std::set<std::string>{"AggregateUPS"});
    m.switchStatus.Q1 = 0;
    run();
    EXPECT_EQ(ups().Aut_time, 0);
    EXPECT_EQ(log.occurrences(MISSING), 2U) << "not while it is off";
}

// ---------------------------------------------------------------------------------------------------------------

TEST_F(ModuleAggregation, LockOfAllIsALock) {
    m.alarm.Lock = 1;
    runs(10);
    EXPECT_EQ(ups().alarm.Lock, 1);
    EXPECT_EQ(ups().alarm.Fault, 0);
    EXPECT_EQ(ups().extStatus.UPS_OK, 0);
    EXPECT_FALSE(log.contains("Non tutti"));
    m.alarm.Lock = 0;
    run();
    EXPECT_EQ(ups().alarm.Lock, 0);
}

TEST_F(ModuleAggregation, BadBypassOfAll) {
    m.alarm.Bypass_Bad = 1;
    runs(10);
    EXPECT_EQ(ups().alarm.Bypass_Bad, 1);
    EXPECT_EQ(ups().PMStatus.bypassBadAnomaly, 0);
    EXPECT_EQ(ups().alarm.Fault, 0);
    EXPECT_EQ(ups().extStatus.UPS_OK, 1) << "not one of the four";
}

TEST_F(ModuleAggregation, BatteryWorkingHidesTheLine) {
    m.status.Battery_Working = 1;
    run();
    EXPECT_EQ(ups().status.Battery_Working, 1);
    EXPECT_EQ(ups().status.Line_Present, 0);
    EXPECT_EQ(ups().alarm.Battery_Low, 0);
    EXPECT_EQ(ups().PMStatus.batteryWorkingAnomaly, 0);
    m.status.Output_Powered = 0;
    run();
    EXPECT_EQ(ups().status.Battery_Working, 1) << "-1 below 1";
    m.status.Battery_Working = 0;
    m.status.Output_Powered = 1;
    run();
    EXPECT_EQ(ups().status.Battery_Working, 0);
    EXPECT_EQ(ups().status.Line_Present, 1);
}

TEST_F(ModuleAggregation, LowBatteryCountsOnlyOnBattery) {
    m.alarm.Battery_Low = 1;
    run();
    EXPECT_EQ(ups().alarm.Battery_Low, 0);
    m.status.Battery_Working = 1;
    run();
    EXPECT_EQ(ups().alarm.Battery_Low, 1);
    EXPECT_EQ(ups().alarm.Warning, 0);
}

TEST_F(ModuleAggregation, OutputThatDiffersFromTheSystemsCountsAfterFiveSeconds) {
    constexpr const char* WARNING = "Lo stato Output_Powered non e' coerente!!";
    root().status.Output_Powered = 0;
    VirtualClock::setWall(2000000000);
    for (int i = 0; i < 6; ++i) {  // first seen, then five seconds of it
        run(i == 0 ? 2000 : 1001);
        VirtualClock::setWall(2000000000 + i + 1);
        EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 0) << i;
        EXPECT_EQ(ups().alarm.Anomaly, 0) << i;
    }
    EXPECT_FALSE(log.contains(WARNING));
    runs(3);
    EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 1);
    EXPECT_EQ(ups().alarm.Anomaly, 1);
    EXPECT_EQ(ups().extStatus.UPS_OK, 0);
    EXPECT_EQ(log.occurrences(WARNING), 1U) << "told once";
    EXPECT_TRUE(log.has("War", WARNING));
    EXPECT_EQ(tellersOf(log, WARNING), std::set<std::string>{"AggregateUPS"});
    root().status.Output_Powered = 1;
    run();
    EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 0);
    EXPECT_EQ(ups().alarm.Anomaly, 0);
    root().status.Output_Powered = 0;
    runs(3);
    EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 0) << "it begins anew";
    runs(5);
    EXPECT_EQ(log.occurrences(WARNING), 2U);
}

// Whole seconds of the wall clock: five aren't enough.
TEST_F(ModuleAggregation, DisagreementCountsFromItsSixthSecond) {
    constexpr std::int64_t FIRST = 2000000000;
    run();  // in agreement: the timers live as long as the process
    root().status.Output_Powered = 0;
    for (int age = 0; age <= 6; ++age) {
        VirtualClock::advance(1001 * MS);
        VirtualClock::setWall(FIRST + age);
        in().aggregate('A');
        EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, age > 5 ? 1 : 0) << age;
        EXPECT_EQ(log.contains("Lo stato Output_Powered"), age > 5) << age;
    }
    // Without a module that takes part it ends, and begins anew.
    comm().active = false;
    run();
    EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 0);
    comm().active = true;
    runs(5);
    EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 0);
}

TEST_F(ModuleAggregation, EachOfFourAlarmsTakesTheOKAway) {
    const struct {
        uint8 alarm;
        bool isOK;
    } cases[] = {{0x01, false}, {0x02, false}, {0x04, false}, {0x08, false}, {0x20, true}, {0x00, true}};
    for (const auto& c : cases) {
        makeWell();
        m.alarm.byte = c.alarm;
        run();
        EXPECT_EQ(ups().alarm.byte, c.alarm);
        EXPECT_EQ(ups().extStatus.UPS_OK, c.isOK ? 1 : 0) << int(c.alarm);
    }
}

TEST_F(ModuleAggregation, LostModuleDoesNotDisagreeWithTheSystem) {
    root().status.Output_Powered = 0;
    runs(10);
    ASSERT_EQ(ups().PMStatus.outputPoweredAnomaly, 1);
    comm().isGood = false;
    run();
    EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 0);
}

TEST_F(ModuleAggregation, DifferentFirmware) {
    plant.sys().cntForSameBuild = 2;
    run();
    EXPECT_EQ(ups().PMStatus.differentFirmwareAnomaly, 0);
    plant.sys().cntForSameBuild = 3;
    run();
    EXPECT_EQ(ups().PMStatus.differentFirmwareAnomaly, 1);
    EXPECT_EQ(ups().alarm.Anomaly, 1);
    EXPECT_EQ(ups().extStatus.UPS_OK, 0);
}

// ---------------------------------------------------------------------------------------------------------------

TEST_F(ModuleAggregation, LostModuleIsWipedAndReported) {
    constexpr const char* NONEGOOD = "Nessun modulo e' in buono stato di comunicazione";
    node.identification.timestamp = 7;
    node.nominal.timestamp = 7;
    node.nominal.VA = 5000;
    m.extStatus.isMaster = 1;
    run();
    EXPECT_EQ(plant.box('A').identification.timestamp, 7);
    comm().isGood = false;
    run();
    EXPECT_EQ(m.timestamp, 0);
    EXPECT_EQ(m.PMStatus.commError, 1);
    EXPECT_EQ(m.alarm.byte, 0x02);
    EXPECT_EQ(m.extStatus.byte, 0);
    EXPECT_EQ(m.Load[0], 2048);
    EXPECT_EQ(m.Frq_out, 500);
    EXPECT_EQ(node.identification.timestamp, 0);
    EXPECT_EQ(node.identification.partialInfo, 252);
    EXPECT_EQ(node.nominal.VA, 0U);

    EXPECT_EQ(ups().PMStatus.commError, 1);
    EXPECT_EQ(ups().alarm.Anomaly, 1);
    EXPECT_EQ(ups().timestamp, 0);
    EXPECT_EQ(box().timestamp, now());
    EXPECT_EQ(ups().extStatus.UPS_OK, 0);
    EXPECT_EQ(ups().Load[0], 0);
    EXPECT_EQ(ups().Aut_time, 0);
    EXPECT_EQ(ups().switchStatus.byte, 0);
    EXPECT_EQ(plant.box('A').identification.timestamp, 0);
    EXPECT_EQ(plant.box('A').identification.partialInfo, 252);
    EXPECT_EQ(plant.box('A').nominal.VA, 0U);
    EXPECT_EQ(shelter(), commLostAlarm);
    EXPECT_EQ(idu(), 255);
    EXPECT_TRUE(log.has("War", NONEGOOD));
    EXPECT_FALSE(log.contains("autonomia")) << "it isn't switched on, for all that is known";
    run();
    EXPECT_EQ(log.occurrences(NONEGOOD), 2U);
    comm().isGood = true;
    run();
    EXPECT_EQ(m.PMStatus.commError, 0);
    EXPECT_EQ(shelter(), faultAlarm);
    EXPECT_EQ(ups().timestamp, now());
}

TEST_F(ModuleAggregation, SlotThatTakesNoPart) {
    comm().active = false;
    comm().isGood = true;
    plant.slot('A').pVN = nullptr;
    node.nominal.VA = 5000;
    plant.box('A').identification.timestamp = 9;
    run();
    EXPECT_EQ(shelter(), noneAlarm);
    EXPECT_EQ(idu(), 255);
    EXPECT_EQ(ups().timestamp, 0);
    EXPECT_EQ(ups().extStatus.UPS_OK, 1) << "kept while the four alarms are clear";
    EXPECT_EQ(ups().alarm.byte, 0x02) << "the output switch counts as open";
    EXPECT_EQ(plant.box('A').nominal.VA, 0U);
    EXPECT_EQ(plant.box('A').nominal.timestamp, now());
    EXPECT_EQ(plant.box('A').identification.timestamp, 9) << "no record to copy from";
    EXPECT_EQ(log.messages(), "Nessun modulo e' in buono stato di comunicazione\n");
}

TEST_F(ModuleAggregation, MasterModuleGivesTheCabinetItsNumber) {
    run();
    EXPECT_EQ(idu(), 255);
    m.extStatus.isMaster = 1;
    run();
    EXPECT_EQ(idu(), 1);
    EXPECT_EQ(ups().extStatus.isMaster, 1);
    m.extStatus.isMaster = 0;
    run();
    EXPECT_EQ(idu(), 255);
    EXPECT_EQ(ups().extStatus.isMaster, 0);
}

TEST(ModuleAggregationOfOthers, NumbersOfTheCabinets) {
    const struct {
        uint8 own;
        uint8 idu;
    } cases[] = {{0xEB, 9}, {0xEC, 17}, {0xED, 25}};
    for (const auto& c : cases) {
        Plant plant(withModule(c.own));
        plant.registerAll();
        const LogCapture quiet;
        const char letter = boxLetter(c.own);
        plant.slot(letter).commStatus.isGood = true;
        plant.module(letter).desc.module.data.extStatus.isMaster = 1;
        VirtualClock::advance(2 * SECOND);
        plant.inLink().aggregate(letter);
        EXPECT_EQ(plant.data(letter).extendedBoardBox.idu, c.idu);
    }
}

TEST_F(ModuleAggregation, NominalDataAndIdentificationBecomeTheCabinets) {
    std::memset(&node.nominal, 0x22, sizeof(node.nominal));
    node.nominal.VA = 20000;
    node.nominal.W = 18000;
    node.identification.timestamp = 44;
    std::memcpy(node.identification.SN, "SN-OF-THE-MODULE", 16);
    run();
    nominal_t expected = {};
    expected.timestamp = now();
    expected.VA = 20000;
    expected.W = 18000;
    EXPECT_EQ(std::memcmp(&plant.box('A').nominal, &expected, sizeof(expected)), 0);
    EXPECT_EQ(std::memcmp(&plant.box('A').identification, &node.identification, sizeof(identification_t)), 0);
}

TEST_F(ModuleAggregation, NoRootIsSurvived) {
    virtualUPS_t& tree = plant.tree().virtualUPS;
    const virtualUPS_t whole = tree;
    tree = nullptr;
    runs(10);
    tree = whole;
    EXPECT_EQ(ups().PMStatus.outputPoweredAnomaly, 0);
}

// ---------------------------------------------------------------------------------------------------------------

// From the line to the cabinet's record and back out of it.
TEST_F(ModuleAggregation, LostAndReturnedModuleOnTheLine) {
    std::memset(&node.nominal, 0, sizeof(node.nominal));
    module.answers["GN"] = text("0001000020003004005006");
    pass(16);
    VirtualClock::advance(SECOND);
    pass(1);
    EXPECT_NE(plant.box('A').nominal.VA, 0U);
    EXPECT_NE(ups().timestamp, 0);
    module.dead = true;
    VirtualClock::advance(2 * SECOND);
    pass(1);
    EXPECT_NE(ups().timestamp, 0) << "one failed poll is none";
    VirtualClock::advance(2 * SECOND);
    pass(1);
    EXPECT_EQ(ups().timestamp, 0) << "the first aggregation after the second";
    EXPECT_EQ(shelter(), commLostAlarm);
    EXPECT_EQ(plant.box('A').nominal.VA, 0U);
    module.dead = false;
    VirtualClock::advance(2 * SECOND);
    pass(1);
    EXPECT_NE(ups().timestamp, 0);
    EXPECT_EQ(shelter(), faultAlarm);
}

}  // namespace
