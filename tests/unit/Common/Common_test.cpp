#include "Common/Common.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/VirtualClock.h"
#include "unit/Common/LogLevels.h"

namespace {

using support::LogCapture;
using support::VirtualClock;

std::string pid() {
    char text[16];
    std::snprintf(text, sizeof(text), "%6d", static_cast<int>(getpid()));
    return text;
}

void speak() {
    DBG_E("Errore %d\n", 7);
    DBG_W("Attenzione\n");
    DBG_P("riga\n");
    DBG_p("nudo\n");
}

TEST(Log, LineIsPrefixAndMessage) {
    VirtualClock::setWall(VirtualClock::START_OF_WALL + 3 * 3600 + 4 * 60 + 5);
    LogCapture log;
    speak();
    const std::string head = pid() + "-> [15:04:05] Common_test.cpp ";
    EXPECT_EQ(log.text(), head + "Err (speak): Errore 7\n" + head + "War (speak): Attenzione\n" + head +
                              " (speak): riga\n" + "nudo\n");
}

TEST(Log, MessageWithoutLineEndGetsNone) {
    LogCapture log;
    DBG_E("Invalid system configuration: %d", -1);
    EXPECT_EQ(log.text().substr(log.text().rfind("Invalid")), "Invalid system configuration: -1");
}

TEST(Log, TraceLevelIsWarningUnlessSettled) {
    int asked = 0;
    EXPECT_EQ(speakAtEveryLevel(asked), "w:War e:Err p: t:- ");
    EXPECT_EQ(asked, 4);
}

TEST(Log, KeepsErrno) {
    LogCapture log;
    errno = ENODEV;
    DBG_E("x\n");
    DBG_p("x\n");
    dumphex("x", 1, "x");
    logPerror();
    EXPECT_EQ(errno, ENODEV);
}

TEST(Log, SystemsWordsStandAlone) {
    LogCapture log;
    errno = ENOENT;
    logPerror();
    EXPECT_EQ(log.text(), std::string(std::strerror(ENOENT)) + "\n");
}

TEST(Log, BytesThatAreNoCharactersLoseNoLine) {
    LogCapture log;
    DBG_E("CMD:%c%c\n", 0xEA, 0x80);
    EXPECT_TRUE(log.contains("CMD:\xEA\x80\n"));
}

TEST(Log, TextThatIsTooLongIsCut) {
    LogCapture log;
    const std::string text(5000, 'x');
    DBG_P("%s", text.c_str());
    DBG_p("%s", text.c_str());
    EXPECT_EQ(log.text().size(), 2 * (LOG_MAXTEXT - 1));
}

TEST(Log, LinesOfThreadsAreNotTorn) {
    LogCapture log;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 200; ++n) {
                DBG_P("%s\n", std::string(100, static_cast<char>('a' + i)).c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 800U);
    for (const support::LogEntry& entry : entries) {
        ASSERT_EQ(entry.message, std::string(100, entry.message.at(0)));
    }
}

TEST(Log, ProfileTellsMicroseconds) {
    VirtualClock::setWall(1700000000, 42);
    LogCapture log;
    logProfile("F.cpp", "f", "here");
    EXPECT_TRUE(log.has("Dbg", "here 1700000000.000042"));
}

TEST(Dump, IsANameAndABareLineOfBytes) {
    LogCapture log;
    const uint8 bytes[] = {0x00, 0x02, 0xEA, 0xFF};
    dumphex("paramSI", 4, bytes);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].level, "");
    EXPECT_EQ(entries[0].message, "paramSI");
    EXPECT_EQ(entries[1].level, "-");
    EXPECT_EQ(entries[1].message, "0x00 0x02 0xEA 0xFF ");
}

TEST(Dump, ShowsNoMoreThanItsBufferHolds) {
    const std::vector<uint8> bytes(4000, 0x5A);
    const struct {
        int size;
        std::size_t shown;
    } cases[] = {{INT_MIN, 0}, {-1, 0}, {0, 0}, {1, 1}, {2046, 2046}, {2047, 2047}, {2048, 2047}, {4000, 2047}};
    for (const auto& c : cases) {
        LogCapture log;
        dumphex("x", c.size, bytes.data());
        EXPECT_EQ(log.occurrences("0x5A "), c.shown) << c.size;
        EXPECT_EQ(log.lines().size(), 2U) << c.size;
    }
}

TEST(Dump, OfNothingShowsNothing) {
    LogCapture log;
    dumphex("x", 4, nullptr);
    EXPECT_EQ(log.entries().at(1).message, "");
}

TEST(Results, HaveTheirValues) {
    EXPECT_EQ(SUCC, 0);
    EXPECT_EQ((FAIL), -1);
    EXPECT_EQ(BUSY, -2);
    EXPECT_EQ(COMMERR, -3);
    EXPECT_EQ(TIMEOUT, -4);
    EXPECT_EQ(NOACTIVITY, -5);
    EXPECT_EQ(NORET, 1);
}

TEST(Helpers, ComputeWhatTheirNamesSay) {
    EXPECT_EQ((MIN)(2, -3), -3);
    EXPECT_EQ((MAX)(2, -3), 2);
    EXPECT_EQ((ABS)(-3), 3);
    EXPECT_EQ((ABS)(3), 3);
    const uint16 three[3] = {};
    EXPECT_EQ(sizeofarray(three), 3U);
    EXPECT_EQ(LINE1, 0);
    EXPECT_EQ(LINE2, 1);
    EXPECT_EQ(LINE3, 2);
}

TEST(Helpers, TimesOfRecordsHave32Bits) {
    VirtualClock::setWall(1800000000, 999999);
    EXPECT_EQ(NOW(), 1800000000);
    EXPECT_EQ(sizeof(time32_t), 4U);
    EXPECT_EQ(ageOf(100, 70), 30);
    EXPECT_EQ(ageOf(100, 130), -30);
    EXPECT_EQ(ageOf(4000000000, INT_MIN), 6147483648);
}

}  // namespace
