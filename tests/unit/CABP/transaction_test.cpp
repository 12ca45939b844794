// One transaction of the master's round: what goes over the line, what is stored, what is counted, and the BREAK.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace {

using bus::Bytes;
using support::LineCall;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

class Transaction : public testing::Test {
  protected:
    explicit Transaction(uint8 own = 0xEA) : plant(own) { plant.registerAll(); }

    // A query as the queues make it.
    QCMgr make(uint8 Dest, const char* cmd, Bytes* data = nullptr) {
        const pckStruct query = bus::query(Dest, cmd, data);
        QCMgr elem(query, CABP_BuildQuery, CABP_GetReplyDataLen(query));
        const int id = boxIndex(Dest);
        elem.pCommStatus = id < 0 ? nullptr : &plant.bus().upsBox[id].MCUcommStatus;
        return elem;
    }
    int manage(uint8 Dest, const char* cmd) {
        QCMgr elem = make(Dest, cmd);
        return plant.bus().ManageCmd(&elem);
    }
    // The reply of a cabinet to all nodes.
    void answer(uint8 Dest, const char* cmd, const Bytes& data) {
        plant.line().expect(bus::frame(CABPAddr, Dest, cmd)).reply(bus::frame(Dest, 0xFF, cmd, data), 3000);
    }
    void setComm(char letter, int32 errorPck, time32_t lastPckGood, bool isGood) {
        commStatus_t& comm = plant.comm(letter);
        comm.errorPck = errorPck;
        comm.lastPckGood = lastPckGood;
        comm.isGood = isGood;
    }
    std::string lastErr() { return plant.bus().getLastErr().toStdString(); }

    Plant plant;
    LogCapture log;
};

TEST_F(Transaction, GoodReplyIsStoredAndLowersTheScore) {
    Bytes data(20);
    data[4] = 0x39;
    data[5] = 0x30;
    answer(0xEB, "BN", data);
    setComm('B', 3, 0, false);
    EXPECT_EQ(manage(0xEB, "BN"), 0);
    EXPECT_TRUE(plant.line().allDone());
    EXPECT_EQ(plant.box('B').nominal.VA, 12345U);
    EXPECT_EQ(plant.comm('B').errorPck, 2);
    EXPECT_TRUE(plant.comm('B').isGood);
    EXPECT_EQ(plant.comm('B').lastPckGood, NOW());
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(plant.bus().getCurrPck(), QString("currPck:\\02 0xea 0xeb BN..."));
    EXPECT_EQ(lastErr(), "LastErr:");
}

TEST_F(Transaction, ReceptionIsDatedByThisCard) {
    answer(0xED, "BS", Bytes(268, 0x11));
    EXPECT_EQ(manage(0xED, "BS"), 0);
    EXPECT_EQ(plant.box('D').desc.upsBox.timestamp, NOW());
}

TEST_F(Transaction, ToAllNodesNothingIsCounted) {
    plant.line().expect(bus::frame(0xEA, 0xFF, "CU"));
    EXPECT_EQ(manage(0xFF, "CU"), 1);
    EXPECT_TRUE(plant.line().allDone());
    EXPECT_EQ(log.text(), "");
}

TEST_F(Transaction, ToAllNodesTheFailureOfTheSendIsHandedOn) {
    plant.line().fail(LineCall::Write, EIO, 1, 4);
    EXPECT_EQ(manage(0xFF, "CU"), -1);
    EXPECT_FALSE(log.contains("Verificare query"));
    EXPECT_EQ(lastErr(), "LastErr:");
}

TEST_F(Transaction, ToAnSkBoardFailsWhateverTheAnswer) {
    answer(0x0B, "GI", Bytes(64, 'x'));
    EXPECT_EQ(manage(0x0B, "GI"), -1);
    EXPECT_TRUE(plant.line().allDone());
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_TRUE(log.has("Err", "Verificare query!!!"));
    EXPECT_EQ(log.entries()[0].function, "ManageCmd");
    EXPECT_EQ(plant.data('B').extendedBoardBox.inf.timestamp, 0) << "not stored";
}

