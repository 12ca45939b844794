#include "CABP/CABP.h"

#include <cstdio>
#include <cstdlib>
#include <set>

#include "Bus.h"
#include "support/Allocations.h"

using bus::filler;
using bus::frame;
using bus::query;
using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::LogCapture;

namespace {

Bytes build(const pckStruct& qcs) {
    uint8* built = nullptr;
    const uint16 length = CABP_BuildQuery(qcs, built);
    const Bytes bytes(built, built + length);
    CABP_DestroyQuery(built);
    return bytes;
}

class Building : public testing::Test {
  protected:
    Building() { CABPAddr = 0xEA; }
    LogCapture log;
};

}  // namespace

TEST(ProtocolState, BeforeAnythingHasHappened) {
    EXPECT_EQ(CABP_ch, 0xFF);
    EXPECT_EQ(CABPAddr, 0xE0);
    EXPECT_EQ(LastMaster, 0xE0);
    EXPECT_EQ(errnoCABP, 0);
    EXPECT_EQ(cntBreakDetect, 0);
}

TEST(ProtocolState, OwnAddressIsNotWhatGetAddrTells) {
    for (const unsigned addr : {0xE0u, 0xEAu, 0xEDu}) {
        CABPAddr = static_cast<uint8>(addr);
        EXPECT_EQ(CABP_getAddr(), 0xEA);
    }
}

TEST(ProtocolState, OnlyMcuAddressesAreRememberedAsMaster) {
    for (unsigned src = 0; src <= 0xFF; ++src) {
        LastMaster = 0xEC;
        CABP_UpdateLastMaster(static_cast<uint8>(src));
        EXPECT_EQ(LastMaster, src >= 0xE0 && src <= 0xEF ? src : 0xECu) << src;
    }
}

// ---- building and taking apart

TEST_F(Building, QueryWithoutDataHasTenBytes) {
    // The check covers the six bytes behind STX; its value was worked out apart from this code.
    EXPECT_EQ(build(query(0xEB, "BN")), (Bytes{0x02, 0xEA, 0xEB, 0x42, 0x4E, 0x00, 0x00, 0x9A, 0x83, 0x03}));
    EXPECT_EQ(build(query(0xEB, "BN")), frame(0xEA, 0xEB, "BN"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Building, SenderIsTheOwnAddressWhateverTheRecordSays) {
    pckStruct q = query(0x0C, "SI");
    q.Src = 0x55;
    CABPAddr = 0xED;
    EXPECT_EQ(build(q), frame(0xED, 0x0C, "SI"));
}

TEST_F(Building, LengthGoesHighByteFirst) {
    Bytes data = filler(268);
    const Bytes built = build(query(0xEB, "BS", &data));
    ASSERT_EQ(built.size(), 278u);
    EXPECT_EQ(built[5], 0x01);
    EXPECT_EQ(built[6], 0x0C);
    EXPECT_EQ(built, frame(0xEA, 0xEB, "BS", data));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Building, MissingParametersAreToldAndGoOutAsZeros) {
    pckStruct q = query(0xFF, "CN");
    q.ParamLen = 93;
    EXPECT_EQ(build(q), frame(0xEA, 0xFF, "CN", Bytes(93, 0)));
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, "Err");
    EXPECT_EQ(entries[0].file, "CABP.cpp");
    EXPECT_EQ(entries[0].function, "CABP_BuildQuery");
    EXPECT_EQ(log.messages(), "Puntatore non inizializzato!\n");
}

TEST_F(Building, LargestParametersStayInsideTheFrame) {
    Bytes data = filler(0xFFFF);
    for (const unsigned n : {0xFFF5u, 0xFFF6u, 0xFFFFu}) {
        pckStruct q = query(0xEB, "SC", &data);
        q.ParamLen = static_cast<uint16>(n);
        uint8* built = nullptr;
        EXPECT_EQ(CABP_BuildQuery(q, built), static_cast<uint16>(n + 10));
        const Bytes expected = frame(0xEA, 0xEB, "SC", Bytes(data.begin(), data.begin() + n));
        EXPECT_EQ(Bytes(built, built + n + 10), expected) << n;
        CABP_DestroyQuery(built);
    }
}

TEST(CABPFrames, QueryWithoutMemoryIsNoneAndIsNotSent) {
    const support::LogCapture log;
    support::failAllocation(1);
    const QCMgr q(query(0xEB, "BN"), CABP_BuildQuery, 20);
    support::failAllocation(0);
    EXPECT_EQ(q.pckQuery, nullptr);
    EXPECT_EQ(q.expectedReplyLen, 30);
    EXPECT_EQ(CABP_ManageQuery(q), FAIL);
}

TEST_F(Building, DestroyLeavesThePointer) {
    uint8* built = nullptr;
    CABP_BuildQuery(query(0xEB, "BN"), built);
    const uintptr_t before = reinterpret_cast<uintptr_t>(built);
    CABP_DestroyQuery(built);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(built), before);
}

