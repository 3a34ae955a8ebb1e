// SPDX-License-Identifier: Apache-2.0
//
// What the mapping cache asks of the heap beside the public calls.
#ifndef ZOV_MEMSTORE_ZOVSHMHEAP_PRIVATE_H
#define ZOV_MEMSTORE_ZOVSHMHEAP_PRIVATE_H

#include <stddef.h>

#include "core/zov_lock.h"

namespace zov {

// Makes room in the context's table for a region of that number, so that
// zov_shmCreate() cannot fail on the table. False, with the table as it was,
// when memory is short.
bool shmReserve(ZOV_SHM_CTX context, uint32_t number);

// The highest number below `end` of a region, or UINT32_MAX when there is none.
uint32_t shmHighestRegion(ZOV_SHM_CTX context, uint32_t end);

// Reads the 8-byte word at an offset of a context's root block, or gives
// `missing` when there is no such context or it has no root block. Takes the
// heap's list lock and no other, and allocates nothing.
uint64_t shmRootWord(uint64_t id, size_t offset, uint64_t missing);

// zov_shmLock() and zov_shmUnlock() for a caller that has the context open: its lock
// is there and stays.
// shmEnter() is for the length of one operation of the library, shmEnterForCaller()
// for a lock that is handed to the library's caller.
void shmEnter(ZOV_SHM_CTX context) ZOV_ACQUIRE(context);
void shmEnterForCaller(ZOV_SHM_CTX context) ZOV_ACQUIRE(context);
void shmLeave(ZOV_SHM_CTX context) ZOV_RELEASE(context);

// Deletes the lock of a context that nobody has open any more, unless a thread
// holds it or waits for it all the same. The next open makes another.
void shmDropLock(ZOV_SHM_CTX context);

// zov_shmRemoveCtx() in two steps. The first takes the context out of reach and
// returns it, or null when there is none of that id; the second releases the
// memory, which may take a while and needs no lock. Null is ignored.
ZOV_SHM_CTX shmDetach(uint64_t id);
void shmRelease(ZOV_SHM_CTX context);

}  // namespace zov

#endif
