// Runs the kept inputs of a target, and the seeds, without libFuzzer.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/Harness.h"

namespace {

std::vector<std::filesystem::path> filesOf(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> all;
    if (std::filesystem::exists(directory)) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            all.push_back(entry.path());
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

void runAll(const std::vector<std::filesystem::path>& files) {
    for (const auto& path : files) {
        std::printf("%s\n", path.c_str());  // the last one named is the one that aborts
        std::fflush(stdout);
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        fuzz::oneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
}

const std::filesystem::path here = UGW_FUZZ_DIR;

TEST(KeptInputs, HoldTheInvariants) {
    const auto seeds = filesOf(here / "seeds" / UGW_FUZZ_TARGET);
    ASSERT_FALSE(seeds.empty());
    runAll(seeds);
    runAll(filesOf(here / "findings" / UGW_FUZZ_TARGET));
}

TEST(NoInputAtAll, HoldsTheInvariants) {
    fuzz::oneInput(nullptr, 0);
}

}  // namespace
