// A reply through the master's decode and store.
//
// Input: steps. In each the master asks a query, of its round or of its own making, and gets a reply out of the input;
// or a frame is handed to the store directly, in memory of exactly its size.
#include "fuzz/Card.h"
#include "fuzz/Frames.h"
#include "support/VirtualClock.h"

namespace fuzz {
namespace {

using support::Plant;
using support::VirtualClock;

constexpr int STEPS = 10;
constexpr std::int64_t LIMIT_S = 3000;
constexpr std::size_t LINES_PER_STEP = 40;
constexpr std::size_t DATA = 7;  // offset of a frame's data
constexpr std::size_t STAMP = 4;

Card* card = nullptr;

std::size_t nodeOfTunnelled(const Bytes& frame) {
    if (frame.size() < DATA + STAMP + 3) {
        return card->nodeCount();
    }
    const int cabinet = frame[DATA + STAMP + 2] - 'A';
    const int slot = cabinet + frame[DATA + STAMP + 1] - '1';
    const bool isSlot = cabinet >= 0 && cabinet < MAXUPSBOX && slot >= cabinet && slot < MAXUPSBOX;
    return isSlot ? card->moduleNode(slot) : card->nodeCount();
}

// Who a stored frame may write to: the cabinet of its sender or of its SK board, or the module in the tunnel.
std::set<std::size_t> ownedBy(const Bytes& frame) {
    if (frame.size() < DATA) {
        return {};
    }
    if (frame[3] == 'Q' && frame[4] == 'T') {
        return {nodeOfTunnelled(frame)};
    }
    if (frame[3] == 'G' && frame[4] == 'I') {
        const int board = frame[1] - 0x0A;
        return board >= 0 && board < MAXUPSBOX ? std::set<std::size_t>{card->boxNode(board)} : std::set<std::size_t>();
    }
    const int sender = boxIndex(frame[1]);
    return sender >= 0 ? std::set<std::size_t>{card->boxNode(sender)} : std::set<std::size_t>();
}

// The identification of a board below the boards' addresses stops the card at once, by design.
bool stopsTheCard(const Bytes& frame) {
    return frame[3] == 'G' && frame[4] == 'I' && frame[1] < 0x0A;
}

void store(Input& in) {
    const Bytes described = busFrame(in);
    if (!isBusFrame(described) || stopsTheCard(described)) {
        return;  // never gets so far
    }
    Bytes frame(described);
    frame.shrink_to_fit();
    const Bytes before = card->tree();
    card->plant.bus().lockCABPData();
    CABP_ManageData(1500000000 + in.u8(), frame.data());
    card->plant.bus().unlockCABPData();
    card->requireOnlyNodes(before, ownedBy(described), "a stored frame");
    FUZZ_REQUIRE(Bytes(frame) == described, "the store changes the frame");
}

// Whether there is a query to ask: one of the round, or one that is queued.
QCMgr* nextQuery(Input& in, std::uint8_t kind, bool& isQueued) {
    QCMgr* elem = nullptr;
    isQueued = kind % 4 == 1;
    if (!isQueued) {
        if (card->plant.in().CurrFixQC == card->plant.in().FixQuery.end()) {
            card->plant.in().CurrFixQC = card->plant.in().FixQuery.begin();
        }
        return card->plant.bus().peekFixQC(elem) ? elem : nullptr;
    }
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = in.u8();
    if (query.Dest < 0x0A) {
        query.Dest = static_cast<uint8>(0xEA + query.Dest % 4);
    }
    const Command command = busCommand(in, in.u8());
    query.MainCmd = static_cast<uint8>(command[0]);
    query.SubCmd = static_cast<uint8>(command[1]);
    Bytes param = command == "QT" ? moduleFrame(in) : in.bytes(in.u8() % 32);
    if (query.Dest == CABPAddr && command == "QT" && isForBypassUnit(param)) {
        return nullptr;
    }
    param.shrink_to_fit();
    query.pParam = param.empty() ? nullptr : param.data();
    query.ParamLen = static_cast<uint16>(param.size());
    card->plant.bus().AddAsyncQC(query);
    return card->plant.bus().peekAsyncQC(elem) ? elem : nullptr;
}

void exchange(Input& in, std::uint8_t kind) {
    Plant& plant = card->plant;
    bool isQueued = false;
    QCMgr* const elem = nextQuery(in, kind, isQueued);
    if (elem == nullptr) {
        return;
    }
    const pckStruct asked = elem->QC;
    const std::size_t room = elem->expectedReplyLen;
    // As the peer makes it: fixed up to the query in most cases.
    Bytes reply;
    switch (kind / 4 % 4) {
        case 0:
            break;  // silence
        case 1:
            reply = busFrame(in);
            break;
        case 2:
            reply = in.bytes(in.u8());
            break;
        default:
            reply = busFrame(asked.Dest, 0xFF, {static_cast<char>(asked.MainCmd), static_cast<char>(asked.SubCmd)},
                             in.filled(room >= 10 ? room - 10 : 0));
            break;
    }
    plant.line().onWrite([&](const Bytes&) {
        plant.line().feed(reply);
        reply.clear();
    });
    std::set<std::size_t> allowed = ownedBy(reply);
    const Bytes before = card->tree();
    const int ret = plant.bus().ManageCmd(elem);
    plant.line().onWrite(nullptr);
    FUZZ_REQUIRE(ret <= NORET, "result " + std::to_string(ret));
    if (asked.MainCmd == 'G' || (asked.MainCmd == 'Q' && asked.SubCmd == 'T')) {
        // The reply that counts may stand inside of other bytes: whoever was asked may be written to.
        for (int id = 0; id < MAXUPSBOX; ++id) {
            allowed.insert(asked.MainCmd == 'G' ? card->boxNode(id) : card->moduleNode(id));
        }
    } else if (boxIndex(asked.Dest) >= 0) {
        allowed.insert(card->boxNode(boxIndex(asked.Dest)));
    }
    card->requireOnlyNodes(before, allowed, "a reply");
    if (isQueued) {
        plant.bus().headAsyncQC();
    } else if (plant.in().CurrFixQC != plant.in().FixQuery.end()) {
        ++plant.in().CurrFixQC;
    }
}

}  // namespace

void prepare() {
    Plant::Options options;
    options.peerBaud = 0;
    auto* const plant = new Plant(options);
    plant->registerAll();
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        plant->comm(letter).isGood = true;
    }
    card = new Card(*plant, true);
}

void run(const std::uint8_t* data, std::size_t size) {
    card->reset(LIMIT_S);
    Input in(data, size);
    std::size_t steps = 0;
    for (; steps < STEPS && !in.empty(); ++steps) {
        const std::uint8_t kind = in.u8();
        if (kind % 4 == 3) {
            store(in);
        } else {
            exchange(in, kind);
        }
        card->requireSoundQueues();
        card->requireFreeLocks();
        cntBreakDetect = 0;
    }
    if (size % 8 == 7) {
        card->plant.bus().AggregateBox();
    }
    card->requireSoundTree();
    card->requireSoundBusFrames();
    requireLogWithin(LINES_PER_STEP * (steps + 1));
}

}  // namespace fuzz
