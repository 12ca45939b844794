// The fixed and the asynchronous queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QtCore/QCoreApplication>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "FreeCalls.h"
#include "Queries.h"
#include "support/LogCapture.h"
#include "support/LogLine.h"

using support::LogCapture;
using support::logLineOf;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(AsyncQueue == 0 && FixQueue == 1, "QueueType");

namespace {

std::string err(const char* function, const std::string& message) {
    return logLineOf("Err", "QueuesMgr.cpp", function, message);
}

class QueuesTest : public testing::Test {
  protected:
    LogCapture log;
    OpenQueues queues;
};

// ---------------------------------------------------------------------------------------------------------------
// Start and key

TEST_F(QueuesTest, StartsEmpty) {
    QCMgr* element = &queues.Queries.emplace_back(query(0xEB, "BS"));
    EXPECT_FALSE(queues.peekFixQC(element));
    EXPECT_EQ(element, nullptr);
    EXPECT_THAT(queues.fixed(), IsEmpty());
    EXPECT_THAT(queues.async(), IsEmpty());
    EXPECT_THAT(queues.delayed(), IsEmpty());
    EXPECT_EQ(queues.currQC, nullptr);
    EXPECT_TRUE(queues.CurrFixQC == queues.FixQuery.end());
    EXPECT_FALSE(queues.tmrRestore.isActive());
    EXPECT_EQ(queues.tmrRestore.thread(), queues.thread());
    EXPECT_EQ(queues.tmrRestore.parent(), nullptr);
}

TEST_F(QueuesTest, BelongsToItsParent) {
    QObject parent;
    const QueuesMgr* child = new QueuesMgr(&parent);
    EXPECT_EQ(child->parent(), &parent);
    EXPECT_EQ(log.text(), "");
}

TEST_F(QueuesTest, KeyHoldsDestinationCommandsAndTheSumOfTheParameters) {
    EXPECT_EQ(OpenQueues::keyOf(*Description(0xEB, "BS")), 0xEB425300u);
    EXPECT_EQ(OpenQueues::keyOf(*Description(0xFF, "CN", {1, 2, 3})), 0xFF434E06u);
    EXPECT_EQ(OpenQueues::keyOf(*Description(0x0A, "SI", {0xFF, 0x02})), 0x0A534901u) << "modulo 256";
    EXPECT_EQ(OpenQueues::keyOf(*Description(0xEB, "SC", Params(65535, 1))), 0xEB5343FFu);
    EXPECT_EQ(OpenQueues::keyOf(*Description(0xEB, "SC", {}, 0xEC)), 0xEB534300u) << "the source plays no part";
    pckStruct withoutBytes = *Description(0xEB, "SC");
    withoutBytes.ParamLen = 9;
    EXPECT_EQ(OpenQueues::keyOf(withoutBytes), 0xEB534300u);
}

TEST_F(QueuesTest, TellsWhetherAKeyIsPresent) {
    queues.addFixed(query(0xEB, "SC", {5}));
    queues.mutexQ.lock();  // the caller's
    EXPECT_TRUE(queues.isKeyPresent(0xEB534305));
    EXPECT_FALSE(queues.isKeyPresent(0xEB534304));
    EXPECT_FALSE(queues.isKeyPresent(0));
    queues.mutexQ.unlock();
}

// ---------------------------------------------------------------------------------------------------------------
// Fixed queries

TEST_F(QueuesTest, WalksDestinationsInAscendingOrderWithTheirCommandsTogether) {
    for (uint8 dest : {0xEC, 0x0A, 0xEA, 0xEB}) {
        EXPECT_EQ(queues.addFixed(query(dest, "BS")), SUCC);
        EXPECT_EQ(queues.addFixed(query(dest, "BN")), SUCC);
    }
    EXPECT_THAT(queues.fixed(),
                ElementsAre("10:BN", "10:BS", "234:BN", "234:BS", "235:BN", "235:BS", "236:BN", "236:BS"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(QueuesTest, KeepsACopyOfWhatIsRegistered) {
    commStatus_t status = {};
    {
        QCMgr temporary = query(0xEB, "SC", {1, 2}, &status);
        queues.RegisterElem(temporary);
        EXPECT_FALSE(queues.owns(&temporary));
    }
    const QCMgr* element = queues.peekFix();
    ASSERT_NE(element, nullptr);
    EXPECT_TRUE(queues.owns(element));
    EXPECT_EQ(nameOf(*element), "SC(1,2)");
    EXPECT_EQ(element->pckQuery[2], 1);
    EXPECT_EQ(element->pCommStatus, &status);
}

TEST_F(QueuesTest, EveryRegistrationRestartsTheWalk) {
    queues.addFixed(query(0xEA, "BN"));
    queues.addFixed(query(0xEA, "BS"));
    queues.advanceFixQC();
    EXPECT_EQ(nameOf(*queues.peekFix()), "BS");
    queues.addFixed(query(0xEC, "BI"));
    EXPECT_EQ(nameOf(*queues.peekFix()), "BN");
}

TEST_F(QueuesTest, TheSecondOfTwoQueriesWithTheSameKeyReplacesTheFirst) {
    EXPECT_EQ(queues.addFixed(query(0xEB, "SC", {1, 2})), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(queues.addFixed(query(0xEB, "SC", {2, 1})), 0);
    EXPECT_EQ(log.text(), err("RegisterElem", "Elemento gia' presente, lo devo rimuovere!!\n"));
    EXPECT_THAT(queues.fixed(), ElementsAre("235:SC(2,1)"));
    EXPECT_EQ(queues.Queries.size(), 1u);
}

TEST_F(QueuesTest, ReplacingLeavesAnEqualElementToTheQueueThatHoldsIt) {
    queues.addFixed(query(0xEB, "BN"));
    queues.addAsync(query(0xEB, "BN"));
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    queues.addFixed(query(0xEB, "BN"));
    EXPECT_EQ(queues.Queries.size(), 3u);
    EXPECT_EQ(nameOf(*queues.peekAsync()), "BN");
    EXPECT_THAT(queues.delayed(), ElementsAre("BN async"));
    EXPECT_EQ(nameOf(*queues.peekFix()), "BN");
}

TEST_F(QueuesTest, ReplacingTakesEqualElementsAlongThatNoQueueHolds) {
    queues.addFixed(query(0xEB, "BN"));
    queues.Queries.emplace_back(query(0xEB, "BN"));
    queues.Queries.emplace_back(query(0xEB, "BS"));
    queues.addFixed(query(0xEB, "BN"));
    ASSERT_EQ(queues.Queries.size(), 2u);
    EXPECT_EQ(nameOf(queues.Queries.front()), "BS");
    EXPECT_EQ(&queues.Queries.back(), queues.peekFix());
}

TEST_F(QueuesTest, TakesAFixedQueryOut) {
    queues.addFixed(query(0xEA, "BN"));
    queues.addFixed(query(0xEB, "SC", {3, 4}));
    queues.addFixed(query(0xEC, "BN"));
    queues.advanceFixQC();
    queues.advanceFixQC();
    EXPECT_EQ(queues.removeFixed(query(0xEB, "SC", {4, 3})), 0) << "found by its key";
    EXPECT_THAT(queues.fixed(), ElementsAre("234:BN", "236:BN"));
    EXPECT_EQ(queues.Queries.size(), 2u);
    EXPECT_EQ(queues.peekFix()->QC.Dest, 0xEA) << "the walk starts anew";
    EXPECT_EQ(log.text(), "");
}

TEST_F(QueuesTest, TakesOutNothingButTheElement) {
    queues.addFixed(query(0xEB, "BN"));
    queues.addAsync(query(0xEB, "BN"));
    EXPECT_EQ(queues.removeFixed(query(0xEB, "BN")), 0);
    EXPECT_EQ(queues.Queries.size(), 1u);
    EXPECT_EQ(nameOf(*queues.peekAsync()), "BN");
}

TEST_F(QueuesTest, LeavesTheQueryInFlightUntilAnotherHasBeenPeeked) {
    queues.addFixed(query(0xEA, "BN"));
    queues.addFixed(query(0xEB, "BN"));
    queues.advanceFixQC();
    QCMgr* inFlight = queues.peekFix();
    ASSERT_EQ(inFlight->QC.Dest, 0xEB);
    EXPECT_EQ(queues.removeFixed(query(0xEB, "BN")), -1);
    EXPECT_THAT(queues.fixed(), ElementsAre("234:BN", "235:BN"));
    EXPECT_EQ(queues.Queries.size(), 2u);
    EXPECT_EQ(queues.CurrFixQC->second, inFlight);
    EXPECT_EQ(queues.currQC, inFlight);
    EXPECT_EQ(log.text(), "");

    queues.restartFixRound();
    queues.peekFix();
    EXPECT_EQ(queues.removeFixed(query(0xEB, "BN")), 0);
    EXPECT_THAT(queues.fixed(), ElementsAre("234:BN"));
}

TEST_F(QueuesTest, AnEmptyPeekEndsTheFlight) {
    queues.addFixed(query(0xEB, "BN"));
    queues.peekFix();
    EXPECT_EQ(queues.removeFixed(query(0xEB, "BN")), -1);
    EXPECT_EQ(queues.peekAsync(), nullptr);
    EXPECT_EQ(queues.currQC, nullptr);
    EXPECT_EQ(queues.removeFixed(query(0xEB, "BN")), 0);
}

TEST_F(QueuesTest, ReportsTheRemovalOfWhatWasNeverRegistered) {
    queues.addFixed(query(0xEA, "BN"));
    queues.addAsync(query(0xEB, "BN"));
    queues.delay(query(0xEB, "BN"), AsyncQueue);
    EXPECT_EQ(queues.removeFixed(query(0xEB, "BN")), -1);
    EXPECT_EQ(log.text(), err("DeRegisterElem", "L'elemento NON e'mai stato registrato\n"));
    EXPECT_EQ(queues.Queries.size(), 3u);
}

TEST_F(QueuesTest, FindsAFixedQueryInTheWaitingRoom) {
    queues.addFixed(query(0xEA, "BN"));
    queues.addFixed(query(0xEB, "SC", {1}));
    queues.delayFixed(0xEB534301);
    EXPECT_EQ(queues.removeFixed(query(0xEB, "SC", {2})), -1) << "other parameters";
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_EQ(queues.removeFixed(query(0xEB, "SC", {1})), 0);
    EXPECT_EQ(log.errors(), 1u);
    EXPECT_THAT(queues.delayed(), IsEmpty());
    EXPECT_EQ(queues.Queries.size(), 1u);
}

TEST_F(QueuesTest, PeeksTheSameFixedQueryUntilTheWalkAdvances) {
    queues.addFixed(query(0xEA, "BN"));
    queues.addFixed(query(0xEA, "BS"));
    QCMgr* element = nullptr;
    EXPECT_TRUE(queues.peekFixQC(element));
    QCMgr* again = nullptr;
    EXPECT_TRUE(queues.peekFixQC(again));
    EXPECT_EQ(element, again);
    EXPECT_EQ(queues.currQC, element);
    queues.advanceFixQC();
    EXPECT_TRUE(queues.peekFixQC(again));
    EXPECT_NE(element, again);
    EXPECT_EQ(queues.currQC, again);
}

TEST_F(QueuesTest, PeekingAnEmptyMapClearsTheQueryInFlight) {
    queues.addAsync(query(0xEA, "BN"));
    ASSERT_NE(queues.peekAsync(), nullptr);
    ASSERT_NE(queues.currQC, nullptr);
    QCMgr* element = queues.currQC;
    EXPECT_FALSE(queues.peekFixQC(element));
    EXPECT_EQ(element, nullptr);
    EXPECT_EQ(queues.currQC, nullptr);
}

TEST_F(QueuesTest, HandsOutAQueryWithoutFrameAsOneThatCantBeSent) {
    Description description(0xEB, "BS");
    QCMgr withoutFrame(*description, buildNothing, 4);
    queues.RegisterElem(withoutFrame);
    queues.AddAsyncQC(withoutFrame);
    QCMgr* element = nullptr;
    EXPECT_FALSE(queues.peekFixQC(element));
    EXPECT_EQ(element, queues.FixQuery.begin()->second);
    EXPECT_EQ(queues.currQC, element);
    EXPECT_FALSE(queues.peekAsyncQC(element));
    EXPECT_EQ(element, queues.AsyncQC.head());
    EXPECT_EQ(queues.currQC, element);
}

TEST_F(QueuesTest, WalksARoundAndStaysAtItsEnd) {
    EXPECT_TRUE(queues.fixRoundIsOver());
    EXPECT_FALSE(queues.restartFixRound());
    queues.advanceFixQC();
    queues.addFixed(query(0xEA, "BN"));
    queues.addFixed(query(0xEA, "BS"));
    EXPECT_FALSE(queues.fixRoundIsOver());
    queues.advanceFixQC();
    EXPECT_FALSE(queues.fixRoundIsOver());
    queues.advanceFixQC();
    EXPECT_TRUE(queues.fixRoundIsOver());
    queues.advanceFixQC();
    EXPECT_TRUE(queues.fixRoundIsOver());
    QCMgr* element = &queues.Queries.front();
    EXPECT_FALSE(queues.peekFixQC(element)) << "there is nothing at the end";
    EXPECT_EQ(element, nullptr);
    EXPECT_TRUE(queues.restartFixRound());
    EXPECT_EQ(nameOf(*queues.peekFix()), "BN");
}

// ---------------------------------------------------------------------------------------------------------------
// Asynchronous queries

TEST_F(QueuesTest, ServesAsynchronousQueriesInTheOrderOfTheirComing) {
    EXPECT_EQ(queues.addAsync(query(0xEB, "SC", {1})), 0);
    EXPECT_EQ(queues.addAsync(query(0xEB, "BN")), 0);
    EXPECT_EQ(queues.addAsync(query(0xEB, "SC", {1})), 0) << "duplicates are not refused here";
    EXPECT_EQ(queues.sizeAsyncQC(), 3);
    QCMgr* element = nullptr;
    EXPECT_TRUE(queues.peekAsyncQC(element));
    EXPECT_EQ(nameOf(*element), "SC(1)");
    EXPECT_EQ(queues.peekAsync(), element) << "it stays at the head until it is dealt with";
    EXPECT_EQ(queues.headAsyncQC(), 0);
    EXPECT_EQ(nameOf(*queues.peekAsync()), "BN");
    EXPECT_EQ(queues.headAsyncQC(), 0);
    EXPECT_EQ(nameOf(*queues.peekAsync()), "SC(1)");
    EXPECT_EQ(queues.headAsyncQC(), 0);
    EXPECT_EQ(queues.sizeAsyncQC(), 0);
    EXPECT_TRUE(queues.Queries.empty());
    EXPECT_FALSE(queues.peekAsyncQC(element));
    EXPECT_EQ(element, nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(QueuesTest, HasNoHeadToDropInAnEmptyQueue) {
    EXPECT_EQ(queues.headAsyncQC(), -1);
    EXPECT_EQ(log.text(), err("headAsyncQC", "coda vuota!!\n"));
}

TEST_F(QueuesTest, DroppingTheHeadLeavesAnEqualFixedQuery) {
    queues.addFixed(query('1', "GI"));
    queues.addAsync(query('1', "GI"));
    queues.addAsync(query('1', "GI"));
    queues.peekAsync();
    EXPECT_EQ(queues.headAsyncQC(), 0);
    EXPECT_EQ(queues.Queries.size(), 2u);
    EXPECT_EQ(nameOf(*queues.peekFix()), "GI");
    EXPECT_EQ(nameOf(*queues.peekAsync()), "GI");
}

TEST_F(QueuesTest, ADroppedHeadIsNoLongerInFlight) {
    queues.addAsync(query(0xEB, "BN"));
    queues.peekAsync();
    queues.headAsyncQC();
    // Or a later element at the same address would count as in flight.
    EXPECT_EQ(queues.currQC, nullptr);
}

TEST_F(QueuesTest, DroppingAHeadLeavesAnotherQueryInFlight) {
    queues.addFixed(query(0xEB, "BS"));
    queues.addAsync(query(0xEB, "BN"));
    queues.peekFix();
    queues.headAsyncQC();
    EXPECT_EQ(queues.removeFixed(query(0xEB, "BS")), -1);
}

TEST_F(QueuesTest, RemovesTheElementsWithOtherParametersAndKeepsTheEqualOnes) {
    queues.addAsync(query(0xEB, "SC", {1, 2}));
    queues.addAsync(query(0xEB, "BN", {9, 9}));
    queues.addAsync(query(0xEB, "SC", {1, 3}));
    queues.addAsync(query(0xEC, "SC", {1, 3}));
    queues.addAsync(query(0xEB, "SC", {1, 2, 3}));
    queues.addAsync(query(0xEB, "SC", {2, 2}));
    EXPECT_EQ(queues.removeAsync(query(0xEB, "SC", {1, 2})), 0);
    EXPECT_THAT(queues.async(), ElementsAre("SC(1,2)", "BN(9,9)", "SC(1,3)", "SC(1,2,3)"));
    EXPECT_EQ(queues.AsyncQC.at(2)->QC.Dest, 0xEC);
    EXPECT_EQ(queues.Queries.size(), 4u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(QueuesTest, RemovesNothingWithoutParametersToCompare) {
    queues.addAsync(query(0xEB, "SC"));
    queues.addAsync(query(0xEB, "SC", {1}));
    EXPECT_EQ(queues.removeAsync(query(0xEB, "SC")), -1);
    EXPECT_THAT(queues.async(), ElementsAre("SC", "SC(1)"));
}

TEST_F(QueuesTest, AnElementWithFewerParametersThanComparedDiffers) {
    queues.addAsync(query(0xEB, "SC", {1}));
    queues.addAsync(query(0xEB, "SC"));
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", {1, 2})));
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", Params(200, 1))));
    EXPECT_EQ(queues.removeAsync(query(0xEB, "SC", Params(200, 1))), 0);
    EXPECT_THAT(queues.async(), IsEmpty());
}

TEST_F(QueuesTest, AnElementOrAQueryWithoutItsBytesDiffers) {
    pckStruct withoutBytes = *Description(0xEB, "SC");
    withoutBytes.ParamLen = 2;
    QCMgr element(withoutBytes, buildFrame, 4);
    queues.AddAsyncQC(element);
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", {1, 2})));
    queues.addAsync(query(0xEB, "SC", {1, 2}));
    EXPECT_FALSE(queues.isPresentInAsyncQC(withoutBytes));
}

TEST_F(QueuesTest, RemovingFromAnEmptyQueueFailsSilently) {
    EXPECT_EQ(queues.removeAsync(query(0xEB, "SC", {1})), -1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(QueuesTest, RemovingTakesDelayedQueriesAlongAndIgnoresThatInItsResult) {
    queues.delay(query(0xEB, "SC", {1}), AsyncQueue);
    queues.delay(query(0xEB, "SC", {1}), FixQueue);
    EXPECT_EQ(queues.removeAsync(query(0xEB, "SC", {1})), -1);
    EXPECT_THAT(queues.delayed(), ElementsAre("SC(1) fixed"));
    EXPECT_EQ(queues.Queries.size(), 1u);

    queues.addAsync(query(0xEB, "SC", {2}));
    EXPECT_EQ(queues.removeAsync(query(0xEB, "SC", {1})), 0) << "also where nothing was delayed";
}

TEST_F(QueuesTest, SearchesTheAsynchronousQueueByCommandsAndFirstParameters) {
    queues.addAsync(query(0xEB, "BN"));
    queues.addAsync(query(0xEB, "SC", {1, 2, 3}));
    EXPECT_TRUE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", {1, 2, 3})));
    EXPECT_TRUE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", {1, 2}))) << "as many as the query has";
    EXPECT_TRUE(queues.isPresentInAsyncQC(*Description(0xEB, "SC"))) << "none to compare";
    EXPECT_TRUE(queues.isPresentInAsyncQC(*Description(0xEB, "BN", {}, 0xED))) << "the source plays no part";
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", {1, 3})));
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEC, "SC", {1, 2, 3})));
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "SI")));
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "CC")));
}

TEST_F(QueuesTest, SearchesTheWaitingRoomToo) {
    queues.delay(query(0xEB, "SC", {1, 2}), AsyncQueue);
    queues.delay(query(0xEB, "BN"), FixQueue);
    EXPECT_TRUE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", {1})));
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "SC", {2})));
    EXPECT_FALSE(queues.isPresentInAsyncQC(*Description(0xEB, "BN"))) << "of the fixed queue";
}

