// Shared memory segments that never reach the system: behind shmget, shmat, shmdt and shmctl while the object lives.
// A segment is a block of its exact size, so that the address sanitizer sees an access beyond it. The calls fail as the
// system's do: EINVAL for a segment that is smaller than asked for, for an address that isn't attached or an unknown
// id, ENOENT where nothing is there to be attached.
#ifndef TESTS_SUPPORT_FAKESHM_H
#define TESTS_SUPPORT_FAKESHM_H

#include <sys/ipc.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace support {

class FakeShm {
  public:
    struct Segment {
        key_t key = 0;
        int mode = 0;  // lower nine bits of the flags
        std::size_t size = 0;
        std::unique_ptr<std::uint8_t[]> bytes;
        unsigned long attached = 0;  // by this process
        unsigned long readers = 0;   // other processes that are attached, set by the test
    };

    FakeShm();
    ~FakeShm();
    FakeShm(const FakeShm&) = delete;
    FakeShm& operator=(const FakeShm&) = delete;

    /// A segment left behind by an earlier run, filled with `fill`. Returns its id.
    int leaveBehind(key_t key, std::size_t size, std::uint8_t fill);
    /// Segments that exist, by id.
    std::map<int, Segment>& segments() { return segments_; }
    /// The only segment there is.
    Segment& only();
    /// Id of the next segment; the system gives the first one of all 0.
    void setNextId(int id) { nextId_ = id; }

  private:
    int add(key_t key, std::size_t size, int mode, std::uint8_t fill);
    Segment* attachedAt(const void* address);

    std::map<int, Segment> segments_;
    int nextId_ = 100;
};

}  // namespace support

#endif
