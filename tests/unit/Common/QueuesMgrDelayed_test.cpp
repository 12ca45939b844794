// The waiting room of delayed queries, which only a test fills.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QtCore/QCoreApplication>
#include <QtCore/QMetaObject>

#include <string>
#include <type_traits>

#include "Queries.h"
#include "support/LogCapture.h"
#include "support/LogLine.h"

using support::LogCapture;
using support::logLineOf;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(QCDELAYEDTIMEOUT == 3000, "milliseconds");
static_assert(std::is_same<decltype(&QueuesMgr::AddDelayedQC), int (QueuesMgr::*)(QueueType, uint32)>::value,
              "declared, although nothing calls it");

namespace {

const std::string END = ">>>>>>>>>>>>>>>>>>>FINE RIPRISTINO<<<<<<<<<<<<<<<<<<<<<<\n";

std::string line(const char* level, const std::string& message) {
    return logLineOf(level, "QueuesMgr.cpp", "manageDelayedQC", message);
}

class DelayedTest : public testing::Test {
  protected:
    // The timer needs an event dispatcher; no event is ever dispatched.
    int argc = 0;
    QCoreApplication application{argc, nullptr};
    LogCapture log;
    OpenQueues queues;
};

TEST_F(DelayedTest, RestoringNothingIsAGraveErrorThatStopsTheTimer) {
    queues.tmrRestore.start(QCDELAYEDTIMEOUT);
    ASSERT_TRUE(queues.tmrRestore.isActive());
    queues.manageDelayedQC();
    EXPECT_EQ(log.text(), line("Err", "GRAVE ERRORE, deve esserci un elemento!!\n"));
    EXPECT_FALSE(queues.tmrRestore.isActive());
}

TEST_F(DelayedTest, RestoresAnAsynchronousQueryAtTheTail) {
    queues.addAsync(query(0xEB, "SC", {1}));
    queues.addAsync(query(0xEB, "BN"));
    queues.delayAsync();
    queues.tmrRestore.start(QCDELAYEDTIMEOUT);
    queues.manageDelayedQC();
    EXPECT_THAT(queues.async(), ElementsAre("BN", "SC(1)"));
    EXPECT_THAT(queues.delayed(), IsEmpty());
    EXPECT_EQ(queues.Queries.size(), 2u);
    EXPECT_EQ(log.text(),
              line("War", "Ripristinato query SC su Add:235 tipo:ASYNC rimangono 0 elem\n") + line("War", END));
    EXPECT_FALSE(queues.tmrRestore.isActive());
}

TEST_F(DelayedTest, RestoresAFixedQueryUnderItsKey) {
    queues.addFixed(query('1', "DE"));
    queues.addFixed(query('1', "GI"));
    queues.addFixed(query('2', "DE"));
    queues.delayFixed(0x31474900);
    queues.delayFixed(0x31444500);
    EXPECT_THAT(queues.fixed(), ElementsAre("50:DE"));
    queues.tmrRestore.start(QCDELAYEDTIMEOUT);
    queues.manageDelayedQC();
    EXPECT_THAT(queues.fixed(), ElementsAre("49:GI", "50:DE"));
    EXPECT_EQ(log.text(), line("War", "Ripristinato query GI su Add:49 tipo:FIXED rimangono 1 elem\n"));
    EXPECT_TRUE(queues.tmrRestore.isActive()) << "one at a time";
    log.clear();
    queues.manageDelayedQC();
    EXPECT_THAT(queues.fixed(), ElementsAre("49:DE", "49:GI", "50:DE"));
    EXPECT_EQ(log.text(),
              line("War", "Ripristinato query DE su Add:49 tipo:FIXED rimangono 0 elem\n") + line("War", END));
    EXPECT_FALSE(queues.tmrRestore.isActive());
    EXPECT_EQ(queues.CurrFixQC->second->QC.Dest, '2') << "the walk stays where it stands";
}

TEST_F(DelayedTest, RestoresIntoAnEmptyMapWithTheWalkAtItsEnd) {
    queues.addFixed(query('1', "DE"));
    queues.delayFixed(0x31444500);
    queues.manageDelayedQC();
    EXPECT_TRUE(queues.fixRoundIsOver());
    EXPECT_EQ(queues.peekFix(), nullptr);
    EXPECT_TRUE(queues.restartFixRound());
    EXPECT_EQ(nameOf(*queues.peekFix()), "DE");
}

TEST_F(DelayedTest, RestoresAFixedQueryInPlaceOfWhatIsThere) {
    queues.addFixed(query(0xEB, "SC", {1, 2}));
    queues.delayFixed(0xEB534303);
    queues.addFixed(query(0xEB, "SC", {2, 1}));
    queues.peekFix();
    QCMgr* inFlight = queues.currQC;
    queues.manageDelayedQC();
    EXPECT_THAT(queues.fixed(), ElementsAre("235:SC(1,2)"));
    EXPECT_EQ(queues.Queries.size(), 2u) << "what was there is still owned";
    EXPECT_EQ(nameOf(*inFlight), "SC(2,1)");
}

TEST_F(DelayedTest, ReportsATypeThatDoesNotExist) {
    queues.delay(query(0xEB, "BN"), static_cast<QueueType>(2));
    queues.manageDelayedQC();
    EXPECT_EQ(log.text(), line("Err", "caso non contemplato!!\n") +
                              line("War", "Ripristinato query BN su Add:235 tipo:FIXED rimangono 0 elem\n") +
                              line("War", END));
    EXPECT_THAT(queues.fixed(), IsEmpty());
    EXPECT_THAT(queues.async(), IsEmpty());
    EXPECT_THAT(queues.delayed(), IsEmpty());
    EXPECT_EQ(queues.Queries.size(), 1u);
}

TEST_F(DelayedTest, TheTimersSignalRestores) {
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    ASSERT_TRUE(QMetaObject::invokeMethod(&queues.tmrRestore, "timeout", Qt::DirectConnection));
    EXPECT_THAT(queues.async(), ElementsAre("BN"));
}

TEST_F(DelayedTest, RestoringIsAnInvokableSlot) {
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    ASSERT_TRUE(QMetaObject::invokeMethod(&queues, "manageDelayedQC", Qt::DirectConnection));
    EXPECT_THAT(queues.async(), ElementsAre("BN"));
}

TEST_F(DelayedTest, PeeksTheHeadAndLeavesIt) {
    QCDelayed_t delayed = {};
    EXPECT_FALSE(queues.peekDelayedQC(delayed));
    EXPECT_EQ(delayed.QCwrong, nullptr);
    QCMgr* first = queues.delay(query(0xEB, "SC", {5}), FixQueue);
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(queues.peekDelayedQC(delayed));
        EXPECT_EQ(delayed.QCwrong, first);
        EXPECT_EQ(delayed.qType, FixQueue);
        EXPECT_EQ(delayed.key, 0xEB534305u);
    }
    EXPECT_EQ(queues.DelayedQC.size(), 2);
}

