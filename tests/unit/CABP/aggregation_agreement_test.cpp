// What shows when the cabinets are compared: lock, bypass, battery and output with their ten seconds, battery low, and
// the switches.
#include <ostream>
#include <string>

#include "unit/CABP/Aggregation.h"

namespace {

using namespace aggregation;

// ---------------------------------------------------------------------------------------------------------------
// Disagreement on a state

struct StateCase {
    const char* name;
    const char* message;         // at detection
    void (*set)(dataObject_t&);  // what one cabinet has and the others have not
    void (*end)(dataObject_t&);  // and no longer
    uint8 alarm;                 // raised
    uint8 PMStatus;              // raised, of the low byte
    bool raisesBoxFault;
};
std::ostream& operator<<(std::ostream& out, const StateCase& state) {
    return out << state.name;
}

class Disagreement : public AggregationTest, public testing::WithParamInterface<StateCase> {
  protected:
    Disagreement() { settle(); }
    bool isRaised() {
        const bool alarm = (sys().alarm.byte & GetParam().alarm) != 0;
        const bool PMStatus = (sys().PMStatus.bytes[0] & GetParam().PMStatus) == GetParam().PMStatus;
        EXPECT_TRUE(GetParam().PMStatus == 0 || alarm == PMStatus);
        return alarm;
    }
    void begin() {
        GetParam().set(ups('B'));
        pass();  // from here on the time runs
    }
};

TEST_P(Disagreement, RaisesItsAlarmAfterMoreThanTenSeconds) {
    LogCapture log;
    begin();
    const time32_t start = now();
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(isRaised()) << i;
        pass(SECOND);
    }
    EXPECT_EQ(now() - start, 10);
    EXPECT_FALSE(isRaised());
    EXPECT_EQ(log.text(), "");
    pass(SECOND);
    EXPECT_TRUE(isRaised());
    EXPECT_EQ(root().boxStatus.Fault, GetParam().raisesBoxFault ? 1 : 0);
    EXPECT_EQ(sys().extStatus.UPS_OK, 0);
    EXPECT_EQ(log.messages(), GetParam().message);
    EXPECT_EQ(log.warnings(), 1u);
}

TEST_P(Disagreement, IsToldOnceAndStands) {
    begin();
    LogCapture log;
    passes(100);
    EXPECT_TRUE(isRaised());
    EXPECT_EQ(log.messages(), GetParam().message);
}

TEST_P(Disagreement, ThatEndsInTenSecondsLeavesNoTrace) {
    LogCapture log;
    begin();
    passes(10);
    GetParam().end(ups('B'));
    passes(5);
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
    EXPECT_EQ(log.text(), "");
    // And the next one has ten seconds of its own.
    GetParam().set(ups('B'));
    pass(SECOND);
    passes(10);
    EXPECT_FALSE(isRaised());
    EXPECT_EQ(log.text(), "");
    pass(SECOND);
    EXPECT_TRUE(isRaised());
}

TEST_P(Disagreement, EndsWithThePassThatFindsAgreement) {
    begin();
    {
        const LogCapture quiet;
        passes(20);
    }
    ASSERT_TRUE(isRaised());
    GetParam().end(ups('B'));
    pass();
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
}

TEST_P(Disagreement, OfACabinetThatFallsSilentEnds) {
    LogCapture log;
    begin();
    passes(5);
    plant.comm('B').isGood = false;
    passes(10);
    EXPECT_FALSE(log.contains(std::string(GetParam().message).substr(0, 20)));
    EXPECT_EQ(sys().PMStatus.bytes[0], 0);
}

