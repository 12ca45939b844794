#include "Measure/VirtualUPSMgr.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Common/Globals.h"
#include "support/FakeShm.h"
#include "support/LogCapture.h"
#include "support/Replaced.h"
#include "support/ScratchDir.h"
#include "support/VirtualClock.h"

namespace {

using support::FakeShm;
using support::LogCapture;
using support::VirtualClock;
namespace replaced = support::replaced;

constexpr std::int64_t SECOND = 1000000;
constexpr std::size_t NODE = 446;

// Writes a tree's bytes by its tables, apart from the records of the product.
class Image {
  public:
    Image(std::size_t nodes, std::uint8_t fill) : bytes_(nodes * NODE, fill) {}
    void node(std::size_t index, std::uint8_t type, const char* description, const char* id, std::uint8_t next,
              std::uint8_t previous, std::uint8_t son, std::uint8_t ext) {
        std::uint8_t* const at = &bytes_[index * NODE];
        at[0] = type;
        text(at + 1, description);
        text(at + 33, id);
        at[49] = static_cast<std::uint8_t>(index);
        at[50] = next;
        at[51] = previous;
        at[52] = son;
        at[53] = ext;
        std::memset(at + 172, 0xFF, 5);  // the panel: no command, both delays not set
    }
    void extension() {
        std::uint8_t* const at = &bytes_[NODE];
        at[0] = 5;
        at[1] = 24;
        text(at + 2, "MLINK51201RU");
        at[22] = 0;
    }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

  private:
    static void text(std::uint8_t* at, const char* words) { std::memcpy(at, words, std::strlen(words) + 1); }
    std::vector<std::uint8_t> bytes_;
};

class VirtualUPS : public testing::Test {
  protected:
    VirtualUPS() {
        CABPAddr = 0xEA;
        std::memset(&cfg_, 0, sizeof(cfg_));
    }
    ~VirtualUPS() override {
        LogCapture quiet;
        mgr_.reset();
        EXPECT_TRUE(shm_.segments().empty() || leftBehindOnPurpose_);
    }
    void plant(const char* letters) {
        for (; *letters != '\0'; ++letters) {
            cfg_.Ups[*letters - 'A'].present = true;
            cfg_.Ups[*letters - 'A'].modulePresent[0] = true;
        }
    }
    void build() {
        LogCapture log;
        mgr_ = std::make_unique<VirtualUPSMgr>(cfg_);
        printed_ = log.text();
    }
    std::vector<std::uint8_t> tree() {
        const FakeShm::Segment& segment = shm_.only();
        return std::vector<std::uint8_t>(segment.bytes.get(), segment.bytes.get() + segment.size);
    }

