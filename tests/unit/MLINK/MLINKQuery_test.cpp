// Lengths of the replies by command, and whole exchanges on the module line.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "unit/MLINK/Link.h"

namespace {

using modlink::Bytes;
using modlink::bytesOf;
using modlink::frame;
using modlink::frameAnnouncing;
using modlink::query;
using support::LineCall;
using support::LogCapture;
using support::VirtualClock;

const std::map<std::string, int> LENGTHS = {
    {"CB", 0},  {"CD", 0},  {"CF", 0},   {"CM", 0},  {"CP", 0}, {"CR", 0},  {"CS", 0},   {"CU", 0},
    {"DE", 58}, {"DS", 58}, {"GE", 16},  {"GI", 56}, {"GM", 4}, {"GN", 22}, {"RB", 109}, {"RC", 44},
    {"RE", 58}, {"RK", 58}, {"RX", 169}, {"RS", 58}, {"SM", 0}, {"ST", 0},  {"SV", 4},   {"TB", 0},
};

TEST(ReplyLength, IsToldByTheCommand) {
    for (const auto& row : LENGTHS) {
        LogCapture log;
        EXPECT_EQ(MLINK_GetReplyDataLen(query(0x20, '1', row.first)), row.second) << row.first;
        EXPECT_EQ(log.text(), "") << row.first;
    }
}

TEST(ReplyLength, OfAnyOtherCommandIsNothingWithALine) {
    const std::string known = "CDGRST";
    for (int main = 0x20; main < 0x7F; ++main) {
        for (int sub = 0x20; sub < 0x7F; ++sub) {
            const std::string cmd{static_cast<char>(main), static_cast<char>(sub)};
            if (LENGTHS.count(cmd) != 0 || cmd == "DC") {
                continue;
            }
            LogCapture log;
            EXPECT_EQ(MLINK_GetReplyDataLen(query(0x20, '1', cmd)), 0);
            const std::string told = known.find(cmd[0]) != std::string::npos
                                         ? "SubCmd " + cmd.substr(1) + " non supportato per il MainCmd " + cmd[0]
                                         : "MainCmd " + cmd.substr(0, 1) + " non supportato";
            ASSERT_TRUE(log.has("Err", told)) << cmd;
            ASSERT_EQ(log.lines().size(), 1u) << cmd;
        }
    }
}

TEST(ReplyLength, ClearingABatteryTestHasNoneAndALineUnlikeStartingOne) {
    LogCapture log;
    EXPECT_EQ(MLINK_GetReplyDataLen(query(0x20, '1', "TB")), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(MLINK_GetReplyDataLen(query(0x20, '1', "TC")), 0);
    EXPECT_EQ(log.messages(), "SubCmd C non supportato per il MainCmd T\n");
}

TEST(ReplyLength, OfTheSwitchToTheBypassUnitHangsOnItsParameter) {
    LogCapture log;
    for (const std::size_t n : {0u, 1u, 2u}) {
        Bytes data = bytesOf(std::string(n, '7'));
        EXPECT_EQ(MLINK_GetReplyDataLen(query(0x20, '8', "DC", &data)), n == 1 ? 4 : 0);
    }
    EXPECT_EQ(log.text(), "");
}

TEST(ReplyLength, OfTheSwitchToAModuleIsNothingAndOnlyOnAndOffAreKnown) {
    for (int c = 0; c < 256; ++c) {
        LogCapture log;
        Bytes data{static_cast<uint8>(c)};
        EXPECT_EQ(MLINK_GetReplyDataLen(query(0x20, '1', "DC", &data)), 0);
        EXPECT_EQ(log.messages(), c == '0' || c == '1' ? "" : "COMANDO SCONOSCIUTO!!\n") << c;
    }
    for (const std::size_t n : {0u, 2u}) {
        LogCapture log;
        Bytes data = bytesOf(std::string(n, '1'));
        EXPECT_EQ(MLINK_GetReplyDataLen(query(0x20, '1', "DC", &data)), 0);
        EXPECT_TRUE(log.has("Err", "COMANDO SCONOSCIUTO!!"));
        EXPECT_EQ(log.entries().front().function, "MLINK_GetReplyDataLen");
    }
}

TEST(ReplyLength, OfTheSwitchWithoutItsParameterIsAnUnknownCommand) {
    LogCapture log;
    pckStruct qcs = query(0x20, '1', "DC");
    qcs.ParamLen = 1;
    EXPECT_EQ(MLINK_GetReplyDataLen(qcs), 0);
    EXPECT_TRUE(log.has("Err", "COMANDO SCONOSCIUTO!!"));
}

// ---------------------------------------------------------------------------------------------------------------
// Exchanges

class Exchange : public modlink::Port {
  protected:
    static QCMgr make(const std::string& cmd, unsigned src = 0x20, Bytes* data = nullptr) {
        const pckStruct qcs = query(src, '1', cmd, data);
        return QCMgr(qcs, MLINK_BuildQuery, MLINK_GetReplyDataLen(qcs));
    }
    /// One exchange; `answer` null: silence.
    int exchange(const QCMgr& q, const Bytes* answer) {
        auto expectation = line().expect(Bytes(q.pckQuery, q.pckQuery + q.buildQueryLen));
        if (answer != nullptr) {
            expectation.reply(*answer, 15000);
        }
        return MLINK_ManageQuery(const_cast<QCMgr&>(q));
    }
    static std::string failed(const std::string& cmd) {
        return "FALLITO Comando " + cmd + " inviato alla scheda 0x31\n";
    }
};

TEST_F(Exchange, EveryCommandThatIsAnswered) {
    for (const auto& row : LENGTHS) {
        const QCMgr q = make(row.first);
        const Bytes answer = frame('1', 0x20, row.first, bus::filler(static_cast<std::size_t>(row.second)));
        errnoMLink = 77;
        EXPECT_EQ(exchange(q, &answer), 0) << row.first;
        EXPECT_EQ(errnoMLink, 0);
        EXPECT_EQ(Bytes(q.pckReply, q.pckReply + answer.size()), answer) << row.first;
    }
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(line().allDone());
}

TEST_F(Exchange, MirrorsTheSourceOfTheQueryWhateverItIs) {
    Bytes data = bytesOf("0010");
    const QCMgr q = make("CS", 'C', &data);
    EXPECT_EQ(Bytes(q.pckQuery, q.pckQuery + q.buildQueryLen), frame('C', '1', "CS", data));
    const Bytes wrong = frame('1', 0x20, "CS");
    EXPECT_EQ(exchange(q, &wrong), -1);
    const Bytes right = frame('1', 'C', "CS");
    EXPECT_EQ(exchange(q, &right), 0);
}

TEST_F(Exchange, BeginsByDroppingWhatIsLeftOnTheLine) {
    const QCMgr q = make("RS");
    line().put(frame('1', 0x20, "RS", bus::filler(58, 0x40)));
    const Bytes answer = frame('1', 0x20, "RS", bus::filler(58, 0x31));
    EXPECT_EQ(exchange(q, &answer), 0);
    EXPECT_EQ(Bytes(q.pckReply, q.pckReply + 70), answer);
}

TEST_F(Exchange, SilenceCostsASecondAndLeaves255) {
    const QCMgr q = make("RS");
    EXPECT_EQ(exchange(q, nullptr), -1);
    EXPECT_EQ(errnoMLink, 255);
    EXPECT_EQ(VirtualClock::now() - line().sentUntil(), 1000000);
    EXPECT_EQ(log.messages(), "Errore ricezione: manca il carattere di inizio pacchetto!\n" + failed("RS"));
    EXPECT_EQ(log.errors(), 2u);
}

TEST_F(Exchange, AReadThatFailsLeaves255AndAnOpenPort) {
    const QCMgr q = make("RS");
    const Bytes answer = frame('1', 0x20, "RS", bus::filler(58));
    line().fail(LineCall::Read, EIO);
    errnoMLink = 5;
    EXPECT_EQ(exchange(q, &answer), -1);
    EXPECT_EQ(errnoMLink, 255);
    EXPECT_TRUE(log.contains("Provo a resettare la seriale"));
    EXPECT_TRUE(log.contains(failed("RS")));
    EXPECT_EQ(line().calls(LineCall::Open), 2u);
    log.clear();
    EXPECT_EQ(exchange(q, &answer), 0) << "the next one is as ever";
    EXPECT_EQ(log.text(), "");
}

TEST_F(Exchange, ASendThatFailsLeavesTheResultOfTheExchangeBefore) {
    const QCMgr q = make("RS");
    for (const uint8 before : {0, 5, 255}) {
        errnoMLink = before;
        line().fail(LineCall::Write, EIO);
        line().strict();
        log.clear();
        EXPECT_EQ(MLINK_ManageQuery(const_cast<QCMgr&>(q)), -1);
        EXPECT_EQ(errnoMLink, before);
        EXPECT_TRUE(log.has("Err", "FALLITO Comando RS inviato alla scheda 0x31"));
        EXPECT_FALSE(log.contains("Errore ricezione"));
    }
}

TEST_F(Exchange, OnAClosedPortFailsAtOnce) {
    MLINK_End();
    log.clear();
    const QCMgr q = make("RS");
    const std::int64_t start = VirtualClock::now();
    EXPECT_EQ(MLINK_ManageQuery(const_cast<QCMgr&>(q)), -1);
    EXPECT_EQ(VirtualClock::now(), start);
    EXPECT_TRUE(log.has("Err", "FALLITO Comando RS inviato alla scheda 0x31"));
    EXPECT_EQ(MLINK_ch, 255) << "sending doesn't reopen it";
}

TEST_F(Exchange, AGoodReplyOfAnotherLengthLeaves254) {
    const QCMgr q = make("RS");
    const Bytes answer = frame('1', 0x20, "RS", bus::filler(36));
    EXPECT_EQ(exchange(q, &answer), -1);
    EXPECT_EQ(errnoMLink, 254);
    EXPECT_EQ(log.messages(), "!!datalen mismatch: expected:58 received:36!!\n" + failed("RS"));
    EXPECT_EQ(log.errors(), 2u);
}

TEST_F(Exchange, AReplyThatAnnouncesMoreIsReadAsFarAsExpectedAndFails) {
    for (const unsigned announced : {59u, 200u, 255u}) {
        log.clear();
        const QCMgr q = make("RS");
        const Bytes answer = frameAnnouncing(announced, '1', 0x20, "RS", bus::filler(announced));
        EXPECT_EQ(exchange(q, &answer), -1);
        EXPECT_EQ(errnoMLink, 0);
        EXPECT_TRUE(log.has("War", "Errore Codice di Controllo"));
        EXPECT_TRUE(log.has("Err", "FALLITO Comando RS inviato alla scheda 0x31"));
    }
    const Bytes answer = frameAnnouncing(255, '1', 0x20, "CD");
    EXPECT_EQ(exchange(make("CD"), &answer), -1) << "twelve bytes and no more";
}

TEST_F(Exchange, RefusalsEndWithTheirCodeWhateverWasExpected) {
    for (const char* const cmd : {"CS", "CD", "RS", "GI"}) {
        for (int code = 1; code <= 7; ++code) {
            log.clear();
            const QCMgr q = make(cmd);
            const Bytes answer = frame('1', 0x20, std::string("\x15") + static_cast<char>('0' + code));
            EXPECT_EQ(exchange(q, &answer), -1);
            EXPECT_EQ(errnoMLink, code);
            EXPECT_FALSE(log.contains("datalen mismatch"));
            EXPECT_TRUE(log.contains(failed(cmd)));
        }
    }
}

TEST_F(Exchange, AWrongCheckLeavesNoCode) {
    const QCMgr q = make("RS");
    Bytes answer = frame('1', 0x20, "RS", bus::filler(58));
    answer[20] ^= 0x40;
    errnoMLink = 5;
    EXPECT_EQ(exchange(q, &answer), -1);
    EXPECT_EQ(errnoMLink, 0);
    EXPECT_TRUE(log.contains("Errore Codice di Controllo"));
    EXPECT_TRUE(log.contains(failed("RS")));
}

TEST_F(Exchange, AQueryTooLongForTheLineIsCutThereAndNowhereElse) {
    for (const std::size_t n : {244u, 248u, 250u, 255u}) {
        line().clearSent();
        Bytes data = bus::filler(n);
        const QCMgr built = make("CS", 0x20, &data);
        const QCMgr q(built);  // as the queues keep it
        EXPECT_EQ(q.buildQueryLen, n + 12);
        EXPECT_EQ(q.expectedReplyLen, 12);
        line().feed(frame('1', 0x20, "CS"), 20000);
        EXPECT_EQ(MLINK_ManageQuery(const_cast<QCMgr&>(q)), 0);
        EXPECT_EQ(line().sent(), Bytes(q.pckQuery, q.pckQuery + (n + 12 - 256))) << n;
    }
}

TEST_F(Exchange, AQueryWithoutItsFrameFails) {
    QCMgr q = make("RS");
    uint8* const pck = q.pckQuery;
    q.pckQuery = nullptr;
    EXPECT_EQ(MLINK_ManageQuery(q), -1);
    EXPECT_TRUE(log.contains(failed("RS")));
    q.pckQuery = pck;
    EXPECT_TRUE(line().sent().empty());
}

}  // namespace
