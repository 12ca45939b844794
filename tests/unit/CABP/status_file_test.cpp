// The status file: every line of the document, its replacement as a whole, and what happens when it can't be written.
#include "CABP/StatusFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/Allocations.h"
#include "support/Replaced.h"
#include "support/ScratchDir.h"

namespace {

namespace replaced = support::replaced;
using support::AllocationCount;
using support::ScratchDir;

class StatusFile : public testing::Test {
  protected:
    StatusFile() : path(dir.path("vu.json")), pathTMP(dir.path("vu.tmp")) {
        text(root.identification.SN, "SN0123456789ABCD");
        text(root.identification.Model, "MODEL-X");
        text(root.identification.SWVer, "01.02.03");
        root.identification.IO_Cfg = TT;
        root.identification.UPS_Type = OnLine;
    }
    template <std::size_t N>
    static void text(char (&field)[N], const char* value) {
        std::memset(field, 0, N);
        std::memcpy(field, value, std::strlen(value));
    }

    statusDocument_t doc() const { return {1709294400, sys, root, {lost[0], lost[1], lost[2], lost[3]}}; }
    StatusFileResult write() { return StatusFile_Write(path.c_str(), pathTMP.c_str(), doc()); }
    static std::string contentOf(const std::string& file) {
        std::ifstream stream(file, std::ios::binary);
        std::ostringstream content;
        content << stream.rdbuf();
        return content.str();
    }
    /// The document as written.
    std::string document() {
        EXPECT_EQ(write(), StatusFileResult::Written);
        return contentOf(path);
    }
    static bool exists(const std::string& file) { return access(file.c_str(), F_OK) == 0; }

