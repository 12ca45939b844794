#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include "Common/Common.h"

using support::LogCapture;

TEST(LogCapture, TakesLinesApart) {
    LogCapture log;
    DBG_E("errore (%d): uno\n", 1);
    DBG_W("avviso\n");
    DBG_P("semplice\n");
    DBG_p("nudo\n");
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].level, "Err");
    EXPECT_EQ(entries[0].file, "LogCapture_test.cpp");
    EXPECT_EQ(entries[0].function, "TestBody");
    EXPECT_EQ(entries[0].message, "errore (1): uno");
    EXPECT_EQ(entries[1].level, "War");
    EXPECT_EQ(entries[2].level, "");
    EXPECT_EQ(entries[2].message, "semplice");
    EXPECT_EQ(entries[3].level, "-");
    EXPECT_EQ(log.messages(), "errore (1): uno\navviso\nsemplice\nnudo\n");
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_EQ(log.warnings(), 1u);
    EXPECT_TRUE(log.has("Err", "errore (1): uno"));
    EXPECT_FALSE(log.has("War", "errore (1): uno"));
    EXPECT_EQ(log.occurrences("LogCapture_test.cpp"), 3u);
    // The virtual clock's noon.
    EXPECT_EQ(log.occurrences("-> [12:00:00] LogCapture_test.cpp"), 3u);
}

TEST(LogCapture, ForgetsOnDemandAndEndsWithItself) {
    {
        LogCapture log;
        DBG_E("uno\n");
        log.clear();
        EXPECT_EQ(log.text(), "");
        DBG_E("due\n");
        EXPECT_EQ(log.messages(), "due\n");
        EXPECT_EQ(log.text().find('\0'), std::string::npos);
    }
    LogCapture second;
    EXPECT_TRUE(second.lines().empty());
}