INSTANTIATE_TEST_SUITE_P(
    States, Disagreement,
    testing::Values(StateCase{"Lock", "Non tutti gli armadi sono in Lock!!\n",
                              [](dataObject_t& ups) { ups.alarm.Lock = 1; },
                              [](dataObject_t& ups) { ups.alarm.Lock = 0; }, 0x04, 0x00, true},
                    StateCase{"Bypass_Bad", "Non tutti gli armadi sono in BypassBad!!\n",
                              [](dataObject_t& ups) { ups.alarm.Bypass_Bad = 1; },
                              [](dataObject_t& ups) { ups.alarm.Bypass_Bad = 0; }, 0x04, 0x08, true},
                    StateCase{"Battery_Working", "Non tutti i moduli funzionano da batteria!!\n",
                              [](dataObject_t& ups) { ups.status.Battery_Working = 1; },
                              [](dataObject_t& ups) { ups.status.Battery_Working = 0; }, 0x02, 0x10, false}));

// A cabinet without output costs redundancy too.
TEST_F(AggregationTest, UnpoweredCabinetAmongPoweredOnes) {
    settle();
    LogCapture log;
    ups('B').status.Output_Powered = 0;
    pass();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(sys().PMStatus.outputPoweredAnomaly, 0);
        EXPECT_EQ(sys().alarm.Anomaly, 0);
        EXPECT_EQ(sys().status.Output_Powered, 1);
        pass(SECOND);
    }
    EXPECT_FALSE(log.contains("coerente"));
    pass(SECOND);
    EXPECT_EQ(sys().PMStatus.outputPoweredAnomaly, 1);
    EXPECT_EQ(sys().alarm.Anomaly, 1);
    EXPECT_TRUE(log.has("War", "Lo stato Output_Powered non e' coerente!!"));
    passes(20);
    EXPECT_EQ(log.occurrences("Lo stato Output_Powered non e' coerente!!\n"), 1u);
    ups('B').status.Output_Powered = 1;
    pass();
    EXPECT_EQ(sys().PMStatus.outputPoweredAnomaly, 0);
    EXPECT_EQ(sys().alarm.Anomaly, 0);
}

