#include "support/Replaced.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

extern "C" {
int __real_kill(pid_t, int);
pid_t __real_waitpid(pid_t, int*, int);
int __real_shmget(key_t, size_t, int);
void* __real_shmat(int, const void*, int);
int __real_shmdt(const void*);
int __real_shmctl(int, int, struct shmid_ds*);
FILE* __real_fopen(const char*, const char*);
int __real_rename(const char*, const char*);
}

namespace support {
namespace {

// A test that has lost its child's pid must not end everything on the machine: -1 is every process, others of them a
// whole group, 1 is init.
int killOne(pid_t pid, int signal) {
    if (pid <= 1) {
        ADD_FAILURE() << "kill(" << pid << ", " << signal << ")";
        errno = EPERM;
        return -1;
    }
    return __real_kill(pid, signal);
}

}  // namespace

namespace replaced {

// Never destroyed, as calls come until the very end of the process.

ReplacedCall<int, const char*>& system() {
    static auto* const call = new ReplacedCall<int, const char*>(
        "system", [](const char*) { return 0; }, -1);
    return *call;
}

ReplacedCall<int, const struct timeval*, struct timeval*>& adjtime() {
    static auto* const call = new ReplacedCall<int, const struct timeval*, struct timeval*>(
        "adjtime",
        [](const struct timeval*, struct timeval* old) {
            if (old != nullptr) {
                *old = {0, 0};
            }
            return 0;
        },
        -1);
    return *call;
}

ReplacedCall<int, pid_t, int>& kill() {
    static auto* const call = new ReplacedCall<int, pid_t, int>("kill", killOne, -1);
    return *call;
}

ReplacedCall<pid_t, pid_t, int*, int>& waitpid() {
    static auto* const call = new ReplacedCall<pid_t, pid_t, int*, int>("waitpid", __real_waitpid, -1);
    return *call;
}

ReplacedCall<int, key_t, size_t, int>& shmget() {
    static auto* const call = new ReplacedCall<int, key_t, size_t, int>("shmget", __real_shmget, -1);
    return *call;
}

ReplacedCall<void*, int, const void*, int>& shmat() {
    static auto* const call = new ReplacedCall<void*, int, const void*, int>(
        "shmat", __real_shmat, reinterpret_cast<void*>(static_cast<std::intptr_t>(-1)));
    return *call;
}

ReplacedCall<int, const void*>& shmdt() {
    static auto* const call = new ReplacedCall<int, const void*>("shmdt", __real_shmdt, -1);
    return *call;
}

ReplacedCall<int, int, int, struct shmid_ds*>& shmctl() {
    static auto* const call = new ReplacedCall<int, int, int, struct shmid_ds*>("shmctl", __real_shmctl, -1);
    return *call;
}

ReplacedCall<FILE*, const char*, const char*>& fopen() {
    static auto* const call = new ReplacedCall<FILE*, const char*, const char*>("fopen", __real_fopen, nullptr);
    return *call;
}

ReplacedCall<int, const char*, const char*>& rename() {
    static auto* const call = new ReplacedCall<int, const char*, const char*>("rename", __real_rename, -1);
    return *call;
}

}  // namespace replaced
}  // namespace support

namespace replaced = support::replaced;

extern "C" {

int __wrap_system(const char* command) {
    return replaced::system()(command);
}

int __wrap_adjtime(const struct timeval* delta, struct timeval* old) {
    return replaced::adjtime()(delta, old);
}

int __wrap_kill(pid_t pid, int signal) {
    return replaced::kill()(pid, signal);
}

pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    return replaced::waitpid()(pid, status, options);
}

int __wrap_shmget(key_t key, size_t size, int flags) {
    return replaced::shmget()(key, size, flags);
}

void* __wrap_shmat(int id, const void* address, int flags) {
    return replaced::shmat()(id, address, flags);
}

int __wrap_shmdt(const void* address) {
    return replaced::shmdt()(address);
}

int __wrap_shmctl(int id, int command, struct shmid_ds* buffer) {
    return replaced::shmctl()(id, command, buffer);
}

FILE* __wrap_fopen(const char* path, const char* mode) {
    return replaced::fopen()(path, mode);
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
    return replaced::fopen()(path, mode);
}

int __wrap_rename(const char* from, const char* to) {
    return replaced::rename()(from, to);
}

}  // extern "C"
