// Tables that hold anything, and cards that converge over hours of virtual time.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "Clocks.h"
#include "support/Seed.h"

using support::LogCapture;
using support::VirtualClock;
namespace replaced = support::replaced;

namespace {

constexpr int64_t SECOND = 1000000;
constexpr int64_t MSEC = 1000;

// ---------------------------------------------------------------------------------------------------------------
// Tables that hold anything

class Nonsense {
  public:
    explicit Nonsense(std::mt19937& random) : random_(random) {}

    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }
    /// Near the edges of its type, near now, small, or anything.
    int32 number() {
        static constexpr int32 EDGES[] = {0, 1, -1, INT32_MAX, INT32_MIN, INT32_MAX - 1, 1000000, -1000000, 0xFFFF};
        const int32 now = static_cast<int32>(VirtualClock::wall() / SECOND);
        switch (pick(4)) {
            case 0:
                return EDGES[pick(9)];
            case 1:
                return now - 400 + static_cast<int32>(pick(800));
            case 2:
                return static_cast<int32>(pick(4000)) - 2000;
            default:
                return static_cast<int32>(random_());
        }
    }
    clkStruct table() {
        clkStruct made;
        for (clockData& entry : made.clkValue) {
            entry.epochT = pick(2) == 0 ? 1 : number();
            entry.delta = number();
            // Half of the clocks lie near the own one, or nothing would ever reach the filter.
            entry.T =
                pick(2) == 0 ? stamp(VirtualClock::wall() - 2 * SECOND + pick(4000000)) : clkTime_t{number(), number()};
        }
        made.TftTime = static_cast<uint32>(number());
        return made;
    }

  private:
    std::mt19937& random_;
};

TEST(ClockNonsense, BreaksNothingButTheEstimate) {
    std::mt19937 random(support::seed());
    Nonsense nonsense(random);
    OpenClock clock;
    int64_t lastCorrection = -60;
    int filtered = 0;
    int corrected = 0;
    for (int round = 0; round < 20000; ++round) {
        const LogCapture log;
        VirtualClock::advance(nonsense.pick(20) * SECOND + nonsense.pick(1000000));
        CABPAddr = static_cast<uint8>(nonsense.pick(8) == 0 ? random() : 0xEA + nonsense.pick(4));
        const uint8 sender = static_cast<uint8>(nonsense.pick(8) == 0 ? random() : nonsense.pick(4));
        clock.epochWhenClockChanged = nonsense.pick(8) == 0 ? nonsense.number() : 0;
        clkStruct table = nonsense.table();
        const clkStruct before = table;
        const int32 believed = OpenClock::prevdelta;
        replaced::adjtime().forget();
        if (nonsense.pick(16) == 0) {
            replaced::adjtime().fails(EINVAL);
        } else {
            replaced::adjtime().reset();
        }

        if (nonsense.pick(4) == 0) {
            clock.prepareClkData(table);
        } else {
            clock.elaborateClkData(sender, table);
        }

        ASSERT_TRUE(clock.isFree()) << round;
        const int own = boxIndex(CABPAddr);
        for (int i = 0; i < MAXUPSBOX; ++i) {
            if (i != own) {
                clockData expected = before.clkValue[i];
                if (clock.epochWhenClockChanged != 0 && table.clkValue[i].epochT == 1) {
                    expected.epochT = 1;
                }
                ASSERT_EQ(std::memcmp(&table.clkValue[i], &expected, sizeof(expected)), 0) << round;
            }
        }
        ASSERT_TRUE(table.TftTime == before.TftTime || table.TftTime <= 100000u) << round;
        ASSERT_LE(std::abs(OpenClock::prevdelta), 1499 * 32) << round;
        filtered += OpenClock::prevdelta != believed ? 1 : 0;

        ASSERT_LE(replaced::adjtime().count(), 1u);
        if (replaced::adjtime().count() == 1) {
            const int64_t request = microseconds(std::get<0>(replaced::adjtime().call(0)));
            ASSERT_LE(std::llabs(request), (1499 + 100) * MSEC) << round;
            ASSERT_GE(std::llabs(request), 76 * MSEC) << round;
            const int64_t now = VirtualClock::wall() / SECOND;
            ASSERT_GE(now - lastCorrection, 60) << round;
            if (clock.lastAdj == now) {
                lastCorrection = now;
                ++corrected;
            }
        }
    }
    EXPECT_GT(filtered, 100) << "the filter was reached";
    EXPECT_GT(corrected, 10) << "and so was the correction";
}

