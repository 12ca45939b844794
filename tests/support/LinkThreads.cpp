#include "support/LinkThreads.h"

#include <QtCore/QThread>
#include <atomic>
#include <cerrno>

#include "support/Faults.h"

namespace {

std::atomic<bool> holdBack{false};
std::atomic<std::size_t> heldBackCount{0};

}  // namespace

namespace support {

LinkThreads::LinkThreads() {
    holdBack = true;
    heldBackCount = 0;
}

LinkThreads::~LinkThreads() {
    holdBack = false;
}

void LinkThreads::start(bool really) {
    holdBack = !really;
}

std::size_t LinkThreads::heldBack() const {
    return heldBackCount;
}

}  // namespace support

extern "C" {

// QThread::start(QThread::Priority)
void __real__ZN7QThread5startENS_8PriorityE(QThread* self, QThread::Priority priority);

void __wrap__ZN7QThread5startENS_8PriorityE(QThread* self, QThread::Priority priority) {
    if (support::faults::isHit("thread start", EAGAIN)) {
        return;
    }
    // Asked by name: the threads' classes aren't part of every test program.
    if (holdBack && self->inherits("QueuesMgr")) {
        ++heldBackCount;
        return;
    }
    __real__ZN7QThread5startENS_8PriorityE(self, priority);
}

}  // extern "C"