TEST_F(DelayedTest, SearchesByCommandsFirstParametersAndType) {
    queues.delay(query(0xEB, "SC", {1, 2}), FixQueue);
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    queues.mutexQ.lock();  // the caller's
    EXPECT_TRUE(queues.isPresentInDelayedQC(*Description(0xEB, "SC", {1, 2}), FixQueue));
    EXPECT_TRUE(queues.isPresentInDelayedQC(*Description(0xEB, "SC", {1}), FixQueue));
    EXPECT_TRUE(queues.isPresentInDelayedQC(*Description(0xEB, "SC"), FixQueue));
    EXPECT_TRUE(queues.isPresentInDelayedQC(*Description(0xEB, "BN"), AsyncQueue));
    EXPECT_FALSE(queues.isPresentInDelayedQC(*Description(0xEB, "SC", {1, 2}), AsyncQueue));
    EXPECT_FALSE(queues.isPresentInDelayedQC(*Description(0xEB, "BN"), FixQueue));
    EXPECT_FALSE(queues.isPresentInDelayedQC(*Description(0xEB, "SC", {1, 3}), FixQueue));
    EXPECT_FALSE(queues.isPresentInDelayedQC(*Description(0xEB, "SC", {1, 2, 3}), FixQueue)) << "fewer bytes";
    EXPECT_FALSE(queues.isPresentInDelayedQC(*Description(0xEC, "SC", {1, 2}), FixQueue));
    EXPECT_FALSE(queues.isPresentInDelayedQC(*Description(0xEB, "SI", {1, 2}), FixQueue));
    EXPECT_FALSE(queues.isPresentInDelayedQC(*Description(0xEB, "CC", {1, 2}), FixQueue));
    queues.mutexQ.unlock();
}

TEST_F(DelayedTest, RemovesByCommandsAndTypeWhateverTheParameters) {
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    queues.delay(query(0xEB, "SC", {1}), AsyncQueue);
    queues.delay(query(0xEB, "SC", {2}), FixQueue);
    queues.delay(query(0xEB, "SC", {3, 4}), AsyncQueue);
    queues.delay(query(0xEB, "BI"), FixQueue);
    queues.mutexQ.lock();  // the caller's
    EXPECT_EQ(queues.RemoveDelayedQC(*Description(0xEB, "SC", {9}), AsyncQueue), 0);
    EXPECT_THAT(queues.delayed(), ElementsAre("BN async", "SC(2) fixed", "BI fixed"));
    EXPECT_EQ(queues.Queries.size(), 3u);
    EXPECT_EQ(queues.RemoveDelayedQC(*Description(0xEB, "SC", {9}), AsyncQueue), -1);
    EXPECT_EQ(queues.RemoveDelayedQC(*Description(0xEC, "BN"), AsyncQueue), -1);
    EXPECT_THAT(queues.delayed(), ElementsAre("BN async", "SC(2) fixed", "BI fixed"));
    queues.mutexQ.unlock();
    EXPECT_EQ(log.text(), "");
}

TEST_F(DelayedTest, RemovingLeavesEqualElementsOfOtherQueues) {
    queues.addFixed(query(0xEB, "BN"));
    queues.addAsync(query(0xEB, "BN"));
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    EXPECT_EQ(queues.RemoveDelayedQC(*Description(0xEB, "BN"), AsyncQueue), 0);
    EXPECT_EQ(queues.Queries.size(), 2u);
    EXPECT_EQ(nameOf(*queues.peekFix()), "BN");
    EXPECT_EQ(nameOf(*queues.peekAsync()), "BN");
}

TEST_F(DelayedTest, RemovingFromAnEmptyRoomFailsSilently) {
    EXPECT_EQ(queues.RemoveDelayedQC(*Description(0xEB, "BN"), FixQueue), -1);
    EXPECT_EQ(log.text(), "");
}

}  // namespace
