// SPDX-License-Identifier: Apache-2.0
//
// What the segmented files ask of the mapping cache beside the public calls.
#ifndef ZOV_MEMSTORE_ZOVSHMCACHE_PRIVATE_H
#define ZOV_MEMSTORE_ZOVSHMCACHE_PRIVATE_H

#include "core/zov_lock.h"

namespace zov {

// Whether the last close of the region destroys it. The caller holds
// the context's lock.
bool shmCacheIsDestroyPending(ZOV_CACHE_REGION region);

// Where an open region is, for as long as it is open; takes no lock and no pin, so
// that transfers to different files do not meet. A pin is for callers who hand the
// address on.
void *shmCacheAddress(ZOV_CACHE_REGION region);

// The region of that number if it is open, through this record or another of the
// same heap context; else null. Counts no user: the entry stays while the caller
// holds the context's lock.
ZOV_CACHE_REGION shmCacheOpened(ZOV_CACHE_CTX context, uint32_t number);

// Whether the heap has a region of that number, open or not. The caller holds the
// context's lock.
bool shmCacheHasRegion(ZOV_CACHE_CTX context, uint32_t number);

// zov_shmCacheLock() for the length of one operation of the library.
void shmCacheEnter(ZOV_CACHE_CTX context) ZOV_ACQUIRE(context);

// Closes a context and leaves its lock, which the caller holds; the last user of a
// deleted context removes it. Both are one step, so that exactly one user is the
// last.
void shmCacheLeave(ZOV_CACHE_CTX context) ZOV_RELEASE(context);

// The highest number below `end` of a region of the heap, open or not, or UINT32_MAX
// when there is none. The caller holds the context's lock.
uint32_t shmCacheHighestRegion(ZOV_CACHE_CTX context, uint32_t end);

}  // namespace zov

#endif
