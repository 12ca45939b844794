// The seed of a random test: UGW_SEED from the environment, or a new one. It is printed, so that a run can be repeated:
//
//     std::mt19937 random(support::seed());
#ifndef TESTS_SUPPORT_SEED_H
#define TESTS_SUPPORT_SEED_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace support {

inline std::uint32_t seed() {
    const char* given = std::getenv("UGW_SEED");
    const std::uint32_t value =
        given != nullptr ? static_cast<std::uint32_t>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
    std::printf("UGW_SEED=%lu\n", static_cast<unsigned long>(value));
    std::fflush(stdout);
    return value;
}

}  // namespace support

#endif
