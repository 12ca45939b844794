// Look-up in a table of two-letter commands.
#ifndef COMMON_COMMANDTABLE_H
#define COMMON_COMMANDTABLE_H

#include "Common/Common.h"

/// Entry of (`MainCmd`, `SubCmd`), or null; `mainKnown` tells whether any entry has that MainCmd, since the two ways of
/// not being known have messages of their own.
template <typename Entry, std::size_t N>
const Entry* findCommand(const Entry (&table)[N], uint8 MainCmd, uint8 SubCmd, bool& mainKnown) {
    mainKnown = false;
    for (const Entry& entry : table) {
        if (entry.MainCmd != MainCmd) {
            continue;
        }
        mainKnown = true;
        if (entry.SubCmd == SubCmd) {
            return &entry;
        }
    }
    return nullptr;
}

#endif
