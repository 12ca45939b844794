// What a card does about the frames that are addressed to it: every row of the two tables, every refusal to the byte,
// and that a refusal leaves the line silent.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "MLINK/ThreadMLINK.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/Replaced.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace {

using bus::Bytes;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;
namespace replaced = support::replaced;

class Commands : public testing::Test {
  protected:
    explicit Commands(uint8 own = 0xEB, const std::string& boxes = "ABCD") : plant(own, boxes) {
        plant.registerAll();
        VirtualClock::clearWaits();
    }
    static pckStruct make(uint8 src, uint8 dest, const char* cmd, Bytes* data) {
        pckStruct query = bus::query(dest, cmd, data);
        query.Src = src;
        if (data == nullptr) {
            static uint8 frameEnd[3];  // a frame without data: what stands behind its head
            query.pParam = frameEnd;
        }
        return query;
    }
    void ask(uint8 dest, const char* cmd, Bytes data = {}, uint8 src = 0xEA) {
        pckStruct query = make(src, dest, cmd, data.empty() ? nullptr : &data);
        plant.bus().ReplyToQuery(query);
    }
    void command(uint8 dest, const char* cmd, Bytes data = {}, uint8 src = 0xEA) {
        pckStruct query = make(src, dest, cmd, data.empty() ? nullptr : &data);
        plant.bus().ManageCommand(query);
    }
    // Bytes on the wire and lines in the log; both start anew.
    std::vector<Bytes> answers() {
        const std::vector<Bytes> all = plant.line().writes();
        plant.line().clearSent();
        return all;
    }
    std::string said() {
        std::string all;
        for (const support::LogEntry& entry : log.entries()) {
            all += entry.level + " " + entry.function + ": " + entry.message + "\n";
        }
        log.clear();
        return all;
    }

    Plant plant;
    LogCapture log;
};

// ---------------------------------------------------------------------------------------------------------------
// Queries

TEST_F(Commands, DataQueriesAreAnsweredToAllAfterAPause) {
    const struct {
        const char* cmd;
        std::size_t size;
    } cases[] = {{"BN", 30}, {"BS", 278}, {"BI", 108}};
    for (const auto& c : cases) {
        VirtualClock::clearWaits();
        ask(0xEB, c.cmd);
        const std::vector<Bytes> sent = answers();
        ASSERT_EQ(sent.size(), 1U) << c.cmd;
        EXPECT_EQ(sent[0].size(), c.size);
        EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 5),
                  (Bytes{0x02, 0xEB, 0xFF, static_cast<uint8>(c.cmd[0]), static_cast<uint8>(c.cmd[1])}));
        EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 1U);
        EXPECT_EQ(VirtualClock::sumWaits("QThread::msleep"), 2000);
        EXPECT_EQ(VirtualClock::waits()[0].call, "QThread::msleep") << "before the answer";
    }
    EXPECT_EQ(LastMaster, 0xEA);
}

TEST_F(Commands, ErrorQueryPassesHereAndIsRefusedByTheAnsweringSide) {
    ask(0xEB, "BE");
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(said(),
              "Err CABP_ManageReply: SubCmd E non supportato per il MainCmd B\n"
              "Err CABP_ManageReply: FALLITO Risposta BE inviato alla scheda 0xEA\n");
    EXPECT_EQ(VirtualClock::sumWaits("QThread::msleep"), 2000);
}

TEST_F(Commands, RequestForTheConfigurationIsAcknowledgedAtOnce) {
    ask(0xEB, "UC", {}, 0xEC);
    const std::vector<Bytes> sent = answers();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0], bus::frame(0xEB, 0xEC, "UC", {0x06}));
    EXPECT_TRUE(plant.data('C').remoteUpdaterequest);
    EXPECT_EQ(said(), " CABP_UCReply: Richiesta aggiornamento da MCU:C\n");
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

struct RefusalCase {
    const char* name;
    int dest;
    const char* cmd;
    const char* said;
};

class RefusedQuery : public Commands, public testing::WithParamInterface<RefusalCase> {};