    support::ScratchDir dir_{"UGW"};  // the file that names the segment
    FakeShm shm_;
    PlantCfg cfg_;
    std::unique_ptr<VirtualUPSMgr> mgr_;
    std::string printed_;
    bool leftBehindOnPurpose_ = false;
};

TEST_F(VirtualUPS, OneCabinet) {
    plant("A");
    build();
    Image image(4, 0);
    image.node(0, 0, "System QPR -     0", "SA", 255, 255, 2, 1);
    image.extension();
    image.node(2, 1, "UpsBox A", "SA.BA", 255, 255, 3, 255);
    image.node(3, 3, "Module 1", "SA.BA.M1", 255, 255, 255, 255);
    EXPECT_EQ(tree(), image.bytes());
    EXPECT_EQ(shm_.only().size, 1784U);
    EXPECT_EQ(shm_.only().mode, 0604);
    EXPECT_EQ(shm_.only().key, ftok("./UGW", 1));
    EXPECT_EQ(mgr_->shm_id, shm_.segments().begin()->first);
    EXPECT_EQ(reinterpret_cast<std::uint8_t*>(mgr_->virtualUPS), shm_.only().bytes.get());
}

TEST_F(VirtualUPS, TwoCabinetsWithAGapInTheLetters) {
    plant("AC");
    build();
    Image image(6, 0);
    image.node(0, 0, "System QPR -     0", "SA", 255, 255, 2, 1);
    image.extension();
    image.node(2, 1, "UpsBox A", "SA.BA", 3, 255, 4, 255);
    image.node(3, 1, "UpsBox C", "SA.BC", 255, 2, 5, 255);
    image.node(4, 3, "Module 1", "SA.BA.M1", 255, 255, 255, 255);
    image.node(5, 3, "Module 1", "SA.BC.M1", 255, 255, 255, 255);
    EXPECT_EQ(tree(), image.bytes());
}

TEST_F(VirtualUPS, FourCabinetsOnTheCardOfCabinetB) {
    CABPAddr = 0xEB;
    cfg_.DeviceNo = (12345U << 9) | 0x1FF;
    plant("ABCD");
    build();
    Image image(10, 0);
    image.node(0, 0, "System QPR - 12345", "SB", 255, 255, 2, 1);
    image.extension();
    image.node(2, 1, "UpsBox A", "SB.BA", 3, 255, 6, 255);
    image.node(3, 1, "UpsBox B", "SB.BB", 4, 2, 7, 255);
    image.node(4, 1, "UpsBox C", "SB.BC", 5, 3, 8, 255);
    image.node(5, 1, "UpsBox D", "SB.BD", 255, 4, 9, 255);
    image.node(6, 3, "Module 1", "SB.BA.M1", 255, 255, 255, 255);
    image.node(7, 3, "Module 1", "SB.BB.M1", 255, 255, 255, 255);
    image.node(8, 3, "Module 1", "SB.BC.M1", 255, 255, 255, 255);
    image.node(9, 3, "Module 1", "SB.BD.M1", 255, 255, 255, 255);
    EXPECT_EQ(tree(), image.bytes());
    EXPECT_EQ(shm_.only().size, 4460U);
}

TEST_F(VirtualUPS, UnknownOwnAddressNamesTheSystemSeven) {
    CABPAddr = 0xE0;
    plant("A");
    build();
    EXPECT_STREQ(mgr_->virtualUPS[0].ID, "S7");
    EXPECT_STREQ(mgr_->virtualUPS[2].ID, "S7.BA");
}

TEST_F(VirtualUPS, LargestDeviceNumberFits) {
    cfg_.DeviceNo = 0xFFFFFFFF;
    plant("A");
    build();
    EXPECT_STREQ(mgr_->virtualUPS[0].Description, "System QPR - 8388607");
}

TEST_F(VirtualUPS, WithoutCabinetsIsRootAndExtension) {
    build();
    Image image(2, 0);
    image.node(0, 0, "System QPR -     0", "SA", 255, 255, 255, 1);
    image.extension();
    EXPECT_EQ(tree(), image.bytes());
}

TEST_F(VirtualUPS, OldLargerSegmentKeepsWhatTheBuildDoesNotTouch) {
    const int old = shm_.leaveBehind(ftok("./UGW", 1), 10 * NODE, 0x5A);
    plant("AC");
    build();
    EXPECT_EQ(mgr_->shm_id, old);
    Image image(10, 0x5A);
    image.node(0, 0, "System QPR -     0", "SA", 255, 255, 2, 1);
    image.extension();
    image.node(2, 1, "UpsBox A", "SA.BA", 3, 255, 4, 255);
    image.node(3, 1, "UpsBox C", "SA.BC", 255, 2, 5, 255);
    image.node(4, 3, "Module 1", "SA.BA.M1", 255, 255, 255, 255);
    image.node(5, 3, "Module 1", "SA.BC.M1", 255, 255, 255, 255);
    EXPECT_EQ(tree(), image.bytes());
}

TEST_F(VirtualUPS, OldSmallerSegmentIsReportedAndSurvived) {
    leftBehindOnPurpose_ = true;
    shm_.leaveBehind(ftok("./UGW", 1), 4 * NODE, 0);
    plant("AC");
    LogCapture log;
    mgr_ = std::make_unique<VirtualUPSMgr>(cfg_);
    EXPECT_LT(mgr_->shm_id, 0);
    EXPECT_EQ(mgr_->virtualUPS, nullptr);
    EXPECT_EQ(mgr_->searchNode("SA.BA"), nullptr);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 4U);
    EXPECT_EQ(entries[0].message, "Errore nell'allocazione della shared memory!");
    EXPECT_EQ(entries[2].message, "Errore nella creazione della shared Memory");
    EXPECT_EQ(entries[2].level, "Err");
    EXPECT_EQ(entries[2].function, "buildSysTree");
    EXPECT_EQ(entries[3].message, "Errore nella costruzione dell'albero del sistema");
    EXPECT_EQ(entries[3].level, "Err");
    EXPECT_EQ(entries[3].function, "VirtualUPSMgr");

    log.clear();
    mgr_.reset();
    EXPECT_TRUE(log.has("Err", "Errore nella detach della shared memory!"));
    EXPECT_EQ(replaced::shmctl().count(), 0U) << "the old segment is not ours to remove";
}

TEST_F(VirtualUPS, FailedAttachIsReportedAndSurvived) {
    leftBehindOnPurpose_ = true;
    replaced::shmat().failsOnCall(1, EMFILE);
    plant("A");
    build();
    EXPECT_LT(mgr_->shm_id, 0);
    EXPECT_EQ(mgr_->virtualUPS, nullptr);
    EXPECT_EQ(mgr_->searchNode("SA.BA"), nullptr);
    EXPECT_NE(printed_.find("Errore nella costruzione dell'albero del sistema\n"), std::string::npos);
}

