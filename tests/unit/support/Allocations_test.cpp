#include "support/Allocations.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QByteArray>
#include <cstdlib>
#include <new>
#include <thread>

using support::AllocationCount;
using support::failAllocation;

namespace {

// Neither of them may be optimised away.
void allocateAndFree() {
    void* volatile memory = std::malloc(10);
    std::free(memory);
}

}  // namespace

TEST(Allocations, AreCountedWhereverTheyAreMade) {
    const AllocationCount allocations;
    const std::size_t none = allocations.count();
    allocateAndFree();
    const std::size_t one = allocations.count();
    int* volatile number = new int(1);
    delete number;
    const std::size_t two = allocations.count();
    const QByteArray bytes(100, 'x');
    const std::size_t three = allocations.count();
    EXPECT_EQ(none, 0u);
    EXPECT_EQ(one, 1u);
    EXPECT_EQ(two, 2u);
    EXPECT_EQ(three, 3u);
}

TEST(Allocations, OtherThreadsAndTheSupportAreLeftOut) {
    const AllocationCount allocations;
    usleep(10);
    EXPECT_EQ(allocations.count(), 0u);
    std::size_t others = 0;
    std::thread thread([&] {
        const AllocationCount own;
        allocateAndFree();
        others = own.count();
    });
    const std::size_t before = allocations.count();
    thread.join();
    EXPECT_EQ(allocations.count(), before);
    EXPECT_EQ(others, 1u);
}

TEST(Allocations, TheChosenOneFails) {
    failAllocation(2);
    void* const first = std::malloc(10);
    void* const second = std::calloc(1, 10);
    void* const third = std::malloc(10);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    std::free(first);
    std::free(third);
    failAllocation(1);
    EXPECT_EQ(new (std::nothrow) int, nullptr);
}
