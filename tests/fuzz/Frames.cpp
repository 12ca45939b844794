#include "fuzz/Frames.h"

#include <algorithm>
#include <iterator>
#include <map>

namespace fuzz {
namespace {

constexpr const char* busCommands[] = {"BN", "BS", "BI", "BE", "CN", "CH", "CU", "GI", "GS", "GE",
                                       "OR", "OS", "QT", "SC", "SI", "TB", "UC", "SA", "F0", "\0251"};
constexpr const char* moduleCommands[] = {"CB", "CD", "CF", "CM", "CP", "CR", "CS", "CU",   "DC", "DE",
                                          "DS", "GE", "GI", "GM", "GN", "RB", "RC", "RE",   "RK", "RS",
                                          "RX", "SM", "ST", "SV", "TB", "TC", "XA", "\0255"};

constexpr std::size_t BUS_HEAD = 7;
constexpr std::size_t BUS_AROUND = 10;  // bytes of a frame besides its data
constexpr std::size_t MODULE_AROUND = 12;
constexpr std::size_t MODULE_DATA_MAX = 243;
constexpr std::size_t BUS_DATA_MAX = 1014;  // of the largest frame that is received

// Bit by bit: reflected polynomial 0x8408, start value 0x554D.
unsigned crcOf(const Bytes& bytes, std::size_t from, std::size_t to) {
    unsigned value = 0x554D;
    for (std::size_t i = from; i < to; ++i) {
        value ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1U) != 0 ? (value >> 1) ^ 0x8408U : value >> 1;
        }
    }
    return value;
}

std::uint8_t byteOf(std::size_t value) {
    return static_cast<std::uint8_t>(value);
}

void putNibbles(Bytes& bytes, std::size_t value, int width) {
    for (int i = width - 1; i >= 0; --i) {
        bytes.push_back(byteOf('0' + (value >> (4 * i)) % 16));
    }
}

unsigned checkOf(const Bytes& head, const Command& command) {
    if (command != "GI") {
        return crcOf(head, 1, head.size());
    }
    unsigned sum = 0;
    for (std::size_t i = 1; i < head.size(); ++i) {
        sum += head[i];
    }
    return sum;
}

Bytes busFrameAnnouncing(std::size_t announced, std::uint8_t src, std::uint8_t dest, const Command& command,
                         const Bytes& data) {
    Bytes frame{0x02,
                src,
                dest,
                byteOf(static_cast<unsigned char>(command[0])),
                byteOf(static_cast<unsigned char>(command[1])),
                byteOf(announced >> 8),
                byteOf(announced)};
    frame.insert(frame.end(), data.begin(), data.end());
    const unsigned crc = crcOf(frame, 1, frame.size());
    frame.push_back(byteOf(crc >> 8));
    frame.push_back(byteOf(crc));
    frame.push_back(0x03);
    return frame;
}

Bytes moduleFrameAnnouncing(std::size_t announced, std::uint8_t src, std::uint8_t dest, const Command& command,
                            const Bytes& data) {
    Bytes frame{0x02, src, dest, byteOf(static_cast<unsigned char>(command[0])),
                byteOf(static_cast<unsigned char>(command[1]))};
    putNibbles(frame, announced, 2);
    frame.insert(frame.end(), data.begin(), data.end());
    putNibbles(frame, checkOf(frame, command) & 0xFFFF, 4);
    frame.push_back(0x03);
    return frame;
}

Command ownCommand(Input& in) {
    const char first = static_cast<char>(in.u8());
    const char second = static_cast<char>(in.u8());
    return {first, second};
}

std::size_t lengthOf(Input& in, std::uint8_t shape, std::size_t most) {
    const std::size_t low = in.u8();
    const std::size_t length = (shape & LONG) != 0 ? low | static_cast<std::size_t>(in.u8()) << 8 : low;
    return std::min(length, most);
}

void spoil(Input& in, std::uint8_t shape, Bytes& frame) {
    if ((shape & SPOILT) != 0) {
        const std::size_t place = in.u16() % frame.size();
        frame[place] = in.u8();
    }
    if ((shape & CUT) != 0) {
        frame.resize(in.u16() % frame.size());
    }
    frame.shrink_to_fit();
}