// As the first segment of an IPC namespace has it.
TEST_F(VirtualUPS, SegmentZeroIsASegment) {
    shm_.setNextId(0);
    plant("A");
    build();
    EXPECT_EQ(mgr_->shm_id, 0);
    ASSERT_NE(mgr_->virtualUPS, nullptr);
    EXPECT_EQ(printed_.find("Errore"), std::string::npos) << printed_;
    EXPECT_NE(mgr_->searchNode("SA.BA"), nullptr);
}

TEST_F(VirtualUPS, WithoutItsFileTheKeyIsMinusOne) {
    ASSERT_EQ(std::remove("./UGW"), 0);
    plant("A");
    build();
    EXPECT_EQ(shm_.only().key, -1);
    EXPECT_NE(mgr_->virtualUPS, nullptr);
}

TEST_F(VirtualUPS, NodesAreFoundByTheirPath) {
    plant("ABCD");
    build();
    for (int i = 0; i < 4; ++i) {
        char path[16];
        std::snprintf(path, sizeof(path), "SA.B%c", 'A' + i);
        EXPECT_EQ(mgr_->searchNode(path), &mgr_->virtualUPS[2 + i]);
        std::snprintf(path, sizeof(path), "SA.B%c.M1", 'A' + i);
        EXPECT_EQ(mgr_->searchNode(path), &mgr_->virtualUPS[6 + i]);
    }
    EXPECT_EQ(mgr_->searchNode("SB.BA"), nullptr);
}

TEST_F(VirtualUPS, CabinetNotInThePlantIsNotFound) {
    plant("A");
    build();
    EXPECT_EQ(mgr_->searchNode("SA.BB"), nullptr);
    EXPECT_EQ(mgr_->searchNode("SA.BB.M1"), nullptr);
}

// The last cabinet then points past the last node: the segment ends there.
TEST_F(VirtualUPS, CabinetWithoutModulePointsWhereTheNextModuleWouldStand) {
    plant("ABC");
    cfg_.Ups[0].modulePresent[0] = false;
    cfg_.Ups[2].modulePresent[0] = false;
    build();
    ASSERT_EQ(shm_.only().size, 6 * NODE);
    EXPECT_EQ(mgr_->virtualUPS[2].son, 5) << "cabinet B's module";
    EXPECT_EQ(mgr_->virtualUPS[3].son, 5);
    EXPECT_EQ(mgr_->virtualUPS[4].son, 6) << "no node stands there";
    EXPECT_EQ(mgr_->searchNode("SA.BC.M1"), nullptr);
    EXPECT_EQ(mgr_->searchNode("SA.BC"), &mgr_->virtualUPS[4]);
}

TEST_F(VirtualUPS, ModuleOfACabinetThatIsNotPresentHasNoNode) {
    plant("A");
    cfg_.Ups[1].modulePresent[0] = true;
    build();
    EXPECT_EQ(shm_.only().size, 4 * NODE);
}

TEST_F(VirtualUPS, IsPrintedAfterTheBuild) {
    plant("AC");
    build();
    const std::string blanks(8, ' ');
    const std::string twice(16, ' ');
    std::string expected = "\n\nSystem QPR -     0\ntype:0\nSA   0\n nxt:255 prv:255\n";
    expected += "type:5\nDevType24 ComType0\nMLINK51201RU\n";
    expected +=
        "\n" + blanks + "UpsBox A\n" + blanks + "type:1\n" + blanks + "SA.BA   2\n" + blanks + " nxt:3 prv:255\n";
    expected +=
        "\n" + twice + "Module 1\n" + twice + "type:3\n" + twice + "SA.BA.M1   4\n" + twice + " nxt:255 prv:255\n";
    expected +=
        "\n" + blanks + "UpsBox C\n" + blanks + "type:1\n" + blanks + "SA.BC   3\n" + blanks + " nxt:255 prv:2\n";
    expected +=
        "\n" + twice + "Module 1\n" + twice + "type:3\n" + twice + "SA.BC.M1   5\n" + twice + " nxt:255 prv:255\n";
    const std::string::size_type at = printed_.find("\n\n");
    ASSERT_NE(at, std::string::npos);
    // The newline before is the end of the attach's line.
    EXPECT_EQ(printed_.substr(at + 1), expected);
    EXPECT_NE(printed_.substr(0, at).find("shared memory attached at address"), std::string::npos);
}

TEST_F(VirtualUPS, EndRemovesTheSegment) {
    plant("A");
    build();
    LogCapture log;
    mgr_.reset();
    EXPECT_TRUE(shm_.segments().empty());
    EXPECT_EQ(log.messages(), "shared memory deallocata\n");
    EXPECT_EQ(replaced::kill().count(), 0U);
    EXPECT_EQ(replaced::waitpid().count(), 0U);
}

