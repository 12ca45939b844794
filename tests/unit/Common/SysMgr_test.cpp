#include "Common/SysMgr.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CABP/ThreadCABP.h"
#include "MLINK/ThreadMLINK.h"
#include "Measure/VirtualUPSMgr.h"
#include "support/BareSystemMgr.h"
#include "support/FakeLine.h"
#include "support/FakeShm.h"
#include "support/LinkThreads.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/Replaced.h"
#include "support/ScratchDir.h"
#include "support/VirtualClock.h"

namespace {

using support::FakeShm;
using support::LogCapture;
using support::VirtualClock;
namespace replaced = support::replaced;

// What the system manager itself has said, "Level message" by line.
std::vector<std::string> said(const LogCapture& log) {
    std::vector<std::string> lines;
    for (const support::LogEntry& entry : log.entries()) {
        if (entry.file == "SysMgr.cpp") {
            lines.push_back(entry.level + " " + entry.message);
        }
    }
    return lines;
}

std::vector<std::string> presentLines(char letter) {
    const std::string id(1, static_cast<char>('0' + letter - 'A'));
    return {std::string("Dbg Armadio ") + letter + " presente: NON registro il modulo BYPASS",
            "Dbg            Passo ora alla registrazione di TUTTI gli UPS presenti",
            "Dbg            mod id 0 box id " + id,
            std::string("Dbg Modulo UPS 1 dell'armadio ") + letter + " presente: registrato"};
}

std::vector<std::string> absentLine(char letter) {
    return {std::string("Dbg Armadio ") + letter + " NON presente!!"};
}

std::vector<std::string> deregistrationLines() {
    std::vector<std::string> lines;
    for (char letter = 'A'; letter <= 'D'; ++letter) {
        lines.push_back(std::string("Dbg DeRegistro armadio ") + letter + ": DeRegistro il modulo BYPASS");
        lines.push_back("Dbg            Passo ora alla De-registrazione di TUTTI gli UPS");
        lines.push_back("Dbg Modulo UPS 1 DeRegistrato");
    }
    return lines;
}

using Lines = std::vector<std::string>;

Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Around the start of the module thread.
Lines moduleThreadLines(const SystemMgr& mgr) {
    const std::string address = QString::asprintf("%p", static_cast<const void*>(mgr.pThMLink)).toStdString();
    return {" Avvio la thread MLink " + address + "...", " ... avviata thread MLink " + address};
}

pckStruct queryTo(uint8 address, const char* command) {
    pckStruct query;
    query.Dest = address;
    query.MainCmd = static_cast<uint8>(command[0]);
    query.SubCmd = static_cast<uint8>(command[1]);
    return query;
}

void setPlant(bool b, bool c, bool d) {
    moduleBpresent = b;
    moduleCpresent = c;
    moduleDpresent = d;
}

// ---------------------------------------------------------------------------------------------------------------
// Registration on the test's own thread, neither link's thread being started.

class Registration : public testing::Test {
  protected:
    Registration() { CABPAddr = 0xEA; }
    ~Registration() override {
        const LogCapture quiet;
        if (mgr_) {
            delete (*mgr_)->pVirtualUPSMgr;
            delete (*mgr_)->pThMLink;
            delete (*mgr_)->pThCABP;
        }
    }
    SystemMgr& make() {
        const LogCapture quiet;
        mgr_ = std::make_unique<support::BareSystemMgr>();
        (*mgr_)->pThMLink = new MLINKMgr(nullptr);
        (*mgr_)->pThCABP = new CABPMgr(nullptr);
        return mgr_->get();
    }
    bool isActive(int box) { return (*mgr_)->pThCABP->upsBox[box].MCUcommStatus.active; }
    ModuleQueriesData_t& module(int box) { return (*mgr_)->pThMLink->ModulesData[box][0]; }

