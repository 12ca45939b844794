// What the card answers in its module's name: out of the records, or by queueing a command and acknowledging it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "support/Allocations.h"
#include "unit/MLINK/Link.h"

namespace {

using images::pattern;
using modlink::Bytes;
using modlink::bytesOf;
using modlink::coded;
using modlink::frame;
using modlink::query;
using support::LogCapture;
using support::VirtualClock;

constexpr time_t NOWADAYS = 1700000000;
constexpr time32_t STAMP = 0x51627384;

class Reply : public modlink::Card {
  protected:
    explicit Reply(uint8 own = 0xEA) : Card(own) { VirtualClock::setWall(NOWADAYS); }

    /// The result; what was built stands in `got`, its age mark in `stamp`.
    int ask(const std::string& cmd, const std::string& parameters = "", unsigned dest = '1') {
        Bytes data = bytesOf(parameters);
        pckStruct qcs = query('A', dest, cmd, &data);
        uint8* reply = &garbage;
        uint8 len = 99;
        stamp = 99;
        const int ret = MLINK_BuildReply(qcs, reply, len, stamp);
        EXPECT_EQ(len, ret);
        got.clear();
        if (ret == 0) {
            EXPECT_EQ(reply, nullptr);
        } else {
            got.assign(reply, reply + ret);
        }
        std::free(reply);
        return ret;
    }
    /// The frame of a command with a CRC whatever the command.
    Bytes answer(const std::string& cmd, const std::string& data = "", unsigned dest = '1') {
        return frame(dest, 'A', cmd, bytesOf(data));
    }
    template <typename Record>
    static Bytes filled(Record& record, uint8 seed) {
        const Bytes bytes = pattern(sizeof(record), seed);
        std::memcpy(static_cast<void*>(&record), bytes.data(), bytes.size());
        return bytes;
    }
    static std::string failed(const std::string& cmd) { return "FALLITA costruzione risposta " + cmd + "\n"; }

    Bytes got;
    time_t stamp = 0;

