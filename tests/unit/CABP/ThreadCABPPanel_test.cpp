// The panel of the root node: commands to the whole system.
#include "MLINK/ThreadMLINK.h"
#include "unit/MLINK/ModuleLine.h"

namespace {

using namespace modline;
using Names = std::vector<std::string>;

class SystemPanel : public OnTheLine {
  protected:
    SystemPanel() {
        setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], faultAlarm);
        plant.comm('A').isGood = true;
        plant.box('A').desc.upsBox.Ups.extStatus.isMaster = 1;
        plant.data('A').extendedBoardBox.idu = 1;
    }
    /// A pass of the aggregation with that order in the panel; what the log says of it.
    void order(uint8 value, uint16 delay_shut = 65535, uint16 delay_reboot = 65535) {
        module.asked.clear();
        module.frames.clear();
        plant.root().panel.value = static_cast<cmdType_t>(value);
        plant.root().panel.delay_shut = delay_shut;
        plant.root().panel.delay_reboot = delay_reboot;
        VirtualClock::advance(201 * MS);
        plant.box('A').desc.upsBox.Ups.timestamp = static_cast<time32_t>(VirtualClock::wall() / SECOND);
        log.clear();
        plant.bus().AggregateBox();
    }
    uint8 panel() { return plant.root().panel.value; }
};

TEST_F(SystemPanel, EachOrderReachesTheMastersModule) {
    const struct {
        cmdType_t value;
        Bytes expected;
    } cases[] = {
        {CMD_SHUTDOWN, frame('A', '1', "CS", text("0258"))},
        {CMD_REBOOT, frame('A', '1', "CR", text("0258001>"))},
        {CMD_DELETE, frame('A', '1', "CD")},
        {CMD_TESTBATT, frame('A', '1', "TB", text("005"))},
    };
    for (const auto& c : cases) {
        order(c.value, 600, 0x1E);
        EXPECT_EQ(module.frames, std::vector<Bytes>{c.expected}) << int(c.value);
        EXPECT_EQ(panel(), CMD_NONE) << int(c.value);
    }
}

TEST_F(SystemPanel, NoOrderIsNone) {
    order(CMD_NONE);
    EXPECT_TRUE(module.asked.empty());
    EXPECT_FALSE(log.contains("SEARCHING MASTER"));
    EXPECT_EQ(panel(), CMD_NONE);
}

TEST_F(SystemPanel, OrdersOfModulesAreRefused) {
    for (const uint8 value : {uint8(4), uint8(5)}) {
        order(value);
        const std::string told = "Comando (" + std::to_string(value) + ") non supportato!!";
        EXPECT_TRUE(log.has("Err", told));
        EXPECT_EQ(tellersOf(log, told), std::set<std::string>{"AggregateBox"});
        EXPECT_EQ(panel(), CMD_NONE);
        EXPECT_TRUE(module.asked.empty());
    }
}

TEST_F(SystemPanel, UnknownOrdersAreWarnedOf) {
    for (const int value : {6, 100, 254}) {
        order(static_cast<uint8>(value));
        const std::string told = "Valore non previsto (" + std::to_string(value) + ")";
        EXPECT_TRUE(log.has("War", told));
        EXPECT_EQ(tellersOf(log, told), std::set<std::string>{"AggregateBox"});
        EXPECT_EQ(panel(), CMD_NONE);
        EXPECT_TRUE(module.asked.empty());
    }
}

TEST_F(SystemPanel, RestoreNeedsTheRightPower) {
    plant.box('A').desc.upsBox.Ups.PMStatus.wrongPower = 1;
    order(CMD_REBOOT, 1, 1);
    ASSERT_EQ(plant.root().desc.sys.Ups.PMStatus.wrongPower, 1) << "as just published";
    EXPECT_TRUE(module.asked.empty());
    EXPECT_EQ(panel(), CMD_NONE) << "reset all the same";
    order(CMD_SHUTDOWN, 1, 1);
    EXPECT_EQ(module.asked, Names{"CS"}) << "no other order cares";
}

TEST_F(SystemPanel, FailedOrderIsNotKept) {
    module.refuses["CS"] = '3';
    order(CMD_SHUTDOWN, 1);
    EXPECT_EQ(module.asked, Names{"CS"});
    EXPECT_EQ(panel(), CMD_NONE);
    plant.comm('A').isGood = false;
    order(CMD_DELETE);
    EXPECT_TRUE(module.asked.empty()) << "nobody is master";
    EXPECT_EQ(panel(), CMD_NONE);
}

TEST_F(SystemPanel, BusyModuleHasFiveTriesExceptForTheBatteryTest) {
    for (const char* cmd : {"CS", "CR", "CD", "TB"}) {
        module.refuses[cmd] = '5';
    }
    order(CMD_SHUTDOWN, 1);
    EXPECT_EQ(module.asked, Names(5, "CS"));
    order(CMD_REBOOT, 1, 1);
    EXPECT_EQ(module.asked, Names(5, "CR"));
    order(CMD_DELETE);
    EXPECT_EQ(module.asked, Names(5, "CD"));
    order(CMD_TESTBATT);
    EXPECT_EQ(module.asked, Names{"TB"});
}

TEST_F(SystemPanel, SlaveLeavesItAlone) {
    plant.bus().setState(Slave);
    order(CMD_DELETE);
    EXPECT_TRUE(module.asked.empty());
    EXPECT_EQ(panel(), CMD_DELETE);
    plant.bus().setState(Master);
}

// The command's own thread must not need the data that the pass holds.
TEST_F(SystemPanel, DataStayLockedMeanwhile) {
    bool isLocked = false;
    module.onQuery = [&](const std::string&) {
        isLocked = !plant.in().mutexCABPData->tryLock();
        if (!isLocked) {
            plant.in().mutexCABPData->unlock();
        }
    };
    order(CMD_DELETE);
    EXPECT_TRUE(isLocked);
    EXPECT_TRUE(plant.in().mutexCABPData->tryLock());
    plant.in().mutexCABPData->unlock();
}

}  // namespace