    ScratchDir dir{};
    std::string path;
    std::string pathTMP;
    descSys_t sys = {};
    virtualNode_t root = {};
    bool lost[MAXUPSBOX] = {};
};

// Nothing set: the switches count as open.
constexpr const char* EMPTY_DOCUMENT =
    "{\n"
    "\"timestamp\": 1709294400,\n"
    "\"OUTPUTPOWERED\": false,\n"
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
    "\"INPUTVOLTAGE\": 0,\n"
    "\"INPUTVOLTAGE2\": 0,\n"
    "\"INPUTVOLTAGE3\": 0,\n"
    "\"INPUTFREQUENCY\": 0,\n"
    "\"INPUTCURRENT\": 0,\n"
    "\"INPUTCURRENT2\": 0,\n"
    "\"INPUTCURRENT3\": 0,\n"
    "\"OUTPUTVOLTAGE\": 0,\n"
    "\"OUTPUTVOLTAGE2\": 0,\n"
    "\"OUTPUTVOLTAGE3\": 0,\n"
    "\"OUPUTFREQUENCY\": 0,\n"
    "\"OUTPUTLOAD\": 0,\n"
    "\"OUTPUTLOAD2\": 0,\n"
    "\"OUTPUTLOAD3\": 0,\n"
    "\"OUTPUTCURRENT\": 0,\n"
    "\"OUTPUTCURRENT2\": 0,\n"
    "\"OUTPUTCURRENT3\": 0,\n"
    "\"OUTPUTCURRENTP1\": 0,\n"
    "\"OUTPUTCURRENTP2\": 0,\n"
    "\"OUTPUTCURRENTP3\": 0,\n"
    "\"OUTPUTPOWER\": 0,\n"
    "\"OUTPUTPOWER2\": 0,\n"
    "\"OUTPUTPOWER3\": 0,\n"
    "\"OUTPUTPOWERVA1\": 0,\n"
    "\"OUTPUTPOWERVA2\": 0,\n"
    "\"OUTPUTPOWERVA3\": 0,\n"
    "\"BYPASSFREQUENCY\": 0,\n"
    "\"BYPASSVOLTAGE\": 0,\n"
    "\"BYPASSVOLTAGE2\": 0,\n"
    "\"BYPASSVOLTAGE3\": 0,\n"
    "\"BATTERYVOLTAGE\": 0,\n"
    "\"VBATPLUS\": 0,\n"
    "\"VBATMINUS\": 0,\n"
    "\"BATTERYCURRENT\": 0,\n"
    "\"BATTERYCURRENTMINUS\": 0,\n"
    "\"BATTERYESTCHARG\": 0,\n"
    "\"BATTERYESTTIME\": 0,\n"
    "\"SYSTEMTEMP\": 0,\n"
    "\"INVTEMP\": 0,\n"
    "\"RECTTEMP\": 0,\n"
    "\"TEMP1\": 0,\n"
    "\"TEMP2\": 0,\n"
    "\"TEMP3\": 0,\n"
    "\"TEMP4\": 0,\n"
    "\"TESTNUMBERJ\": \"SN0123456789ABCD\",\n"
    "\"UPSMODELJ\": \"MODEL-X\",\n"
    "\"UPSSWVERSIONJ\": \"01.02.03\",\n"
    "\"NOMINALPOWERW\": 0,\n"
    "\"NOMINALPOWERVA\": 0,\n"
    "\"IOCONFIGURATION\": 4,\n"
    "\"UPSTYPE\": 3,\n"
    "\"LINEPRESENT\": false,\n"
    "\"statusAlarms\":[\n"
    "\n"
    "\"SWIN_OPEN\",\n"
    "\"SWBYP_OPEN\",\n"
    "\"SWBAT_EXT_OPEN\",\n"
    "\"SWOUT_OPEN\",\n"
    "\"BATTERY_NOT_PRESENT_A62\"],\n"
    "\"UPSFAILURE\": false}";

TEST_F(StatusFile, DocumentOfAnEmptyRecord) {
    EXPECT_EQ(document(), EMPTY_DOCUMENT);
}

TEST_F(StatusFile, WithoutAlarmsTheListClosesOnTheNextLine) {
    sys.externalSwitchStatus.SWIN = 1;
    sys.externalSwitchStatus.SWBYP = 1;
    sys.externalSwitchStatus.SWBATT_EXT = 1;
    sys.Ups.status.SWOUT = 1;
    sys.Ups.switchStatus.Bt_present = 1;
    const std::string text = document();
    const std::string end = "\"LINEPRESENT\": false,\n\"statusAlarms\":[\n],\n\"UPSFAILURE\": false}";
    ASSERT_GE(text.size(), end.size());
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

// ---------------------------------------------------------------------------------------------------------------
// Each key

// One field set: exactly the lines that are named change.
struct KeyCase {
    const char* key;
    void (*set)(descSys_t&, virtualNode_t&);
    const char* shown;
};

class StatusFileKey : public StatusFile, public testing::WithParamInterface<KeyCase> {};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST_P(StatusFileKey, ShowsItsFieldAndNoOther) {
    const std::vector<std::string> before = linesOf(document());
    GetParam().set(sys, root);
    const std::vector<std::string> after = linesOf(document());
    const std::string head = std::string("\"") + GetParam().key + "\": ";
    ASSERT_EQ(before.size(), after.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (before[i].compare(0, head.size(), head) == 0) {
            EXPECT_NE(before[i], after[i]);
            EXPECT_EQ(after[i], head + GetParam().shown + ",");
        } else {
            EXPECT_EQ(before[i], after[i]);
        }
    }
}

#define KEY(key, statement, shown)                    \
    KeyCase {                                         \
        key,                                          \
            [](descSys_t& sys, virtualNode_t& root) { \
                (void)sys;                            \
                (void)root;                           \
                statement;                            \
            },                                        \
            shown                                     \
    }

INSTANTIATE_TEST_SUITE_P(Flags, StatusFileKey,
                         testing::Values(KEY("OUTPUTPOWERED", sys.Ups.status.Output_Powered = 1, "true"),
                                         KEY("UPSLOCK", sys.Ups.alarm.Lock = 1, "true"),
                                         KEY("BATTERYWORK", sys.Ups.status.Battery_Working = 1, "true"),
                                         KEY("BATTERYLOW", sys.Ups.alarm.Battery_Low = 1, "true"),
                                         KEY("ONBYPASS", sys.Ups.status.On_Bypass = 1, "true"),
                                         KEY("BATTERYCHARGING", sys.Ups.extStatus.Battery_Charging = 1, "true"),
                                         KEY("REPLACEBATTERY", sys.Ups.extStatus.Replace_Battery = 1, "true"),
                                         KEY("SHUTDOWNACTIVE", sys.Ups.status.Shutdown_Active = 1, "true"),
                                         KEY("SHUTDOWNIMMIN", sys.Ups.status.Shutdown_Imminent = 1, "true"),
                                         KEY("TESTINPROGRESS", sys.Ups.extStatus.Test_in_progress = 1, "true"),
                                         KEY("ALARMOVERLOAD", sys.Ups.alarm.Alarm_Overload = 1, "true"),
                                         KEY("ALARMTEMPERATUR", sys.Ups.alarm.Alarm_Temperature = 1, "true"),
                                         KEY("LINEPRESENT", sys.Ups.status.Line_Present = 1, "true")));

INSTANTIATE_TEST_SUITE_P(Inputs, StatusFileKey,
                         testing::Values(KEY("INPUTVOLTAGE", sys.Ups.Vin[0] = 230, "230"),
                                         KEY("INPUTVOLTAGE2", sys.Ups.Vin[1] = 231, "231"),
                                         KEY("INPUTVOLTAGE3", sys.Ups.Vin[2] = 65535, "65535"),
                                         KEY("INPUTFREQUENCY", sys.Ups.Frq_in = 500, "500"),
                                         KEY("INPUTCURRENT", sys.Ups.Iin[0] = 1, "1"),
                                         KEY("INPUTCURRENT2", sys.Ups.Iin[1] = 70000, "70000"),
                                         KEY("INPUTCURRENT3", sys.Ups.Iin[2] = 2147483647u, "2147483647"),
                                         KEY("BYPASSFREQUENCY", sys.Ups.Frq_byp = 499, "499"),
                                         KEY("BYPASSVOLTAGE", sys.Ups.Vbyp[0] = 227, "227"),
                                         KEY("BYPASSVOLTAGE2", sys.Ups.Vbyp[1] = 228, "228"),
                                         KEY("BYPASSVOLTAGE3", sys.Ups.Vbyp[2] = 229, "229")));

INSTANTIATE_TEST_SUITE_P(
    Outputs, StatusFileKey,
    testing::Values(
        KEY("OUTPUTVOLTAGE", sys.Ups.Vout[0] = 230, "230"), KEY("OUTPUTVOLTAGE2", sys.Ups.Vout[1] = 231, "231"),
        KEY("OUTPUTVOLTAGE3", sys.Ups.Vout[2] = 232, "232"), KEY("OUPUTFREQUENCY", sys.Ups.Frq_out = 600, "600"),
        KEY("OUTPUTLOAD", sys.Ups.Load[0] = 99, "99"), KEY("OUTPUTLOAD2", sys.Ups.Load[1] = -1, "-1"),
        KEY("OUTPUTLOAD3", sys.Ups.Load[2] = 100, "100"), KEY("OUTPUTCURRENT", sys.Ups.Iout[0] = -5, "-5"),
        KEY("OUTPUTCURRENT2", sys.Ups.Iout[1] = 70001, "70001"),
        KEY("OUTPUTCURRENT3", sys.Ups.Iout[2] = -2147483647 - 1, "-2147483648"),
        KEY("OUTPUTCURRENTP1", sys.Ups.Iout_pk[0] = 1, "1"), KEY("OUTPUTCURRENTP2", sys.Ups.Iout_pk[1] = 2, "2"),
        KEY("OUTPUTCURRENTP3", sys.Ups.Iout_pk[2] = 70002, "70002"),
        KEY("OUTPUTPOWER", sys.Ups.Watt[0] = 70003, "70003"), KEY("OUTPUTPOWER2", sys.Ups.Watt[1] = 4, "4"),
        KEY("OUTPUTPOWER3", sys.Ups.Watt[2] = 5, "5"), KEY("OUTPUTPOWERVA1", sys.Ups.Va[0] = 70004, "70004"),
        KEY("OUTPUTPOWERVA2", sys.Ups.Va[1] = 7, "7"), KEY("OUTPUTPOWERVA3", sys.Ups.Va[2] = 8, "8")));

INSTANTIATE_TEST_SUITE_P(
    BatteryAndTemperatures, StatusFileKey,
    testing::Values(KEY("BATTERYVOLTAGE", sys.Ups.VbatRS = 540, "540"), KEY("VBATPLUS", sys.Ups.Vbatp = 271, "271"),
                    KEY("VBATMINUS", sys.Ups.Vbatn = 272, "272"), KEY("BATTERYCURRENT", sys.Ups.Ibatp = 70005, "70005"),
                    KEY("BATTERYCURRENTMINUS", sys.Ups.Ibatn = -70006, "-70006"),
                    KEY("BATTERYESTCHARG", sys.Ups.Carica_adj = 255, "255"),
                    KEY("BATTERYESTTIME", sys.Ups.Aut_time = 65535, "65535"),
                    KEY("SYSTEMTEMP", sys.Ups.Temp0 = 30, "30"), KEY("INVTEMP", sys.Ups.Temp1 = 31, "31"),
                    KEY("RECTTEMP", sys.Ups.Temp2 = 32, "32"), KEY("TEMP1", sys.Ups.Temp3 = 33, "33"),
                    KEY("TEMP2", sys.Ups.Temp4 = 34, "34"), KEY("TEMP3", sys.Ups.Temp5 = 35, "35"),
                    KEY("TEMP4", sys.Ups.Temp6 = 255, "255")));

INSTANTIATE_TEST_SUITE_P(
    Nameplate, StatusFileKey,
    testing::Values(KEY("TESTNUMBERJ", std::memcpy(root.identification.SN, "ABC", 4), "\"ABC\""),
                    KEY("UPSMODELJ", root.identification.Model[0] = '\0', "\"\""),
                    KEY("UPSSWVERSIONJ", std::memcpy(root.identification.SWVer, "9\"9", 4),
                        "\"9\"9\""),  // never escaped
                    // A text that has lost its terminator ends with its field.
                    KEY("TESTNUMBERJ", std::memset(root.identification.SN, 'S', 17), "\"SSSSSSSSSSSSSSSSS\""),
                    KEY("UPSMODELJ", std::memset(root.identification.Model, 'M', 17), "\"MMMMMMMMMMMMMMMMM\""),
                    KEY("UPSSWVERSIONJ", std::memset(root.identification.SWVer, 'V', 13), "\"VVVVVVVVVVVVV\""),
                    KEY("NOMINALPOWERW", root.nominal.W = 72600, "72600"),
                    KEY("NOMINALPOWERVA", root.nominal.VA = 80600, "80600"),
                    KEY("IOCONFIGURATION", root.identification.IO_Cfg = MM, "1"),
                    KEY("IOCONFIGURATION", root.identification.IO_Cfg = static_cast<IO_Cfg_e>(0), "-48"),
                    KEY("IOCONFIGURATION", root.identification.IO_Cfg = static_cast<IO_Cfg_e>(255), "207"),
                    KEY("UPSTYPE", root.identification.UPS_Type = ComboBox, "19"),
                    KEY("UPSTYPE", root.identification.UPS_Type = static_cast<UPS_Type_e>(0), "-48")));

TEST_F(StatusFile, TimestampIsTheTimeOfThePass) {
    const statusDocument_t later = {2147483647, sys, root, {}};
    EXPECT_EQ(StatusFile_Write(path.c_str(), pathTMP.c_str(), later), StatusFileResult::Written);
    EXPECT_EQ(contentOf(path).substr(0, 28), "{\n\"timestamp\": 2147483647,\n\"");
}

TEST_F(StatusFile, NoOtherFieldReachesTheKeys) {
    const std::string before = document();
    sys.LoadRedundancy[0] = 1;
    sys.Ups.timestamp = 1;
    sys.Ups.alarm.Warning = 1;
    sys.Ups.extStatus.Clock_Update = 1;
    sys.Ups.extStatus.isMaster = 1;
    sys.Ups.extStatus.UPS_OK = 1;
    sys.Ups.PMStatus.bytes[0] = 0xFF;
    sys.Ups.PMStatus.bytes[1] = 0xFF;
    sys.Ups.maxLoad = 1;
    sys.Ups.Cent_kwh = 1;
    for (int l = 0; l < 3; ++l) {
        sys.Ups.VAR[l] = 1;
        sys.Ups.Uin[l] = 1;
        sys.Ups.Ubyp[l] = 1;
        sys.Ups.Uout[l] = 1;
    }
    std::memset(&sys.Batteries, 0xFF, sizeof(sys.Batteries));
    std::memset(&sys.subSystem, 0xFF, sizeof(sys.subSystem));
    sys.sysStatus.byte = 0xBF;  // all but LostRedundancy
    sys.boxStatus.byte = 0xFF;
    sys.MCUMUStatus.byte = 0xFF;
    EXPECT_EQ(document(), before);
}

// ---------------------------------------------------------------------------------------------------------------
// Each alarm

struct AlarmCase {
    const char* name;
    void (*set)(descSys_t&);
};

class StatusFileAlarm : public StatusFile, public testing::WithParamInterface<AlarmCase> {
  protected:
    StatusFileAlarm() {
        sys.externalSwitchStatus.byte = 0xFF;
        sys.Ups.status.SWOUT = 1;
        sys.Ups.switchStatus.byte = 0xFF;
    }
};

TEST_P(StatusFileAlarm, StandsAloneInTheList) {
    GetParam().set(sys);
    const std::string text = document();
    const std::string end = std::string("\"statusAlarms\":[\n\n\"") + GetParam().name + "\"],\n\"UPSFAILURE\": false}";
    ASSERT_GE(text.size(), end.size());
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

#define ALARM(name, statement)                  \
    AlarmCase {                                 \
        name, [](descSys_t& sys) { statement; } \
    }

INSTANTIATE_TEST_SUITE_P(Names, StatusFileAlarm,
                         testing::Values(ALARM("SYSTEM_ANOMALY", sys.Ups.alarm.Anomaly = 1),
                                         ALARM("ECO_MODE", sys.Ups.extStatus.Eco_Mode = 1),
                                         ALARM("SWIN_OPEN", sys.externalSwitchStatus.SWIN = 0),
                                         ALARM("SWBYP_OPEN", sys.externalSwitchStatus.SWBYP = 0),
                                         ALARM("SWBAT_EXT_OPEN", sys.externalSwitchStatus.SWBATT_EXT = 0),
                                         ALARM("SWOUT_OPEN", sys.Ups.status.SWOUT = 0),
                                         ALARM("MANUAL_BYPASS_UPS", sys.Ups.status.SWMB = 1),
                                         ALARM("BYPASS_BAD", sys.Ups.alarm.Bypass_Bad = 1),
                                         ALARM("PARALLEL_LINK_OPEN", sys.Ups.extStatus.Parallel_Link_Open = 1),
                                         ALARM("BATTERY_NOT_PRESENT_A62", sys.Ups.switchStatus.Bt_present = 0),
                                         ALARM("ALARM_REDUNDANCY", sys.sysStatus.LostRedundancy = 1)));

TEST_F(StatusFile, AllAlarmsInTheirOrder) {
    sys.Ups.alarm.Anomaly = 1;
    sys.Ups.extStatus.Eco_Mode = 1;
    sys.Ups.status.SWMB = 1;
    sys.Ups.alarm.Bypass_Bad = 1;
    sys.Ups.extStatus.Parallel_Link_Open = 1;
    sys.sysStatus.LostRedundancy = 1;
    for (bool& each : lost) {
        each = true;
    }
    const std::string text = document();
    EXPECT_EQ(text.substr(text.find("\"statusAlarms\"")),
              "\"statusAlarms\":[\n"
              "\n"
              "\"SYSTEM_ANOMALY\",\n"
              "\"ECO_MODE\",\n"
              "\"SWIN_OPEN\",\n"
              "\"SWBYP_OPEN\",\n"
              "\"SWBAT_EXT_OPEN\",\n"
              "\"SWOUT_OPEN\",\n"
              "\"MANUAL_BYPASS_UPS\",\n"
              "\"BYPASS_BAD\",\n"
              "\"PARALLEL_LINK_OPEN\",\n"
              "\"BATTERY_NOT_PRESENT_A62\",\n"
              "\"ALARM_REDUNDANCY\",\n"
              "\"MODULE_1_LOST\",\n"
              "\"MODULE_2_LOST\",\n"
              "\"MODULE_3_LOST\",\n"
              "\"MODULE_4_LOST\"],\n"
              "\"UPSFAILURE\": true}");
}

TEST_F(StatusFile, LostModuleIsAFailureThoughTheRecordHasNoFault) {
    lost[2] = true;
    const std::string text = document();
    EXPECT_NE(text.find("\"MODULE_3_LOST\"],\n\"UPSFAILURE\": true}"), std::string::npos);
    EXPECT_EQ(text.find("MODULE_1_LOST"), std::string::npos);
    EXPECT_EQ(sys.Ups.alarm.Fault, 0);
}

TEST_F(StatusFile, FaultIsAFailureWithoutALostModule) {
    sys.Ups.alarm.Fault = 1;
    EXPECT_NE(document().find("],\n\"UPSFAILURE\": true}"), std::string::npos);
}

// The longest document there can be goes through as well.
TEST_F(StatusFile, ExtremeValuesAreWrittenWhole) {
    std::memset(&sys, 0x80, sizeof(sys));
    std::memset(&root, 0xFF, sizeof(root));
    for (bool& each : lost) {
        each = true;
    }
    const std::string text = document();
    EXPECT_EQ(text.substr(0, 2), "{\n");
    EXPECT_EQ(text.substr(text.size() - 19), "\"UPSFAILURE\": true}");
    EXPECT_LT(text.size(), 4096u);
}

// ---------------------------------------------------------------------------------------------------------------
// The file

TEST_F(StatusFile, IsWrittenBesideAndRenamed) {
    replaced::rename().does([this](const char* from, const char* to) {
        EXPECT_EQ(contentOf(from), EMPTY_DOCUMENT);  // whole before the name changes
        EXPECT_EQ(contentOf(to), "old");
        return std::strcmp(from, pathTMP.c_str()) == 0 && std::strcmp(to, path.c_str()) == 0 ? 0 : -1;
    });
    std::ofstream(path) << "old";
    EXPECT_EQ(write(), StatusFileResult::Written);
    ASSERT_EQ(replaced::fopen().count(), 1u);
    EXPECT_EQ(std::get<0>(replaced::fopen().call(0)), pathTMP);
    EXPECT_EQ(std::get<1>(replaced::fopen().call(0)), "w");
    EXPECT_EQ(replaced::rename().count(), 1u);
}

TEST_F(StatusFile, ReplacesTheOldDocument) {
    std::ofstream(path) << std::string(10000, 'x');
    std::ofstream(pathTMP) << std::string(10000, 'y');
    EXPECT_EQ(document(), EMPTY_DOCUMENT);
    EXPECT_FALSE(exists(pathTMP));
}

// A reader that has the old document open goes on reading it.
TEST_F(StatusFile, OpenReaderKeepsTheOldDocument) {
    std::ofstream(path) << "old";
    std::ifstream reader(path);
    EXPECT_EQ(write(), StatusFileResult::Written);
    std::string seen;
    reader >> seen;
    EXPECT_EQ(seen, "old");
}

TEST_F(StatusFile, OpenFailureTouchesNothing) {
    std::ofstream(path) << "old";
    replaced::fopen().fails(EACCES);
    errno = 0;
    EXPECT_EQ(write(), StatusFileResult::NotOpened);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(replaced::rename().count(), 0u);
    EXPECT_EQ(contentOf(path), "old");
}

TEST_F(StatusFile, MissingFolderIsAnOpenFailure) {
    path = dir.path("missing/vu.json");
    pathTMP = dir.path("missing/vu.tmp");
    EXPECT_EQ(write(), StatusFileResult::NotOpened);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(StatusFile, RenameFailureKeepsTheOldDocument) {
    std::ofstream(path) << "old";
    replaced::rename().fails(EXDEV);
    EXPECT_EQ(write(), StatusFileResult::NotRenamed);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(contentOf(path), "old");
    EXPECT_EQ(contentOf(pathTMP), EMPTY_DOCUMENT);
}

// A full disk: half a document never takes the place of the old one.
TEST_F(StatusFile, DocumentThatDoesNotFitIsNotRenamed) {
    std::ofstream(path) << "old";
    replaced::fopen().does([](const char*, const char* mode) { return fdopen(open("/dev/full", O_WRONLY), mode); });
    EXPECT_EQ(write(), StatusFileResult::NotWritten);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(replaced::rename().count(), 0u);
    EXPECT_EQ(contentOf(path), "old");
}

TEST_F(StatusFile, NoDescriptorIsLeftOpen) {
    const int before = dup(0);
    close(before);
    write();
    replaced::rename().fails(EXDEV);
    write();
    replaced::fopen().does([](const char*, const char* mode) { return fdopen(open("/dev/full", O_WRONLY), mode); });
    write();
    const int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}

TEST_F(StatusFile, AllocatesNothingButTheHandle) {
    const statusDocument_t document = doc();
    const char* const to = path.c_str();
    const char* const by = pathTMP.c_str();
    StatusFile_Write(to, by, document);
    const AllocationCount allocations;
    StatusFile_Write(to, by, document);
    EXPECT_LE(allocations.count(), 1u);
}

}  // namespace
