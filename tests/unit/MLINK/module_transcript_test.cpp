// Transcripts of the module line, compared with texts that a person can read (tests/golden/module_*.txt): the start,
// rounds, a module that is lost and returns, each polled query, each command on the queue and each operation that is
// waited for, with each way in which it can end.
#include <gtest/gtest.h>

#include <cerrno>

#include "unit/MLINK/Scene.h"

namespace {

using scene::Bytes;
using scene::frame;
using scene::MS;
using scene::Peer;
using scene::Plant;
using scene::SECOND;
using scene::text;
using scene::VirtualClock;
using support::LineCall;

class ModuleTranscript : public scene::Scene {
  protected:
    using Scene::Scene;
    std::string stateOfModule() {
        return std::string("the module is ") + (comm().isGood ? "good" : "lost") + ", score " +
               std::to_string(comm().errorPck) + ", errors " + std::to_string(comm().errorCnt);
    }
    /// Its queries as they come, whatever the registration was told.
    void standAt(const std::string& cmd) {
        in().CurrFixQC = in().FixQuery.begin();
        while (in().walkStandsAt() != cmd) {
            ASSERT_NE(in().walkStandsAt(), "end");
            ++in().CurrFixQC;
        }
    }
};

TEST_F(ModuleTranscript, StartAndStop) {
    tell("the bus thread runs: it registers, lets the module thread go and asks its own card");
    VirtualClock::at(700 * MS, [this] { plant->bus().Stop(); });
    plant->bus().run();
    tell("the module thread: one pass idle, then a round and the beginning of the next");
    pass(1 + 9);
    tell("the stop");
    plant->stop();
    EXPECT_TRUE(isGolden("module_start"));
}

TEST_F(ModuleTranscript, RoundsWithData) {
    begin();
    const std::string digits = "0123456789:;<=>?0123456789:;<=>?0123456789:;<=>?0123456789";
    module.answers = {{"DE", text(digits)},
                      {"DS", text(digits)},
                      {"GI", text("SERIALNUMBER0001MODEL OF MODULE SWM417-05-01"
                                  "432210281xyz")},
                      {"GN", text("004>2003>8120007230500")},
                      {"RE", text(digits)},
                      {"RK", text(digits)}};
    tell("the first round");
    pass(8);
    tell("the second: all well, and nothing waits");
    pass(8);
    EXPECT_TRUE(isGolden("module_round"));
}

TEST_F(ModuleTranscript, BytesOnASlowLine) {
    // The module's bytes come one by one, with garbage before them.
    begin();
    const Bytes reply = scene::frame('1', 0x20, "CD");
    const auto onLine = [&] {
        std::int64_t at = line.sentUntil() + 15 * MS;
        for (const std::uint8_t byte : Bytes{0x00, 0x7F}) {
            line.feedAt(at += 8333, {byte});
        }
        at += 100 * MS;
        for (const std::uint8_t byte : reply) {
            line.feedAt(at += 8333, {byte});
        }
    };
    pollNothing();
    module.will(Peer::Silent);
    queue("CD", "");
    line.before(LineCall::Select, [&, done = false]() mutable {
        if (!done) {
            done = true;
            onLine();
        }
    });
    pass();
    EXPECT_TRUE(isGolden("module_slow_line"));
}

TEST_F(ModuleTranscript, LostAndReturned) {
    begin();
    isGood();
    pass(3);
    tell("the module falls silent");
    module.will(Peer::Silent, 5);
    for (int i = 0; i < 10; ++i) {
        if (i == 5) {
            tell("the module is back");
        }
        pass();
        tell(stateOfModule());
    }
    EXPECT_TRUE(isGolden("module_lost"));
}

// The two threads in turn: some polls, then a round of the bus with the cabinet's nominal values and its record.
TEST_F(ModuleTranscript, LostAndReturnedOnBothLines) {
    begin();
    Bytes record;
    const auto round = [&](int polls) {
        pass(polls);
        tell(stateOfModule());
        for (int i = 0; i < 3; ++i) {
            plant->bus().MasterAction();
        }
        for (const Bytes& sent : plant->line().writes()) {
            if (sent[2] != 0xFF || sent[4] != 'S') {
                continue;
            }
            std::string changed;
            for (std::size_t i = 7; i < sent.size() - 3 && !record.empty(); ++i) {
                if (sent[i] != record[i]) {
                    changed += " " + std::to_string(i - 7) + ": " + support::hex(&record[i], 1) + " > " +
                               support::hex(&sent[i], 1) + ";";
                }
            }
            record = sent;
            tell("the record's data, changed:" + changed);
        }
        plant->line().clearSent();
    };
    pass(8);
    tell("all is well");
    round(8);
    tell("the module falls silent");
    module.will(Peer::Silent, 4);
    round(1);
    round(1);
    round(2);
    tell("the module is back");
    round(8);
    EXPECT_TRUE(isGolden("module_lost_both_lines"));
}

TEST_F(ModuleTranscript, EachPolledQueryInEachWay) {
    begin();
    struct Way {
        const char* words;
        Peer::Fate fate;
        char code;
    };
    const Way ways[] = {{"answered", Peer::Good, '0'},
                        {"refused with 2", Peer::Refuses, '2'},
                        {"refused with 5", Peer::Refuses, '5'},
                        {"silence", Peer::Silent, '0'},
                        {"wrong check", Peer::SpoiltCheck, '0'},
                        {"one byte too many", Peer::OneByteMore, '0'},
                        {"one byte too few", Peer::OneByteLess, '0'}};
    for (const char* const cmd : {"DE", "DS", "GI", "GN", "RC", "RE", "RK", "RS"}) {
        for (const Way& way : ways) {
            isGood();
            standAt(cmd);
            tell(std::string(cmd) + ": " + way.words);
            module.will(way.fate, 1, way.code);
            pass();
        }
        isGood();
        standAt(cmd);
        tell(std::string(cmd) + ": dead port");
        line.fail(LineCall::Write, EIO);
        pass();
    }
    EXPECT_TRUE(isGolden("module_polled"));
}

// ---------------------------------------------------------------------------------------------------------------
// Commands on the queue

class Queued : public ModuleTranscript {
  protected:
    Queued() {
        begin();
        pollNothing();
    }
    /// Every command that isn't polled, with the parameters it has.
    struct Command {
        const char* cmd;
        const char* param;
    };
    static const std::vector<Command>& commands() {
        static const std::vector<Command> all = {
            {"CB", "1"},        {"CD", ""},     {"CF", ""}, {"CM", "<1"},       {"CP", "00"},
            {"CR", "00120034"}, {"CS", "0012"}, {"CU", ""}, {"DC", "1"},        {"GE", ""},
            {"GM", "1234"},     {"RB", ""},     {"RX", ""}, {"SM", "00000000"}, {"ST", "050327140309"},
            {"SV", "01"},       {"TB", "005"},  {"TC", ""}};
        return all;
    }
    void one(const Command& command, const std::string& how) {
        isGood();
        tell(std::string(command.cmd) + ": " + how);
        queue(command.cmd, command.param);
        pass();
        EXPECT_TRUE(in().AsyncQC.isEmpty()) << command.cmd;
    }
    void each(const std::string& how, const std::function<void()>& prepare) {
        for (const Command& command : commands()) {
            prepare();
            one(command, how);
        }
    }
};

TEST_F(Queued, Accepted) {
    each("accepted", [] {});
    EXPECT_TRUE(isGolden("module_queued_accepted"));
}

TEST_F(Queued, RefusedForGood) {
    each("refused with 2 until it is taken off", [this] { module.will(Peer::Refuses, 3, '2'); });
    EXPECT_TRUE(isGolden("module_queued_refused_for_good"));
}

TEST_F(Queued, RefusedOtherwise) {
    each("refused with 3 twice", [this] { module.will(Peer::Refuses, 2, '3'); });
    EXPECT_TRUE(isGolden("module_queued_refused"));
}

TEST_F(Queued, Busy) {
    each("refused with 5 twice", [this] { module.will(Peer::Refuses, 2, '5'); });
    EXPECT_TRUE(isGolden("module_queued_busy"));
}

TEST_F(Queued, Silent) {
    each("silence twice", [this] { module.will(Peer::Silent, 2); });
    EXPECT_TRUE(isGolden("module_queued_silent"));
}

TEST_F(Queued, DeadPort) {
    each("the port fails twice", [this] {
        line.clearFaults();
        module.will(Peer::Good, 0);
        line.fail(LineCall::Write, EIO, 1, 2);
    });
    EXPECT_TRUE(isGolden("module_queued_dead_port"));
}

TEST_F(Queued, EachRefusal) {
    for (const char code : {'1', '2', '3', '4', '5', '6', '7', '8', '0', 'A'}) {
        module.will(Peer::Refuses, 3, code);
        one({"CS", "0012"}, std::string("refused with ") + code + " up to three times");
    }
    EXPECT_TRUE(isGolden("module_queued_each_refusal"));
}

TEST_F(Queued, Faults) {
    module.will(Peer::SpoiltCheck);
    one({"CS", "0012"}, "wrong check, then accepted");
    module.will(Peer::OneByteMore);
    one({"CS", "0012"}, "one byte too many, then accepted");
    module.will(Peer::OneByteMore);
    one({"SV", "01"}, "one byte too many, then accepted");
    module.will(Peer::OneByteLess);
    one({"GE", ""}, "one byte too few, then accepted");
    tell("CS: the port fails in the middle of an exchange, and is opened anew");
    isGood();
    module.will(Peer::Silent);
    line.fail(LineCall::Read, EIO);
    queue("CS", "0012");
    VirtualClock::after(50 * MS, [this] { line.put({0x02}); });
    pass();
    tell("CS: the port goes away for good");
    isGood();
    module.will(Peer::Silent, 100);
    queue("CS", "0012");
    VirtualClock::after(50 * MS, [this] { line.hangUp(); });
    VirtualClock::after(1200 * MS, [this] { link().Stop(); });
    pass();
    EXPECT_TRUE(isGolden("module_queued_faults"));
}

// ---------------------------------------------------------------------------------------------------------------
// Operations that are waited for

class WaitedFor : public ModuleTranscript {
  protected:
    WaitedFor() {
        begin();
        pollNothing();
        plant->box('A').desc.upsBox.Ups.extStatus.isMaster = 1;
        plant->comm('A').isGood = true;
        plant->data('A').extendedBoardBox.idu = 1;
        VirtualClock::setWall(1804255389);  // 5 March 2027, 14:03:09
    }
    using Run = std::function<std::string()>;
    struct Operation {
        const char* name;
        Run run;
    };
    std::vector<Operation> operations() {
        const auto told = [](int result) { return std::to_string(result); };
        return {{"power on", [=] { return told(link().sysPowerOn()); }},
                {"shutdown(600)", [=] { return told(link().sysShutdown(600)); }},
                {"restore(600, 43981)", [=] { return told(link().sysRestore(600, 43981)); }},
                {"delete", [=] { return told(link().sysDeleteCmd()); }},
                {"battery test 005",
                 [=] {
                     uint8 param[3] = {'0', '0', '5'};
                     return told(link().sysBatteryTest(param));
                 }},
                {"battery test CLR",
                 [=] {
                     uint8 param[3] = {'C', 'L', 'R'};
                     return told(link().sysBatteryTest(param));
                 }},
                {"inverter or bypass 1", [=] { return told(link().sysInv_Byp('1')); }},
                {"bypass unlock", [=] { return told(link().sysBypsUnlock()); }},
                {"module on",
                 [=] {
                     link().moduleOn('A', '1');
                     return std::string("nothing");
                 }},
                {"module off",
                 [=] {
                     link().moduleOff('A', '1');
                     return std::string("nothing");
                 }},
                {"CM02 active",
                 [=] {
                     link().enSa_Active('A', '1');
                     return std::string("nothing");
                 }},
                {"CM02 inverter on",
                 [=] {
                     link().enSa_InverterOn('A', '1');
                     return std::string("nothing");
                 }},
                {"CM02 ab",
                 [=] {
                     uint8 param[2] = {'a', 'b'};
                     return told(link().sendCM02('A', '1', param));
                 }},
                {"clock", [=] { return told(link().RefreshClockModule('1')); }}};
    }
    void one(const Operation& operation, const std::string& how) {
        errnoMLink = 0;
        VirtualClock::setWall(1804255389);
        tell(std::string(operation.name) + ": " + how);
        const std::string result = operation.run();
        tellLog();
        support::Transcript::add("result", result);
    }
    void each(const std::string& how, const std::function<void()>& prepare) {
        for (const Operation& operation : operations()) {
            prepare();
            one(operation, how);
        }
    }
};

TEST_F(WaitedFor, Accepted) {
    each("accepted", [] {});
    one({"battery check", [this] { return std::to_string(link().sysBatteryCheck()); }},
        "queued, sent by the next pass");
    pass();
    EXPECT_TRUE(isGolden("module_waited_accepted"));
}

TEST_F(WaitedFor, Refused) {
    each("refused with 3", [this] { module.will(Peer::Refuses, 1, '3'); });
    EXPECT_TRUE(isGolden("module_waited_refused"));
}

TEST_F(WaitedFor, Busy) {
    each("refused with 5, always", [this] { module.will(Peer::Refuses, 5, '5'); });
    module.will(Peer::Refuses, 2, '5');
    one(operations()[1], "refused with 5 twice");
    EXPECT_TRUE(isGolden("module_waited_busy"));
}

TEST_F(WaitedFor, Silent) {
    each("silence", [this] { module.will(Peer::Silent); });
    EXPECT_TRUE(isGolden("module_waited_silent"));
}

TEST_F(WaitedFor, DeadPort) {
    each("the port fails", [this] { line.fail(LineCall::Write, EIO); });
    EXPECT_TRUE(isGolden("module_waited_dead_port"));
}

TEST_F(WaitedFor, EachRefusal) {
    for (const char code : {'1', '2', '3', '4', '6', '7', '8', '0', 'A'}) {
        module.will(Peer::Refuses, 1, code);
        one(operations()[1], std::string("refused with ") + code);
    }
    module.will(Peer::SpoiltCheck);
    one(operations()[1], "wrong check");
    module.will(Peer::OneByteMore);
    one(operations()[1], "one byte too many");
    setElemAlarm(plant->box('A').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    one(operations()[1], "the module is lost");
    plant->box('A').desc.upsBox.Ups.extStatus.isMaster = 0;
    one(operations()[1], "there is no master");
    EXPECT_TRUE(isGolden("module_waited_each_refusal"));
}

}  // namespace