Bytes restOfBusFrame(Input& in, std::uint8_t shape, std::uint8_t src, std::uint8_t dest) {
    const Command command = busCommand(in, shape);
    const std::size_t length = lengthOf(in, shape, BUS_DATA_MAX);
    const std::size_t announced = (shape & ODD_LENGTH) != 0 ? in.u16() : length;
    Bytes frame = busFrameAnnouncing(announced, src, dest, command, in.filled(length));
    spoil(in, shape, frame);
    return frame;
}

Bytes restOfModuleFrame(Input& in, std::uint8_t shape, std::uint8_t src, std::uint8_t dest, const Command& given) {
    const Command command = given.empty() ? moduleCommand(in, shape) : given;
    const std::size_t length = lengthOf(in, shape, MODULE_DATA_MAX);
    const std::size_t announced = (shape & ODD_LENGTH) != 0 ? in.u16() : length;
    Bytes frame = moduleFrameAnnouncing(announced, src, dest, command, in.filled(length));
    spoil(in, shape, frame);
    return frame;
}

}  // namespace

Command busCommand(Input& in, std::uint8_t shape) {
    return (shape & OWN_COMMAND) != 0 ? ownCommand(in) : Command(busCommands[in.below(std::size(busCommands))]);
}

Command moduleCommand(Input& in, std::uint8_t shape) {
    return (shape & OWN_COMMAND) != 0 ? ownCommand(in) : Command(moduleCommands[in.below(std::size(moduleCommands))]);
}

Bytes busFrame(Input& in) {
    const std::uint8_t shape = in.u8();
    const std::uint8_t src = in.u8();
    const std::uint8_t dest = in.u8();
    return restOfBusFrame(in, shape, src, dest);
}

Bytes busFrame(Input& in, std::uint8_t src, std::uint8_t dest) {
    return restOfBusFrame(in, in.u8(), src, dest);
}

Bytes moduleFrame(Input& in) {
    const std::uint8_t shape = in.u8();
    const std::uint8_t src = in.u8();
    const std::uint8_t dest = in.u8();
    return restOfModuleFrame(in, shape, src, dest, "");
}

Bytes moduleFrame(Input& in, std::uint8_t src, std::uint8_t dest, const Command& command) {
    return restOfModuleFrame(in, in.u8(), src, dest, command);
}

Bytes busFrame(std::uint8_t src, std::uint8_t dest, const Command& command, const Bytes& data) {
    return busFrameAnnouncing(data.size(), src, dest, command, data);
}

Bytes moduleFrame(std::uint8_t src, std::uint8_t dest, const Command& command, const Bytes& data) {
    return moduleFrameAnnouncing(data.size(), src, dest, command, data);
}

bool isBusFrame(const Bytes& bytes) {
    if (bytes.size() < BUS_AROUND || bytes.front() != 0x02 || bytes.back() != 0x03) {
        return false;
    }
    const std::size_t length = bytes[5] * 256U + bytes[6];
    return bytes.size() == length + BUS_AROUND &&
           crcOf(bytes, 1, BUS_HEAD + length) == bytes[BUS_HEAD + length] * 256U + bytes[BUS_HEAD + length + 1];
}

bool isModuleFrame(const Bytes& bytes) {
    if (bytes.size() < MODULE_AROUND) {
        return false;
    }
    const Command command(bytes.begin() + 3, bytes.begin() + 5);
    const Bytes data(bytes.begin() + 7, bytes.end() - 5);
    return bytes == moduleFrame(bytes[1], bytes[2], command, data);
}

bool isForBypassUnit(const Bytes& frame) {
    return frame.size() > 2 && frame[2] == '8';
}

std::size_t usualModuleLength(const Command& command) {
    static const std::map<Command, std::size_t> lengths = {{"DE", 58}, {"DS", 58},  {"GE", 16}, {"GI", 56}, {"GM", 4},
                                                           {"GN", 22}, {"RB", 109}, {"RC", 44}, {"RE", 58}, {"RK", 58},
                                                           {"RS", 58}, {"RX", 169}, {"SV", 4}};
    const auto entry = lengths.find(command);
    return entry == lengths.end() ? 0 : entry->second;
}

}  // namespace fuzz