TEST_F(Transaction, ToACabinetThatIsNotRegisteredCountsNothing) {
    plant.comm('C').active = false;
    setComm('C', 2, 77, false);
    answer(0xEC, "BN", Bytes(20, 9));
    EXPECT_EQ(manage(0xEC, "BN"), 0);
    EXPECT_EQ(manage(0xEC, "BN"), 0) << "nobody answers: no failure either";
    EXPECT_EQ(plant.comm('C').errorPck, 2);
    EXPECT_EQ(plant.comm('C').lastPckGood, 77);
    EXPECT_FALSE(plant.comm('C').isGood);
    EXPECT_EQ(plant.box('C').nominal.VA, 0U);
}

TEST_F(Transaction, ToTheOwnCabinetPutsQueryAndReplyOnTheLine) {
    plant.box('A').nominal.VA = 4711;
    setComm('A', 2, 77, false);
    EXPECT_EQ(manage(0xEA, "BN"), 0);
    ASSERT_EQ(plant.line().writes().size(), 2U);
    EXPECT_EQ(plant.line().writes()[0], bus::frame(0xEA, 0xEA, "BN"));
    const Bytes reply = plant.line().writes()[1];
    ASSERT_EQ(reply.size(), 30U);
    EXPECT_EQ(reply[2], 0xFF);
    EXPECT_EQ(reply[11] + reply[12] * 256, 4711);
    EXPECT_EQ(plant.comm('A').errorPck, 2) << "no counters touched";
    EXPECT_EQ(plant.comm('A').lastPckGood, 77);
}

// ---------------------------------------------------------------------------------------------------------------
// Failures

TEST_F(Transaction, CabinetIsLostAtTheSecondFailureInARow) {
    setComm('B', 0, 1, true);
    EXPECT_EQ(manage(0xEB, "BS"), COMMERR);
    EXPECT_EQ(plant.comm('B').errorPck, 3);
    EXPECT_EQ(plant.comm('B').errorCnt, 0);
    EXPECT_TRUE(plant.comm('B').isGood);
    EXPECT_EQ(lastErr(), "LastErr:\\02 0xea 0xeb BS... @12:00:03");

    EXPECT_EQ(manage(0xEB, "BS"), FAIL);
    EXPECT_EQ(plant.comm('B').errorPck, 6);
    EXPECT_EQ(plant.comm('B').errorCnt, 1);
    EXPECT_FALSE(plant.comm('B').isGood);
    EXPECT_EQ(plant.line().breaksSent(), 0U) << "silence is no disturbed line";

    EXPECT_EQ(manage(0xEB, "BS"), FAIL);
    EXPECT_EQ(plant.comm('B').errorPck, 6);
    EXPECT_EQ(plant.comm('B').errorCnt, 2);
}

TEST_F(Transaction, RegisteredCabinetThatNeverAnsweredIsLostAtOnceOnlyByTheSecondFailure) {
    EXPECT_EQ(plant.comm('B').lastPckGood, 0);
    EXPECT_EQ(manage(0xEB, "BS"), COMMERR);
    EXPECT_EQ(plant.comm('B').errorPck, 3);
    EXPECT_EQ(manage(0xEB, "BS"), FAIL);
    EXPECT_FALSE(plant.comm('B').isGood);
}

TEST_F(Transaction, FailureBelowTheLimitOfALostCabinetIsNoCommErr) {
    setComm('B', 0, 1, false);
    EXPECT_EQ(manage(0xEB, "BS"), FAIL);
    EXPECT_EQ(plant.comm('B').errorPck, 3);
    EXPECT_EQ(plant.comm('B').errorCnt, 0);
}

