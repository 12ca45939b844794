// Heap allocations of the calling thread: counted, those of Qt and the C++ library included, or made to fail, those of
// the product's own code only.
//
//     AllocationCount allocations;
//     ComDev_Rcv(ch, buffer, 10, 100);
//     EXPECT_EQ(allocations.count(), 0u);
//
// The replaced calls allocate too (fake lines, recorded waits): what they do is not counted.
#ifndef TESTS_SUPPORT_ALLOCATIONS_H
#define TESTS_SUPPORT_ALLOCATIONS_H

#include <cstddef>

namespace support {

/// Allocations (malloc, calloc, realloc, new) of this thread since it was made.
class AllocationCount {
  public:
    AllocationCount();
    std::size_t count() const;

  private:
    std::size_t start_;
};

/// The n-th malloc, calloc, realloc or nothrow new of the product's code on this thread (1 is the next) fails; 0: none.
void failAllocation(std::size_t n);

/// While it lives, allocations of this thread are neither counted nor made to fail: the support's own.
class UncountedAllocations {
  public:
    UncountedAllocations();
    ~UncountedAllocations();
    UncountedAllocations(const UncountedAllocations&) = delete;
    UncountedAllocations& operator=(const UncountedAllocations&) = delete;
};

}  // namespace support

#endif