// ---------------------------------------------------------------------------------------------------------------
// Elements in flight

constexpr int BLOCKS = 3;  // parameters, frame and reply

// What the link's thread does with a query while it has it.
int useOf(const QCMgr* element) {
    int sum = 0;
    for (int i = 0; i < element->buildQueryLen; ++i) {
        sum += element->pckQuery[i];
    }
    for (int i = 0; i < element->expectedReplyLen; ++i) {
        element->pckReply[i] = static_cast<uint8>(i);
    }
    for (int i = 0; i < element->QC.ParamLen; ++i) {
        sum += static_cast<const uint8*>(element->QC.pParam)[i];
    }
    return sum;
}

TEST_F(QueuesTest, AnAsynchronousQueryRemovedInFlightLivesUntilTheNextPeek) {
    queues.addAsync(query(0xEB, "SC", {1}));
    const QCMgr* inFlight = queues.peekAsync();
    const int sum = useOf(inFlight);
    EXPECT_EQ(queues.removeAsync(query(0xEB, "SC", {2})), 0);
    EXPECT_THAT(queues.async(), IsEmpty());
    EXPECT_TRUE(queues.Queries.empty());
    EXPECT_EQ(queues.currQC, nullptr);
    EXPECT_EQ(useOf(inFlight), sum);
    const int before = freecalls::total();
    queues.peekFix();
    EXPECT_EQ(freecalls::total(), before + BLOCKS);
}

