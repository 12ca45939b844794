// What is known of each reply in advance, and one exchange on the wire.
#include <asm/ioctls.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "Bus.h"
#include "support/Allocations.h"
#include "support/Plant.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

using bus::filler;
using bus::frame;
using bus::join;
using bus::query;
using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::LogCapture;
using support::Transcript;
using support::VirtualClock;

namespace {

const std::map<std::string, uint16> replyLengths = {
    {"BN", 20}, {"BS", 268}, {"BI", 98}, {"CN", 0}, {"CH", 1}, {"CU", 1}, {"GI", 64}, {"GS", 109},
    {"GE", 30}, {"OR", 0},   {"OS", 0},  {"SC", 1}, {"SI", 1}, {"TB", 1}, {"UC", 1},
};
const std::string mainCommands = "BCFGOQSTU";

// The card 0xEB; what it sends is put into the queues' form.
class Exchange : public bus::Port {
  protected:
    /// Runs one exchange; `got` becomes what the reply's buffer holds.
    int ask(const pckStruct& asked) {
        const QCMgr q(asked, CABP_BuildQuery, CABP_GetReplyDataLen(asked));
        const int ret = CABP_ManageQuery(q);
        got.assign(q.pckReply, q.pckReply + q.expectedReplyLen);
        return ret;
    }
    static std::string failed(const char* cmd, const char* addr) {
        return std::string("FALLITO Comando ") + cmd + " inviato alla scheda " + addr + "\n";
    }
    std::string lastMessages(std::size_t n) const {
        const auto entries = log.entries();
        std::string all;
        for (std::size_t i = entries.size() < n ? 0 : entries.size() - n; i < entries.size(); ++i) {
            all += entries[i].level + " " + entries[i].message + "\n";
        }
        return all;
    }
};

const Bytes BN_REPLY = frame(0xEC, 0xFF, "BN", filler(20));

}  // namespace

// ---- lengths

TEST(ReplyLength, OfEveryPairOfBytes) {
    LogCapture log;
    for (unsigned main = 0; main <= 0xFF; ++main) {
        for (unsigned sub = 0; sub <= 0xFF; ++sub) {
            const char cmd[3] = {static_cast<char>(main), static_cast<char>(sub), '\0'};
            const std::string name(cmd, 2);
            if (name == "QT") {
                continue;  // hangs on what it carries
            }
            const auto known = replyLengths.find(name);
            EXPECT_EQ(CABP_GetReplyDataLen(query(0xEC, cmd)), known == replyLengths.end() ? 0 : known->second);
            std::string message;
            if (known == replyLengths.end()) {
                message = mainCommands.find(cmd[0]) != std::string::npos && main != 0
                              ? "SubCmd " + name.substr(1) + " non supportato per il MainCmd " + name.substr(0, 1)
                              : "MainCmd " + name.substr(0, 1) + " non supportato";
                message += "\n";
            }
            ASSERT_EQ(log.messages(), message) << main << " " << sub;
            ASSERT_EQ(log.errors(), message.empty() ? 0u : 1u);
            log.clear();
        }
    }
}

TEST(ReplyLength, OfTheReservedMainCommandIsAlwaysRefusedByItsSubCmd) {
    LogCapture log;
    EXPECT_EQ(CABP_GetReplyDataLen(query(0xEC, "FX")), 0);
    EXPECT_EQ(log.messages(), "SubCmd X non supportato per il MainCmd F\n");
}

