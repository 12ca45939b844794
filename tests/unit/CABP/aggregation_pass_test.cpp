// A pass as a whole: when it runs, what it publishes, the status file at its end, and what it must not do.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/Allocations.h"
#include "unit/CABP/Aggregation.h"

namespace {

using namespace aggregation;
using support::AllocationCount;
namespace replaced = support::replaced;

class Pass : public AggregationTest {
  protected:
    explicit Pass(std::uint8_t own = 0xEA, const std::string& boxes = "ABCD") : AggregationTest(own, boxes) {
        virtualNode_t& module = plant.module(boxes[0]);
        std::memcpy(module.identification.SN, "SERIAL0123456789", 17);
        std::memcpy(module.identification.Model, "MODEL OF A UPS  ", 17);
        std::memcpy(module.identification.SWVer, "SW 01.02.03 ", 13);
        module.identification.IO_Cfg = TT;
        module.identification.UPS_Type = OnLine;
        module.nominal.BatteryAh = 45;
    }
    virtualNode_t& rootNode() { return plant.root(); }
    std::size_t filesWritten() { return replaced::rename().count(); }
};

// ---------------------------------------------------------------------------------------------------------------
// When

TEST_F(Pass, FirstOneIsDue201MillisecondsAfterTheStart) {
    plant.bus().AggregateBox();
    VirtualClock::advance(INTERVAL - 1);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 0u);
    VirtualClock::advance(1);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 1u);
}

TEST_F(Pass, RunsAtMostOnceIn201Milliseconds) {
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 1u);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 1u);
    VirtualClock::advance(200 * MS);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 1u);
    VirtualClock::advance(999);  // us
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 1u);
    VirtualClock::advance(1);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 2u);
}

TEST_F(Pass, ThatDoesNotRunTouchesNothing) {
    settle();
    const virtualNode_t before = rootNode();
    ups('A').alarm.byte = 0xFF;
    plant.sys().moduleUsed = 77;
    const LogCapture log;
    VirtualClock::advance(100 * MS);
    plant.bus().AggregateBox();
    EXPECT_TRUE(sameBytes(before, rootNode()));
    EXPECT_EQ(plant.sys().moduleUsed, 77);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Pass, IntervalCountsFromTheLastPassThatRan) {
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    for (int i = 0; i < 1000; ++i) {  // frames arrive every 10 ms
        VirtualClock::advance(10 * MS);
        plant.bus().AggregateBox();
    }
    EXPECT_EQ(filesWritten(), 1u + 10000 / 210);
}

TEST_F(Pass, IntervalDoesNotFollowTheWallClock) {
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    VirtualClock::setWall(VirtualClock::wall() / SECOND + 3600);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 1u);
    VirtualClock::setWall(VirtualClock::wall() / SECOND - 7200);
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    EXPECT_EQ(filesWritten(), 2u);
}

TEST_F(Pass, RunsOnASlaveToo) {
    plant.in().state = Slave;
    settle();
    EXPECT_TRUE(sameBytes(expectedWell(), root()));
    EXPECT_EQ(filesWritten(), 2u);
}

TEST_F(Pass, HoldsTheLockOfTheDataUntilTheFileIsThere) {
    bool heldAtOpen = false;
    bool heldAtRename = false;
    const auto isHeld = [this] {
        const bool isFree = plant.in().mutexCABPData->tryLock();
        if (isFree) {
            plant.in().mutexCABPData->unlock();
        }
        return !isFree;
    };
    replaced::fopen().does([&](const char*, const char*) -> FILE* {
        heldAtOpen = isHeld();
        return std::tmpfile();
    });
    replaced::rename().does([&](const char*, const char*) {
        heldAtRename = isHeld();
        return 0;
    });
    pass();
    EXPECT_TRUE(heldAtOpen);
    EXPECT_TRUE(heldAtRename);
    EXPECT_FALSE(isHeld());
}

TEST(PassWithoutTree, ReturnsInSilence) {
    Plant::Options options;
    options.hasTree = false;
    Plant plant(options);
    plant.registerAll();
    VirtualClock::advance(10 * SECOND);
    const LogCapture log;
    plant.bus().AggregateBox();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(replaced::fopen().count(), 0u);
    EXPECT_EQ(plant.in().lastTime.tv_sec, VirtualClock::START_OF_MONOTONIC);
}

TEST(PassWithoutTree, BeforeTheRegistrationReturnsInSilence) {
    Plant plant;
    VirtualClock::advance(INTERVAL);
    const LogCapture log;
    plant.bus().AggregateBox();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(replaced::fopen().count(), 0u);
}

