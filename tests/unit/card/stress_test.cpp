// Everything at once, on real threads: both links at work, four callers of single queries, orders from the panels,
// ports that go and come back, BREAKs, and in the middle of it the orderly stop.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include "support/Transcript.h"
#include "unit/card/Neighbours.h"

namespace {

using namespace modline;
using support::FakeLine;
using support::LineCall;

constexpr int LIVES = 3;
constexpr int TURNS = 20;                   // disturbances of a life before its stop
constexpr std::int64_t REAL_PAUSE_US = 50;  // of each virtual wait
constexpr int PATIENCE = 200000;            // such pauses: half a minute at most

constexpr uint8 UNTOUCHED = 0xCC;

// Cabinet B names this card as the next master.
Bytes handOver() {
    Bytes data(93);
    std::fill(data.begin(), data.begin() + 4, 0xFF);  // the build
    data[4] = 0xEA;
    data[5] = 3;
    return bus::frame(0xEB, 0xFF, "CN", data);
}

// The record of a cabinet whose module takes commands.
Bytes readyCabinet() {
    descUpsBox_t box;
    std::memset(&box, 0, sizeof(box));
    setElemAlarm(box.subSystem.UPSShelter[0], faultAlarm);
    Bytes data(BSDATALEN);
    std::memcpy(data.data(), &box, sizeof(box));
    return data;
}

// Another process of the card, which has no lock to take. No sanitizer of this process would see it.
__attribute__((no_sanitize_thread)) void orderFromOutside(virtualNode_t& root, virtualNode_t& own, virtualNode_t& other,
                                                          int turn) {
    static constexpr cmdType_t orders[] = {CMD_SHUTDOWN, CMD_DELETE, CMD_TESTBATT, CMD_REBOOT};
    own.desc.module.data.extStatus.isMaster = 1;
    root.panel.delay_shut = 600;
    root.panel.delay_reboot = 600;
    root.panel.value = orders[turn % 4];
    own.panel.value = turn % 2 == 0 ? CMD_QPR_OFF : CMD_QPR_POWERON;
    other.panel.value = turn % 2 == 0 ? CMD_QPR_POWERON : CMD_QPR_OFF;
}

class Stress : public testing::Test {
  protected:
    enum Caller { ToCabinet, ToCabinetToo, ToOwnModule, ToOtherModule, CALLERS };

    // One query after the other until the stop; the last one is waited for.
    template <class Manager, class Insert>
    void ask(Caller caller, Manager& manager, const Insert& insert, int wait, uint8 expected) {
        while (!stopped) {
            Bytes reply(32, UNTOUCHED);
            int status = 99;
            auto* const exchange = insert(reply.data(), &status);
            while (!manager.WaitSingleQC(exchange, wait)) {
            }
            answered[caller] += status == 0 && reply[0] == expected ? 1 : 0;
            ++asked;
        }
    }
    void askTheBus(Caller caller) {
        pckStruct query = bus::query(0xEB, "CU");
        ask(
            caller, plant->bus(),
            [&](uint8* reply, int* status) { return plant->bus().InsertSingleQC(query, 1, reply, status); },
            WAIT_CABPSQC, 0);
    }
    void askTheModule(Caller caller, uint8 boxId) {
        pckStruct command = query("GE", nullptr, '1', static_cast<uint8>('A' + boxId));
        ask(
            caller, plant->link(),
            [&](uint8* reply, int* status) { return plant->link().InsertSingleQC(boxId, command, 16, reply, status); },
            WAIT_MLINKSQC, '0');
    }

    // Until it is so, or the stop has been asked for.
    template <class Condition>
    void await(const char* what, const Condition& condition) {
        for (int i = 0; i < PATIENCE; ++i) {
            if (stopped || condition()) {
                return;
            }
            VirtualClock::giveWay();
        }
        if (!hasLostPatience.exchange(true)) {
            ADD_FAILURE() << what << ": not within patience";
        }
    }
    void awaitSlave() {
        await("the role is given up", [this] { return plant->in().state == Slave; });
        ++demotions;
    }
    // No master is left after a BREAK: somebody has to hand the role back. One frame at a time, as it may get lost.
    void giveRoleBack() {
        FakeLine& line = plant->line();
        await("the role is taken again", [&] {
            if (plant->in().state == Master) {
                return true;
            }
            if (line.waiting() + line.onTheWay() == 0) {
                line.feed(handOver());
            }
            return false;
        });
    }
    void loseWhileWaiting(FakeLine& line) {
        const std::size_t opened = line.calls(LineCall::Open);
        await("a port is opened again", [&] {
            if (!line.hasFaultsLeft()) {
                line.fail(LineCall::Read, EIO);
            }
            return line.calls(LineCall::Open) > opened;
        });
        line.clearFaults();
    }
    void breakBySignal() {
        raise(SIGINT);
        awaitSlave();
        giveRoleBack();
    }
    void breakOnTheLine() {
        plant->line().receiveBreak();
        awaitSlave();
        giveRoleBack();
    }
    void replaceBusPort() {
        FakeLine& line = plant->line();
        const std::size_t opened = line.calls(LineCall::Open);
        line.hangUp();
        line.plugIn();
        raise(SIGINT);  // a master would not open it again
        await("a new port is opened", [&] { return line.calls(LineCall::Open) > opened; });
        giveRoleBack();
    }
    void loseBusPort() {
        loseWhileWaiting(plant->line());
        giveRoleBack();
    }
    void loseModulePort() { loseWhileWaiting(plant->moduleLine()); }

