// The cabinets of the plant as the bus manager knows them: addresses, registration with tree and queues, guarded
// copies.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

#include "CABP/ThreadCABP.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/Replaced.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"
#include "unit/CABP/Images.h"
#include "unit/CABP/Queues.h"

namespace {

using images::Bytes;
using images::image;
using queues::asyncQueries;
using queues::dataLockIsFree;
using queues::fixedQueries;
using queues::text;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

// The tree alone, with no cabinet registered.
void buildTree(Plant& plant) {
    const LogCapture quiet;
    plant.sys().pVirtualUPSMgr = new VirtualUPSMgr(plant.cfg());
    plant.bus().InitSysData(plant.tree(), plant.cfg());
}

class Registration : public testing::Test {
  protected:
    Registration() : mgr(plant.bus()) {}
    upsBoxQueriesData_t& box(int id) { return mgr.upsBox[id]; }
    virtualNode_t& node(int id) { return *box(id).pVN; }
    /// Runs `action` on another thread while this one holds the lock of the data: true if it waited for it.
    bool waitsForTheLock(const std::function<void()>& action) {
        plant.in().mutexCABPData->lock();
        std::atomic<bool> begun{false};
        std::atomic<bool> done{false};
        std::thread other([&] {
            begun = true;
            action();
            done = true;
        });
        while (!begun) {
            std::this_thread::yield();
        }
        for (int i = 0; i < 1000 && !done; ++i) {
            std::this_thread::yield();
        }
        const bool waited = !done;
        plant.in().mutexCABPData->unlock();
        other.join();
        return waited;
    }