// ---------------------------------------------------------------------------------------------------------------
// What it publishes

TEST_F(Pass, WholeNodeByteForByte) {
    plant.cfg().word7 = 0x12E6;  // 230 V
    settle();
    virtualNode_t expected = rootNode();  // links, texts and panel
    identification_t& who = expected.identification;
    std::memset(&who, 0, sizeof(who));
    who.timestamp = now();
    std::memcpy(who.SN, "SERIAL0123456789", 17);
    std::memcpy(who.Model, "MODEL OF A UPS  ", 17);
    std::memcpy(who.SWVer, "SW 01.02.03 ", 13);
    std::memcpy(&who.IO_Cfg, "431110200", 9);
    std::memcpy(who.tbdGI, "000", 3);
    std::memcpy(who.SN_AUX, "                ", 17);
    std::memcpy(who.SWVer_AUX, "            ", 13);
    std::memcpy(who.tbdGE, "0000", 4);
    who.partialInfo = 0;
    nominal_t& nominal = expected.nominal;
    nominal.timestamp = now();
    nominal.VA = 80600;
    nominal.W = 72600;
    nominal.BatteryV = 240;
    nominal.BatteryAh = 45;
    nominal.Vout = 230;
    nominal.FreqOut = 500;
    expected.desc.sys = expectedWell();
    EXPECT_TRUE(sameBytes(expected, rootNode()));
}

TEST_F(Pass, DocumentByteForByte) {
    settle();
    const std::string expected =
        "{\n"
        "\"timestamp\": 1709294400,\n"
        "\"OUTPUTPOWERED\": true,\n"
        "\"UPSLOCK\": false,\n"
        "\"BATTERYWORK\": false,\n"
        "\"BATTERYLOW\": false,\n"
        "\"ONBYPASS\": false,\n"
        "\"BATTERYCHARGING\": false,\n"
        "\"REPLACEBATTERY\": false,\n"
        "\"SHUTDOWNACTIVE\": false,\n"
        "\"SHUTDOWNIMMIN\": false,\n"
        "\"TESTINPROGRESS\": false,\n"
        "\"ALARMOVERLOAD\": false,\n"
        "\"ALARMTEMPERATUR\": false,\n"
        "\"INPUTVOLTAGE\": 227,\n"
        "\"INPUTVOLTAGE2\": 228,\n"
        "\"INPUTVOLTAGE3\": 229,\n"
        "\"INPUTFREQUENCY\": 499,\n"
        "\"INPUTCURRENT\": 486,\n"
        "\"INPUTCURRENT2\": 490,\n"
        "\"INPUTCURRENT3\": 494,\n"
        "\"OUTPUTVOLTAGE\": 231,\n"
        "\"OUTPUTVOLTAGE2\": 232,\n"
        "\"OUTPUTVOLTAGE3\": 233,\n"
        "\"OUPUTFREQUENCY\": 501,\n"
        "\"OUTPUTLOAD\": 41,\n"
        "\"OUTPUTLOAD2\": 51,\n"
        "\"OUTPUTLOAD3\": 61,\n"
        "\"OUTPUTCURRENT\": 446,\n"
        "\"OUTPUTCURRENT2\": 450,\n"
        "\"OUTPUTCURRENT3\": 454,\n"
        "\"OUTPUTCURRENTP1\": 806,\n"
        "\"OUTPUTCURRENTP2\": 810,\n"
        "\"OUTPUTCURRENTP3\": 814,\n"
        "\"OUTPUTPOWER\": 11206,\n"
        "\"OUTPUTPOWER2\": 11246,\n"
        "\"OUTPUTPOWER3\": 11286,\n"
        "\"OUTPUTPOWERVA1\": 12006,\n"
        "\"OUTPUTPOWERVA2\": 12046,\n"
        "\"OUTPUTPOWERVA3\": 12086,\n"
        "\"BYPASSFREQUENCY\": 500,\n"
        "\"BYPASSVOLTAGE\": 229,\n"
        "\"BYPASSVOLTAGE2\": 230,\n"
        "\"BYPASSVOLTAGE3\": 231,\n"
        "\"BATTERYVOLTAGE\": 540,\n"
        "\"VBATPLUS\": 270,\n"
        "\"VBATMINUS\": 271,\n"
        "\"BATTERYCURRENT\": 46,\n"
        "\"BATTERYCURRENTMINUS\": -46,\n"
        "\"BATTERYESTCHARG\": 90,\n"
        "\"BATTERYESTTIME\": 3600,\n"
        "\"SYSTEMTEMP\": 33,\n"
        "\"INVTEMP\": 43,\n"
        "\"RECTTEMP\": 44,\n"
        "\"TEMP1\": 25,\n"
        "\"TEMP2\": 26,\n"
        "\"TEMP3\": 27,\n"
        "\"TEMP4\": 28,\n"
        "\"TESTNUMBERJ\": \"SERIAL0123456789\",\n"
        "\"UPSMODELJ\": \"MODEL OF A UPS  \",\n"
        "\"UPSSWVERSIONJ\": \"SW 01.02.03 \",\n"
        "\"NOMINALPOWERW\": 72600,\n"
        "\"NOMINALPOWERVA\": 80600,\n"
        "\"IOCONFIGURATION\": 4,\n"
        "\"UPSTYPE\": 3,\n"
        "\"LINEPRESENT\": true,\n"
        "\"statusAlarms\":[\n"
        "],\n"
        "\"UPSFAILURE\": false}";
    EXPECT_EQ(json(), expected);
}