TEST_F(QueuesTest, AFixedQueryReplacedInFlightLivesUntilTheNextPeek) {
    queues.addFixed(query(0xEB, "SC", {1, 2}));
    const QCMgr* inFlight = queues.peekFix();
    const int sum = useOf(inFlight);
    queues.addFixed(query(0xEB, "SC", {2, 1}));
    EXPECT_EQ(queues.Queries.size(), 1u);
    EXPECT_EQ(queues.currQC, nullptr);
    EXPECT_EQ(queues.removeFixed(query(0xEB, "SC", {1, 2})), 0) << "the new one is not in flight";
    queues.addFixed(query(0xEB, "SC", {2, 1}));
    EXPECT_EQ(useOf(inFlight), sum);
    const int before = freecalls::total();
    EXPECT_NE(queues.peekFix(), inFlight);
    EXPECT_EQ(freecalls::total(), before + BLOCKS);
}

TEST_F(QueuesTest, ADelayedQueryRemovedInFlightLivesUntilTheNextPeek) {
    queues.addAsync(query(0xEB, "SC", {1}));
    const QCMgr* inFlight = queues.peekAsync();
    queues.delayAsync();
    queues.removeAsync(query(0xEB, "SC", {1}));
    EXPECT_TRUE(queues.Queries.empty());
    EXPECT_GT(useOf(inFlight), 0);
    queues.peekAsync();
}