    Plant plant;
    CABPMgr& mgr;
};

// ---------------------------------------------------------------------------------------------------------------
// Addresses

TEST_F(Registration, EveryAddressIsAnMcusOrABoardsOrBad) {
    for (int address = 0; address <= 0xFF; ++address) {
        const uint8 addr = static_cast<uint8>(address);
        const bool mcu = address >= 0xEA && address <= 0xED;
        const bool board = address < 0x0E;
        EXPECT_EQ(mgr.isMCU_NODE(addr), mcu) << address;
        EXPECT_EQ(mgr.isMU_NODE(addr), board) << address;
        LogCapture log;
        EXPECT_EQ(mgr.AddrGood(addr), mcu || board) << address;
        char refused[32];
        std::snprintf(refused, sizeof(refused), "Addr 0x%02X non valido!\n", address);
        EXPECT_EQ(log.messages(), mcu || board ? "" : refused);
        EXPECT_EQ(log.errors(), mcu || board ? 0u : 1u);
    }
}

TEST_F(Registration, IdOfEveryAddress) {
    for (int address = 0; address <= 0xFF; ++address) {
        int expected = 255;
        if (address < 0x0A) {
            expected = address;
        } else if (address <= 0x0D) {
            expected = address - 0x0A;
        } else if (address >= 0xEA && address <= 0xED) {
            expected = address - 0xEA;
        }
        LogCapture log;
        EXPECT_EQ(mgr.add2id(static_cast<uint8>(address)), expected) << address;
        EXPECT_EQ(log.errors(), expected == 255 ? 1u : 0u) << address;
        EXPECT_EQ(log.lines().size(), log.errors());
    }
    EXPECT_EQ(mgr.add2id(0x05), 5);
    EXPECT_EQ(mgr.add2id(0x0B), 1);
}

TEST_F(Registration, OnlyARegisteredMcuIsPresent) {
    box(2).MCUcommStatus.active = true;
    LogCapture log;
    for (int address = 0; address <= 0xFF; ++address) {
        EXPECT_EQ(mgr.isBoardPresent(static_cast<uint8>(address)) != 0, address == 0xEC) << address;
    }
    box(2).MCUcommStatus.active = false;
    EXPECT_EQ(mgr.isBoardPresent(0xEC), 0);
}

// ---------------------------------------------------------------------------------------------------------------
// System data

TEST_F(Registration, SystemDataNeedATree) {
    support::replaced::shmget().fails(EINVAL);
    buildTree(plant);
    LogCapture log;
    mgr.InitSysData(plant.tree(), plant.cfg());
    EXPECT_TRUE(log.has("Err", "ERRORE, si inizializza il sistema senza riferimento al virtualUPS!!"));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(plant.in().sys.load(), nullptr);
}

TEST(SystemData, EachCabinetStartsAsLostOrAbsent) {
    Plant plant(0xEB, "ACD");
    buildTree(plant);
    descSys_t& sys = plant.root().desc.sys;
    std::memset(&sys, 0xAA, sizeof(sys));
    LogCapture log;
    plant.bus().InitSysData(plant.tree(), plant.cfg());
    descSys_t expected;
    InitSysStatus(expected);
    expected.subSystem.UPSBox[1].desc = 1;
    EXPECT_EQ(image(sys), image(expected));
    EXPECT_EQ(plant.in().sys.load(), &plant.root());
    EXPECT_EQ(log.text(), "");
}

// ---------------------------------------------------------------------------------------------------------------
// One cabinet

TEST_F(Registration, RegisteredCabinetGetsItsNodeAndItsQueries) {
    buildTree(plant);
    box(2).MCUcommStatus = {false, 5, 6, 7, false};
    LogCapture log;
    EXPECT_EQ(mgr.RegisterNode(0xEC), 0);
    ASSERT_NE(box(2).pVN, nullptr);
    EXPECT_STREQ(node(2).ID, "SA.BC");
    EXPECT_EQ(image(box(2).MCUcommStatus), image(commStatus_t{true, 0, 0, 0, true}));
    EXPECT_EQ(log.messages(),
              "Add Query BS to 0xEC\n"
              "Add Query BN to 0xEC\n");
    EXPECT_EQ(log.count(""), 2u);
    EXPECT_EQ(log.entries()[0].function, "RegisterElem");
    EXPECT_EQ(fixedQueries(plant), "BN>EC BS>EC") << "in the order of the keys";
}

TEST_F(Registration, NodeStartsWithItsValuesAndKeepsTheRest) {
    buildTree(plant);
    virtualNode_t* const found = plant.tree().searchNode("SA.BB");
    virtualNode_t before;
    std::memset(static_cast<void*>(&before), 0xAA, sizeof(before));
    std::memcpy(before.ID, found->ID, sizeof(before.ID));
    before.nxtBrother = found->nxtBrother;
    std::memcpy(static_cast<void*>(found), &before, sizeof(before));
    mgr.RegisterNode(0xEB);
    ASSERT_EQ(box(1).pVN, found);

    Bytes expected = image(before);
    const auto put = [&expected](std::size_t offset, const Bytes& bytes) {
        expected = images::overlaid(expected, offset, bytes);
    };
    identification_t identification;
    cabp::InitValueIdentification(&identification);
    put(54, image(identification));
    put(152, Bytes(20, 0));  // nominal
    const std::size_t desc = 177;
    put(desc, Bytes(4, 0));                // timestamp
    put(desc + 4, Bytes(160, 0));          // Ups
    put(desc + 4 + 5, {0x40});             // status: SWOUT
    put(desc + 4 + 6, {0x80});             // extStatus: UPS_OK
    put(desc + 4 + 9, {0x20});             // PMStatus: bitCmdUnsupported
    put(desc + 164, Bytes(4, 0));          // timestamp of the batteries
    for (std::size_t i = 0; i < 5; ++i) {  // five shelters of nine
        put(desc + 168 + i * 10, {0x80, 0x80, 0, 0, 0, 0, 0, 0, 0, 0});
    }
    put(desc + 164 + 94, Bytes(4, 0));  // bars
    put(desc + 262, {0xA8});            // module: the lower three bits lost, the others as found
    put(desc + 263, Bytes(4, 0));       // the four status bytes
    EXPECT_EQ(image(*found), expected);
}

TEST_F(Registration, ModuleThatIsNotFittedIsNoAlarm) {
    buildTree(plant);
    plant.cfg().Ups[1].modulePresent[0] = false;
    mgr.RegisterNode(0xEB);
    EXPECT_EQ(elemAlarm(node(1).desc.upsBox.subSystem.UPSShelter[0]), noneAlarm);
    mgr.RegisterNode(0xEC);
    EXPECT_EQ(elemAlarm(node(2).desc.upsBox.subSystem.UPSShelter[0]), commLostAlarm);
}

TEST_F(Registration, ActiveCabinetIsNotRegisteredTwice) {
    buildTree(plant);
    EXPECT_EQ(mgr.RegisterNode(0xEB), 0);
    const Bytes before = image(node(1));
    LogCapture log;
    EXPECT_EQ(mgr.RegisterNode(0xEB), -1);
    EXPECT_EQ(log.messages(), "Elemento gia' attivo!\n");
    EXPECT_EQ(log.warnings(), 1u);
    EXPECT_EQ(fixedQueries(plant), "BN>EB BS>EB");
    EXPECT_EQ(image(node(1)), before);
}

TEST_F(Registration, BadAddressesAreNotRegistered) {
    buildTree(plant);
    for (const int address : {0x0E, 0x80, 0xE0, 0xE9, 0xEE, 0xEF, 0xFF}) {
        LogCapture log;
        EXPECT_EQ(mgr.RegisterNode(static_cast<uint8>(address)), -1);
        EXPECT_EQ(mgr.DeRegisterNode(static_cast<uint8>(address)), -1);
        EXPECT_EQ(log.count("Err"), 4u);
        EXPECT_EQ(log.occurrences("Indice della sheda armadio non corretto!\n"), 2u);
        EXPECT_EQ(log.occurrences("non valido!\n"), 2u);
    }
    for (const int address : {0x00, 0x05, 0x0A, 0x0D}) {
        LogCapture log;
        EXPECT_EQ(mgr.RegisterNode(static_cast<uint8>(address)), -1);
        EXPECT_EQ(mgr.DeRegisterNode(static_cast<uint8>(address)), -1);
        EXPECT_EQ(log.messages(), "grave errore di indirizzamento!!\ngrave errore di indirizzamento!!\n");
        EXPECT_EQ(log.errors(), 2u);
    }
    EXPECT_EQ(fixedQueries(plant), "");
}

TEST_F(Registration, WithoutATreeTheQueriesAreRegisteredAllTheSame) {
    LogCapture log;
    EXPECT_EQ(mgr.RegisterNode(0xED), 0);
    EXPECT_EQ(log.messages(),
              "ERRORE, si inizializza un armadio UPS senza riferimento al virtualNode!!\n"
              "Add Query BS to 0xED\n"
              "Add Query BN to 0xED\n");
    EXPECT_EQ(box(3).pVN, nullptr);
    EXPECT_FALSE(box(3).MCUcommStatus.active);
    EXPECT_EQ(fixedQueries(plant), "BN>ED BS>ED");
}

TEST(RegistrationInASmallPlant, CabinetOutsideThePlantHasNoNode) {
    Plant plant(0xEA, "AB");
    buildTree(plant);
    plant.bus().upsBox[3].pVN = &plant.root();
    LogCapture log;
    EXPECT_EQ(plant.bus().RegisterNode(0xED), 0);
    EXPECT_TRUE(log.has("Err", "ERRORE, si inizializza un armadio UPS senza riferimento al virtualNode!!"));
    EXPECT_EQ(plant.bus().upsBox[3].pVN, nullptr);
}

TEST(RegistrationOnAnyCard, PathBeginsWithTheOwnLetter) {
    for (const int own : {0xEA, 0xEB, 0xEC, 0xED, 0xE0}) {
        Plant plant(static_cast<uint8>(own));
        plant.registerAll();
        for (int id = 0; id < MAXUPSBOX; ++id) {
            ASSERT_NE(plant.bus().upsBox[id].pVN, nullptr) << own;
            const std::string expected = {'S', static_cast<char>(own - 0xA9), '.', 'B', static_cast<char>('A' + id)};
            EXPECT_EQ(plant.bus().upsBox[id].pVN->ID, expected);
        }
    }
}

TEST_F(Registration, DeregisteredCabinetLeavesItsNominalQuery) {
    plant.registerAll();
    LogCapture log;
    EXPECT_EQ(mgr.DeRegisterNode(0xEB), 0);
    EXPECT_EQ(log.messages(), "Remove Query BS to 0xEB\n");
    EXPECT_EQ(log.count(""), 1u);
    EXPECT_FALSE(box(1).MCUcommStatus.active);
    EXPECT_EQ(box(1).pVN, nullptr);
    EXPECT_EQ(fixedQueries(plant), "BN>EA BS>EA BN>EB BN>EC BS>EC BN>ED BS>ED");
    log.clear();
    EXPECT_EQ(mgr.DeRegisterNode(0xEB), -1);
    EXPECT_EQ(log.messages(), "Elemento mai attivato!\n");
    EXPECT_EQ(log.warnings(), 1u);
}

// ---------------------------------------------------------------------------------------------------------------
// All cabinets

TEST(RegistrationOfThePlant, PresentCabinetsInOrder) {
    Plant plant(0xEB, "ABD");
    buildTree(plant);
    CABPMgr& mgr = plant.bus();
    for (upsBoxQueriesData_t& box : mgr.upsBox) {
        box.remoteUpdaterequest = true;
    }
    mgr.upsBox[2].MCUcommStatus = {true, 1, 2, 3, true};
    LogCapture log;
    mgr.RegisterBoxNode(plant.cfg());
    EXPECT_EQ(log.messages(),
              "Add Query BS to 0xEA\nAdd Query BN to 0xEA\n"
              "Add Query BS to 0xEB\nAdd Query BN to 0xEB\n"
              "Add Query BS to 0xED\nAdd Query BN to 0xED\n");
    EXPECT_EQ(image(mgr.upsBox[2].MCUcommStatus), image(commStatus_t{false, 1, 2, 3, false}));
    for (int id = 0; id < MAXUPSBOX; ++id) {
        EXPECT_FALSE(mgr.upsBox[id].remoteUpdaterequest);
        EXPECT_EQ(mgr.upsBox[id].MCUcommStatus.active, id != 2);
        EXPECT_EQ(mgr.upsBox[id].MCUcommStatus.isGood, id != 2);
    }
    EXPECT_EQ(fixedQueries(plant), "BN>EA BS>EA BN>EB BS>EB BN>ED BS>ED");

    log.clear();
    mgr.upsBox[2].MCUcommStatus = {true, 1, 2, 3, true};
    mgr.DeRegisterBoxNode(plant.cfg());
    EXPECT_EQ(log.messages(),
              "Remove Query BS to 0xEA\ngrave errore di indirizzamento!!\n"
              "Remove Query BS to 0xEB\ngrave errore di indirizzamento!!\n"
              "Remove Query BS to 0xED\ngrave errore di indirizzamento!!\n");
    EXPECT_EQ(image(mgr.upsBox[2].MCUcommStatus), image(commStatus_t{false, 1, 2, 3, false}));
    for (const upsBoxQueriesData_t& box : mgr.upsBox) {
        EXPECT_FALSE(box.MCUcommStatus.active);
        EXPECT_EQ(box.pVN, nullptr);
    }
    EXPECT_EQ(fixedQueries(plant), "BN>EA BN>EB BN>ED");
    mgr.wipeQueues();
    EXPECT_EQ(fixedQueries(plant), "");
}

TEST_F(Registration, GuardedOperationsWaitForTheLockOfTheDataAndGiveItBack) {
    buildTree(plant);
    EXPECT_TRUE(waitsForTheLock([this] { mgr.RegisterBoxNode(plant.cfg()); }));
    EXPECT_TRUE(waitsForTheLock([this] { mgr.clearErrorCnt(); }));
    EXPECT_TRUE(waitsForTheLock([this] {
        descSys_t copy;
        mgr.GetSysStatus(copy);
    }));
    EXPECT_TRUE(waitsForTheLock([this] {
        identification_t copy;
        mgr.GetIdentification('B', &copy);
    }));
    EXPECT_TRUE(waitsForTheLock([this] {
        nominal_t copy;
        mgr.GetNominal('B', &copy);
    }));
    EXPECT_TRUE(waitsForTheLock([this] { mgr.DeRegisterBoxNode(plant.cfg()); }));
    EXPECT_TRUE(dataLockIsFree(plant));
}

TEST_F(Registration, QueriesMayBeQueuedWhileTheDataAreLocked) {
    mgr.lockCABPData();  // not recursive: whoever takes it here hangs
    EXPECT_EQ(mgr.AddAsyncQC(bus::query(0xEB, "BI")), 0);
    mgr.RemoveAsyncQC(bus::query(0xEC, "BI"));
    EXPECT_FALSE(mgr.AsyncQCisEmpty());
    EXPECT_EQ(mgr.AsyncQCSize(), 1);
    mgr.unlockCABPData();
}

// ---------------------------------------------------------------------------------------------------------------
// Queries

TEST_F(Registration, ErrorsOfAnMcuAreCountedForItsCabinet) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        mgr.RegisterElem(bus::query(static_cast<uint8>(0xEA + id), "BS"));
    }
    mgr.RegisterElem(bus::query(0x0B, "GI"));
    mgr.RegisterElem(bus::query(0xFF, "BS"));
    int count = 0;
    for (const auto& each : plant.in().FixQuery) {
        const QCMgr& elem = *each.second;
        const bool mcu = elem.QC.Dest != 0xFF && elem.QC.Dest >= 0xEA;
        EXPECT_EQ(elem.pCommStatus, mcu ? &box(elem.QC.Dest - 0xEA).MCUcommStatus : nullptr) << text(elem);
        ++count;
    }
    EXPECT_EQ(count, 6);
}

