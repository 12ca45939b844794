// free() of the product's and the test's own code, for the programs that are linked with --wrap=free
// (tests/CMakeLists.txt). Defines the replacing function: include it in one source of a program.
#ifndef TESTS_UNIT_COMMON_FREECALLS_H
#define TESTS_UNIT_COMMON_FREECALLS_H

#include <atomic>

extern "C" void __real_free(void*);

namespace freecalls {

inline std::atomic<int> count{0};
inline std::atomic<void (*)()> observer{nullptr};

/// Blocks given back so far.
inline int total() {
    return count;
}
/// Called before each block is given back; null: no longer.
inline void onCall(void (*function)()) {
    observer = function;
}

}  // namespace freecalls

extern "C" void __wrap_free(void* block) {
    if (void (*function)() = freecalls::observer.load()) {
        function();
    }
    freecalls::count += block != nullptr ? 1 : 0;
    __real_free(block);
}

#endif
