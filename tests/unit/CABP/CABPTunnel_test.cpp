// Frames of the module link inside frames of the bus: their lengths, the answering and the storing.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "CABP/CABPTunnel.h"
#include "support/Allocations.h"
#include "support/Replaced.h"
#include "unit/MLINK/Link.h"

// No record of this system makes a reply so long that it doesn't fit: such ones are played here.
namespace {
std::size_t playedLength = 0;
}  // namespace
int realBuildReply(pckStruct& qcs, uint8*& reply, uint8& replyLen,
                   time_t& timestamp) __asm__("__real__Z16MLINK_BuildReplyR9pckStructRPhRhRl");
int wrappedBuildReply(pckStruct& qcs, uint8*& reply, uint8& replyLen,
                      time_t& timestamp) __asm__("__wrap__Z16MLINK_BuildReplyR9pckStructRPhRhRl");
int wrappedBuildReply(pckStruct& qcs, uint8*& reply, uint8& replyLen, time_t& timestamp) {
    if (playedLength == 0) {
        return realBuildReply(qcs, reply, replyLen, timestamp);
    }
    reply = static_cast<uint8*>(std::malloc(playedLength));
    const bus::Bytes bytes = bus::filler(playedLength);
    std::memcpy(reply, bytes.data(), bytes.size());
    replyLen = static_cast<uint8>(playedLength);
    timestamp = 0x01020304;
    return replyLen;
}

namespace {

using images::littleEndian32;
using images::overlaid;
using modlink::Bytes;
using modlink::bytesOf;
using modlink::frame;
using modlink::frameAnnouncing;
using support::LineCall;
using support::LogCapture;
using support::VirtualClock;

constexpr time32_t STAMP = 0x51627384;

class Tunnel : public modlink::Card {
  protected:
    explicit Tunnel(uint8 own = 0xEA) : Card(own) {
        playedLength = 0;
        VirtualClock::setWall(1700000000);
    }

    /// Answers a QT query whose data stand in memory of exactly their size.
    int answer(const Bytes& data) {
        Bytes exact(data);
        exact.shrink_to_fit();
        pckStruct qcs;
        qcs.Src = 0xEB;
        qcs.Dest = CABPAddr;
        qcs.MainCmd = 'Q';
        qcs.SubCmd = 'T';
        qcs.pParam = exact.data();
        qcs.ParamLen = static_cast<uint16>(exact.size());
        plant.line().clearSent();
        const int ret = CABP_ManageReply(qcs);
        sent = plant.line().sent();
        return ret;
    }
    /// Hands on a QT reply with these data, in memory of exactly their size.
    void store(const Bytes& data) {
        Bytes exact = bus::frame(0xEB, 0xFF, "QT", data);
        exact.shrink_to_fit();
        CABP_ManageData(1, exact.data());
    }
    static Bytes stamped(std::int64_t stamp, const Bytes& inner) { return bus::join({littleEndian32(stamp), inner}); }
    static std::string invalid(int len, int inner) {
        return "Pacchetto incapsulato non valido: Len:" + std::to_string(len) + " interno:" + std::to_string(inner) +
               "\n";
    }

