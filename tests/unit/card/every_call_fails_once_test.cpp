// A whole life of a card: start, rounds on both lines, orders from its panels, a BREAK, a time as slave, the orderly
// stop. Each library call in it fails once: the card neither falls nor hangs, and leaves neither memory nor descriptors
// behind.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "support/Faults.h"
#include "unit/card/Neighbours.h"

// Only there in programs with the address sanitizer: non-zero if memory was lost.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

using namespace modline;
namespace faults = support::faults;

constexpr int DESCRIPTORS = 64;
constexpr unsigned REAL_LIMIT_S = 100;  // of one life: some retry a command until the stop
constexpr std::int64_t STOP = 200 * SECOND;
constexpr std::int64_t LIMIT = 3600 * SECOND;

// Ends of a life, as exit codes.
enum End { FAULT_CAME = 10, NO_FAULT_CAME = 11, LOST_SOMETHING = 12 };

// Of files and devices, the fake ones included. What a library keeps for itself, as Qt its event counters, has no path.
std::size_t openFiles() {
    std::size_t count = 0;
    for (int fd = 0; fd < DESCRIPTORS; ++fd) {
        char target[2];
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        count += readlink(link.c_str(), target, 1) == 1 && target[0] == '/' ? 1 : 0;
    }
    return count;
}

// With a module that takes commands, of the master's cabinet.
void makeReady(Plant& plant, char letter) {
    setElemAlarm(plant.box(letter).desc.upsBox.subSystem.UPSShelter[0], faultAlarm);
    plant.comm(letter).isGood = true;
}

void orderBySystemPanel(Plant& plant) {
    makeReady(plant, 'A');
    plant.box('A').desc.upsBox.Ups.extStatus.isMaster = 1;
    plant.data('A').extendedBoardBox.idu = 1;
    plant.root().panel.delay_shut = 600;
    plant.root().panel.delay_reboot = 600;
    for (const cmdType_t order : {CMD_SHUTDOWN, CMD_REBOOT}) {
        plant.root().panel.value = order;
        VirtualClock::advance(SECOND);
        plant.bus().AggregateBox();
    }
}

void orderByModulePanels(Plant& plant) {
    for (const char letter : {'A', 'B'}) {
        makeReady(plant, letter);
        plant.module(letter).panel.value = CMD_QPR_OFF;
    }
    VirtualClock::advance(2 * SECOND);
    plant.inLink().aggregate('A');
}

void queueCommands(Plant& plant) {
    plant.bus().AddAsyncQC(bus::query(0xEB, "CU"));
    plant.link().AddAsyncQC(query("CD"), false);
    plant.link().RefreshClockModule('1');
    identification_t identification;
    plant.bus().GetIdentification('B', &identification);
}

void hear(Plant& plant, const Bytes& frame) {
    plant.line().feed(frame);
    plant.bus().StateMachine();
}

void actAsSlave(Plant& plant) {
    plant.line().receiveBreak();
    CABP_CheckBreak();
    if (cntBreakDetect != 0) {
        cntBreakDetect = 0;
        plant.bus().RecoveryBus();
    }
    plant.bus().setState(Slave);
    hear(plant, bus::frame(0xEB, 0xEA, "BS"));
    hear(plant, bus::frame(0xEB, 0xEA, "BN"));
    hear(plant, bus::frame(0xEB, 0xEA, "QT", modline::frame('B', '1', "GI")));
    hear(plant, bus::frame(0xEB, 0xEA, "QT", modline::frame('B', '1', "CD")));
    hear(plant, bus::frame(0xEC, 0xFF, "BS", Bytes(CABP_GetReplyDataLen(bus::query(0xEC, "BS")))));
    plant.bus().setState(Master);
}

