// Under ctest each test has a process of its own. Run by hand, a test program has them all in one: then at least the
// clock, the transcript and the replaced calls start anew with each of them.
#include <gtest/gtest.h>

#include "support/Allocations.h"
#include "support/Faults.h"
#include "support/Replaced.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

namespace support {
namespace {

template <typename... Calls>
void renew(Calls&... calls) {
    (calls.reset(), ...);
    (calls.forget(), ...);
}

class FreshStart : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        VirtualClock::reset();
        failAllocation(0);
        faults::arm(0, 0);
        Transcript::clear();
        Transcript::withWaits(true);
        renew(replaced::system(), replaced::adjtime(), replaced::kill(), replaced::waitpid(), replaced::shmget(),
              replaced::shmat(), replaced::shmdt(), replaced::shmctl(), replaced::fopen(), replaced::rename());
    }
};

const bool appended = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshStart);
    return true;
}();

}  // namespace
}  // namespace support