    Bytes sent;
};

const char* const FAILED = "FALLITO Risposta QT inviato alla scheda 0xEB\n";

// ---------------------------------------------------------------------------------------------------------------
// Lengths

TEST(TunnelLength, IsThatOfTheModulesReplyAndSixteen) {
    const struct {
        const char* cmd;
        int length;
    } table[] = {{"CS", 16}, {"TB", 16}, {"GI", 72},  {"GE", 32},  {"GN", 38}, {"GM", 20},
                 {"RC", 60}, {"RS", 74}, {"RX", 185}, {"RB", 125}, {"SV", 20}, {"ST", 16}};
    for (const auto& row : table) {
        Bytes inner = frame('B', '1', row.cmd);
        LogCapture log;
        EXPECT_EQ(CABP_GetReplyDataLen(bus::query(0xEB, "QT", &inner)), row.length) << row.cmd;
        EXPECT_EQ(log.text(), "");
    }
}

TEST(TunnelLength, OfAnUnknownInnerCommandIsThatOfNoData) {
    Bytes inner = frame('B', '1', "XA");
    LogCapture log;
    EXPECT_EQ(CABP_GetReplyDataLen(bus::query(0xEB, "QT", &inner)), 16);
    EXPECT_EQ(log.messages(), "MainCmd X non supportato\n");
}

TEST(TunnelLength, LooksNoFurtherThanTheDataReach) {
    for (std::size_t size = 0; size < 12; ++size) {
        Bytes inner = frame('B', '1', "GI");
        inner.resize(size);
        inner.shrink_to_fit();
        LogCapture log;
        EXPECT_EQ(CABP_GetReplyDataLen(bus::query(0xEB, "QT", &inner)), 16) << size;
        EXPECT_EQ(log.errors(), 1u);
        EXPECT_EQ(log.entries().front().function, "CABP_GetReplyDataLen");
    }
    EXPECT_EQ(CABP_GetReplyDataLen(bus::query(0xEB, "QT")), 16);
}

// ---------------------------------------------------------------------------------------------------------------
// Answering

TEST_F(Tunnel, ARecordGoesToAllNodesWithItsAge) {
    node().nominal.timestamp = STAMP;
    node().nominal.W = 0x12345;
    LogCapture log;
    EXPECT_EQ(answer(frame('A', '1', "GN")), 0);
    const Bytes inner = frame('1', 'A', "GN",
                              bytesOf("00000"
                                      "12345"
                                      "000000000000"));
    EXPECT_EQ(sent, bus::frame(0xEA, 0xFF, "QT", stamped(STAMP, inner)));
    EXPECT_EQ(sent.size(), 34u + 14u);
    EXPECT_EQ(Bytes(sent.begin(), sent.begin() + 7), (Bytes{0x02, 0xEA, 0xFF, 'Q', 'T', 0x00, 38}));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tunnel, ACommandIsQueuedAndAcknowledgedWithTheTime) {
    EXPECT_EQ(answer(frame('A', '1', "CS", bytesOf("0012"))), 0);
    EXPECT_EQ(sent, bus::frame(0xEA, 0xFF, "QT", stamped(1700000000, frame('1', 'A', "CS"))));
    EXPECT_EQ(queued(), "CS>1(0012) ");
}

TEST_F(Tunnel, DataThatAreNotThereYetGoOutWithoutAge) {
    node().identification.timestamp = 0;
    EXPECT_EQ(answer(frame('A', '1', "GE")), 0);
    EXPECT_EQ(sent,
              bus::frame(0xEA, 0xFF, "QT", stamped(0, frame('1', 'A', "GE", bytesOf(std::string(12, ' ') + "xxxx")))));
}

TEST_F(Tunnel, WhatHasNoReplyIsNotAnswered) {
    const struct {
        const char* cmd;
        const char* told;
    } table[] = {{"RC", ""},
                 {"RS", "SubCmd S non supportato per il MainCmd R\n"},
                 {"DE", "SubCmd E non supportato per il MainCmd D\n"},
                 {"ST", "SubCmd T non supportato per il MainCmd S\n"},
                 {"XA", "MainCmd X non supportato\n"}};
    for (const auto& row : table) {
        LogCapture log;
        EXPECT_EQ(answer(frame('A', '1', row.cmd)), -1);
        EXPECT_TRUE(sent.empty());
        EXPECT_EQ(log.messages(), std::string(row.told) + "FALLITA costruzione risposta " + row.cmd + "\n" + FAILED +
                                      "Pacchetto incapsulato " + row.cmd + " da 'A' per '1'\n");
    }
}

TEST_F(Tunnel, ADataTooShortForAFrameAreNotLookedInto) {
    for (std::size_t size = 0; size < 12; ++size) {
        Bytes data = frame('A', '1', "GN");
        data.resize(size);
        LogCapture log;
        EXPECT_EQ(answer(data), -1);
        EXPECT_TRUE(sent.empty());
        EXPECT_EQ(log.messages(), invalid(static_cast<int>(size), 0) + FAILED);
    }
}

TEST_F(Tunnel, AFrameLongerThanWhatCarriesItIsRefused) {
    for (const unsigned announced : {5u, 100u, 243u, 255u}) {
        LogCapture log;
        EXPECT_EQ(answer(frameAnnouncing(announced, 'A', '1', "CS", bytesOf("0012"))), -1) << announced;
        EXPECT_TRUE(sent.empty());
        EXPECT_EQ(log.messages(),
                  invalid(16, static_cast<int>(announced)) + FAILED + "Pacchetto incapsulato CS da 'A' per '1'\n");
        EXPECT_EQ(queued(), "");
    }
}

TEST_F(Tunnel, AFrameTooLongForTheModuleLineIsRefused) {
    EXPECT_EQ(answer(frame('A', '1', "CS", bus::filler(243))), 0);
    EXPECT_NE(queued(), "");
    for (const std::size_t n : {244u, 255u}) {
        LogCapture log;
        EXPECT_EQ(answer(frame('A', '1', "CS", bus::filler(n))), -1);
        EXPECT_TRUE(log.contains(invalid(static_cast<int>(n) + 12, static_cast<int>(n))));
        EXPECT_EQ(queued(), "");
    }
}

TEST_F(Tunnel, BytesBehindTheFrameDoNotMatter) {
    node().nominal.timestamp = STAMP;
    EXPECT_EQ(answer(bus::join({frame('A', '1', "GN"), bus::filler(100)})), 0);
    EXPECT_EQ(sent.size(), 48u);
}

TEST_F(Tunnel, TheLengthWrapsAndTheFrameIsCutShort) {
    for (const std::size_t n : {1u, 200u, 251u}) {
        playedLength = n;
        EXPECT_EQ(answer(frame('A', '1', "GN")), 0);
        EXPECT_EQ(sent, bus::frame(0xEA, 0xFF, "QT", stamped(0x01020304, bus::filler(n)))) << n;
    }
    for (const std::size_t n : {252u, 253u, 255u}) {
        playedLength = n;
        EXPECT_EQ(answer(frame('A', '1', "GN")), 0);
        Bytes data = stamped(0x01020304, bus::filler(n));
        data.resize(n + 4 - 256);
        EXPECT_EQ(sent, bus::frame(0xEA, 0xFF, "QT", data)) << n;
    }
}

TEST_F(Tunnel, WithoutMemoryThereIsNoAnswer) {
    node().nominal.timestamp = STAMP;
    LogCapture log;
    support::failAllocation(2);  // the first is the module's reply
    EXPECT_EQ(answer(frame('A', '1', "GN")), -1);
    support::failAllocation(0);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(log.messages(), std::string("malloc fallita!!\n") + FAILED + "Pacchetto incapsulato GN da 'A' per '1'\n");
    EXPECT_EQ(log.entries().front().function, "CABP_QTReply");
    EXPECT_EQ(log.errors(), 3u);
}

TEST_F(Tunnel, AnAnswerThatCannotBeSentTellsTheInnerCommandToo) {
    node().nominal.timestamp = STAMP;
    plant.line().fail(LineCall::Write, EIO, 1, 100);
    LogCapture log;
    EXPECT_EQ(answer(frame('C', '1', "GN")), -1);
    const std::string text = log.messages();
    const std::string last = std::string(FAILED) + "Pacchetto incapsulato GN da 'C' per '1'\n";
    ASSERT_GE(text.size(), last.size());
    EXPECT_EQ(text.substr(text.size() - last.size()), last);
    EXPECT_TRUE(log.has("Err", "Pacchetto incapsulato GN da 'C' per '1'"));
}

TEST_F(Tunnel, AFailedQueryTellsTheInnerCommandToo) {
    Bytes inner = frame('B', '1', "GN");
    const pckStruct qcs = bus::query(0xEB, "QT", &inner);
    const QCMgr q(qcs, CABP_BuildQuery, CABP_GetReplyDataLen(qcs));
    LogCapture log;
    EXPECT_EQ(CABP_ManageQuery(q), -1);
    const std::string text = log.messages();
    const std::string last = "FALLITO Comando QT inviato alla scheda 0xEB\nPacchetto incapsulato GN da 'B' per '1'\n";
    ASSERT_GE(text.size(), last.size());
    EXPECT_EQ(text.substr(text.size() - last.size()), last);
    EXPECT_TRUE(log.has("Err", "Pacchetto incapsulato GN da 'B' per '1'"));
}

// ---------------------------------------------------------------------------------------------------------------
// Storing

Bytes nominalReply(unsigned src, unsigned dest) {
    return frame(src, dest, "GN",
                 bytesOf("01234"
                         "56789"
                         "123456789:;<"));
}

TEST_F(Tunnel, AReplyIsStoredInTheNodeOfTheModuleThatItTellsOf) {
    for (int box = 0; box < 4; ++box) {
        const char letter = static_cast<char>('A' + box);
        node(letter).identification.NBattForBench = 1;
        const std::size_t at = offsetOf(letter, NOMINAL);
        Bytes after = overlaid(tree(), at, littleEndian32(STAMP));
        after = overlaid(after, at + 4, littleEndian32(0x01234));
        after = overlaid(after, at + 8, littleEndian32(0x56789));
        after = overlaid(after, at + 12, {0x23, 0x01, 0x56, 0x04, 0x89, 0x07, 0xBC, 0x0A});
        LogCapture log;
        store(stamped(STAMP, nominalReply('1', static_cast<unsigned>(letter))));
        EXPECT_EQ(tree(), after) << letter;
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Tunnel, AReplyWithoutAgeNeverReachesTheDecoder) {
    const Bytes before = tree();
    LogCapture log;
    store(stamped(0, nominalReply('1', 'B')));
    store(stamped(0, {}));
    store(stamped(0, bus::filler(30)));
    EXPECT_EQ(tree(), before);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tunnel, AnAcknowledgementIsLogged) {
    const Bytes before = tree();
    LogCapture log;
    store(stamped(1700000000, frame('1', 'B', "CS")));
    EXPECT_EQ(log.messages(), "ACK from boxB, comando CS scr:1 dest:B\n");
    EXPECT_EQ(tree(), before);
}

TEST_F(Tunnel, AReplyTooShortIsDropped) {
    const Bytes before = tree();
    const Bytes whole = stamped(STAMP, nominalReply('1', 'B'));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        LogCapture log;
        store(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        EXPECT_EQ(log.messages(), invalid(static_cast<int>(size), size < 16 ? 0 : 22)) << size;
        EXPECT_EQ(log.errors(), 1u);
    }
    EXPECT_EQ(tree(), before);
}

TEST_F(Tunnel, AReplyLongerThanAnyOfTheModuleLineIsDropped) {
    const Bytes before = tree();
    for (const std::size_t n : {244u, 255u}) {
        LogCapture log;
        store(stamped(STAMP, frame('1', 'B', "GN", Bytes(n, '0'))));
        EXPECT_EQ(log.messages(), invalid(static_cast<int>(n) + 16, static_cast<int>(n)));
    }
    EXPECT_EQ(tree(), before);
}

TEST_F(Tunnel, AReplyThatClaimsAnotherCommandMustHoldItsData) {
    const Bytes before = tree();
    for (const char* const cmd : {"GI", "RS", "RC", "DS"}) {
        LogCapture log;
        store(stamped(STAMP, frame('1', 'B', cmd, bytesOf("0123456789012345"))));
        EXPECT_EQ(log.errors(), 1u) << cmd;
        EXPECT_TRUE(log.contains(std::string("Risposta ") + cmd + " scartata"));
    }
    EXPECT_EQ(tree(), before);
}

TEST_F(Tunnel, AReplyOfNoSlotIsDropped) {
    const struct {
        unsigned src;
        unsigned dest;
    } table[] = {{'1', 'E'}, {'1', '@'}, {'1', 0xFF}, {'1', 0x00}, {'1', 0x20}, {'8', 'A'},
                 {'5', 'A'}, {'2', 'D'}, {'0', 'B'},  {0xFF, 'A'}, {0x00, 'D'}};
    const Bytes before = tree();
    for (const auto& row : table) {
        LogCapture log;
        store(stamped(STAMP, nominalReply(row.src, row.dest)));
        EXPECT_EQ(log.errors(), 1u) << row.src << " " << row.dest;
    }
    EXPECT_EQ(tree(), before);
}

}  // namespace