TEST_F(Transaction, GoodReplyBringsALostCabinetBack) {
    setComm('B', 6, 0, false);
    answer(0xEB, "BN", Bytes(20));
    EXPECT_EQ(manage(0xEB, "BN"), 0);
    EXPECT_EQ(plant.comm('B').errorPck, 5);
    EXPECT_TRUE(plant.comm('B').isGood);
}

class FaultAtTheLimit : public Transaction, public testing::WithParamInterface<int> {
  protected:
    static bool isLineFault(int code) {
        return code == 0x01 || code == 0x02 || code == 0x07 || code == 0x0B || code == 0x0C;
    }
};

TEST_P(FaultAtTheLimit, SendsABreakOnlyOnADisturbedLine) {
    errnoCABP = static_cast<uint8>(GetParam());
    setComm('B', 3, 0, true);
    const std::int64_t begun = VirtualClock::now();
    EXPECT_EQ(manage(0xEB, "BS"), FAIL);
    EXPECT_EQ(plant.line().breaksSent(), isLineFault(GetParam()) ? 1U : 0U);
    EXPECT_EQ(log.has("", "Invio del carattere BREAK!!!"), isLineFault(GetParam()));
    EXPECT_EQ(LastMaster, isLineFault(GetParam()) ? 0xED : 0xEA);
    EXPECT_EQ(plant.in().state, Master) << "its own BREAK demotes no master";
    EXPECT_EQ(cntBreakDetect, 0);
    if (isLineFault(GetParam())) {
        EXPECT_GE(VirtualClock::now() - begun, 3000000 + 2000);
    }
}

INSTANTIATE_TEST_SUITE_P(AnyCode, FaultAtTheLimit, testing::Range(0, 0x18));

TEST_F(Transaction, FaultBelowTheLimitSendsNoBreak) {
    errnoCABP = CRCRCVFAIL;
    setComm('B', 3, 1, true);
    EXPECT_EQ(manage(0xEB, "BS"), COMMERR);
    EXPECT_EQ(plant.comm('B').errorPck, 5);
    EXPECT_EQ(plant.line().breaksSent(), 0U);
}

TEST_F(Transaction, DisturbedReplyAtTheLimitSendsABreak) {
    Bytes reply = bus::frame(0xEB, 0xFF, "BN", Bytes(20, 7));
    reply[20] ^= 0x40;
    plant.line().expect(bus::frame(0xEA, 0xEB, "BN")).reply(reply, 3000);
    setComm('B', 6, 0, false);
    EXPECT_EQ(manage(0xEB, "BN"), FAIL);
    EXPECT_EQ(errnoCABP, CRCRCVFAIL);
    EXPECT_EQ(plant.line().breaksSent(), 1U);
    EXPECT_EQ(plant.comm('B').errorCnt, 1);
}

// The place in the ring of the waits that the BREAK leaves: the sender's own, the first one's behind the last.
class SourceOfTheBreak : public testing::TestWithParam<std::pair<int, int>> {};

