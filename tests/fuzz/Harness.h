// What the fuzz targets share. A target is a function that takes any bytes, drives a part of the product with them in
// virtual time, and aborts when something isn't as it must be. The same function is run by libFuzzer (Fuzzer.cpp) and,
// with the inputs that are kept, by a plain test (Replay_test.cpp).
#ifndef TESTS_FUZZ_HARNESS_H
#define TESTS_FUZZ_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

// Defined by each target.

/// Builds what lives as long as the process.
void prepare();
/// Runs one input.
void run(const std::uint8_t* data, std::size_t size);

// Called by the two runners.

/// Keeps stderr for messages of this harness; before anything is caught.
void keepStderr();
/// One input: prepares at the first call, catches what the product logs.
void oneInput(const std::uint8_t* data, std::size_t size);

// For the targets.

/// Says on stderr what doesn't hold, with the end of what was logged, and aborts.
[[noreturn]] void fail(const char* file, int line, const std::string& what);
#define FUZZ_REQUIRE(condition, what)             \
    do {                                          \
        if (!(condition)) {                       \
            fuzz::fail(__FILE__, __LINE__, what); \
        }                                         \
    } while (false)

/// What the product has logged since the input began.
std::string logged();
std::size_t loggedLines();
/// That no more than `lines` have been logged.
void requireLogWithin(std::size_t lines);

/// The input, byte by byte. Behind its end everything is 0.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : next_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    std::size_t left() const { return left_; }
    std::uint8_t u8() {
        if (left_ == 0) {
            return 0;
        }
        --left_;
        return *next_++;
    }
    std::uint16_t u16() {
        const unsigned low = u8();
        return static_cast<std::uint16_t>(low | u8() * 256U);
    }
    /// A number below `n`.
    std::size_t below(std::size_t n) { return u8() % n; }
    /// As many as there are, at most `n`, in memory of exactly their size.
    Bytes bytes(std::size_t n) {
        const std::size_t taken = n < left_ ? n : left_;
        Bytes all(next_, next_ + taken);
        next_ += taken;
        left_ -= taken;
        return all;
    }
    /// Exactly `n`, with 0 behind the input's end.
    Bytes filled(std::size_t n) {
        Bytes all = bytes(n);
        all.resize(n);
        all.shrink_to_fit();
        return all;
    }

  private:
    const std::uint8_t* next_;
    std::size_t left_;
};

}  // namespace fuzz

#endif
