// The status file: the state of the system as one small JSON document for the rest of the card. Its readers only ever
// see a whole document, since it is written beside the file and then renamed.
#ifndef CABP_STATUSFILE_H
#define CABP_STATUSFILE_H

#include "Common/VirtualUPSTypes.h"

/// What the document tells. Borrows the records.
struct statusDocument_t {
    time32_t now;                // wall time of the pass
    const descSys_t& sys;        // the pass's result
    const virtualNode_t& root;   // for identification and nominal data, as published
    bool moduleLost[MAXUPSBOX];  // by cabinet index; a lost one makes the system's failure
};

enum class StatusFileResult {
    Written,
    NotOpened,   // nothing was touched
    NotWritten,  // the old document stays in place
    NotRenamed   // as above
};

/// Writes the document to `pathTMP` and renames it to `path`. errno tells of a failure. Allocates nothing but the
/// file's handle.
StatusFileResult StatusFile_Write(const char* path, const char* pathTMP, const statusDocument_t& doc);

#endif
