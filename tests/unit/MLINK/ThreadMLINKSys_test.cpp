// Commands to the whole system, which go to the master's module, and commands to a single module.
#include <chrono>
#include <cstring>
#include <thread>

#include "MLINK/ThreadMLINK.h"
#include "support/Allocations.h"
#include "unit/MLINK/ModuleLine.h"

namespace {

using namespace modline;
using Names = std::vector<std::string>;

class SystemCommand : public OnTheLine {
  protected:
    SystemCommand() {
        for (const char letter : {'A', 'B', 'C', 'D'}) {
            setElemAlarm(plant.box(letter).desc.upsBox.subSystem.UPSShelter[0], faultAlarm);
            plant.comm(letter).isGood = true;
        }
        makeMaster('A', 1);
    }
    void makeMaster(char letter, uint8 idu) {
        for (const char other : {'A', 'B', 'C', 'D'}) {
            plant.box(other).desc.upsBox.Ups.extStatus.isMaster = other == letter ? 1 : 0;
        }
        if (letter >= 'A' && letter <= 'D') {
            plant.data(letter).extendedBoardBox.idu = idu;
        }
    }
    void noMaster() { makeMaster('-', 0); }
    std::vector<Bytes> only(const Bytes& f) { return {f}; }
    static Bytes tunnel(uint8 dest, const Bytes& inner) { return bus::frame(0xEA, dest, "QT", inner); }
};

TEST_F(SystemCommand, EachHasItsFrame) {
    uint8 paramTB[3] = {'0', '0', '5'};
    uint8 clear[3] = {'C', 'L', 'R'};
    const struct {
        std::function<int()> run;
        Bytes expected;
    } cases[] = {
        {[&] { return link().sysPowerOn(); }, frame('A', '1', "CP", text("00"))},
        {[&] { return link().sysShutdown(600); }, frame('A', '1', "CS", text("0258"))},
        {[&] { return link().sysShutdown(0xABCD); }, frame('A', '1', "CS", text(":;<="))},
        {[&] { return link().sysShutdown(0xFFFF); }, frame('A', '1', "CS", text("????"))},
        {[&] { return link().sysRestore(600, 0x1234); }, frame('A', '1', "CR", text("02581234"))},
        {[&] { return link().sysRestore(0, 0); }, frame('A', '1', "CR", text("00000000"))},
        {[&] { return link().sysDeleteCmd(); }, frame('A', '1', "CD")},
        {[&] { return link().sysBatteryTest(paramTB); }, frame('A', '1', "TB", text("005"))},
        {[&] { return link().sysBatteryTest(clear); }, frame('A', '1', "TC")},
        {[&] { return link().sysInv_Byp('1'); }, frame('A', '1', "CB", text("1"))},
    };
    for (const auto& c : cases) {
        module.frames.clear();
        EXPECT_EQ(c.run(), 0);
        EXPECT_EQ(module.frames, only(c.expected));
    }
    EXPECT_EQ(log.errors(), 1U);
    EXPECT_TRUE(log.has("Err", "SubCmd C non supportato per il MainCmd T")) << "as ever for TC";
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(SystemCommand, NothingGoesOutWithoutAMaster) {
    noMaster();
    uint8 paramTB[3] = {'0', '0', '5'};
    EXPECT_EQ(link().sysPowerOn(), -1);
    EXPECT_EQ(link().sysShutdown(1), -1);
    EXPECT_EQ(link().sysRestore(1, 1), -1);
    EXPECT_EQ(link().sysDeleteCmd(), -1);
    EXPECT_EQ(link().sysBatteryTest(paramTB), -1);
    EXPECT_EQ(link().sysBatteryCheck(), -1);
    EXPECT_EQ(link().sysInv_Byp('1'), -1);
    EXPECT_TRUE(module.asked.empty());
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    EXPECT_EQ(log.errors(), 0U);
    EXPECT_EQ(log.occurrences("SEARCHING MASTER!!"), 7U);
}

TEST_F(SystemCommand, BusyModuleIsTriedFiveTimes) {
    module.refuses["CS"] = '5';
    EXPECT_EQ(link().sysShutdown(600), -5);
    EXPECT_EQ(module.asked, Names(5, "CS"));
    EXPECT_EQ(pauses(100), 4U);
    EXPECT_EQ(VirtualClock::sumWaits("QThread::msleep"), 400 * MS);
    EXPECT_EQ(log.occurrences("Errore errno:-5 nell'invio del comando CS al modulo 1@A"), 5U);
    EXPECT_EQ(log.occurrences("SEARCHING MASTER!!"), 1U) << "all tries go to the same module";
    EXPECT_TRUE(log.has("Err", "Errore errno:-5 nell'invio del comando CS al modulo 1@A"));
    EXPECT_FALSE(log.contains("ESCO"));
}

TEST_F(SystemCommand, FiveTriesAreThoseOfAllButTheBatteryTest) {
    const struct {
        const char* cmd;
        std::function<int()> run;
        int result;
    } cases[] = {{"CP", [&] { return link().sysPowerOn(); }, -5},
                 {"CR", [&] { return link().sysRestore(1, 1); }, -5},
                 {"CD", [&] { return link().sysDeleteCmd(); }, -5},
                 {"CB", [&] { return link().sysInv_Byp('1'); }, -1}};
    for (const auto& c : cases) {
        module.refuses[c.cmd] = '5';
        module.asked.clear();
        VirtualClock::clearWaits();
        EXPECT_EQ(c.run(), c.result) << c.cmd;
        EXPECT_EQ(module.asked, Names(5, c.cmd));
        EXPECT_EQ(pauses(100), 4U) << c.cmd;
    }
}

TEST_F(SystemCommand, BusyModuleThatGivesInEndsTheTries) {
    module.refuses["CS"] = '5';
    module.refusals["CS"] = 2;
    EXPECT_EQ(link().sysShutdown(600), 0);
    EXPECT_EQ(module.asked, Names(3, "CS"));
    EXPECT_EQ(pauses(100), 2U);
}

TEST_F(SystemCommand, AnyOtherRefusalEndsThemAtOnce) {
    for (const char code : {'1', '2', '3', '4', '6', '7', '9'}) {
        log.clear();
        module.asked.clear();
        for (const char* cmd : {"CP", "CS", "CR", "CD", "CB"}) {
            module.refuses[cmd] = code;
        }
        const int expected = '0' - code;
        EXPECT_EQ(link().sysPowerOn(), expected);
        EXPECT_EQ(link().sysShutdown(1), expected);
        EXPECT_EQ(link().sysRestore(1, 1), expected);
        EXPECT_EQ(link().sysDeleteCmd(), expected);
        EXPECT_EQ(link().sysInv_Byp('1'), -1) << "failures of any kind";
        EXPECT_EQ(module.asked, (Names{"CP", "CS", "CR", "CD", "CB"}));
        EXPECT_EQ(log.occurrences("ESCO"), 5U);
        EXPECT_EQ(log.occurrences("Errore errno:" + std::to_string(expected) + " nell'invio del comando "), 5U);
    }
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(SystemCommand, SilentModuleEndsThemAtOnce) {
    module.dead = true;
    EXPECT_EQ(link().sysDeleteCmd(), -255);
    EXPECT_EQ(module.asked.size(), 1U);
}

TEST_F(SystemCommand, ModuleThatIsNotReadyIsNotAsked) {
    setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    EXPECT_EQ(link().sysDeleteCmd(), -1);
    EXPECT_TRUE(module.asked.empty());
    EXPECT_TRUE(log.has("Err", "Errore errno:-1 nell'invio del comando CD al modulo 1@A"));
    EXPECT_EQ(log.occurrences("ESCO"), 1U);
}

TEST_F(SystemCommand, FailureStandsUnderTheNameOfTheCommand) {
    uint8 paramTB[3] = {'0', '0', '5'};
    const struct {
        const char* name;
        const char* cmd;
        std::function<int()> run;
        bool hasEnd;
    } cases[] = {{"sysPowerOn", "CP", [&] { return link().sysPowerOn(); }, true},
                 {"sysShutdown", "CS", [&] { return link().sysShutdown(1); }, true},
                 {"sysRestore", "CR", [&] { return link().sysRestore(1, 1); }, true},
                 {"sysDeleteCmd", "CD", [&] { return link().sysDeleteCmd(); }, true},
                 {"sysInv_Byp", "CB", [&] { return link().sysInv_Byp('1'); }, true},
                 {"sysBatteryTest", "TB", [&] { return link().sysBatteryTest(paramTB); }, false}};
    setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    for (const auto& c : cases) {
        log.clear();
        EXPECT_EQ(c.run(), -1);
        const std::string told = std::string("Errore errno:-1 nell'invio del comando ") + c.cmd + " al modulo 1@A";
        EXPECT_EQ(tellersOf(log, told), std::set<std::string>{c.name});
        EXPECT_EQ(tellersOf(log, "ESCO"), c.hasEnd ? std::set<std::string>{c.name} : std::set<std::string>{});
    }
}

TEST_F(SystemCommand, MastersNumberIsTheModulesAddress) {
    makeMaster('A', 255);  // as of a cabinet whose module isn't the master
    EXPECT_EQ(link().sysDeleteCmd(), -1);
    EXPECT_TRUE(log.has("Err", "Errore errno:-1 nell'invio del comando CD al modulo 7@A"));
    EXPECT_TRUE(module.asked.empty());
}

TEST_F(SystemCommand, BatteryTestIsTriedOnce) {
    uint8 paramTB[3] = {'0', '0', '5'};
    module.refuses["TB"] = '5';
    EXPECT_EQ(link().sysBatteryTest(paramTB), -5);
    EXPECT_EQ(module.asked, Names{"TB"});
    EXPECT_TRUE(log.has("Err", "Errore errno:-5 nell'invio del comando TB al modulo 1@A"));
    EXPECT_FALSE(log.contains("ESCO"));
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(SystemCommand, MasterInAnotherCabinetIsReachedThroughTheBus) {
    makeMaster('C', 17);
    plant.line().expect(tunnel(0xEC, frame('C', '1', "CS", text("0258"))));
    EXPECT_EQ(link().sysShutdown(600), 0) << "failures of the tunnel aren't told";
    EXPECT_TRUE(module.asked.empty());
    EXPECT_EQ(log.occurrences("Errore nell'invio del comando CABP_QT all'armadio 0x43"), 5U);
    EXPECT_FALSE(log.contains("Errore errno"));
}

// ---------------------------------------------------------------------------------------------------------------

// The sequence lock, which keeps the master role where it is.
TEST_F(SystemCommand, InverterBypassHoldsTheSequence) {
    std::atomic<int> held{0};
    std::atomic<int> free{0};
    const auto look = [&] {
        if (plant.sys().mutexQCSeq->tryLock()) {
            plant.sys().mutexQCSeq->unlock();
            ++free;
        } else {
            ++held;
        }
    };
    module.onQuery = [&](const std::string&) { look(); };  // on the thread of the exchange
    module.refuses["CB"] = '5';
    VirtualClock::onWait([&](const VirtualClock::Wait& wait) {
        if (wait.call == "QThread::msleep") {
            std::thread other(look);
            other.join();
        }
    });
    EXPECT_EQ(link().sysInv_Byp('0'), -1);
    EXPECT_EQ(held, 5 + 4) << "in each exchange and in each pause";
    EXPECT_EQ(free, 0);
    EXPECT_TRUE(plant.sys().mutexQCSeq->tryLock()) << "released in the end";
    plant.sys().mutexQCSeq->unlock();

    held = 0;
    module.refuses["CD"] = '5';
    EXPECT_EQ(link().sysDeleteCmd(), -5);
    EXPECT_EQ(held, 0) << "no other command takes it";
    noMaster();
    EXPECT_EQ(link().sysInv_Byp('0'), -1);
    EXPECT_TRUE(plant.sys().mutexQCSeq->tryLock()) << "nor does a return without a master keep it";
    plant.sys().mutexQCSeq->unlock();
}

// At the end of its round the bus thread finds the sequence running.
TEST_F(SystemCommand, InverterBypassKeepsTheMasterRole) {
    module.refuses["CB"] = '5';
    plant.in().CurrFixQC = plant.in().FixQuery.end();
    std::size_t rounds = 0;
    VirtualClock::onWait([&](const VirtualClock::Wait& wait) {
        if (wait.call == "QThread::msleep" && wait.us == 100 * MS) {
            std::thread busThread([&] { plant.bus().StateMachine(); });
            busThread.join();
            ++rounds;
        }
    });
    EXPECT_EQ(link().sysInv_Byp('0'), -1);
    EXPECT_EQ(rounds, 4U);
    EXPECT_EQ(log.occurrences("Sequenza comandi in corso non posso lasciare ruolo MASTER!"), 4U);
    EXPECT_EQ(pauses(20), 4U);
    EXPECT_EQ(plant.in().state, Master);
    EXPECT_EQ(plant.in().CurrFixQC, plant.in().FixQuery.end());
    plant.bus().StateMachine();
    EXPECT_EQ(plant.in().CurrFixQC, plant.in().FixQuery.begin()) << "the next round begins once it is over";
}

// ---------------------------------------------------------------------------------------------------------------

TEST_F(SystemCommand, BatteryCheckIsQueued) {
    EXPECT_EQ(link().sysBatteryCheck(), 0);
    EXPECT_TRUE(module.asked.empty()) << "nobody waits";
    ASSERT_EQ(in().async(), Names{"TB"});
    EXPECT_EQ(in().AsyncQC.head()->QC.Src, 'A');
    EXPECT_EQ(in().AsyncQC.head()->QC.Dest, '1');
    EXPECT_EQ(std::memcmp(in().AsyncQC.head()->QC.pParam, "000", 3), 0);
    EXPECT_TRUE(log.has("", "Check batterie"));
    EXPECT_FALSE(log.contains("Add AsyncQuery"));
    pass();
    EXPECT_EQ(module.frames.front(), frame('A', '1', "TB", text("000")));
}

TEST_F(SystemCommand, BatteryCheckOfAnotherCabinetIsQueuedOnTheBus) {
    makeMaster('B', 9);
    EXPECT_EQ(link().sysBatteryCheck(), 0);
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    ASSERT_EQ(plant.in().AsyncQC.size(), 1);
    const pckStruct& QC = plant.in().AsyncQC.head()->QC;
    EXPECT_EQ(QC.Dest, 0xEB);
    EXPECT_EQ(QC.Src, 0xEA);
    const auto* const param = static_cast<const uint8*>(QC.pParam);
    EXPECT_EQ(Bytes(param, param + QC.ParamLen), frame('B', '1', "TB", text("000")));
}

TEST_F(SystemCommand, BatteryCheckThatCannotBeQueuedIsTold) {
    makeMaster('B', 9);
    support::failAllocation(1);  // the frame to wrap
    const int ret = link().sysBatteryCheck();
    support::failAllocation(0);
    EXPECT_EQ(ret, -1);
    EXPECT_TRUE(plant.in().AsyncQC.isEmpty());
    EXPECT_TRUE(log.has("Err", "Errore errno:-1 nell'invio del comando TB al modulo 1@B"));
}

TEST_F(SystemCommand, BatteryCheckOfAPlantWithoutModulesIsNone) {
    plant.sys().numUPS = 0;
    EXPECT_EQ(link().sysBatteryCheck(), 0);
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    EXPECT_FALSE(log.contains("SEARCHING MASTER"));
}

// ---------------------------------------------------------------------------------------------------------------

TEST_F(SystemCommand, BypassUnitsAreUnlockedOneByOne) {
    plant.cfg().Ups[2].present = false;
    module.refuses["CU"] = '3';
    EXPECT_EQ(link().sysBypsUnlock(), 0) << "the last result, that of cabinet D";
    EXPECT_EQ(module.frames, only(frame('A', '8', "CU")));
    EXPECT_TRUE(log.has("Err", "Comando UNLOCK non inviato al Bypass dell'armadio A!"));
    EXPECT_EQ(log.occurrences("Comando UNLOCK"), 1U);
    EXPECT_EQ(log.occurrences("all'armadio 0x42"), 5U);
    EXPECT_EQ(log.occurrences("all'armadio 0x43"), 0U);
    EXPECT_EQ(log.occurrences("all'armadio 0x44"), 5U);
}

TEST_F(SystemCommand, ResultOfTheLastBypassUnitCounts) {
    for (const int id : {1, 2, 3}) {
        plant.cfg().Ups[id].present = false;
    }
    module.refuses["CU"] = '5';
    EXPECT_EQ(link().sysBypsUnlock(), -5);
    EXPECT_EQ(module.asked, Names{"CU"}) << "tried once";
}

TEST_F(SystemCommand, BypassUnitsOfAPlantWithoutCabinets) {
    for (auto& box : plant.cfg().Ups) {
        box.present = false;
    }
    EXPECT_EQ(link().sysBypsUnlock(), -1);
    EXPECT_EQ(log.messages(), "");
}

// ---------------------------------------------------------------------------------------------------------------

TEST_F(SystemCommand, SingleModuleIsSwitched) {
    link().moduleOn('A', '1');
    link().moduleOff('A', '1');
    EXPECT_EQ(module.frames, (std::vector<Bytes>{frame('A', '1', "DC", text("1")), frame('A', '1', "DC", text("0"))}));
    EXPECT_EQ(log.errors(), 0U);
}

TEST_F(SystemCommand, SwitchingIsTriedOnceAndItsFailureTold) {
    module.refuses["DC"] = '5';
    link().moduleOn('A', '1');
    EXPECT_TRUE(log.has("Err", "Comando accensione non accodato!"));
    link().moduleOff('A', '1');
    EXPECT_TRUE(log.has("Err", "Comando spegnimento non accodato!"));
    EXPECT_EQ(module.asked.size(), 2U);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(SystemCommand, LostModuleIsNotSwitched) {
    setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    link().moduleOff('A', '1');
    EXPECT_EQ(log.messages(), "IL MODULO NON E` PRONTO A RICEVERE IL COMANDO!!!!\nComando spegnimento non accodato!\n");
    EXPECT_TRUE(module.asked.empty());
}

TEST_F(SystemCommand, CM02IsPreparedAndSent) {
    uint8 param[2] = {'a', 'b'};
    pckStruct pck;
    link().prepareCM02(pck, 'C', '3', param);
    EXPECT_EQ(pck.Src, 'C');
    EXPECT_EQ(pck.Dest, '3');
    EXPECT_EQ(pck.MainCmd, 'C');
    EXPECT_EQ(pck.SubCmd, 'M');
    EXPECT_EQ(pck.ParamLen, 2);
    EXPECT_EQ(pck.pParam, param);
    EXPECT_EQ(link().sendCM02('A', '1', param), 0);
    link().enSa_Active('A', '1');
    link().enSa_InverterOn('A', '1');
    EXPECT_EQ(module.frames, (std::vector<Bytes>{frame('A', '1', "CM", text("ab")), frame('A', '1', "CM", text("<1")),
                                                 frame('A', '1', "CM", text("<0"))}));
    EXPECT_EQ(Bytes(module.frames[0].begin() + 3, module.frames[0].begin() + 7), text("CM02"));
    module.refuses["CM"] = '2';
    EXPECT_EQ(link().sendCM02('A', '1', param), -2);
    EXPECT_TRUE(log.has("Err", "Comando CM02ab non accodato!"));
    EXPECT_EQ(module.asked.size(), 4U) << "tried once";
}

TEST_F(SystemCommand, CM02OfALostModuleIsNotSent) {
    setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    link().enSa_Active('A', '1');
    link().enSa_InverterOn('A', '1');
    EXPECT_TRUE(module.asked.empty());
    EXPECT_TRUE(log.has("Err", "Comando CM02<1 non accodato!"));
    EXPECT_TRUE(log.has("Err", "Comando CM02<0 non accodato!"));
}

}  // namespace
