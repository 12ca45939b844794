#include "Common/Common.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// The whole text at once; a signal may cut a write short or refuse it, nothing else is tried again: a log that cannot
// be written must not stop its writer.
void writeAll(const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t n = ::write(STDERR_FILENO, text, length);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        text += n;
        length -= static_cast<std::size_t>(n);
    }
}

// Length of what vsnprintf stored in a buffer of `size`; nothing where it failed.
std::size_t storedLength(int printed, std::size_t size) {
    if (printed < 0) {
        return 0;
    }
    const std::size_t length = static_cast<std::size_t>(printed);
    return length < size ? length : size - 1;
}

std::size_t putPrefix(char* buffer, std::size_t size, const char* level, const char* file, const char* function) {
    const std::time_t now = std::time(nullptr);
    struct tm local;
    std::memset(&local, 0, sizeof(local));
    localtime_r(&now, &local);
    return storedLength(std::snprintf(buffer, size, "%6d-> [%02d:%02d:%02d] %s %s (%s): ", static_cast<int>(getpid()),
                                      local.tm_hour, local.tm_min, local.tm_sec, file, level, function),
                        size);
}

class ErrnoKeeper {
  public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    int value() const { return saved_; }

  private:
    int saved_;
};

}  // namespace

void logLine(const char* level, const char* file, const char* function, const char* format, ...) {
    const ErrnoKeeper keeper;
    char buffer[LOG_MAXTEXT];
    std::size_t length = putPrefix(buffer, sizeof(buffer), level, file, function);
    va_list args;
    va_start(args, format);
    length +=
        storedLength(std::vsnprintf(buffer + length, sizeof(buffer) - length, format, args), sizeof(buffer) - length);
    va_end(args);
    writeAll(buffer, length);
}

void logSecure() {
    // The lowest free number is given first, so the first one above the three says that all of them are taken.
    int opened = ::open("/dev/null", O_RDWR);
    while (opened >= 0 && opened <= STDERR_FILENO) {
        opened = ::open("/dev/null", O_RDWR);
    }
    if (opened >= 0) {
        ::close(opened);
    }
    std::signal(SIGPIPE, SIG_IGN);
}

void logText(const char* format, ...) {
    const ErrnoKeeper keeper;
    char buffer[LOG_MAXTEXT];
    va_list args;
    va_start(args, format);
    const std::size_t length = storedLength(std::vsnprintf(buffer, sizeof(buffer), format, args), sizeof(buffer));
    va_end(args);
    writeAll(buffer, length);
}

void logPerror() {
    const ErrnoKeeper keeper;
    logText("%s\n", std::strerror(keeper.value()));
}

void logDump(const char* file, const char* function, const char* name, int size, const void* pointer) {
    const ErrnoKeeper keeper;
    static constexpr char digits[] = "0123456789ABCDEF";
    constexpr int shownMax = static_cast<int>(DUMPHEX_BUFLEN / 5) - 1;
    char buffer[LOG_MAXTEXT + DUMPHEX_BUFLEN];
    std::size_t length = putPrefix(buffer, LOG_MAXTEXT, "", file, function);
    length += storedLength(std::snprintf(buffer + length, LOG_MAXTEXT - length, "%s\n", name), LOG_MAXTEXT - length);
    const int shown = pointer == nullptr || size < 0 ? 0 : (size < shownMax ? size : shownMax);
    const uint8* bytes = static_cast<const uint8*>(pointer);
    for (int i = 0; i < shown; ++i) {
        buffer[length++] = '0';
        buffer[length++] = 'x';
        buffer[length++] = digits[bytes[i] >> 4];
        buffer[length++] = digits[bytes[i] & 0x0F];
        buffer[length++] = ' ';
    }
    buffer[length++] = '\n';
    writeAll(buffer, length);
}

void logProfile(const char* file, const char* function, const char* str) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    logLine("Dbg", file, function, "%s %ld.%06ld\n", str, static_cast<long>(now.tv_sec),
            static_cast<long>(now.tv_usec));
}