  private:
    uint8 garbage = 0;
};

// ---------------------------------------------------------------------------------------------------------------
// Commands

TEST_F(Reply, CommandsAreQueuedAndAcknowledged) {
    for (const char* const cmd : {"CB", "CD", "CF", "CM", "CP", "CR", "CS", "CU", "TB", "TC"}) {
        LogCapture log;
        EXPECT_EQ(ask(cmd, "0012"), 12) << cmd;
        EXPECT_EQ(got, answer(cmd)) << cmd;
        EXPECT_EQ(stamp, NOWADAYS);
        QCMgr* element = nullptr;
        ASSERT_TRUE(mlink().peekAsyncQC(element));
        EXPECT_EQ(element->QC.Src, 'A') << "the source stays the asker's";
        EXPECT_EQ(Bytes(element->pckQuery, element->pckQuery + element->buildQueryLen),
                  frame('A', '1', cmd, bytesOf("0012")));
        EXPECT_EQ(queued(), std::string(cmd) + ">1(0012) ");
        EXPECT_TRUE(log.has("", std::string("Add AsyncQuery ") + cmd + " to 0x31"));
    }
}

TEST_F(Reply, TheSameCommandIsQueuedOnceAndAcknowledgedEachTime) {
    EXPECT_EQ(ask("CS", "0012"), 12);
    EXPECT_EQ(ask("CS", "0012"), 12);
    EXPECT_EQ(ask("CS", "0013"), 12);
    EXPECT_EQ(queued(), "CS>1(0012) CS>1(0013) ");
}

TEST_F(Reply, AnAddressThatIsNoUnitsIsAcknowledgedAllTheSame) {
    for (const unsigned dest : {0x30u, 0x39u, 0x00u, 0xFFu, 0x20u}) {
        for (const char* const cmd : {"CS", "TB"}) {
            LogCapture log;
            EXPECT_EQ(ask(cmd, "0012", dest), 12);
            EXPECT_EQ(got, answer(cmd, "", dest));
            EXPECT_EQ(log.messages(), "Indirizzo del modulo non corretto: " + std::to_string(dest) + "!\n");
            EXPECT_EQ(queued(), "");
        }
    }
    for (unsigned dest = '1'; dest <= '8'; ++dest) {
        EXPECT_EQ(ask("CD", "", dest), 12);
        EXPECT_EQ(queued(), std::string("CD>") + static_cast<char>(dest) + "() ");
    }
}

TEST_F(Reply, SwitchesOfModulesAreAcknowledgedWithoutData) {
    for (const char* const parameter : {"0", "1", "", "11"}) {
        EXPECT_EQ(ask("DC", parameter), 12);
        EXPECT_EQ(got, answer("DC"));
        EXPECT_EQ(stamp, NOWADAYS);
        EXPECT_EQ(queued(), std::string("DC>1(") + parameter + ") ");
    }
}

TEST_F(Reply, SwitchesOfTheBypassUnitAreAcknowledgedWithFourZeros) {
    EXPECT_EQ(ask("DC", "1", '8'), 16);
    EXPECT_EQ(got, answer("DC", "0000", '8'));
    EXPECT_EQ(stamp, NOWADAYS);
    EXPECT_EQ(queued(), "DC>8(1) ");
    for (const char* const parameter : {"", "11"}) {
        EXPECT_EQ(ask("DC", parameter, '8'), 12);
        EXPECT_EQ(got, answer("DC", "", '8'));
    }
}

TEST_F(Reply, SettingsAreAcknowledgedWithFourZeros) {
    EXPECT_EQ(ask("SV", "00120034"), 16);
    EXPECT_EQ(got, answer("SV", "0000"));
    EXPECT_EQ(stamp, NOWADAYS);
    EXPECT_EQ(queued(), "SV>1(00120034) ");
}

// ---------------------------------------------------------------------------------------------------------------
// Records

TEST_F(Reply, MainIdentificationComesFromTheRecord) {
    Bytes record = filled(node().identification, 0x41);
    node().identification.timestamp = STAMP;
    LogCapture log;
    EXPECT_EQ(ask("GI"), 68);
    const auto part = [&record](std::ptrdiff_t at, std::ptrdiff_t n) {
        return Bytes(record.begin() + at, record.begin() + at + n);
    };
    // The number of batteries goes out as it stands in the record.
    const Bytes data = bus::join({part(4, 16), part(21, 16), part(38, 12), part(51, 9), part(60, 3)});
    ASSERT_EQ(data.size(), 56u);
    EXPECT_EQ(got, frame('1', 'A', "GI", data));
    EXPECT_EQ(Bytes(got.begin() + 5, got.begin() + 7), bytesOf("38"));
    EXPECT_EQ(stamp, STAMP);
    EXPECT_EQ(queued(), "");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Reply, AuxiliaryIdentificationComesFromTheRecordWithItsLettersLowered) {
    const struct {
        const char* text;
        const char* wire;
    } table[] = {{"SWQ417-01-02", "SWQ417-01-02"},
                 {"SWQ417-AF-CD", "SWQ417-:?-<="},
                 {":::::::9::9;", ":::::::93:94"},
                 {"SWQ417-ZZ-ZZ", "SWQ417-SS-SS"},
                 {"SWQ417-\xFF\x80-0:", "SWQ417-\xF8y-03"}};
    for (const auto& row : table) {
        filled(node().identification, 0x41);
        node().identification.timestamp = STAMP;
        std::memcpy(node().identification.SWVer_AUX, row.text, 12);
        std::memcpy(node().identification.tbdGE, "wxyz", 4);
        EXPECT_EQ(ask("GE"), 28);
        EXPECT_EQ(got, answer("GE", std::string(row.wire) + "wxyz"));
        EXPECT_EQ(stamp, STAMP);
    }
}

TEST_F(Reply, NominalValuesComeFromTheRecord) {
    nominal_t& nominal = node().nominal;
    nominal.timestamp = STAMP;
    nominal.VA = 0xFFF12345;  // the low five nibbles
    nominal.W = 0x0006789A;
    nominal.BatteryV = 0xFBCD;
    nominal.BatteryAh = 0x0EF0;
    nominal.Vout = 0x0123;
    nominal.FreqOut = 0x0456;
    EXPECT_EQ(ask("GN"), 34);
    EXPECT_EQ(got, answer("GN", "123456789:;<=>?0123456"));
    EXPECT_EQ(Bytes(got.begin() + 5, got.begin() + 7), bytesOf("16"));
    EXPECT_EQ(stamp, STAMP);
    EXPECT_EQ(queued(), "");
}

TEST_F(Reply, AnIncompleteIdentificationGivesTheStartValuesAndIsAskedFor) {
    filled(node().identification, 0x41);
    node().identification.timestamp = 0;
    EXPECT_EQ(ask("GI"), 68);
    Bytes data(44, ' ');
    data = bus::join({data, bytesOf("4322102"), {0x00}, bytesOf("1xxx")});
    EXPECT_EQ(got, frame('1', 'A', "GI", data));
    EXPECT_EQ(stamp, 0);
    EXPECT_EQ(queued(), "GI>1() GE>1() ");
    EXPECT_EQ(ask("GE"), 28);
    EXPECT_EQ(got, answer("GE", std::string(12, ' ') + "xxxx"));
    EXPECT_EQ(stamp, 0);
    EXPECT_EQ(queued(), "GI>1() GE>1() ");
}

TEST_F(Reply, MissingNominalValuesAreZerosAndAreAskedFor) {
    filled(node().nominal, 0x41);
    node().nominal.timestamp = 0;
    EXPECT_EQ(ask("GN"), 34);
    EXPECT_EQ(got, answer("GN", std::string(22, '0')));
    EXPECT_EQ(stamp, 0);
    EXPECT_EQ(queued(), "GN>1() ");
}

TEST_F(Reply, AModuleWithoutNodeHasNothingToTell) {
    mlink().ModulesData[0][0].pVN = nullptr;
    const struct {
        const char* cmd;
        std::size_t n;
        char filler;
    } table[] = {{"GI", 56, 0}, {"GE", 16, 0}, {"GN", 22, '0'}};
    for (const auto& row : table) {
        LogCapture log;
        EXPECT_EQ(ask(row.cmd), static_cast<int>(row.n + 12));
        EXPECT_EQ(got, answer(row.cmd, std::string(row.n, row.filler)));
        EXPECT_EQ(stamp, 0);
        EXPECT_TRUE(log.contains("MODULO NON INIZIALIZZATO"));
    }
}

TEST_F(Reply, AnAddressThatIsNoModulesHasNothingToTell) {
    for (const unsigned dest : {0x30u, 0x39u, 0xFFu}) {
        for (const char* const cmd : {"GI", "GE", "GN"}) {
            LogCapture log;
            EXPECT_NE(ask(cmd, "", dest), 0);
            EXPECT_EQ(stamp, 0);
            EXPECT_TRUE(log.has("Err", "GRAVE ERRORE DI INDIRIZZAMENTO"));
        }
    }
    EXPECT_EQ(ask("GN", "", '8'), 34);
    EXPECT_EQ(stamp, 0);
    EXPECT_EQ(queued(), "");
}

// ---------------------------------------------------------------------------------------------------------------
// The direct read

TEST_F(Reply, ADirectReadIsAskedOfTheModule) {
    module.line.expect(frame('A', '1', "GM", bytesOf("1234"))).reply(frame('1', 'A', "GM", bytesOf("<=>?")), 20000);
    EXPECT_EQ(ask("GM", "1234"), 16);
    EXPECT_EQ(got, answer("GM", "<=>?"));
    EXPECT_EQ(stamp, VirtualClock::wall() / 1000000);
    EXPECT_EQ(queued(), "");
    EXPECT_TRUE(module.line.allDone());
}

TEST_F(Reply, ADirectReadOfASilentModuleGivesAGoodFrameWithZeros) {
    const std::int64_t start = VirtualClock::now();
    EXPECT_EQ(ask("GM", "1234"), 16);
    EXPECT_EQ(got, frame('1', 'A', "GM", Bytes(4, 0)));
    EXPECT_GE(VirtualClock::now() - start, 1000000);
    EXPECT_EQ(stamp, VirtualClock::wall() / 1000000) << "the time at which it was over";
}

TEST_F(Reply, ADirectReadThatIsRefusedGivesZerosToo) {
    module.line.expect(frame('A', '1', "GM", bytesOf("1234")))
        .reply(frame('1', 'A',
                     "\x15"
                     "2"),
               20000);
    EXPECT_EQ(ask("GM", "1234"), 16);
    EXPECT_EQ(got, frame('1', 'A', "GM", Bytes(4, 0)));
}

class ReplyOfD : public Reply {
  protected:
    ReplyOfD() : Reply(0xED) {}
};

TEST_F(ReplyOfD, EachCardAnswersForItsOwnModule) {
    node('A').nominal.timestamp = 1;
    node('D').nominal.timestamp = STAMP;
    EXPECT_EQ(ask("GN"), 34);
    EXPECT_EQ(stamp, STAMP);
    module.line.expect(frame('A', '1', "GM", bytesOf("1234"))).reply(frame('1', 'A', "GM", bytesOf("0001")), 20000);
    EXPECT_EQ(ask("GM", "1234"), 16);
    EXPECT_EQ(got, answer("GM", "0001"));
}

// ---------------------------------------------------------------------------------------------------------------
// Refusals

TEST_F(Reply, StatusBitsHaveNoReply) {
    LogCapture log;
    EXPECT_EQ(ask("RC"), 0);
    EXPECT_EQ(stamp, 0);
    EXPECT_EQ(log.messages(), failed("RC"));
    EXPECT_EQ(log.errors(), 1u);
}

TEST_F(Reply, WhatIsNotListedIsRefused) {
    const std::set<std::string> known{"CB", "CD", "CF", "CM", "CP", "CR", "CS", "CU", "TB",
                                      "TC", "DC", "SV", "GE", "GI", "GN", "GM", "RC"};
    const std::string mains = "CDGRST";
    for (int main = 0x20; main < 0x7F; ++main) {
        for (int sub = 0x20; sub < 0x7F; ++sub) {
            const std::string cmd{static_cast<char>(main), static_cast<char>(sub)};
            if (known.count(cmd) != 0) {
                continue;
            }
            LogCapture log;
            ASSERT_EQ(ask(cmd), 0) << cmd;
            const std::string told = mains.find(cmd[0]) != std::string::npos
                                         ? "SubCmd " + cmd.substr(1) + " non supportato per il MainCmd " + cmd[0]
                                         : "MainCmd " + cmd.substr(0, 1) + " non supportato";
            ASSERT_EQ(log.messages(), told + "\n" + failed(cmd));
            ASSERT_EQ(log.errors(), 2u);
            ASSERT_EQ(stamp, 0);
        }
    }
    EXPECT_EQ(queued(), "");
}

TEST_F(Reply, WithoutMemoryThereIsNone) {
    node().identification.timestamp = STAMP;
    node().nominal.timestamp = STAMP;
    const struct {
        const char* cmd;
        const char* builder;
    } table[] = {{"CS", "MLINK_ACKBuildReply"}, {"TB", "MLINK_ACKBuildReply"}, {"DC", "MLINK_DCBuildReply"},
                 {"SV", "MLINK_SVBuildReply"},  {"GE", "MLINK_GEBuildReply"},  {"GI", "MLINK_GIBuildReply"},
                 {"GN", "MLINK_GNBuildReply"},  {"GM", "MLINK_GMBuildReply"}};
    for (const auto& row : table) {
        ask(row.cmd, "1");  // is queued from now on: what fails next is the reply
        bool isTold = false;
        for (std::size_t n = 1; n < 10 && !isTold; ++n) {
            LogCapture log;
            support::failAllocation(n);
            const int ret = ask(row.cmd, "1");
            support::failAllocation(0);
            for (const support::LogEntry& entry : log.entries()) {
                isTold = isTold ||
                         (entry.level == "Err" && entry.function == row.builder && entry.message == "malloc fallita!!");
            }
            EXPECT_EQ(ret == 0, isTold) << row.cmd << n;
            EXPECT_EQ(log.contains(failed(row.cmd)), isTold) << row.cmd << n;
        }
        EXPECT_TRUE(isTold) << row.cmd;
    }
}

}  // namespace
