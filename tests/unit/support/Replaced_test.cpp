#include "support/Replaced.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace replaced = support::replaced;

TEST(Replaced, SystemIsOnlyRecorded) {
    EXPECT_EQ(system("exit 3"), 0);
    replaced::system().returns(256);
    EXPECT_EQ(system("halt"), 256);
    ASSERT_EQ(replaced::system().count(), 2u);
    EXPECT_EQ(std::get<0>(replaced::system().call(0)), "exit 3");
    EXPECT_EQ(std::get<0>(replaced::system().call(1)), "halt");
    replaced::system().forget();
    EXPECT_EQ(replaced::system().count(), 0u);
}

TEST(Replaced, AdjtimeIsOnlyRecorded) {
    const struct timeval delta = {-3, 250000};
    struct timeval old = {9, 9};
    EXPECT_EQ(adjtime(&delta, &old), 0);
    EXPECT_EQ(old.tv_sec, 0);
    const struct timeval kept = std::get<0>(replaced::adjtime().call(0));
    EXPECT_EQ(kept.tv_sec, -3);
    EXPECT_EQ(kept.tv_usec, 250000);
    replaced::adjtime().fails(EPERM);
    EXPECT_EQ(adjtime(&delta, nullptr), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST(Replaced, KillAndWaitpidPassThroughUntilTold) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(7);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(kill(getpid(), 0), 0);
    replaced::kill().fails(ESRCH);
    EXPECT_EQ(kill(getpid(), 0), -1);
    EXPECT_EQ(errno, ESRCH);
    replaced::kill().reset();
    EXPECT_EQ(kill(getpid(), 0), 0);
    replaced::waitpid().does([](pid_t pid, int* out, int) {
        *out = 42;
        return pid;
    });
    EXPECT_EQ(waitpid(1234, &status, 0), 1234);
    EXPECT_EQ(status, 42);
    EXPECT_EQ(std::get<1>(replaced::kill().call(0)), 0);
}

// Signal 0, so that it would harm nobody.
TEST(Replaced, KillNeverReachesMoreThanOneProcess) {
    for (const pid_t pid : {-1, 0, -4242, 1}) {
        int ret = 0;
        EXPECT_NONFATAL_FAILURE(ret = kill(pid, 0), "kill(");
        EXPECT_EQ(ret, -1) << pid;
        EXPECT_EQ(errno, EPERM) << pid;
    }
}

TEST(Replaced, SharedMemoryPassesThroughUntilTold) {
    const int id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ASSERT_GE(id, 0);
    void* const memory = shmat(id, nullptr, 0);
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
    static_cast<char*>(memory)[4095] = 'x';
    EXPECT_EQ(shmdt(memory), 0);
    replaced::shmget().fails(EINVAL);
    EXPECT_EQ(shmget(IPC_PRIVATE, 4096, 0), -1);
    replaced::shmat().fails(ENOMEM);
    EXPECT_EQ(shmat(id, nullptr, 0), reinterpret_cast<void*>(-1));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(std::get<1>(replaced::shmctl().call(0)), IPC_RMID);
}

TEST(Replaced, FilesFailOnTheChosenCall) {
    char name[] = "/tmp/replacedXXXXXX";
    close(mkstemp(name));
    const std::string other = std::string(name) + ".x";
    replaced::fopen().failsOnCall(2, EACCES);
    FILE* file = fopen(name, "w");
    EXPECT_NE(file, nullptr);
    fclose(file);
    EXPECT_EQ(fopen(name, "w"), nullptr);
    EXPECT_EQ(errno, EACCES);
    file = fopen(name, "w");
    EXPECT_NE(file, nullptr);
    fclose(file);
    EXPECT_EQ(std::get<0>(replaced::fopen().call(0)), name);
    replaced::rename().failsOnCall(1, EXDEV);
    EXPECT_EQ(rename(name, other.c_str()), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(rename(name, other.c_str()), 0);
    unlink(other.c_str());
}
