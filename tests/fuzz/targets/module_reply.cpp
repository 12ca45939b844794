// A module's reply through decode and aggregation.
//
// Input: steps. In each the module thread asks its next query and gets a reply out of the input; or a reply is handed
// to the decoder directly, in memory of exactly its size; or the cabinet's record is folded anew.
#include "fuzz/Card.h"
#include "fuzz/Frames.h"
#include "support/VirtualClock.h"

namespace fuzz {
namespace {

using support::Plant;
using support::VirtualClock;

constexpr int STEPS = 16;
constexpr std::int64_t LIMIT_S = 3000;
constexpr std::size_t LINES_PER_STEP = 40;
constexpr std::int64_t MS = 1000;

Card* card = nullptr;

void requireEndedTexts() {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        const identification_t& found = card->plant.link().ModulesData[id][0].pVN->identification;
        FUZZ_REQUIRE(
            found.SN[16] == '\0' && found.Model[16] == '\0' && found.SWVer[12] == '\0' && found.SWVer_AUX[12] == '\0',
            "a text without its end");
    }
}

// In its usual size, which some decoders want.
Bytes usualFrame(Input& in) {
    const std::uint8_t src = in.u8();
    const Command command = moduleCommand(in, 0);
    return moduleFrame(src, in.u8(), command, in.filled(usualModuleLength(command)));
}

void decode(Input& in, std::uint8_t kind) {
    const std::uint8_t box = in.u8();
    Bytes frame = kind / 4 % 2 == 0 ? moduleFrame(in) : usualFrame(in);
    if (!isModuleFrame(frame)) {
        return;  // never gets so far
    }
    frame.shrink_to_fit();
    const int slot = box < MAXUPSBOX && frame[1] >= '1' ? box + frame[1] - '1' : MAXUPSBOX;
    const std::set<std::size_t> allowed =
        slot < MAXUPSBOX ? std::set<std::size_t>{card->moduleNode(slot)} : std::set<std::size_t>();
    const Bytes before = card->tree();
    const Bytes given = frame;
    MLINK_ManageData(box, 1500000000 + in.u8(), frame.data());
    card->requireOnlyNodes(before, allowed, "a module");
    FUZZ_REQUIRE(frame == given, "the decoder changes the frame");
}

void fold(Input& in) {
    VirtualClock::advance(1001 * MS + in.u8() * 100 * MS);
    card->plant.moduleLine().onWrite(nullptr);
    const Bytes before = card->tree();
    card->plant.inLink().aggregate('A');
    card->requireOnlyNodes(before, {card->boxNode(0), card->moduleNode(0)}, "the aggregation");
}

void ask(Input& in, std::uint8_t kind) {
    Plant& plant = card->plant;
    bool isAnswered = false;
    plant.moduleLine().onWrite([&](const Bytes& sent) {
        FUZZ_REQUIRE(isModuleFrame(sent), "sent what is no frame");
        if (isAnswered && sent[3] == 'S' && sent[4] == 'T') {
            plant.moduleLine().feed(moduleFrame(sent[2], sent[1], "ST", {}), 3 * MS);  // the clock, by the aggregation
            return;
        }
        isAnswered = true;
        const Command command(sent.begin() + 3, sent.begin() + 5);
        switch (kind / 4 % 4) {
            case 0:
                plant.moduleLine().feed(moduleFrame(in, sent[2], sent[1], command), 3 * MS);
                break;
            case 1:
                plant.moduleLine().feed(moduleFrame(in), 3 * MS);
                break;
            default:
                plant.moduleLine().feed(moduleFrame(sent[2], sent[1], command, in.filled(usualModuleLength(command))),
                                        3 * MS);
                break;
        }
    });
    const Bytes before = card->tree();
    plant.link().StateMachine();
    card->requireOnlyNodes(before, {card->boxNode(0), card->moduleNode(0)}, "a pass");
}

}  // namespace

void prepare() {
    Plant::Options options;
    options.peerBaud = 0;
    options.hasModulePort = true;
    auto* const plant = new Plant(options);
    plant->registerAll();
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        plant->slot(letter).commStatus.isGood = true;
        plant->comm(letter).isGood = true;
    }
    card = new Card(*plant, true);
}

void run(const std::uint8_t* data, std::size_t size) {
    card->reset(LIMIT_S);
    Plant& plant = card->plant;
    plant.moduleLine().forget();
    MLINK_Init();
    plant.inLink().iteration = 0;
    Input in(data, size);
    std::size_t steps = 0;
    for (; steps < STEPS && !in.empty(); ++steps) {
        const std::uint8_t kind = in.u8();
        switch (kind % 4) {
            case 0:
                ask(in, kind);
                break;
            case 1:
                fold(in);
                break;
            default:
                decode(in, kind);
                break;
        }
        requireEndedTexts();
        card->requireSoundQueues();
        card->requireFreeLocks();
    }
    plant.moduleLine().onWrite(nullptr);
    card->requireSoundTree();
    requireLogWithin(LINES_PER_STEP * (steps + 1));
}

}  // namespace fuzz
