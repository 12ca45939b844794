// What the tests of the module thread share: frames made apart from the product's code, a module that answers, and a
// card whose module thread has left its idle state.
#ifndef TESTS_UNIT_MLINK_MODULELINE_H
#define TESTS_UNIT_MLINK_MODULELINE_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"

namespace modline {

using support::Bytes;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

constexpr std::int64_t MS = 1000;
constexpr std::int64_t SECOND = 1000 * MS;
constexpr uint8 OWNSRC = 0x20;  // of the polling

inline void putNibbles(Bytes& frame, unsigned value, int chars) {
    for (int i = chars - 1; i >= 0; --i) {
        frame.push_back(static_cast<uint8>(0x30 + ((value >> (4 * i)) & 0x0F)));
    }
}

inline Bytes frame(unsigned src, unsigned dest, const std::string& cmd, const Bytes& data = {}) {
    Bytes pck = {0x02, static_cast<uint8>(src), static_cast<uint8>(dest), static_cast<uint8>(cmd[0]),
                 static_cast<uint8>(cmd[1])};
    putNibbles(pck, static_cast<unsigned>(data.size()), 2);
    pck.insert(pck.end(), data.begin(), data.end());
    unsigned check = 0;
    if (cmd == "GI") {
        for (std::size_t i = 1; i < pck.size(); ++i) {
            check += pck[i];
        }
    } else {
        check = bus::crcOf(pck, 1, pck.size());
    }
    putNibbles(pck, check & 0xFFFF, 4);
    pck.push_back(0x03);
    return pck;
}

inline Bytes text(const std::string& characters) {
    return {characters.begin(), characters.end()};
}

/// A query of the own link; `param` must outlive it.
inline pckStruct query(const char* cmd, Bytes* param = nullptr, uint8 dest = '1', uint8 src = OWNSRC) {
    pckStruct q;
    q.Src = src;
    q.Dest = dest;
    q.MainCmd = static_cast<uint8>(cmd[0]);
    q.SubCmd = static_cast<uint8>(cmd[1]);
    q.pParam = param == nullptr ? nullptr : param->data();
    q.ParamLen = static_cast<uint16>(param == nullptr ? 0 : param->size());
    return q;
}

/// The operations under whose names a message stands in the log.
inline std::set<std::string> tellersOf(const LogCapture& log, const std::string& message) {
    std::set<std::string> tellers;
    for (const support::LogEntry& entry : log.entries()) {
        if (entry.message == message) {
            tellers.insert(entry.function);
        }
    }
    return tellers;
}

/// The module at the other end of a line: answers everything with '0' characters of the right number, 3 ms after the
/// query, unless told otherwise.
class Module {
  public:
    explicit Module(support::FakeLine& line) : line_(line) {
        line.onWrite([this](const Bytes& bytes) { take(bytes); });
    }
    std::map<std::string, char> refuses;  ///< with this code
    std::map<std::string, int> refusals;  ///< how often, where not always
    std::set<std::string> silent;         ///< commands that get no answer
    bool dead = false;                    ///< nothing gets an answer
    std::int64_t thinks = 3 * MS;
    std::map<std::string, Bytes> answers;  ///< data to answer with
    std::function<void(const std::string&)> onQuery;

    /// Of the data in a command's reply.
    static std::size_t lengthOf(const std::string& cmd) {
        static const std::map<std::string, std::size_t> lengths = {
            {"DE", 58}, {"DS", 58}, {"GE", 16}, {"GI", 56}, {"GM", 4},   {"GN", 22}, {"RB", 109},
            {"RC", 44}, {"RE", 58}, {"RK", 58}, {"RS", 58}, {"RX", 169}, {"SV", 4}};
        const auto entry = lengths.find(cmd);
        return entry == lengths.end() ? 0 : entry->second;
    }

    std::vector<std::string> asked;  ///< commands in order
    std::vector<Bytes> frames;       ///< the same, whole
    /// Parameter characters of the last query.
    std::string param() const {
        const Bytes& f = frames.back();
        return {f.begin() + 7, f.end() - 5};
    }

  private:
    void take(const Bytes& bytes) {
        const std::string cmd(bytes.begin() + 3, bytes.begin() + 5);
        asked.push_back(cmd);
        frames.push_back(bytes);
        if (onQuery) {
            onQuery(cmd);
        }
        if (dead || silent.count(cmd) > 0) {
            return;
        }
        const auto refused = refuses.find(cmd);
        if (refused != refuses.end()) {
            const auto left = refusals.find(cmd);
            if (left == refusals.end() || left->second-- > 0) {
                line_.feed(frame(bytes[2], bytes[1], {0x15, refused->second}), thinks);
                return;
            }
        }
        const auto given = answers.find(cmd);
        line_.feed(frame(bytes[2], bytes[1], cmd, given != answers.end() ? given->second : Bytes(lengthOf(cmd), '0')),
                   thinks);
    }
    support::FakeLine& line_;
};

inline Plant::Options withModule(std::uint8_t own = 0xEA, const std::string& boxes = "ABCD") {
    Plant::Options options;
    options.own = own;
    options.boxes = boxes;
    options.hasModulePort = true;
    options.peerBaud = 0;
    return options;
}

/// A registered plant with a module, its thread past the idle state but turned by the test. The log begins after that.
class OnTheLine : public testing::Test {
  protected:
    explicit OnTheLine(const Plant::Options& options = withModule()) : plant(options), module(plant.moduleLine()) {
        plant.registerAll();
        plant.inLink().state = MasterMLink;
        // For loops that the product never ends by itself.
        VirtualClock::setLimit(3000 * SECOND);
    }
    MLINKMgr& link() { return plant.link(); }
    support::ModuleThread& in() { return plant.inLink(); }
    commStatus_t& comm() { return plant.slot('A').commStatus; }
    void pass(int times = 1) {
        for (int i = 0; i < times; ++i) {
            link().StateMachine();
        }
    }
    void queue(const char* cmd, Bytes* param = nullptr, uint8 dest = '1') {
        const LogCapture quiet;
        ASSERT_EQ(link().AddAsyncQC(query(cmd, param, dest), false), 0);
    }
    static std::size_t pauses(std::int64_t ms) {
        std::size_t n = 0;
        for (const VirtualClock::Wait& wait : VirtualClock::waits()) {
            n += wait.call == "QThread::msleep" && wait.us == ms * MS ? 1 : 0;
        }
        return n;
    }
    /// "Level function: message" of each line but the bare ones.
    std::string said() {
        std::string all;
        for (const support::LogEntry& entry : log.entries()) {
            all += entry.level + " " + entry.function + ": " + entry.message + "\n";
        }
        return all;
    }

    Plant plant;
    Module module;
    LogCapture log;
};

}  // namespace modline

#endif
