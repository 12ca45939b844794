// The panels of single modules, looked at behind each aggregation.
#include "unit/MLINK/ModuleAggregation.h"

namespace {

using namespace modline;

class ModulePanel : public ModuleAggregation {};

TEST_F(ModulePanel, SwitchesTheModule) {
    node.panel.value = CMD_QPR_OFF;
    run();
    EXPECT_EQ(module.frames, std::vector<Bytes>{frame('A', '1', "DC", text("0"))});
    EXPECT_EQ(node.panel.value, CMD_NONE);
    node.panel.value = CMD_QPR_POWERON;
    run();
    EXPECT_EQ(module.frames.back(), frame('A', '1', "DC", text("1")));
    EXPECT_EQ(node.panel.value, CMD_NONE);
    EXPECT_EQ(module.frames.size(), 2U);
}

TEST_F(ModulePanel, DoesNotSwitchOnTheWrongPower) {
    m.PMStatus.wrongPower = 1;
    node.panel.value = CMD_QPR_POWERON;
    run();
    EXPECT_TRUE(module.asked.empty());
    EXPECT_EQ(node.panel.value, CMD_NONE);
    node.panel.value = CMD_QPR_OFF;
    run();
    EXPECT_EQ(module.asked, Names{"DC"});
}

TEST_F(ModulePanel, RefusesTheRest) {
    for (int value = 0; value < 256; ++value) {
        if (value == 4 || value == 5) {
            continue;
        }
        log.clear();
        node.panel.value = static_cast<cmdType_t>(value);
        run();
        EXPECT_EQ(node.panel.value, CMD_NONE);
        if (value == 255) {
            EXPECT_EQ(log.messages(), "");
        } else if (value < 4) {
            EXPECT_TRUE(log.has("Err", "Comando (" + std::to_string(value) + ") non supportato!!"));
        } else {
            EXPECT_TRUE(log.has("War", "Valore non previsto (" + std::to_string(value) + ")"));
        }
        if (value != 255) {
            EXPECT_EQ(log.entries().back().function, "AggregateUPS");
        }
    }
    EXPECT_TRUE(module.asked.empty());
}

TEST_F(ModulePanel, OfAnotherCabinetGoesThroughTheBus) {
    setElemAlarm(plant.box('C').desc.upsBox.subSystem.UPSShelter[0], faultAlarm);
    plant.module('C').panel.value = CMD_QPR_OFF;
    plant.module('B').panel.value = CMD_QPR_POWERON;  // its shelter tells that it is lost
    setElemAlarm(plant.box('B').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    run();
    EXPECT_TRUE(module.asked.empty());
    EXPECT_EQ(log.occurrences("all'armadio 0x43"), 5U);
    EXPECT_TRUE(log.has("Err", "Comando accensione non accodato!"));
    EXPECT_EQ(plant.module('B').panel.value, CMD_NONE);
    EXPECT_EQ(plant.module('C').panel.value, CMD_NONE);
    const Bytes sent = plant.line().writes().front();
    EXPECT_EQ(sent, bus::frame(0xEA, 0xEC, "QT", frame('C', '1', "DC", text("0"))));
}

TEST_F(ModulePanel, RunsOnceTheDataAreFree) {
    bool isFree = false;
    module.onQuery = [&](const std::string&) {
        isFree = plant.in().mutexCABPData->tryLock();
        if (isFree) {
            plant.in().mutexCABPData->unlock();
        }
    };
    node.panel.value = CMD_QPR_OFF;
    run();
    EXPECT_TRUE(isFree);
}

TEST_F(ModulePanel, ModuleThatCannotBeReachedIsTold) {
    // The shelter of the first run's record still tells that it is there; the module itself is silent.
    run();
    module.dead = true;
    node.panel.value = CMD_QPR_OFF;
    run();
    EXPECT_TRUE(log.has("Err", "Comando spegnimento non accodato!"));
    EXPECT_EQ(module.asked, Names{"DC"}) << "once";
    EXPECT_EQ(node.panel.value, CMD_NONE);
}

TEST_F(ModulePanel, LostModuleIsNotSwitched) {
    comm().isGood = false;
    node.panel.value = CMD_QPR_POWERON;
    run();
    EXPECT_TRUE(module.asked.empty());
    EXPECT_TRUE(log.has("Err", "Comando accensione non accodato!"));
    EXPECT_EQ(node.panel.value, CMD_NONE);
}

}  // namespace
