#include "support/FakeShm.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/Replaced.h"

namespace support {
namespace {

void* const SHMAT_FAILED = reinterpret_cast<void*>(static_cast<std::intptr_t>(-1));

int fail(int error) {
    errno = error;
    return -1;
}

}  // namespace

FakeShm::FakeShm() {
    replaced::shmget().does([this](key_t key, size_t size, int flags) {
        for (auto& entry : segments_) {
            if (key != IPC_PRIVATE && entry.second.key == key) {
                return size > entry.second.size ? fail(EINVAL) : entry.first;
            }
        }
        if (key != IPC_PRIVATE && (flags & IPC_CREAT) == 0) {
            return fail(ENOENT);
        }
        return add(key, size, flags & 0777, 0);
    });
    replaced::shmat().does([this](int id, const void*, int) -> void* {
        const auto it = segments_.find(id);
        if (it == segments_.end()) {
            errno = EINVAL;
            return SHMAT_FAILED;
        }
        ++it->second.attached;
        return it->second.bytes.get();
    });
    replaced::shmdt().does([this](const void* address) {
        Segment* const segment = attachedAt(address);
        if (segment == nullptr) {
            return fail(EINVAL);
        }
        --segment->attached;
        return 0;
    });
    replaced::shmctl().does([this](int id, int command, struct shmid_ds* status) {
        const auto it = segments_.find(id);
        if (it == segments_.end()) {
            return fail(EINVAL);
        }
        if (command == IPC_RMID) {
            segments_.erase(it);
            return 0;
        }
        if (command != IPC_STAT) {
            return fail(EINVAL);
        }
        std::memset(status, 0, sizeof(*status));
        status->shm_segsz = it->second.size;
        status->shm_nattch = it->second.attached + it->second.readers;
        return 0;
    });
}

FakeShm::~FakeShm() {
    replaced::shmget().reset();
    replaced::shmat().reset();
    replaced::shmdt().reset();
    replaced::shmctl().reset();
}

int FakeShm::leaveBehind(key_t key, std::size_t size, std::uint8_t fill) {
    return add(key, size, 0604, fill);
}

FakeShm::Segment& FakeShm::only() {
    if (segments_.size() != 1) {
        throw std::logic_error("there is not exactly one segment");
    }
    return segments_.begin()->second;
}

int FakeShm::add(key_t key, std::size_t size, int mode, std::uint8_t fill) {
    Segment segment;
    segment.key = key;
    segment.mode = mode;
    segment.size = size;
    segment.bytes = std::make_unique<std::uint8_t[]>(size);
    std::memset(segment.bytes.get(), fill, size);
    const int id = nextId_++;
    segments_[id] = std::move(segment);
    return id;
}

FakeShm::Segment* FakeShm::attachedAt(const void* address) {
    for (auto& entry : segments_) {
        if (entry.second.attached > 0 && entry.second.bytes.get() == address) {
            return &entry.second;
        }
    }
    return nullptr;
}

}  // namespace support
