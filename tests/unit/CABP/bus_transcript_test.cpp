// Scenes of a card on the bus, from its start on, with simulated cabinets at the other end: who said what and when, and
// what the card's log said to it, compared with texts that a person can read (tests/golden/bus_*.txt).
#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <set>
#include <string>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace {

using bus::Bytes;
using support::LogCapture;
using support::Plant;
using support::Transcript;
using support::VirtualClock;

constexpr std::int64_t SECOND_US = 1000000;
constexpr std::int64_t TURNAROUND_US = 4000;  // of a simulated cabinet
constexpr std::size_t SHOWN_DATA = 8;

class Scene : public testing::Test {
  protected:
    void begin(const std::string& boxes) {
        plant = std::make_unique<Plant>(static_cast<std::uint8_t>(0xEA), boxes);
        plant->line().onWrite([this](const Bytes& frame) { cardSends(frame); });
    }
    void run(std::int64_t until) {
        VirtualClock::at(until, [this] { plant->bus().Stop(); });
        plant->bus().run();
        tellLog();
    }

    // The simulated cabinets speak.
    void peerSends(const Bytes& frame, std::int64_t afterUs) {
        plant->line().feed(frame, afterUs);
        VirtualClock::after(afterUs, [this, frame] { tell(frame, "   "); });
    }

    void cardSends(const Bytes& frame) {
        tell(frame, "A: ");
        ASSERT_GE(frame.size(), 10U);
        const Bytes data(frame.begin() + 7, frame.end() - 3);
        const char cmd[3] = {static_cast<char>(frame[3]), static_cast<char>(frame[4]), '\0'};
        ASSERT_EQ(frame, bus::frame(0xEA, frame[2], cmd, data)) << "each frame is well formed";
        const uint8 dest = frame[2];
        if (dest < 0xEB || dest > 0xED || silent.count(static_cast<char>(dest - 0xA9)) != 0) {
            return;
        }
        const std::string command = cmd;
        const std::int64_t sendTime = static_cast<std::int64_t>(frame.size()) * 10 * SECOND_US / 9600;
        if (command == "BN" || command == "BS") {
            peerSends(bus::frame(dest, 0xFF, cmd, Bytes(command == "BN" ? 20 : 268)), sendTime + TURNAROUND_US);
        } else if (command == "SC") {
            peerSends(bus::frame(dest, 0xEA, cmd, {0x06}), sendTime + TURNAROUND_US);
        }
    }

    // ---- the text

    void line(const std::string& words) {
        tellLog();
        const std::int64_t now = VirtualClock::now();
        text += QString::asprintf("[%4lld.%03lld] ", static_cast<long long>(now / SECOND_US),
                                  static_cast<long long>(now % SECOND_US / 1000))
                    .toStdString() +
                words + "\n";
    }
    void tell(const Bytes& frame, const char* who) {
        const std::size_t n = frame.size() - 10;
        QString words = QString::asprintf("%s%02X > %02X  %c%c", who, frame[1], frame[2], frame[3], frame[4]);
        if (n > SHOWN_DATA) {
            words += QString::asprintf("  (%u bytes)", static_cast<unsigned>(n));
        } else if (n > 0) {
            words += "  " + QString::fromStdString(support::hex(frame.data() + 7, n));
        }
        line(words.toStdString());
    }
    // What the card's log has said since: the protocol and the bus thread, not the aggregation.
    void tellLog() {
        const std::vector<support::LogEntry> entries = log.entries();
        bool ofTheBus = false;
        for (; logTold < entries.size(); ++logTold) {
            const support::LogEntry& entry = entries[logTold];
            if (entry.level == "-") {
                if (ofTheBus) {
                    text += "              " + std::string(entry.message.size() > 80 ? "..." : entry.message) + "\n";
                }
                continue;
            }
            static const std::set<std::string> files = {"ThreadCABP.cpp",    "ThreadCABPCmd.cpp", "ThreadCABPCfg.cpp",
                                                        "ThreadCABPReg.cpp", "CABP.cpp",          "CABPRcv.cpp",
                                                        "CABPQuery.cpp",     "CABPReply.cpp"};
            ofTheBus = files.count(entry.file) != 0;
            if (!ofTheBus) {
                continue;
            }
            const bool isThread = entry.message.compare(0, 5, "thID:") == 0;
            text += "              " + (entry.level.empty() ? "log" : entry.level) + ": " +
                    (isThread ? "thID:..." : entry.message) + "\n";
        }
    }
    // Tells a value whenever it changes from one event of the scene to the next.
    void watch(std::function<std::string()> value) {
        watched = std::move(value);
        VirtualClock::after(0, [this] { look(); });
    }
    void look() {
        const std::string now = watched();
        if (now != lastSeen) {
            lastSeen = now;
            line("   -- " + now);
        }
        VirtualClock::after(10000, [this] { look(); });
    }