TEST_P(SourceOfTheBreak, IsRememberedAsLastMaster) {
    Plant plant(static_cast<uint8>(GetParam().first));
    plant.registerAll();
    const LogCapture log;
    const pckStruct query = bus::query(0xEC, "BS");
    QCMgr elem(query, CABP_BuildQuery, 268);
    elem.pCommStatus = &plant.comm('C');
    plant.comm('C').errorPck = 6;
    plant.comm('C').lastPckGood = 0;
    errnoCABP = STXFAIL;
    EXPECT_EQ(plant.bus().ManageCmd(&elem), FAIL);
    EXPECT_EQ(plant.line().breaksSent(), 1U);
    EXPECT_EQ(LastMaster, GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(EachCard, SourceOfTheBreak,
                         testing::Values(std::pair(0xEA, 0xED), std::pair(0xEB, 0xEB), std::pair(0xED, 0xED)));

// ---------------------------------------------------------------------------------------------------------------
// Locks

TEST_F(Transaction, ChannelIsHeldWhileItIsUsedAndTheDataWhileTheyAreStored) {
    bool channelFree = true;
    bool dataFree = false;
    plant.line().before(LineCall::Read, [&] {
        channelFree = plant.in().channelIsFree();
        dataFree = plant.in().mutexCABPData->tryLock();
        if (dataFree) {
            plant.in().mutexCABPData->unlock();
        }
    });
    answer(0xEB, "BN", Bytes(20));
    EXPECT_EQ(manage(0xEB, "BN"), 0);
    EXPECT_FALSE(channelFree);
    EXPECT_TRUE(dataFree);
    EXPECT_TRUE(plant.in().channelIsFree());
}

TEST_F(Transaction, BreakGoesOutWithoutTheChannel) {
    bool channelFree = false;
    bool dataFree = true;
    plant.line().before(LineCall::Tcsendbreak, [&] {
        channelFree = plant.in().channelIsFree();
        dataFree = plant.in().mutexCABPData->tryLock();
        if (dataFree) {
            plant.in().mutexCABPData->unlock();
        }
    });
    errnoCABP = STXFAIL;
    setComm('B', 6, 0, false);
    manage(0xEB, "BN");
    EXPECT_TRUE(channelFree);
    EXPECT_FALSE(dataFree);
}

// Between the release of the channel and the counting another thread's exchange may leave its own fault.
TEST_F(Transaction, FaultOfAnotherThreadsExchangeDoesNotCount) {
    std::atomic<bool> onTheLine{false};
    std::atomic<bool> holdsData{false};
    plant.line().before(LineCall::Write, [&] { onTheLine = true; });
    std::thread other([&] {
        plant.bus().lockCABPData();
        holdsData = true;
        while (!onTheLine) {
            std::this_thread::yield();
        }
        plant.in().mutexCABPChannel->lock();
        errnoCABP = CRCRCVFAIL;
        plant.in().mutexCABPChannel->unlock();
        plant.bus().unlockCABPData();
    });
    while (!holdsData) {
        std::this_thread::yield();
    }
    setComm('B', 6, 0, false);
    EXPECT_EQ(manage(0xEB, "BN"), FAIL);
    other.join();
    EXPECT_EQ(errnoCABP, CRCRCVFAIL);
    EXPECT_EQ(plant.line().breaksSent(), 0U);
}

// ---------------------------------------------------------------------------------------------------------------
// In the drain

TEST_F(Transaction, AsyncQueryToAnSkBoardIsRepeatedUntilABreak) {
    int turns = 0;
    plant.line().onWrite([&](const Bytes& written) {
        if (written != bus::frame(0xEA, 0x0A, "TB", {1})) {
            return;
        }
        plant.line().feed(bus::frame(0x0A, 0xEA, "TB", {0x06}), 3000);
        if (++turns == 7) {
            plant.line().receiveBreak();
        }
    });
    Bytes data = {1};
    plant.bus().AddAsyncQC(bus::query(0x0A, "TB", &data));
    log.clear();
    plant.bus().MasterAction();
    EXPECT_EQ(turns, 7);
    EXPECT_EQ(log.occurrences("Verificare query!!!"), 7U);
    EXPECT_EQ(plant.bus().AsyncQCSize(), 1) << "still at the head";
    EXPECT_EQ(cntBreakDetect, 1);
}

TEST_F(Transaction, DeadPortOfAMasterDoesNotSpin) {
    plant.bus().AddAsyncQC(bus::query(0xEB, "BI"));
    plant.line().hangUp();
    VirtualClock::after(10000000, [&] { plant.bus().Stop(); });
    log.clear();
    const std::int64_t begun = VirtualClock::now();
    std::size_t turns = plant.line().calls(LineCall::Write);
    plant.bus().MasterAction();
    turns = plant.line().calls(LineCall::Write) - turns;
    EXPECT_GE(VirtualClock::now() - begun, 10000000);
    EXPECT_LE(turns, 4U * 42) << "four tries a turn, a turn in 250 ms";
}

}  // namespace