TEST_F(QueuesTest, AQueryInFlightGoesWithTheManager) {
    int before = 0;
    {
        OpenQueues others;
        others.addAsync(query(0xEB, "SC", {1}));
        others.addFixed(query(0xEB, "SC", {3}));
        others.peekAsync();
        others.removeAsync(query(0xEB, "SC", {2}));
        before = freecalls::total();
    }
    EXPECT_EQ(freecalls::total(), before + 2 * BLOCKS);
}

// ---------------------------------------------------------------------------------------------------------------
// Wiping, locking

TEST_F(QueuesTest, WipingEmptiesTheQueuesAndKeepsTheQueries) {
    int argc = 0;
    const QCoreApplication application(argc, nullptr);
    queues.addFixed(query(0xEA, "BN"));
    queues.addFixed(query(0xEB, "BN"));
    queues.addAsync(query(0xEB, "SC", {1}));
    queues.delay(query(0xEB, "BI"), FixQueue);
    queues.advanceFixQC();
    queues.peekFix();
    queues.tmrRestore.start(QCDELAYEDTIMEOUT);
    queues.mutexQ.lock();  // not taken: would block for good
    queues.wipeQueues();
    queues.mutexQ.unlock();
    EXPECT_EQ(queues.Queries.size(), 4u);
    EXPECT_THAT(queues.fixed(), IsEmpty());
    EXPECT_THAT(queues.delayed(), IsEmpty());
    EXPECT_TRUE(queues.CurrFixQC == queues.FixQuery.end());
    EXPECT_EQ(queues.currQC, nullptr);
    EXPECT_FALSE(queues.tmrRestore.isActive());
    QCMgr* element = &queues.Queries.front();
    EXPECT_FALSE(queues.peekFixQC(element));
    EXPECT_EQ(element, nullptr);
    EXPECT_FALSE(queues.peekAsyncQC(element));
    EXPECT_EQ(element, nullptr);
    EXPECT_EQ(log.text(), "");
}