TEST_P(RefusedQuery, IsToldAndGetsNoAnswer) {
    const RefusalCase& c = GetParam();
    const uint8 before = LastMaster;
    ask(static_cast<uint8>(c.dest), c.cmd);
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(said(), c.said);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
    EXPECT_EQ(LastMaster, before);
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        EXPECT_FALSE(plant.data(letter).remoteUpdaterequest);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, RefusedQuery,
    testing::Values(
        RefusalCase{"BX", 0xEB, "BX", "Err ReplyToQuery: con 'B' SubCmd X non supportato!\n"},
        RefusalCase{"BXToAll", 0xFF, "BX", "Err ReplyToQuery: con 'B' SubCmd X non supportato!\n"},
        RefusalCase{"BNToAll", 0xFF, "BN",
                    "Err ReplyToQuery: La query BN non puo' essere usata con il broadcast 0xFF!\n"},
        RefusalCase{"BSToAll", 0xFF, "BS",
                    "Err ReplyToQuery: La query BS non puo' essere usata con il broadcast 0xFF!\n"},
        RefusalCase{"BIToAll", 0xFF, "BI",
                    "Err ReplyToQuery: La query BI non puo' essere usata con il broadcast 0xFF!\n"},
        RefusalCase{"BEToAll", 0xFF, "BE",
                    "Err ReplyToQuery: La query BE non puo' essere usata con il broadcast 0xFF!\n"},
        RefusalCase{"QX", 0xEB, "QX", "Err ReplyToQuery: con 'Q' SubCmd X non supportato!\n"},
        RefusalCase{"QTToAll", 0xFF, "QT", "Err ReplyToQuery: La query QT non puo' essere usata con il broadcast!\n"},
        RefusalCase{"SC", 0xEB, "SC", "Err ReplyToQuery: con 'S' SubCmd C non supportato!\n"},
        RefusalCase{"SI", 0xEB, "SI", "Err ReplyToQuery: con 'S' SubCmd I non supportato!\n"},
        RefusalCase{"SToAll", 0xFF, "SI", "Err ReplyToQuery: con 'S' SubCmd I non supportato!\n"},
        RefusalCase{"UX", 0xEB, "UX", "Err ReplyToQuery: con 'U' SubCmd X non supportato!\n"},
        RefusalCase{"UCToAll", 0xFF, "UC", "Err ReplyToQuery: La query UC non puo' essere usata con il broadcast!\n"},
        RefusalCase{"C", 0xEB, "CN", "War ReplyToQuery: MainCmd non gestito!\n"},
        RefusalCase{"F", 0xEB, "FX", "War ReplyToQuery: MainCmd non gestito!\n"},
        RefusalCase{"G", 0xEB, "GI", "War ReplyToQuery: MainCmd non gestito!\n"},
        RefusalCase{"O", 0xEB, "OR", "War ReplyToQuery: MainCmd non gestito!\n"},
        RefusalCase{"T", 0xEB, "TB", "War ReplyToQuery: MainCmd non gestito!\n"},
        RefusalCase{"PercentMain", 0xEB, "%n", "War ReplyToQuery: MainCmd non gestito!\n"},
        RefusalCase{"PercentSub", 0xEB, "B%", "Err ReplyToQuery: con 'B' SubCmd % non supportato!\n"},
        RefusalCase{"ControlSub", 0xEB, "Q\x01", "Err ReplyToQuery: con 'Q' SubCmd \x01 non supportato!\n"},
        RefusalCase{"HighSub", 0xEB, "U\xC3", "Err ReplyToQuery: con 'U' SubCmd \xC3 non supportato!\n"}),
    [](const auto& c) { return std::string(c.param.name); });

