// Path search in the tree of the virtual UPS.
#ifndef COMMON_VIRTUALUPSUTILITY_H
#define COMMON_VIRTUALUPSUTILITY_H

#include "Common/VirtualUPSTypes.h"

/// Node named by a path such as "SA.BA" or "SA.BA.M1"; null where there is none, where the tree is null or the path
/// shorter than 5 characters. Takes no lock: links are fixed once the tree is built. `nodes` bounds the indices that
/// are followed; a process that doesn't know the count leaves it at NULLNODE.
virtualNode_t* search(virtualUPS_t virtualUPS, const char* searchID, int nodes = NULLNODE);

#endif