TEST_F(Pass, FrequencyAndVoltageComeFromTheConfiguration) {
    plant.cfg().word28 = 0x0010;
    plant.cfg().word7 = 0xFF00;
    settle();
    EXPECT_EQ(rootNode().nominal.FreqOut, 600);
    EXPECT_EQ(rootNode().nominal.Vout, 0);
    plant.cfg().word28 = 0xFFEF;
    plant.cfg().word7 = 0x00FF;
    pass();
    EXPECT_EQ(rootNode().nominal.FreqOut, 500);
    EXPECT_EQ(rootNode().nominal.Vout, 255);
}

TEST_F(Pass, AnIdlePanelAndLinksAreLeftAlone) {
    rootNode().panel.value = CMD_NONE;
    rootNode().panel.delay_shut = 30;
    const virtualNode_t before = rootNode();
    settle();
    EXPECT_TRUE(sameBytes(before.panel, rootNode().panel));
    EXPECT_EQ(std::memcmp(&before, &rootNode(), offsetof(virtualNode_t, identification)), 0);
}

TEST_F(Pass, CabinetsAreLeftAlone) {
    settle();
    virtualNode_t before[4];
    for (int i = 0; i < 4; ++i) {
        before[i] = plant.box(letters[static_cast<std::size_t>(i)]);
    }
    plant.bus().AggregateBox();
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(sameBytes(before[i], plant.box(letters[static_cast<std::size_t>(i)]))) << i;
    }
}

class PassOfB : public Pass {
  protected:
    PassOfB() : Pass(0xEB, "ABCD") {
        std::memcpy(plant.module('B').identification.SN, "THAT OF B       ", 17);
        plant.module('B').nominal.BatteryAh = 7;
    }
};

TEST_F(PassOfB, TellsOfTheModuleOfItsOwnCabinet) {
    settle();
    EXPECT_STREQ(rootNode().identification.SN, "THAT OF B       ");
    EXPECT_EQ(rootNode().nominal.BatteryAh, 7);
    EXPECT_TRUE(jsonHas("\"TESTNUMBERJ\": \"THAT OF B       \""));
}

// ---------------------------------------------------------------------------------------------------------------
// A card that is not in the plant

void expectNoOwnModule(Plant& plant) {
    const identification_t& who = plant.root().identification;
    EXPECT_STREQ(who.SN, "                ");
    EXPECT_STREQ(who.Model, "                ");
    EXPECT_STREQ(who.SWVer, "            ");
    EXPECT_EQ(who.IO_Cfg, '0');
    EXPECT_EQ(who.UPS_Type, '0');
    EXPECT_EQ(who.Boost_Cfg, '1');
    EXPECT_EQ(plant.root().nominal.BatteryAh, 0);
    EXPECT_EQ(plant.root().nominal.BatteryV, 240);
}

TEST(PassOfAStranger, WithoutAnAddressHasNoOwnModule) {
    Plant plant(0xE0, "ABCD");
    plant.registerAll();
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    expectNoOwnModule(plant);
    EXPECT_EQ(replaced::rename().count(), 1u);
}

TEST(PassOfAStranger, WithoutACabinetInThePlantHasNoOwnModule) {
    Plant plant(0xEB, "A");
    plant.registerAll();
    // Cabinet A is heard by this card as by any other.
    plant.data('A').pVN->desc.upsBox.Ups.timestamp = now();
    plant.data('A').pVN->desc.upsBox.Ups.Va[0] = 1234;
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    expectNoOwnModule(plant);
    EXPECT_EQ(plant.root().desc.sys.Ups.Va[0], 1234);
}

