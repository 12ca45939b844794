// What the rest of the program reads of the bus thread and sets in it.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace {

using support::LogCapture;
using support::Plant;
using support::VirtualClock;

class Diagnostics : public testing::Test {
  protected:
    static QCMgr make(uint8 Src, uint8 Dest, uint8 MainCmd, uint8 SubCmd) {
        pckStruct query;
        query.Src = Src;
        query.Dest = Dest;
        query.MainCmd = MainCmd;
        query.SubCmd = SubCmd;
        return QCMgr(query, CABP_BuildQuery, 0);
    }
    Plant plant;
    LogCapture log;
};

TEST_F(Diagnostics, CurrentPacketIsDescribed) {
    QCMgr elem = make(0xEA, 0x0B, 'B', 'S');
    plant.bus().saveCurrPck(&elem);
    EXPECT_EQ(plant.bus().getCurrPck(), QString("currPck:\\02 0xea 0x b BS..."));
    EXPECT_EQ(plant.bus().getLastErr(), QString("LastErr:"));
}

TEST_F(Diagnostics, LastErrorIsDescribedWithItsTime) {
    VirtualClock::setWall(1709251629);  // 00:07:09
    QCMgr elem = make(0x00, 0xFF, 'Q', 'T');
    plant.bus().saveLastErr(&elem);
    EXPECT_EQ(plant.bus().getLastErr(), QString("LastErr:\\02 0x 0 0xff QT... @00:07:09"));
    EXPECT_EQ(plant.bus().getCurrPck(), QString("currPck:"));
}

TEST_F(Diagnostics, LastErrorCanBeForgotten) {
    QCMgr elem = make(0xEA, 0xEB, 'B', 'S');
    plant.bus().saveLastErr(&elem);
    plant.bus().clearLastErr();
    EXPECT_EQ(plant.bus().getLastErr(), QString("LastErr:"));
}

TEST_F(Diagnostics, AnyByteAsACommandIsShownAsItIs) {
    for (int byte = 0; byte < 256; ++byte) {
        QCMgr elem = make(0xEA, 0xEB, static_cast<uint8>(byte), '%');
        plant.bus().saveLastErr(&elem);
        const QString text = plant.bus().getLastErr();
        ASSERT_EQ(text.size(), 37);
        EXPECT_EQ(text.left(21), QString("LastErr:\\02 0xea 0xeb"));
        EXPECT_EQ(text[22].unicode(), byte);
        EXPECT_EQ(text.mid(23), QString("%... @12:00:00"));
    }
    QCMgr elem = make(0x01, 0x02, '%', '5');
    plant.bus().saveLastErr(&elem);
    EXPECT_EQ(plant.bus().getLastErr(), QString("LastErr:\\02 0x 1 0x 2 %5... @12:00:00"));
}

TEST_F(Diagnostics, TextsAreWrittenByManyThreadsAtOnce) {
    std::atomic<bool> stop{false};
    std::thread writers[2];
    for (int i = 0; i < 2; ++i) {
        writers[i] = std::thread([&, i] {
            QCMgr elem = make(0xEA, static_cast<uint8>(0xEB + i), 'B', 'S');
            while (!stop) {
                plant.bus().saveLastErr(&elem);
                plant.bus().saveCurrPck(&elem);
                plant.bus().clearLastErr();
            }
        });
    }
    for (int i = 0; i < 2000; ++i) {
        const QString text = plant.bus().getLastErr();
        EXPECT_TRUE(text == "LastErr:" || text.endsWith("BS... @12:00:00")) << text.toStdString();
        EXPECT_TRUE(plant.bus().getCurrPck().startsWith("currPck:"));
    }
    stop = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
}

TEST_F(Diagnostics, SharedMemoryTextIsAFixedAnswer) {
    char st[8] = "abcdefg";
    plant.bus().getDataShm(st);
    EXPECT_EQ(std::string(st, sizeof(st)), std::string("WAIT\0fg\0", 8));
}

TEST_F(Diagnostics, ForcedOnBypassIsReadAndSet) {
    EXPECT_EQ(plant.bus().forcedonBypassStatus(), -1);
    plant.bus().setForcedonBypass();
    EXPECT_EQ(plant.bus().forcedonBypassStatus(), 1);
    plant.bus().resetForcedonBypass();
    EXPECT_EQ(plant.bus().forcedonBypassStatus(), 0);
    plant.bus().incGuiForcedonBypass();
    plant.bus().incGuiForcedonBypass();
    EXPECT_EQ(plant.in().guiForcedOnBypass, 2);
    plant.bus().decGuiForcedonBypass();
    EXPECT_EQ(plant.in().guiForcedOnBypass, 1);
    EXPECT_EQ(plant.bus().forcedonBypassStatus(), 0) << "the master's pass folds it in";
    plant.bus().initForcedonBypass();
    EXPECT_EQ(plant.bus().forcedonBypassStatus(), -1);
    EXPECT_EQ(plant.in().guiForcedOnBypass, 0);
    plant.bus().decGuiForcedonBypass();
    EXPECT_EQ(plant.in().guiForcedOnBypass, -1);
}

TEST_F(Diagnostics, ForcedOnBypassIsGuardedByItsLock) {
    const std::function<void()> accessors[] = {
        [this] { plant.bus().forcedonBypassStatus(); }, [this] { plant.bus().setForcedonBypass(); },
        [this] { plant.bus().resetForcedonBypass(); },  [this] { plant.bus().initForcedonBypass(); },
        [this] { plant.bus().incGuiForcedonBypass(); }, [this] { plant.bus().decGuiForcedonBypass(); },
    };
    for (const auto& accessor : accessors) {
        std::atomic<bool> done{false};
        plant.in().mutexForcedonBypass->lock();
        std::thread other([&] {
            accessor();
            done = true;
        });
        poll(nullptr, 0, 5);  // real ms
        EXPECT_FALSE(done);
        plant.in().mutexForcedonBypass->unlock();
        other.join();
    }
}

TEST_F(Diagnostics, DataLockIsLentOut) {
    plant.bus().lockCABPData();
    EXPECT_FALSE(plant.in().mutexCABPData->tryLock());
    plant.bus().unlockCABPData();
    EXPECT_TRUE(plant.in().mutexCABPData->tryLock());
    plant.in().mutexCABPData->unlock();
}

TEST_F(Diagnostics, ChoiceOfTheUserIsKept) {
    plant.bus().CABPStateMachineUserConfirm(0xEC, ComboBox);
    EXPECT_EQ(plant.in().userCABPAddr, 0xEC);
    EXPECT_EQ(plant.in().userBoxType, ComboBox);
    EXPECT_EQ(CABPAddr, 0xEA);
}

}  // namespace
