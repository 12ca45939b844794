#include "tools/ugwctl/Options.h"

#include <gtest/gtest.h>

#include "HandMade.h"

namespace {

using handmade::statusOf;
using ugwctl::Command;
using ugwctl::ExitStatus;
using ugwctl::Options;

Options parse(std::vector<std::string> words) {
    words.insert(words.begin(), "ugwctl");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return ugwctl::parseOptions(static_cast<int>(words.size()), argv.data());
}

TEST(Options, HaveTheirDefaults) {
    const Options options = parse({"tree"});
    EXPECT_EQ(options.command, Command::Tree);
    EXPECT_EQ(options.dir, ".");
    EXPECT_EQ(options.timeout, 20);
    EXPECT_EQ(options.delayShut, 0);
    EXPECT_FALSE(options.yes || options.dryRun || options.json || options.raw);
}

TEST(Options, StandAnywhere) {
    for (const std::vector<std::string>& words : {std::vector<std::string>{"--dir", "/x", "-j", "show", "SA"},
                                                  {"show", "SA", "-j", "--dir=/x"},
                                                  {"show", "-jd/x", "SA"}}) {
        const Options options = parse(words);
        EXPECT_EQ(options.command, Command::Show);
        EXPECT_EQ(options.arguments, std::vector<std::string>{"SA"});
        EXPECT_EQ(options.dir, "/x");
        EXPECT_TRUE(options.json);
    }
}

TEST(Options, OfACommand) {
    const Options options = parse({"restore", "-S", "600", "--reboot-delay", "65534", "-y", "-n", "-t", "3600"});
    EXPECT_EQ(options.delayShut, 600);
    EXPECT_EQ(options.delayReboot, 65534);
    EXPECT_EQ(options.timeout, 3600);
    EXPECT_TRUE(options.yes && options.dryRun);
}

TEST(Options, ThatMakeNoSenseAreRefused) {
    for (const std::vector<std::string>& words : {std::vector<std::string>{},
                                                  {"frob"},
                                                  {"--frob"},
                                                  {"tree", "SA"},
                                                  {"show", "SA", "SB"},
                                                  {"states"},
                                                  {"module", "SA.BA.M1"},
                                                  {"module", "SA.BA.M1", "maybe"},
                                                  {"tree", "--json"},
                                                  {"show", "--yes"},
                                                  {"show", "--json", "--raw"},
                                                  {"cancel", "--shut-delay", "1"},
                                                  {"shutdown", "--shut-delay"},
                                                  {"shutdown", "--shut-delay", "65535"},
                                                  {"shutdown", "--shut-delay", "-1"},
                                                  {"shutdown", "--shut-delay", "1x"},
                                                  {"shutdown", "--shut-delay", ""},
                                                  {"shutdown", "--reboot-delay", "1"},
                                                  {"shutdown", "--timeout", "0"},
                                                  {"watch", "--count", "99999999999999999999"}}) {
        EXPECT_EQ(statusOf([&] { parse(words); }), ExitStatus::Usage)
            << (words.empty() ? std::string("nothing") : words.back());
    }
}

TEST(Options, HelpAndVersionComeFirst) {
    EXPECT_EQ(parse({"frob", "--help"}).command, Command::Help);
    EXPECT_EQ(parse({"-V"}).command, Command::Version);
}

}  // namespace
