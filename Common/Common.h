// The common header: integers, results, helpers and logging of the whole system.
//
// The trace level of a source file is settled before this header is included, by defining one of TRACELEVEL_DEBUG,
// TRACELEVEL_WARNING, TRACELEVEL_ERROR, TRACELEVEL_PRINT; each implies the ones after it. Without any, the level is
// warning. A log operation below the file's level is compiled away.
#ifndef COMMON_COMMON_H
#define COMMON_COMMON_H

#include <cstddef>
#include <cstdint>
#include <ctime>

using uint8 = std::uint8_t;
using uint16 = std::uint16_t;
using uint32 = std::uint32_t;
using int16 = std::int16_t;
using int32 = std::int32_t;

/// A time in the records: seconds since the epoch in 32 bits on every platform. Never hand its address to time().
using time32_t = std::int32_t;

/// Records that leave the process, as shared memory or as frame data, are packed and little-endian.
#define PACKED __attribute__((packed))

/// Results: 0 is success and negative is failure everywhere; NORET is "sent, no reply to check".
enum Result_e : int { SUCC = 0, FAIL = -1, BUSY = -2, COMMERR = -3, TIMEOUT = -4, NOACTIVITY = -5, NORET = 1 };

/// Phase indices of the three-phase arrays.
enum Line_e : int { LINE1 = 0, LINE2 = 1, LINE3 = 2 };

// Taken by value, so that fields of packed records can be passed. The parentheses keep them apart from the macros of
// <sys/param.h>.
template <typename T>
constexpr T(MIN)(T a, T b) {
    return b < a ? b : a;
}
template <typename T>
constexpr T(MAX)(T a, T b) {
    return a < b ? b : a;
}
template <typename T>
constexpr T(ABS)(T a) {
    return a < 0 ? static_cast<T>(-a) : a;
}

template <typename T, std::size_t N>
constexpr std::size_t sizeofarray(const T (&)[N]) {
    return N;
}

/// The wall time in the width of the records.
inline time32_t NOW() {
    return static_cast<time32_t>(std::time(nullptr));
}

/// Age in seconds of a time stamp of a record; computed in 64 bits, negative if the stamp lies in the future.
inline std::int64_t ageOf(std::int64_t now, time32_t stamp) {
    return now - static_cast<std::int64_t>(stamp);
}

// ---------------------------------------------------------------------------------------------------------------
// Logging, all of it to stderr. One log operation is one write, so that threads never tear each other's lines.

/// Largest text of one log operation, prefix included; what is longer is cut.
constexpr std::size_t LOG_MAXTEXT = 2048;
/// Buffer of the hexadecimal dump: five characters a byte, so at most 2047 bytes are shown.
constexpr std::size_t DUMPHEX_BUFLEN = 10240;

/// Before anything else in the process: a closed stdin, stdout or stderr is opened on /dev/null, since a port that got
/// its number would receive the log; and a log whose reader has gone is no reason to end.
void logSecure();

/// Writes "%6d-> [%02d:%02d:%02d] %s LEVEL (%s): " and the message. `level` is "Err", "War", "Dbg" or "". Keeps errno.
void logLine(const char* level, const char* file, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Writes the bare text. Keeps errno.
void logText(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// As perror() without a prefix, in one write. Keeps errno.
void logPerror();

/// Writes a plain line with `name`, then one bare line with each byte as "0x%02X ". `size` below 0 counts as 0, above
/// 2047 as 2047. Called through the macro dumphex.
void logDump(const char* file, const char* function, const char* name, int size, const void* pointer);

/// Writes a line with `str` and the time of day with microseconds. Called through the macro PROFILE.
void logProfile(const char* file, const char* function, const char* str);

/// The file's name without its folders.
constexpr const char* logBaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

#define LOG_LINE_(level, ...)                                          \
    do {                                                               \
        static constexpr const char* logFile_ = logBaseName(__FILE__); \
        logLine(level, logFile_, __func__, __VA_ARGS__);               \
    } while (0)
// Below the level of the file: the arguments are still checked by the compiler, nothing is left at run time.
#define LOG_NOTHING_(...)         \
    do {                          \
        if (false) {              \
            logText(__VA_ARGS__); \
        }                         \
    } while (0)

#if !defined(TRACELEVEL_DEBUG) && !defined(TRACELEVEL_WARNING) && !defined(TRACELEVEL_ERROR) && \
    !defined(TRACELEVEL_PRINT)
#define TRACELEVEL_WARNING
#endif

#if defined(TRACELEVEL_DEBUG)
#define TRACELEVEL_WARNING
#define DBG_D(...) LOG_LINE_("Dbg", __VA_ARGS__)
#define PROFILE(str) logProfile(logBaseName(__FILE__), __func__, str)
#else
#define DBG_D(...) LOG_NOTHING_(__VA_ARGS__)
#define PROFILE(str) LOG_NOTHING_("%s", str)
#endif

#if defined(TRACELEVEL_WARNING)
#define TRACELEVEL_ERROR
#define DBG_W(...) LOG_LINE_("War", __VA_ARGS__)
#else
#define DBG_W(...) LOG_NOTHING_(__VA_ARGS__)
#endif

#if defined(TRACELEVEL_ERROR)
#define TRACELEVEL_PRINT
#define DBG_E(...) LOG_LINE_("Err", __VA_ARGS__)
#else
#define DBG_E(...) LOG_NOTHING_(__VA_ARGS__)
#endif

#define DBG_P(...) LOG_LINE_("", __VA_ARGS__)
#define DBG_p(...) logText(__VA_ARGS__)
#define dumphex(name, size, pointer) logDump(logBaseName(__FILE__), __func__, name, size, pointer)

#endif
