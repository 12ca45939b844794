// The records of the four cabinets through the system aggregation and into the status file.
//
// Input: for each cabinet how it is reached and what its record, its ratings and its module's identification hold; some
// words of the configuration; and then passes with the time between them, each with a change or two.
#include <cstring>

#include "fuzz/Card.h"
#include "fuzz/Document.h"
#include "support/Replaced.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Aggregation.h"

namespace fuzz {
namespace {

using support::VirtualClock;

constexpr int PASSES = 24;
constexpr std::int64_t LIMIT_S = 100000;
constexpr std::size_t LINES_PER_PASS = 24;
constexpr std::size_t NODE = sizeof(virtualNode_t);
constexpr std::size_t FIRST_RECORD = 54;  // offset of what isn't a link or a name
constexpr std::size_t DESC = 177;

// The cabinets of the aggregation's tests, outside of a test.
struct Cabinets : aggregation::AggregationTest {
    void TestBody() override {}
    using AggregationTest::plant;
};

Cabinets* cabinets = nullptr;
Card* card = nullptr;

// Bits of a cabinet's first byte.
constexpr std::uint8_t ABSENT = 0x01;
constexpr std::uint8_t BAD = 0x02;
constexpr std::uint8_t RAW = 0x04;      // the whole record
constexpr std::uint8_t PATCHED = 0x08;  // some bytes of the node: a count, and places and values
constexpr std::uint8_t NAMED = 0x10;    // the identification of its module
constexpr std::uint8_t OLD = 0x20;      // data of another time, four bytes
constexpr std::uint8_t ASKS = 0x40;     // its board wants its configuration
constexpr std::uint8_t RATED = 0x80;

void patch(virtualNode_t& node, Input& in) {
    const std::size_t place = FIRST_RECORD + in.u16() % (NODE - FIRST_RECORD);
    reinterpret_cast<std::uint8_t*>(&node)[place] = in.u8();
}

void overwrite(virtualNode_t& node, std::size_t place, std::size_t size, Input& in) {
    const Bytes bytes = in.filled(size);
    std::memcpy(reinterpret_cast<std::uint8_t*>(&node) + place, bytes.data(), size);
}

void describe(Input& in, char letter) {
    const std::uint8_t how = in.u8();
    auto& plant = cabinets->plant;
    virtualNode_t& node = plant.box(letter);
    plant.comm(letter).active = (how & ABSENT) == 0;
    plant.comm(letter).isGood = (how & BAD) == 0;
    if ((how & RAW) != 0) {
        overwrite(node, DESC, sizeof(descUpsBox_t), in);
    }
    if ((how & RATED) != 0) {
        overwrite(node, offsetof(virtualNode_t, nominal), sizeof(nominal_t), in);
    }
    if ((how & NAMED) != 0) {
        overwrite(plant.module(letter), offsetof(virtualNode_t, identification), sizeof(identification_t), in);
    }
    if ((how & OLD) != 0) {
        overwrite(node, offsetof(virtualNode_t, desc.upsBox.Ups.timestamp), sizeof(time32_t), in);
    }
    plant.data(letter).extendedBoardBox.Status.Config_Update = (how & ASKS) != 0;
    if ((how & PATCHED) != 0) {
        for (std::size_t left = in.below(32); left > 0; --left) {
            patch(node, in);
        }
    }
}

void configure(Input& in) {
    const std::uint8_t how = in.u8();
    PlantCfg& cfg = cabinets->plant.cfg();
    cfg.redundantUPS = static_cast<uint8>(how % 8);
    cfg.word7 = static_cast<uint16>(how % 16 < 8 ? 230 : 65535);
    cfg.word28 = static_cast<uint16>(how % 32 < 16 ? 0 : 65535);
    cfg.externBattCapacity = static_cast<uint16>(how / 32 % 2);
    cfg.WModule = how / 64 % 2 != 0 ? 18000 : 0;
    cfg.alarmLoadThreshold = static_cast<uint8>(how < 128 ? 0 : 80);
    cabinets->plant.sys().cntForSameBuild = static_cast<uint8>(how / 8 % 4);
}

// One pass; the modules' nodes, the links and everything of a cabinet but its states belong to others.
void pass(Input& in) {
    auto& plant = cabinets->plant;
    VirtualClock::advance(in.u8() * 100000LL);
    for (std::size_t left = in.below(3); left > 0; --left) {
        patch(plant.box(static_cast<char>('A' + in.below(4))), in);
    }
    const Bytes before = card->tree();
    forgetDocument();
    plant.in().lastTime = {0, 0};
    plant.bus().AggregateBox();
    requireDocumentOf(plant.root());

    std::set<std::size_t> allowed = {Card::ROOT};
    for (int id = 0; id < MAXUPSBOX; ++id) {
        allowed.insert(card->boxNode(id));
    }
    card->requireOnlyNodes(before, allowed, "a pass");
    const Bytes after = card->tree();
    for (int id = 0; id < MAXUPSBOX; ++id) {
        const std::size_t node = card->boxNode(id) * NODE;
        const std::size_t states = DESC + offsetof(descUpsBox_t, subSystem);
        FUZZ_REQUIRE(std::memcmp(&before[node], &after[node], states) == 0,
                     "a pass wrote into the measures of a cabinet");
    }
    const descSys_t& sys = plant.root().desc.sys;
    const auto& alarm = sys.Ups.alarm;
    FUZZ_REQUIRE((alarm.Warning == 0 && alarm.Anomaly == 0 && alarm.Fault == 0 && alarm.Lock == 0) ||
                     sys.Ups.extStatus.UPS_OK == 0,
                 "well in spite of an alarm");
}

}  // namespace

void prepare() {
    cabinets = new Cabinets;
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        cabinets->plant.comm(letter).isGood = true;
    }
    card = new Card(cabinets->plant, true);
}

void run(const std::uint8_t* data, std::size_t size) {
    card->reset(LIMIT_S);
    catchDocuments();
    // The anomalies live as long as the process: a pass over well cabinets ends them.
    cabinets->plant.bus().AggregateBox();
    Input in(data, size);
    configure(in);
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        describe(in, letter);
    }
    std::size_t passes = 0;
    do {
        pass(in);
    } while (++passes < PASSES && !in.empty());
    card->requireSoundQueues();
    card->requireFreeLocks();
    card->requireSoundTree();
    requireLogWithin(LINES_PER_PASS * (passes + 1));
}

}  // namespace fuzz