TEST_F(Registration, ErrorsOfAnAsyncQueryAreCountedForItsCabinetToo) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        mgr.AddAsyncQC(bus::query(static_cast<uint8>(0xEA + id), "BI"));
    }
    mgr.AddAsyncQC(bus::query(0x0B, "GI"));
    mgr.AddAsyncQC(bus::query(0xFF, "CU"));
    int count = 0;
    for (const QCMgr* const elem : plant.in().AsyncQC) {
        const bool mcu = count < MAXUPSBOX;
        EXPECT_EQ(elem->pCommStatus, mcu ? &box(count).MCUcommStatus : nullptr) << text(*elem);
        ++count;
    }
    EXPECT_EQ(count, 6);
}

// The place in the ring that a BREAK leaves is taken from the query's source.
TEST(RegistrationOnAnyCard, QueriesHaveTheOwnAddressAsTheirSource) {
    for (const int own : {0xEA, 0xEB, 0xED, 0xE0}) {
        Plant plant(static_cast<uint8>(own));
        plant.registerAll();
        const LogCapture quiet;
        identification_t identification;
        nominal_t nominal;
        plant.bus().GetIdentification('C', &identification);
        plant.bus().GetNominal('C', &nominal);
        plant.bus().sysMCUUnlock();
        EXPECT_EQ(plant.in().FixQuery.size(), 8u);
        for (const auto& each : plant.in().FixQuery) {
            EXPECT_EQ(each.second->QC.Src, own) << text(*each.second);
            EXPECT_EQ(each.second->QC.ParamLen, 0) << text(*each.second);
        }
        EXPECT_GE(plant.in().AsyncQC.size(), 5);
        for (const QCMgr* const each : plant.in().AsyncQC) {
            EXPECT_EQ(each->QC.Src, own) << text(*each);
        }
    }
}

