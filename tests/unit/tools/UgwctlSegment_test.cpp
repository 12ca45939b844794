#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/shm.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "HandMade.h"
#include "support/Replaced.h"

namespace {

using handmade::Card;
using handmade::statusOf;
using support::VirtualClock;
using ugwctl::ExitStatus;
using ugwctl::Snapshot;
using ugwctl::takeSnapshot;
namespace replaced = support::replaced;

constexpr std::size_t NODE = sizeof(virtualNode_t);
constexpr std::size_t DESCRIPTION = offsetof(virtualNode_t, Description);
constexpr std::size_t PANEL = offsetof(virtualNode_t, panel);

ExitStatus statusOfLook() {
    return statusOf([] { takeSnapshot("."); });
}

TEST(Snapshot, HoldsTheTreeAndLeavesNothingAttached) {
    Card card;
    const Snapshot snapshot = takeSnapshot(".");
    ASSERT_EQ(snapshot.nodes.size(), 6U);
    EXPECT_EQ(std::memcmp(snapshot.nodes.data(), card.shm.only().bytes.get(), 6 * NODE), 0);
    EXPECT_EQ(snapshot.attached, 1U);
    EXPECT_EQ(snapshot.size, 6 * NODE);
    EXPECT_EQ(snapshot.age(), 0);
    EXPECT_EQ(card.shm.only().attached, 0U);
}

TEST(Snapshot, IsTakenReadOnly) {
    Card card;
    takeSnapshot(".");
    EXPECT_EQ(std::get<2>(replaced::shmget().call(0)), 0) << "asks for no right";
    ASSERT_EQ(replaced::shmat().count(), 1U);
    EXPECT_EQ(std::get<2>(replaced::shmat().call(0)), SHM_RDONLY);
}

TEST(Snapshot, WaitsUntilTwoCopiesAgree) {
    Card card;
    uint8* const letter = card.at(handmade::BOX_B, DESCRIPTION);
    int writes = 0;
    VirtualClock::onWait([&](const VirtualClock::Wait&) {
        if (writes < 30) {
            *letter = static_cast<uint8>('A' + ++writes % 26);
        }
    });
    const Snapshot snapshot = takeSnapshot(".");
    EXPECT_EQ(static_cast<uint8>(snapshot.nodes[handmade::BOX_B].Description[0]), *letter);
    EXPECT_EQ(writes, 30);
}

TEST(Snapshot, SaysSoIfNoTwoCopiesEverAgree) {
    Card card;
    uint8* const letter = card.at(handmade::BOX_B, DESCRIPTION);
    VirtualClock::onWait([&](const VirtualClock::Wait&) { ++*letter; });
    VirtualClock::setLimit(10000000);
    EXPECT_EQ(statusOfLook(), ExitStatus::Torn);
    EXPECT_EQ(card.shm.only().attached, 0U);
}

TEST(Snapshot, NeedsAFileAndASegment) {
    support::FakeShm shm;
    support::ScratchDir dir({"UGW"});
    EXPECT_EQ(statusOfLook(), ExitStatus::NoSegment);
    EXPECT_EQ(statusOf([] { takeSnapshot("/nowhere"); }), ExitStatus::NoSegment);
}

TEST(Snapshot, TellsWhatIsNotPermitted) {
    Card card;
    replaced::shmget().failsOnCall(1, EACCES);
    EXPECT_EQ(statusOfLook(), ExitStatus::NoSegment);
    replaced::shmctl().failsOnCall(1, EACCES);
    EXPECT_EQ(statusOfLook(), ExitStatus::NoSegment);
    replaced::shmat().failsOnCall(1, EACCES);
    EXPECT_EQ(statusOfLook(), ExitStatus::NoSegment);
    EXPECT_EQ(statusOfLook(), ExitStatus::Done);
}

TEST(Snapshot, RefusesEverySegmentThatIsTooShort) {
    for (const std::size_t size : {std::size_t{1}, NODE, 4 * NODE - 1, 4 * NODE, 5 * NODE, 6 * NODE - 1}) {
        Card card(handmade::tree(), size);
        EXPECT_EQ(statusOfLook(), ExitStatus::BadSegment) << size;
        EXPECT_EQ(card.shm.only().attached, 0U);
    }
}

TEST(Snapshot, LeavesTheRestOfALargerSegmentAlone) {
    for (const std::size_t size : {6 * NODE + 1, 7 * NODE, 10 * NODE, 300 * NODE}) {
        Card card(handmade::tree(), size);
        EXPECT_EQ(takeSnapshot(".").nodes.size(), 6U) << size;
    }
}

TEST(Snapshot, FollowsNoLinkOutOfTheTree) {
    using Change = void (*)(std::vector<virtualNode_t>&);
    const Change changes[] = {
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::ROOT].nodetype = extNode; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::ROOT].ext = 0; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::EXT].nodetype = sysNode; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::ROOT].son = NULLNODE; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::ROOT].son = 254; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::BOX_A].nxtBrother = 6; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::BOX_B].nxtBrother = handmade::BOX_A; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::BOX_A].nxtBrother = handmade::MODULE_A; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::BOX_B].ID[4] = 'E'; },
        [](std::vector<virtualNode_t>& nodes) { nodes[handmade::BOX_A].son = 200; },
    };
    for (const Change change : changes) {
        std::vector<virtualNode_t> nodes = handmade::tree();
        change(nodes);
        Card card(nodes);
        EXPECT_EQ(statusOfLook(), ExitStatus::BadSegment) << &change - changes;
    }
}

