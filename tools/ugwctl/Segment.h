// The tree in shared memory, as a program beside the gateway sees it.
//
// The gateway's writers take no lock that this process could take, so a node is copied until two copies agree. Nothing
// stays attached between two looks: a gateway that stops in order waits for its readers.
#ifndef TOOLS_UGWCTL_SEGMENT_H
#define TOOLS_UGWCTL_SEGMENT_H

#include <sys/ipc.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Common/VirtualUPSTypes.h"

namespace ugwctl {

/// Seconds without a sign of the gateway after which it counts as dead, and after which a reader is warned. A card
/// that waits to hear the bus may be silent for two minutes.
constexpr std::int64_t DEAD_AFTER = 180;
constexpr std::int64_t OLD_AFTER = 10;

/// A whole copy of the tree and what is known of its segment.
struct Snapshot {
    key_t key = 0;
    int id = -1;
    std::size_t size = 0;        // bytes of the segment
    unsigned long attached = 0;  // processes that were attached before us
    std::int64_t now = 0;        // wall time of the copy, s
    std::vector<virtualNode_t> nodes;

    const virtualNode_t& root() const { return nodes.front(); }
    /// Seconds since the gateway last worked on the tree; negative if it never did.
    std::int64_t age() const;
    bool hasCabinet(int cabinet) const { return cabinetNode(cabinet) != nullptr; }
    /// Node of cabinet 0 to 3, of its module; null if there is none.
    const virtualNode_t* cabinetNode(int cabinet) const;
    const virtualNode_t* moduleNode(int cabinet) const;
    /// True if the system hears the cabinet; if its module is heard too.
    bool cabinetReachable(int cabinet) const;
    bool moduleReachable(int cabinet) const;
};

/// Copies the tree of the gateway that works in `dir`, attached for reading only. Throws Failure: NoSegment,
/// BadSegment, Torn.
Snapshot takeSnapshot(const std::string& dir);
/// Throws Failure (DeadGateway) if nobody keeps the tree up to date.
void requireLive(const Snapshot& snapshot);
/// Why the gateway of a snapshot counts as dead; empty if it doesn't.
std::string deathOf(const Snapshot& snapshot);

/// Index of the node with an ID such as "SA.BB.M1", "BB.M1" or "SA". Throws Failure (NoNode).
std::size_t findNode(const Snapshot& snapshot, const std::string& id);
/// ID of a node, fit for a terminal.
std::string idOf(const virtualNode_t& node);
/// Cabinet 0 to 3 of a cabinet's or module's node; -1 if its ID names none.
int cabinetOf(const virtualNode_t& node);

/// Writes a command into a panel: the delays first, the value last. The segment must still be the one of the
/// snapshot. False if a command has got there in the meantime. Throws Failure.
bool writePanel(const Snapshot& snapshot, std::size_t node, uint8 value, uint16 delayShut, uint16 delayReboot);
/// Value in a panel. Throws Failure.
uint8 readPanel(const Snapshot& snapshot, std::size_t node);
/// Takes a command back that nobody has taken. False if somebody has.
bool withdrawPanel(const Snapshot& snapshot, std::size_t node, uint8 value);

}  // namespace ugwctl

#endif