// ---------------------------------------------------------------------------------------------------------------
// A group of cards

// A card with a clock of its own, whose adjustments the kernel works off at half a millisecond a second.
class Card {
  public:
    Card(int index, int64_t offset) : index_(index), offset_(offset) {}

    /// Its clock ahead of the true time, in microseconds.
    int64_t offset() const { return offset_; }
    int corrections() const { return corrections_; }
    OpenClock& manager() { return clock_; }

    void pass(int64_t us) {
        const int64_t step = us / 2000;
        const int64_t done = pending_ > step ? step : pending_ < -step ? -step : pending_;
        offset_ += done;
        pending_ -= done;
    }
    void prepare(int64_t now, clkStruct& table) {
        become(now);
        clock_.prepareClkData(table);
        prevdelta_ = OpenClock::prevdelta;
    }
    /// Checks a request against the table it leaves behind.
    void elaborate(int64_t now, uint8 sender, clkStruct& table) {
        become(now);
        replaced::adjtime().forget();
        replaced::adjtime().does([this](const timeval* delta, timeval* old) {
            *old = {static_cast<time_t>(pending_ / SECOND), static_cast<suseconds_t>(pending_ % SECOND)};
            pending_ = microseconds(*delta);
            return 0;
        });
        const time_t last = clock_.lastAdj;
        clock_.elaborateClkData(sender, table);
        prevdelta_ = OpenClock::prevdelta;
        if (replaced::adjtime().count() == 0) {
            EXPECT_EQ(clock_.lastAdj, last);
            return;
        }
        ++corrections_;
        EXPECT_EQ(clock_.lastAdj, VirtualClock::wall() / SECOND);
        EXPECT_GE(clock_.lastAdj - last, 60);
        const int64_t weighted = int64_t{table.clkValue[index_].delta} - table.TftTime / 1000;
        EXPECT_GE(std::llabs(weighted), 76);
        EXPECT_EQ(microseconds(std::get<0>(replaced::adjtime().call(0))), -weighted * MSEC);
    }

  private:
    // The process's address, filter and time of day become this card's.
    void become(int64_t now) {
        CABPAddr = static_cast<uint8>(0xEA + index_);
        OpenClock::prevdelta = prevdelta_;
        const int64_t local = now + offset_;
        VirtualClock::setWall(local / SECOND, local % SECOND);
    }

    const int index_;
    int64_t offset_;
    int64_t pending_ = 0;
    int corrections_ = 0;
    int32 prevdelta_ = 0;
    OpenClock clock_;
};

// The frame goes round, a card every few seconds; it takes a tenth of a second on the bus.
class Group {
  public:
    explicit Group(const std::vector<int64_t>& offsets) {
        for (int64_t offset : offsets) {
            cards_.push_back(std::make_unique<Card>(static_cast<int>(cards_.size()), offset));
        }
    }
    Card& card(std::size_t index) { return *cards_.at(index); }
    const clkStruct& table() const { return table_; }
    int64_t now() const { return now_; }

