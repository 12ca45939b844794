// The way in for libFuzzer.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/Harness.h"
#include "support/Replaced.h"

extern "C" int __real_system(const char* command);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" const char* __asan_default_options();

extern "C" const char* __asan_default_options() {
    // A small quarantine: what an input frees is all gone long before the next thousand, and fresh pages cost time.
    return "hard_rss_limit_mb=2048:quarantine_size_mb=16";
}

// Descriptor 2 is left to the product: libFuzzer tells its own on a copy. Its watch over the memory sleeps in virtual
// time, as everything that is linked here does: the address sanitizer watches instead.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    static char leaveStderr[] = "-close_fd_mask=2";
    static char leaveMemory[] = "-rss_limit_mb=0";
    static std::vector<char*> arguments(*argv, *argv + *argc);
    arguments.push_back(leaveStderr);
    arguments.push_back(leaveMemory);
    *argc = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    *argv = arguments.data();
    // A merge starts itself again by system(), and runs no input before.
    for (const char* const argument : arguments) {
        if (argument != nullptr && std::strcmp(argument, "-merge=1") == 0) {
            support::replaced::system().does(__real_system);
        }
    }
    fuzz::keepStderr();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::oneInput(data, size);
    return 0;
}
