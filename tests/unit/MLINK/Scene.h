// What the transcripts of the module line share: a card between a bus and a module, both lines in one text with the
// virtual instant of each byte, opening, closing and sleep, and what the protocols said to it.
//
//     [   0.000000] -- CD: refused with 5                               what the scene does, and results
//     [   0.000000] ttyQX1  flush; >> 02 20 31 ... 03; tcdrain 12500 us the card's calls of one instant
//     [   0.012500]         select 10000 us x3                          three waits, the first begins then
//     [   0.045000] ttyQX1  << 02 | 31 20 43 44 30 30 | 37 ... 03       three reads
//     [   0.045000] log     Err ...                                     "Err", "War" or nothing, and the message
//
// A read gives what had arrived; the module's frames arrive at once, so that the reads are seen.
#ifndef TESTS_UNIT_MLINK_SCENE_H
#define TESTS_UNIT_MLINK_SCENE_H

#include <cstring>
#include <sstream>

#include "MLINK/ThreadMLINK.h"
#include "support/Transcript.h"
#include "unit/MLINK/ModuleLine.h"

namespace scene {

using modline::frame;
using modline::query;
using modline::text;
using support::Bytes;
using support::FakeLine;
using support::LineCall;
using support::LogCapture;
using support::Plant;
using support::Transcript;
using support::VirtualClock;

constexpr std::int64_t MS = 1000;
constexpr std::int64_t SECOND = 1000 * MS;
constexpr std::int64_t THINKS = 20 * MS;  // the module, before its answer

/// What is at the other end of a line and answers whole frames.
class Peer {
  public:
    explicit Peer(FakeLine& line) : line_(line) {
        line.onWrite([this](const Bytes& bytes) { take(bytes); });
    }
    /// How the next `times` queries fare; all are well afterwards.
    enum Fate { Good, Refuses, Silent, SpoiltCheck, OneByteMore, OneByteLess };
    void will(Fate fate, int times = 1, char code = '0') {
        fate_ = fate;
        times_ = times;
        code_ = code;
    }
    std::map<std::string, Bytes> answers;  ///< data to answer with, instead of '0' characters

  private:
    void take(const Bytes& asked) {
        const std::string cmd(asked.begin() + 3, asked.begin() + 5);
        const Fate fate = times_ > 0 ? fate_ : Good;
        times_ -= times_ > 0 ? 1 : 0;
        const auto given = answers.find(cmd);
        Bytes data = given != answers.end() ? given->second : Bytes(modline::Module::lengthOf(cmd), '0');
        Bytes reply;
        switch (fate) {
            case Silent:
                return;
            case Refuses:
                reply = frame(asked[2], asked[1], {0x15, code_});
                break;
            case OneByteMore:
                data.push_back('0');
                reply = frame(asked[2], asked[1], cmd, data);
                break;
            case OneByteLess:
                data.pop_back();
                reply = frame(asked[2], asked[1], cmd, data);
                break;
            default:
                reply = frame(asked[2], asked[1], cmd, data);
                break;
        }
        if (fate == SpoiltCheck) {
            reply[reply.size() - 2] ^= 1;
        }
        line_.feed(reply, THINKS + static_cast<std::int64_t>(reply.size()) * 10 * SECOND / 9600);
    }
    FakeLine& line_;
    Fate fate_ = Good;
    int times_ = 0;
    char code_ = '0';
};

class Scene : public testing::Test {
  protected:
    explicit Scene(uint8 own = 0xEA, const std::string& boxes = "A") {
        serialPort = "/dev/ttyQX1";
        VirtualClock::setLimit(3000 * SECOND);
        Transcript::withWaits(false);  // told here, behind what the log said before them
        VirtualClock::onWait([this](const VirtualClock::Wait& wait) {
            if (wait.call != "select") {
                tellLog();
            }
            Transcript::add("", wait.call + " " + std::to_string(wait.us) + " us");
        });
        for (const LineCall call : {LineCall::Open, LineCall::Close, LineCall::Tcflush, LineCall::Write}) {
            line.before(call, [this] { tellLog(); });
        }
        Plant::Options options;
        options.own = own;
        options.boxes = boxes;
        options.peerBaud = 0;
        plant = std::make_unique<Plant>(options);
        plant->line().before(LineCall::Tcflush, [this] { tellLog(); });
        plant->line().before(LineCall::Write, [this] { tellLog(); });
    }
    ~Scene() override {
        Transcript::clear();
        VirtualClock::onWait(nullptr);
        plant.reset();
    }
    /// Registered, past the idle state, the module good; the text begins here.
    void begin() {
        plant->registerAll();
        in().state = MasterMLink;
        errnoMLink = 0;
        for (const char letter : {'A', 'B', 'C', 'D'}) {
            if (plant->cfg().Ups[letter - 'A'].present) {
                setElemAlarm(plant->box(letter).desc.upsBox.subSystem.UPSShelter[0], faultAlarm);
            }
        }
        isGood();
        log.clear();
        Transcript::clear();
    }
    void isGood() {
        comm().isGood = true;
        comm().errorPck = 0;
        comm().errorCnt = 0;
    }
    MLINKMgr& link() { return plant->link(); }
    support::ModuleThread& in() { return plant->inLink(); }
    commStatus_t& comm() { return plant->slot(static_cast<char>('A' + CABPAddr - 0xEA)).commStatus; }
    void pass(int times = 1) {
        for (int i = 0; i < times; ++i) {
            link().StateMachine();
        }
    }
    /// Nothing is polled: a pass is the commands, and 200 ms of sleep.
    void pollNothing() {
        in().FixQuery.clear();
        in().CurrFixQC = in().FixQuery.end();
    }
    void queue(const std::string& cmd, const std::string& param, uint8 src = 0x20) {
        Bytes data = text(param);
        link().AddAsyncQC(query(cmd.c_str(), &data, '1', src), false);
    }

