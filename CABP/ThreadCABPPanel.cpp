// The panel of the root node: commands to the whole system that other processes of the card have written there.
#include "CABP/AggregateInternal.h"
#include "CABP/ThreadCABP.h"
#include "Common/LogStep.h"
#include "Common/SysMgr.h"
#include "MLINK/ThreadMLINK.h"

namespace {

// What another process may change at any instant, read once.
struct Order {
    uint8 value;
    uint16 delay_shut;  // as the panel has them, in the module's unit
    uint16 delay_reboot;
    bool wrongPower;  // of the record that was just published
};

void shutdownSystem(MLINKMgr& link, const Order& order) {
    link.sysShutdown(order.delay_shut);
}

void restoreSystem(MLINKMgr& link, const Order& order) {
    if (!order.wrongPower) {
        link.sysRestore(order.delay_shut, order.delay_reboot);
    }
}

void deleteCommand(MLINKMgr& link, const Order& /*order*/) {
    link.sysDeleteCmd();
}

void testBatteries(MLINKMgr& link, const Order& /*order*/) {
    uint8 paramTB[3] = {'0', '0', '5'};
    link.sysBatteryTest(paramTB);
}

void refuse(MLINKMgr& /*link*/, const Order& order) {
    DBG_E_OF(aggr::OPERATION, "Comando (%d) non supportato!!\n", order.value);
}

struct PanelRow {
    cmdType_t value;
    void (*act)(MLINKMgr& link, const Order& order);
};
constexpr PanelRow panelTable[] = {
    {CMD_SHUTDOWN, shutdownSystem}, {CMD_REBOOT, restoreSystem}, {CMD_DELETE, deleteCommand},
    {CMD_TESTBATT, testBatteries},  {CMD_QPR_OFF, refuse},       {CMD_QPR_POWERON, refuse},
};

}  // namespace

// The caller holds mutexCABPData and is master; returns when the command is over.
void CABPMgr::runSystemPanel(virtualNode_t& root, const descSys_t& published) {
    const Order order = {root.panel.value, root.panel.delay_shut, root.panel.delay_reboot,
                         published.Ups.PMStatus.wrongPower != 0};
    if (order.value == CMD_NONE) {
        return;
    }
    bool isKnown = false;
    for (const PanelRow& row : panelTable) {
        if (row.value == order.value) {
            row.act(*pSysMgr->pThMLink, order);
            isKnown = true;
        }
    }
    if (!isKnown) {
        DBG_W_OF(aggr::OPERATION, "Valore non previsto (%d)\n", order.value);
    }
    root.panel.value = CMD_NONE;
}
