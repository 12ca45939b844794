// Hunting for a reply on the module line, and the judging of a reply against its query.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <deque>

#include "unit/MLINK/Link.h"

// The driver either fills what is asked for or fails, and takes its time in steps: what lies between is played here.
namespace {
constexpr int THROUGH = 1000;   // a read that the driver does
std::deque<int> playedReads;    // results of the next reads in place of the driver's
std::int64_t instantAfter = 0;  // where the second read that the driver does leaves the clock
}  // namespace
int realComDevRcv(uint8 ch, uint8* stream, uint16 len, uint32 timeout) __asm__("__real__Z10ComDev_RcvhPhtj");
int wrappedComDevRcv(uint8 ch, uint8* stream, uint16 len, uint32 timeout) __asm__("__wrap__Z10ComDev_RcvhPhtj");
int wrappedComDevRcv(uint8 ch, uint8* stream, uint16 len, uint32 timeout) {
    int result = THROUGH;
    if (!playedReads.empty()) {
        result = playedReads.front();
        playedReads.pop_front();
    }
    if (result != THROUGH) {
        return result;
    }
    const int got = realComDevRcv(ch, stream, len, timeout);
    if (instantAfter != 0 && playedReads.empty()) {
        support::VirtualClock::advanceTo(instantAfter);
        instantAfter = 0;
    }
    return got;
}