TEST_F(Registration, QueryIsBuiltWithItsReply) {
    LogCapture log;
    Bytes param = {1, 2, 3};
    EXPECT_EQ(mgr.RegisterElem(bus::query(0xEB, "BS")), 0);
    EXPECT_EQ(mgr.AddAsyncQC(bus::query(0x0C, "TB", &param)), 0);
    const QCMgr& fixed = *plant.in().FixQuery.begin()->second;
    EXPECT_EQ(Bytes(fixed.pckQuery, fixed.pckQuery + fixed.buildQueryLen), bus::frame(0xEA, 0xEB, "BS"));
    EXPECT_EQ(fixed.expectedReplyLen, 278);
    const QCMgr& async = *plant.in().AsyncQC.head();
    EXPECT_EQ(Bytes(async.pckQuery, async.pckQuery + async.buildQueryLen), bus::frame(0xEA, 0x0C, "TB", param));
    EXPECT_EQ(async.expectedReplyLen, 11);
    EXPECT_EQ(async.pCommStatus, nullptr);
    EXPECT_EQ(log.messages(),
              "Add Query BS to 0xEB\n"
              "Add AsyncQuery TB to 0x0C\n");
}

TEST_F(Registration, QueriesToBadAddressesAreRefused) {
    using Operation = std::function<int(const pckStruct&)>;
    const Operation operations[] = {
        [this](const pckStruct& q) { return mgr.RegisterElem(q); },
        [this](const pckStruct& q) { return mgr.DeRegisterElem(q); },
        [this](const pckStruct& q) { return mgr.AddAsyncQC(q); },
        [this](const pckStruct& q) { return mgr.RemoveAsyncQC(q); },
    };
    for (const Operation& operation : operations) {
        for (const int dest : {0x0E, 0x80, 0xE0, 0xE9, 0xEE, 0xFE}) {
            LogCapture log;
            EXPECT_EQ(operation(bus::query(static_cast<uint8>(dest), "BI")), -1);
            char refused[80];
            std::snprintf(refused, sizeof(refused), "Addr 0x%02X non valido!\nIndice della scheda non corretto!\n",
                          dest);
            EXPECT_EQ(log.messages(), refused);
            EXPECT_EQ(log.errors(), 2u);
        }
    }
    EXPECT_EQ(fixedQueries(plant) + asyncQueries(plant), "");
}

