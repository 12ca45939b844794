// A module that asks for the time while the aggregation runs.
#include "unit/MLINK/ModuleAggregation.h"

namespace {

using namespace modline;

class ModulesClock : public ModuleAggregation {};

TEST_F(ModulesClock, IsSetAtEachRunUntilTheRequestIsGone) {
    m.extStatus.Clock_Update = 1;
    bool isLocked = false;
    module.onQuery = [&](const std::string&) {
        isLocked = !plant.in().mutexCABPData->tryLock();
        if (!isLocked) {
            plant.in().mutexCABPData->unlock();
        }
    };
    run();
    EXPECT_EQ(module.frames, std::vector<Bytes>{frame(0x20, '1', "ST", text("010324120001"))});
    EXPECT_TRUE(isLocked);
    EXPECT_EQ(ups().extStatus.byte, 0x81) << "the request shows in the cabinet";
    run();
    EXPECT_EQ(module.asked, (Names{"ST", "ST"}));
    m.extStatus.Clock_Update = 0;
    run();
    EXPECT_EQ(module.asked.size(), 2U);
}

// The wait for the module's answer lies within the run: what is measured counts from its begin, the record from its
// end.
TEST_F(ModulesClock, RunThatWaitsForItKeepsTheTimeOfItsBegin) {
    for (const bool isDead : {false, true}) {
        m.extStatus.Clock_Update = 1;
        module.thinks = 900 * MS;
        module.dead = isDead;
        VirtualClock::advance(2 * SECOND);
        VirtualClock::setWall(VirtualClock::wall() / SECOND + 1);  // the very begin of a second
        VirtualClock::advance(500 * MS);
        const time32_t begun = now();
        in().aggregate('A');
        const time32_t over = now();
        ASSERT_EQ(over, begun + 1);
        EXPECT_EQ(ups().timestamp, begun) << isDead;
        EXPECT_EQ(plant.box('A').nominal.timestamp, begun);
        EXPECT_EQ(box().timestamp, over);
        EXPECT_EQ(log.contains("Errore nell'aggiornamento dell'orologio"), isDead);
        EXPECT_EQ(ups().Vbatp, 270) << "a clock that can't be set stops nothing";
        // The next second has been running since the begin.
        VirtualClock::advance(200 * MS);
        m.extStatus.Clock_Update = 0;
        m.Vbatp = 280;
        in().aggregate('A');
        EXPECT_EQ(ups().Vbatp, 280);
        makeWell();
    }
}

}  // namespace
