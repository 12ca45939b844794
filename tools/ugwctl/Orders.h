// Commands to the plant, through the panels of the tree.
#ifndef TOOLS_UGWCTL_ORDERS_H
#define TOOLS_UGWCTL_ORDERS_H

#include "tools/ugwctl/Options.h"

namespace ugwctl {

/// Gives the command of the options: checks that it can be given, asks, writes it, waits until the gateway has taken
/// it and says so on stdout. Throws Failure.
void giveOrder(const Options& options);

}  // namespace ugwctl

#endif
