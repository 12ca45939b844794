// The command line: its tables make the parsing and the help.
#ifndef TOOLS_UGWCTL_OPTIONS_H
#define TOOLS_UGWCTL_OPTIONS_H

#include <string>
#include <vector>

#include "Common/Common.h"

namespace ugwctl {

enum class Command {
    Tree,
    Show,
    States,
    Watch,
    Shutdown,
    Restore,
    Cancel,
    BatteryTest,
    Module,
    Metrics,
    Help,
    Version
};

// Until a command that nobody takes is withdrawn, s. A gateway takes up to 15 s to give another cabinet up.
constexpr int DEFAULT_TIMEOUT = 20;

struct Options {
    Command command = Command::Help;
    std::vector<std::string> arguments;
    std::string dir = ".";
    bool json = false;
    bool raw = false;
    bool yes = false;
    bool dryRun = false;
    int timeout = DEFAULT_TIMEOUT;  // s
    int count = 0;                  // pictures of watch, 0 without end
    uint16 delayShut = 0;           // in the module's unit
    uint16 delayReboot = 0;
};

/// Throws Failure (Usage).
Options parseOptions(int argc, char* argv[]);
/// What --help prints.
std::string helpText();

}  // namespace ugwctl

#endif