    LogCapture log;
    std::unique_ptr<Plant> plant;
    std::set<char> silent;
    std::string text;
    std::size_t logTold = 0;
    std::function<std::string()> watched;
    std::string lastSeen;
};

TEST_F(Scene, StartAndAWholeRoundOfFourCabinets) {
    begin("ABCD");
    run(2200000);
    EXPECT_TRUE(Transcript::textMatchesGolden(text, "bus_round"));
}

TEST_F(Scene, CabinetFallsSilentAndComesBack) {
    begin("AC");
    VirtualClock::at(1000000, [this] {
        line("   -- C falls silent");
        silent.insert('C');
    });
    VirtualClock::at(12000000, [this] {
        line("   -- C is back");
        silent.clear();
    });
    watch([this]() -> std::string {
        const commStatus_t& c = plant->comm('C');
        return std::string("C is ") + (c.isGood ? "good" : "lost") + ", score " + std::to_string(c.errorPck) +
               ", lost " + std::to_string(c.errorCnt) + " times";
    });
    run(17000000);
    EXPECT_TRUE(Transcript::textMatchesGolden(text, "bus_lost_cabinet"));
}

TEST_F(Scene, RequestAsSlaveHandOverAndPushOfTheConfiguration) {
    begin("AC");
    watch([this]() -> std::string {
        return std::string(plant->in().state == Master ? "master" : "slave") + ", channel " +
               (plant->in().channelHeldByRole ? "held by the role" : "free");
    });
    VirtualClock::at(700000, [this] {
        line("   -- BREAK on the line");
        raise(SIGINT);
    });
    VirtualClock::at(3000000, [this] { peerSends(bus::frame(0xEC, 0xEA, "UC"), 0); });
    VirtualClock::at(4000000, [this] {
        Bytes data(93);
        for (std::size_t i = 0; i < 4; ++i) {
            data[i] = 0xFF;  // the build that all cards carry
        }
        data[4] = 0xEA;
        silent.insert('C');
        peerSends(bus::frame(0xEC, 0xFF, "CN", data), 0);
    });
    VirtualClock::at(7000000, [this] { silent.clear(); });
    run(9000000);
    EXPECT_TRUE(Transcript::textMatchesGolden(text, "bus_handover"));
    EXPECT_FALSE(plant->data('C').remoteUpdaterequest);
}

TEST_F(Scene, ConfigurationIsOfferedTwiceAtMost) {
    begin("AC");
    silent.insert('C');
    VirtualClock::at(100000, [this] { plant->data('C').remoteUpdaterequest = true; });
    run(8000000);
    const std::string sc = "A: EA > EC  SC";
    const std::size_t first = text.find(sc);
    ASSERT_NE(first, std::string::npos);
    const std::size_t second = text.find(sc, first + 1);
    ASSERT_NE(second, std::string::npos);
    EXPECT_EQ(text.find(sc, second + 1), std::string::npos);
}

}  // namespace
