// The live view.
#ifndef TOOLS_UGWCTL_WATCH_H
#define TOOLS_UGWCTL_WATCH_H

#include "tools/ugwctl/Options.h"

namespace ugwctl {

/// Shows the plant twice a second: full screen with ncurses where stdin and stdout are terminals, until q is pressed;
/// otherwise as plain text, one picture after the other. Ends after `options.count` pictures, on SIGINT or SIGTERM.
/// Throws Failure if there is nothing to see at the beginning.
void watch(const Options& options);

}  // namespace ugwctl

#endif
