// The query object and the error counting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "FreeCalls.h"
#include "Queries.h"
#include "support/Allocations.h"
#include "support/LogCapture.h"
#include "support/LogLine.h"
#include "support/VirtualClock.h"

using support::LogCapture;
using support::logLineOf;
using support::VirtualClock;

namespace {

Params paramsOf(const QCMgr& element) {
    const uint8* bytes = static_cast<const uint8*>(element.QC.pParam);
    return Params(bytes, bytes + element.QC.ParamLen);
}

class QCMgrTest : public testing::Test {
  protected:
    LogCapture log;
};

const pckStruct* built = nullptr;
QCMgr* underConstruction = nullptr;
bool wasLocked = false;

uint16 noteQuery(const pckStruct& query, uint8*& frame) {
    built = &query;
    return buildFrame(query, frame);
}

uint16 noteLock(const pckStruct& query, uint8*& frame) {
    wasLocked = !underConstruction->mutexPck.tryLock();
    return buildFrame(query, frame);
}

TEST_F(QCMgrTest, CopiesTheDescriptionAndItsParameters) {
    Description description(0xEB, "SC", {1, 2, 3}, 0xEA);
    const QCMgr element(*description, buildFrame, 0);
    EXPECT_EQ(element.QC.Src, 0xEA);
    EXPECT_EQ(element.QC.Dest, 0xEB);
    EXPECT_EQ(element.QC.MainCmd, 'S');
    EXPECT_EQ(element.QC.SubCmd, 'C');
    EXPECT_EQ(element.QC.ParamLen, 3);
    EXPECT_NE(element.QC.pParam, description->pParam);
    EXPECT_EQ(paramsOf(element), (Params{1, 2, 3}));
    EXPECT_EQ(element.pCommStatus, nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(QCMgrTest, KeepsItsParametersWhenTheCallersChange) {
    Description description(0xEB, "SC", {1, 2, 3});
    const QCMgr element(*description, buildFrame, 0);
    static_cast<uint8*>(description->pParam)[1] = 99;
    EXPECT_EQ(paramsOf(element), (Params{1, 2, 3}));
}

TEST_F(QCMgrTest, HasNoParametersWhereThereAreNone) {
    Description description(0xEB, "BS");
    description->pParam = &description;  // with length 0 the address means nothing
    const QCMgr element(*description, buildFrame, 0);
    EXPECT_EQ(element.QC.pParam, nullptr);
    EXPECT_EQ(element.QC.ParamLen, 0);
}

TEST_F(QCMgrTest, BuildsTheFrameOfTheCallersQuery) {
    Description description(0xEB, "SC", {7, 8});
    const QCMgr element(*description, noteQuery, 0);
    EXPECT_EQ(built, &*description);
    ASSERT_EQ(element.buildQueryLen, OVERHEAD + 2);
    EXPECT_EQ(Params(element.pckQuery, element.pckQuery + 4), (Params{'S', 'C', 7, 8}));
}

TEST_F(QCMgrTest, IsLockedWhileItIsBuilt) {
    alignas(QCMgr) unsigned char memory[sizeof(QCMgr)];
    underConstruction = static_cast<QCMgr*>(static_cast<void*>(memory));
    Description description(0xEB, "BS");
    QCMgr* element = new (memory) QCMgr(*description, noteLock, 0);
    EXPECT_TRUE(wasLocked);
    EXPECT_TRUE(element->mutexPck.tryLock());
    element->mutexPck.unlock();
    element->~QCMgr();
}

TEST_F(QCMgrTest, ReplacesTheQuerysDataByTheReplysInTheExpectedLength) {
    Description description(0xEB, "SC", {7, 8, 9});
    const QCMgr element(*description, buildFrame, 268);
    EXPECT_EQ(element.buildQueryLen, OVERHEAD + 3);
    EXPECT_EQ(element.expectedReplyLen, OVERHEAD + 268);
    EXPECT_EQ(Params(element.pckReply, element.pckReply + element.expectedReplyLen), Params(OVERHEAD + 268, 0));
}

TEST_F(QCMgrTest, CountsLengthsIn16BitsAndMemoryInFull) {
    Params params(65535);
    for (std::size_t i = 0; i < params.size(); ++i) {
        params[i] = static_cast<uint8>(i * 7);
    }
    Description description(0xEB, "SC", params);
    const QCMgr element(*description, buildFrame, 20);
    EXPECT_EQ(element.buildQueryLen, 9);  // 65545 cut
    EXPECT_EQ(element.expectedReplyLen, OVERHEAD + 20);
    EXPECT_EQ(paramsOf(element), params);
    const QCMgr copy(element);
    EXPECT_EQ(paramsOf(copy), params);
    EXPECT_EQ(copy.buildQueryLen, 9);
}

TEST_F(QCMgrTest, StaysWithoutAFrameThatCouldNotBeBuilt) {
    Description description(0xEB, "SC", {7});
    const QCMgr element(*description, buildNothing, 4);
    EXPECT_EQ(element.pckQuery, nullptr);
    EXPECT_EQ(element.buildQueryLen, 0);
    EXPECT_EQ(element.expectedReplyLen, 3);
    const QCMgr copy(element);
    EXPECT_EQ(copy.pckQuery, nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(QCMgrTest, GoesOnWithNullParametersWhereThereIsNoMemory) {
    Description description(0xEB, "SC", {7, 8});
    {
        support::failAllocation(1);
        const QCMgr element(*description, buildFrame, 4);
        EXPECT_EQ(log.text(), logLineOf("Err", "QCMgr.cpp", "QCMgr", "malloc fallita!!\n"));
        EXPECT_EQ(element.QC.pParam, nullptr);
        EXPECT_EQ(element.QC.ParamLen, 2);
        EXPECT_NE(element.pckQuery, nullptr);
        EXPECT_NE(element.pckReply, nullptr);
        log.clear();
    }
    EXPECT_EQ(log.text(), logLineOf("Err", "QCMgr.cpp", "~QCMgr", "freeError pParam\n"));
}

TEST_F(QCMgrTest, SurvivesEachFailingAllocationOfItsMakingAndItsCopying) {
    Description description(0xEB, "SC", {7, 8});
    // Making takes parameters, frame and reply; copying the same again.
    for (long n = 1; n <= 6; ++n) {
        {
            support::failAllocation(n);
            const QCMgr element(*description, buildFrame, 4);
            const QCMgr copy(element);
            support::failAllocation(0);
            EXPECT_EQ(element.QC.pParam == nullptr, n == 1) << n;
            EXPECT_EQ(element.pckQuery == nullptr, n == 2) << n;
            EXPECT_EQ(element.pckReply == nullptr, n == 3) << n;
        }
        EXPECT_EQ(log.has("Err", "malloc fallita!!"), n != 2) << n;  // the frame is the builder's to report
        log.clear();
    }
}

TEST_F(QCMgrTest, TakesALengthWithoutBytesAsNoParameters) {
    pckStruct description;
    description.ParamLen = 4;
    const QCMgr element(description, buildFrame, 4);
    EXPECT_EQ(element.QC.pParam, nullptr);
    EXPECT_EQ(log.text(), logLineOf("Err", "QCMgr.cpp", "QCMgr", "nessun byte da copiare, attesi:4\n"));
    log.clear();
    const QCMgr copy(element);
    EXPECT_EQ(copy.QC.pParam, nullptr);
    EXPECT_EQ(log.errors(), 1u);
}

TEST_F(QCMgrTest, CopiesEveryBuffer) {
    commStatus_t status = {};
    auto element = std::make_unique<QCMgr>(query(0xEB, "SC", {7, 8}, &status));
    element->pckReply[3] = 0x5A;
    const QCMgr copy(*element);
    EXPECT_EQ(copy.QC.Src, 0xEA);
    EXPECT_TRUE(copy.QC.Dest == 0xEB && copy.QC.MainCmd == 'S' && copy.QC.SubCmd == 'C');
    EXPECT_NE(copy.QC.pParam, element->QC.pParam);
    EXPECT_NE(copy.pckQuery, element->pckQuery);
    EXPECT_NE(copy.pckReply, element->pckReply);
    element.reset();
    EXPECT_EQ(paramsOf(copy), (Params{7, 8}));
    ASSERT_EQ(copy.buildQueryLen, OVERHEAD + 2);
    EXPECT_EQ(Params(copy.pckQuery, copy.pckQuery + 4), (Params{'S', 'C', 7, 8}));
    ASSERT_EQ(copy.expectedReplyLen, OVERHEAD + 4);
    EXPECT_EQ(copy.pckReply[3], 0x5A);
    EXPECT_EQ(copy.pCommStatus, &status);
    EXPECT_EQ(log.text(), "");
}

TEST_F(QCMgrTest, CopiesWithoutTheLockOfTheSource) {
    QCMgr element = query(0xEB, "BS");
    element.mutexPck.lock();
    const QCMgr copy(element);  // would block for good
    EXPECT_TRUE(copy == element);
    element.mutexPck.unlock();
}

TEST_F(QCMgrTest, GivesBackAllItTook) {
    Description description(0xEB, "SC", {7, 8});
    const int before = freecalls::total();
    { const QCMgr element(*description, buildFrame, 4); }
    EXPECT_EQ(freecalls::total(), before + 3) << "parameters, frame and reply";
    EXPECT_EQ(log.text(), "");
}

TEST_F(QCMgrTest, GoesSilentlyWithoutParameters) {
    Description description(0xEB, "BN", {});
    const int before = freecalls::total();
    { const QCMgr element(*description, buildFrame, 4); }
    EXPECT_EQ(freecalls::total(), before + 2) << "frame and reply";
    EXPECT_EQ(log.text(), "");
}

TEST_F(QCMgrTest, AssignsShallowAndLeavesSourceAddressAndFrameLengthAlone) {
    commStatus_t status = {};
    QCMgr right = query(0xEB, "SC", {7, 8, 9}, &status);
    // Two owners of the same buffers: the left one must never be destroyed, and its own buffers are lost to it.
    alignas(QCMgr) unsigned char memory[sizeof(QCMgr)];
    Description description(0xEC, "BS", {1}, 0xED);
    QCMgr* left = new (memory) QCMgr(*description, buildFrame, 100);
    void* const lost[] = {left->QC.pParam, left->pckQuery, left->pckReply};
    QCMgr& result = *left = right;
    EXPECT_EQ(&result, left);
    EXPECT_EQ(left->QC.Src, 0xED);
    EXPECT_EQ(left->buildQueryLen, OVERHEAD + 1);
    EXPECT_TRUE(left->QC.Dest == 0xEB && left->QC.MainCmd == 'S' && left->QC.SubCmd == 'C');
    EXPECT_EQ(left->QC.pParam, right.QC.pParam);
    EXPECT_EQ(left->QC.ParamLen, 3);
    EXPECT_EQ(left->pckQuery, right.pckQuery);
    EXPECT_EQ(left->pckReply, right.pckReply);
    EXPECT_EQ(left->expectedReplyLen, OVERHEAD + 4);
    EXPECT_EQ(left->pCommStatus, &status);
    for (void* block : lost) {
        std::free(block);
    }
}

TEST_F(QCMgrTest, AssignsWithoutTheLocks) {
    QCMgr right = query(0xEB, "BS");
    alignas(QCMgr) unsigned char memory[sizeof(QCMgr)];
    Description description(0xEC, "BN");
    QCMgr* left = new (memory) QCMgr(*description, buildNothing, 10);
    std::free(left->pckReply);
    right.mutexPck.lock();
    left->mutexPck.lock();
    *left = right;  // would block for good
    EXPECT_EQ(left->pckQuery, right.pckQuery);
    left->mutexPck.unlock();
    right.mutexPck.unlock();
}

TEST_F(QCMgrTest, IsEqualByDestinationCommandsLengthAndAddressOfTheParameters) {
    const QCMgr plain = query(0xEB, "BS");
    EXPECT_TRUE(plain == query(0xEB, "BS"));
    EXPECT_FALSE(plain != query(0xEB, "BS"));
    EXPECT_TRUE(plain != query(0xEC, "BS"));
    EXPECT_TRUE(plain != query(0xEB, "CS"));
    EXPECT_TRUE(plain != query(0xEB, "BN"));
    EXPECT_FALSE(plain == query(0xEB, "BN"));

    Description other(0xEB, "BS", {}, 0xED);
    EXPECT_TRUE(plain == QCMgr(*other, buildFrame, 99)) << "neither source nor reply plays a part";

    const QCMgr withParams = query(0xEB, "SC", {1, 2});
    EXPECT_TRUE(withParams == withParams);
    EXPECT_TRUE(withParams != query(0xEB, "SC", {1, 2})) << "equal contents at another address";
    EXPECT_TRUE(withParams != query(0xEB, "SC"));
}

TEST_F(QCMgrTest, DiffersByTheLengthOfNullParameters) {
    pckStruct description;
    description.ParamLen = 2;
    const QCMgr two(description, buildFrame, 4);
    description.ParamLen = 3;
    const QCMgr three(description, buildFrame, 4);
    EXPECT_TRUE(two != three);
}

// ---------------------------------------------------------------------------------------------------------------
// Error counting

constexpr int LIMIT = 6;
constexpr time32_t GOODPAST = 1700000000;

commStatus_t health(int32 errorPck, time32_t lastPckGood) {
    commStatus_t status = {};
    status.errorPck = errorPck;
    status.lastPckGood = lastPckGood;
    return status;
}

class ErrorCounting : public testing::Test {
  protected:
    ErrorCounting() { VirtualClock::setWall(VirtualClock::START_OF_WALL); }
};

struct Failure {
    int32 errorPck;
    time32_t lastPckGood;
    int32 after;
};

TEST_F(ErrorCounting, AFailureRaisesTheScoreByHalfTheLimit) {
    for (const Failure& f :
         {Failure{0, GOODPAST, 3}, Failure{1, GOODPAST, 4}, Failure{2, GOODPAST, 5}, Failure{3, GOODPAST, 5},
          Failure{5, GOODPAST, 5}, Failure{6, GOODPAST, 5}, Failure{0, 0, 3}, Failure{2, 0, 5}, Failure{3, 0, 6},
          Failure{5, 0, 6}, Failure{6, 0, 6}}) {
        commStatus_t status = health(f.errorPck, f.lastPckGood);
        incErrorPck(&status, LIMIT);
        EXPECT_EQ(int32{status.errorPck}, f.after) << "from " << f.errorPck << " good at " << f.lastPckGood;
        EXPECT_EQ(time32_t{status.lastPckGood}, 0);
    }
}

TEST_F(ErrorCounting, TwoFailuresInARowAlwaysReachTheLimit) {
    for (int32 start = 0; start <= LIMIT; ++start) {
        commStatus_t status = health(start, GOODPAST);
        incErrorPck(&status, LIMIT);
        EXPECT_LT(int32{status.errorPck}, LIMIT) << start;
        incErrorPck(&status, LIMIT);
        EXPECT_EQ(int32{status.errorPck}, LIMIT) << start;
    }
}

TEST_F(ErrorCounting, AFailureTouchesNothingElse) {
    commStatus_t status = health(5, 0);
    status.active = true;
    status.isGood = true;
    status.errorCnt = 7;
    incErrorPck(&status, LIMIT);
    EXPECT_TRUE(status.active);
    EXPECT_TRUE(status.isGood);
    EXPECT_EQ(int32{status.errorCnt}, 7);
}

TEST_F(ErrorCounting, HalfOfAnOddLimitIsRoundedDown) {
    commStatus_t status = health(0, GOODPAST);
    incErrorPck(&status, 5);
    EXPECT_EQ(int32{status.errorPck}, 2);
}

TEST_F(ErrorCounting, TheFirstGoodReplyAfterAFailureLowersTheScore) {
    commStatus_t status = health(0, GOODPAST);
    incErrorPck(&status, LIMIT);
    decErrorPck(&status);
    EXPECT_EQ(int32{status.errorPck}, 2);
    EXPECT_EQ(time32_t{status.lastPckGood}, VirtualClock::START_OF_WALL);
    EXPECT_TRUE(status.isGood);

    status.isGood = false;
    VirtualClock::advance(30 * 1000000);
    decErrorPck(&status);
    EXPECT_EQ(int32{status.errorPck}, 2) << "30 s later";
    EXPECT_EQ(time32_t{status.lastPckGood}, VirtualClock::START_OF_WALL);
    EXPECT_TRUE(status.isGood);

    VirtualClock::advance(1000000);
    decErrorPck(&status);
    EXPECT_EQ(int32{status.errorPck}, 1) << "31 s later";
    EXPECT_EQ(time32_t{status.lastPckGood}, VirtualClock::START_OF_WALL + 31);
}

TEST_F(ErrorCounting, AScoreOfZeroStays) {
    commStatus_t status = health(0, 0);
    decErrorPck(&status);
    EXPECT_EQ(int32{status.errorPck}, 0);
    EXPECT_EQ(time32_t{status.lastPckGood}, VirtualClock::START_OF_WALL);
    EXPECT_TRUE(status.isGood);
}

TEST_F(ErrorCounting, AClockStepBackFreezesTheScore) {
    commStatus_t status = health(3, VirtualClock::START_OF_WALL);
    VirtualClock::setWall(VirtualClock::START_OF_WALL - 3600);
    decErrorPck(&status);
    EXPECT_EQ(int32{status.errorPck}, 3);
    EXPECT_TRUE(status.isGood);
}

}  // namespace