namespace {

using modlink::Bytes;
using modlink::bytesOf;
using modlink::frame;
using modlink::frameAnnouncing;
using support::LineCall;
using support::LogCapture;
using support::VirtualClock;

class Receive : public modlink::Port {
  protected:
    Receive() {
        playedReads.clear();
        instantAfter = 0;
    }
    /// Whether the log ends with these messages; the driver may have had its say before.
    void expectLast(const std::string& messages) {
        const std::string all = log.messages();
        EXPECT_EQ(all.substr(all.size() - std::min(all.size(), messages.size())), messages);
    }
    /// Into a buffer of exactly that size: the sanitizer sees what goes past it.
    int receive(std::size_t size) {
        got.assign(size, 0);
        got.shrink_to_fit();
        const uint8 len = static_cast<uint8>(size);
        return MLINK_Rcv(got.data(), &len);
    }
    Bytes got;
};

TEST_F(Receive, TakesAWholeFrame) {
    for (const std::size_t n : {0u, 4u, 16u, 22u, 44u, 56u, 58u, 109u, 169u}) {
        const Bytes reply = frame('1', 0x20, "RS", bus::filler(n));
        line().put(reply);
        EXPECT_EQ(receive(n + 12), 0);
        EXPECT_EQ(got, reply);
        EXPECT_EQ(line().waiting(), 0u);
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Receive, DropsWhatStandsBeforeTheStartByte) {
    const Bytes reply = frame('1', 0x20, "RE", bus::filler(58));
    line().put(bus::join({bus::filler(300), {0x03, 0x15, 0x00, 0xFF}, reply}));
    EXPECT_EQ(receive(70), 0);
    EXPECT_EQ(got, reply);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Receive, SilenceEndsAfterASecondAndLeavesThePortOpen) {
    const std::int64_t start = VirtualClock::now();
    EXPECT_EQ(receive(70), -1);
    EXPECT_EQ(VirtualClock::now() - start, 1000000);
    EXPECT_TRUE(log.has("Err", "Errore ricezione: manca il carattere di inizio pacchetto!"));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(line().calls(LineCall::Open), 1u);
    EXPECT_TRUE(line().isOpen());
}

TEST_F(Receive, GarbageMayComeForNearlyTenSeconds) {
    const Bytes reply = frame('1', 0x20, "RS", bus::filler(58));
    const std::int64_t start = VirtualClock::now();
    for (int i = 1; i <= 10; ++i) {
        line().feedAt(start + i * 990000, {0x55});
    }
    line().feedAt(start + 9970000, reply);
    EXPECT_EQ(receive(70), 0);
    EXPECT_EQ(got, reply);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Receive, TheHuntIsOverAfterTheLimitToTheMillisecond) {
    const struct {
        std::int64_t instant;
        int ret;
    } table[] = {{9998000, 0}, {9999000, 0}, {9999999, 0}, {10000000, -1}, {10000001, -1}};
    for (const auto& row : table) {
        log.clear();
        line().put(bus::join({{0x55}, frame('1', 0x20, "CD")}));
        VirtualClock::advanceTo((VirtualClock::now() / 1000000 + 1) * 1000000);  // seconds count by themselves
        instantAfter = VirtualClock::now() + row.instant;
        playedReads = {THROUGH, THROUGH};
        EXPECT_EQ(receive(12), row.ret) << row.instant;
        EXPECT_EQ(log.messages(), row.ret == 0 ? "" : "Errore ricezione: TIMEOUT!\n");
        tcflush(line().descriptor(), TCIFLUSH);
    }
}

TEST_F(Receive, StartByteThatComesTooLateIsLostToo) {
    const std::int64_t start = VirtualClock::now();
    for (int i = 1; i <= 10; ++i) {
        line().feedAt(start + i * 990000, {0x55});
    }
    line().feedAt(start + 10000000, {0x02});
    EXPECT_EQ(receive(70), -1);
    EXPECT_EQ(VirtualClock::now() - start, 10000000);
    EXPECT_TRUE(log.has("Err", "Errore ricezione: TIMEOUT!"));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(line().waiting(), 0u);
}

TEST_F(Receive, AFailedReadOpensThePortAnewAndCountsAsFailed) {
    line().put(frame('1', 0x20, "CD"));
    line().fail(LineCall::Read, EIO);
    EXPECT_EQ(receive(12), -1);
    EXPECT_TRUE(log.contains("Provo a resettare la seriale"));
    EXPECT_TRUE(log.has("", "Chiude il canale di comunicazione"));
    EXPECT_EQ(line().calls(LineCall::Open), 2u);
    EXPECT_TRUE(line().isOpen());
}

TEST_F(Receive, AReadThatGivesNothingOpensThePortAnew) {
    playedReads = {0};
    EXPECT_EQ(receive(12), -1);
    EXPECT_TRUE(log.has("Err", "Errore (0) Provo a resettare la seriale"));
    EXPECT_EQ(line().calls(LineCall::Open), 2u);
}

TEST_F(Receive, AClosedPortIsOpenedByAFailedRead) {
    MLINK_End();
    log.clear();
    EXPECT_EQ(receive(12), -1);
    EXPECT_TRUE(log.has("Err", "Errore (-1) Provo a resettare la seriale"));
    EXPECT_FALSE(log.contains("Chiude il canale"));
    EXPECT_LT(MLINK_ch, 255);
}

TEST_F(Receive, AHeadThatBreaksOffFailsAfterFiveSeconds) {
    for (std::size_t n = 0; n < 6; ++n) {
        log.clear();
        Bytes reply = frame('1', 0x20, "RS", bus::filler(58));
        reply.resize(1 + n);
        line().put(reply);
        const std::int64_t start = VirtualClock::now();
        EXPECT_EQ(receive(70), -1);
        EXPECT_EQ(VirtualClock::now() - start, 5000000) << n;
        expectLast("Errore ricezione: non e' presente il campo lenght!\n");
        EXPECT_EQ(log.errors(), 1u);
        EXPECT_EQ(line().calls(LineCall::Open), 1u);
    }
}

TEST_F(Receive, AHeadReadInPartFails) {
    for (const int result : {5, 1, 0, -6}) {
        log.clear();
        line().put({0x02});
        playedReads = {THROUGH, result};
        EXPECT_EQ(receive(70), -1);
        EXPECT_EQ(log.messages(), "Errore ricezione: non e' presente il campo lenght!\n");
    }
}

TEST_F(Receive, DataThatBreakOffFailAfterFiveSeconds) {
    const std::string incomplete = "Errore ricezione: non sono presenti tutti i byte descritti in lenght!\n";
    for (const std::size_t size : {7u, 8u, 65u, 69u}) {
        log.clear();
        Bytes reply = frame('1', 0x20, "RS", bus::filler(58));
        reply.resize(size);
        line().put(reply);
        const std::int64_t start = VirtualClock::now();
        EXPECT_EQ(receive(70), -1);
        EXPECT_EQ(VirtualClock::now() - start, 5000000) << size;
        expectLast(incomplete + " codice d'errore:-9 attesi:63\n");
        EXPECT_EQ(log.errors(), 2u);
    }
}

TEST_F(Receive, DataReadInPartAreTold) {
    const std::string incomplete = "Errore ricezione: non sono presenti tutti i byte descritti in lenght!\n";
    const Bytes head = Bytes{0x02, '1', 0x20, 'R', 'S', '3', ':'};
    for (const int result : {62, 1}) {
        log.clear();
        line().put(head);
        playedReads = {THROUGH, THROUGH, result};
        EXPECT_EQ(receive(70), -1);
        EXPECT_EQ(log.messages(), incomplete + " ricevuti:" + std::to_string(result) + " attesi:63\n");
    }
    for (const int result : {0, -6}) {
        log.clear();
        line().put(head);
        playedReads = {THROUGH, THROUGH, result};
        EXPECT_EQ(receive(70), -1);
        EXPECT_EQ(log.messages(), incomplete + " codice d'errore:" + std::to_string(result) + " attesi:63\n");
    }
}

TEST_F(Receive, AnnouncedLengthIsTakenWhereItIsTheSmaller) {
    const Bytes reply = frame('1', 0x20, "RS", bus::filler(16));
    line().put(bus::join({reply, {0x77}}));
    EXPECT_EQ(receive(70), 0);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 28), reply);
    EXPECT_EQ(Bytes(got.begin() + 28, got.end()), Bytes(42, 0));
    EXPECT_EQ(line().waiting(), 1u);
}