void live() {
    Plant::Options options = withModule(0xEA, "AB");
    options.moduleBaud = 0;  // whole answers: fewer calls, of the same kinds
    Plant plant(options);
    card::Cabinets cabinets(plant.line());
    Module module(plant.moduleLine());
    module.thinks = 0;
    plant.registerAll();
    plant.inLink().state = MasterMLink;
    // A queued command on a dead line is tried again until the stop.
    VirtualClock::at(STOP, [&plant] {
        plant.bus().Stop();
        plant.link().Stop();
    });
    for (int pass = 0; pass < 9; ++pass) {
        plant.bus().StateMachine();
        plant.link().StateMachine();
    }
    if (plant.hasTree()) {
        orderBySystemPanel(plant);
        orderByModulePanels(plant);
    }
    queueCommands(plant);
    plant.bus().StateMachine();
    plant.link().StateMachine();
    actAsSlave(plant);
    for (int pass = 0; pass < 3; ++pass) {
        CABP_CheckBreak();
        plant.bus().StateMachine();
        plant.link().StateMachine();
    }
    plant.stop();
    const std::size_t open = plant.line().openCount() + plant.moduleLine().openCount();
    // A port that doesn't take its old settings back is left open and allocated, deliberately.
    if (open == 1 && faults::struck() == "tcsetattr") {
        _exit(FAULT_CAME);
    }
    if (open != 0) {
        std::printf("a port is still open\n");
        _exit(LOST_SOMETHING);
    }
    for (const auto& segment : plant.shm().segments()) {
        // A detachment that was refused leaves the segment to the end of the process.
        if (faults::struck().compare(0, 3, "shm") != 0) {
            std::printf("segment %d is still there\n", segment.first);
            _exit(LOST_SOMETHING);
        }
    }
}

// In a process of its own, so that what the units keep for its life begins anew.
[[noreturn]] void liveAndTell(std::size_t n, int error) {
    alarm(REAL_LIMIT_S);
    VirtualClock::setLimit(LIMIT);
    LogCapture quiet;
    const std::size_t before = openFiles();
    faults::arm(n, error);
    live();
    const std::string victim = faults::struck();
    const std::size_t calls = faults::counted();
    faults::arm(0, 0);
    const std::size_t after = openFiles();
    if (after != before) {
        std::printf("%zu descriptors before, %zu after\n", before, after);
        std::fflush(stdout);
        _exit(LOST_SOMETHING);
    }
    if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0) {
        _exit(LOST_SOMETHING);
    }
    if (victim.empty()) {
        std::printf("%zu calls\n", calls);
    }
    std::fflush(stdout);
    _exit(victim.empty() ? NO_FAULT_CAME : FAULT_CAME);
}

// Each test takes every eighth call of the life, so that they run side by side.
constexpr std::size_t SHARES = 8;
struct Share {
    int error;
    std::size_t first;
};
std::vector<Share> sharesOf(int error) {
    std::vector<Share> shares;
    for (std::size_t first = 1; first <= SHARES; ++first) {
        shares.push_back({error, first});
    }
    return shares;
}

void PrintTo(const Share& share, std::ostream* out) {
    *out << "from call " << share.first;
}

class EveryCallFailsOnce : public testing::TestWithParam<Share> {};

TEST_P(EveryCallFailsOnce, AndTheCardLivesOnToItsOrderlyStop) {
    std::fflush(stdout);
    for (std::size_t n = GetParam().first;; n += SHARES) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            liveAndTell(n, GetParam().error);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << "call " << n << ": signal " << WTERMSIG(status);
        if (WEXITSTATUS(status) == NO_FAULT_CAME) {
            EXPECT_GT(n, 500U) << "the life was cut short";
            return;
        }
        ASSERT_EQ(WEXITSTATUS(status), FAULT_CAME) << "call " << n;
    }
}

// As after a hang-up.
INSTANTIATE_TEST_SUITE_P(DeviceGone, EveryCallFailsOnce, testing::ValuesIn(sharesOf(EIO)));
// As after a signal.
INSTANTIATE_TEST_SUITE_P(Interrupted, EveryCallFailsOnce, testing::ValuesIn(sharesOf(EINTR)));

}  // namespace
