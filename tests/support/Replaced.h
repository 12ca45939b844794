// Calls that leave the process, replaced for the tests: each records its arguments and can be told what to do.
//
//     replaced::system().returns(256);
//     replaced::shmget().fails(EEXIST);           // every call from here on
//     replaced::fopen().failsOnCall(2, EACCES);   // only the second call from here on
//     replaced::waitpid().does([](pid_t pid, int* status, int) { *status = 0; return pid; });
//     EXPECT_EQ(std::get<0>(replaced::system().call(0)), "halt");
//
// system and adjtime never reach the real call (they record and return 0); all others pass through until told
// otherwise. Only calls made by the product's and the test's own code are seen, not those of shared libraries.
#ifndef TESTS_SUPPORT_REPLACED_H
#define TESTS_SUPPORT_REPLACED_H

#include <sys/shm.h>
#include <sys/time.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "support/Allocations.h"
#include "support/Faults.h"
#include "support/Guarded.h"

namespace support {

/// How an argument is kept: texts and times by value, other pointers as they are.
template <typename T>
struct Kept {
    using type = T;
    static type of(T value) { return value; }
};
template <>
struct Kept<const char*> {
    using type = std::string;
    static type of(const char* value) { return value == nullptr ? "" : value; }
};
template <>
struct Kept<const struct timeval*> {
    using type = struct timeval;
    static type of(const struct timeval* value) { return value == nullptr ? timeval{0, 0} : *value; }
};

template <typename R, typename... Args>
class ReplacedCall {
  public:
    using Function = std::function<R(Args...)>;
    using Call = std::tuple<typename Kept<Args>::type...>;

    ReplacedCall(const char* name, Function original, R failure)
        : name_(name), original_(std::move(original)), failure_(failure) {}

    /// All calls so far, and how many.
    std::vector<Call> calls() const {
        const SignalSafeLock lock(mutex_);
        return calls_;
    }
    std::size_t count() const {
        const SignalSafeLock lock(mutex_);
        return calls_.size();
    }
    /// The arguments of one call, counted from 0; throws if there was none.
    Call call(std::size_t index) const { return calls().at(index); }
    void forget() {
        const SignalSafeLock lock(mutex_);
        calls_.clear();
    }

    void returns(R value) {
        does([value](Args...) { return value; });
    }
    void fails(int error) {
        const R failure = failure_;
        does([failure, error](Args...) {
            errno = error;
            return failure;
        });
    }
    /// The n-th call from here on fails (1 is the next one), the others do what they did.
    void failsOnCall(std::size_t n, int error) {
        const SignalSafeLock lock(mutex_);
        failAt_ = calls_.size() + n;
        error_ = error;
    }
    void does(Function function) {
        const SignalSafeLock lock(mutex_);
        now_ = std::move(function);
    }
    /// Back to what it did at the start of the test.
    void reset() {
        const SignalSafeLock lock(mutex_);
        now_ = nullptr;
        failAt_ = 0;
    }

    /// For the replacing functions only.
    R operator()(Args... args) {
        Function function;
        {
            const UncountedAllocations uncounted;
            const SignalSafeLock lock(mutex_);
            calls_.emplace_back(Kept<Args>::of(args)...);
            if (failAt_ == calls_.size()) {
                errno = error_;
                return failure_;
            }
            function = now_ ? now_ : original_;
        }
        if (faults::isHit(name_)) {
            return failure_;
        }
        return function(args...);
    }

  private:
    mutable std::mutex mutex_;
    const char* const name_;
    const Function original_;
    const R failure_;
    Function now_;
    std::vector<Call> calls_;
    std::size_t failAt_ = 0;
    int error_ = 0;
};

namespace replaced {

ReplacedCall<int, const char*>& system();
ReplacedCall<int, const struct timeval*, struct timeval*>& adjtime();
ReplacedCall<int, pid_t, int>& kill();
ReplacedCall<pid_t, pid_t, int*, int>& waitpid();
ReplacedCall<int, key_t, size_t, int>& shmget();
ReplacedCall<void*, int, const void*, int>& shmat();
ReplacedCall<int, const void*>& shmdt();
ReplacedCall<int, int, int, struct shmid_ds*>& shmctl();
ReplacedCall<FILE*, const char*, const char*>& fopen();
ReplacedCall<int, const char*, const char*>& rename();

}  // namespace replaced
}  // namespace support

#endif
