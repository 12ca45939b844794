#include "support/Faults.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace {

std::atomic<std::size_t> calls{0};
std::atomic<std::size_t> failing{0};
std::atomic<int> errorOfFault{0};
std::atomic<const char*> victim{nullptr};

}  // namespace

extern "C" {
int __real_fflush(FILE*);
int __real_fclose(FILE*);

int __wrap_fflush(FILE* file) {
    return support::faults::isHit("fflush") ? EOF : __real_fflush(file);
}

int __wrap_fclose(FILE* file) {
    const bool fails = support::faults::isHit("fclose");
    const int error = errno;
    const int ret = __real_fclose(file);
    if (fails) {
        errno = error;
        return EOF;
    }
    return ret;
}
}

namespace support {
namespace faults {

void arm(std::size_t n, int error) {
    calls = 0;
    victim = nullptr;
    errorOfFault = error;
    failing = n;
}

std::string struck() {
    const char* const name = victim;
    return name == nullptr ? "" : name;
}

std::size_t counted() {
    return calls;
}

bool isHit(const char* call, int error) {
    if (++calls != failing) {
        return false;
    }
    victim = call;
    errno = error != 0 ? error : errorOfFault.load();
    return true;
}

}  // namespace faults
}  // namespace support
