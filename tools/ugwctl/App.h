// The whole program but its entry.
#ifndef TOOLS_UGWCTL_APP_H
#define TOOLS_UGWCTL_APP_H

namespace ugwctl {

/// Runs a command line; returns the exit status.
int run(int argc, char* argv[]);

}  // namespace ugwctl

#endif