TEST(Gateway, IsDeadIfNobodyIsAttachedOrTheTreeIsOld) {
    Card card;
    EXPECT_EQ(ugwctl::deathOf(takeSnapshot(".")), "");
    card.shm.only().readers = 0;
    EXPECT_EQ(statusOf([] { requireLive(takeSnapshot(".")); }), ExitStatus::DeadGateway);
    card.shm.only().readers = 1;
    VirtualClock::setWall(VirtualClock::START_OF_WALL + ugwctl::DEAD_AFTER);
    EXPECT_EQ(ugwctl::deathOf(takeSnapshot(".")), "");
    VirtualClock::setWall(VirtualClock::START_OF_WALL + ugwctl::DEAD_AFTER + 1);
    EXPECT_EQ(statusOf([] { requireLive(takeSnapshot(".")); }), ExitStatus::DeadGateway);
}

TEST(Gateway, ThatHasJustStartedIsAlive) {
    std::vector<virtualNode_t> nodes = handmade::tree();
    nodes[handmade::ROOT].nominal.timestamp = 0;
    Card card(nodes);
    EXPECT_EQ(takeSnapshot(".").age(), -1);
    EXPECT_EQ(ugwctl::deathOf(takeSnapshot(".")), "");
}

TEST(Node, IsFoundByItsIdWithOrWithoutTheSystem) {
    const Snapshot snapshot = handmade::snapshot();
    EXPECT_EQ(findNode(snapshot, "SA"), 0U);
    EXPECT_EQ(findNode(snapshot, "SA.BB"), 3U);
    EXPECT_EQ(findNode(snapshot, "BB.M1"), 5U);
    for (const char* id : {"", "SB", "SA.BC", "SA.B", "SA.BB.", "-"}) {
        EXPECT_EQ(statusOf([&] { findNode(snapshot, id); }), ExitStatus::NoNode) << id;
    }
}