// The letters themselves are compared, whatever bit they would stand for in a mask.
TEST_F(Commands, OnlyFourLettersComeUnderB) {
    for (int sub = 1; sub < 256; ++sub) {
        const char cmd[3] = {'B', static_cast<char>(sub), '\0'};
        ask(0xEB, cmd);
        const bool accepted = std::strchr("EINS", sub) != nullptr;
        EXPECT_EQ(!log.contains("con 'B' SubCmd"), accepted) << sub;
        EXPECT_EQ(answers().size(), accepted && sub != 'E' ? 1U : 0U) << sub;
        log.clear();
    }
    const char nul[2] = {'B', '\0'};
    ask(0xEB, nul);
    EXPECT_TRUE(log.contains("con 'B' SubCmd"));
    EXPECT_TRUE(answers().empty());
}

TEST_F(Commands, EveryOtherMainCmdIsRefused) {
    for (int main = 1; main < 256; ++main) {
        if (std::strchr("BQSU", main) != nullptr) {
            continue;
        }
        const char cmd[3] = {static_cast<char>(main), 'S', '\0'};
        ask(0xEB, cmd);
        EXPECT_EQ(said(), "War ReplyToQuery: MainCmd non gestito!\n") << main;
        EXPECT_TRUE(answers().empty());
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Tunnelled queries

Bytes inner(char dest, const char* cmd) {
    return {0x02,
            'A',
            static_cast<uint8>(dest),
            static_cast<uint8>(cmd[0]),
            static_cast<uint8>(cmd[1]),
            '0',
            '0',
            '1',
            '2',
            '3',
            '4',
            0x03};
}

// Of the records that a card keeps for its module.
TEST_F(Commands, TunnelledQueryIsAnsweredForTheOwnModule) {
    ask(0xEB, "QT", inner('1', "GN"));
    ASSERT_EQ(answers().size(), 1U);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 1U);
    EXPECT_EQ(VirtualClock::sumWaits("QThread::msleep"), 2000);
    EXPECT_EQ(VirtualClock::waits()[0].call, "QThread::msleep") << "before the answer";
    EXPECT_FALSE(log.contains("non ancora attivo"));
}

TEST_F(Commands, TunnelledQueryWithoutReplyIsAcceptedAndNotAnswered) {
    const std::string last = "Err CABP_ManageReply: FALLITO Risposta QT inviato alla scheda 0xEA\n";
    ask(0xEB, "QT", inner('1', "RS"));
    EXPECT_EQ(said(),
              "Err MLINK_BuildReply: SubCmd S non supportato per il MainCmd R\n"
              "Err MLINK_BuildReply: FALLITA costruzione risposta RS\n" +
                  last + "Err CABP_ManageReply: Pacchetto incapsulato RS da 'A' per '1'\n");
    // This one is let through to any unit.
    for (const char dest : {'1', '2', '8'}) {
        ask(0xEB, "QT", inner(dest, "XA"));
        EXPECT_EQ(said(),
                  "Err MLINK_BuildReply: MainCmd X non supportato\n"
                  "Err MLINK_BuildReply: FALLITA costruzione risposta XA\n" +
                      last + "Err CABP_ManageReply: Pacchetto incapsulato XA da 'A' per '" + dest + "'\n");
    }
    EXPECT_TRUE(answers().empty());
}

TEST_F(Commands, TunnelledQueryToAnotherUnitFindsNoModule) {
    for (int dest = 0x20; dest < 0x7F; ++dest) {
        if (dest == '1') {
            continue;
        }
        for (const char* const cmd : {"GI", "CS", "XB", "YA"}) {
            ask(0xEB, "QT", inner(static_cast<char>(dest), cmd));
            EXPECT_EQ(said(), std::string("War ReplyToQuery: Interrogato modulo ") + static_cast<char>(dest) +
                                  " non ancora attivo!!\n");
        }
    }
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(Commands, TunnelledQueryFindsNoModuleThatIsNotActive) {
    plant.sys().pThMLink->ModulesData[1][0].commStatus.active = false;
    ask(0xEB, "QT", inner('1', "GN"));
    EXPECT_EQ(said(), "War ReplyToQuery: Interrogato modulo 1 non ancora attivo!!\n");
    EXPECT_TRUE(answers().empty());
}

TEST_F(Commands, TunnelledQueryToAnotherCardIsNotAnswered) {
    ask(0xEC, "QT", inner('1', "GN"));
    EXPECT_EQ(said(), "War ReplyToQuery: Interrogato modulo 1 non ancora attivo!!\n");
    EXPECT_TRUE(answers().empty());
}

TEST_F(Commands, TunnelledFrameThatIsTooShortIsNotLookedInto) {
    const std::string nobody = std::string("War ReplyToQuery: Interrogato modulo ") + '\0' + " non ancora attivo!!\n";
    for (std::size_t size = 0; size < 12; ++size) {
        Bytes data = inner('1', "RS");
        data.resize(size);
        ask(0xEB, "QT", data);
        EXPECT_EQ(said(), nobody) << size;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// A card whose cabinet isn't in the plant

class NotConfigured : public Commands {
  protected:
    NotConfigured() : Commands(0xEC, "AB") {}
};

TEST_F(NotConfigured, AnswersNothing) {
    for (const char* const cmd : {"BE", "BI", "BN", "BS"}) {
        ask(0xEC, cmd);
        EXPECT_EQ(said(), "Err ReplyToQuery: STRANO!! perche' la mia MCU non e' configurata?\n") << cmd;
    }
    ask(0xEC, "UC");
    EXPECT_EQ(said(), "Err ReplyToQuery: STRANO!! perche' la mia MCU non e' configurata?\n");
    ask(0xEC, "QT", inner('1', "RS"));
    EXPECT_EQ(said(), "War ReplyToQuery: Interrogato modulo 1 non ancora attivo!!\n");
    ask(0xEC, "BX");
    EXPECT_EQ(said(), "Err ReplyToQuery: con 'B' SubCmd X non supportato!\n");
    ask(0xFF, "BN");
    EXPECT_EQ(said(), "Err ReplyToQuery: La query BN non puo' essere usata con il broadcast 0xFF!\n");
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(NotConfigured, ObeysButDoesNotAcknowledge) {
    command(0xEC, "CU");
    EXPECT_EQ(said(), " ManageCommand: UNLOCK: ricevuto comando da:0xEA\n");
    EXPECT_TRUE(plant.bus().EPOReset);
    command(0xEC, "CH");
    EXPECT_EQ(said(), " ManageCommand: SYSTEM HALT: ricevuto comando da:0xEA\n");
    EXPECT_EQ(replaced::system().count(), 1U);
    EXPECT_TRUE(answers().empty());
}

class OutsideThePlan : public Commands {
  protected:
    OutsideThePlan() : Commands(0xE0, "ABCD") {}
};

TEST_F(OutsideThePlan, AnswersNothing) {
    ask(0xE0, "BS");
    EXPECT_EQ(said(), "Err ReplyToQuery: STRANO!! perche' la mia MCU non e' configurata?\n");
    ask(0xE0, "UC");
    EXPECT_EQ(said(), "Err ReplyToQuery: STRANO!! perche' la mia MCU non e' configurata?\n");
    command(0xE0, "CU");
    EXPECT_EQ(said(), " ManageCommand: UNLOCK: ricevuto comando da:0xEA\n");
    EXPECT_TRUE(answers().empty());
}

// ---------------------------------------------------------------------------------------------------------------
// Commands

TEST_F(Commands, UnlockIsAcknowledgedToldAndLatched) {
    command(0xEB, "CU", {}, 0xED);
    EXPECT_EQ(answers(), std::vector<Bytes>{bus::frame(0xEB, 0xED, "CU", {0x06})});
    EXPECT_EQ(said(), " ManageCommand: UNLOCK: ricevuto comando da:0xED\n");
    EXPECT_TRUE(plant.bus().EPOReset);
    EXPECT_EQ(LastMaster, 0xED);
    EXPECT_EQ(VirtualClock::countWaits("QThread::msleep"), 0U);
}

TEST_F(Commands, UnlockOfAllIsNotAcknowledged) {
    command(0xFF, "CU");
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(said(), " ManageCommand: UNLOCK: ricevuto comando da:0xEA\n");
    EXPECT_TRUE(plant.bus().EPOReset);
}

TEST_F(Commands, HaltIsAcknowledgedBeforeTheCardStops) {
    std::size_t answeredBefore = 0;
    replaced::system().does([&](const char*) {
        answeredBefore = plant.line().writes().size();
        return 0;
    });
    command(0xEB, "CH", {}, 0xEC);
    EXPECT_EQ(answeredBefore, 1U);
    EXPECT_EQ(answers(), std::vector<Bytes>{bus::frame(0xEB, 0xEC, "CH", {0x06})});
    EXPECT_EQ(said(), " ManageCommand: SYSTEM HALT: ricevuto comando da:0xEC\n");
    ASSERT_EQ(replaced::system().count(), 1U);
    EXPECT_EQ(std::get<0>(replaced::system().call(0)), "halt");
}

TEST_F(Commands, HaltOfAllIsNotAcknowledged) {
    command(0xFF, "CH");
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(replaced::system().count(), 1U);
}

TEST_F(Commands, FailedHaltReturnsIntoTheLoop) {
    replaced::system().returns(-1);
    command(0xEB, "CH");
    EXPECT_EQ(said(), " ManageCommand: SYSTEM HALT: ricevuto comando da:0xEA\n");
}

class RefusedCommand : public Commands, public testing::WithParamInterface<RefusalCase> {};

TEST_P(RefusedCommand, IsToldAndGetsNoAnswer) {
    const RefusalCase& c = GetParam();
    command(static_cast<uint8>(c.dest), c.cmd);
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(said(), c.said);
    EXPECT_FALSE(plant.bus().EPOReset);
    EXPECT_EQ(replaced::system().count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Each, RefusedCommand,
    testing::Values(RefusalCase{"SC", 0xEB, "SC", "Err ManageCommand: con 'S' SubCmd C non supportato!\n"},
                    RefusalCase{"SCToAll", 0xFF, "SC", "Err ManageCommand: con 'S' SubCmd C non supportato!\n"},
                    RefusalCase{"SI", 0xEB, "SI", "Err ManageCommand: con 'S' SubCmd I non supportato!\n"},
                    RefusalCase{"CX", 0xEB, "CX", "Err ManageCommand: con 'C' SubCmd X non supportato!\n"},
                    RefusalCase{"CPercent", 0xEB, "C%", "Err ManageCommand: con 'C' SubCmd % non supportato!\n"},
                    RefusalCase{"CControl", 0xEB, "C\x1B", "Err ManageCommand: con 'C' SubCmd \x1B non supportato!\n"},
                    RefusalCase{"B", 0xEB, "BS", "War ManageCommand: MainCmd non gestito!\n"},
                    RefusalCase{"U", 0xEB, "UC", "War ManageCommand: MainCmd non gestito!\n"},
                    RefusalCase{"Percent", 0xEB, "%s", "War ManageCommand: MainCmd non gestito!\n"}),
    [](const auto& c) { return std::string(c.param.name); });

TEST_F(Commands, ConfigurationFromTheBusIsNeverTakenOver) {
    const PlantCfg before = plant.cfg();
    command(0xEB, "SC", Bytes(374, 0x5A));
    EXPECT_EQ(std::memcmp(&before, &plant.cfg(), sizeof(before)), 0);
}

// ---------------------------------------------------------------------------------------------------------------
// Requests from senders that are no cabinet

TEST_F(Commands, RequestOfANodeThatIsNoCabinetIsAcknowledgedButNotRemembered) {
    for (const int src : {0xE0, 0xE5, 0xE9, 0xEE, 0xEF}) {
        ask(0xEB, "UC", {}, static_cast<uint8>(src));
        EXPECT_EQ(answers(), std::vector<Bytes>{bus::frame(0xEB, static_cast<uint8>(src), "UC", {0x06})});
        EXPECT_EQ(log.errors(), 1U);
        log.clear();
        for (const char letter : {'A', 'B', 'C', 'D'}) {
            EXPECT_FALSE(plant.data(letter).remoteUpdaterequest);
        }
    }
}

}  // namespace
