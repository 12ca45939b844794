#include "tools/ugwctl/App.h"

#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "Common/Globals.h"
#include "tools/ugwctl/Failure.h"
#include "tools/ugwctl/Options.h"
#include "tools/ugwctl/Orders.h"
#include "tools/ugwctl/Segment.h"
#include "tools/ugwctl/Views.h"
#include "tools/ugwctl/Watch.h"

namespace ugwctl {
namespace {

void print(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

Snapshot liveSnapshot(const Options& options) {
    Snapshot snapshot = takeSnapshot(options.dir);
    requireLive(snapshot);
    const std::int64_t age = snapshot.age();
    if (age > OLD_AFTER) {
        std::fprintf(stderr, "ugwctl: warning: the tree is %lld s old\n", static_cast<long long>(age));
    }
    return snapshot;
}

Paint outputPaint() {
    return Paint(isatty(STDOUT_FILENO) == 1 && environmentWantsColour());
}

void tree(const Options& options) {
    print(treeText(liveSnapshot(options), outputPaint()));
}

void show(const Options& options) {
    const Snapshot snapshot = liveSnapshot(options);
    std::vector<std::size_t> nodes = allNodes(snapshot);
    if (!options.arguments.empty()) {
        nodes = {findNode(snapshot, options.arguments[0])};
    }
    print(options.json  ? showJson(snapshot, nodes)
          : options.raw ? showRaw(snapshot, nodes)
                        : showText(snapshot, nodes));
}

void states(const Options& options) {
    const Snapshot snapshot = liveSnapshot(options);
    const virtualNode_t& node = snapshot.nodes[findNode(snapshot, options.arguments[0])];
    if (node.nodetype != moduleNode) {
        throw Failure(ExitStatus::NoNode, idOf(node) + " isn't a module");
    }
    // No bit set must not look like all well: a card polls the module of its own cabinet alone.
    if (node.desc.module.statusDetail.timestamp == 0) {
        std::fprintf(stderr, "ugwctl: warning: the states of %s have never come to this card\n", idOf(node).c_str());
    }
    print(statesText(node, outputPaint()));
}

// A collector should learn that the gateway is down rather than nothing.
void metrics(const Options& options) {
    try {
        const Snapshot snapshot = takeSnapshot(options.dir);
        requireLive(snapshot);
        print(metricsText(snapshot));
    } catch (const Failure&) {
        print(metricsDown());
        throw;
    }
}

void help(const Options&) {
    print(helpText());
}

void version(const Options&) {
    print(format("ugwctl %s (%s)\n", UGW_VERSION, build_git_sha));
}

struct Action {
    Command command;
    void (*act)(const Options& options);
};
constexpr Action actions[] = {
    {Command::Tree, tree},          {Command::Show, show},
    {Command::States, states},      {Command::Watch, watch},
    {Command::Shutdown, giveOrder}, {Command::Restore, giveOrder},
    {Command::Cancel, giveOrder},   {Command::BatteryTest, giveOrder},
    {Command::Module, giveOrder},   {Command::Metrics, metrics},
    {Command::Help, help},          {Command::Version, version},
};

void act(const Options& options) {
    for (const Action& action : actions) {
        if (action.command == options.command) {
            action.act(options);
        }
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw Failure(ExitStatus::Failed, std::string("the output can't be written: ") + std::strerror(errno));
    }
}

}  // namespace

int run(int argc, char* argv[]) {
    std::setlocale(LC_CTYPE, "");
    try {
        act(parseOptions(argc, argv));
    } catch (const Failure& failure) {
        std::fflush(stdout);
        std::fprintf(stderr, "ugwctl: %s\n", failure.what());
        return static_cast<int>(failure.status());
    }
    return static_cast<int>(ExitStatus::Done);
}

}  // namespace ugwctl
