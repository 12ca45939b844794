// One exchange on the module line, its reply a stream of bytes with times.
//
// Input: the query, and then pieces of the stream, each with the pause before it: raw bytes, frames in the module's
// name, those but for a byte, or frames of any kind.
#include <algorithm>

#include "MLINK/MLINKInternal.h"
#include "fuzz/Frames.h"
#include "support/FakeLine.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

namespace fuzz {
namespace {

using support::FakeLine;
using support::VirtualClock;

constexpr std::int64_t MS = 1000;
constexpr const char* DEVICE = "/dev/ttyMOD";
constexpr int PIECES = 48;
constexpr std::int64_t HUNT = 11000 * MS;    // for a start byte, with the last wait
constexpr std::int64_t SILENCE = 5000 * MS;  // before each byte behind it
constexpr std::int64_t LIMIT = 2000000 * MS;

FakeLine* line = nullptr;

std::int64_t pauseOf(std::uint8_t code) {
    constexpr std::int64_t steps[] = {0, 1, 10, 50, 100, 500, 999, 5000};
    return steps[code % 8] * MS * (1 + code / 8 % 4);
}

// Feeds the whole stream ahead; returns when its first start byte comes, at the earliest.
std::int64_t feed(Input& in, const pckStruct& asked, const Command& command) {
    std::int64_t at = VirtualClock::now() + 1;
    std::int64_t start = INT64_MAX;
    for (int piece = 0; piece < PIECES && !in.empty(); ++piece) {
        const std::uint8_t kind = in.u8();
        at += pauseOf(in.u8());
        Bytes bytes;
        switch (kind % 4) {
            case 0:
                bytes = moduleFrame(asked.Dest, asked.Src, command, in.filled(usualModuleLength(command)));
                if (kind / 4 % 2 != 0) {  // but for one byte
                    const std::size_t place = in.u8() % bytes.size();
                    bytes[place] = in.u8();
                }
                break;
            case 1:
                bytes = moduleFrame(in, asked.Dest, asked.Src, kind / 4 % 2 == 0 ? command : "");
                break;
            case 2:
                bytes = moduleFrame(in);
                break;
            default:
                bytes = in.bytes(in.u8());
                break;
        }
        if (start == INT64_MAX && std::find(bytes.begin(), bytes.end(), 0x02) != bytes.end()) {
            start = at;
        }
        line->feedAt(at, bytes);
        at += static_cast<std::int64_t>(bytes.size()) * 10 * 1000 * MS / 9600;
    }
    return start;
}

}  // namespace

void prepare() {
    line = new FakeLine(DEVICE);
    serialPort = DEVICE;
    deviceBaudRate = 9600;
    support::Transcript::withWaits(false);
}

void run(const std::uint8_t* data, std::size_t size) {
    VirtualClock::reset();
    VirtualClock::setLimit(LIMIT);
    support::Transcript::clear();
    line->forget();
    MLINK_Init();
    errnoMLink = 0;
    Input in(data, size);
    pckStruct asked;
    const std::uint8_t shape = in.u8();
    asked.Src = shape >= 0x80 ? in.u8() : MasterAdd;
    asked.Dest = shape >= 0x80 ? in.u8() : FIRSTMODULE;
    const Command command = moduleCommand(in, shape);
    asked.MainCmd = static_cast<uint8>(command[0]);
    asked.SubCmd = static_cast<uint8>(command[1]);
    Bytes param = in.bytes(in.u8() % 16);
    param.shrink_to_fit();
    asked.pParam = param.empty() ? nullptr : param.data();
    asked.ParamLen = static_cast<uint16>(param.size());
    QCMgr query(asked, MLINK_BuildQuery, MLINK_GetReplyDataLen(asked));
    bool isFed = false;
    std::int64_t start = INT64_MAX;
    line->onWrite([&](const Bytes& sent) {
        FUZZ_REQUIRE(isModuleFrame(sent), "sent what is no frame");
        if (!isFed) {
            isFed = true;
            start = feed(in, asked, command);
        }
    });
    const int ret = MLINK_ManageQuery(query);
    line->onWrite(nullptr);
    const std::int64_t longest = start > HUNT ? HUNT : HUNT + query.expectedReplyLen * SILENCE;
    FUZZ_REQUIRE(VirtualClock::now() <= longest, "the exchange took " + std::to_string(VirtualClock::now()) + " us");
    FUZZ_REQUIRE(ret == SUCC || ret == FAIL, "result " + std::to_string(ret));
    if (ret == SUCC) {
        FUZZ_REQUIRE(errnoMLink == 0, "well, but with an error");
        // Characters outside of the nibbles' fold into the same number, so the frame is taken apart again.
        const Bytes frame(query.pckReply, query.pckReply + query.expectedReplyLen);
        const std::size_t length = frame.size() - MLINK_HEAD_QUEUE_LEN;
        FUZZ_REQUIRE(frame[0] == 0x02 && frame[1] == asked.Dest && frame[2] == asked.Src && frame[3] == asked.MainCmd &&
                         frame[4] == asked.SubCmd,
                     "the reply to another query");
        FUZZ_REQUIRE((MLINK_GetLen(frame.data()) & 0xFF) == length, "a reply of another length");
        const Bytes sound = moduleFrame(frame[1], frame[2], command, Bytes(frame.begin() + 7, frame.end() - 5));
        const bool hasUsualLength = frame[5] == sound[5] && frame[6] == sound[6];
        FUZZ_REQUIRE(
            !hasUsualLength || MLINK_DCd2Dec(&frame[7 + length], 4) % 0x10000 == MLINK_DCd2Dec(&sound[7 + length], 4),
            "a reply with a wrong check");
    }
    requireLogWithin(12);
}

}  // namespace fuzz