TEST_F(Receive, NeverReadsPastTheBuffer) {
    // The last two fold to more than 8 bits; the very last to a huge number.
    const Bytes lengths[] = {{'?', '?'}, {'3', ';'}, {'0', '1'}, {'@', '0'}, {0xFF, 0xFF}, {0x00, 0x00}, {0x2F, 0x30}};
    for (const Bytes& length : lengths) {
        Bytes reply = frame('1', 0x20, "CS", bus::filler(255));
        reply[5] = length[0];
        reply[6] = length[1];
        for (const std::size_t size : {12u, 70u}) {
            if (size == 70 && length == Bytes{'0', '1'}) {
                continue;
            }
            line().put(reply);
            EXPECT_EQ(receive(size), 0);
            EXPECT_EQ(got, Bytes(reply.begin(), reply.begin() + static_cast<std::ptrdiff_t>(size)));
            EXPECT_EQ(line().waiting(), reply.size() - size);
            tcflush(line().descriptor(), TCIFLUSH);
        }
    }
}

TEST_F(Receive, EndByteIsNotLookedAt) {
    Bytes reply = frame('1', 0x20, "RS", bus::filler(58));
    reply.back() = 0x99;
    line().put(reply);
    EXPECT_EQ(receive(70), 0);
    EXPECT_EQ(MLINK_Decode(frame(0x20, '1', "RS").data(), got.data(), 70), 0);
    EXPECT_EQ(log.text(), "");
}

// ---------------------------------------------------------------------------------------------------------------
// Judging

class Judge : public testing::Test {
  protected:
    Judge() { errnoMLink = 77; }
    /// In memory of exactly its size.
    int judge(const Bytes& query, const Bytes& reply) {
        Bytes exact(reply);
        exact.shrink_to_fit();
        return MLINK_Decode(query.data(), exact.data(), static_cast<uint16>(exact.size()));
    }
    LogCapture log;
};