// The cabinets are compared with the system as the pass before has left it: a plant that is switched on or off as a
// whole disagrees for one pass only.
TEST_F(AggregationTest, PlantThatIsSwitchedOffAgreesAtOnce) {
    settle();
    const LogCapture log;
    for (const char letter : letters) {
        ups(letter).status.Output_Powered = 0;
    }
    pass();
    EXPECT_EQ(sys().status.Output_Powered, 0);
    passes(30);
    EXPECT_EQ(sys().PMStatus.outputPoweredAnomaly, 0);
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(AggregationTest, BitThatACabinetBringsStaysWithoutAVerdict) {
    settle();
    ups('C').PMStatus.bypassBadAnomaly = 1;
    ups('C').PMStatus.batteryWorkingAnomaly = 1;
    ups('C').PMStatus.outputPoweredAnomaly = 1;
    ups('C').alarm.Fault = 1;
    pass();
    EXPECT_EQ(sys().PMStatus.bytes[0], 0x38);
    EXPECT_EQ(sys().alarm.Fault, 1);
}

// Each of the timers has a time of its own.
TEST_F(AggregationTest, DisagreementsDoNotShareTheirTime) {
    settle();
    LogCapture log;
    ups('A').alarm.Lock = 1;
    pass();
    passes(5);
    ups('B').alarm.Bypass_Bad = 1;
    pass(SECOND);
    passes(5);
    EXPECT_EQ(log.messages(), "Non tutti gli armadi sono in Lock!!\n");
    EXPECT_EQ(log.entries().front().function, "AggregateBox");
    passes(5);
    EXPECT_EQ(log.occurrences("BypassBad"), 0u);
    pass(SECOND);
    EXPECT_EQ(log.messages(), "Non tutti gli armadi sono in Lock!!\nNon tutti gli armadi sono in BypassBad!!\n");
}

TEST_F(AggregationTest, AllDisagreementsAtOnceAreToldInTheirOrder) {
    settle();
    plant.cfg().redundantUPS = 0;
    LogCapture log;
    ups('A').alarm.Lock = 1;
    ups('A').alarm.Bypass_Bad = 1;
    ups('A').status.Battery_Working = 1;
    ups('A').status.Output_Powered = 0;
    pass();
    passes(11);
    EXPECT_EQ(log.messages(),
              "Non tutti gli armadi sono in Lock!!\n"
              "Non tutti gli armadi sono in BypassBad!!\n"
              "Non tutti i moduli funzionano da batteria!!\n"
              "Lo stato Output_Powered non e' coerente!!\n");
}

// A wall clock that jumps ahead makes the seconds pass; one that is set back puts the verdict off.
TEST_F(AggregationTest, TimeOfADisagreementIsTheWallClocks) {
    settle();
    const LogCapture log;
    ups('A').alarm.Lock = 1;
    pass();
    VirtualClock::setWall(VirtualClock::wall() / SECOND - 3600);
    passes(20);
    EXPECT_EQ(sys().alarm.Fault, 0);
    VirtualClock::setWall(VirtualClock::wall() / SECOND + 7200);
    pass();
    EXPECT_EQ(sys().alarm.Fault, 1);
}

// ---------------------------------------------------------------------------------------------------------------
// Agreement

TEST_F(AggregationTest, LockOfAllIsTheSystemsAtOnce) {
    settle();
    LogCapture log;
    for (const char letter : letters) {
        ups(letter).alarm.Lock = 1;
    }
    pass();
    EXPECT_EQ(sys().alarm.byte, 0x08);
    EXPECT_EQ(sys().extStatus.UPS_OK, 0);
    EXPECT_TRUE(jsonHas("\"UPSLOCK\": true"));
    passes(20);
    EXPECT_EQ(sys().alarm.byte, 0x08);
    EXPECT_EQ(log.text(), "");
}

TEST_F(AggregationTest, BadBypassOfAllIsTheSystemsAtOnce) {
    settle();
    LogCapture log;
    for (const char letter : letters) {
        ups(letter).alarm.Bypass_Bad = 1;
    }
    pass();
    EXPECT_EQ(sys().alarm.byte, 0x40);
    EXPECT_EQ(alarms(), "BYPASS_BAD");
    passes(20);
    EXPECT_EQ(sys().alarm.byte, 0x40);
    EXPECT_EQ(log.text(), "");
}

TEST_F(AggregationTest, LockOfSomeIsNotTheSystems) {
    settle();
    for (const char letter : {'A', 'B', 'C'}) {
        ups(letter).alarm.Lock = 1;
        ups(letter).alarm.Bypass_Bad = 1;
    }
    const LogCapture quiet;
    pass();
    EXPECT_EQ(sys().alarm.Lock, 0);
    EXPECT_EQ(sys().alarm.Bypass_Bad, 0);
    passes(20);
    EXPECT_EQ(sys().alarm.Lock, 0);
    EXPECT_EQ(sys().alarm.Bypass_Bad, 0);
}

// Only contributors are asked: a lock of all that can be heard is a lock.
TEST_F(AggregationTest, SilentCabinetDoesNotKeepTheOthersFromAgreeing) {
    settle();
    for (const char letter : letters) {
        ups(letter).alarm.Lock = 1;
        ups(letter).alarm.Bypass_Bad = 1;
    }
    ups('D').alarm.byte = 0;
    plant.comm('D').isGood = false;
    pass();
    EXPECT_EQ(sys().alarm.Lock, 1);
    EXPECT_EQ(sys().alarm.Bypass_Bad, 1);
}

class OneCabinet : public AggregationTest {
  protected:
    OneCabinet() : AggregationTest(0xEA, "A") { plant.cfg().redundantUPS = 0; }
};

TEST_F(OneCabinet, CannotDisagree) {
    settle();
    LogCapture log;
    ups('A').alarm.Lock = 1;
    ups('A').alarm.Bypass_Bad = 1;
    ups('A').status.Battery_Working = 1;
    pass();
    EXPECT_EQ(sys().alarm.byte, 0x48);
    EXPECT_EQ(sys().status.Battery_Working, 1);
    passes(60);
    EXPECT_EQ(sys().alarm.byte, 0x48);
    EXPECT_EQ(log.text(), "");
}

// ---------------------------------------------------------------------------------------------------------------
// Battery

TEST_F(AggregationTest, PlantOnBatteryHasNoLine) {
    settle();
    const LogCapture log;
    for (const char letter : letters) {
        ups(letter).status.Battery_Working = 1;
    }
    passes(20);
    EXPECT_EQ(sys().status.byte, 0x43);  // Line_Present is told by all of them, and cleared
    EXPECT_EQ(sys().PMStatus.batteryWorkingAnomaly, 0);
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_TRUE(jsonHas("\"BATTERYWORK\": true"));
    EXPECT_TRUE(jsonHas("\"LINEPRESENT\": false"));
    EXPECT_EQ(log.text(), "");
}

struct BatteryCase {
    const char* powered;  // cabinets
    const char* onBattery;
    bool works;
};
std::ostream& operator<<(std::ostream& out, const BatteryCase& battery) {
    return out << (*battery.powered ? battery.powered : "none") << "_"
               << (*battery.onBattery ? battery.onBattery : "none");
}

class OnBattery : public AggregationTest, public testing::WithParamInterface<BatteryCase> {};

TEST_P(OnBattery, WithMoreThanHalfOfThePoweredCabinets) {
    for (const char letter : letters) {
        ups(letter).status.Output_Powered = std::string(GetParam().powered).find(letter) != std::string::npos;
        ups(letter).status.Battery_Working = std::string(GetParam().onBattery).find(letter) != std::string::npos;
    }
    settle();
    EXPECT_EQ(sys().status.Battery_Working, GetParam().works ? 1 : 0);
    EXPECT_EQ(sys().status.Line_Present, GetParam().works ? 0 : 1);
}
INSTANTIATE_TEST_SUITE_P(Counts, OnBattery,
                         testing::Values(BatteryCase{"ABCD", "", false}, BatteryCase{"ABCD", "A", false},
                                         BatteryCase{"ABCD", "AB", false},  // exactly half
                                         BatteryCase{"ABCD", "ABC", true}, BatteryCase{"ABCD", "ABCD", true},
                                         BatteryCase{"ABC", "A", false}, BatteryCase{"ABC", "AB", true},
                                         BatteryCase{"AB", "A", false}, BatteryCase{"AB", "AB", true},
                                         // Those that have no output are counted too: none of none is not more, but
                                         // one of none is.
                                         BatteryCase{"", "", false}, BatteryCase{"", "A", true},
                                         BatteryCase{"A", "BCD", true}));

struct BatteryLowCase {
    const char* low;
    bool isLow;
    bool isWarning;
};
std::ostream& operator<<(std::ostream& out, const BatteryLowCase& low) {
    return out << (*low.low ? low.low : "none");
}

class BatteryLow : public AggregationTest, public testing::WithParamInterface<BatteryLowCase> {
  protected:
    void setLow() {
        for (const char letter : letters) {
            ups(letter).alarm.Battery_Low = std::string(GetParam().low).find(letter) != std::string::npos;
        }
    }
};

TEST_P(BatteryLow, OnBatteryIsTheSystemsWithHalfOfTheCabinets) {
    setLow();
    for (const char letter : letters) {
        ups(letter).status.Battery_Working = 1;
    }
    settle();
    EXPECT_EQ(sys().alarm.Battery_Low, GetParam().isLow ? 1 : 0);
    EXPECT_EQ(sys().alarm.Warning, GetParam().isWarning ? 1 : 0);
    EXPECT_EQ(jsonHas("\"BATTERYLOW\": true"), GetParam().isLow);
}
TEST_P(BatteryLow, OffBatteryIsNeverTheSystems) {
    setLow();
    settle();
    EXPECT_EQ(sys().alarm.Battery_Low, 0);
    EXPECT_EQ(sys().alarm.Warning, 0);
}
INSTANTIATE_TEST_SUITE_P(Counts, BatteryLow,
                         testing::Values(BatteryLowCase{"", false, false}, BatteryLowCase{"C", false, true},
                                         BatteryLowCase{"CD", true, true}, BatteryLowCase{"BCD", true, true},
                                         BatteryLowCase{"ABCD", true, false}));

// ---------------------------------------------------------------------------------------------------------------
// Switches

struct SwitchResult {
    const char* opened;  // cabinets; "closed" for the manual bypass
    uint8 alarm;
    uint8 PMStatus;  // upper byte
    uint8 boxStatus;
    uint8 sysStatus;
    const char* names;  // in the status file
};
struct SwitchCase {
    const char* name;
    void (*turn)(descUpsBox_t&);
    SwitchResult result;
};
std::ostream& operator<<(std::ostream& out, const SwitchCase& turned) {
    return out << turned.name << "_" << (*turned.result.opened ? turned.result.opened : "none");
}

class SwitchesOf : public AggregationTest, public testing::WithParamInterface<SwitchCase> {};

TEST_P(SwitchesOf, SomeCabinets) {
    settle();
    const LogCapture log;
    for (const char* letter = GetParam().result.opened; *letter != '\0'; ++letter) {
        GetParam().turn(box(*letter));
    }
    pass();
    const SwitchResult& result = GetParam().result;
    EXPECT_EQ(sys().alarm.byte, result.alarm);
    EXPECT_EQ(sys().PMStatus.bytes[0], 0);
    EXPECT_EQ(sys().PMStatus.bytes[1], result.PMStatus);
    EXPECT_EQ(root().boxStatus.byte, result.boxStatus);
    EXPECT_EQ(root().sysStatus.byte, result.sysStatus);
    EXPECT_EQ(alarms(), result.names);
    EXPECT_EQ(log.text(), "");
}

void openSWIN(descUpsBox_t& box) {
    box.externalSwitchStatus.SWIN = 0;
}
void openSWBYP(descUpsBox_t& box) {
    box.externalSwitchStatus.SWBYP = 0;
}
void openSWBATT_EXT(descUpsBox_t& box) {
    box.externalSwitchStatus.SWBATT_EXT = 0;
}
void closeSWMB(descUpsBox_t& box) {
    box.Ups.status.SWMB = 1;
}
void openSWOUT(descUpsBox_t& box) {
    box.Ups.status.SWOUT = 0;
}

INSTANTIATE_TEST_SUITE_P(
    All, SwitchesOf,
    testing::Values(SwitchCase{"SWIN", openSWIN, {"", 0x00, 0x00, 0x00, 0x00, ""}},
                    SwitchCase{"SWIN", openSWIN, {"A", 0x02, 0x01, 0x00, 0x00, "SYSTEM_ANOMALY"}},
                    SwitchCase{"SWIN", openSWIN, {"BCD", 0x02, 0x01, 0x00, 0x00, "SYSTEM_ANOMALY"}},
                    SwitchCase{"SWIN", openSWIN, {"ABCD", 0x02, 0x00, 0x00, 0x00, "SYSTEM_ANOMALY SWIN_OPEN"}},
                    SwitchCase{"SWBYP", openSWBYP, {"A", 0x00, 0x02, 0x00, 0x00, ""}},
                    SwitchCase{"SWBYP", openSWBYP, {"BCD", 0x00, 0x02, 0x00, 0x00, ""}},
                    SwitchCase{"SWBYP", openSWBYP, {"ABCD", 0x00, 0x00, 0x00, 0x00, "SWBYP_OPEN"}},
                    SwitchCase{"SWBATT_EXT", openSWBATT_EXT, {"A", 0x00, 0x10, 0x40, 0x00, ""}},
                    SwitchCase{"SWBATT_EXT", openSWBATT_EXT, {"BCD", 0x00, 0x10, 0x40, 0x00, ""}},
                    // With no external battery configured the system's bit starts as set.
                    SwitchCase{"SWBATT_EXT", openSWBATT_EXT, {"ABCD", 0x00, 0x00, 0x00, 0x00, ""}},
                    SwitchCase{"SWMB", closeSWMB, {"A", 0x03, 0x04, 0x00, 0x20, "SYSTEM_ANOMALY MANUAL_BYPASS_UPS"}},
                    SwitchCase{"SWMB", closeSWMB, {"BCD", 0x03, 0x04, 0x00, 0x20, "SYSTEM_ANOMALY MANUAL_BYPASS_UPS"}},
                    SwitchCase{"SWMB", closeSWMB, {"ABCD", 0x01, 0x00, 0x00, 0x00, "MANUAL_BYPASS_UPS"}},
                    SwitchCase{"SWOUT", openSWOUT, {"A", 0x02, 0x08, 0x00, 0x00, "SYSTEM_ANOMALY SWOUT_OPEN"}},
                    SwitchCase{"SWOUT", openSWOUT, {"BCD", 0x02, 0x08, 0x00, 0x00, "SYSTEM_ANOMALY SWOUT_OPEN"}},
                    SwitchCase{"SWOUT", openSWOUT, {"ABCD", 0x00, 0x00, 0x00, 0x00, "SWOUT_OPEN"}}));

TEST_F(AggregationTest, ExternalBatterySwitchOfAllWithAConfiguredBattery) {
    plant.cfg().externBattCapacity = 100;
    settle();
    EXPECT_EQ(alarms(), "");
    for (const char letter : letters) {
        openSWBATT_EXT(box(letter));
    }
    pass();
    EXPECT_EQ(alarms(), "SWBAT_EXT_OPEN");
    EXPECT_EQ(root().boxStatus.Anomaly, 0);
}

// Whether the operator goes into the manual bypass or out of it shows in the system's bit before.
TEST_F(AggregationTest, ManualBypassOnItsWayInAndOut) {
    settle();
    closeSWMB(box('A'));
    pass();
    EXPECT_EQ(root().sysStatus.byte, 0x20);  // SWMBClosing
    EXPECT_EQ(sys().status.SWMB, 1);
    closeSWMB(box('B'));
    pass();
    // By now the system's bit is set: on the way out, as far as it can tell.
    EXPECT_EQ(root().sysStatus.byte, 0x10);  // SWMBOpening
    closeSWMB(box('C'));
    closeSWMB(box('D'));
    pass();
    EXPECT_EQ(root().sysStatus.byte, 0x00);
    EXPECT_EQ(sys().alarm.byte, 0x01);
    box('A').Ups.status.SWMB = 0;
    pass();
    EXPECT_EQ(root().sysStatus.byte, 0x10);
    EXPECT_EQ(sys().alarm.byte, 0x03);
    for (const char letter : letters) {
        box(letter).Ups.status.SWMB = 0;
    }
    pass();
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
}

TEST_F(AggregationTest, WithoutAnyCabinetTheSwitchesAreAnAnomalyAndAWarning) {
    for (const char letter : letters) {
        plant.comm(letter).active = false;
    }
    speaking = "";
    settle();
    EXPECT_EQ(sys().alarm.byte, 0x03);
    EXPECT_EQ(sys().PMStatus.bytes[1], 0);
    EXPECT_EQ(root().externalSwitchStatus.byte, 0x40);
    EXPECT_EQ(sys().status.byte, 0x40);
    EXPECT_EQ(alarms(), "SYSTEM_ANOMALY SWIN_OPEN SWBYP_OPEN BATTERY_NOT_PRESENT_A62");
    EXPECT_FALSE(failure());
}

TEST_F(AggregationTest, EmergencyOffOfAllCabinetsIsNeeded) {
    settle();
    EXPECT_EQ(root().externalSwitchStatus.EPO, 1);
    box('D').externalSwitchStatus.EPO = 0;
    pass();
    EXPECT_EQ(root().externalSwitchStatus.EPO, 0);
    EXPECT_EQ(sys().alarm.byte, 0);
}

TEST_F(AggregationTest, SilentCabinetLeavesTheSwitchesAgreeing) {
    settle();
    const LogCapture quiet;
    openSWIN(box('B'));
    closeSWMB(box('B'));
    openSWOUT(box('B'));
    plant.comm('B').isGood = false;
    pass();
    EXPECT_EQ(sys().PMStatus.bytes[1], 0);
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(sys().status.SWOUT, 1);
    EXPECT_EQ(sys().status.SWMB, 0);
}

}  // namespace