TEST_F(Building, QueryOfTheQueuesCarriesTheFrame) {
    const QCMgr q(query(0xED, "BS"), CABP_BuildQuery, CABP_GetReplyDataLen(query(0xED, "BS")));
    EXPECT_EQ(Bytes(q.pckQuery, q.pckQuery + q.buildQueryLen), frame(0xEA, 0xED, "BS"));
    EXPECT_EQ(q.expectedReplyLen, 278);
}

TEST_F(Building, TakingApartPointsIntoTheFrame) {
    Bytes pck = frame(0xEC, 0xEA, "QT", filler(0x0102));
    pckStruct q;
    CABP_ExtractQuery(q, pck.data());
    EXPECT_EQ(q.Src, 0xEC);
    EXPECT_EQ(q.Dest, 0xEA);
    EXPECT_EQ(q.MainCmd, 'Q');
    EXPECT_EQ(q.SubCmd, 'T');
    EXPECT_EQ(q.ParamLen, 0x0102);
    EXPECT_EQ(q.pParam, pck.data() + 7);
    // Whatever stands there is taken.
    pck[0] = 0;
    pck[5] = 0xFF;
    pck[6] = 0xFE;
    CABP_ExtractQuery(q, pck.data());
    EXPECT_EQ(q.ParamLen, 0xFFFE);
    EXPECT_EQ(log.text(), "");
}

// ---- a reply against its query

