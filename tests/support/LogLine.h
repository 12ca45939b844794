// A whole log line as it must stand in the log, prefix and all, at the present virtual time.
#ifndef TESTS_SUPPORT_LOGLINE_H
#define TESTS_SUPPORT_LOGLINE_H

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/VirtualClock.h"

namespace support {

/// `message` with its line end. `level` is "Err", "War", "Dbg" or "".
inline std::string logLineOf(const char* level, const char* file, const char* function, const std::string& message) {
    const time_t now = static_cast<time_t>(VirtualClock::wall() / 1000000);
    struct tm local;
    localtime_r(&now, &local);
    char prefix[256];
    std::snprintf(prefix, sizeof(prefix), "%6d-> [%02d:%02d:%02d] %s %s (%s): ", static_cast<int>(getpid()),
                  local.tm_hour, local.tm_min, local.tm_sec, file, level, function);
    return prefix + message;
}

}  // namespace support

#endif