TEST(ReplyLength, OfOtIsToldWhileOrAndOsAreSilent) {
    LogCapture log;
    EXPECT_EQ(CABP_GetReplyDataLen(query(0xEC, "OR")), 0);
    EXPECT_EQ(CABP_GetReplyDataLen(query(0xEC, "OS")), 0);
    EXPECT_EQ(CABP_GetReplyDataLen(query(0xFF, "CN")), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(CABP_GetReplyDataLen(query(0xEC, "OT")), 0);
    EXPECT_EQ(log.messages(), "SubCmd T non supportato per il MainCmd O\n");
}

TEST(ReplyLength, GivesTheSizeThatAQueryExpects) {
    const QCMgr bs(query(0xEC, "BS"), CABP_BuildQuery, CABP_GetReplyDataLen(query(0xEC, "BS")));
    EXPECT_EQ(bs.expectedReplyLen, 278);
    Bytes data(93);
    const QCMgr cn(query(0xFF, "CN", &data), CABP_BuildQuery, CABP_GetReplyDataLen(query(0xFF, "CN", &data)));
    EXPECT_EQ(cn.buildQueryLen, 103);
    EXPECT_EQ(cn.expectedReplyLen, 10);
}

// ---- one exchange

TEST_F(Exchange, GoodReplyIsInTheBuffer) {
    line.put(filler(40));  // left from before, thrown away
    line.expect(frame(0xEB, 0xEC, "BN")).reply(BN_REPLY, 4000);
    EXPECT_EQ(ask(query(0xEC, "BN")), 0);
    EXPECT_EQ(got, BN_REPLY);
    EXPECT_EQ(LastMaster, 0xEB);
    EXPECT_EQ(errnoCABP, 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(line.allDone());
}

TEST_F(Exchange, OnTheWireByteByByte) {
    CABP_End();
    FakeLine paced("/dev/ttyPACED", 9600);
    serialPortCABP = "/dev/ttyPACED";
    CABP_Init();
    log.clear();
    paced.expect(frame(0xEB, 0xEC, "BN")).reply(join({{0x00}, BN_REPLY}), 4000);
    Transcript::clear();
    EXPECT_EQ(ask(query(0xEC, "BN")), 0);
    EXPECT_TRUE(Transcript::matchesGolden("cabp_exchange"));
    EXPECT_TRUE(paced.allDone());
    EXPECT_EQ(log.text(), "");
    CABP_End();
}

TEST_F(Exchange, AcknowledgeIsAReplyOfOneByte) {
    Bytes data(374, 0x5A);
    line.expect(frame(0xEB, 0xEC, "SC", data)).reply(frame(0xEC, 0xEB, "SC", {0x06}), 4000);
    EXPECT_EQ(ask(query(0xEC, "SC", &data)), 0);
    EXPECT_EQ(got, frame(0xEC, 0xEB, "SC", {0x06}));
}

TEST_F(Exchange, ToAllNodesWaitsForNothing) {
    LastMaster = 0xEC;
    line.expect(frame(0xEB, 0xFF, "CU"));
    const std::int64_t start = VirtualClock::now();
    EXPECT_EQ(ask(query(0xFF, "CU")), 1);
    EXPECT_LT(VirtualClock::now() - start, 20000);
    EXPECT_EQ(LastMaster, 0xEC);
    EXPECT_EQ(line.calls(LineCall::Read), 0u);
    EXPECT_EQ(got, Bytes(11, 0));
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(line.allDone());
}

TEST_F(Exchange, HandoverWaitsForNothingWhoeverItIsFor) {
    LastMaster = 0xEC;
    Bytes data(93, 1);
    for (const unsigned dest : {0xFFu, 0xECu}) {
        line.expect(frame(0xEB, dest, "CN", data));
        EXPECT_EQ(ask(query(dest, "CN", &data)), 1);
    }
    EXPECT_EQ(LastMaster, 0xEC);
    EXPECT_EQ(line.calls(LineCall::Read), 0u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Exchange, OwnQueryIsAnsweredOnTheWireByTheNodeItself) {
    LastMaster = 0xEC;
    line.expect(frame(0xEB, 0xEB, "CU"));
    line.expect(frame(0xEB, 0xEB, "CU", {0x06}));
    Transcript::clear();
    EXPECT_EQ(ask(query(0xEB, "CU")), 1);
    EXPECT_TRUE(Transcript::matchesGolden("cabp_own_query"));
    EXPECT_TRUE(line.allDone());
    EXPECT_EQ(VirtualClock::sumWaits("usleep"), 8000);
    EXPECT_EQ(got, Bytes(11, 0)) << "nothing is received";
    EXPECT_EQ(LastMaster, 0xEB) << "the asker of the query that was answered";
    EXPECT_EQ(log.text(), "");
}

TEST(OwnQuery, DataOfTheOwnCabinetGoToAllNodes) {
    support::Plant plant(0xEB, "AB");
    plant.registerAll();
    LogCapture log;
    for (const auto& [cmd, n] : {std::pair<const char*, std::size_t>{"BN", 20}, {"BS", 268}, {"BI", 98}}) {
        plant.line().clearSent();
        LastMaster = 0xEC;
        const pckStruct asked = query(0xEB, cmd);
        const QCMgr q(asked, CABP_BuildQuery, CABP_GetReplyDataLen(asked));
        EXPECT_EQ(CABP_ManageQuery(q), 1);
        const auto writes = plant.line().writes();
        ASSERT_EQ(writes.size(), 2u) << cmd;
        EXPECT_EQ(writes[0], frame(0xEB, 0xEB, cmd));
        ASSERT_EQ(writes[1].size(), n + 10);
        EXPECT_EQ(writes[1], frame(0xEB, 0xFF, cmd, Bytes(writes[1].begin() + 7, writes[1].end() - 3)));
        EXPECT_EQ(LastMaster, 0xEB);
    }
    EXPECT_EQ(log.errors(), 0u);
}

TEST_F(Exchange, OwnQueryThatCannotBeAnsweredIsNoFailure) {
    line.expect(frame(0xEB, 0xEB, "TB"));
    EXPECT_EQ(ask(query(0xEB, "TB")), 1);
    EXPECT_FALSE(log.contains("FALLITO Comando"));
    EXPECT_TRUE(line.allDone());
}

TEST_F(Exchange, ReplyOfAnotherLengthIsAFailureAlthoughItIsSound) {
    const Bytes reply = frame(0xEC, 0xFF, "BN", filler(19));
    line.expect(frame(0xEB, 0xEC, "BN")).reply(reply);
    EXPECT_EQ(ask(query(0xEC, "BN")), -1);
    EXPECT_EQ(log.messages(), "RealDatalen:19 expectedReplyLen:30\n" + failed("BN", "0xEC"));
    EXPECT_EQ(log.errors(), 2u);
    EXPECT_EQ(log.entries()[0].file, "CABPQuery.cpp");
    EXPECT_EQ(log.entries()[0].function, "CABP_ManageQuery");
    EXPECT_EQ(errnoCABP, 0);
    EXPECT_EQ(LastMaster, 0xEB);
}

TEST_F(Exchange, LongerReplyFailsInItsCheck) {
    line.expect(frame(0xEB, 0xEC, "BN")).reply(frame(0xEC, 0xFF, "BN", filler(21)));
    EXPECT_EQ(ask(query(0xEC, "BN")), -1);
    EXPECT_EQ(errnoCABP, DATALENFAIL);
    EXPECT_EQ(log.messages(), failed("BN", "0xEC"));
}

TEST_F(Exchange, DamagedReply) {
    Bytes reply = BN_REPLY;
    reply[12] ^= 0x40;
    line.expect(frame(0xEB, 0xEC, "BN")).reply(reply);
    EXPECT_EQ(ask(query(0xEC, "BN")), -1);
    EXPECT_EQ(errnoCABP, CRCRCVFAIL);
    EXPECT_EQ(lastMessages(2),
              "War FINE STAMPE Errore Codice di Controllo\nErr FALLITO Comando BN inviato alla scheda 0xEC\n");
}

TEST_F(Exchange, ReplyToAnotherNode) {
    line.expect(frame(0xEB, 0xEC, "BN")).reply(frame(0xEC, 0xEA, "BN", filler(20)));
    EXPECT_EQ(ask(query(0xEC, "BN")), -1);
    EXPECT_EQ(errnoCABP, ADDRSFAIL);
    EXPECT_EQ(log.messages(),
              "Errore Indirizzi Query Src:0xEB Dest:0xEC     Reply Src:0xEC Dest:0xEA \n" + failed("BN", "0xEC"));
}

TEST_F(Exchange, SilentNode) {
    errnoCABP = CRCRCVFAIL;
    line.expect(frame(0xEB, 0x0C, "SI", filler(16)));
    Bytes data = filler(16);
    EXPECT_EQ(ask(query(0x0C, "SI", &data)), -1);
    EXPECT_EQ(log.messages(),
              "Errore ricezione: manca il carattere di inizio pacchetto della risposta timeout:3000!\n" +
                  failed("SI", "0x0C"));
    EXPECT_EQ(errnoCABP, CRCRCVFAIL) << "a time-out leaves the code of the last check";
    EXPECT_EQ(LastMaster, 0xEB);
}

TEST_F(Exchange, NothingIsSentAfterFourTries) {
    LastMaster = 0xEC;
    line.fail(LineCall::Write, EIO, 1, 4);
    EXPECT_EQ(ask(query(0xEC, "BN")), -1);
    EXPECT_EQ(log.occurrences("errore in scrittura"), 4u);
    EXPECT_EQ(lastMessages(1), "Err FALLITO Comando BN inviato alla scheda 0xEC\n");
    EXPECT_EQ(LastMaster, 0xEC);
    EXPECT_EQ(line.calls(LineCall::Read), 0u);
    EXPECT_EQ(VirtualClock::countWaits("usleep"), 0u);
}

TEST_F(Exchange, FourthTrySucceeds) {
    line.fail(LineCall::Write, EIO, 1, 3);
    line.expect(frame(0xEB, 0xEC, "BN")).reply(BN_REPLY);
    EXPECT_EQ(ask(query(0xEC, "BN")), 0);
    EXPECT_TRUE(line.allDone());
}

TEST_F(Exchange, ClosedPort) {
    CABP_End();
    log.clear();
    EXPECT_EQ(ask(query(0xEC, "BN")), -1);
    EXPECT_EQ(ask(query(0xEB, "BN")), -1) << "the own node as well: nothing went out";
    EXPECT_EQ(ask(query(0xFF, "BN")), -1);
    EXPECT_EQ(log.occurrences("Canale non valido!"), 12u);
    EXPECT_EQ(log.occurrences("FALLITO Comando BN"), 3u);
}

TEST_F(Exchange, UnknownCommandExpectsABareFrame) {
    line.expect(frame(0xEB, 0xEC, "ZZ")).reply(frame(0xEC, 0xEB, "ZZ"));
    EXPECT_EQ(ask(query(0xEC, "ZZ")), 0);
    EXPECT_EQ(log.messages(), "MainCmd Z non supportato\n");
}

TEST_F(Exchange, QueryWithoutAFrameOrARoomForTheReplyFails) {
    {
        QCMgr q(query(0xEC, "BN"), CABP_BuildQuery, 20);
        std::free(q.pckQuery);
        q.pckQuery = nullptr;
        EXPECT_EQ(CABP_ManageQuery(q), -1);
        EXPECT_EQ(log.messages(), failed("BN", "0xEC"));
        EXPECT_TRUE(line.sent().empty());
    }
    log.clear();
    QCMgr q(query(0xEC, "BN"), CABP_BuildQuery, 20);
    std::free(q.pckReply);
    q.pckReply = nullptr;
    EXPECT_EQ(CABP_ManageQuery(q), -1);
    EXPECT_EQ(log.messages(), failed("BN", "0xEC"));
}

TEST_F(Exchange, TakesNoMemory) {
    line.onWrite([this](const Bytes&) { line.feed(BN_REPLY, 4000); });
    const QCMgr q(query(0xEC, "BN"), CABP_BuildQuery, 20);
    const support::AllocationCount allocations;
    EXPECT_EQ(CABP_ManageQuery(q), 0);
    EXPECT_EQ(allocations.count(), 0u);
}

TEST_F(Exchange, FaultAtEveryCall) {
    std::size_t n = 1;
    for (;; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, 200u);
        VirtualClock::setLimit(VirtualClock::now() + 20000000);
        line.clearFaults();
        line.onWrite([this](const Bytes&) { line.feed(BN_REPLY, 4000); });
        CABP_Init();
        line.failAny(EIO, n);
        const int ret = ask(query(0xEC, "BN"));
        line.onWrite(nullptr);
        if (line.hasFaultsLeft()) {
            EXPECT_EQ(ret, 0);
            break;
        }
        if (ret == 0) {
            EXPECT_EQ(got, BN_REPLY);
        } else {
            EXPECT_EQ(lastMessages(1), "Err FALLITO Comando BN inviato alla scheda 0xEC\n");
        }
        CABP_End();
        EXPECT_EQ(line.openCount(), 0u);
    }
    EXPECT_GT(n, 8u);
}

// ---- the type of a board

namespace {

class BoardType : public Exchange {
  protected:
    Bytes reply(std::size_t n = 64) {
        Bytes data = filler(n);
        data[46] = 0x12;
        data[47] = 0x34;
        return frame(0x0B, 0xEB, "GI", data);
    }
    const Bytes asked = frame(0xEB, 0x0B, "GI");
};

}  // namespace

TEST_F(BoardType, IsTakenFromTheIdentification) {
    uint16 type = 0;
    line.put(filler(30));
    line.expect(asked).reply(reply(), 4000);
    EXPECT_EQ(CABP_GetUnitBoardType(0x0B, type), 0);
    EXPECT_EQ(type, 0x1234);
    EXPECT_TRUE(line.allDone());
    std::string dump = "verifica GI\n";
    for (const uint8 byte : reply()) {
        char text[8];
        std::snprintf(text, sizeof(text), "0x%02X ", byte);
        dump += text;
    }
    EXPECT_EQ(log.messages(), dump + "\n");
    EXPECT_EQ(log.count(""), 1u);
    EXPECT_EQ(LastMaster, GROUPMASTER);
}

TEST_F(BoardType, IsUnknownWhereTheExchangeFails) {
    uint16 type = 0;
    EXPECT_EQ(CABP_GetUnitBoardType(0x0B, type), -1);
    EXPECT_EQ(type, 255) << "silence";

    type = 0;
    line.expect(asked);
    line.expect(asked).reply(frame(0x0B, 0xEA, "GI", filler(64)));
    line.expect(asked).reply(reply(63));
    line.expect(asked).reply(reply(65));
    CABP_GetUnitBoardType(0x0B, type);
    for (const char* shows : {"to another node", "too short", "too long"}) {
        type = 0;
        EXPECT_EQ(CABP_GetUnitBoardType(0x0B, type), -1) << shows;
        EXPECT_EQ(type, 255) << shows;
    }

    type = 0;
    line.fail(LineCall::Write, EIO, 1, 4);
    const std::size_t reads = line.calls(LineCall::Read);
    EXPECT_EQ(CABP_GetUnitBoardType(0x0B, type), -1);
    EXPECT_EQ(type, 255) << "nothing sent";
    EXPECT_EQ(line.calls(LineCall::Read), reads);
    EXPECT_FALSE(log.contains("verifica GI"));
    EXPECT_FALSE(log.contains("FALLITO"));

    CABP_End();
    type = 0;
    EXPECT_EQ(CABP_GetUnitBoardType(0x0B, type), -1);
    EXPECT_EQ(type, 255) << "closed port";
}