TEST(PassOfAStranger, EveryAddressIsSurvived) {
    Plant plant(0xE0, "ABCD");
    plant.registerAll();
    for (int address = 0; address <= 0xFF; ++address) {
        CABPAddr = static_cast<uint8>(address);
        VirtualClock::advance(INTERVAL);
        plant.bus().AggregateBox();
    }
    EXPECT_EQ(replaced::rename().count(), 256u);
}

TEST_F(Pass, WithoutTheManagerOfTheTreeHasNoOwnModule) {
    VirtualUPSMgr* const manager = plant.sys().pVirtualUPSMgr;
    virtualNode_t& root = rootNode();
    plant.sys().pVirtualUPSMgr = nullptr;
    VirtualClock::advance(INTERVAL);
    plant.bus().AggregateBox();
    plant.sys().pVirtualUPSMgr = manager;
    EXPECT_STREQ(root.identification.SN, "                ");
}

// ---------------------------------------------------------------------------------------------------------------
// Freshness

TEST_F(Pass, SystemIsAsFreshAsItsFreshestCabinet) {
    settle();
    speaking = "D";
    for (const char letter : {'A', 'B', 'C'}) {
        ups(letter).timestamp = now() - 1000;
    }
    pass();
    EXPECT_EQ(sys().timestamp, now());
}

struct AgeCase {
    int age;
    bool isFresh;
};
class PassAge : public AggregationTest, public testing::WithParamInterface<AgeCase> {};

TEST_P(PassAge, OfAllCabinetsDecidesOnTheSystem) {
    settle();
    speaking = "";
    VirtualClock::advance(INTERVAL);
    for (const char letter : letters) {
        ups(letter).timestamp = now() - GetParam().age;
        box(letter).timestamp = now();  // of the record, not of its data
    }
    plant.bus().AggregateBox();
    EXPECT_EQ(sys().timestamp, GetParam().isFresh ? now() : 0);
}
INSTANTIATE_TEST_SUITE_P(Seconds, PassAge,
                         testing::Values(AgeCase{0, true}, AgeCase{29, true}, AgeCase{30, false}, AgeCase{31, false},
                                         AgeCase{720, false}, AgeCase{-1, true}, AgeCase{-100000, true}));

TEST_F(Pass, FreshCabinetThatIsNotGoodDoesNotCount) {
    settle();
    for (const char letter : letters) {
        plant.comm(letter).isGood = false;
    }
    pass();
    EXPECT_EQ(sys().timestamp, 0);
    for (const char letter : letters) {
        plant.comm(letter).isGood = true;
        plant.comm(letter).active = false;
    }
    pass();
    EXPECT_EQ(sys().timestamp, 0);
}

// ---------------------------------------------------------------------------------------------------------------
// The file

TEST_F(Pass, OpenFailureIsToldAndTheTreeIsPublished) {
    settle();
    replaced::fopen().fails(EACCES);
    const std::size_t renamed = replaced::rename().count();
    const std::string old = json();
    LogCapture log;
    ups('A').Temp0 = 99;
    pass();
    EXPECT_EQ(log.messages(), "fopen() ugw.tmp 13 Permission denied\n");
    EXPECT_EQ(log.entries().front().function, "AggregateBox");
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_EQ(replaced::rename().count(), renamed);
    EXPECT_EQ(sys().Temp0, 99);
    EXPECT_EQ(json(), old);
    // The lock is free, the next pass tries again.
    replaced::fopen().reset();
    pass();
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_TRUE(jsonHas("\"SYSTEMTEMP\": 99"));
}

TEST_F(Pass, RenameFailureIsToldAndTheTreeIsPublished) {
    settle();
    replaced::rename().fails(EROFS);
    LogCapture log;
    ups('A').Temp0 = 99;
    pass();
    EXPECT_EQ(log.messages(), "rename() 30 Read-only file system\n");
    EXPECT_EQ(log.entries().front().function, "AggregateBox");
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_EQ(sys().Temp0, 99);
    EXPECT_FALSE(jsonHas("\"SYSTEMTEMP\": 99"));
    replaced::rename().reset();
    pass();
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_TRUE(jsonHas("\"SYSTEMTEMP\": 99"));
}

TEST_F(Pass, FullDiskKeepsTheOldDocument) {
    settle();
    const std::string old = json();
    const std::size_t renamed = replaced::rename().count();
    replaced::fopen().does(
        [](const char*, const char* mode) { return std::freopen("/dev/full", mode, std::tmpfile()); });
    LogCapture log;
    pass();
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_TRUE(log.contains("No space left on device"));
    EXPECT_EQ(replaced::rename().count(), renamed);
    EXPECT_EQ(json(), old);
}

