// The two receivers of the bus, on a stream of bytes with times.
//
// Input: which receiver, the size of its buffer, the query that a reply is waited for, and then pieces of the stream,
// each with the pause before it: raw bytes, frames, runs of one byte, or a BREAK.
#include <algorithm>
#include <memory>

#include "CABP/CABPInternal.h"
#include "fuzz/Frames.h"
#include "support/FakeLine.h"
#include "support/Replaced.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

namespace fuzz {
namespace {

using support::FakeLine;
using support::VirtualClock;

constexpr std::int64_t MS = 1000;
constexpr const char* DEVICE = "/dev/ttyBUS";
constexpr std::int64_t BYTE = 10 * 1000 * MS / 9600;
constexpr int OPENINGS = 24;  // of frames and raw pieces, so that an input ends

FakeLine* line = nullptr;

// Pauses from nothing to beyond every limit of the receivers.
std::int64_t pauseOf(std::uint8_t code) {
    constexpr std::int64_t steps[] = {0, 1, 10, 100, 1000, 3000, 10000, 60000};
    return steps[code % 8] * MS * (1 + code / 8 % 4);
}

struct Piece {
    Bytes bytes;
    std::int64_t between;  // us from one to the next, beside their time on the line
};

// One byte over and over: so often that what a hunt remembers goes round, or so slowly that its whole time is used up.
Piece runOf(Input& in) {
    const std::uint8_t how = in.u8();
    const std::size_t count = in.u8();
    const std::uint8_t value = in.u8();
    return how % 2 == 0 ? Piece{Bytes(count * 8, value), 0} : Piece{Bytes(count, value), how / 2 * 10 * MS};
}

Piece pieceOf(Input& in, std::uint8_t kind) {
    if (kind % 16 == 13) {
        return runOf(in);
    }
    return {kind % 2 == 0 ? busFrame(in) : in.bytes(in.u8()), 0};
}

// Feeds the whole stream ahead; returns it.
Bytes feed(Input& in) {
    Bytes all;
    std::int64_t at = 0;
    for (int piece = 0; piece < OPENINGS && !in.empty(); ++piece) {
        const std::uint8_t kind = in.u8();
        at += pauseOf(in.u8());
        if (kind % 16 == 15) {
            VirtualClock::at(at, [] { line->receiveBreak(); });
            continue;
        }
        const auto [bytes, between] = pieceOf(in, kind);
        all.insert(all.end(), bytes.begin(), bytes.end());
        if (between == 0) {
            line->feedAt(at, bytes);
        }
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (between != 0) {
                line->feedAt(at, {bytes[i]});
            }
            at += BYTE + between;
        }
    }
    return all;
}

void hunt(Input& in) {
    const std::size_t size = in.u8() % 4 != 0 ? CABP_MAXPCKLEN : 10 + in.u16() % CABP_MAXPCKLEN;
    const std::uint32_t timeout = 50U + 200U * (in.u8() % 8U);
    const Bytes fed = feed(in);
    const std::unique_ptr<std::uint8_t[]> stream(new std::uint8_t[size]());
    auto length = static_cast<std::uint16_t>(size);
    const int ret = CABP_Rcv(stream.get(), &length, timeout);
    FUZZ_REQUIRE(ret == SUCC || ret == FAIL || ret == NOACTIVITY, "result " + std::to_string(ret));
    FUZZ_REQUIRE(length == size, "the hunt changes the size");
    if (ret != SUCC) {
        return;
    }
    const std::size_t whole = stream[5] * 256U + stream[6] + 10U;
    FUZZ_REQUIRE(whole <= size, "a frame that is longer than its buffer");
    const Bytes frame(stream.get(), stream.get() + whole);
    FUZZ_REQUIRE(isBusFrame(frame) || frame.back() != 0x03, "received what is no frame");
    FUZZ_REQUIRE(std::search(fed.begin(), fed.end(), frame.begin(), frame.end()) != fed.end(),
                 "received what was never sent");
}

void reply(Input& in) {
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = in.u8();
    const Command command = busCommand(in, in.u8());
    query.MainCmd = static_cast<uint8>(command[0]);
    query.SubCmd = static_cast<uint8>(command[1]);
    const std::size_t size = in.u16() % (CABP_MAXPCKLEN + 1);
    const Bytes fed = feed(in);
    const std::unique_ptr<std::uint8_t[]> stream(new std::uint8_t[size]());
    auto length = static_cast<std::uint16_t>(size);
    const int ret = CABP_RcvReply(stream.get(), &length, query);
    FUZZ_REQUIRE(ret == SUCC || ret == FAIL || ret == TIMEOUT, "result " + std::to_string(ret));
    if (ret != SUCC) {
        return;
    }
    FUZZ_REQUIRE(length >= CABP_HEAD_QUEUE_LEN && length <= size, "a length beyond the buffer");
    FUZZ_REQUIRE(
        stream[0] == 0x02 && stream[1] == query.Dest && stream[3] == query.MainCmd && stream[4] == query.SubCmd,
        "the reply to another query");
    const Bytes frame(stream.get(), stream.get() + length);
    FUZZ_REQUIRE(std::search(fed.begin(), fed.end(), frame.begin() + 7, frame.end()) != fed.end(),
                 "received what was never sent");
}

}  // namespace

void prepare() {
    line = new FakeLine(DEVICE);
    CABPAddr = 0xEB;
    serialPortCABP = DEVICE;
    support::Transcript::withWaits(false);
}

void run(const std::uint8_t* data, std::size_t size) {
    VirtualClock::reset();
    VirtualClock::setLimit(400 * 1000 * MS);
    support::Transcript::clear();
    line->forget();
    CABP_Init();
    CABP_CheckBreak();
    cntBreakDetect = 0;
    errnoCABP = 0;
    Input in(data, size);
    if (in.u8() % 2 == 0) {
        hunt(in);
    } else {
        reply(in);
    }
    requireLogWithin(8);
}

}  // namespace fuzz
