// What the tests of the module link share: frames made apart from the product's code, and a module port on a fake line.
#ifndef TESTS_UNIT_MLINK_LINK_H
#define TESTS_UNIT_MLINK_LINK_H

#include <gtest/gtest.h>

#include <string>

#include "MLINK/MLINKInternal.h"
#include "MLINK/ThreadMLINK.h"
#include "support/FakeLine.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"
#include "unit/CABP/Images.h"

namespace modlink {

using support::Bytes;

/// A number in `width` nibble-coded characters.
inline std::string coded(std::uint32_t value, int width) {
    std::string text;
    for (int i = width - 1; i >= 0; --i) {
        text += static_cast<char>('0' + (value >> (4 * i)) % 16);
    }
    return text;
}

inline Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

/// A frame that announces `announced` data bytes, whatever it carries. The check is right for what it carries.
inline Bytes frameAnnouncing(unsigned announced, unsigned src, unsigned dest, const std::string& cmd,
                             const Bytes& data = {}) {
    Bytes pck{0x02, static_cast<uint8>(src), static_cast<uint8>(dest), static_cast<uint8>(cmd[0]),
              static_cast<uint8>(cmd[1])};
    for (const char c : coded(announced, 2)) {
        pck.push_back(static_cast<uint8>(c));
    }
    pck.insert(pck.end(), data.begin(), data.end());
    unsigned check = 0;
    if (cmd == "GI") {
        for (std::size_t i = 1; i < pck.size(); ++i) {
            check += pck[i];
        }
    } else {
        check = bus::crcOf(pck, 1, pck.size());
    }
    for (const char c : coded(check & 0xFFFF, 4)) {
        pck.push_back(static_cast<uint8>(c));
    }
    pck.push_back(0x03);
    return pck;
}

inline Bytes frame(unsigned src, unsigned dest, const std::string& cmd, const Bytes& data = {}) {
    return frameAnnouncing(static_cast<unsigned>(data.size()), src, dest, cmd, data);
}

inline pckStruct query(unsigned src, unsigned dest, const std::string& cmd, Bytes* data = nullptr) {
    pckStruct q;
    q.Src = static_cast<uint8>(src);
    q.Dest = static_cast<uint8>(dest);
    q.MainCmd = static_cast<uint8>(cmd[0]);
    q.SubCmd = static_cast<uint8>(cmd[1]);
    q.pParam = data == nullptr ? nullptr : data->data();
    q.ParamLen = static_cast<uint16>(data == nullptr ? 0 : data->size());
    return q;
}

/// The globals of the module line, for the time of a test.
struct ModuleLine {
    static constexpr const char* DEVICE = "/dev/ttyMOD";
    ModuleLine() {
        serialPort = DEVICE;
        deviceBaudRate = 9600;
        errnoMLink = 0;
    }
    ~ModuleLine() {
        serialPort = nullptr;
        deviceBaudRate = 1200;
    }
    ModuleLine(const ModuleLine&) = delete;
    ModuleLine& operator=(const ModuleLine&) = delete;
    support::FakeLine line{DEVICE, 0};
};

/// The module port open. The log begins after that.
class Port : public testing::Test {
  protected:
    ~Port() override { MLINK_End(); }
    void SetUp() override {
        MLINK_Init();
        log.clear();
    }
    support::FakeLine& line() { return module.line; }

    ModuleLine module;
    support::LogCapture log;
};

/// A whole card with its module line; tree, cabinets and modules are registered.
class Card : public testing::Test {
  protected:
    static constexpr std::size_t NODES = 10;           // root, its extension, and cabinet and module of four
    static constexpr std::size_t IDENTIFICATION = 54;  // offsets in a node
    static constexpr std::size_t NOMINAL = 152;
    static constexpr std::size_t DATA = 177;
    static constexpr std::size_t STATES = 341;

    explicit Card(uint8 own = 0xEA, const std::string& boxes = "ABCD") : plant(own, boxes) {
        plant.registerAll();
        support::VirtualClock::setWall(support::VirtualClock::START_OF_WALL);
        MLINK_Init();
        empty();
    }
    ~Card() override {
        const support::LogCapture quiet;
        plant.stop();
        MLINK_End();
    }
    MLINKMgr& mlink() { return *plant.sys().pThMLink; }
    virtualNode_t& node(char letter = 'A') { return plant.module(letter); }
    /// Everything a module's node holds behind its links.
    void fill(virtualNode_t& which, const Bytes& bytes) {
        for (std::size_t i = IDENTIFICATION; i < sizeof(which); ++i) {
            reinterpret_cast<uint8*>(&which)[i] = bytes[i - IDENTIFICATION];
        }
    }
    /// All nodes of the tree.
    Bytes tree() {
        const uint8* const first = reinterpret_cast<const uint8*>(plant.tree().virtualUPS);
        return Bytes(first, first + NODES * sizeof(virtualNode_t));
    }
    /// Where a byte of a module's node stands in the tree.
    std::size_t offsetOf(char letter, std::size_t offset) {
        const uint8* const first = reinterpret_cast<const uint8*>(plant.tree().virtualUPS);
        return static_cast<std::size_t>(reinterpret_cast<const uint8*>(&node(letter)) - first) + offset;
    }
    /// The waiting commands, oldest first, as "Src MainCmd SubCmd Dest parameters"; they are gone then.
    std::string queued() {
        std::string text;
        QCMgr* element = nullptr;
        while (mlink().peekAsyncQC(element)) {
            text += std::string() + static_cast<char>(element->QC.MainCmd) + static_cast<char>(element->QC.SubCmd) +
                    ">" + static_cast<char>(element->QC.Dest);
            const Bytes pck(element->pckQuery, element->pckQuery + element->buildQueryLen);
            text += "(" + std::string(pck.begin() + 7, pck.end() - 5) + ") ";
            mlink().headAsyncQC();
        }
        return text;
    }
    void empty() { queued(); }

    ModuleLine module;
    support::Plant plant;
};

}  // namespace modlink

#endif
