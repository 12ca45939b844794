// What a slave does with the frames that it receives: answering, overhearing, commands, the tunnel.
//
// Input: whether aggregations run, and then frames of the bus, each with the pause before it; some carry a frame of the
// module link.
#include "fuzz/Card.h"
#include "fuzz/Frames.h"
#include "support/Replaced.h"
#include "support/VirtualClock.h"

namespace fuzz {
namespace {

using support::Plant;
using support::VirtualClock;

constexpr int FRAMES = 12;
constexpr std::int64_t LIMIT_S = 3000;
constexpr std::size_t LINES_PER_FRAME = 24;
constexpr std::uint8_t OWN = 0xEB;
constexpr std::size_t DATA = 7;  // offset of a frame's data

Card* card = nullptr;

Bytes tunnelFrame(Input& in) {
    const std::uint8_t src = in.u8();
    const std::uint8_t dest = in.u8();
    Bytes inner = moduleFrame(in);
    if (dest == 0xFF) {  // a reply: its time stands ahead
        const Bytes stamp = in.filled(4);
        inner.insert(inner.begin(), stamp.begin(), stamp.end());
    }
    return busFrame(src, dest, "QT", inner);
}

// The module's node that a tunnelled reply is about: cabinet's letter and module's address make one number.
std::size_t nodeOfTunnelled(const Bytes& frame) {
    constexpr std::size_t STAMP = 4;
    if (frame.size() < DATA + STAMP + 3) {
        return card->nodeCount();
    }
    const int cabinet = frame[DATA + STAMP + 2] - 'A';
    const int slot = cabinet + frame[DATA + STAMP + 1] - '1';
    const bool isSlot = cabinet >= 0 && cabinet < MAXUPSBOX && slot >= cabinet && slot < MAXUPSBOX;
    return isSlot ? card->moduleNode(slot) : card->nodeCount();
}

std::set<std::size_t> nodesOf(const Bytes& frame, bool aggregates) {
    std::set<std::size_t> allowed;
    if (frame[2] == OWN) {
        allowed.insert(card->boxNode(OWN - 0xEA));  // an answer may complete the own identification
    }
    const int sender = boxIndex(frame[1]);
    if (frame[2] == 0xFF && sender >= 0) {
        const bool isTunnel = frame[3] == 'Q' && frame[4] == 'T';
        allowed.insert(isTunnel ? nodeOfTunnelled(frame) : card->boxNode(sender));
    }
    if (aggregates) {
        allowed.insert(Card::ROOT);
        for (int id = 0; id < MAXUPSBOX; ++id) {
            allowed.insert(card->boxNode(id));
        }
    }
    return allowed;
}

}  // namespace

void prepare() {
    Plant::Options options;
    options.own = OWN;
    options.peerBaud = 0;
    auto* const plant = new Plant(options);
    plant->registerAll();
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        plant->comm(letter).isGood = true;
        plant->slot(letter).commStatus.isGood = true;
    }
    card = new Card(*plant, false);
}

void run(const std::uint8_t* data, std::size_t size) {
    card->reset(LIMIT_S);
    Plant& plant = card->plant;
    Input in(data, size);
    const bool aggregates = in.u8() % 2 == 1;
    std::size_t frames = 0;
    for (; frames < FRAMES && !in.empty(); ++frames) {
        const std::uint8_t kind = in.u8();
        const Bytes frame = kind % 4 == 3 ? tunnelFrame(in) : busFrame(in);
        if (!isBusFrame(frame) || frame.back() != 0x03) {
            continue;  // the receiver's business
        }
        VirtualClock::advance((kind / 4) * 10000LL);
        if (!aggregates) {
            clock_gettime(CLOCK_MONOTONIC, &plant.in().lastTime);
        }
        const Bytes before = card->tree();
        plant.bus().setState(Slave);
        plant.line().put(frame);
        plant.bus().SlaveAction();
        FUZZ_REQUIRE(plant.line().waiting() == 0, "a whole frame that wasn't taken");
        card->requireOnlyNodes(before, nodesOf(frame, aggregates), "a frame");
        card->requireSoundQueues();
        plant.bus().setState(Slave);
        card->requireFreeLocks();
    }
    card->requireSoundTree();
    card->requireSoundBusFrames();
    FUZZ_REQUIRE(plant.line().writes().size() <= frames, "more answers than queries");
    FUZZ_REQUIRE(support::replaced::system().count() <= frames, "more commands than frames");
    requireLogWithin(LINES_PER_FRAME * (frames + 1));
}

}  // namespace fuzz
