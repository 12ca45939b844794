#define TRACELEVEL_ERROR
#include "unit/Common/LogLevels.h"

#include <gtest/gtest.h>

TEST(TraceLevel, ErrorLeavesWarningsOut) {
    int asked = 0;
    EXPECT_EQ(speakAtEveryLevel(asked), "e:Err p: t:- ");
    EXPECT_EQ(asked, 3) << "what isn't written isn't evaluated";
    EXPECT_EQ(profileLines(), 0U);
}
