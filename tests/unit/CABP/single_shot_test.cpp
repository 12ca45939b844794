// One transaction on a thread of its own.
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

class SingleShot : public testing::Test {
  protected:
    SingleShot() { plant.registerAll(); }

    // Runs it to its end; the reply's data are in `data`, the result in `status`.
    void shoot(uint8 dest, const char* cmd, uint16 replyDataLen, Bytes* params = nullptr) {
        pckStruct query = bus::query(dest, cmd, params);
        CABPMgr::singleQCMgr* const sQC = plant.bus().InsertSingleQC(query, replyDataLen, data.data(), &status);
        ASSERT_NE(sQC, nullptr);
        while (!plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC)) {
        }
    }
    void answer(uint8 dest, const char* cmd, const Bytes& reply) {
        plant.line().expect(bus::frame(0xEA, dest, cmd)).reply(bus::frame(dest, 0xFF, cmd, reply), 3000);
    }
    std::string said() {
        std::string all;
        for (const support::LogEntry& entry : log.entries()) {
            all += entry.level + " " + entry.function + ": " + entry.message + "\n";
        }
        return all;
    }

    Plant plant;
    LogCapture log;
    Bytes data = Bytes(400, 0xCC);
    int status = 99;
};

TEST_F(SingleShot, HandsTheDataOfTheReplyOver) {
    const Bytes reply = bus::filler(20);
    answer(0xEB, "BN", reply);
    shoot(0xEB, "BN", 20);
    EXPECT_EQ(status, 0);
    Bytes expected = reply;
    expected.resize(400, 0xCC);
    EXPECT_EQ(data, expected);
    EXPECT_EQ(said(),
              " InsertSingleQC: Start singleQC BN to 0xEB\n"
              " run: Process Single QC BN to 0xEB\n");
    EXPECT_EQ(plant.bus().getCurrPck(), QString("currPck:\\02 0xea 0xeb BN..."));
    EXPECT_TRUE(plant.in().channelIsFree());
}

TEST_F(SingleShot, StoresNothingAndCountsNothing) {
    plant.comm('B').errorPck = 4;
    answer(0xEB, "BN", Bytes(20, 7));
    shoot(0xEB, "BN", 20);
    EXPECT_EQ(plant.comm('B').errorPck, 4);
    EXPECT_EQ(plant.box('B').nominal.VA, 0U);
    shoot(0xEB, "BN", 20);  // nobody answers
    EXPECT_EQ(plant.comm('B').errorPck, 4);
    EXPECT_TRUE(plant.comm('B').isGood);
}

TEST_F(SingleShot, TellsItsParameters) {
    Bytes params = {0x01, 0xAB};
    plant.line().onWrite([this](const Bytes&) { plant.line().feed(bus::frame(0xEB, 0xEA, "SC", {0x06}), 3000); });
    shoot(0xEB, "SC", 1, &params);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(data[0], 0x06);
    EXPECT_EQ(plant.line().writes().at(0), bus::frame(0xEA, 0xEB, "SC", params));
    EXPECT_TRUE(log.has("", "param"));
    EXPECT_TRUE(log.has("-", "0x01 0xAB "));
}

TEST_F(SingleShot, OnlyTheLowByteOfTheLengthCounts) {
    answer(0xEB, "BS", bus::filler(268));
    shoot(0xEB, "BS", 0x104);
    EXPECT_EQ(status, 0);
    const Bytes all = bus::filler(268);
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 4), Bytes(all.begin(), all.begin() + 4));
    EXPECT_EQ(data[4], 0xCC);
}

TEST_F(SingleShot, CopiesAtMostWhatTheReplyHolds) {
    answer(0xEB, "CU", {0x06});
    shoot(0xEB, "CU", 255);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(data[0], 0x06);
    EXPECT_EQ(Bytes(data.begin() + 1, data.end()), Bytes(399, 0xCC));
}

