// A pseudo-terminal of the real system under a name of the test's choice: while it lives, open() of `path` opens its
// slave side. For what only a real terminal driver shows; bytes need real time to get through it, so a test with one
// calls VirtualClock::useRealTime().
#ifndef TESTS_SUPPORT_PTYLINE_H
#define TESTS_SUPPORT_PTYLINE_H

#include <cstddef>
#include <string>

#include "support/FakeLine.h"

namespace support {

class PtyLine {
  public:
    explicit PtyLine(const std::string& path);
    ~PtyLine();
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;

    /// False where the system has no pseudo-terminals.
    bool isThere() const { return master_ >= 0; }
    /// Has the product receive these; returns when the driver has taken them.
    void feed(const Bytes& bytes);
    /// What the product sent: waits until `count` bytes are there (at most 10 s without a byte).
    Bytes take(std::size_t count);
    /// Closes the peer's side.
    void hangUp();

  private:
    const std::string path_;
    int master_;
};

}  // namespace support

#endif
