#include "tools/ugwctl/Orders.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "tools/ugwctl/Failure.h"
#include "tools/ugwctl/Fields.h"
#include "tools/ugwctl/Segment.h"
#include "tools/ugwctl/Text.h"

namespace ugwctl {
namespace {

constexpr uint16 NOT_SET = 65535;
constexpr long POLL = 50000000;  // ns between two looks at the panel
constexpr std::size_t ANSWER_ROOM = 16;

struct OrderRow {
    Command command;
    const char* argument;  // of a module's command
    uint8 value;
    bool takesShut;
    bool takesReboot;
    const char* question;
};
constexpr OrderRow orderTable[] = {
    {Command::Shutdown, nullptr, CMD_SHUTDOWN, true, false, "Shut the whole plant down"},
    {Command::Restore, nullptr, CMD_REBOOT, true, true, "Shut the whole plant down and start it again"},
    {Command::Cancel, nullptr, CMD_DELETE, false, false, "Cancel the shutdown of the plant"},
    {Command::BatteryTest, nullptr, CMD_TESTBATT, false, false, "Test the batteries of the plant"},
    {Command::Module, "on", CMD_QPR_POWERON, false, false, "Turn on the module"},
    {Command::Module, "off", CMD_QPR_OFF, false, false, "Turn off the module"},
};

/// A command with all that is written for it.
struct Order {
    const OrderRow* row = nullptr;
    std::size_t node = 0;
    std::string id;
    uint16 delayShut = NOT_SET;
    uint16 delayReboot = NOT_SET;
    std::string name() const { return commandNames.find(row->value); }
};

/// Keeps other runs of this program from writing at the same time: a lock on the file that names the segment.
class Turn {
  public:
    explicit Turn(const std::string& dir) : file_(open((dir + "/UGW").c_str(), O_RDONLY | O_CLOEXEC)) {
        if (file_ == -1 || flock(file_, LOCK_EX | LOCK_NB) == -1) {
            const int error = errno;
            if (file_ != -1) {
                close(file_);
            }
            throw error == EWOULDBLOCK ? Failure(ExitStatus::Pending, "another ugwctl is giving a command")
                                       : Failure(ExitStatus::NoSegment, format("%s/UGW can't be locked: %s",
                                                                               dir.c_str(), std::strerror(error)));
        }
    }
    ~Turn() { close(file_); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

  private:
    int file_;
};

Order orderOf(const Options& options, const Snapshot& snapshot) {
    Order order;
    for (const OrderRow& row : orderTable) {
        if (row.command == options.command && (row.argument == nullptr || options.arguments[1] == row.argument)) {
            order.row = &row;
        }
    }
    if (options.command == Command::Module) {
        order.node = findNode(snapshot, options.arguments[0]);
        if (snapshot.nodes[order.node].nodetype != moduleNode) {
            throw Failure(ExitStatus::NoNode, idOf(snapshot.nodes[order.node]) + " isn't a module");
        }
    }
    order.id = idOf(snapshot.nodes[order.node]);
    if (order.row->takesShut) {
        order.delayShut = options.delayShut;
    }
    if (order.row->takesReboot) {
        order.delayReboot = options.delayReboot;
    }
    return order;
}

void refuseIfPending(const Snapshot& snapshot) {
    for (const virtualNode_t& node : snapshot.nodes) {
        if (node.nodetype != extNode && node.panel.value != CMD_NONE) {
            const char* const name = commandNames.find(node.panel.value);
            throw Failure(ExitStatus::Pending, format("another command is pending on %s: %s", idOf(node).c_str(),
                                                      name != nullptr ? name : format("%d", node.panel.value).c_str()));
        }
    }
}

// What a person should know beforehand: the gateway takes these commands but they have no effect.
void warn(const Snapshot& snapshot, const Order& order) {
    const bool isSystem = order.node == 0;
    bool hasMaster = false;
    for (int cabinet = 0; cabinet < MAXUPSBOX; ++cabinet) {
        const virtualNode_t* const box = snapshot.cabinetNode(cabinet);
        hasMaster = hasMaster || (box != nullptr && box->desc.upsBox.Ups.extStatus.isMaster != 0);
    }
    if (isSystem && !hasMaster) {
        std::fprintf(stderr, "ugwctl: warning: no module is marked as master, the gateway has nobody to send it to\n");
    }
    const virtualNode_t& node = snapshot.nodes[order.node];
    const bool wrongPower =
        isSystem ? node.desc.sys.Ups.PMStatus.wrongPower != 0 : node.desc.module.data.PMStatus.wrongPower != 0;
    if (wrongPower && (order.row->value == CMD_REBOOT || order.row->value == CMD_QPR_POWERON)) {
        std::fprintf(stderr, "ugwctl: warning: wrongPower is set in %s, the gateway drops this command\n",
                     order.id.c_str());
    }
    if (!isSystem && !snapshot.moduleReachable(cabinetOf(node))) {
        std::fprintf(stderr, "ugwctl: warning: %s is lost, the gateway can't send it anything\n", order.id.c_str());
    }
}

void confirm(const Order& order) {
    std::fprintf(stderr, "%s (%s)? [y/N] ", order.row->question, order.id.c_str());
    std::fflush(stderr);
    char answer[ANSWER_ROOM] = "";
    if (std::fgets(answer, sizeof(answer), stdin) == nullptr || (answer[0] != 'y' && answer[0] != 'Y')) {
        throw Failure(ExitStatus::NotConfirmed, "not confirmed, nothing was written");
    }
}

std::int64_t monotonicMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Milliseconds until the gateway took it.
std::int64_t waitTaken(const Snapshot& snapshot, const Order& order, int timeout) {
    const std::int64_t start = monotonicMs();
    while (readPanel(snapshot, order.node) == order.row->value) {
        if (monotonicMs() - start >= static_cast<std::int64_t>(timeout) * 1000) {
            // A command must not lie there until somebody comes by.
            if (!withdrawPanel(snapshot, order.node, order.row->value)) {
                break;
            }
            throw Failure(
                ExitStatus::NotTaken,
                format(
                    "nobody has taken %s on %s within %d s, it was withdrawn%s", order.name().c_str(), order.id.c_str(),
                    timeout,
                    order.node == 0 ? "; only the card that is master of the bus takes commands to the system" : ""));
        }
        struct timespec pause = {0, POLL};
        nanosleep(&pause, nullptr);
    }
    return monotonicMs() - start;
}

void printDryRun(const Snapshot& snapshot, const Order& order) {
    const std::size_t at = order.node * sizeof(virtualNode_t) + offsetof(virtualNode_t, panel);
    const std::size_t shut = at + offsetof(panel_t, delay_shut);
    const std::size_t reboot = at + offsetof(panel_t, delay_reboot);
    std::printf("segment %d, panel of %s:\n", snapshot.id, order.id.c_str());
    std::printf("  offset %zu  delay_shut    %d%s\n", shut, order.delayShut, order.row->takesShut ? "" : " (not set)");
    std::printf("  offset %zu  delay_reboot  %d%s\n", reboot, order.delayReboot,
                order.row->takesReboot ? "" : " (not set)");
    std::printf("  offset %zu  value         %d (%s)\n", at, order.row->value, order.name().c_str());
}

}  // namespace

void giveOrder(const Options& options) {
    Snapshot snapshot = takeSnapshot(options.dir);
    requireLive(snapshot);
    const Order order = orderOf(options, snapshot);
    refuseIfPending(snapshot);
    warn(snapshot, order);
    if (options.dryRun) {
        printDryRun(snapshot, order);
        return;
    }
    if (!options.yes && isatty(STDIN_FILENO) == 1) {
        confirm(order);
        // The answer may have taken its time.
        snapshot = takeSnapshot(options.dir);
        requireLive(snapshot);
        refuseIfPending(snapshot);
    }
    const Turn turn(options.dir);
    if (!writePanel(snapshot, order.node, order.row->value, order.delayShut, order.delayReboot)) {
        throw Failure(ExitStatus::Pending, format("another command got to %s first", order.id.c_str()));
    }
    const std::int64_t ms = waitTaken(snapshot, order, options.timeout);
    std::printf("the gateway has taken %s on %s after %.1f s\n", order.name().c_str(), order.id.c_str(),
                static_cast<double>(ms) / 1000);
}

}  // namespace ugwctl
