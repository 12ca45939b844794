#include "Common/ShmMgr.h"

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/FakeShm.h"
#include "support/LogCapture.h"
#include "support/Replaced.h"
#include "support/VirtualClock.h"

namespace {

using support::FakeShm;
using support::LogCapture;
using support::VirtualClock;
namespace replaced = support::replaced;

constexpr key_t KEY = 0x01020304;
constexpr int SIZE = 1784;
constexpr std::int64_t SECOND = 1000000;

std::string perrorOf(int error) {
    return std::string(std::strerror(error)) + "\n";
}

std::string addressLine(const void* address) {
    char text[64];
    std::snprintf(text, sizeof(text), "shared memory attached at address %p\n", address);
    return text;
}

TEST(CreateShm, AsksForTheSegmentWithItsMode) {
    FakeShm shm;
    LogCapture log;
    void* address = nullptr;
    const int id = createShm(&address, SIZE, KEY);
    EXPECT_EQ(id, shm.segments().begin()->first);
    EXPECT_EQ(address, shm.only().bytes.get());
    ASSERT_EQ(replaced::shmget().count(), 1U);
    EXPECT_EQ(replaced::shmget().call(0), std::make_tuple(KEY, std::size_t{1784}, 900));
    EXPECT_EQ(replaced::shmat().call(0), std::make_tuple(id, static_cast<const void*>(nullptr), 0));
    EXPECT_EQ(log.messages(), "Allocata Shared Memory con id " + std::to_string(id) + "\n" + addressLine(address));
    EXPECT_EQ(log.count("Dbg"), 2U);
    EXPECT_EQ(log.entries()[0].function, "getShm");
}

TEST(CreateShm, TakesOverAnOldSegmentThatIsLargeEnough) {
    FakeShm shm;
    const int old = shm.leaveBehind(KEY, SIZE + 1, 0x5A);
    void* address = nullptr;
    EXPECT_EQ(createShm(&address, SIZE, KEY), old);
    EXPECT_EQ(static_cast<unsigned char*>(address)[SIZE], 0x5A) << "its content stays";
}

TEST(CreateShm, FailsOnAnOldSegmentThatIsTooSmall) {
    FakeShm shm;
    shm.leaveBehind(KEY, SIZE - 1, 0x5A);
    LogCapture log;
    void* address = &shm;
    EXPECT_EQ(createShm(&address, SIZE, KEY), -1);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(log.messages(), "Errore nell'allocazione della shared memory!\n" + perrorOf(EINVAL));
    EXPECT_EQ(log.entries()[0].level, "Err");
    EXPECT_EQ(log.entries()[1].level, "-") << "the system's words stand without a prefix";
    EXPECT_EQ(replaced::shmat().count(), 0U);
}

TEST(CreateShm, FailedAttachLeavesTheSegmentAndNoAddress) {
    FakeShm shm;
    replaced::shmat().failsOnCall(1, EMFILE);
    LogCapture log;
    void* address = &shm;
    EXPECT_EQ(createShm(&address, SIZE, KEY), -1);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(shm.segments().size(), 1U);
    EXPECT_EQ(log.entries().size(), 3U);
    EXPECT_TRUE(log.has("Err", "Errore nell'attach della shared memory!"));
    EXPECT_TRUE(log.contains(perrorOf(EMFILE)));
}

TEST(AttachShm, FindsAnExistingSegmentAndMakesNone) {
    FakeShm shm;
    LogCapture log;
    void* address = nullptr;
    EXPECT_EQ(attachShm(&address, SIZE, KEY), -1);
    EXPECT_TRUE(shm.segments().empty());
    EXPECT_TRUE(log.contains(perrorOf(ENOENT)));
    EXPECT_EQ(std::get<2>(replaced::shmget().call(0)), 388);

    const int old = shm.leaveBehind(KEY, SIZE, 1);
    EXPECT_EQ(attachShm(&address, SIZE, KEY), old);
    EXPECT_EQ(address, shm.only().bytes.get());
}

TEST(DetachShm, DetachesOnly) {
    FakeShm shm;
    void* address = nullptr;
    createShm(&address, SIZE, KEY);
    LogCapture log;
    EXPECT_EQ(detachShm(&address), 0);
    EXPECT_EQ(shm.only().attached, 0U);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(detachShm(&address), -1);
    EXPECT_EQ(log.messages(), "Errore nella detach della shared memory!\n" + perrorOf(EINVAL));
    EXPECT_EQ(log.entries()[0].function, "detachShm");
}

class DestroyShm : public testing::Test {
  protected:
    DestroyShm() {
        LogCapture quiet;
        id_ = createShm(&address_, SIZE, KEY);
    }
    int destroy() { return destroyShm(&address_, id_); }
    FakeShm::Segment& segment() { return shm_.segments().at(id_); }
    std::size_t reboots() { return replaced::system().count(); }

