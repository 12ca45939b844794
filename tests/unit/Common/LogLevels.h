// The log operations of a source file at one trace level; the including test has settled the level.
#ifndef TESTS_UNIT_COMMON_LOGLEVELS_H
#define TESTS_UNIT_COMMON_LOGLEVELS_H

#include <string>

#include "Common/Common.h"
#include "support/LogCapture.h"

/// The messages that come through, each operation being asked once. `asked` counts the arguments that were evaluated.
inline std::string speakAtEveryLevel(int& asked) {
    const support::LogCapture log;
    DBG_D("d%d\n", ++asked);
    DBG_W("w%d\n", ++asked);
    DBG_E("e%d\n", ++asked);
    DBG_P("p%d\n", ++asked);
    DBG_p("t%d\n", ++asked);
    std::string levels;
    for (const support::LogEntry& entry : log.entries()) {
        levels += entry.message.substr(0, 1) + ":" + entry.level + " ";
    }
    return levels;
}

inline std::size_t profileLines() {
    const support::LogCapture log;
    PROFILE("here");
    return log.lines().size();
}

#endif