namespace {

Bytes damaged(Bytes pck, std::size_t at, unsigned value) {
    pck[at] = static_cast<uint8>(value);
    return pck;
}

// A frame of the sum of its bytes, as another method of control would have it.
Bytes withChecksum(Bytes pck) {
    unsigned sum = 0;
    for (std::size_t i = 1; i < pck.size() - 3; ++i) {
        sum += pck[i];
    }
    pck[pck.size() - 3] = static_cast<uint8>(sum >> 8);
    pck[pck.size() - 2] = static_cast<uint8>(sum);
    return pck;
}

struct DecodeRow {
    const char* shows;
    Bytes reply;
    uint8 errorCode;
    const char* level;
    const char* messages;
};

const Bytes QUERY = frame(0xEA, 0xEB, "BS");
const Bytes GOOD = frame(0xEB, 0xEA, "BS", {1, 2, 3});
const Bytes GOODTOALL = frame(0xEB, 0xFF, "BS", {1, 2, 3});
constexpr char COMMANDS_DIFFER[] = "Errore Comando, Main e Sub non coincidono\n";

const DecodeRow decodeRows[] = {
    {"good", GOOD, 0, "", ""},
    {"to all nodes, from the asked one", GOODTOALL, 0, "", ""},
    {"without data", frame(0xEB, 0xEA, "BS"), 0, "", ""},
    {"long", frame(0xEB, 0xFF, "BS", filler(1014)), 0, "", ""},
    {"the end isn't looked at", damaged(GOOD, GOOD.size() - 1, 0x55), 0, "", ""},
    {"no STX", damaged(GOOD, 0, 0x03), STXFAIL, "War", "Errore intestazione\n"},
    {"no STX comes before all else", Bytes(20, 0), STXFAIL, "War", "Errore intestazione\n"},
    {"wrong sender", frame(0xEC, 0xEA, "BS", {1}), ADDRSFAIL, "War",
     "Errore Indirizzi Query Src:0xEA Dest:0xEB     Reply Src:0xEC Dest:0xEA \n"},
    {"wrong receiver", frame(0xEB, 0xED, "BS", {1}), ADDRSFAIL, "War",
     "Errore Indirizzi Query Src:0xEA Dest:0xEB     Reply Src:0xEB Dest:0xED \n"},
    {"to all nodes, from another", frame(0xEC, 0xFF, "BS", {1}), ADDRSFAIL, "War",
     "Errore Indirizzi Query Src:0xEA Dest:0xEB     Reply Src:0xEC Dest:0xFF \n"},
    {"NAK of another",
     frame(0xEC, 0xEA,
           "\x15"
           "1"),
     ADDRSFAIL, "War", "Errore Indirizzi Query Src:0xEA Dest:0xEB     Reply Src:0xEC Dest:0xEA \n"},
    {"other MainCmd", frame(0xEB, 0xEA, "CS"), CMDSFAIL, "Err", COMMANDS_DIFFER},
    {"other SubCmd", frame(0xEB, 0xEA, "BN"), CMDSFAIL, "Err", COMMANDS_DIFFER},
    {"other command comes before the length", damaged(frame(0xEB, 0xEA, "BN"), 6, 9), CMDSFAIL, "Err", COMMANDS_DIFFER},
    {"NAK of the MainCmd",
     frame(0xEB, 0xEA,
           "\x15"
           "1"),
     MAINCMDFAIL, "Err", "MainCmd:B non riconosciuto\n"},
    {"NAK of the SubCmd",
     frame(0xEB, 0xEA,
           "\x15"
           "2"),
     SUBCMDFAIL, "Err", "SubCmd:S non riconosciuto\n"},
    {"NAK of the length",
     frame(0xEB, 0xEA,
           "\x15"
           "3"),
     DATALENFAIL, "Err", "DataLength non corretta\n"},
    {"NAK of the check",
     frame(0xEB, 0xEA,
           "\x15"
           "4"),
     ERRCODEFAIL, "Err", "CRC o CHKSUM non corretti\n"},
    {"NAK of a busy node",
     frame(0xEB, 0xEA,
           "\x15"
           "5"),
     BUSYFAIL, "Err", "Non e' possibile eseguire il comando in questo momento!\n"},
    {"NAK of the PIN",
     frame(0xEB, 0xEA,
           "\x15"
           "6"),
     SECURITYPINFAIL, "Err", "Security PIN non corretto\n"},
    {"unknown NAK", frame(0xEB, 0xEA, "\x15Z"), GENFAIL, "Err", "Errore generico\n"},
    {"NAK 0", frame(0xEB, 0xEA, "\x15"), GENFAIL, "Err", "Errore generico\n"},
    {"NAK to all nodes",
     frame(0xEB, 0xFF,
           "\x15"
           "5"),
     BUSYFAIL, "Err", "Non e' possibile eseguire il comando in questo momento!\n"},
    {"NAK whose own check is wrong",
     damaged(frame(0xEB, 0xEA,
                   "\x15"
                   "6"),
             8, 0),
     SECURITYPINFAIL, "Err", "Security PIN non corretto\n"},
    {"length too small", damaged(GOOD, 6, 2), DATALENFAIL, "", ""},
    {"length too large, low byte", damaged(GOOD, 6, 4), DATALENFAIL, "", ""},
    {"length too large, high byte", damaged(GOOD, 5, 1), DATALENFAIL, "", ""},
    {"length and check wrong", damaged(damaged(GOOD, 6, 4), 10, 0), DATALENFAIL, "", ""},
};

}  // namespace

TEST(Decode, RepliesRowByRow) {
    for (const DecodeRow& row : decodeRows) {
        SCOPED_TRACE(row.shows);
        LogCapture log;
        errnoCABP = 0x77;
        const int ret = CABP_Decode(QUERY.data(), row.reply.data(), static_cast<uint16>(row.reply.size()));
        EXPECT_EQ(ret, row.errorCode == 0 ? 0 : -1);
        EXPECT_EQ(errnoCABP, row.errorCode);
        EXPECT_EQ(log.messages(), row.messages);
        EXPECT_EQ(log.count(row.level), row.messages[0] == '\0' ? 0u : 1u);
    }
}

