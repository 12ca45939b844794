// The standard files of a process that was started without them, and a log that nobody reads any more.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Common/Common.h"

namespace {

// Runs in a child. 0: the next file that is opened is none of the standard ones, and they are all there.
int openedAfter(bool withoutInput, bool withoutOutput, bool withoutLog) {
    const bool closed[] = {withoutInput, withoutOutput, withoutLog};
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
        if (closed[fd]) {
            ::close(fd);
        }
    }
    logSecure();
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0) {
            return 1;
        }
    }
    return ::open("/dev/zero", O_RDONLY) > STDERR_FILENO ? 0 : 2;
}

TEST(LogSecureTest, AFileOpenedLaterNeverGetsTheNumberOfTheLog) {
    for (int mask = 0; mask < 8; ++mask) {
        EXPECT_EXIT(::_exit(openedAfter((mask & 1) != 0, (mask & 2) != 0, (mask & 4) != 0)),
                    ::testing::ExitedWithCode(0), "")
            << mask;
    }
}

// A child that logs into a pipe without a reader.
int logsIntoTheVoid() {
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[1], STDERR_FILENO) < 0) {
        return 1;
    }
    ::close(ends[0]);
    logSecure();
    logText("nobody reads this\n");
    return 0;
}

TEST(LogSecureTest, ALogWhoseReaderHasGoneDoesNotEndTheProcess) {
    EXPECT_EXIT(::_exit(logsIntoTheVoid()), ::testing::ExitedWithCode(0), "");
}

TEST(LogSecureTest, NoFileIsLeftOpen) {
    logSecure();
    const int before = ::dup(STDERR_FILENO);
    ::close(before);
    logSecure();
    const int after = ::dup(STDERR_FILENO);
    ::close(after);
    EXPECT_EQ(before, after);
}

}  // namespace