TEST(Reachability, IsTheRootsAndTheCabinets) {
    std::vector<virtualNode_t> nodes = handmade::tree();
    setElemAlarm(nodes[handmade::BOX_A].desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    nodes[handmade::ROOT].desc.sys.subSystem.UPSBox[1].desc = 0xF8;  // the upper bits have no meaning
    const Snapshot snapshot = handmade::snapshot(nodes);
    EXPECT_TRUE(snapshot.cabinetReachable(0));
    EXPECT_FALSE(snapshot.moduleReachable(0));
    EXPECT_FALSE(snapshot.cabinetReachable(1));
    EXPECT_FALSE(snapshot.moduleReachable(1));
    EXPECT_FALSE(snapshot.cabinetReachable(2));
}

TEST(Panel, IsWrittenWhereTheNodeIs) {
    Card card;
    const Snapshot snapshot = takeSnapshot(".");
    std::vector<uint8> before(card.at(0, 0), card.at(0, 0) + 6 * NODE);
    EXPECT_TRUE(writePanel(snapshot, handmade::MODULE_B, CMD_QPR_OFF, 0x1234, 65535));
    const uint8 expected[] = {CMD_QPR_OFF, 0x34, 0x12, 0xFF, 0xFF};
    std::memcpy(&before[handmade::MODULE_B * NODE + PANEL], expected, sizeof(expected));
    EXPECT_EQ(std::memcmp(before.data(), card.at(0, 0), before.size()), 0);
    EXPECT_EQ(readPanel(snapshot, handmade::MODULE_B), CMD_QPR_OFF);
    EXPECT_EQ(card.shm.only().attached, 0U);
}

/// What the first bytes of a panel were, one after the other, while a process of its own did something to them: looked
/// at between any two of its instructions.
std::vector<std::array<uint8, 5>> statesOf(const uint8* panel, bool (*act)(const Snapshot&), const Snapshot& snapshot) {
    const pid_t writer = fork();
    if (writer == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == -1) {
            _exit(2);
        }
        raise(SIGSTOP);
        _exit(act(snapshot) ? 0 : 1);
    }
    std::vector<std::array<uint8, 5>> states;
    int status = 0;
    while (waitpid(writer, &status, 0) == writer && WIFSTOPPED(status)) {
        std::array<uint8, 5> now{};
        const iovec here = {now.data(), now.size()};
        const iovec there = {const_cast<uint8*>(panel), now.size()};
        if (process_vm_readv(writer, &here, 1, &there, 1, 0) == static_cast<ssize_t>(now.size()) &&
            (states.empty() || states.back() != now)) {
            states.push_back(now);
        }
        ptrace(PTRACE_SINGLESTEP, writer, nullptr, nullptr);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 1) << status;
    return states;
}

TEST(Panel, GetsItsDelaysBeforeItsValue) {
    Card card;
    const Snapshot snapshot = takeSnapshot(".");
    const auto states = statesOf(
        card.at(0, PANEL), [](const Snapshot& tree) { return writePanel(tree, 0, CMD_REBOOT, 0x1234, 0x5678); },
        snapshot);
    if (states.empty()) {
        GTEST_SKIP() << "no process can be watched here";
    }
    ASSERT_GE(states.size(), 3U);
    EXPECT_EQ(states.back(), (std::array<uint8, 5>{CMD_REBOOT, 0x34, 0x12, 0x78, 0x56}));
    for (std::size_t i = 0; i + 1 < states.size(); ++i) {
        EXPECT_EQ(states[i][0], CMD_NONE) << "the value was there before the delays, at state " << i;
    }
}

TEST(Panel, ThatIsTakenStaysAsItIs) {
    Card card;
    const Snapshot snapshot = takeSnapshot(".");
    *card.at(0, PANEL) = CMD_DELETE;
    EXPECT_FALSE(writePanel(snapshot, 0, CMD_SHUTDOWN, 1, 2));
    EXPECT_EQ(*card.at(0, PANEL), CMD_DELETE);
    EXPECT_EQ(*card.at(0, PANEL + 1), 0xFF);
}

TEST(Panel, GivesBackOnlyTheOwnCommand) {
    Card card;
    const Snapshot snapshot = takeSnapshot(".");
    EXPECT_FALSE(withdrawPanel(snapshot, 0, CMD_SHUTDOWN)) << "somebody has taken it";
    *card.at(0, PANEL) = CMD_SHUTDOWN;
    EXPECT_TRUE(withdrawPanel(snapshot, 0, CMD_SHUTDOWN));
    EXPECT_EQ(*card.at(0, PANEL), CMD_NONE);
}

}  // namespace
