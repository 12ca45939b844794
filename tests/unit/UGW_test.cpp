// The entry, with a system manager that only looks: it is defined here, so the real one is not linked.
#define main ugw_main
#include "UGW.cpp"
#undef main

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/VirtualClock.h"

namespace {

using support::LogCapture;
using support::VirtualClock;

constexpr std::int64_t SECOND = 1000000;

struct Started {
    int times = 0;
    int ended = 0;
    std::string modulePort;
    std::string busPort;
    int baudRate = 0;
    int address = 0;
    std::string cabinets = "A";
    std::string json;
    std::string jsonTmp;
    std::int64_t endedAt = -1;
};
Started started;

}  // namespace

// What the manager finds when it is made: everything must be in its place by then.
SystemMgr::SystemMgr() {
    pSysMgr = this;
    ++started.times;
    started.modulePort = serialPort;
    started.busPort = serialPortCABP;
    started.baudRate = deviceBaudRate;
    started.address = CABPAddr;
    started.cabinets +=
        std::string(moduleBpresent ? "B" : "") + (moduleCpresent ? "C" : "") + (moduleDpresent ? "D" : "");
    started.json = jsonPath;
    started.jsonTmp = jsonPathTMP;
    // The loop that follows is left after three seconds.
    VirtualClock::at(2 * SECOND + SECOND / 2, [] { needRestart = true; });
}

SystemMgr::~SystemMgr() {
    ++started.ended;
    started.endedAt = VirtualClock::now();
    DBG_P("end\n");
}

namespace {

class Entry : public testing::Test {
  protected:
    int run(std::vector<std::string> arguments) {
        started = Started();
        CABPAddr = 0xE0;
        needRestart = false;
        arguments.insert(arguments.begin(), "UGW");
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        LogCapture log;
        const int status = ugw_main(static_cast<int>(arguments.size()), argv.data());
        text_ = log.text();
        entries_ = log.entries();
        return status;
    }
    int runMask(const std::string& mask) { return run({"m", "b", "9600", "1", mask, "true"}); }

