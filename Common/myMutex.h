// The system's named lock and its scope guard: the name is there so that a wrong use can be told in the log.
#ifndef COMMON_MYMUTEX_H
#define COMMON_MYMUTEX_H

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QString>

class myMutex : public QMutex {
  public:
    explicit myMutex(QString name);
    ~myMutex();
    QString getName() const;
    void lock();
    bool tryLock();
    /// To be called by the holder only.
    void unlock();

  private:
    QString m_name;
};

/// Belongs to one thread and lives on the stack of the function that uses it.
class myMutexLocker {
  public:
    /// Blocks until the lock is had.
    explicit myMutexLocker(myMutex* mutex);
    ~myMutexLocker();
    /// Releases; on a guard that doesn't hold the lock only logs.
    void unlock();
    /// Takes the lock again. On a guard that still holds it this blocks for good.
    void relock();

    myMutexLocker(const myMutexLocker&) = delete;
    myMutexLocker& operator=(const myMutexLocker&) = delete;

  private:
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    using Locker = QMutexLocker<QMutex>;
#else
    using Locker = QMutexLocker;
#endif
    myMutex* m_mutex;  // borrowed
    Locker* m_locker;  // owned; null while the lock isn't held
};

#endif