    support::ScratchDir dir_{"UGW"};
    FakeShm shm_;
    support::LinkThreads threads_;
    std::unique_ptr<support::BareSystemMgr> mgr_;
};

TEST_F(Registration, TellsEachCabinet) {
    setPlant(false, true, false);
    SystemMgr& mgr = make();
    LogCapture log;
    mgr.RegisterAll();
    EXPECT_EQ(said(log),
              presentLines('A') + absentLine('B') + presentLines('C') + absentLine('D') + moduleThreadLines(mgr));
    EXPECT_EQ(threads_.heldBack(), 1U) << "it starts the module thread";
}

// Between its registration and the bus queries.
TEST_F(Registration, StartsTheModuleThreadOnceItsModulesAreThere) {
    SystemMgr& mgr = make();
    LogCapture log;
    mgr.RegisterAll();
    const std::string text = log.text();
    const std::size_t start = text.find("Avvio la thread MLink");
    ASSERT_NE(start, std::string::npos);
    EXPECT_LT(text.find("Add Query DE to 0x31"), start);
    EXPECT_LT(start, text.find("Add Query BN to 0xEA"));
}

TEST_F(Registration, CabinetsWithoutAModuleTakeNoPart) {
    setPlant(true, false, false);
    SystemMgr& mgr = make();
    mgr.Cfg.Ups[1].modulePresent[0] = false;
    for (int box = 0; box < MAXUPSBOX; ++box) {
        module(box).commStatus.active = true;
        module(box).commStatus.isGood = true;
    }
    LogCapture log;
    mgr.RegisterAll();
    EXPECT_TRUE(module(0).commStatus.active);
    EXPECT_FALSE(module(0).commStatus.isGood) << "registered anew";
    for (const int box : {1, 2}) {
        EXPECT_FALSE(module(box).commStatus.active) << box;
        EXPECT_FALSE(module(box).commStatus.isGood) << box;
        EXPECT_EQ(module(box).pVN, nullptr) << box;
    }
    const Lines lines = presentLines('B');
    EXPECT_EQ(said(log), presentLines('A') + Lines(lines.begin(), lines.end() - 1) + absentLine('C') + absentLine('D') +
                             moduleThreadLines(mgr));
}

TEST_F(Registration, BindsThePlantToItsTree) {
    setPlant(false, true, false);
    SystemMgr& mgr = make();
    LogCapture log;
    mgr.RegisterAll();
    ASSERT_NE(mgr.pVirtualUPSMgr, nullptr);
    EXPECT_EQ(shm_.only().size, 6 * sizeof(virtualNode_t));
    EXPECT_TRUE(isActive(0));
    EXPECT_FALSE(isActive(1));
    EXPECT_TRUE(isActive(2));
    EXPECT_FALSE(isActive(3));
    EXPECT_EQ(mgr.pThCABP->upsBox[2].pVN, mgr.pVirtualUPSMgr->searchNode("SA.BC"));
    EXPECT_EQ(module(0).pVN, mgr.pVirtualUPSMgr->searchNode("SA.BA.M1"));
    EXPECT_EQ(module(2).pVN, mgr.pVirtualUPSMgr->searchNode("SA.BC.M1"));
    EXPECT_EQ(module(1).pVN, nullptr);
    EXPECT_EQ(elemAlarm(mgr.pVirtualUPSMgr->virtualUPS->desc.sys.subSystem.UPSBox[0]), commLostAlarm);
    EXPECT_EQ(elemAlarm(mgr.pVirtualUPSMgr->virtualUPS->desc.sys.subSystem.UPSBox[1]), noneAlarm);
}

TEST_F(Registration, StartsWithClearedErrors) {
    SystemMgr& mgr = make();
    mgr.pThCABP->upsBox[0].MCUcommStatus.errorCnt = 5;
    mgr.pThCABP->upsBox[3].MCUcommStatus.errorCnt = 5;
    QCMgr failed(queryTo(0xEB, "BS"), CABP_BuildQuery, 0);
    mgr.pThCABP->saveLastErr(&failed);
    ASSERT_NE(mgr.pThCABP->getLastErr(), QString("LastErr:"));
    VirtualClock::setWall(1800000000);
    LogCapture log;
    mgr.RegisterAll();
    EXPECT_EQ(mgr.pThCABP->upsBox[0].MCUcommStatus.errorCnt, 0);
    EXPECT_EQ(mgr.pThCABP->upsBox[3].MCUcommStatus.errorCnt, 0);
    EXPECT_EQ(mgr.pThCABP->getLastErrorCntResetTime(), 1800000000);
    EXPECT_EQ(mgr.pThCABP->getLastErr(), QString("LastErr:"));
}

TEST_F(Registration, SecondCallIsRefused) {
    SystemMgr& mgr = make();
    {
        const LogCapture quiet;
        mgr.RegisterAll();
    }
    VirtualUPSMgr* const before = mgr.pVirtualUPSMgr;
    LogCapture log;
    mgr.RegisterAll();
    EXPECT_EQ(mgr.pVirtualUPSMgr, before);
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(said(log), Lines{"Err SharedMemory gia' inizializzata!!!"});
    EXPECT_EQ(log.entries()[0].function, "RegisterAll");
}

TEST_F(Registration, GoesOnWithoutATree) {
    setPlant(true, true, true);
    SystemMgr& mgr = make();
    replaced::shmget().fails(ENOSPC);
    LogCapture log;
    mgr.RegisterAll();
    EXPECT_EQ(said(log),
              presentLines('A') + presentLines('B') + presentLines('C') + presentLines('D') + moduleThreadLines(mgr));
    ASSERT_NE(mgr.pVirtualUPSMgr, nullptr);
    EXPECT_EQ(mgr.pVirtualUPSMgr->virtualUPS, nullptr);
    for (int box = 0; box < MAXUPSBOX; ++box) {
        EXPECT_TRUE(module(box).commStatus.active);
        EXPECT_EQ(module(box).pVN, nullptr);
        EXPECT_EQ(mgr.pThCABP->upsBox[box].pVN, nullptr);
    }
    mgr.DeRegisterAll();
    EXPECT_EQ(mgr.pVirtualUPSMgr, nullptr);
}

TEST_F(Registration, IsUndoneForAllFourCabinets) {
    SystemMgr& mgr = make();
    {
        const LogCapture quiet;
        mgr.RegisterAll();
    }
    LogCapture log;
    mgr.DeRegisterAll();
    EXPECT_EQ(said(log), deregistrationLines()) << "no stop lines: no module thread runs";
    EXPECT_EQ(mgr.pVirtualUPSMgr, nullptr);
    EXPECT_TRUE(shm_.segments().empty());
    EXPECT_FALSE(isActive(0));
    EXPECT_EQ(mgr.pThCABP->upsBox[0].pVN, nullptr);
    EXPECT_FALSE(module(0).commStatus.active);
    EXPECT_EQ(module(0).pVN, nullptr);
    EXPECT_EQ(log.occurrences("Remove Query RX to 0x31"), 1U);
    EXPECT_TRUE(log.has("Err", "L'elemento NON e'mai stato registrato"));
}

TEST_F(Registration, UndoneWithoutHavingBeenDone) {
    SystemMgr& mgr = make();
    LogCapture log;
    mgr.DeRegisterAll();
    EXPECT_EQ(said(log), deregistrationLines());
    EXPECT_EQ(mgr.pVirtualUPSMgr, nullptr);
}

TEST_F(Registration, CanBeDoneAgainOnceUndone) {
    SystemMgr& mgr = make();
    LogCapture log;
    mgr.RegisterAll();
    mgr.DeRegisterAll();
    log.clear();
    mgr.RegisterAll();
    EXPECT_NE(mgr.pVirtualUPSMgr, nullptr);
    EXPECT_EQ(said(log).front(), presentLines('A').front());
    EXPECT_TRUE(isActive(0));
}

TEST_F(Registration, OwnCabinetOutsideThePlantIsSurvived) {
    CABPAddr = 0xE0;
    SystemMgr& mgr = make();
    LogCapture log;
    mgr.RegisterAll();
    EXPECT_STREQ(mgr.pVirtualUPSMgr->virtualUPS->ID, "S7");
    EXPECT_TRUE(isActive(0));
    mgr.DeRegisterAll();
}

// ---------------------------------------------------------------------------------------------------------------

class MasterSearch : public Registration {
  protected:
    MasterSearch() {
        setPlant(true, false, true);
        mgr = &make();
        const LogCapture quiet;
        mgr->RegisterAll();
        for (upsBoxQueriesData_t& box : mgr->pThCABP->upsBox) {
            box.MCUcommStatus.isGood = false;
        }
    }
    void set(int id, bool isGood, bool isMaster, uint8 idu) {
        upsBoxQueriesData_t& box = mgr->pThCABP->upsBox[id];
        box.MCUcommStatus.isGood = isGood;
        box.extendedBoardBox.idu = idu;
        if (box.pVN != nullptr) {
            box.pVN->desc.upsBox.Ups.extStatus.isMaster = isMaster ? 1 : 0;
        }
    }
    int search() {
        LogCapture log;
        boxId_ = 99;
        upsId_ = 99;
        const int ret = mgr->searchMaster(boxId_, upsId_);
        said_ = said(log);
        return ret;
    }
    SystemMgr* mgr;
    uint8 boxId_ = 99;
    uint8 upsId_ = 99;
    Lines said_;
};

TEST_F(MasterSearch, WithoutAnyEndsAtFour) {
    EXPECT_EQ(search(), -1);
    EXPECT_EQ(boxId_, 4);
    EXPECT_EQ(upsId_, 99) << "left alone";
    EXPECT_EQ(said_, (Lines{"Dbg SEARCHING MASTER!!", "Dbg BOX A presente: isGood:F isMaster:F",
                            "Dbg BOX B presente: isGood:F isMaster:F", "Dbg BOX D presente: isGood:F isMaster:F"}));
}

TEST_F(MasterSearch, NeedsBothReachableAndMaster) {
    set(0, true, false, 1);
    set(1, false, true, 1);
    EXPECT_EQ(search(), -1);
    EXPECT_EQ(said_, (Lines{"Dbg SEARCHING MASTER!!", "Dbg BOX A presente: isGood:T isMaster:F",
                            "Dbg BOX B presente: isGood:F isMaster:T", "Dbg BOX D presente: isGood:F isMaster:F"}));
}

TEST_F(MasterSearch, LowestLetterWins) {
    set(1, true, true, 3);
    set(3, true, true, 1);
    EXPECT_EQ(search(), 0);
    EXPECT_EQ(boxId_, 1);
    EXPECT_EQ(upsId_, 2);
    EXPECT_EQ(said_, (Lines{"Dbg SEARCHING MASTER!!", "Dbg BOX A presente: isGood:F isMaster:F",
                            "Dbg BOX B presente: isGood:T isMaster:T"}));
}

TEST_F(MasterSearch, CabinetOutsideThePlantIsPassedOver) {
    mgr->pThCABP->upsBox[2].MCUcommStatus.isGood = true;
    mgr->pThCABP->upsBox[2].pVN = mgr->pThCABP->upsBox[1].pVN;
    set(3, true, true, 1);
    EXPECT_EQ(search(), 0);
    EXPECT_EQ(boxId_, 3);
    mgr->pThCABP->upsBox[2].pVN = nullptr;
}

TEST_F(MasterSearch, ModuleNumberIsCutToThreeBits) {
    const struct {
        uint8 idu;
        uint8 upsId;
    } cases[] = {{1, 0}, {2, 1}, {8, 7}, {9, 0}, {0, 7}, {255, 6}};
    for (const auto& c : cases) {
        set(0, true, true, c.idu);
        EXPECT_EQ(search(), 0);
        EXPECT_EQ(upsId_, c.upsId) << int(c.idu);
    }
}

TEST_F(MasterSearch, CabinetWithoutANodeIsNoMaster) {
    set(0, true, true, 1);
    mgr->pThCABP->upsBox[0].pVN = nullptr;
    EXPECT_EQ(search(), -1);
    EXPECT_EQ(said_[1], "Dbg BOX A presente: isGood:T isMaster:F");
}

// ---------------------------------------------------------------------------------------------------------------
// With the bus thread running, on a bus port that can't be opened.

class Lifecycle : public testing::Test {
  protected:
    Lifecycle() {
        CABPAddr = 0xEB;
        serialPortCABP = busPort_.c_str();
        json_ = dir_.path("vu.json");
        jsonTmp_ = dir_.path("vu.tmp");
        jsonPath = json_.c_str();
        jsonPathTMP = jsonTmp_.c_str();
        setPlant(true, false, false);
        VirtualClock::setRealPause(200);  // the bus thread's waits leave the others their share
    }
    // Real time: the thread needs some to come up.
    static bool appears(const LogCapture& log, const std::string& text) {
        for (int i = 0; i < 5000; ++i) {
            if (log.contains(text)) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return false;
    }

    support::ScratchDir dir_{"UGW"};
    FakeShm shm_;
    std::string busPort_ = "/dev/ttyThatIsNotThere";
    std::string json_;
    std::string jsonTmp_;
};

TEST_F(Lifecycle, StartAndOrderlyStop) {
    LogCapture log;
    auto mgr = std::make_unique<SystemMgr>();
    EXPECT_EQ(pSysMgr, mgr.get());
    ASSERT_NE(mgr->pThMLink, nullptr);
    EXPECT_EQ(mgr->build, -1);
    EXPECT_EQ(mgr->cntForSameBuild, 2);
    EXPECT_EQ(mgr->mutexQCSeq->getName(), QString("mutexQCSeq"));
    EXPECT_EQ(mgr->numUPS, 2);
    const Lines threadLines = moduleThreadLines(*mgr);
    ASSERT_TRUE(appears(log, "Armadio D NON presente!!"));
    // The whole of RegisterAll has been seen once its last registration has.
    ASSERT_TRUE(appears(log, "Add Query BN to 0xEB"));
    EXPECT_EQ(said(log), (Lines{" ", " Avvio la thread CABP"} + presentLines('A') + presentLines('B') +
                          absentLine('C') + absentLine('D') + threadLines));
    EXPECT_TRUE(mgr->pThMLink->isRunning());
    ASSERT_TRUE(appears(log, "FALLITO Comando DE inviato alla scheda 0x31")) << "it has left its idle state";
    // It is let go only once the last of the bus queries is there.
    const std::string start = log.text();
    EXPECT_LT(start.rfind("Add Query "), start.find("FALLITO Comando DE"));

    log.clear();
    mgr.reset();
    EXPECT_EQ(said(log), (Lines{" Fermo la thread CABP", " Attendo arresto effettivo thread CABP",
                                " Fermo la thread MLink", " Attendo arresto effettivo thread MLink"} +
                          deregistrationLines()));
    EXPECT_TRUE(shm_.segments().empty());
    // The tree goes after the registrations.
    const std::string text = log.text();
    EXPECT_LT(text.find("De-registrazione"), text.find("shared memory deallocata"));
    // Bus thread, module thread, registrations.
    EXPECT_LT(text.find("Attendo arresto effettivo thread CABP"), text.find("Fermo la thread MLink"));
    EXPECT_LT(text.find("Attendo arresto effettivo thread MLink"), text.find("EXIT ThMLINK"));
    EXPECT_LT(text.find("EXIT ThMLINK"), text.find("DeRegistro armadio A"));
}

TEST_F(Lifecycle, OpensTheModulePortBeforeAnyThreadRuns) {
    support::FakeLine line("/dev/ttyMOD");
    serialPort = "/dev/ttyMOD";
    const support::LinkThreads threads;
    LogCapture log;
    auto mgr = std::make_unique<SystemMgr>();
    EXPECT_TRUE(line.isOpen());
    EXPECT_FALSE(mgr->pThMLink->isRunning());
    EXPECT_EQ(threads.heldBack(), 1U) << "the bus thread alone is started here";
    EXPECT_EQ(mgr->pThMLink->thread(), mgr->pThMLink) << "each lives in its own thread";
    EXPECT_EQ(mgr->pThCABP->thread(), mgr->pThCABP);
    mgr.reset();
    EXPECT_FALSE(line.isOpen());
    EXPECT_FALSE(log.contains("Fermo la thread MLink")) << "it never ran";
    serialPort = nullptr;
}

// What the bus has brought while the plant was being registered is stale.
TEST(RegisteredCard, StartsWithAnEmptyPort) {
    support::Plant plant;
    plant.line().put({1, 2, 3});
    plant.registerAll();
    EXPECT_EQ(plant.line().waiting(), 0U);
    EXPECT_EQ(plant.line().calls(support::LineCall::Open), 1U) << "it stays open";
}

TEST(OrderlyStop, LeavesNoQueryWaiting) {
    support::Plant plant;
    plant.registerAll();
    const LogCapture quiet;
    const pckStruct query = queryTo(0xEB, "BI");
    const pckStruct question = queryTo('1', "GI");
    plant.bus().AddAsyncQC(query);
    plant.link().AddAsyncQC(question, false);
    ASSERT_TRUE(plant.bus().isPresentInAsyncQC(query));
    ASSERT_TRUE(plant.link().isPresentInAsyncQC(question));
    plant.sys().DeRegisterAll();
    EXPECT_FALSE(plant.bus().isPresentInAsyncQC(query));
    EXPECT_FALSE(plant.link().isPresentInAsyncQC(question));
}

// Registrations, tree, module link, bus.
TEST(OrderlyStop, GoesBackTheWayOfTheStart) {
    support::Plant::Options options;
    options.hasModulePort = true;
    support::Plant plant(options);
    plant.registerAll();
    LogCapture log;
    plant.stop();
    Lines order;
    for (const support::LogEntry& entry : log.entries()) {
        for (const char* const step : {"Modulo UPS 1 DeRegistrato", "shared memory deallocata", "Chiude il canale"}) {
            if (entry.message.find(step) != std::string::npos) {
                order.push_back(entry.function + ": " + step);
            }
        }
    }
    ASSERT_EQ(order.size(), 7U) << log.text();
    EXPECT_EQ(order[3], "DeRegisterAll: Modulo UPS 1 DeRegistrato");
    EXPECT_NE(order[4].find("shared memory deallocata"), std::string::npos);
    EXPECT_EQ(order[5], "MLINK_End: Chiude il canale");
    EXPECT_EQ(order[6], "CABP_End: Chiude il canale");
}

TEST_F(Lifecycle, StopRightAfterTheStart) {
    LogCapture log;
    auto mgr = std::make_unique<SystemMgr>();
    mgr.reset();
    const Lines lines = said(log);
    EXPECT_EQ(lines.front(), " ");
    EXPECT_EQ(Lines(lines.end() - 12, lines.end()), deregistrationLines());
    EXPECT_TRUE(shm_.segments().empty());
}

TEST_F(Lifecycle, AsMasterWithoutAPort) {
    CABPAddr = 0xEA;
    LogCapture log;
    auto mgr = std::make_unique<SystemMgr>();
    ASSERT_TRUE(appears(log, "Add Query BN to 0xEB"));
    mgr.reset();
    EXPECT_TRUE(shm_.segments().empty());
}

TEST_F(Lifecycle, OnACardWithoutACabinetOfItsOwn) {
    CABPAddr = 0xE0;
    LogCapture log;
    auto mgr = std::make_unique<SystemMgr>();
    ASSERT_TRUE(appears(log, "Add Query BN to 0xEB"));
    mgr.reset();
    EXPECT_TRUE(shm_.segments().empty());
}

}  // namespace
