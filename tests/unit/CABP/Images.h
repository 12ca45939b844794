// Records as the bytes they are made of, and bytes as the log shows them.
#ifndef TESTS_UNIT_CABP_IMAGES_H
#define TESTS_UNIT_CABP_IMAGES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace images {

using Bytes = std::vector<std::uint8_t>;

/// `first` and `second` one after the other.
inline Bytes joined(const Bytes& first, const Bytes& second) {
    Bytes all;
    all.reserve(first.size() + second.size());
    for (const std::uint8_t byte : first) {
        all.push_back(byte);
    }
    for (const std::uint8_t byte : second) {
        all.push_back(byte);
    }
    return all;
}

/// The first `n` of `bytes`.
inline Bytes firstOf(const Bytes& bytes, std::size_t n) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
}

/// `n` bytes, each different from its neighbours and from those of another `seed`.
inline Bytes pattern(std::size_t n, std::uint8_t seed) {
    Bytes bytes(n);
    for (std::size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
    }
    return bytes;
}

/// A record as the bytes it is made of.
template <typename Record>
Bytes image(const Record& record) {
    const std::uint8_t* const first = reinterpret_cast<const std::uint8_t*>(&record);
    return Bytes(first, first + sizeof(record));
}

/// `bytes` with `part` laid over it at `offset`.
inline Bytes overlaid(Bytes bytes, std::size_t offset, const Bytes& part) {
    for (std::size_t i = 0; i < part.size(); ++i) {
        bytes.at(offset + i) = part[i];
    }
    return bytes;
}

inline Bytes littleEndian32(std::int64_t value) {
    const std::uint32_t bits = static_cast<std::uint32_t>(value);
    return {static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(bits >> 8),
            static_cast<std::uint8_t>(bits >> 16), static_cast<std::uint8_t>(bits >> 24)};
}

inline Bytes text(const std::string& characters) {
    return Bytes(characters.begin(), characters.end());
}

/// As the log shows a byte in a hexadecimal dump.
inline std::string dump(const Bytes& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string shown;
    for (const std::uint8_t byte : bytes) {
        shown += "0x";
        shown += digits[byte >> 4];
        shown += digits[byte & 0x0F];
        shown += ' ';
    }
    return shown;
}

}  // namespace images

#endif
