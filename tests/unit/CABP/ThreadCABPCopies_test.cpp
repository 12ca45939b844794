// Guarded copies of what the plant knows of its cabinets and of itself, and the queries for what it doesn't know.
#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <thread>

#include "CABP/ThreadCABP.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"
#include "unit/CABP/Images.h"
#include "unit/CABP/Queues.h"

namespace {

using images::Bytes;
using images::image;
using images::pattern;
using queues::asyncQueries;
using queues::dataLockIsFree;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

class Copies : public testing::Test {
  protected:
    Copies() : mgr(plant.bus()) {}
    upsBoxQueriesData_t& box(int id) { return mgr.upsBox[id]; }
    virtualNode_t& node(int id) { return *box(id).pVN; }

    Plant plant;
    CABPMgr& mgr;
};

template <typename Record>
Record filled(uint8 seed) {
    Record record;
    const Bytes bytes = pattern(sizeof(record), seed);
    std::memcpy(static_cast<void*>(&record), bytes.data(), bytes.size());
    return record;
}

TEST_F(Copies, KnownIdentificationIsCopied) {
    plant.registerAll();
    for (int id = 0; id < MAXUPSBOX; ++id) {
        node(id).identification = filled<identification_t>(static_cast<uint8>(id + 1));
        identification_t copy = {};
        LogCapture log;
        mgr.GetIdentification(static_cast<uint8>('A' + id), &copy);
        EXPECT_EQ(image(copy), pattern(98, static_cast<uint8>(id + 1)));
        EXPECT_EQ(log.text(), "");
    }
    EXPECT_EQ(mgr.AsyncQCSize(), 0);
}

TEST_F(Copies, UnknownIdentificationIsAskedForOnceAndLeavesTheCopy) {
    plant.registerAll();
    const Bytes before = image(node(1));
    identification_t copy = filled<identification_t>(0x33);
    LogCapture log;
    mgr.GetIdentification('B', &copy);
    EXPECT_EQ(image(copy), pattern(98, 0x33));
    EXPECT_EQ(image(node(1)), before);
    EXPECT_EQ(asyncQueries(plant), "BI>EB");
    EXPECT_EQ(log.messages(), "Add AsyncQuery BI to 0xEB\n");
    mgr.GetIdentification('B', &copy);
    EXPECT_EQ(asyncQueries(plant), "BI>EB");
    for (const char letter : {'A', 'C', 'D'}) {
        mgr.GetIdentification(static_cast<uint8>(letter), &copy);
    }
    EXPECT_EQ(asyncQueries(plant), "BI>EB BI>EA BI>EC BI>ED");
}

TEST_F(Copies, WithTheBoardsDataAloneTheCopyStartsBlank) {
    plant.registerAll();
    information_t& inf = box(1).extendedBoardBox.inf;
    inf.timestamp = 5;
    std::strcpy(inf.ro.SerialNumber, "SK0042");
    std::strcpy(inf.ro.FWVersion, "FW1.07");
    const Bytes before = image(node(1));
    identification_t copy = filled<identification_t>(0x33);
    mgr.GetIdentification('B', &copy);
    identification_t blank;
    cabp::InitValueIdentification(&blank);
    EXPECT_EQ(image(copy), image(blank)) << "the strings go to the node";
    Bytes expected = images::overlaid(before, 54 + 63, images::text(std::string("SK0042") + std::string(11, '\0')));
    expected = images::overlaid(expected, 54 + 80, images::text(std::string("FW1.07") + std::string(7, '\0')));
    EXPECT_EQ(image(node(1)), expected);
    EXPECT_EQ(asyncQueries(plant), "BI>EB");
}

TEST_F(Copies, KnownNominalDataAreCopied) {
    plant.registerAll();
    for (int id = 0; id < MAXUPSBOX; ++id) {
        node(id).nominal = filled<nominal_t>(static_cast<uint8>(id + 1));
        nominal_t copy = {};
        mgr.GetNominal(static_cast<uint8>('A' + id), &copy);
        EXPECT_EQ(image(copy), pattern(20, static_cast<uint8>(id + 1)));
    }
    EXPECT_EQ(mgr.AsyncQCSize(), 0);
}

TEST_F(Copies, UnknownNominalDataAreZeroAndAskedForOnce) {
    plant.registerAll();
    // A reply may have come all the same, from a card that hadn't any itself.
    node(3).nominal.VA = 77;
    nominal_t copy = filled<nominal_t>(0x33);
    LogCapture log;
    mgr.GetNominal('D', &copy);
    mgr.GetNominal('D', &copy);
    EXPECT_EQ(image(copy), Bytes(20, 0));
    EXPECT_EQ(asyncQueries(plant), "BN>ED");
    EXPECT_EQ(log.messages(), "Add AsyncQuery BN to 0xED\n");
}

TEST_F(Copies, OnlyTheLettersOfTheCabinetsNameOne) {
    plant.registerAll();
    for (int letter = 0; letter <= 0xFF; ++letter) {
        if (letter >= 'A' && letter <= 'D') {
            continue;
        }
        identification_t identification = filled<identification_t>(0x33);
        nominal_t nominal = filled<nominal_t>(0x33);
        LogCapture log;
        mgr.GetIdentification(static_cast<uint8>(letter), &identification);
        mgr.GetNominal(static_cast<uint8>(letter), &nominal);
        ASSERT_EQ(log.messages(), "GRAVE ERRORE DI INDIRIZZAMENTO\nGRAVE ERRORE DI INDIRIZZAMENTO\n") << letter;
        ASSERT_EQ(log.errors(), 2u);
        ASSERT_EQ(image(identification), pattern(98, 0x33));
        ASSERT_EQ(image(nominal), pattern(20, 0x33));
    }
    EXPECT_EQ(mgr.AsyncQCSize(), 0);
    EXPECT_TRUE(dataLockIsFree(plant));
}

TEST(CopiesInASmallPlant, CabinetWithoutNodeIsABadAddress) {
    Plant plant(0xEA, "AB");
    plant.registerAll();
    identification_t identification = filled<identification_t>(0x33);
    nominal_t nominal = filled<nominal_t>(0x33);
    LogCapture log;
    plant.bus().GetIdentification('C', &identification);
    plant.bus().GetNominal('C', &nominal);
    EXPECT_EQ(log.messages(), "GRAVE ERRORE DI INDIRIZZAMENTO\nGRAVE ERRORE DI INDIRIZZAMENTO\n");
    EXPECT_EQ(log.errors(), 2u);
    EXPECT_EQ(image(identification), pattern(98, 0x33));
    EXPECT_EQ(image(nominal), pattern(20, 0x33));
    EXPECT_EQ(plant.bus().AsyncQCSize(), 0);
}

TEST_F(Copies, NominalReplyWithoutATimeIsAskedForAgain) {
    plant.registerAll();
    Bytes reply = bus::frame(0xEB, 0xFF, "BN", Bytes(20, 0));
    CABP_ManageData(1700000000, reply.data());
    nominal_t copy;
    mgr.GetNominal('B', &copy);
    EXPECT_EQ(asyncQueries(plant), "BN>EB");
}

TEST_F(Copies, WithoutATreeTheSystemStatusStartsAnew) {
    descSys_t copy = filled<descSys_t>(0x33);
    LogCapture log;
    mgr.GetSysStatus(copy);
    descSys_t initial;
    InitSysStatus(initial);
    EXPECT_EQ(image(copy), image(initial));
    EXPECT_EQ(log.messages(), "SISTEMA NON INIZIALIZZATO!!\n");
    EXPECT_EQ(log.errors(), 1u);
}

TEST_F(Copies, SystemStatusIsCopiedUnlessAllOfItIsTooOld) {
    plant.registerAll();
    const time32_t now = static_cast<time32_t>(VirtualClock::START_OF_WALL);
    VirtualClock::setWall(now);
    descSys_t initial;
    InitSysStatus(initial);
    const struct {
        int upsAge;
        int batteriesAge;
        bool copied;
    } cases[] = {{0, 0, true},    {30, 30, true},  {30, 31, true},    {31, 30, true},
                 {31, 31, false}, {31, 0, true},   {0, 1000, true},   {100000, 100000, false},
                 {-50, 31, true}, {31, -50, true}, {-100, -100, true}};
    for (const auto& each : cases) {
        descSys_t& sys = plant.root().desc.sys;
        sys = filled<descSys_t>(0x21);
        sys.Ups.timestamp = now - each.upsAge;
        sys.Batteries.timestamp = now - each.batteriesAge;
        const Bytes before = image(sys);
        descSys_t copy = filled<descSys_t>(0x33);
        LogCapture log;
        mgr.GetSysStatus(copy);
        EXPECT_EQ(image(copy), each.copied ? before : image(initial)) << each.upsAge << " " << each.batteriesAge;
        EXPECT_EQ(image(sys), before);
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Copies, SystemStatusOfATreeThatIsToGoIsNotCopied) {
    plant.registerAll();
    mgr.DeRegisterBoxNode(plant.cfg());
    EXPECT_EQ(plant.in().sys.load(), nullptr);
}

// The tree goes as soon as the cabinets are deregistered: who waited for the lock meanwhile must not look at it.
TEST_F(Copies, SystemStatusOfATreeThatGoesMeanwhileIsNotCopied) {
    plant.registerAll();
    descSys_t copy = filled<descSys_t>(0x33);
    LogCapture log;
    mgr.lockCABPData();
    std::thread reader([&] { mgr.GetSysStatus(copy); });
    poll(nullptr, 0, 30);  // real ms
    plant.in().sys = nullptr;
    mgr.unlockCABPData();
    reader.join();
    EXPECT_EQ(log.messages(), "SISTEMA NON INIZIALIZZATO!!\n");
    descSys_t initial;
    InitSysStatus(initial);
    EXPECT_EQ(image(copy), image(initial));
}

}  // namespace
