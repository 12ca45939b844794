// The thin layer over the SysV segment that holds the tree. Plain functions, also for other processes of the card.
#ifndef COMMON_SHMMGR_H
#define COMMON_SHMMGR_H

#include <sys/ipc.h>

/// Gets the segment of `shm_key` with `flag` and attaches it; the address goes to `*pShm`, null on failure.
/// Returns the segment's id or -1. A segment whose attach failed stays in the system.
int getShm(void** pShm, int size, key_t shm_key, int flag);
/// Creates or takes over the segment, mode 0604.
int createShm(void** pShm, int size, key_t shm_key);
/// Attaches an existing segment.
int attachShm(void** pShm, int size, key_t shm_key);
/// Detaches only. 0 or -1.
int detachShm(void** pShm);
/// Detaches, waits until no other process is attached (after 60 s, and again every 256 s, the card is rebooted),
/// removes the segment. 0 or -1.
int destroyShm(void** pShm, int shm_id);

#endif
