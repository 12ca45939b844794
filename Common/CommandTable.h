// Look-up in a table of two-letter commands: rows that begin with `main` and `sub`.
#ifndef COMMON_COMMANDTABLE_H
#define COMMON_COMMANDTABLE_H

#include "Common/QueuesMgr.h"

/// The row of a command, or null.
template <typename Row, std::size_t N>
const Row* findCommand(const Row (&table)[N], const pckStruct& cmd) {
    for (const Row& row : table) {
        if (row.main == cmd.MainCmd && row.sub == cmd.SubCmd) {
            return &row;
        }
    }
    return nullptr;
}

/// Whether any row has this MainCmd: the two ways of not being known have messages of their own.
template <typename Row, std::size_t N>
bool hasMainCmd(const Row (&table)[N], uint8 main) {
    for (const Row& row : table) {
        if (row.main == main) {
            return true;
        }
    }
    return false;
}

#endif