TEST(Decode, NakWithTheSubCmdOfTheQueryIsANakAllTheSame) {
    LogCapture log;
    const Bytes asked = frame(0xEA, 0xEB, "B2");
    const Bytes reply = frame(0xEB, 0xEA,
                              "\x15"
                              "2");
    EXPECT_EQ(CABP_Decode(asked.data(), reply.data(), 10), -1);
    EXPECT_EQ(errnoCABP, SUBCMDFAIL);
    EXPECT_EQ(log.messages(), "SubCmd:2 non riconosciuto\n");
}

TEST(Decode, ControlMismatchIsDumped) {
    LogCapture log;
    const Bytes good = frame(0xEB, 0xEA, "BS", {0xAB});
    ASSERT_EQ(bus::crcOf(good, 1, 8), static_cast<unsigned>(good[8] << 8 | good[9]));
    const Bytes reply = damaged(damaged(good, 8, 0x12), 9, 0x34);
    EXPECT_EQ(CABP_Decode(QUERY.data(), reply.data(), 11), -1);
    EXPECT_EQ(errnoCABP, CRCRCVFAIL);
    char calculated[16];
    std::snprintf(calculated, sizeof(calculated), "%04X", bus::crcOf(good, 1, 8));
    EXPECT_EQ(log.messages(), std::string("Errore Codice di Controllo\n") + "Calcolato:0x" + calculated +
                                  " Ricevuto:0x1234\n"
                                  "datalen:1\n"
                                  "replypck:\n"
                                  "0x02 0xEB 0xEA 0x42 0x53 0x00 0x01 0xAB 0x12 0x34 0x03 \n"
                                  "FINE STAMPE Errore Codice di Controllo\n");
    EXPECT_EQ(log.warnings(), 4u);
    EXPECT_EQ(log.errors(), 0u);
    EXPECT_EQ(log.entries()[0].function, "CABP_Decode");
}

TEST(Decode, EveryBitOfTheCoveredBytesCounts) {
    const LogCapture log;
    for (std::size_t i = 7; i < GOOD.size() - 1; ++i) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            const Bytes reply = damaged(GOOD, i, GOOD[i] ^ 1U << bit);
            EXPECT_EQ(CABP_Decode(QUERY.data(), reply.data(), static_cast<uint16>(reply.size())), -1);
            EXPECT_EQ(errnoCABP, CRCRCVFAIL) << i << " " << bit;
        }
    }
}

TEST(Decode, ChecksumIsNoControl) {
    const LogCapture log;
    const Bytes reply = withChecksum(GOOD);
    EXPECT_EQ(CABP_Decode(QUERY.data(), reply.data(), static_cast<uint16>(reply.size())), -1);
    EXPECT_EQ(errnoCABP, CRCRCVFAIL);
}

TEST(Decode, SizeBelowThatOfAFrameIsAWrongLength) {
    // A buffer of just the header: nothing behind it may be looked at, whatever length it announces.
    for (const unsigned length : {0u, 1u, 0xFFFFu, 0xFFFEu, 0xFFFDu}) {
        for (uint16 size = 7; size < 10; ++size) {
            LogCapture log;
            Bytes header(GOOD.begin(), GOOD.begin() + 7);
            header[5] = static_cast<uint8>(length >> 8);
            header[6] = static_cast<uint8>(length);
            EXPECT_EQ(CABP_Decode(QUERY.data(), header.data(), size), -1);
            EXPECT_EQ(errnoCABP, DATALENFAIL);
            EXPECT_EQ(log.text(), "");
        }
    }
}

// ---- acknowledges and sending

