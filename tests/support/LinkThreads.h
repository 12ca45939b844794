// Whether QThread::start really starts the threads of the links (whatever derives from QueuesMgr). While an object of
// this class lives it doesn't, so that a test can turn such a thread's machine itself; the starts are counted. Other
// threads are started as ever.
#ifndef TESTS_SUPPORT_LINKTHREADS_H
#define TESTS_SUPPORT_LINKTHREADS_H

#include <cstddef>

namespace support {

class LinkThreads {
  public:
    LinkThreads();
    ~LinkThreads();
    LinkThreads(const LinkThreads&) = delete;
    LinkThreads& operator=(const LinkThreads&) = delete;

    /// From here on they are started after all, or no longer.
    void start(bool really = true);
    /// Starts that were asked for and didn't take place.
    std::size_t heldBack() const;
};

}  // namespace support

#endif
