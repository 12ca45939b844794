// One fault in the life of a card: of all the library calls of the product that can fail, whatever they are and on
// whatever thread, one fails, told by its number.
//
//     for (std::size_t n = 1;; ++n) {
//         faults::arm(n);
//         ... the whole life ...
//         if (faults::struck().empty()) break;     // there were fewer calls than n
//     }
//
// Counted are the calls on lines (FakeLine.h), those of Replaced.h, allocations (malloc, calloc, realloc, nothrow new),
// fflush, fclose and the starts of threads. A close or fclose that fails has released what it closes, as Linux does. A
// thread whose start fails doesn't run.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <cstddef>
#include <string>

namespace support {
namespace faults {

/// The n-th call from here on fails (1 is the next), with `error` unless the kind of call has one of its own; 0: none.
void arm(std::size_t n, int error);
/// Name of the call that failed; empty if none has.
std::string struck();
/// Calls since the last arm().
std::size_t counted();

/// For the replacing functions only: counts the call, true with errno set if it is to fail. `error` 0: that of arm().
bool isHit(const char* call, int error = 0);

}  // namespace faults
}  // namespace support

#endif
