// A card whose module feeds the load, aggregated by the test: shared by the tests of the record and of the panels.
#ifndef TESTS_UNIT_MLINK_MODULEAGGREGATION_H
#define TESTS_UNIT_MLINK_MODULEAGGREGATION_H

#include <cstring>

#include "MLINK/ThreadMLINK.h"
#include "unit/MLINK/ModuleLine.h"

namespace modline {

using Names = std::vector<std::string>;

class ModuleAggregation : public OnTheLine {
  protected:
    ModuleAggregation() : node(plant.module('A')), m(node.desc.module.data), detail(node.desc.module.statusDetail) {
        comm().isGood = true;
        makeWell();
        log.clear();
    }
    /// Feeds the load from the line; no alarm, all switches closed.
    void makeWell() {
        std::memset(&m, 0, sizeof(m));
        std::memset(&detail, 0, sizeof(detail));
        m.status.Output_Powered = 1;
        m.status.Line_Present = 1;
        m.extStatus.UPS_OK = 1;
        m.switchStatus.Q1 = 1;
        m.switchStatus.Bt_present = 1;
        m.Vbatp = 270;
        m.Vbatn = 271;
        m.VbatRS = 540;
        m.Aut_time = 3600;
        m.Carica_adj = 90;
        m.Frq_in = m.Frq_byp = m.Frq_out = 500;
        root().status.Output_Powered = 1;
    }
    void run(std::int64_t ms = 1001) {
        VirtualClock::advance(ms * MS);
        in().aggregate('A');
    }
    void runs(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            run(1001);
        }
    }
    descUpsBox_t& box() { return plant.box('A').desc.upsBox; }
    dataObject_t& ups() { return box().Ups; }
    dataObject_t& root() { return plant.root().desc.sys.Ups; }
    uint8& idu() { return plant.data('A').extendedBoardBox.idu; }
    alarmStatus_t shelter() { return elemAlarm(box().subSystem.UPSShelter[0]); }
    static time32_t now() { return static_cast<time32_t>(VirtualClock::wall() / SECOND); }

    virtualNode_t& node;
    dataObject_t& m;
    statusCoding_t& detail;
};

}  // namespace modline

#endif