    std::string banner() { return std::string("*** UGW modbus 485 ***\n") + build_date + " / " + build_git_sha + "\n"; }
    std::string text_;
    std::vector<support::LogEntry> entries_;
};

TEST_F(Entry, StartsRunsAndEndsInOrder) {
    EXPECT_EQ(run({"/dev/ttyA", "/dev/ttyB", "2400", "2", "1111", "true"}), 0);
    EXPECT_EQ(started.times, 1);
    EXPECT_EQ(started.modulePort, "/dev/ttyA");
    EXPECT_EQ(started.busPort, "/dev/ttyB");
    EXPECT_EQ(started.baudRate, 2400);
    EXPECT_EQ(started.address, 0xEB);
    EXPECT_EQ(started.cabinets, "ABCD");
    EXPECT_EQ(started.json, "/var/log/vu.json");
    EXPECT_EQ(started.jsonTmp, "/var/log/vu.tmp");
    EXPECT_EQ(text_.rfind(banner() + "Running on a real gatebox!\n", 0), 0U) << text_;

    // "bye bye" comes before the end of the manager, and both after whole seconds of sleep.
    ASSERT_EQ(entries_.size(), 5U);
    EXPECT_EQ(entries_[3].message, "bye bye");
    EXPECT_EQ(entries_[3].level, "");
    EXPECT_EQ(entries_[3].file, "UGW.cpp");
    EXPECT_EQ(entries_[4].message, "end");
    EXPECT_EQ(started.ended, 1);
    EXPECT_EQ(started.endedAt, 3 * SECOND);
    EXPECT_EQ(VirtualClock::countWaits("QThread::sleep"), 3U);
}

TEST_F(Entry, SystemManagerIsReachable) {
    run({"m", "b", "9600", "1", "1000", "true"});
    EXPECT_NE(pSysMgr, nullptr) << "as it has made itself known";
}

TEST_F(Entry, RefusesFewerThanSixArguments) {
    const std::vector<std::string> all = {"m", "b", "9600", "1", "1000", "true"};
    for (std::size_t n = 0; n < all.size(); ++n) {
        EXPECT_EQ(run(std::vector<std::string>(all.begin(), all.begin() + static_cast<long>(n))), -1) << n;
        EXPECT_EQ(started.times, 0) << n;
        ASSERT_EQ(entries_.size(), 3U) << n;
        EXPECT_EQ(text_.rfind(banner(), 0), 0U);
        EXPECT_EQ(entries_[2].level, "Err");
        EXPECT_EQ(entries_[2].message,
                  "Missing parameter, #1 Device port name, #2 CABP port name, #2 baud rate, #3 module ID #4 maschera "
                  "configurazione #5 true if on real gatebox");
        EXPECT_EQ(text_.back(), '\n');
    }
}

TEST_F(Entry, RefusesNoArgumentsAtAll) {
    started = Started();
    char* argv[] = {nullptr};
    LogCapture log;
    EXPECT_EQ(ugw_main(0, argv), -1);
    EXPECT_EQ(log.errors(), 1U);
}

TEST_F(Entry, IgnoresSurplusArguments) {
    EXPECT_EQ(run({"m", "b", "9600", "1", "1000", "true", "false", "x"}), 0);
    EXPECT_EQ(started.json, "/var/log/vu.json");
}

TEST_F(Entry, FirstCharacterOfTheModuleIdIsTheAddress) {
    const struct {
        const char* id;
        int address;
    } cases[] = {{"1", 0xEA}, {"2", 0xEB}, {"3", 0xEC}, {"4", 0xED},  {"12", 0xEA}, {"4x", 0xED},  {"7", 0xE0},
                 {"0", 0xE0}, {"5", 0xE0}, {"", 0xE0},  {" 1", 0xE0}, {"A", 0xE0},  {"\xEA", 0xE0}};
    for (const auto& c : cases) {
        EXPECT_EQ(run({"m", "b", "9600", c.id, "1000", "true"}), 0);
        EXPECT_EQ(started.address, c.address) << c.id;
        EXPECT_EQ(entries_.size(), 5U) << "no message";
    }
}

TEST_F(Entry, ParityOfTheDigitsIsThePlant) {
    const struct {
        const char* mask;
        const char* cabinets;
    } cases[] = {
        {"1000", "A"},     {"1111", "ABCD"},   {"1101", "ABD"},  {"1100", "AB"},   {"1010", "AC"},
        {"1001", "AD"},    {"2010", "AC"},     {"1222", "A"},    {"1333", "ABCD"}, {"1987", "ABD"},
        {"3000", "A"},     {"33767", "ABD"},   {"66536", "A"},   {"66547", "ACD"}, {"99303", "ABD"},
        {"1111x", "ABCD"}, {"  +1101", "ABD"}, {"01101", "ABD"}, {"-64536", "A"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(runMask(c.mask), 0) << c.mask;
        EXPECT_EQ(started.cabinets, c.cabinets) << c.mask;
    }
}

TEST_F(Entry, RefusesAMaskThatComesOutNegative) {
    const struct {
        const char* mask;
        int sysCfg;
    } cases[] = {{"999", -1},   {"0", -1000},      {"", -1000},   {"x1111", -1000},
                 {"-1", -1001}, {"33768", -32768}, {"66535", -1}, {"99999999999999999999", -1001}};
    for (const auto& c : cases) {
        EXPECT_EQ(runMask(c.mask), -1) << c.mask;
        EXPECT_EQ(started.times, 0) << c.mask;
        ASSERT_EQ(entries_.size(), 3U);
        EXPECT_EQ(entries_[2].level, "Err");
        EXPECT_EQ(entries_[2].message, "Invalid system configuration: " + std::to_string(c.sysCfg)) << c.mask;
        EXPECT_NE(text_.back(), '\n') << "this message has no line end";
    }
}

TEST_F(Entry, OnlyTheWordTrueIsTheRealCard) {
    for (const char* mode : {"TRUE", "True", "true ", "tru", "1", "", "false"}) {
        EXPECT_EQ(run({"m", "b", "9600", "1", "1000", mode}), 0);
        EXPECT_EQ(started.json, "/home/gwdev/vu.json") << mode;
        EXPECT_EQ(started.jsonTmp, "/home/gwdev/vu.tmp") << mode;
        EXPECT_EQ(text_.rfind(banner() + "Running on chroot...\n", 0), 0U) << text_;
    }
}

TEST_F(Entry, BaudRateIsDecimalAndUnchecked) {
    const struct {
        const char* text;
        int rate;
    } cases[] = {{"1200", 1200}, {"9600", 9600}, {"0x10", 0}, {"", 0}, {"abc", 0}, {"19200baud", 19200}, {"-5", -5}};
    for (const auto& c : cases) {
        run({"m", "b", c.text, "1", "1000", "true"});
        EXPECT_EQ(started.baudRate, c.rate) << c.text;
    }
}

TEST_F(Entry, BannerTellsDateAndRevision) {
    // "Thu Jul 18 13:55:58 UTC 2019"
    EXPECT_EQ(std::string(build_date).size(), 28U);
    EXPECT_EQ(std::string(build_date).substr(20, 3), "UTC");
    EXPECT_FALSE(std::string(build_git_sha).empty());
}

}  // namespace
