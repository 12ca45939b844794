// A tree made by hand, in a segment that never reaches the system: card A of the cabinets A and B.
#ifndef TESTS_UNIT_TOOLS_HANDMADE_H
#define TESTS_UNIT_TOOLS_HANDMADE_H

#include <sys/ipc.h>

#include <cstring>
#include <string>
#include <vector>

#include "Common/VirtualUPSTypes.h"
#include "support/FakeShm.h"
#include "support/ScratchDir.h"
#include "support/VirtualClock.h"
#include "tools/ugwctl/Failure.h"
#include "tools/ugwctl/Segment.h"

namespace handmade {

enum Index : std::size_t { ROOT, EXT, BOX_A, BOX_B, MODULE_A, MODULE_B, NODES };

inline virtualNode_t node(uint8 kind, uint8 index, const char* id) {
    virtualNode_t made;
    std::memset(static_cast<void*>(&made), 0, sizeof(made));
    made.nodetype = static_cast<node_t>(kind);
    made.idx = index;
    std::strcpy(made.ID, id);
    std::strcpy(made.Description, "a node");
    made.nxtBrother = made.prvBrother = made.son = made.ext = NULLNODE;
    made.panel.value = CMD_NONE;
    made.panel.delay_shut = made.panel.delay_reboot = 65535;
    return made;
}

inline std::vector<virtualNode_t> tree() {
    std::vector<virtualNode_t> nodes = {node(sysNode, ROOT, "SA"),
                                        node(extNode, EXT, ""),
                                        node(upsBoxNode, BOX_A, "SA.BA"),
                                        node(upsBoxNode, BOX_B, "SA.BB"),
                                        node(moduleNode, MODULE_A, "SA.BA.M1"),
                                        node(moduleNode, MODULE_B, "SA.BB.M1")};
    nodes[ROOT].ext = EXT;
    nodes[ROOT].son = BOX_A;
    nodes[BOX_A].nxtBrother = BOX_B;
    nodes[BOX_B].prvBrother = BOX_A;
    nodes[BOX_A].son = MODULE_A;
    nodes[BOX_B].son = MODULE_B;
    const time32_t now = static_cast<time32_t>(support::VirtualClock::START_OF_WALL);
    nodes[ROOT].nominal.timestamp = now;
    for (const std::size_t box : {BOX_A, BOX_B}) {
        nodes[box].desc.upsBox.Ups.timestamp = now;
        setElemAlarm(nodes[box].desc.upsBox.subSystem.UPSShelter[0], faultAlarm);
        setElemAlarm(nodes[ROOT].desc.sys.subSystem.UPSBox[box - BOX_A], noneAlarm);
    }
    for (const std::size_t module : {MODULE_A, MODULE_B}) {
        nodes[module].desc.module.statusDetail.timestamp = now;
    }
    return nodes;
}

/// What takeSnapshot would make of the tree.
inline ugwctl::Snapshot snapshot(std::vector<virtualNode_t> nodes = tree()) {
    ugwctl::Snapshot made;
    made.size = nodes.size() * sizeof(virtualNode_t);
    made.attached = 1;
    made.now = support::VirtualClock::START_OF_WALL + 3;
    made.nodes = std::move(nodes);
    return made;
}

/// The tree in a segment under the key of ./UGW, with a gateway attached.
class Card {
  public:
    explicit Card(const std::vector<virtualNode_t>& nodes = tree(), std::size_t size = NODES * sizeof(virtualNode_t))
        : dir_({"UGW"}) {
        shm.leaveBehind(ftok("./UGW", 1), size, 0x5A);
        shm.only().readers = 1;
        std::memcpy(shm.only().bytes.get(), nodes.data(), MIN(size, nodes.size() * sizeof(virtualNode_t)));
    }
    uint8* at(std::size_t index, std::size_t offset) {
        return shm.only().bytes.get() + index * sizeof(virtualNode_t) + offset;
    }

    support::FakeShm shm;

  private:
    support::ScratchDir dir_;
};

/// Status of the Failure that a call ends with, Done if it ends well.
template <typename Call>
ugwctl::ExitStatus statusOf(Call call) {
    try {
        call();
    } catch (const ugwctl::Failure& failure) {
        const std::string line = failure.what();
        return line.empty() || line.find('\n') != std::string::npos ? ugwctl::ExitStatus::Failed : failure.status();
    }
    return ugwctl::ExitStatus::Done;
}

}  // namespace handmade

#endif
