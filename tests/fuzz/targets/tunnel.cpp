// The tunnel both ways: answering for the own module, taking what another card answers for its own, asking.
//
// Input: steps. In each a frame of the module link, sound or not, comes as the data of a QT frame, in memory of exactly
// its size.
#include "CABP/CABPTunnel.h"
#include "fuzz/Card.h"
#include "fuzz/Frames.h"
#include "support/VirtualClock.h"

namespace fuzz {
namespace {

using support::Plant;
using support::VirtualClock;

constexpr int STEPS = 10;
constexpr std::int64_t LIMIT_S = 300;
constexpr std::size_t LINES_PER_STEP = 60;
constexpr std::uint8_t OWN = 0xEB;
constexpr std::int64_t MS = 1000;

Card* card = nullptr;

pckStruct carrier(Bytes& data, std::uint8_t src, std::uint8_t dest) {
    data.shrink_to_fit();
    pckStruct query;
    query.Src = src;
    query.Dest = dest;
    query.MainCmd = 'Q';
    query.SubCmd = 'T';
    query.pParam = data.data();
    query.ParamLen = static_cast<uint16>(data.size());
    return query;
}

// Another card asks for the own module.
void answer(Input& in) {
    Bytes data = moduleFrame(in);
    pckStruct query = carrier(data, 0xEA, OWN);
    const Bytes before = card->tree();
    const std::size_t sent = card->plant.line().writes().size();
    card->plant.bus().ReplyToQuery(query);
    FUZZ_REQUIRE(card->plant.line().writes().size() <= sent + 1, "more than one answer");
    card->requireOnlyNodes(before, {}, "an answer");
}

// The same, past the question whether the card has that module. What it queues then can't be carried out.
void build(Input& in) {
    Bytes data = moduleFrame(in);
    if (isForBypassUnit(data)) {
        return;  // that question always holds it back
    }
    const Bytes before = card->tree();
    const std::size_t sent = card->plant.line().writes().size();
    const int ret = CABP_QTReply(carrier(data, 0xEA, OWN));
    FUZZ_REQUIRE(ret == SUCC || ret == FAIL, "result " + std::to_string(ret));
    FUZZ_REQUIRE(card->plant.line().writes().size() == sent + (ret == SUCC ? 1 : 0), "answers and results differ");
    card->requireOnlyNodes(before, {}, "an answer");
    card->requireSoundQueues();
    card->dropAsync();
}

// Another card answers for its module.
void take(Input& in) {
    Bytes data = in.filled(4);
    const Bytes inner = moduleFrame(in);
    data.insert(data.end(), inner.begin(), inner.end());
    if (in.u8() % 4 == 3) {
        data.resize(in.u8() % (data.size() + 1));
    }
    const int cabinet = inner.size() > 2 ? inner[2] - 'A' : MAXUPSBOX;
    const int slot = cabinet >= 0 && cabinet < MAXUPSBOX && inner[1] >= '1' ? cabinet + inner[1] - '1' : MAXUPSBOX;
    const std::set<std::size_t> allowed =
        slot < MAXUPSBOX ? std::set<std::size_t>{card->moduleNode(slot)} : std::set<std::size_t>();
    const Bytes before = card->tree();
    card->plant.bus().lockCABPData();
    CABP_QTGetData(VirtualClock::START_OF_WALL, carrier(data, in.u8(), 0xFF));
    card->plant.bus().unlockCABPData();
    card->requireOnlyNodes(before, allowed, "a tunnelled reply");
}

// This card asks for another's module, and gets some answer.
void ask(Input& in) {
    Plant& plant = card->plant;
    const std::uint8_t shape = in.u8();
    const std::uint8_t box = in.u8() % 4;
    const Command command = moduleCommand(in, shape);
    Bytes param = in.bytes(in.u8() % 16);
    param.shrink_to_fit();
    pckStruct query;
    query.Src = static_cast<uint8>('A' + box);
    query.Dest = shape >= 0x80 ? in.u8() : '1';
    query.MainCmd = static_cast<uint8>(command[0]);
    query.SubCmd = static_cast<uint8>(command[1]);
    query.pParam = param.empty() ? nullptr : param.data();
    query.ParamLen = static_cast<uint16>(param.size());
    const std::size_t length = usualModuleLength(command);
    Bytes got(length);
    got.shrink_to_fit();
    Bytes data = in.filled(4);
    Bytes inner = moduleFrame(in, query.Dest, query.Src, shape % 2 == 0 ? command : "");
    data.insert(data.end(), inner.begin(), inner.end());
    Bytes reply = busFrame(static_cast<std::uint8_t>(0xEA + box), 0xFF, "QT", data);
    plant.line().onWrite([&](const Bytes&) { plant.line().feed(reply, 3 * MS); });
    int status = FAIL;
    plant.bus().setState(Master);
    MLINKMgr::singleQCMgr* const thread =
        plant.link().InsertSingleQC(box, query, static_cast<uint8>(length), got.data(), &status);
    while (!plant.link().WaitSingleQC(thread, 50)) {
    }
    plant.bus().setState(Slave);
    plant.line().onWrite(nullptr);
}

// The module thread carries out what was queued.
void carryOut() {
    card->plant.link().StateMachine();
    FUZZ_REQUIRE(card->plant.inLink().AsyncQC.isEmpty(), "commands are left that the module has taken");
}

void lengths(Input& in) {
    Bytes data = moduleFrame(in);
    const pckStruct query = carrier(data, 0xEA, OWN);
    const std::size_t room = CABP_GetTunnelReplyDataLen(query);
    FUZZ_REQUIRE(room >= 16 && room <= 0x200, "room for a reply: " + std::to_string(room));
}

}  // namespace

void prepare() {
    Plant::Options options;
    options.own = OWN;
    options.peerBaud = 0;
    options.hasModulePort = true;
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
    plant.moduleLine().forget();
    plant.moduleLine().onWrite([&plant](const Bytes& sent) {
        FUZZ_REQUIRE(sent.size() >= 12, "sent what is no frame");
        const Command command(sent.begin() + 3, sent.begin() + 5);
        const std::size_t length =
            command == "DC" && sent[2] == '8' && sent.size() == 13 ? 4 : usualModuleLength(command);
        plant.moduleLine().feed(moduleFrame(sent[2], sent[1], command, Bytes(length, '0')), 3 * MS);
    });
    MLINK_Init();
    Input in(data, size);
    std::size_t steps = 0;
    int asked = 0;
    for (; steps < STEPS && !in.empty(); ++steps) {
        switch (in.u8() % 8) {
            case 0:
            case 1:
                answer(in);
                break;
            case 2:
                build(in);
                break;
            case 3:
            case 4:
                take(in);
                break;
            case 5:
                lengths(in);
                break;
            case 6:
                if (asked++ < 2) {  // real threads, which take their time
                    ask(in);
                }
                break;
            default:
                carryOut();
                break;
        }
        card->requireSoundQueues();
        card->requireFreeLocks();
    }
    card->requireSoundTree();
    card->requireSoundBusFrames();
    requireLogWithin(LINES_PER_STEP * (steps + 1));
}

}  // namespace fuzz
