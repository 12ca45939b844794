// What the subcommands that only read print. Each returns the whole text; nothing here touches shared memory.
#ifndef TOOLS_UGWCTL_VIEWS_H
#define TOOLS_UGWCTL_VIEWS_H

#include <string>
#include <vector>

#include "tools/ugwctl/Segment.h"
#include "tools/ugwctl/Text.h"

namespace ugwctl {

/// Indices of all nodes.
std::vector<std::size_t> allNodes(const Snapshot& snapshot);

/// Nodes with IDs, links, kinds and communication state.
std::string treeText(const Snapshot& snapshot, const Paint& paint);
/// Everything that some nodes hold, in words.
std::string showText(const Snapshot& snapshot, const std::vector<std::size_t>& nodes);
/// The same as one JSON document: pure ASCII, with a line end.
std::string showJson(const Snapshot& snapshot, const std::vector<std::size_t>& nodes);
/// The bytes of some nodes, by offset.
std::string showRaw(const Snapshot& snapshot, const std::vector<std::size_t>& nodes);
/// The status bits of a module, worst class first.
std::string statesText(const virtualNode_t& module, const Paint& paint);

/// The plant in the text exposition format of Prometheus.
std::string metricsText(const Snapshot& snapshot);
/// The same for a plant that can't be read.
std::string metricsDown();

/// Communication state of a node: "reachable", "lost", or what the root knows of all.
std::string communication(const Snapshot& snapshot, const virtualNode_t& node);
/// Wall time and age: "2024-03-01 12:00:00 (3 s ago)", "never" for 0.
std::string timeText(std::int64_t stamp, std::int64_t now);

}  // namespace ugwctl

#endif