    void disturb(bool endsAsSlave) {
        static constexpr void (Stress::*disturbances[])() = {&Stress::breakBySignal, &Stress::loseModulePort,
                                                             &Stress::breakOnTheLine, &Stress::loseBusPort,
                                                             &Stress::replaceBusPort};
        virtualNode_t& root = plant->root();
        virtualNode_t& own = plant->module('A');
        virtualNode_t& other = plant->module('B');
        while (!stopped) {
            (this->*disturbances[static_cast<std::size_t>(turns) % std::size(disturbances)])();
            orderFromOutside(root, own, other, turns);
            const int before = asked;
            await("the callers get on", [&] { return asked >= before + CALLERS; });
            if (endsAsSlave && turns == TURNS - 1) {
                raise(SIGINT);
                awaitSlave();
                ++turns;
                return;
            }
            ++turns;
        }
    }

    // The stop finds a master in the midst of a disturbance, or a slave for whose promotion callers are waiting.
    void live(bool endsAsSlave) {
        stopped = false;
        turns = 0;
        plant = std::make_unique<Plant>(withModule(0xEA, "AB"));
        card::Cabinets cabinets(plant->line());
        cabinets.answers["BS"] = readyCabinet();
        Module module(plant->moduleLine());
        plant->threads().start();
        plant->bus().start();
        await("the module's first round", [this] { return plant->link().getIteration() >= 1; });
        std::vector<std::thread> threads;
        threads.emplace_back([this] { askTheBus(ToCabinet); });
        threads.emplace_back([this] { askTheBus(ToCabinetToo); });
        threads.emplace_back([this] { askTheModule(ToOwnModule, 0); });
        threads.emplace_back([this] { askTheModule(ToOtherModule, 1); });
        threads.emplace_back([&] { disturb(endsAsSlave); });
        await("the disturbances", [this] { return turns >= TURNS; });
        // The stop, while all of them go on; what they have begun ends afterwards.
        plant->bus().Stop();
        EXPECT_TRUE(plant->bus().wait(30000));
        plant->link().Stop();
        EXPECT_TRUE(plant->link().wait(30000));
        stopped = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
        plant->stop();
        EXPECT_EQ(plant->line().openCount(), 0U);
        EXPECT_EQ(plant->moduleLine().openCount(), 0U);
        EXPECT_TRUE(plant->shm().segments().empty());
        for (const char* const command : {"CS", "CD", "TB", "CR"}) {
            bySystemPanel += count(module, command);
        }
        byOwnPanel += count(module, "DC");
        byOtherPanel += cabinets.tunnelled["DC"];
        plant.reset();
    }
    static std::ptrdiff_t count(const Module& module, const std::string& command) {
        return std::count(module.asked.begin(), module.asked.end(), command);
    }

    std::unique_ptr<Plant> plant;
    std::atomic<bool> stopped{false};
    std::atomic<bool> hasLostPatience{false};
    std::atomic<int> turns{0};
    std::atomic<int> asked{0};
    std::atomic<int> answered[CALLERS] = {};
    std::atomic<int> demotions{0};
    // Orders that were carried out.
    std::ptrdiff_t bySystemPanel = 0;
    std::ptrdiff_t byOwnPanel = 0;
    std::ptrdiff_t byOtherPanel = 0;
};

TEST_F(Stress, EverythingAtOnceEndsInOrder) {
    const LogCapture quiet;
    support::Transcript::withWaits(false);
    VirtualClock::setRealPause(REAL_PAUSE_US);
    for (int life = 0; life < LIVES; ++life) {
        live(life % 2 == 1);
    }
    std::printf("%d queries, answered %d %d %d %d; %d BREAKs; orders %td %td %td\n", asked.load(),
                answered[ToCabinet].load(), answered[ToCabinetToo].load(), answered[ToOwnModule].load(),
                answered[ToOtherModule].load(), demotions.load(), bySystemPanel, byOwnPanel, byOtherPanel);
    for (const std::atomic<int>& caller : answered) {
        EXPECT_GE(caller, LIVES * TURNS / 4);
    }
    EXPECT_GE(demotions, LIVES * TURNS * 2 / 5);
    EXPECT_GE(bySystemPanel, LIVES);
    EXPECT_GE(byOwnPanel, LIVES);
    EXPECT_GE(byOtherPanel, LIVES);
}

}  // namespace
