// SPDX-License-Identifier: Apache-2.0
//
// What the segmented files ask of the mapping cache beside the public calls.
#ifndef ZOV_MEMSTORE_ZOVSHMCACHE_PRIVATE_H
#define ZOV_MEMSTORE_ZOVSHMCACHE_PRIVATE_H

#include "zov.h"

namespace zov {

// Whether the region is to be destroyed with its last close. The caller holds
// the context's lock.
bool shmCacheIsDoomed(ZOV_CACHE_REGION region);

// The region of that number if anybody has it open, through this record or
// another of the same heap context; else null. Counts nothing: the entry stays
// for as long as the caller holds the context's lock.
ZOV_CACHE_REGION shmCacheOpened(ZOV_CACHE_CTX context, uint32_t number);

// Whether the heap has a region of that number, open or not. The caller holds the
// context's lock.
bool shmCacheHasRegion(ZOV_CACHE_CTX context, uint32_t number);

// Leaves a context and its lock, which the caller holds; the last user of a
// deleted context removes it. Whether the caller is that one is decided once,
// together with the leaving.
void shmCacheLeave(ZOV_CACHE_CTX context);

// The highest number below `end` that a region of the heap has, open or not, or
// all ones. The caller holds the context's lock.
uint32_t shmCacheHighestRegion(ZOV_CACHE_CTX context, uint32_t end);

}  // namespace zov

#endif