    void run(int64_t duration) {
        for (const int64_t end = now_ + duration; now_ < end;) {
            const LogCapture log;
            pass(5 * SECOND);
            Card& sender = card(sender_);
            sender.prepare(now_, table_);
            pass(SECOND / 10);
            const clkStruct sent = table_;
            const std::size_t next = (sender_ + 1) % cards_.size();
            for (std::size_t i = 0; i < cards_.size(); ++i) {
                if (i != sender_) {
                    // Each card has its own copy; the one that goes on is that of the next sender.
                    clkStruct received = sent;
                    card(i).elaborate(now_, static_cast<uint8>(sender_), received);
                    if (i == next) {
                        table_ = received;
                    }
                }
            }
            sender_ = next;
        }
    }
    /// Largest difference between two clocks.
    int64_t spread() const {
        int64_t least = cards_.front()->offset();
        int64_t most = least;
        for (const auto& card : cards_) {
            least = MIN(least, card->offset());
            most = MAX(most, card->offset());
        }
        return most - least;
    }

  private:
    void pass(int64_t us) {
        now_ += us;
        for (const auto& card : cards_) {
            card->pass(us);
        }
    }

    std::vector<std::unique_ptr<Card>> cards_;
    clkStruct table_ = {};
    int64_t now_ = VirtualClock::START_OF_WALL * SECOND;
    std::size_t sender_ = 0;
};

TEST(ClockGroup, TwoOrdinaryCardsConvergeWithinHours) {
    Group group({-600 * MSEC, 600 * MSEC});
    int64_t spread = group.spread();
    for (int hour = 1; hour <= 4; ++hour) {
        group.run(3600 * SECOND);
        RecordProperty("spread_ms_" + std::to_string(hour), static_cast<int>(group.spread() / MSEC));
        EXPECT_LE(group.spread(), spread) << hour;
        spread = group.spread();
    }
    EXPECT_LT(group.spread(), 250 * MSEC);
    EXPECT_GT(group.card(0).corrections() + group.card(1).corrections(), 0);
    const int before = group.card(0).corrections() + group.card(1).corrections();
    group.run(3600 * SECOND);
    EXPECT_EQ(group.card(0).corrections() + group.card(1).corrections(), before) << "then they stay in peace";
}

TEST(ClockGroup, CardsInStepAreLeftAlone) {
    Group group({0, 0});
    group.run(3600 * SECOND);
    EXPECT_EQ(group.card(0).corrections() + group.card(1).corrections(), 0);
    EXPECT_EQ(group.spread(), 0);
}

TEST(ClockGroup, TheOthersFollowAClockSetByHandWhichStays) {
    Group group({-700 * MSEC, 500 * MSEC, 0});
    group.card(0).manager().epochWhenClockChanged = group.now() / SECOND;
    group.run(290 * SECOND);
    EXPECT_EQ(group.card(0).offset(), -700 * MSEC);
    EXPECT_EQ(group.card(0).corrections(), 0);
    EXPECT_LT(group.card(1).offset(), 500 * MSEC);
    EXPECT_LT(group.card(2).offset(), 0);
}

TEST(ClockGroup, AClockSetByHandIsOneOfTheGroupAfterFiveMinutes) {
    Group group({-700 * MSEC, 500 * MSEC});
    group.card(0).manager().epochWhenClockChanged = group.now() / SECOND;
    group.run(290 * SECOND);
    EXPECT_EQ(time32_t{group.table().clkValue[0].epochT}, VirtualClock::START_OF_WALL);
    EXPECT_EQ(group.card(0).corrections(), 0);
    group.run(3600 * SECOND);
    EXPECT_EQ(group.card(0).manager().epochWhenClockChanged, 0);
    EXPECT_EQ(time32_t{group.table().clkValue[0].epochT}, 1);
    EXPECT_GT(group.card(0).corrections(), 0) << "it corrects like the other";
}

TEST(ClockGroup, ClocksFarApartAreNeverSlewed) {
    Group group({0, 3600 * SECOND});
    group.run(3600 * SECOND);
    EXPECT_EQ(group.card(0).corrections() + group.card(1).corrections(), 0);
    EXPECT_EQ(group.spread(), 3600 * SECOND);
}

}  // namespace
