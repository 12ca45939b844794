#include "Common/myMutex.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

#include "Common/Common.h"

myMutex::myMutex(QString name) : m_name(std::move(name)) {}

myMutex::~myMutex() = default;

QString myMutex::getName() const {
    return m_name;
}

void myMutex::lock() {
    QMutex::lock();
}

bool myMutex::tryLock() {
    return QMutex::tryLock();
}

void myMutex::unlock() {
    QMutex::unlock();
}

myMutexLocker::myMutexLocker(myMutex* mutex) : m_mutex(mutex), m_locker(new Locker(mutex)) {}

myMutexLocker::~myMutexLocker() {
    delete m_locker;
}

void myMutexLocker::unlock() {
    if (m_locker == nullptr) {
        DBG_E("[from thread:%6ld] Mutex %s gia' precedentemente unlocked\n", static_cast<long>(syscall(SYS_gettid)),
              m_mutex->getName().toLatin1().constData());
        return;
    }
    delete m_locker;
    m_locker = nullptr;
}

void myMutexLocker::relock() {
    m_locker = new Locker(m_mutex);
}
