// What a thread did before its end is ordered before what follows QThread::wait, but by a lock inside Qt, which the
// thread sanitizer can't see. Here it is told: linked into what is built with it, and into nothing else.
#include <dlfcn.h>
#include <pthread.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QThread>

extern "C" {

void __tsan_acquire(void* address);
void __tsan_release(void* address);
bool __real__ZN7QThread4waitE14QDeadlineTimer(QThread* self, QDeadlineTimer deadline);
}

namespace {

char threadEnds;  // of all threads: only its address counts

bool seen(bool hasEnded) {
    if (hasEnded) {
        __tsan_acquire(&threadEnds);
    }
    return hasEnded;
}

}  // namespace

extern "C" {

// The last call that a QThread's end makes outside of Qt; under the lock that QThread::wait takes.
int pthread_cond_broadcast(pthread_cond_t* condition) {
    using Call = int (*)(pthread_cond_t*);
    static const Call next = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "pthread_cond_broadcast"));
    const int ret = next(condition);
    __tsan_release(&threadEnds);
    return ret;
}

bool __wrap__ZN7QThread4waitE14QDeadlineTimer(QThread* self, QDeadlineTimer deadline) {
    return seen(__real__ZN7QThread4waitE14QDeadlineTimer(self, deadline));
}

}  // extern "C"