// A child process virtualUPS, that this system never starts.
class Child : public VirtualUPS {
  protected:
    static constexpr pid_t PID = 4242;
    Child() {
        plant("A");
        build();
        virtualUPS_PID = PID;
        replaced::kill().returns(0);
    }
    ~Child() override { virtualUPS_PID = -1; }
    // The child ends with `status` when it is asked about for the n-th time.
    void endsAtPoll(int n, int status) {
        replaced::waitpid().does([this, n, status](pid_t pid, int* where, int) -> pid_t {
            if (++polls_ < n) {
                return 0;
            }
            *where = status;
            return pid;
        });
    }
    std::string end() {
        LogCapture log;
        mgr_.reset();
        entries_ = log.entries();
        return log.messages();
    }
    static int exited(int code) { return (code & 0xFF) << 8; }

    const std::string start_ = "Fermo il processo virtualUPS con PID 4242\n";
    const std::string removed_ = "shared memory deallocata\n";
    int polls_ = 0;
    std::vector<support::LogEntry> entries_;
};

TEST_F(Child, ThatEndsAtOnce) {
    endsAtPoll(1, exited(3));
    EXPECT_EQ(end(), start_ + "child exited with status of 3\n" + removed_);
    EXPECT_EQ(entries_[0].level, "Dbg");
    EXPECT_EQ(entries_[1].level, "");
    EXPECT_EQ(entries_[1].function, "~VirtualUPSMgr");
    ASSERT_EQ(replaced::kill().count(), 1U);
    EXPECT_EQ(replaced::kill().call(0), std::make_tuple(PID, SIGTERM));
    EXPECT_EQ(std::get<0>(replaced::waitpid().call(0)), PID);
    EXPECT_EQ(std::get<2>(replaced::waitpid().call(0)), WNOHANG);
    EXPECT_EQ(VirtualClock::now(), 0);
}

TEST_F(Child, ThatTakesItsTime) {
    endsAtPoll(4, exited(0));
    EXPECT_EQ(end(), start_ + "...\n...\n...\nchild exited with status of 0\n" + removed_);
    EXPECT_EQ(VirtualClock::now(), 3 * SECOND);
}

TEST_F(Child, ThatIsEndedByASignal) {
    endsAtPoll(1, SIGKILL);
    // Without a line end of its own: the next line follows at once.
    LogCapture log;
    mgr_.reset();
    EXPECT_TRUE(log.contains(": child did not exit successfully"));
    EXPECT_FALSE(log.contains("child did not exit successfully\n"));
    EXPECT_FALSE(log.contains("child exited"));
    EXPECT_TRUE(shm_.segments().empty());
}

TEST_F(Child, ThatDoesNotEndIsGivenUpAfterTwentyPasses) {
    endsAtPoll(1000, 0);
    std::string dots;
    for (int i = 0; i < 20; ++i) {
        dots += "...\n";
    }
    EXPECT_EQ(end(), start_ + dots + removed_);
    EXPECT_EQ(VirtualClock::now(), 20 * SECOND);
    EXPECT_TRUE(shm_.segments().empty());
}

TEST_F(Child, ThatEndsInTheTwentiethPassIsStillTold) {
    endsAtPoll(20, exited(7));
    EXPECT_NE(end().find("child exited with status of 7\n"), std::string::npos);
}

TEST_F(Child, ThatCannotBeWaitedForIsLeft) {
    replaced::waitpid().fails(ECHILD);
    LogCapture log;
    mgr_.reset();
    EXPECT_TRUE(log.contains(" Err (~VirtualUPSMgr): waitpid() error"));
    EXPECT_FALSE(log.contains("waitpid() error\n"));
    EXPECT_EQ(replaced::waitpid().count(), 1U);
    EXPECT_TRUE(shm_.segments().empty());
}

TEST_F(Child, ThatCannotBeSignalledIsWaitedForAllTheSame) {
    replaced::kill().fails(ESRCH);
    endsAtPoll(1, exited(0));
    EXPECT_EQ(end(), start_ + "kill del processo virtualUPS fallito!\n" + "child exited with status of 0\n" + removed_);
    EXPECT_EQ(entries_[1].level, "Err");
}

TEST_F(Child, WithPidOneIsStopped) {
    virtualUPS_PID = 1;
    endsAtPoll(1, exited(0));
    end();
    EXPECT_EQ(std::get<0>(replaced::kill().call(0)), 1);
}

TEST_F(Child, WithPidZeroIsNone) {
    virtualUPS_PID = 0;
    EXPECT_EQ(end(), removed_);
    EXPECT_EQ(replaced::kill().count(), 0U);
}

}  // namespace