TEST_F(Registration, QueriesToAllNodesComeAndGo) {
    Bytes one = {1};
    Bytes two = {2};
    EXPECT_EQ(mgr.RegisterElem(bus::query(0xFF, "CU")), 0);
    EXPECT_EQ(mgr.AddAsyncQC(bus::query(0xFF, "TB", &one)), 0);
    EXPECT_EQ(fixedQueries(plant) + " " + asyncQueries(plant), "CU>FF TB>FF");
    const LogCapture log;
    EXPECT_EQ(mgr.DeRegisterElem(bus::query(0xFF, "CU")), 0);
    EXPECT_EQ(mgr.RemoveAsyncQC(bus::query(0xFF, "TB", &two)), 0);
    EXPECT_EQ(fixedQueries(plant) + asyncQueries(plant), "");
    EXPECT_EQ(log.errors(), 0u);
}

TEST_F(Registration, FixedQueryIsRemovedOnce) {
    mgr.RegisterElem(bus::query(0xEB, "BS"));
    mgr.RegisterElem(bus::query(0xEB, "BN"));
    LogCapture log;
    EXPECT_EQ(mgr.DeRegisterElem(bus::query(0xEB, "BS")), 0);
    EXPECT_EQ(fixedQueries(plant), "BN>EB");
    EXPECT_EQ(mgr.DeRegisterElem(bus::query(0xEB, "BS")), -1);
    EXPECT_EQ(log.messages(),
              "Remove Query BS to 0xEB\n"
              "Remove Query BS to 0xEB\n"
              "L'elemento NON e'mai stato registrato\n");
}