namespace {

struct AckRow {
    const char* shows;
    Bytes pck;
    int ret;
    const char* level;
    const char* messages;
    uint8 lastMaster;
};

const AckRow ackRows[] = {
    {"acknowledged", frame(0xEC, 0xEB, "SC", {0x06}), 0, "", "ACK a CMD:SC da scheda:0xEC!!\n", 0xEC},
    {"by an SK board", frame(0x0B, 0xEB, "SI", {0x06}), 0, "", "ACK a CMD:SI da scheda:0xB!!\n", 0xE0},
    {"no data", frame(0xEC, 0xEB, "SC"), -1, "Err", "Formato della risposta errato!!\n", 0xEC},
    {"two bytes", frame(0xEC, 0xEB, "SC", {0x06, 0x06}), -1, "Err", "Formato della risposta errato!!\n", 0xEC},
    {"257 bytes", frame(0xEC, 0xEB, "SC", Bytes(257, 6)), -1, "Err", "Formato della risposta errato!!\n", 0xEC},
    {"not ACK", frame(0xED, 0xEB, "TB", {0x15}), -1, "Err", "NOT_ACKNOWLEDGED a CMD:TB da scheda:0xED!!\n", 0xED},
    {"bytes that are no characters", frame(0xEC, 0xEB, "\x80\xFF", {0x06}), 0, "",
     "ACK a CMD:\x80\xFF da scheda:0xEC!!\n", 0xEC},
    {"refused, and no characters", frame(0xEC, 0xEB, "\xC3\xE9", {0x00}), -1, "Err",
     "NOT_ACKNOWLEDGED a CMD:\xC3\xE9 da scheda:0xEC!!\n", 0xEC},
};

}  // namespace

TEST(Acknowledge, JudgedRowByRow) {
    for (const AckRow& row : ackRows) {
        SCOPED_TRACE(row.shows);
        LogCapture log;
        LastMaster = GROUPMASTER;
        Bytes pck = row.pck;
        pckStruct reply;
        CABP_ExtractQuery(reply, pck.data());
        EXPECT_EQ(CABP_ACKControl(reply, 0), row.ret);
        EXPECT_EQ(log.messages(), row.messages);
        EXPECT_EQ(log.count(row.level), 1u);
        EXPECT_EQ(LastMaster, row.lastMaster);
    }
}

using Sending = bus::Port;

TEST_F(Sending, AcknowledgeRepeatsTheCommand) {
    EXPECT_EQ(CABP_ACKReply(0xEA, 'C', 'U'), 0);
    EXPECT_EQ(line.sent(), frame(0xEB, 0xEA, "CU", {0x06}));
    EXPECT_EQ(line.sent().size(), 11u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Sending, BusyNakReplacesTheCommand) {
    EXPECT_EQ(CABP_BusyReply(0xEC), 0);
    EXPECT_EQ(line.sent(), frame(0xEB, 0xEC,
                                 "\x15"
                                 "5"));
    EXPECT_EQ(line.sent().size(), 10u);
}

TEST_F(Sending, StopsAtTheFirstTryThatSucceeds) {
    for (std::size_t failures = 0; failures < 4; ++failures) {
        line.clearSent();
        log.clear();
        if (failures > 0) {
            line.fail(LineCall::Write, EIO, 1, failures);
        }
        EXPECT_EQ(CABP_ACKReply(0xEA, 'C', 'U'), 0);
        EXPECT_EQ(line.writes().size(), 1u);
        EXPECT_EQ(log.occurrences("errore in scrittura"), failures);
    }
}

TEST_F(Sending, GivesUpAfterFourTries) {
    line.fail(LineCall::Write, EIO, 1, 5);
    EXPECT_EQ(CABP_ACKReply(0xEA, 'C', 'U'), -1);
    EXPECT_EQ(log.occurrences("errore in scrittura"), 4u);
    EXPECT_EQ(line.calls(LineCall::Write), 4u);
    // The fifth failure is still to come; nothing else has changed.
    EXPECT_EQ(CABP_BusyReply(0xEA), 0);
    EXPECT_EQ(line.calls(LineCall::Write), 6u);
}

TEST_F(Sending, OnAClosedPortFails) {
    CABP_End();
    log.clear();
    EXPECT_EQ(CABP_BusyReply(0xEC), -1);
    EXPECT_EQ(CABP_ACKReply(0xEA, 'C', 'U'), -1);
    EXPECT_EQ(log.occurrences("Canale non valido!"), 8u);
}

TEST_F(Sending, TakesNoMemory) {
    const support::AllocationCount allocations;
    CABP_ACKReply(0xEA, 'C', 'U');
    CABP_BusyReply(0xEC);
    EXPECT_EQ(allocations.count(), 0u);
}
