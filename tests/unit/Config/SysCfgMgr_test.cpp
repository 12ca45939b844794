#include "Config/SysCfgMgr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Common/Globals.h"
#include "support/BareSystemMgr.h"

namespace {

void setPlant(bool b, bool c, bool d) {
    moduleBpresent = b;
    moduleCpresent = c;
    moduleDpresent = d;
}

std::vector<bool> present(const SysCfgMgr& mgr) {
    std::vector<bool> all;
    for (const upsBoxCfg_t& box : mgr.Cfg.Ups) {
        all.push_back(box.present);
    }
    return all;
}

TEST(PlantPresence, CabinetAIsAlwaysThere) {
    const SysCfgMgr mgr;
    EXPECT_EQ(mgr.numUPS, 1);
    EXPECT_EQ(present(mgr), (std::vector<bool>{true, false, false, false}));
    EXPECT_EQ(mgr.Cfg.redundantUPS, 1);
    EXPECT_EQ(mgr.seventhModule, 0);
    EXPECT_EQ(mgr.moduleNotOnLoad, 0);
    EXPECT_EQ(mgr.moduleUsed, 0);
}

TEST(PlantPresence, CabinetsAreNotCompacted) {
    setPlant(false, true, true);
    const SysCfgMgr mgr;
    EXPECT_EQ(mgr.numUPS, 3);
    EXPECT_EQ(present(mgr), (std::vector<bool>{true, false, true, true}));
}

TEST(PlantPresence, EveryCombinationSetsCabinetAndModuleTogether) {
    for (int mask = 0; mask < 8; ++mask) {
        setPlant((mask & 4) != 0, (mask & 2) != 0, (mask & 1) != 0);
        const SysCfgMgr mgr;
        const bool expected[MAXUPSBOX] = {true, moduleBpresent, moduleCpresent, moduleDpresent};
        int count = 0;
        for (int i = 0; i < MAXUPSBOX; ++i) {
            EXPECT_EQ(mgr.Cfg.Ups[i].present, expected[i]) << mask << " " << i;
            EXPECT_EQ(mgr.Cfg.Ups[i].modulePresent[0], expected[i]) << mask << " " << i;
            count += expected[i] ? 1 : 0;
        }
        EXPECT_EQ(mgr.numUPS, count) << mask;
        EXPECT_EQ(mgr.Cfg.redundantUPS, 1) << mask;
    }
}

TEST(PlantRecord, IsZeroButForPresenceAndRedundancy) {
    setPlant(true, false, true);
    const SysCfgMgr mgr;
    std::vector<uint8> expected(374, 0);
    expected[22] = 1;  // redundantUPS
    for (const std::size_t cabinet : {0U, 1U, 3U}) {
        expected[26 + 13 * cabinet] = 1;      // present
        expected[26 + 13 * cabinet + 2] = 1;  // modulePresent[0]
    }
    std::vector<uint8> bytes(sizeof(mgr.Cfg));
    std::memcpy(bytes.data(), &mgr.Cfg, sizeof(mgr.Cfg));
    EXPECT_EQ(bytes, expected);
}

TEST(PlantQuestions, OnAFreshRecord) {
    const support::BareSystemMgr mgr;
    EXPECT_TRUE(ISOPTCOM_NONE());
    EXPECT_FALSE(ISOPTCOMA());
    EXPECT_FALSE(ISOPTCOMB());
    EXPECT_FALSE(ISOPTCOMC());
    EXPECT_FALSE(WITHOUTBATTERY());
    EXPECT_TRUE(ISNTFREQCONV());
    EXPECT_FALSE(ISFREQCONV());
    EXPECT_FALSE(ISENERGYSAVINGACTIVE());
    EXPECT_FALSE(WITHPARALLELINK());
    EXPECT_FALSE(EXTSYNC_MODEFIXED());
}

// Each question over all values of each word that it must look at, the others being zero.
struct Question {
    const char* name;
    bool (*ask)();
    bool (*holds)(unsigned word28, unsigned word29, unsigned word52, unsigned word53);
};

const Question questions[] = {
    {"ISNTFREQCONV", ISNTFREQCONV, [](unsigned, unsigned, unsigned w52, unsigned) { return (w52 & 0x0100) == 0; }},
    {"ISFREQCONV", ISFREQCONV, [](unsigned, unsigned, unsigned w52, unsigned) { return (w52 & 0x0100) != 0; }},
    {"ISENERGYSAVINGACTIVE", ISENERGYSAVINGACTIVE,
     [](unsigned, unsigned, unsigned w52, unsigned) { return (w52 & 0x8000) == 0x8000; }},
    {"ISOPTCOMA", ISOPTCOMA, [](unsigned, unsigned, unsigned, unsigned w53) { return (w53 & 0x0700) == 0x0600; }},
    {"ISOPTCOMB", ISOPTCOMB, [](unsigned, unsigned, unsigned, unsigned w53) { return (w53 & 0x0700) == 0x0700; }},
    {"ISOPTCOMC", ISOPTCOMC, [](unsigned, unsigned, unsigned, unsigned w53) { return (w53 & 0x0700) == 0x0500; }},
    {"ISOPTCOM_NONE", ISOPTCOM_NONE,
     [](unsigned, unsigned, unsigned, unsigned w53) { return (w53 & 0x0700) == 0x0000; }},
    {"WITHOUTBATTERY", WITHOUTBATTERY,
     [](unsigned, unsigned, unsigned w52, unsigned) { return (w52 & 0x1000) == 0x1000; }},
    {"WITHPARALLELINK", WITHPARALLELINK,
     [](unsigned w28, unsigned, unsigned, unsigned) { return (w28 & 0x0400) == 0x0400; }},
    {"EXTSYNC_MODEFIXED", EXTSYNC_MODEFIXED,
     [](unsigned w28, unsigned w29, unsigned, unsigned) { return (w29 & 0x0020) != 0 && (w28 & 0x2000) == 0; }},
};

TEST(PlantQuestions, LookAtTheirBitsOnly) {
    support::BareSystemMgr mgr;
    PlantCfg& Cfg = mgr->Cfg;
    for (unsigned value = 0; value <= 0xFFFF; ++value) {
        for (int word = 0; word < 4; ++word) {
            Cfg.word28 = static_cast<uint16>(word == 0 ? value : 0);
            Cfg.word29 = static_cast<uint16>(word == 1 ? value : 0x0020);
            Cfg.word52 = static_cast<uint16>(word == 2 ? value : 0);
            Cfg.word53 = static_cast<uint16>(word == 3 ? value : 0);
            for (const Question& question : questions) {
                ASSERT_EQ(question.ask(), question.holds(Cfg.word28, Cfg.word29, Cfg.word52, Cfg.word53))
                    << question.name << " word " << word << " value " << value;
            }
        }
    }
}

// The questions as the class's own code asks them.
class OwnQuestions : public SysCfgMgr {
  public:
    using SysCfgMgr::ISOPTCOM_NONE;
    using SysCfgMgr::ISOPTCOMA;
    using SysCfgMgr::ISOPTCOMB;
    using SysCfgMgr::ISOPTCOMC;
    using SysCfgMgr::WITHOUTBATTERY;
};

TEST(PlantQuestions, InTheClassItselfKnowNoOptionBoard) {
    support::BareSystemMgr running;
    OwnQuestions own;
    for (const uint16 board : {0x0000, 0x0500, 0x0600, 0x0700}) {
        own.Cfg.word53 = board;
        EXPECT_FALSE(own.ISOPTCOMA());
        EXPECT_FALSE(own.ISOPTCOMB());
        EXPECT_FALSE(own.ISOPTCOMC());
        EXPECT_TRUE(own.ISOPTCOM_NONE());
    }
    running->Cfg.word52 = 0x1000;
    EXPECT_FALSE(own.WITHOUTBATTERY()) << "the object's own word counts";
    own.Cfg.word52 = 0x1000;
    EXPECT_TRUE(own.WITHOUTBATTERY());
}

class FirstConfiguration : public testing::Test {
  protected:
    FirstConfiguration() : box_(mgr_.Cfg.Ups[2]) {}
    SysCfgMgr mgr_;
    upsBoxCfg_t& box_;
};

TEST_F(FirstConfiguration, LeavesACabinetWithAModuleAlone) {
    const upsBoxCfg_t before = mgr_.Cfg.Ups[0];
    EXPECT_FALSE(mgr_.isFirstCfg(0, 3));
    EXPECT_EQ(std::memcmp(&mgr_.Cfg.Ups[0], &before, sizeof(before)), 0);
}

TEST_F(FirstConfiguration, GivesTheTypeOfTheBoard) {
    const struct {
        uint16 board;
        UPS_Type_e type;
    } cases[] = {{0, Power25kBox}, {1, PowerBox},  {2, PowerBox},      {3, ComboBox},
                 {4, PowerBox},    {67, PowerBox}, {0x0103, PowerBox}, {0xFFFF, PowerBox}};
    for (const auto& c : cases) {
        std::memset(&box_, 0, sizeof(box_));
        EXPECT_TRUE(mgr_.isFirstCfg(2, c.board));
        EXPECT_EQ(box_.upsBoxType, c.type) << c.board;
    }
}

// Both from an empty record, where the set ones show, and from a full one, where the cleared ones do.
TEST_F(FirstConfiguration, GivesAComboBoxTwoMoreSensors) {
    for (const bool before : {false, true}) {
        std::memset(&box_, 0, sizeof(box_));
        std::fill_n(box_.sensTPresent, MAXSENSTEMP, before);
        box_.hygroPresent = before;
        EXPECT_TRUE(mgr_.isFirstCfg(2, 3));
        const uint8 expected[13] = {1, 'C', 0, 0, 0, 0, 0, 0, 1, 1, 1, 0, 0};
        EXPECT_EQ(std::memcmp(&box_, expected, sizeof(expected)), 0) << before;
    }
}

TEST_F(FirstConfiguration, GivesAnyOtherCabinetOneSensor) {
    for (const bool before : {false, true}) {
        std::memset(&box_, 0, sizeof(box_));
        std::fill_n(box_.sensTPresent, MAXSENSTEMP, before);
        box_.hygroPresent = before;
        box_.batteryPresent[4] = before;  // beyond what is asked: cleared all the same
        EXPECT_TRUE(mgr_.isFirstCfg(2, 0));
        const uint8 expected[13] = {1, 'V', 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
        EXPECT_EQ(std::memcmp(&box_, expected, sizeof(expected)), 0) << before;
    }
}

// How many presence bytes are looked at goes by the cabinet's present type, not by the one it is to get.
TEST_F(FirstConfiguration, AsksAsManyPlacesAsThePresentTypeHasModulesBesidesTheFirst) {
    const struct {
        UPS_Type_e type;
        int asked;
    } cases[] = {{static_cast<UPS_Type_e>(0), 0}, {PowerBox, 0}, {ComboBox, 2}, {Power25kBox, 4}};
    for (const auto& c : cases) {
        for (int place = 0; place < MAXBATTxCOMBOBOX; ++place) {
            std::memset(&box_, 0, sizeof(box_));
            box_.upsBoxType = c.type;
            box_.batteryPresent[place] = true;
            const upsBoxCfg_t before = box_;
            const bool first = mgr_.isFirstCfg(2, 3);
            EXPECT_EQ(first, place >= c.asked) << int(c.type) << " " << place;
            if (!first) {
                EXPECT_EQ(std::memcmp(&box_, &before, sizeof(before)), 0);
            }
        }
    }
}

TEST_F(FirstConfiguration, KnowsNoCabinetAboveTheFourth) {
    const PlantCfg before = mgr_.Cfg;
    EXPECT_FALSE(mgr_.isFirstCfg(4, 3));
    EXPECT_FALSE(mgr_.isFirstCfg(246, 3));
    EXPECT_EQ(std::memcmp(&mgr_.Cfg, &before, sizeof(before)), 0);
}

}  // namespace
