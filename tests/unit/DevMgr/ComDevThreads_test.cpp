// Channels opened, used and given up by several threads at once, as after a fault that two of them notice.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "DevMgr/ComDev.h"
#include "support/FakeLine.h"
#include "support/LogCapture.h"
#include "support/Transcript.h"

using support::FakeLine;
using support::LogCapture;
using support::Transcript;

namespace {

constexpr int ROUNDS = 300;

class ComDevThreads : public testing::Test {
  protected:
    ComDevThreads() { Transcript::withWaits(false); }

    LogCapture log;
    FakeLine first{"/dev/ttyX1", 0};
    FakeLine second{"/dev/ttyX2", 0};
};

}  // namespace

TEST_F(ComDevThreads, EveryThreadOpensItsOwnChannel) {
    std::vector<std::thread> threads;
    std::atomic<int> opened{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            if (ComDev_Init("/dev/ttyX1", 9600, false) != 255) {
                ++opened;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(opened, 4);
    EXPECT_EQ(first.openCount(), 4u);
    EXPECT_EQ(log.occurrences("Non e' disponibile un canale libero!"), 4u);
    for (uint8 ch = 0; ch < 4; ++ch) {
        EXPECT_EQ(ComDev_End(ch), 0);
    }
}

TEST_F(ComDevThreads, OneOfThemEndsAChannel) {
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_EQ(ComDev_Init("/dev/ttyX1", 9600, false), 0);
        std::atomic<int> ended{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&] { ended += ComDev_End(0) == 0 ? 1 : 0; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(ended, 1);
        ASSERT_EQ(first.openCount(), 0u);
    }
}

TEST_F(ComDevThreads, NobodyUsesAPortThatWasFreed) {
    std::atomic<bool> stop{false};
    std::atomic<int> reads{0};
    std::vector<std::thread> threads;
    for (uint8 t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            uint8 buffer[32];
            while (!stop) {
                ComDev_Rcv(t, buffer, sizeof(buffer), 20);
                ++reads;
            }
        });
    }
    threads.emplace_back([&] {
        const uint8 frame[10] = {};
        while (!stop) {
            ComDev_Send(0, frame, sizeof(frame));
            ComDev_FlushQueue(0);
            ComDev_BreakCount(1);
            ComDev_Descriptor(0);
            ComDev_FlushQueue(255);
        }
    });
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            FakeLine& line = t == 0 ? first : second;
            for (int round = 0; round < ROUNDS; ++round) {
                const uint8 ch = ComDev_Init(t == 0 ? "/dev/ttyX1" : "/dev/ttyX2", 9600, false);
                line.put({1, 2, 3});
                std::this_thread::yield();
                EXPECT_EQ(ComDev_End(ch), 0);
            }
        });
    }
    threads[3].join();
    threads[4].join();
    stop = true;
    for (int t = 0; t < 3; ++t) {
        threads[static_cast<std::size_t>(t)].join();
    }
    EXPECT_GT(reads, 0);
    EXPECT_EQ(first.openCount(), 0u);
    EXPECT_EQ(second.openCount(), 0u);
}