OpenQueues* watched = nullptr;
int unlocked = 0;

void watchLock() {
    if (watched->mutexQ.tryLock()) {
        watched->mutexQ.unlock();
        ++unlocked;
    }
}

TEST_F(QueuesTest, DestroysElementsUnderItsLock) {
    QCMgr fixed = query(0xEA, "SC", {1});
    QCMgr async = query(0xEB, "SC", {1});
    QCMgr other = query(0xEB, "SC", {2});
    QCMgr* element = nullptr;
    queues.RegisterElem(fixed);
    queues.AddAsyncQC(async);
    queues.AddAsyncQC(async);
    queues.AddAsyncQC(async);
    queues.peekAsyncQC(element);
    watched = &queues;
    const std::vector<std::pair<const char*, std::function<void()>>> operations = {
        {"RegisterElem", [&] { queues.RegisterElem(fixed); }},
        {"DeRegisterElem", [&] { queues.DeRegisterElem(fixed); }},
        {"RemoveAsyncQC", [&] { queues.RemoveAsyncQC(other); }},  // the one in flight stays aside
        {"peekAsyncQC", [&] { queues.peekAsyncQC(element); }},
        {"AddAsyncQC", [&] { queues.AddAsyncQC(async); }},  // destroys nothing
        {"headAsyncQC", [&] { queues.headAsyncQC(); }},
    };
    for (const auto& operation : operations) {
        const int before = freecalls::total();
        freecalls::onCall(watchLock);
        operation.second();
        freecalls::onCall(nullptr);
        EXPECT_EQ(freecalls::total() > before, operation.first != std::string("AddAsyncQC")) << operation.first;
        EXPECT_EQ(unlocked, 0) << operation.first;
    }
}

