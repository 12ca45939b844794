// A lock for state that product threads and signal handlers reach through replaced calls: all signals are blocked
// while it is held, so a handler that flushes a port can't meet the lock it interrupted.
#ifndef TESTS_SUPPORT_GUARDED_H
#define TESTS_SUPPORT_GUARDED_H

#include <signal.h>

#include <mutex>

namespace support {

class SignalSafeLock {
  public:
    explicit SignalSafeLock(std::mutex& mutex) : mutex_(mutex) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
        mutex_.lock();
    }
    ~SignalSafeLock() {
        mutex_.unlock();
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    SignalSafeLock(const SignalSafeLock&) = delete;
    SignalSafeLock& operator=(const SignalSafeLock&) = delete;

  private:
    std::mutex& mutex_;
    sigset_t before_;
};

}  // namespace support

#endif
