// What happened on the fake lines and how long the product waited, in order, with the virtual microsecond; a text that
// a person can read and that can be compared with a golden file. One for the whole test, all lines and waits together.
//
//     [   0.000000] ttyX1   open rdwr excl noctty sync
//     [   0.000000] ttyX1   >> 02 EB EA 42 53 00 00
//     [   0.012500]         select 10000 us x3
//     [   0.042500] ttyX1   << 02 EA
//
// Equal waits that follow each other share a line.
#ifndef TESTS_SUPPORT_TRANSCRIPT_H
#define TESTS_SUPPORT_TRANSCRIPT_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace support {

class Transcript {
  public:
    static void add(const std::string& source, const std::string& text);
    static void addBytes(const std::string& source, const char* direction, const std::uint8_t* bytes,
                         std::size_t length);
    static void addWait(const char* call, std::int64_t us);
    /// Leaves waits out from here on (or no longer): for tests where only the bytes matter.
    static void withWaits(bool on);
    static void clear();
    static std::string text();
    /// Compares with tests/golden/<name>.txt. With UGW_GOLDEN_WRITE set in the environment, writes that file instead.
    static testing::AssertionResult matchesGolden(const std::string& name);
    /// As above, for any other text.
    static testing::AssertionResult textMatchesGolden(const std::string& text, const std::string& name);
};

/// "02 EA 0F"
std::string hex(const std::uint8_t* bytes, std::size_t length);

}  // namespace support

#endif