TEST_F(Pass, DocumentIsWrittenToTheTemporaryPathAndRenamed) {
    pass();
    EXPECT_EQ(std::get<0>(replaced::fopen().call(0)), jsonPathTMP);
    EXPECT_EQ(std::get<1>(replaced::fopen().call(0)), "w");
    EXPECT_EQ(std::get<0>(replaced::rename().call(0)), jsonPathTMP);
    EXPECT_EQ(std::get<1>(replaced::rename().call(0)), jsonPath);
}

// The fault of a lost module reaches the file only.
TEST_F(Pass, FailureOfTheFileIsNotTheRoots) {
    settle();
    setElemAlarm(box('B').subSystem.UPSShelter[0], commLostAlarm);
    plant.cfg().redundantUPS = 0;
    passes(10);
    EXPECT_TRUE(failure());
    EXPECT_EQ(sys().alarm.byte, 0);
    EXPECT_EQ(sys().extStatus.UPS_OK, 1);
    EXPECT_EQ(alarms(), "MODULE_2_LOST");
}

// ---------------------------------------------------------------------------------------------------------------
// What it must not do

TEST_F(Pass, AllocatesNothingButTheHandleOfTheFile) {
    settle();
    CABPMgr& bus = plant.bus();
    VirtualClock::advance(INTERVAL);
    const AllocationCount allocations;
    bus.AggregateBox();
    EXPECT_LE(allocations.count(), 1u);
    EXPECT_EQ(filesWritten(), 3u);
}

TEST_F(Pass, AllocatesNothingMoreWhenMuchIsWrong) {
    settle();
    ups('A').alarm.byte = 0xFF;
    ups('B').status.byte = 0xFF;
    plant.comm('C').isGood = false;
    ups('D').timestamp = 0;
    speaking = "ABC";
    const LogCapture quiet;
    CABPMgr& bus = plant.bus();
    for (int i = 0; i < 20; ++i) {
        VirtualClock::advance(SECOND);
        const AllocationCount allocations;
        bus.AggregateBox();
        EXPECT_LE(allocations.count(), 1u) << i;
    }
}

TEST_F(Pass, ReadsTheTimeOncePerClock) {
    settle();
    // All stamps of a pass are the same although the clock moves while it runs.
    replaced::fopen().does([](const char*, const char*) -> FILE* {
        VirtualClock::advance(5 * SECOND);
        return nullptr;
    });
    const LogCapture quiet;
    VirtualClock::advance(INTERVAL);
    const time32_t start = now();
    plant.bus().AggregateBox();
    EXPECT_EQ(sys().timestamp, start);
    EXPECT_EQ(rootNode().identification.timestamp, start);
    EXPECT_EQ(rootNode().nominal.timestamp, start);
    EXPECT_EQ(plant.in().lastTime.tv_sec, VirtualClock::START_OF_MONOTONIC + VirtualClock::now() / SECOND - 5);
}

// Whatever peers and other processes write: nothing outside the records is touched, and the pass ends.
class Hostile : public Pass, public testing::WithParamInterface<int> {};

TEST_P(Hostile, BytesEverywhereAreSurvived) {
    plant.cfg().WModule = 3;
    const LogCapture quiet;
    for (int i = 0; i < 30; ++i) {
        for (const char letter : letters) {
            virtualNode_t& node = plant.box(letter);
            std::memset(&node.identification, GetParam(), sizeof(node.identification));
            std::memset(&node.nominal, GetParam(), sizeof(node.nominal));
            std::memset(&node.desc, GetParam(), sizeof(node.desc));
            std::memset(&plant.module(letter).identification, GetParam(), sizeof(identification_t));
            std::memset(&plant.module(letter).nominal, GetParam(), sizeof(nominal_t));
        }
        std::memset(&rootNode().desc, GetParam(), sizeof(rootNode().desc));
        VirtualClock::advance(SECOND);
        plant.bus().AggregateBox();
    }
    EXPECT_EQ(filesWritten(), 30u);
    EXPECT_EQ(json().substr(0, 2), "{\n");
    EXPECT_EQ(json().back(), '}');
    EXPECT_LT(json().size(), 4096u);
}
INSTANTIATE_TEST_SUITE_P(Fill, Hostile, testing::Values(0x00, 0x01, 0x55, 0x7F, 0x80, 0xAA, 0xFE, 0xFF));

}  // namespace