TEST_F(Judge, AMirroredReplyWithARightCheckPasses) {
    for (const char* const cmd : {"GI", "GN", "RS", "CD", "RX"}) {
        for (const unsigned src : {0x20u, 0x41u, 0x44u}) {
            errnoMLink = 77;
            EXPECT_EQ(judge(frame(src, '1', cmd), frame('1', src, cmd, bus::filler(56))), 0);
            EXPECT_EQ(errnoMLink, 0);
        }
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Judge, StartByteComesFirst) {
    Bytes reply = frame('2', 0x20, "RK", bus::filler(4));
    reply[0] = 0x03;
    EXPECT_EQ(judge(frame(0x20, '1', "RS"), reply), -1);
    EXPECT_EQ(log.messages(), "Errore intestazione\n");
    EXPECT_EQ(log.warnings(), 1u);
    EXPECT_EQ(errnoMLink, 0);
}

TEST_F(Judge, AddressesMustMirrorEachOther) {
    const struct {
        unsigned src;
        unsigned dest;
        const char* told;
    } table[] = {
        {0x20, '1', "Src:0x20 Dest:0x31 "},  // not swapped
        {'2', 0x20, "Src:0x32 Dest:0x20 "},
        {'1', 'A', "Src:0x31 Dest:0x41 "},
    };
    for (const auto& row : table) {
        log.clear();
        EXPECT_EQ(judge(frame(0x20, '1', "RS"), frame(row.src, row.dest, "RS", bus::filler(58))), -1);
        EXPECT_EQ(log.messages(),
                  std::string("Errore Indirizzi Query Src:0x20 Dest:0x31     Reply ") + row.told + "\n");
        EXPECT_EQ(log.warnings(), 1u);
        EXPECT_EQ(errnoMLink, 0);
    }
}

TEST_F(Judge, AnotherCommandIsNotRecognised) {
    for (const char* const cmd : {"RK", "DS", "GI", "\x06S"}) {
        log.clear();
        EXPECT_EQ(judge(frame(0x20, '1', "RS"), frame('1', 0x20, cmd, bus::filler(58))), -1);
        EXPECT_EQ(log.messages(), "Errore Comando\nFormato non riconosciuto!\n");
        EXPECT_EQ(log.warnings(), 1u);
        EXPECT_EQ(log.errors(), 1u);
        EXPECT_EQ(errnoMLink, 0);
    }
}

TEST_F(Judge, RefusalsAreToldByTheirCode) {
    const struct {
        uint8 code;
        const char* told;
        uint8 error;
    } table[] = {
        {'1', "MainCmd:C non riconosciuto", 1},
        {'2', "SubCmd:S non riconosciuto", 2},
        {'3', "DataLength non corretta", 3},
        {'4', "CRC o CHKSUM non corretti", 4},
        {'5', "Non e' possibile eseguire il comando in questo momento!", 5},
        {'6', "Security PIN non corretto", 6},
        {'7', "Errore generico", 7},
        {'0', "Errore generico", 0},
        {'?', "Errore generico", 15},
        {0x00, "Errore generico", 0xD0},
        {0x2E, "Errore generico", 254},
        {0xFF, "Errore generico", 0xCF},
    };
    for (const auto& row : table) {
        log.clear();
        Bytes refusal = frame('1', 0x20, std::string("\x15") + static_cast<char>(row.code));
        EXPECT_EQ(judge(frame(0x20, '1', "CS", bytesOf("0010")), refusal), -1);
        EXPECT_EQ(errnoMLink, row.error);
        EXPECT_EQ(log.messages(), std::string("Errore Comando\n") + row.told + "\n");
        EXPECT_TRUE(log.has("War", "Errore Comando"));
        EXPECT_TRUE(log.has("Err", row.told));

        refusal[8] ^= 0x05;  // the check doesn't matter
        errnoMLink = 77;
        EXPECT_EQ(judge(frame(0x20, '1', "CS", bytesOf("0010")), refusal), -1);
        EXPECT_EQ(errnoMLink, row.error);
    }
}

TEST_F(Judge, AWrongCheckIsShownWithTheFrame) {
    Bytes reply = frame('1', 0x20, "GM", bytesOf("1234"));
    const unsigned crc = bus::crcOf(reply, 1, 11);
    const unsigned wrong = crc ^ 0x0010;
    const std::string characters = modlink::coded(wrong, 4);
    std::copy(characters.begin(), characters.end(), reply.begin() + 11);
    EXPECT_EQ(judge(frame(0x20, '1', "GM", bytesOf("0000")), reply), -1);
    EXPECT_EQ(errnoMLink, 0);
    char line[80];
    std::snprintf(line, sizeof(line), "Calcolato:0x%04X Ricevuto:0x%04X\n", crc, wrong);
    std::string dump;
    for (const uint8 byte : reply) {
        char text[8];
        std::snprintf(text, sizeof(text), "0x%02X ", byte);
        dump += text;
    }
    EXPECT_EQ(log.messages(), std::string("Errore Codice di Controllo\n") + line + "datalen:4\nreplypck:\n" + dump +
                                  "\nFINE STAMPE Errore Codice di Controllo\n");
    EXPECT_EQ(log.warnings(), 4u);
    EXPECT_EQ(log.errors(), 0u);
    EXPECT_TRUE(log.has("", "replypck:"));
}

TEST_F(Judge, EveryByteIsUnderTheCheck) {
    for (const char* const cmd : {"GI", "RS"}) {
        const Bytes good = frame('1', 0x20, cmd, bus::filler(56));
        for (std::size_t i = 7; i + 1 < good.size(); ++i) {
            Bytes reply = good;
            reply[i] ^= 0x01;
            EXPECT_EQ(judge(frame(0x20, '1', cmd), reply), -1) << cmd << i;
            EXPECT_EQ(errnoMLink, 0);
        }
    }
}

TEST_F(Judge, TheQueryDecidesOnTheKindOfCheck) {
    Bytes reply = frame('1', 0x20, "GI", bus::filler(56));
    const std::string crc = modlink::coded(bus::crcOf(reply, 1, 63), 4);
    std::copy(crc.begin(), crc.end(), reply.begin() + 63);
    EXPECT_EQ(judge(frame(0x20, '1', "GI"), reply), -1) << "a CRC where a sum is due";
}

TEST_F(Judge, ALengthPastTheBufferFailsTheCheckAndIsNotFollowed) {
    for (const std::size_t n : {0u, 16u, 58u}) {
        for (const unsigned announced : {static_cast<unsigned>(n) + 1, 200u, 243u, 255u}) {
            for (const char* const cmd : {"CS", "GI"}) {
                log.clear();
                // The check is right for what is there: what it announces decides.
                const Bytes reply = frameAnnouncing(announced, '1', 0x20, cmd, bus::filler(n));
                EXPECT_EQ(judge(frame(0x20, '1', cmd), reply), -1) << n << " " << announced;
                EXPECT_TRUE(log.has("War", "Errore Codice di Controllo"));
                EXPECT_TRUE(log.has("War", "datalen:" + std::to_string(announced)));
                EXPECT_EQ(log.occurrences("0x"), 2 + n + 12) << "the dump ends with the buffer";
            }
        }
    }
}

}  // namespace
