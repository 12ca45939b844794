// Modules on load and in use, lost and low redundancy, and what happens when a cabinet falls silent.
#include <ostream>
#include <string>

#include "unit/CABP/Aggregation.h"

namespace {

using namespace aggregation;

class Redundancy : public AggregationTest {
  protected:
    explicit Redundancy(std::uint8_t own = 0xEA, const std::string& boxes = "ABCD") : AggregationTest(own, boxes) {}
    int notOnLoad() { return plant.sys().moduleNotOnLoad; }
    int used() { return plant.sys().moduleUsed; }
};

// ---------------------------------------------------------------------------------------------------------------
// Modules on load

TEST_F(Redundancy, AllModulesOfAPlantThatIsWellAreOnLoad) {
    settle();
    EXPECT_EQ(notOnLoad(), 0);
    EXPECT_EQ(used(), 1);  // the power of a module is not known
}

TEST_F(Redundancy, FirstPassFindsNoModuleOnLoad) {
    pass();
    EXPECT_EQ(notOnLoad(), 4);  // the system hasn't said yet that it hears them
    pass();
    EXPECT_EQ(notOnLoad(), 0);
}

TEST_F(Redundancy, ModuleIsOffLoadByItsShelter) {
    settle();
    const int expected[8] = {1, 0, 0, 0, 0, 1, 0, 0};  // lost and lock
    for (int state = 0; state < 8; ++state) {
        setElemAlarm(box('C').subSystem.UPSShelter[0], static_cast<alarmStatus_t>(state));
        pass();
        EXPECT_EQ(notOnLoad(), expected[state]) << state;
    }
}

TEST_F(Redundancy, UpperBitsOfAShelterHaveNoMeaning) {
    settle();
    box('C').subSystem.UPSShelter[0].desc = 0xF8 | noneAlarm;
    pass();
    EXPECT_EQ(notOnLoad(), 0);
    box('C').subSystem.UPSShelter[0].desc = 0xF8 | lockAlarm;
    pass();
    EXPECT_EQ(notOnLoad(), 1);
}

TEST_F(Redundancy, ModuleWithoutOutputIsOffLoad) {
    settle();
    ups('A').status.Output_Powered = 0;
    ups('B').status.Output_Powered = 0;
    pass();
    EXPECT_EQ(notOnLoad(), 2);
}

TEST_F(Redundancy, OneReasonOfManyCountsOnce) {
    settle();
    const LogCapture quiet;
    ups('A').status.Output_Powered = 0;
    setElemAlarm(box('A').subSystem.UPSShelter[0], commLostAlarm);
    plant.comm('A').isGood = false;
    pass();
    pass();
    EXPECT_EQ(notOnLoad(), 1);
}

TEST_F(Redundancy, NobodyPoweredCountsNobody) {
    for (const char letter : letters) {
        ups(letter).status.Output_Powered = 0;
        setElemAlarm(box(letter).subSystem.UPSShelter[0], lockAlarm);
    }
    settle();
    const LogCapture log;
    passes(20);
    EXPECT_EQ(notOnLoad(), 0);
    EXPECT_EQ(used(), 0);
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(log.text(), "");
}

class RedundancyOfThree : public Redundancy {
  protected:
    RedundancyOfThree() : Redundancy(0xEA, "ACD") {}
};

TEST_F(RedundancyOfThree, OnlyConfiguredCabinetsCount) {
    settle();
    EXPECT_EQ(notOnLoad(), 0);
    EXPECT_EQ(used(), 1);
    ups('C').status.Output_Powered = 0;
    pass();
    EXPECT_EQ(notOnLoad(), 1);
    EXPECT_EQ(itemState('B'), noneAlarm);
    EXPECT_EQ(alarms(), "");
}

// ---------------------------------------------------------------------------------------------------------------
// Modules in use

struct UsedCase {
    const char* name;
    uint32 WModule;
    int32 watt;  // of the second line, summed up
    int32 va;    // of the third
    int used;
};
std::ostream& operator<<(std::ostream& out, const UsedCase& used) {
    return out << used.name;
}

class ModulesUsed : public Redundancy, public testing::WithParamInterface<UsedCase> {
  protected:
    void setPower(int32 watt, int32 va) {
        for (const char letter : letters) {
            for (int l = 0; l < 3; ++l) {
                ups(letter).Watt[l] = 0;
                ups(letter).Va[l] = 0;
            }
        }
        ups('A').Watt[LINE2] = watt;
        ups('B').Va[LINE3] = va;
    }
};

TEST_P(ModulesUsed, AreAsManyAsThePowerTakes) {
    plant.cfg().WModule = GetParam().WModule;
    setPower(GetParam().watt, GetParam().va);
    settle();
    EXPECT_EQ(used(), GetParam().used);
}
INSTANTIATE_TEST_SUITE_P(
    Powers, ModulesUsed,
    testing::Values(UsedCase{"unknownModule", 0, 100000, 0, 1}, UsedCase{"nothing", 15000, 0, 0, 1},
                    UsedCase{"oneWatt", 15000, 1, 0, 1}, UsedCase{"fullModule", 15000, 5000, 0, 1},
                    UsedCase{"oneWattMore", 15000, 5001, 0, 2}, UsedCase{"twoModules", 15000, 10000, 0, 2},
                    UsedCase{"apparentPower", 15000, 100, 10001, 3}, UsedCase{"realPower", 15000, 10001, 100, 3},
                    UsedCase{"fourModules", 15000, 15001, 0, 4}, UsedCase{"noMoreThanThereAre", 15000, 1000000, 0, 4},
                    UsedCase{"negative", 15000, -100000, -100000, 1}, UsedCase{"thirdTruncates", 15001, 5001, 0, 2},
                    UsedCase{"moduleOfTwoWatts", 2, 3, 0, 3}, UsedCase{"moduleOfOneWatt", 1, 4, 0, 4},
                    UsedCase{"largest", 0xFFFFFFFF, 0x7FFFFFFF, 0, 2},
                    UsedCase{"largestPower", 3, 0x7FFFFFFF, 0x7FFFFFFF, 4}));

TEST_F(ModulesUsed, WithoutTheMainSwitchAreOneIfPowered) {
    plant.cfg().WModule = 15000;
    setPower(15000, 0);
    for (const char letter : letters) {
        ups(letter).switchStatus.Q1 = 0;
    }
    settle();
    EXPECT_EQ(used(), 1);
    for (const char letter : letters) {
        ups(letter).status.Output_Powered = 0;
    }
    pass();
    EXPECT_EQ(used(), 0);
}

TEST_F(ModulesUsed, OfAnUnpoweredPlantStillFollowItsPower) {
    plant.cfg().WModule = 15000;
    setPower(10000, 0);
    for (const char letter : letters) {
        ups(letter).status.Output_Powered = 0;
    }
    settle();
    EXPECT_EQ(used(), 2);
    setPower(0, 0);
    pass();
    EXPECT_EQ(used(), 0);
}

TEST_F(ModulesUsed, AreNoMoreThanThoseOnLoad) {
    plant.cfg().WModule = 15000;
    setPower(20000, 0);
    settle();
    EXPECT_EQ(used(), 4);
    ups('C').status.Output_Powered = 0;
    pass();
    EXPECT_EQ(used(), 3);
}

// ---------------------------------------------------------------------------------------------------------------
// Lost redundancy

TEST_F(Redundancy, IsLostAfterMoreThanThreeSeconds) {
    settle();
    LogCapture log;
    setElemAlarm(box('C').subSystem.UPSShelter[0], lockAlarm);
    pass();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(root().sysStatus.byte, 0) << i;
        EXPECT_EQ(sys().alarm.Fault, 0) << i;
        pass(SECOND);
    }
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(log.text(), "");
    pass(SECOND);
    EXPECT_EQ(root().sysStatus.byte, 0x40);  // LostRedundancy
    EXPECT_EQ(sys().alarm.byte, 0x04);
    EXPECT_EQ(root().boxStatus.Fault, 0);  // judged before
    EXPECT_EQ(sys().extStatus.UPS_OK, 0);
    EXPECT_TRUE(log.has("War", "Lost Redundancy Detected"));
    EXPECT_EQ(alarms(), "ALARM_REDUNDANCY");
    EXPECT_TRUE(failure());
    passes(60);
    EXPECT_EQ(log.messages(), "Lost Redundancy Detected\n");
    EXPECT_EQ(root().sysStatus.byte, 0x40);
}

