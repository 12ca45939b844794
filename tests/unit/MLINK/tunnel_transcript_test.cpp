// Transcripts of the tunnel, both lines in one text (tests/golden/tunnel_*.txt): a card that is asked over the bus for
// its module, query by query, and a card that asks another cabinet's.
#include <gtest/gtest.h>

#include "unit/CABP/Images.h"
#include "unit/MLINK/Scene.h"

namespace {

using scene::Bytes;
using scene::frame;
using scene::MS;
using scene::Peer;
using scene::query;
using scene::SECOND;
using scene::text;
using scene::VirtualClock;

constexpr std::int64_t TURNAROUND = 4 * MS;  // of another node of the bus

std::int64_t onTheBus(std::size_t bytes) {
    return static_cast<std::int64_t>(bytes) * 10 * SECOND / 9600;
}

/// Every command that a card may be asked for, with the parameters it has.
struct Command {
    const char* cmd;
    const char* param;
};
const Command COMMANDS[] = {{"CB", "1"},
                            {"CD", ""},
                            {"CF", ""},
                            {"CM", "<1"},
                            {"CP", "00"},
                            {"CR", "00120034"},
                            {"CS", "0012"},
                            {"CU", ""},
                            {"DC", "1"},
                            {"DE", ""},
                            {"DS", ""},
                            {"GE", ""},
                            {"GI", ""},
                            {"GM", "1234"},
                            {"GN", ""},
                            {"RB", ""},
                            {"RC", ""},
                            {"RE", ""},
                            {"RK", ""},
                            {"RS", ""},
                            {"RX", ""},
                            {"SM", "00000000"},
                            {"ST", "050327140309"},
                            {"SV", "01"},
                            {"TB", "005"},
                            {"TC", ""}};

// ---------------------------------------------------------------------------------------------------------------
// Card B, a slave, is asked by A

class Asked : public scene::Scene {
  protected:
    Asked() : Scene(0xEB, "AB") {
        begin();
        module.answers = {{"GI", text("SERIALNUMBER0001MODEL OF MODULE SWM417-05-01"
                                      "432210281xyz")},
                          {"GE", text("SWQ417-:;-<1abcd")},
                          {"GM", text("<=>?")},
                          {"SV", text("5678")}};
    }
    /// The records of the module as its replies leave them; nothing is polled from then on.
    void know() {
        module.answers["GN"] = text("004>2003>8120007230500");
        pass(8);
        queue("GE", "");
        pass();
        pollNothing();
        support::Transcript::clear();
        log.clear();
    }
    void ask(const std::string& words, const Bytes& inner) {
        tell(words);
        LastMaster = 0xEA;
        plant->line().feed(bus::frame(0xEA, 0xEB, "QT", inner), onTheBus(inner.size() + 10));
        plant->bus().SlaveAction();
        tell("the module's turn");
        pass();
    }
    static Bytes asking(const Command& command, uint8 dest = '1') {
        return frame('B', dest, command.cmd, text(command.param));
    }
};

TEST_F(Asked, EachQuery) {
    know();
    for (const Command& command : COMMANDS) {
        ask(std::string("A asks B: ") + command.cmd, asking(command));
    }
    ask("A asks B: XA", asking({"XA", ""}));
    EXPECT_TRUE(isGolden("tunnel_asked"));
}

TEST_F(Asked, WithoutRecords) {
    pollNothing();
    for (const char* const cmd : {"GI", "GE", "GN"}) {
        plant->module('B').identification.timestamp = 0;
        plant->module('B').nominal.timestamp = 0;
        ask(std::string("A asks B: ") + cmd + ", B has no record yet", asking({cmd, ""}));
    }
    EXPECT_TRUE(isGolden("tunnel_asked_too_early"));
}

TEST_F(Asked, WhatTheModuleDoesToIt) {
    know();
    for (const char* const cmd : {"GM", "CS"}) {
        const Command command = {cmd, "1234"};
        module.will(Peer::Refuses, 1, '5');
        ask(std::string(cmd) + ", the module refuses with 5 once", asking(command));
        isGood();
        module.will(Peer::Refuses, 1, '3');
        ask(std::string(cmd) + ", the module refuses with 3 once", asking(command));
        isGood();
        module.will(Peer::Silent);
        ask(std::string(cmd) + ", the module is silent once", asking(command));
        isGood();
        line.fail(support::LineCall::Write, EIO);
        ask(std::string(cmd) + ", the module's port fails once", asking(command));
        isGood();
    }
    ask("CS for the module at 2, which isn't there", asking({"CS", "1234"}, '2'));
    ask("CS for the bypass unit", asking({"CS", "1234"}, '8'));
    ask("too short for a frame", {0x02, 'B', '1', 'C', 'S'});
    EXPECT_TRUE(isGolden("tunnel_asked_faults"));
}

// ---------------------------------------------------------------------------------------------------------------
// Card A, the master, asks B

class Asking : public scene::Scene {
  protected:
    Asking() : Scene(0xEA, "AB") {
        begin();
        pollNothing();
        plant->line().onWrite([this](const Bytes& bytes) { other(bytes); });
        plant->comm('B').isGood = true;
        plant->data('B').extendedBoardBox.idu = 1;
        plant->box('B').desc.upsBox.Ups.extStatus.isMaster = 1;
    }
    void say(const Bytes& bytes) { plant->line().feed(bytes, TURNAROUND + onTheBus(bytes.size())); }
    void other(const Bytes& asked) {
        if (asked[2] != 0xEB) {
            return;
        }
        const std::string cmd(asked.begin() + 3, asked.begin() + 5);
        if (cmd == "BN" || cmd == "BS") {
            Bytes data(cmd == "BN" ? 20 : 268);
            say(bus::frame(0xEB, 0xFF, cmd.c_str(), data));
            return;
        }
        if (silent > 0) {
            --silent;
            return;
        }
        if (refuses != '\0') {
            say(bus::frame(0xEB, asked[1], (std::string(1, 0x15) + refuses).c_str()));
            return;
        }
        const std::string inner(asked.begin() + 10, asked.begin() + 12);
        const auto given = answers.find(inner);
        const Bytes reply = frame(asked[9], asked[8], inner, given != answers.end() ? given->second : Bytes());
        say(bus::frame(0xEB, 0xFF, "QT", bus::join({images::littleEndian32(stamp), reply})));
    }
    void one(const std::string& words, const std::function<int()>& run) {
        errnoMLink = 0;
        tell(words);
        const int result = run();
        tellLog();
        support::Transcript::add("result", std::to_string(result));
    }
    int silent = 0;
    char refuses = '\0';
    std::int64_t stamp = 1700000000;
    std::map<std::string, Bytes> answers;
};

TEST_F(Asking, EachOperation) {
    one("power on", [this] { return link().sysPowerOn(); });
    one("shutdown(600)", [this] { return link().sysShutdown(600); });
    one("restore(600, 43981)", [this] { return link().sysRestore(600, 43981); });
    one("delete", [this] { return link().sysDeleteCmd(); });
    one("battery test 005", [this] {
        uint8 param[3] = {'0', '0', '5'};
        return link().sysBatteryTest(param);
    });
    one("battery test CLR", [this] {
        uint8 param[3] = {'C', 'L', 'R'};
        return link().sysBatteryTest(param);
    });
    one("inverter or bypass 1", [this] { return link().sysInv_Byp('1'); });
    one("bypass unlock, of both cabinets", [this] { return link().sysBypsUnlock(); });
    one("module on", [this] {
        link().moduleOn('B', '1');
        return 0;
    });
    one("module off", [this] {
        link().moduleOff('B', '1');
        return 0;
    });
    one("CM02 active", [this] {
        link().enSa_Active('B', '1');
        return 0;
    });
    one("CM02 inverter on", [this] {
        link().enSa_InverterOn('B', '1');
        return 0;
    });
    EXPECT_TRUE(isGolden("tunnel_asking"));
}

TEST_F(Asking, FiveTries) {
    silent = 2;
    one("shutdown(600), B silent twice", [this] { return link().sysShutdown(600); });
    silent = 100;
    one("shutdown(600), B silent", [this] { return link().sysShutdown(600); });
    silent = 0;
    refuses = '5';
    one("shutdown(600), B busy", [this] { return link().sysShutdown(600); });
    refuses = '\0';
    setElemAlarm(plant->box('B').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    one("shutdown(600), B's module is lost", [this] { return link().sysShutdown(600); });
    EXPECT_TRUE(isGolden("tunnel_asking_faults"));
}

// What isn't known yet of another cabinet's module is asked for by the bus's queue, one query a pass; the pass's own
// polling follows.
TEST_F(Asking, RecordsOfTheOtherModule) {
    answers = {{"GI", text("SERIALNUMBER0001MODEL OF MODULE SWM417-05-01"
                           "432210281xyz")},
               {"GE", text("SWQ417-:;-<1abcd")},
               {"GN", text("004>2003>8120007230500")}};
    virtualNode_t& node = plant->module('B');
    const auto get = [&] {
        identification_t id;
        nominal_t nominal;
        link().GetIdentification(0xEB, '1', &id);
        link().GetNominal(0xEB, '1', &nominal);
        tell("known: identification " + std::to_string(node.identification.timestamp) + ", nominal " +
             std::to_string(node.nominal.timestamp));
    };
    tell("identification and nominal values, none known");
    get();
    stamp = 0;
    tell("B knows neither, and says so by a time stamp of 0");
    plant->bus().MasterAction();
    get();
    stamp = 1700000000;
    tell("B knows them");
    plant->bus().MasterAction();
    get();
    one("battery check, queued on the bus", [this] { return link().sysBatteryCheck(); });
    plant->bus().MasterAction();
    tell("status older than two seconds: B has no reply to RX, and it is asked until the thread is stopped");
    descModule_t status;
    link().GetUPSStatus(0xEB, '1', &status);
    silent = 100;
    VirtualClock::after(8 * SECOND, [this] { plant->bus().Stop(); });
    plant->bus().MasterAction();
    EXPECT_TRUE(isGolden("tunnel_asking_records"));
}

}  // namespace
