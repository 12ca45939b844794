#include "fuzz/Harness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

// Only there in sanitized programs: where a sanitizer writes its report.
extern "C" void __sanitizer_set_report_fd(void*) __attribute__((weak));

// No target raises signals, so that the support's locks need not hold them off: two system calls each, many thousands
// of them in a second.
extern "C" int __wrap_pthread_sigmask(int, const sigset_t*, sigset_t* old) {
    if (old != nullptr) {
        *old = sigset_t();  // not by sigemptyset(), which the sanitizers look into
    }
    return 0;
}

// After each wait in virtual time the support gives way to other threads. Here there is one thread nearly always, and
// on a busy machine most of the time would be given away: every so often is enough for the few inputs that start more.
extern "C" int __real_sched_yield();
extern "C" int __wrap_sched_yield() {
    constexpr unsigned EVERY = 64;
    static std::atomic<unsigned> calls{0};
    return ++calls % EVERY == 0 ? __real_sched_yield() : 0;
}

namespace fuzz {
namespace {

constexpr std::size_t SHOWN = 4000;  // bytes of the log that a failure shows

int realStderr = -1;
int caught = -1;

// What the support builds up catches stderr for itself meanwhile, and takes the handler of SIGABRT away from whoever
// had it: libFuzzer saves the input there.
void prepareOnce() {
    static bool isPrepared = false;
    if (isPrepared) {
        return;
    }
    isPrepared = true;
    keepStderr();
    dup2(realStderr, STDERR_FILENO);  // closed by libFuzzer, for the product alone
    struct sigaction before;
    sigaction(SIGABRT, nullptr, &before);
    testing::GTEST_FLAG(break_on_failure) = true;  // the support's own complaints end the run
    const std::filesystem::path directory = std::filesystem::current_path();
    prepare();
    std::filesystem::current_path(directory);  // a plant has one of its own
    sigaction(SIGABRT, &before, nullptr);
    caught = memfd_create("log", MFD_CLOEXEC);
    fcntl(caught, F_SETFL, O_APPEND);
    dup2(caught, STDERR_FILENO);
    if (__sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(realStderr)));
    }
}

}  // namespace

void keepStderr() {
    if (realStderr < 0) {
        realStderr = dup(STDERR_FILENO);
    }
}

void oneInput(const std::uint8_t* data, std::size_t size) {
    prepareOnce();
    if (ftruncate(caught, 0) != 0) {
        fail(__FILE__, __LINE__, "the log can't be emptied");
    }
    run(data, size);
}

void fail(const char* file, int line, const std::string& what) {
    std::string log = logged();
    if (log.size() > SHOWN) {
        log.erase(0, log.size() - SHOWN);
    }
    dprintf(realStderr, "%s\n%s:%d: %s\n", log.c_str(), file, line, what.c_str());
    std::abort();
}

std::string logged() {
    std::string all;
    char buffer[4096];
    for (;;) {
        const ssize_t n = pread(caught, buffer, sizeof(buffer), static_cast<off_t>(all.size()));
        if (n <= 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(n));
    }
}

std::size_t loggedLines() {
    const std::string all = logged();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), '\n'));
}

void requireLogWithin(std::size_t lines) {
    const std::size_t written = loggedLines();
    FUZZ_REQUIRE(written <= lines,
                 std::to_string(written) + " lines in the log, at most " + std::to_string(lines) + " were expected");
}

}  // namespace fuzz