TEST_F(Redundancy, ComesBackAtOnce) {
    settle();
    setElemAlarm(box('C').subSystem.UPSShelter[0], lockAlarm);
    {
        const LogCapture quiet;
        passes(10);
    }
    ASSERT_EQ(root().sysStatus.byte, 0x40);
    setElemAlarm(box('C').subSystem.UPSShelter[0], faultAlarm);
    pass();
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
}

TEST_F(Redundancy, LostForThreeSecondsLeavesNoTrace) {
    settle();
    const LogCapture log;
    for (int i = 0; i < 5; ++i) {
        setElemAlarm(box('C').subSystem.UPSShelter[0], lockAlarm);
        passes(4);
        setElemAlarm(box('C').subSystem.UPSShelter[0], faultAlarm);
        passes(1);
        EXPECT_TRUE(sameBytes(expectedWell(), root()));
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Redundancy, IsLostWhenAllModulesOnLoadAreNeeded) {
    plant.cfg().WModule = 15000;  // 5000 a line; 3000 each from four cabinets: three modules
    settle();
    EXPECT_EQ(used(), 3);
    LogCapture log;
    passes(20);
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(log.text(), "");
    ups('A').Watt[0] = 7000;
    passes(10);
    EXPECT_EQ(used(), 4);
    EXPECT_EQ(root().sysStatus.byte, 0x40);
    EXPECT_EQ(log.messages(), "Lost Redundancy Detected\n");
}

TEST_F(Redundancy, OfTwoModulesOutlastsOne) {
    plant.cfg().redundantUPS = 2;
    settle();
    LogCapture log;
    ups('D').status.Output_Powered = 0;
    passes(8);
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(log.messages(), "Low Redundancy Detected\n");
    ups('C').status.Output_Powered = 0;
    passes(8);
    EXPECT_EQ(root().sysStatus.byte, 0x40);
}

TEST_F(Redundancy, NotWantedIsNeverJudged) {
    plant.cfg().redundantUPS = 0;
    settle();
    LogCapture log;
    for (const char letter : {'A', 'B', 'C'}) {
        setElemAlarm(box(letter).subSystem.UPSShelter[0], lockAlarm);
    }
    passes(30);
    EXPECT_EQ(notOnLoad(), 3);
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Redundancy, OfNoCabinetsIsNeverJudged) {
    plant.sys().numUPS = 0;
    settle();
    const LogCapture log;
    setElemAlarm(box('A').subSystem.UPSShelter[0], lockAlarm);
    passes(30);
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(log.text(), "");
}

class RedundancyOfOne : public Redundancy {
  protected:
    RedundancyOfOne() : Redundancy(0xEA, "A") {}
};

// The one module of a powered plant is needed: there is nothing in reserve.
TEST_F(RedundancyOfOne, IsLostWhileItIsPowered) {
    settle();
    LogCapture log;
    passes(10);
    EXPECT_EQ(used(), 1);
    EXPECT_EQ(root().sysStatus.byte, 0x40);
    EXPECT_EQ(log.messages(), "Lost Redundancy Detected\n");
    EXPECT_EQ(alarms(), "ALARM_REDUNDANCY");
    EXPECT_TRUE(failure());
    ups('A').status.Output_Powered = 0;
    passes(10);
    EXPECT_EQ(root().sysStatus.byte, 0);
}

// ---------------------------------------------------------------------------------------------------------------
// Low redundancy is told, and nothing else

TEST_F(Redundancy, LowIsOnlyTold) {
    plant.cfg().redundantUPS = 2;
    plant.cfg().WModule = 15000;  // three modules of four are needed
    settle();
    LogCapture log;
    pass();
    passes(2);
    EXPECT_EQ(log.text(), "");
    passes(10);
    EXPECT_EQ(log.messages(), "Low Redundancy Detected\n");
    EXPECT_EQ(log.warnings(), 1u);
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(alarms(), "");
}

TEST_F(Redundancy, LowTakesFourSeconds) {
    plant.cfg().redundantUPS = 2;
    settle();
    LogCapture log;
    ups('D').status.Output_Powered = 0;
    pass();
    const time32_t start = now();
    while (now() - start < 3) {
        pass();
    }
    EXPECT_EQ(now() - start, 3);
    EXPECT_EQ(log.text(), "");
    while (now() - start < 4) {
        EXPECT_EQ(log.text(), "");
        pass();
    }
    EXPECT_EQ(log.messages(), "Low Redundancy Detected\n");
}

// While redundancy is lost the low one stands still: its time neither runs nor ends.
TEST_F(Redundancy, LostStopsTheTimeOfLow) {
    plant.cfg().redundantUPS = 2;
    settle();
    LogCapture log;
    ups('D').status.Output_Powered = 0;
    passes(10);
    EXPECT_EQ(log.messages(), "Low Redundancy Detected\n");
    log.clear();
    ups('C').status.Output_Powered = 0;
    passes(10);
    EXPECT_EQ(root().sysStatus.byte, 0x40);
    ups('C').status.Output_Powered = 1;
    passes(10);
    EXPECT_EQ(root().sysStatus.byte, 0);
    EXPECT_EQ(log.occurrences("Low Redundancy"), 0u);  // still the same
}

// ---------------------------------------------------------------------------------------------------------------
// A cabinet that falls silent

TEST_F(Redundancy, SilentCabinetFromItsLossToTheFault) {
    settle();
    LogCapture log;
    speaking = "ABD";
    plant.comm('C').isGood = false;
    pass();
    // At once: the cabinet's state, its name in the file, and the failure that only the file tells.
    EXPECT_EQ(itemState('C'), commLostAlarm);
    EXPECT_EQ(alarms(), "MODULE_3_LOST");
    EXPECT_TRUE(failure());
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(notOnLoad(), 0);
    const time32_t start = now();
    pass();
    EXPECT_EQ(notOnLoad(), 1);
    while (now() - start <= 3) {
        EXPECT_EQ(root().sysStatus.byte, 0);
        EXPECT_EQ(sys().alarm.byte, 0);
        pass();
    }
    EXPECT_EQ(log.messages(), "Lost Redundancy Detected\n");
    EXPECT_EQ(root().sysStatus.byte, 0x40);
    EXPECT_EQ(sys().alarm.byte, 0x04);
    EXPECT_EQ(alarms(), "ALARM_REDUNDANCY MODULE_3_LOST");
    EXPECT_TRUE(failure());
    // And back.
    speaking = letters;
    plant.comm('C').isGood = true;
    makeWell('C');
    pass();
    EXPECT_EQ(alarms(), "ALARM_REDUNDANCY");
    pass();
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
    EXPECT_EQ(alarms(), "");
    EXPECT_FALSE(failure());
}

TEST_F(Redundancy, SilentCabinetByteForByte) {
    settle();
    plant.comm('C').isGood = false;
    pass();
    descSys_t expected = expectedWell();
    for (int l = 0; l < 3; ++l) {
        expected.Ups.Load[l] = static_cast<int16>(41 + 10 * l);  // (0 + 1 + 3) / 3 more than the first
        expected.Ups.Va[l] = 3 * (3000 + 10 * l) + 4;
        expected.Ups.Watt[l] = 3 * (2800 + 10 * l) + 4;
        expected.Ups.Iin[l] = static_cast<uint32>(3 * (120 + l) + 4);
        expected.Ups.Iout[l] = 3 * (110 + l) + 4;
        expected.Ups.Iout_pk[l] = 3 * (200 + l) + 4;
    }
    expected.Ups.Ibatp = 34;
    expected.Ups.Ibatn = -34;
    setElemAlarm(expected.subSystem.UPSBox[2], commLostAlarm);
    expected.boxStatus.Anomaly = 1;
    expected.MCUMUStatus.commErrorMCU = 1;
    expected.MCUMUStatus.AnomalyMCU = 1;
    EXPECT_TRUE(sameBytes(expected, root()));
}

// A card whose module is gone says so itself: the system's own state of the cabinet is good.
TEST_F(Redundancy, LostModuleOfACabinetThatAnswers) {
    settle();
    setElemAlarm(box('B').subSystem.UPSShelter[0], commLostAlarm);
    pass();
    EXPECT_EQ(itemState('B'), noneAlarm);
    EXPECT_EQ(alarms(), "MODULE_2_LOST");
    EXPECT_TRUE(failure());
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(notOnLoad(), 1);
}

}  // namespace