TEST_F(SingleShot, OfNoDataLeavesTheBufferAlone) {
    answer(0xEB, "CU", {0x06});
    shoot(0xEB, "CU", 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(data, Bytes(400, 0xCC));
}

TEST_F(SingleShot, WithoutAnAnswerFails) {
    shoot(0xEC, "CU", 1);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(data, Bytes(400, 0xCC));
    EXPECT_EQ(plant.bus().getLastErr(), QString("LastErr:\\02 0xea 0xec CU... @12:00:03"));
    EXPECT_TRUE(plant.in().channelIsFree());
}

TEST_F(SingleShot, ToAllNodesSucceedsThoughTheSendFailed) {
    plant.line().fail(LineCall::Write, EIO, 1, 4);
    shoot(0xFF, "CU", 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(plant.bus().getLastErr(), QString("LastErr:"));
    EXPECT_TRUE(log.contains("FALLITO Comando CU inviato alla scheda 0xFF"));
}

TEST_F(SingleShot, ToTheOwnCabinetGivesOne) {
    shoot(0xEA, "BN", 20);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(data, Bytes(400, 0xCC));
    EXPECT_EQ(plant.line().writes().size(), 2U);
    EXPECT_TRUE(plant.bus().getLastErr().startsWith("LastErr:\\02 0xea 0xea BN"));
}

TEST_F(SingleShot, ToAnSkBoardSucceeds) {
    answer(0x0C, "GI", Bytes(64, 'x'));
    shoot(0x0C, "GI", 64);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(data[63], 'x');
}

TEST_F(SingleShot, ToAnAddressThatThereIsNotIsRefused) {
    for (const int dest : {0x0E, 0x41, 0xE0, 0xE9, 0xEE, 0xFE}) {
        log.clear();
        status = 99;
        shoot(static_cast<uint8>(dest), "CU", 1);
        EXPECT_EQ(status, -1);
        const QString expected = QString::asprintf(
            " InsertSingleQC: Start singleQC CU to 0x%02X\n"
            "Err AddrGood: Addr 0x%02X non valido!\n"
            "Err run: Indice della scheda non corretto!\n",
            dest, dest);
        EXPECT_EQ(said(), expected.toStdString());
    }
    EXPECT_EQ(plant.line().calls(LineCall::Write), 0U);
}

TEST_F(SingleShot, StatusStandsAtFailureUntilItEnds) {
    plant.in().mutexCABPChannel->lock();
    pckStruct query = bus::query(0xFF, "CU");
    CABPMgr::singleQCMgr* const sQC = plant.bus().InsertSingleQC(query, 0, data.data(), &status);
    EXPECT_FALSE(plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC));
    EXPECT_EQ(status, -1);
    plant.in().mutexCABPChannel->unlock();
    while (!plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC)) {
    }
    EXPECT_EQ(status, 0);
}

TEST_F(SingleShot, NoThreadCountsAsEnded) {
    EXPECT_TRUE(plant.bus().WaitSingleQC(nullptr, WAIT_CABPSQC));
    EXPECT_TRUE(plant.bus().WaitSingleQC(nullptr, 0));
}

TEST_F(SingleShot, HoldsTheChannelButNotTheData) {
    bool channelFree = true;
    bool dataFree = false;
    plant.line().before(LineCall::Write, [&] {
        channelFree = plant.in().channelIsFree();
        dataFree = plant.in().mutexCABPData->tryLock();
        if (dataFree) {
            plant.in().mutexCABPData->unlock();
        }
    });
    answer(0xEB, "CU", {0x06});
    shoot(0xEB, "CU", 1);
    EXPECT_FALSE(channelFree);
    EXPECT_TRUE(dataFree);
}

TEST_F(SingleShot, RunsWhileTheDataAreLocked) {
    answer(0xEB, "CU", {0x06});
    plant.bus().lockCABPData();
    shoot(0xEB, "CU", 1);
    plant.bus().unlockCABPData();
    EXPECT_EQ(status, 0);
}

// Two roads to one line: each exchange is whole.
TEST_F(SingleShot, TakesItsTurnWithTheRound) {
    std::atomic<int> inExchange{0};
    std::atomic<bool> overlapped{false};
    plant.line().onWrite([&](const Bytes& written) {
        if (++inExchange > 1) {
            overlapped = true;
        }
        plant.line().feed(
            bus::frame(written[2], 0xEA, written[3] == 'B' ? "BI" : "CU", written[3] == 'B' ? Bytes(98) : Bytes{0x06}),
            3000);
    });
    plant.line().before(LineCall::Read, [&] { inExchange = 0; });
    std::thread other([this] {
        for (int i = 0; i < 20; ++i) {
            pckStruct query = bus::query(0xEC, "CU");
            uint8 reply[1];
            int result;
            CABPMgr::singleQCMgr* const sQC = plant.bus().InsertSingleQC(query, 1, reply, &result);
            while (!plant.bus().WaitSingleQC(sQC, WAIT_CABPSQC)) {
            }
            EXPECT_EQ(result, 0);
        }
    });
    for (int i = 0; i < 20; ++i) {
        const pckStruct query = bus::query(0xEB, "BI");
        QCMgr elem(query, CABP_BuildQuery, 98);
        elem.pCommStatus = &plant.comm('B');
        EXPECT_EQ(plant.bus().ManageCmd(&elem), 0);
    }
    other.join();
    EXPECT_FALSE(overlapped);
}

}  // namespace
