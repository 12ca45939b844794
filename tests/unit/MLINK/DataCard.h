// A card whose replies of the module are handed over, and what they must leave in its tree. Offsets in the node.
#ifndef TESTS_UNIT_MLINK_DATACARD_H
#define TESTS_UNIT_MLINK_DATACARD_H

#include <gtest/gtest.h>

#include "unit/MLINK/Link.h"

namespace modlink {

using images::littleEndian32;
using images::overlaid;
using images::pattern;
using support::LogCapture;

constexpr time_t STAMP = 0x51627384;

/// A number of a reply and where it belongs. Offsets in the node.
struct Field {
    int d;
    int width;
    std::size_t offset;
    std::size_t size;
};

/// `n` characters, each a nibble; different for each `seed`.
inline Bytes nibbles(std::size_t n, unsigned seed) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) {
        data[i] = static_cast<uint8>(0x30 + ((i * 7 + i / 5 + seed * 3) & 0x0F));
    }
    return data;
}

inline std::uint32_t numberAt(const Bytes& data, int d, int width) {
    std::uint32_t value = 0;
    for (int i = 0; i < width; ++i) {
        value = value * 16 + data[static_cast<std::size_t>(d + i)] - 0x30u;
    }
    return value;
}

class DataCard : public Card {
  protected:
    DataCard() { fill(node(), pattern(sizeof(virtualNode_t) - IDENTIFICATION, 0x3B)); }

    /// Hands over a reply in memory of exactly its size.
    void store(const Bytes& pck, int boxId = 0, time_t timestamp = STAMP) {
        Bytes exact(pck);
        exact.shrink_to_fit();
        MLINK_ManageData(static_cast<uint8>(boxId), timestamp, exact.data());
    }
    void reply(const std::string& cmd, const Bytes& data, int boxId = 0) { store(frame('1', 0x20, cmd, data), boxId); }

    /// The tree before, with `fields` of the reply laid over module A's node.
    Bytes expected(Bytes before, const Bytes& data, const std::vector<Field>& fields) {
        for (const Field& field : fields) {
            Bytes value = littleEndian32(numberAt(data, field.d, field.width));
            value.resize(field.size);
            before = overlaid(before, offsetOf('A', field.offset), value);
        }
        return before;
    }
    /// That a reply of numbers stores exactly `fields`, and nothing else anywhere in the tree.
    void expectFields(const std::string& cmd, const std::vector<Field>& fields) {
        for (unsigned seed = 0; seed < 16; ++seed) {
            const Bytes data = nibbles(58, seed);
            const Bytes before = tree();
            LogCapture log;
            reply(cmd, data);
            EXPECT_EQ(tree(), expected(before, data, fields)) << cmd << " " << seed;
            EXPECT_EQ(log.text(), "");
        }
    }
    descModule_t& record() { return node().desc.module; }
    identification_t& id() { return node().identification; }
};

}  // namespace modlink

#endif
