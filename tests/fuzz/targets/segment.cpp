// A tree with anything in every field, links and panels included, through passes of both threads and through what
// ugwctl prints of it.
//
// Input: the place and the value of bytes of the tree, then passes and more of them.
#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz/Card.h"
#include "fuzz/Document.h"
#include "fuzz/Frames.h"
#include "support/VirtualClock.h"
#include "tools/ugwctl/Failure.h"
#include "tools/ugwctl/Picture.h"
#include "tools/ugwctl/Segment.h"
#include "tools/ugwctl/Views.h"
#include "unit/CABP/Aggregation.h"

namespace fuzz {
namespace {

using support::VirtualClock;

constexpr int STEPS = 12;
constexpr int LOOKS = 3;  // among them, and one behind
constexpr std::int64_t LIMIT_S = 100000;
constexpr std::size_t LINES_PER_STEP = 200;
constexpr std::int64_t MS = 1000;
constexpr std::size_t NODE = sizeof(virtualNode_t);
constexpr std::size_t DESC = 177;
constexpr std::size_t PANEL = 172;

struct Cabinets : aggregation::AggregationTest {
    void TestBody() override {}
    using AggregationTest::plant;
};

Cabinets* cabinets = nullptr;
Card* card = nullptr;

void overwrite(Input& in) {
    std::uint8_t* const first = card->plant.shm().only().bytes.get();
    const std::size_t nodes = card->nodeCount();
    switch (in.below(4)) {
        case 0: {  // a run of bytes anywhere
            const Bytes bytes = in.bytes(in.u8());
            const std::size_t at = in.u16() % (nodes * NODE);
            std::copy_n(bytes.begin(), MIN(bytes.size(), nodes * NODE - at), first + at);
            break;
        }
        case 1: {  // a byte of a node's head: kind, names, links
            const std::size_t at = in.below(nodes) * NODE + in.below(54);
            first[at] = in.u8();
            break;
        }
        case 2: {  // a panel
            const std::size_t at = in.below(nodes) * NODE + PANEL;
            const Bytes bytes = in.filled(sizeof(panel_t));
            std::memcpy(first + at, bytes.data(), bytes.size());
            break;
        }
        default: {  // bytes of a record
            const std::size_t node = in.below(nodes);
            for (std::size_t left = in.below(16); left > 0; --left) {
                first[node * NODE + DESC + in.u16() % (NODE - DESC)] = in.u8();
            }
            break;
        }
    }
}

void requireForTerminal(const std::string& text, const char* what) {
    for (const char c : text) {
        FUZZ_REQUIRE((c >= ' ' && c <= '~') || c == '\n', std::string(what) + " holds a byte for no terminal");
    }
}

// What a person sees of one node or of all; each takes a while, so an input chooses. Refused is fine, in one line.
void look(std::uint8_t choice) {
    try {
        const ugwctl::Snapshot snapshot = ugwctl::takeSnapshot(cabinets->plant.dir().path(""));
        const ugwctl::Paint paint(false);
        const std::vector<std::size_t> one = {choice / 8U % snapshot.nodes.size()};
        const virtualNode_t& node = snapshot.nodes[one.front()];
        requireForTerminal(ugwctl::idOf(node), "ID");
        ugwctl::communication(snapshot, node);
        switch (choice % 8) {
            case 0:
                requireForTerminal(ugwctl::treeText(snapshot, paint), "tree");
                break;
            case 1:
                requireForTerminal(ugwctl::showText(snapshot, one), "show");
                break;
            case 2:
                requireForTerminal(ugwctl::showRaw(snapshot, one), "show --raw");
                break;
            case 3:
                requireForTerminal(ugwctl::metricsText(snapshot), "metrics");
                break;
            case 4:
                requireForTerminal(ugwctl::plainText(ugwctl::drawPlant(snapshot, ugwctl::deathOf(snapshot), 80)),
                                   "watch");
                break;
            case 5:
                for (int cabinet = 0; cabinet < MAXUPSBOX; ++cabinet) {
                    if (const virtualNode_t* const module = snapshot.moduleNode(cabinet)) {
                        requireForTerminal(ugwctl::statesText(*module, paint), "states");
                    }
                }
                break;
            default: {
                const std::string json = ugwctl::showJson(snapshot, choice < 250 ? one : ugwctl::allNodes(snapshot));
                requireForTerminal(json, "show --json");
                requireJson(json, "show --json");
                break;
            }
        }
        ugwctl::requireLive(snapshot);
    } catch (const ugwctl::Failure& failure) {
        const std::string line = failure.what();
        FUZZ_REQUIRE(!line.empty() && line.find('\n') == std::string::npos, "a failure without its one line");
        requireForTerminal(line, "a failure");
    }
}

void busPass(Input& in) {
    VirtualClock::advance(201 * MS + in.u8() * 100 * MS);
    forgetDocument();
    card->plant.bus().AggregateBox();
    requireDocumentOf(card->plant.root());
    FUZZ_REQUIRE(card->plant.root().panel.value == CMD_NONE, "an order is left in the panel");
}

void modulePass(Input& in) {
    VirtualClock::advance(1001 * MS + in.u8() * 100 * MS);
    card->plant.inLink().aggregate('A');
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        FUZZ_REQUIRE(card->plant.slot(letter).pVN->panel.value == CMD_NONE, "an order is left in a module's panel");
    }
}

// What comes from the lines meanwhile goes to the nodes that were there at the start, and paths are searched for.
void visit(Input& in) {
    const char letter = static_cast<char>('A' + in.below(4));
    const std::string box = std::string("SA.B") + letter;
    for (const std::string& path : {box, box + ".M1", std::string("SA"), std::string("SB.BA")}) {
        const virtualNode_t* const node = card->plant.tree().searchNode(path.c_str());
        const std::ptrdiff_t index = node == nullptr ? 0 : node - card->plant.tree().virtualUPS;
        FUZZ_REQUIRE(index >= 0 && static_cast<std::size_t>(index) < card->nodeCount(), "a node outside of the tree");
    }
}

}  // namespace

void prepare() {
    cabinets = new Cabinets;
    auto& plant = cabinets->plant;
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        plant.comm(letter).isGood = true;
        plant.slot(letter).commStatus.isGood = true;
        plant.module(letter).desc.module.statusDetail.timestamp = aggregation::now();
    }
    plant.root().nominal.timestamp = aggregation::now();
    card = new Card(plant, true);
}

void run(const std::uint8_t* data, std::size_t size) {
    card->reset(LIMIT_S);
    catchDocuments();
    card->plant.shm().only().readers = 1;  // the gateway, as ugwctl counts
    Input in(data, size);
    std::size_t steps = 0;
    int looks = 0;
    for (; steps < STEPS && !in.empty(); ++steps) {
        switch (in.u8() % 8) {
            case 0:
            case 1:
            case 2:
            case 3:
                overwrite(in);
                break;
            case 4:
                busPass(in);
                break;
            case 5:
                modulePass(in);
                break;
            case 6:
                visit(in);
                break;
            default: {
                const std::uint8_t choice = in.u8();
                if (looks++ < LOOKS) {
                    look(choice);
                }
                break;
            }
        }
    }
    if (steps > 0) {
        busPass(in);
        modulePass(in);
        look(static_cast<std::uint8_t>(size));
    }
    card->requireSoundQueues();
    card->requireFreeLocks();
    requireLogWithin(LINES_PER_STEP * (steps + 2));
}

}  // namespace fuzz