    FakeShm shm_;
    void* address_ = nullptr;
    int id_ = -1;
};

TEST_F(DestroyShm, WithoutReadersIsDoneAtOnce) {
    LogCapture log;
    EXPECT_EQ(destroy(), 0);
    EXPECT_TRUE(shm_.segments().empty());
    EXPECT_EQ(log.messages(), "shared memory deallocata\n");
    EXPECT_EQ(log.entries()[0].level, "Dbg");
    EXPECT_EQ(log.entries()[0].function, "destroyShm");
    EXPECT_TRUE(VirtualClock::waits().empty());
}

TEST_F(DestroyShm, WaitsForAReaderToGo) {
    segment().readers = 1;
    VirtualClock::after(2 * SECOND + SECOND / 2, [this] { segment().readers = 0; });
    LogCapture log;
    EXPECT_EQ(destroy(), 0);
    EXPECT_EQ(VirtualClock::now(), 3 * SECOND);
    EXPECT_EQ(reboots(), 0U);
    const std::string pass = "Vi sono altri processi collegati alla shm!!\nAttendo e ritento...\n";
    const std::string persists = "... persistono!!\n";
    EXPECT_EQ(log.messages(), pass + persists + pass + persists + pass + "shared memory deallocata\n");
    EXPECT_EQ(log.warnings(), 6U);
    EXPECT_EQ(log.errors(), 2U);
}

TEST_F(DestroyShm, ReaderThatGoesInTimeCausesNoReboot) {
    segment().readers = 1;
    VirtualClock::after(59 * SECOND - 1, [this] { segment().readers = 0; });
    EXPECT_EQ(destroy(), 0);
    EXPECT_EQ(VirtualClock::now(), 59 * SECOND);
    EXPECT_EQ(reboots(), 0U);
}

TEST_F(DestroyShm, ReaderThatGoesInTheSixtiethPassComesTooLate) {
    segment().readers = 1;
    VirtualClock::after(60 * SECOND - 1, [this] { segment().readers = 0; });
    LogCapture log;
    EXPECT_EQ(destroy(), 0);
    EXPECT_EQ(VirtualClock::now(), 60 * SECOND);
    ASSERT_EQ(reboots(), 1U);
    EXPECT_EQ(std::get<0>(replaced::system().call(0)), "reboot -f");
    EXPECT_EQ(log.occurrences("... persistono!!\n"), 59U) << "nobody was attached any more";
    EXPECT_TRUE(log.has("Err", "sono disperato!!! a mali estremi ... "));
    EXPECT_TRUE(shm_.segments().empty());
}

TEST_F(DestroyShm, LastResortComesAgainWhenItsCounterHasWrapped) {
    segment().readers = 1;
    std::vector<std::int64_t> at;
    replaced::system().does([&](const char*) {
        at.push_back(VirtualClock::now());
        if (at.size() == 3) {
            segment().readers = 0;
        }
        return 256;
    });
    EXPECT_EQ(destroy(), 0);
    EXPECT_EQ(at, (std::vector<std::int64_t>{60 * SECOND, (60 + 256) * SECOND, (60 + 512) * SECOND}));
}

TEST_F(DestroyShm, FailedDetachEndsIt) {
    replaced::shmdt().failsOnCall(1, EINVAL);
    LogCapture log;
    EXPECT_EQ(destroy(), -1);
    EXPECT_EQ(log.messages(), "Errore nella detach della shared memory!\n" + perrorOf(EINVAL));
    EXPECT_EQ(log.entries()[0].function, "destroyShm");
    EXPECT_EQ(replaced::shmctl().count(), 0U);
}

TEST_F(DestroyShm, FailedStatusEndsIt) {
    replaced::shmctl().failsOnCall(1, EACCES);
    LogCapture log;
    EXPECT_EQ(destroy(), -1);
    EXPECT_EQ(log.messages(), "Errore lettura stato della shared memory!\n" + perrorOf(EACCES));
    EXPECT_EQ(log.entries()[0].level, "Err");
    EXPECT_EQ(shm_.segments().size(), 1U);
}

TEST_F(DestroyShm, FailedStatusInTheLoopEndsIt) {
    segment().readers = 1;
    replaced::shmctl().failsOnCall(3, EIDRM);
    LogCapture log;
    EXPECT_EQ(destroy(), -1);
    EXPECT_EQ(VirtualClock::now(), 2 * SECOND);
    EXPECT_EQ(log.occurrences("Errore lettura stato della shared memory!\n" + perrorOf(EIDRM)), 1U);
    EXPECT_EQ(log.occurrences("... persistono!!\n"), 1U);
}

TEST_F(DestroyShm, FailedRemovalIsTold) {
    replaced::shmctl().failsOnCall(2, EPERM);
    LogCapture log;
    EXPECT_EQ(destroy(), -1);
    EXPECT_EQ(log.messages(), "Errore deallocazione della shared memory!\n" + perrorOf(EPERM));
}

TEST_F(DestroyShm, WithoutASegmentFailsAtTheDetach) {
    LogCapture log;
    void* none = nullptr;
    EXPECT_EQ(destroyShm(&none, -1), -1);
    EXPECT_EQ(log.entries().size(), 2U);
    EXPECT_TRUE(log.has("Err", "Errore nella detach della shared memory!"));
}

// Against the system itself, in a private segment that nobody else can reach by a key.
TEST(SystemShm, IsMadeSharedAndRemoved) {
    void* address = nullptr;
    const int id = createShm(&address, SIZE, IPC_PRIVATE);
    ASSERT_GE(id, 0);
    struct shmid_ds status;
    EXPECT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, 1784U);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0604);
    EXPECT_EQ(status.shm_nattch, 1U);

    std::memset(address, 0x5A, SIZE);
    void* const second = shmat(id, nullptr, SHM_RDONLY);
    EXPECT_EQ(std::memcmp(address, second, SIZE), 0);
    shmdt(second);

    EXPECT_EQ(destroyShm(&address, id), 0);
    EXPECT_EQ(shmctl(id, IPC_STAT, &status), -1);
}

}  // namespace