TEST_F(QueuesTest, ServesItsThreadWhileOthersAddSearchReplaceAndRemove) {
    constexpr int SERVED = 200;
    std::atomic<bool> done{false};
    const auto repeat = [&done](const std::function<void()>& turn) {
        return std::thread([&done, turn] {
            while (!done) {
                turn();
                std::this_thread::yield();
            }
        });
    };
    std::thread threads[] = {
        repeat([&] {
            if (queues.sizeAsyncQC() < 20) {
                queues.addAsync(query(0xEB, "SC", {0}));
                queues.addAsync(query(0xEB, "SC", {1}));
            }
        }),
        repeat([&] {
            queues.isPresentInAsyncQC(*Description(0xEB, "SC", {1}));
            queues.removeAsync(query(0xEB, "SC", {0}));  // all of {1}
        }),
        repeat([&] {
            queues.addFixed(query(0xEB, "BN", {0, 1}));
            queues.addFixed(query(0xEB, "BN", {1, 0}));
            queues.removeFixed(query(0xEB, "BN", {1}));
        }),
    };
    int sum = 0;
    for (int async = 0, fixed = 0; async < SERVED || fixed < SERVED;) {
        QCMgr* element = nullptr;
        if (queues.peekAsyncQC(element)) {
            sum += useOf(element);
            queues.headAsyncQC();
            ++async;
        }
        if (queues.fixRoundIsOver()) {
            queues.restartFixRound();
        }
        if (queues.peekFixQC(element)) {
            sum += useOf(element);
            queues.advanceFixQC();
            ++fixed;
        }
    }
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(sum, 0);
    EXPECT_EQ(queues.Queries.size(), static_cast<std::size_t>(queues.AsyncQC.size()) + queues.FixQuery.size());
}

}  // namespace
