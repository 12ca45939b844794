#define TRACELEVEL_WARNING
#include "unit/Common/LogLevels.h"

#include <gtest/gtest.h>

TEST(TraceLevel, WarningLeavesDebugOut) {
    int asked = 0;
    EXPECT_EQ(speakAtEveryLevel(asked), "w:War e:Err p: t:- ");
    EXPECT_EQ(asked, 4) << "what isn't written isn't evaluated";
    EXPECT_EQ(profileLines(), 0U);
}