TEST_F(Registration, IdenticalAsyncQueryIsQueuedOnce) {
    EXPECT_EQ(mgr.AddAsyncQC(bus::query(0xEB, "BI")), 0);
    LogCapture log;
    EXPECT_EQ(mgr.AddAsyncQC(bus::query(0xEB, "BI")), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(mgr.AddAsyncQC(bus::query(0xEC, "BI")), 0);
    EXPECT_EQ(mgr.AddAsyncQC(bus::query(0xEB, "BN")), 0);
    EXPECT_EQ(asyncQueries(plant), "BI>EB BI>EC BN>EB");
    EXPECT_EQ(mgr.AsyncQCSize(), 3);
}

TEST_F(Registration, AsyncQueriesWithOtherParametersAreTheOnesThatGo) {
    Bytes one = {1};
    Bytes two = {2};
    mgr.AddAsyncQC(bus::query(0x0B, "TB", &one));
    mgr.AddAsyncQC(bus::query(0x0B, "TB", &two));
    EXPECT_EQ(mgr.AsyncQCSize(), 2);
    LogCapture log;
    EXPECT_EQ(mgr.RemoveAsyncQC(bus::query(0x0B, "TB", &one)), 0);
    EXPECT_EQ(log.messages(), "Remove AsyncQuery TB to 0x0B\n");
    ASSERT_EQ(mgr.AsyncQCSize(), 1);
    EXPECT_EQ(*static_cast<uint8*>(plant.in().AsyncQC.head()->QC.pParam), 1);
    EXPECT_EQ(mgr.RemoveAsyncQC(bus::query(0x0B, "TB", &one)), -1);
}

TEST_F(Registration, StateOfTheAsyncQueueIsToldAndLogged) {
    LogCapture log;
    EXPECT_TRUE(mgr.AsyncQCisEmpty());
    EXPECT_EQ(mgr.AsyncQCSize(), 0);
    EXPECT_EQ(log.messages(), "num:0\n");
    mgr.AddAsyncQC(bus::query(0xEB, "BI"));
    mgr.AddAsyncQC(bus::query(0xEC, "BI"));
    log.clear();
    EXPECT_FALSE(mgr.AsyncQCisEmpty());
    EXPECT_EQ(mgr.AsyncQCSize(), 2);
    EXPECT_EQ(log.messages(), "num:2\n");
    EXPECT_EQ(log.count(""), 1u);
    EXPECT_EQ(log.entries()[0].function, "AsyncQCisEmpty");
}

// ---------------------------------------------------------------------------------------------------------------
// Counters and queues at the end

TEST_F(Registration, ErrorCountsAreCleared) {
    EXPECT_EQ(mgr.getLastErrorCntResetTime(), 0);
    for (int id = 0; id < MAXUPSBOX; ++id) {
        box(id).MCUcommStatus = {true, 11, 12, 13 + id, true};
    }
    VirtualClock::setWall(1600000000);
    mgr.clearErrorCnt();
    for (int id = 0; id < MAXUPSBOX; ++id) {
        EXPECT_EQ(image(box(id).MCUcommStatus), image(commStatus_t{true, 11, 12, 0, true}));
    }
    EXPECT_EQ(mgr.getLastErrorCntResetTime(), 1600000000);
}

TEST_F(Registration, WipedQueuesAreEmpty) {
    plant.registerAll();
    mgr.AddAsyncQC(bus::query(0xEB, "BI"));
    mgr.wipeQueues();
    EXPECT_EQ(fixedQueries(plant) + asyncQueries(plant), "");
    EXPECT_EQ(mgr.AsyncQCSize(), 0);
}

}  // namespace
