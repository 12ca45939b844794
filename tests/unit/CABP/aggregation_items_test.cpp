// The states of the elements that a pass leaves in the tree, and the boards that ask for their configuration.
#include <cstring>
#include <ostream>
#include <string>

#include "unit/CABP/Aggregation.h"

namespace {

using namespace aggregation;

class Items : public AggregationTest {};

// ---------------------------------------------------------------------------------------------------------------
// States of the elements

struct ItemCase {
    const char* name;
    void (*set)(upsBoxQueriesData_t&, descUpsBox_t&);
    alarmStatus_t state;
};
std::ostream& operator<<(std::ostream& out, const ItemCase& item) {
    return out << item.name;
}
class Item : public AggregationTest, public testing::WithParamInterface<ItemCase> {};

TEST_P(Item, StateOfACabinet) {
    settle();
    GetParam().set(plant.data('C'), box('C'));
    const LogCapture quiet;
    pass();
    EXPECT_EQ(itemState('C'), GetParam().state);
    for (const char letter : {'A', 'B', 'D'}) {
        EXPECT_EQ(itemState(letter), noneAlarm) << letter;
    }
}

#define ITEM(name, statement, state)                           \
    ItemCase {                                                 \
        name,                                                  \
            [](upsBoxQueriesData_t& data, descUpsBox_t& box) { \
                (void)data;                                    \
                (void)box;                                     \
                statement;                                     \
            },                                                 \
            state                                              \
    }

INSTANTIATE_TEST_SUITE_P(
    Rows, Item,
    testing::Values(ITEM("none", , noneAlarm), ITEM("inactive", data.MCUcommStatus.active = false, noneAlarm),
                    ITEM("inactiveAndBad", data.MCUcommStatus.active = data.MCUcommStatus.isGood = false, noneAlarm),
                    ITEM("silent", data.MCUcommStatus.isGood = false, commLostAlarm),
                    ITEM("silentInLock", (data.MCUcommStatus.isGood = false, box.Ups.alarm.byte = 0xFF), commLostAlarm),
                    ITEM("lock", box.Ups.alarm.Lock = 1, lockAlarm), ITEM("fault", box.Ups.alarm.Fault = 1, faultAlarm),
                    ITEM("boxFault", box.boxStatus.Fault = 1, faultAlarm),
                    ITEM("anomaly", box.Ups.alarm.Anomaly = 1, anomalyAlarm),
                    ITEM("boxAnomaly", box.boxStatus.Anomaly = 1, anomalyAlarm),
                    ITEM("warning", box.Ups.alarm.Warning = 1, warningAlarm),
                    ITEM("boxWarning", box.boxStatus.Warning = 1, warningAlarm),
                    ITEM("others", (box.Ups.alarm.byte = 0xF0, box.boxStatus.byte = 0x3B), noneAlarm),
                    // The first that matches wins.
                    ITEM("all", (box.Ups.alarm.byte = 0xFF, box.boxStatus.byte = 0xFF), lockAlarm),
                    ITEM("allButLock", (box.Ups.alarm.byte = 0xF7, box.boxStatus.byte = 0xFF), faultAlarm),
                    ITEM("boxFaultBeforeAnomaly", (box.Ups.alarm.byte = 0x03, box.boxStatus.byte = 0x04), faultAlarm),
                    ITEM("boxAnomalyBeforeWarning", (box.Ups.alarm.byte = 0x01, box.boxStatus.byte = 0x40),
                         anomalyAlarm)));

TEST_F(Items, UpperBitsOfAStateStayAsFound) {
    settle();
    root().subSystem.UPSBox[1].desc = 0xF8;
    pass();
    EXPECT_EQ(root().subSystem.UPSBox[1].desc, 0xF8 | noneAlarm);
}

TEST_F(Items, UpdateItemsAloneSetsTheStates) {
    settle();
    ups('B').alarm.Lock = 1;
    plant.bus().updateItems();
    EXPECT_EQ(itemState('B'), lockAlarm);
    EXPECT_EQ(support::replaced::rename().count(), 2u);
}

// Age of a cabinet's data, its error score, and whether its shelter is then told as lost.
struct ShelterCase {
    int age;
    int errorPck;
    bool isReset;
};
std::ostream& operator<<(std::ostream& out, const ShelterCase& shelter) {
    return out << shelter.age << "s_score" << shelter.errorPck;
}
class Shelter : public AggregationTest, public testing::WithParamInterface<ShelterCase> {};

TEST_P(Shelter, IsResetByTheAgeOfItsData) {
    box('B').subSystem.UPSShelter[0].desc = 0xF8 | faultAlarm;
    ups('B').timestamp = now() - GetParam().age;
    plant.comm('B').errorPck = GetParam().errorPck;
    plant.bus().checkUpsBoxSubSystem('B');
    EXPECT_EQ(box('B').subSystem.UPSShelter[0].desc, 0xF8 | (GetParam().isReset ? commLostAlarm : faultAlarm));
}
INSTANTIATE_TEST_SUITE_P(Ages, Shelter,
                         testing::Values(ShelterCase{0, 0, false}, ShelterCase{30, 0, false}, ShelterCase{31, 0, true},
                                         ShelterCase{31, 1, false}, ShelterCase{31, -1, false},
                                         ShelterCase{720, 3, false}, ShelterCase{721, 3, true},
                                         ShelterCase{721, 0, true}, ShelterCase{-100000, 0, false}));

TEST_F(Items, OldBatteryDataDoNotResetTheShelter) {
    box('B').subSystem.UPSShelter[0].desc = faultAlarm;
    box('B').Batteries.timestamp = now() - 100000;
    plant.bus().checkUpsBoxSubSystem('B');
    EXPECT_EQ(box('B').subSystem.UPSShelter[0].desc, faultAlarm);
}

TEST_F(Items, ShelterOfACabinetWithoutModuleIsResetToNone) {
    plant.cfg().Ups[1].modulePresent[0] = false;
    box('B').subSystem.UPSShelter[0].desc = faultAlarm;
    ups('B').timestamp = 0;
    plant.bus().checkUpsBoxSubSystem('B');
    EXPECT_EQ(box('B').subSystem.UPSShelter[0].desc, noneAlarm);
}

// As a slave hears it: a cabinet that has gone keeps its score, only the age of its data tells.
TEST_F(Items, CabinetThatIsNoLongerHeardIsLostAfterThirtySeconds) {
    settle();
    speaking = "ABC";
    const LogCapture quiet;
    const time32_t last = now();
    while (now() - last <= 30) {
        EXPECT_EQ(alarms().find("MODULE"), std::string::npos);
        pass();
    }
    EXPECT_NE(alarms().find("MODULE_4_LOST"), std::string::npos);
    EXPECT_TRUE(failure());
    EXPECT_EQ(itemState('D'), noneAlarm);
    EXPECT_EQ(sys().Va[0], 12006);  // its last record still counts
}

TEST_F(Items, LetterOfNoCabinetIsRefused) {
    const virtualNode_t before = plant.root();
    for (const int letter : {0x00, 0x40, 0x45, 0x61, 0xFF}) {
        const LogCapture log;
        plant.bus().checkUpsBoxSubSystem(static_cast<uint8>(letter));
        EXPECT_EQ(log.errors(), 1u) << letter;
    }
    EXPECT_TRUE(sameBytes(before, plant.root()));
}

TEST_F(Items, SystemThatIsTooOldHasLostItsCabinets) {
    settle();
    plant.cfg().Ups[3].present = false;
    sys().timestamp = now() - 30;
    plant.bus().checkSysSubSystem();
    EXPECT_EQ(itemState('A'), noneAlarm);
    sys().timestamp = now() - 31;
    plant.bus().checkSysSubSystem();
    EXPECT_EQ(itemState('A'), commLostAlarm);
    EXPECT_EQ(itemState('B'), commLostAlarm);
    EXPECT_EQ(itemState('C'), commLostAlarm);
    EXPECT_EQ(itemState('D'), noneAlarm);
}

TEST(ItemsWithoutTree, AreToldAsNotInitialised) {
    Plant plant;
    LogCapture log;
    plant.bus().checkSysSubSystem();
    EXPECT_TRUE(log.has("Err", "SISTEMA NON INIZIALIZZATO!!"));
    EXPECT_EQ(log.messages(), "SISTEMA NON INIZIALIZZATO!!\n");
    log.clear();
    plant.bus().updateItems();
    EXPECT_EQ(log.messages(), "SISTEMA NON INIZIALIZZATO!!\n");
}

// ---------------------------------------------------------------------------------------------------------------
// Boards that ask for their configuration

TEST_F(Items, MasterQueuesTheParametersForABoardThatAsks) {
    settle();
    plant.data('C').extendedBoardBox.Status.Config_Update = true;
    LogCapture log;
    pass();
    EXPECT_TRUE(log.has("", "Ho ricevuto la richiesta di configurazione da MU_C"));
    EXPECT_EQ(log.entries().front().function, "AggregateBox");
    ASSERT_EQ(plant.in().AsyncQC.size(), 1);
    const QCMgr& elem = *plant.in().AsyncQC.head();
    EXPECT_EQ(elem.QC.Src, 0xEA);
    EXPECT_EQ(elem.QC.Dest, 0x0C);
    EXPECT_EQ(elem.QC.MainCmd, 'S');
    EXPECT_EQ(elem.QC.SubCmd, 'I');
    ASSERT_EQ(elem.QC.ParamLen, 16);
    uint8 param[SIPARAMLEN];
    setParamSI(param, 0x0C);
    EXPECT_EQ(std::memcmp(elem.QC.pParam, param, sizeof(param)), 0);
    EXPECT_EQ(elem.pCommStatus, nullptr);
}

TEST_F(Items, BoardThatGoesOnAskingIsQueuedOnce) {
    settle();
    plant.data('C').extendedBoardBox.Status.Config_Update = true;
    const LogCapture log;
    passes(5);
    EXPECT_EQ(plant.in().AsyncQC.size(), 1);
    EXPECT_EQ(log.occurrences("Ho ricevuto la richiesta di configurazione da MU_C\n"), 5u);
}

TEST_F(Items, SlaveOnlyTellsThatABoardAsks) {
    plant.in().state = Slave;
    settle();
    plant.data('A').extendedBoardBox.Status.Config_Update = true;
    const LogCapture log;
    pass();
    EXPECT_EQ(log.messages(), "Ho ricevuto la richiesta di configurazione da MU_A\n");
    EXPECT_EQ(plant.in().AsyncQC.size(), 0);
}

// Its measures count, its switches and its box don't.
TEST_F(Items, CabinetWhoseBoardAsksIsLeftOutOfTheSecondScanOnly) {
    plant.in().state = Slave;
    settle();
    const LogCapture quiet;
    plant.data('D').extendedBoardBox.Status.Config_Update = true;
    box('D').externalSwitchStatus.byte = 0;
    box('D').boxStatus.byte = 0xFB;
    box('D').MCUMUStatus.byte = 0x06;
    box('D').Batteries.barsPosV = 1000;
    ups('D').status.SWMB = 1;
    ups('D').status.SWOUT = 0;
    pass();
    descSys_t expected = expectedWell();
    expected.MCUMUStatus.commErrorMU = 1;  // of the first scan
    setElemAlarm(expected.subSystem.UPSBox[3], anomalyAlarm);
    EXPECT_TRUE(sameBytes(expected, root()));
    EXPECT_EQ(box('D').MCUMUStatus.byte, 0x06);  // its board's error is not cleared
}

TEST_F(Items, BoardOfASilentCabinetIsNotAnswered) {
    settle();
    const LogCapture log;
    plant.data('D').extendedBoardBox.Status.Config_Update = true;
    plant.comm('D').isGood = false;
    pass();
    EXPECT_FALSE(log.contains("richiesta"));
    EXPECT_EQ(plant.in().AsyncQC.size(), 0);
}

}  // namespace
