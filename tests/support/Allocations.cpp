#include "support/Allocations.h"

#include <cerrno>
#include <cstdlib>
#include <new>

#include "support/Faults.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UGW_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define UGW_SANITIZED 1
#endif
#endif

// The replaced name spells std::size_t as what it is here: j for unsigned int, m for unsigned long.
#if __SIZEOF_SIZE_T__ == 4
#define NOTHROW_NEW "_ZnwjRKSt9nothrow_t"
#else
#define NOTHROW_NEW "_ZnwmRKSt9nothrow_t"
#endif
void* realNothrowNew(std::size_t size, const std::nothrow_t& tag) __asm__("__real_" NOTHROW_NEW);
void* wrappedNothrowNew(std::size_t size, const std::nothrow_t& tag) __asm__("__wrap_" NOTHROW_NEW);

namespace {

// Plain data, so that reaching them allocates nothing.
thread_local std::size_t allocations = 0;
thread_local std::size_t failCountdown = 0;
thread_local unsigned uncounted = 0;

void countOne() {
    if (uncounted == 0) {
        ++allocations;
    }
}

bool isToFail() {
    if (uncounted != 0) {
        return false;
    }
    return (failCountdown > 0 && --failCountdown == 0) || support::faults::isHit("allocation", ENOMEM);
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);

void* __wrap_malloc(std::size_t size) {
    if (isToFail()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    if (isToFail()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

void* __wrap_realloc(void* old, std::size_t size) {
    if (isToFail()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_realloc(old, size);
}

#ifdef UGW_SANITIZED

// The sanitizer owns the allocator and tells about each allocation.
int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, std::size_t),
                                              void (*onFree)(const volatile void*));

#else

// In front of the C library's, for the whole process.
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);

void* malloc(std::size_t size) {
    countOne();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    countOne();
    return __libc_calloc(count, size);
}

void* realloc(void* old, std::size_t size) {
    countOne();
    return __libc_realloc(old, size);
}

#endif
}

void* wrappedNothrowNew(std::size_t size, const std::nothrow_t& tag) {
    return isToFail() ? nullptr : realNothrowNew(size, tag);
}

#ifdef UGW_SANITIZED
namespace {
const bool installed = [] {
    __sanitizer_install_malloc_and_free_hooks([](const volatile void*, std::size_t) { countOne(); },
                                              [](const volatile void*) {});
    return true;
}();
}  // namespace
#endif

namespace support {

AllocationCount::AllocationCount() : start_(allocations) {}

std::size_t AllocationCount::count() const {
    return allocations - start_;
}

void failAllocation(std::size_t n) {
    failCountdown = n;
}

UncountedAllocations::UncountedAllocations() {
    ++uncounted;
}

UncountedAllocations::~UncountedAllocations() {
    --uncounted;
}

}  // namespace support
