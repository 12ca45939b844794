#define TRACELEVEL_DEBUG
#include "unit/Common/LogLevels.h"

#include <gtest/gtest.h>

TEST(TraceLevel, DebugWritesEverything) {
    int asked = 0;
    EXPECT_EQ(speakAtEveryLevel(asked), "d:Dbg w:War e:Err p: t:- ");
    EXPECT_EQ(asked, 5) << "what isn't written isn't evaluated";
    EXPECT_EQ(profileLines(), 1U);
}