    // ---- the text

    void tell(const std::string& words) {
        tellLog();
        Transcript::add("--", words);
    }
    void tellLog() {
        const std::vector<support::LogEntry> entries = log.entries();
        log.clear();
        for (const support::LogEntry& entry : entries) {
            if (entry.level != "-") {
                ofTheLines_ = entry.level != "Dbg" && isOfTheLines(entry.file);
            }
            if (!ofTheLines_) {
                continue;
            }
            const std::string level = entry.level == "-" || entry.level.empty() ? "" : entry.level + " ";
            Transcript::add("log", level + withoutNumbers(entry.message));
        }
    }
    /// Identities of threads and places in memory are no part of the scene.
    static std::string withoutNumbers(const std::string& message) {
        for (const char* const before : {"thID:", "thread MLink "}) {
            const std::size_t at = message.find(before);
            if (at != std::string::npos && at + std::strlen(before) < message.size()) {
                return message.substr(0, at + std::strlen(before)) + "*";
            }
        }
        return message;
    }
    static bool isOfTheLines(const std::string& file) {
        if (file.find("Aggr") != std::string::npos) {
            return false;
        }
        for (const char* const unit :
             {"MLINK", "ThreadMLINK", "CABP", "ThreadCABP", "ComDev", "TTYDev", "QueuesMgr", "SysMgr"}) {
            if (file.compare(0, std::strlen(unit), unit) == 0) {
                return true;
            }
        }
        return false;
    }
    /// The transcript with the calls of one instant on one line, and equal waits that follow each other counted.
    std::string folded() {
        tellLog();
        std::istringstream all(Transcript::text());
        std::string out;
        std::string head;  // instant and line of the entry in hand
        std::string time;  // its instant
        std::string last;  // its last part
        std::size_t times = 1;
        for (std::string entry; std::getline(all, entry);) {
            const std::string entryTime = entry.substr(0, 13);
            const std::string entryHead = entry.substr(0, 22);
            const std::string source = entry.substr(14, 7);
            const std::string words = entry.size() > 22 ? entry.substr(22) : "";
            const bool isWait = source == "       ";
            const bool isTold = source.compare(0, 3, "-- ") == 0 || source.compare(0, 3, "log") == 0;
            if (isWait && words == last) {
                ++times;
                continue;
            }
            if (times > 1) {
                out += " x" + std::to_string(times);
                times = 1;
            }
            const bool joins = !isTold && entryTime == time && !head.empty() && (isWait || entryHead == head);
            const bool isRead = words.compare(0, 2, "<<") == 0;
            if (joins) {
                out += isRead && last.compare(0, 2, "<<") == 0 ? " |" + words.substr(2) : "; " + words;
            } else {
                out += (out.empty() ? "" : "\n") + (isTold && source[0] == '-' ? "\n" : std::string()) +
                       entry.substr(0, 14) + (isTold && source[0] == '-' ? "-- " : source + " ") + words;
                head = isTold ? "" : entryHead;
                time = entryTime;
            }
            last = words;
        }
        if (times > 1) {
            out += " x" + std::to_string(times);
        }
        // The first entry stands on the first line.
        return out.substr(!out.empty() && out[0] == '\n' ? 1 : 0) + "\n";
    }
    testing::AssertionResult isGolden(const std::string& name) { return Transcript::textMatchesGolden(folded(), name); }

    LogCapture log;
    FakeLine line{"/dev/ttyQX1", 0};
    Peer module{line};
    std::unique_ptr<Plant> plant;

  private:
    bool ofTheLines_ = false;
};

}  // namespace scene

#endif
