#define TRACELEVEL_PRINT
#include "unit/Common/LogLevels.h"

#include <gtest/gtest.h>

TEST(TraceLevel, PrintLeavesErrorsOut) {
    int asked = 0;
    EXPECT_EQ(speakAtEveryLevel(asked), "p: t:- ");
    EXPECT_EQ(asked, 2) << "what isn't written isn't evaluated";
    EXPECT_EQ(profileLines(), 0U);
}
