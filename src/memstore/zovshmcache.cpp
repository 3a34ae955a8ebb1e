// SPDX-License-Identifier: Apache-2.0
//
// The mapping cache: one record for every open context of the heap and one entry
// for every open region, with their users counted.
//
//   ctxList -> CacheContext <-> CacheContext ...      shms[number] -> CacheRegion
//   mru -> CacheRegion <-> ... <-> lru                mapped and not pinned
//
// A region is pinned while somebody uses its address. At most maxMapped regions
// are mapped; room is made at the mru end, by the region whose last pin went
// last. If all are pinned the limit gives way.
//
// mapCacheMutex guards all of it, across all contexts, and is taken inside a
// context's own lock. A context that is deleted while in use can be opened by
// its id once more, beside the first record. The records then share the heap's
// regions and none of their entries. A doom is therefore the same in all entries of
// a region, a region goes when no record has it open, and the heap context when no
// record names it.
//
// With this heap unmapping costs and frees nothing, so it does no harm that
// directories pin all their pages, and leave others little or nothing of the limit.
//
// Nothing jumps: callers may hold the context's lock, so jumps are held off
// around every allocation. That also keeps messages back until the locks are
// left.
#include <atomic>

#include "memstore/zovshmcache_private.h"

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovshm_private.h"
#include "memstore/zovshmheap_private.h"

// 1. id is the id of shmCtx, or kDeletedId. It and numUsers are written under
//    mapCacheMutex and read without.
// 2. hashNext belongs to contexts, where records stand under the id of shmCtx
//    even when they are deleted.
struct CacheContext {
  CacheContext *next;
  CacheContext *prev;  // null for the head of the list
  ZOV_SHM_CTX shmCtx;
  zov::SlotTable<ZOV_CACHE_REGION> shms;  // the regions that are open
  void *root;
  std::atomic<uint64_t> id;
  std::atomic<uint32_t> numUsers;
  bool removeOnClose;  // the last user removes the heap context
  CacheContext *hashNext;

  uint64_t hashId() const { return reinterpret_cast<uint64_t>(shmCtx); }
};

// 1. On the list of unpinned regions exactly while ptr is set and numPins is 0.
// 2. numOpens is never 0 but while the entry is made or closed.
struct CacheRegion {
  CacheRegion *next;  // neighbour towards lru
  CacheRegion *prev;  // neighbour towards mru
  CacheContext *ctx;
  uint32_t shmNo;
  uint32_t numOpens;
  uint32_t numPins;
  uint32_t destroyOnClose;
  ZOV_SHM_REGION shm;
  void *ptr;  // null while not mapped
};

namespace {

constexpr uint64_t kDeletedId = UINT64_MAX;
constexpr uint32_t kSpareSlots = 9;
constexpr uint32_t kHighestRegion = UINT32_MAX - 10;
constexpr uint32_t kMaxMapped = 400;

// Rank 8: everything of this module.
ZOV_SYNC mapCacheMutex = ZOV_NO_SYNC;

CacheContext *ctxList = nullptr;
zov::IdTable<CacheContext> contexts;

// The two ends of the list of regions that are mapped and not pinned; released
// ones enter at mru.
CacheRegion *lru = nullptr;
CacheRegion *mru = nullptr;
uint32_t numMapped = 0;
uint32_t maxMapped = kMaxMapped;

template <typename Record>
Record *newRecord(const char *sourceName, uint32_t line) {
  return zov::make<Record>(ZOV_DEFAULT_TAG, sourceName, line);
}

CacheContext *_findCtx(uint64_t id) {
  return contexts.find(id, [id](const CacheContext &context) {
    return context.id.load(std::memory_order_relaxed) == id;
  });
}

void addCtx(CacheContext *context) {
  context->next = ctxList;
  if (ctxList != nullptr) {
    ctxList->prev = context;
  }
  ctxList = context;
  contexts.insert(context);
}

void dropCtx(CacheContext *context) {
  (context->prev != nullptr ? context->prev->next : ctxList) = context->next;
  if (context->next != nullptr) {
    context->next->prev = context->prev;
  }
  contexts.remove(context);
  context->shms.clear(ZOV_DEFAULT_TAG);
  zov_freeMem(context, ZOV_DEFAULT_TAG);
}

CacheContext *_openCtx(uint64_t id, uint32_t flags, uint32_t rootSize, void **root) {
  CacheContext *context = _findCtx(id);
  if (context != nullptr) {
    *root = context->root;
    context->numUsers.fetch_add(1, std::memory_order_relaxed);
    return context;
  }
  context = newRecord<CacheContext>(ZOV_HERE);
  if (context == nullptr) {
    return nullptr;
  }
  context->shmCtx = zov_shmOpenCtx(id, flags, rootSize, root);
  if (context->shmCtx == nullptr) {
    zov_freeMem(context, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  context->id.store(id, std::memory_order_relaxed);
  context->root = *root;
  context->numUsers.store(1, std::memory_order_relaxed);
  addCtx(context);
  return context;
}

// Takes one user off a context. True for the last one, when the record is gone.
bool _closeCtx(CacheContext *context) {
  const uint32_t left = context->numUsers.load(std::memory_order_relaxed) - 1;
  context->numUsers.store(left, std::memory_order_relaxed);
  if (left != 0) {
    return false;
  }
  zov_shmCloseCtx(context->shmCtx);
  dropCtx(context);
  return true;
}

// Decides whether a heap context goes now. If so it is out of reach, and given
// back for the caller to release when the mutex is left; else null.
ZOV_SHM_CTX _removeCtx(uint64_t id) {
  CacheContext *user = contexts.find(id);
  if (user == nullptr) {
    return zov::shmDetach(id);
  }
  user->id.store(kDeletedId, std::memory_order_relaxed);
  user->removeOnClose = true;
  return nullptr;
}

// What becomes of a heap context of which a record is gone: it is removed if that
// is owed, as by _removeCtx(); else nobody may need its lock any more.
ZOV_SHM_CTX afterRecord(ZOV_SHM_CTX shmCtx, bool owed) {
  const uint64_t id = reinterpret_cast<uint64_t>(shmCtx);
  if (owed) {
    return _removeCtx(id);
  }
  if (contexts.find(id) == nullptr) {
    zov::shmDropLock(shmCtx);
  }
  return nullptr;
}

// The slot of a region, or null when there is no memory for one.
CacheRegion **_findSHM(CacheContext &context, uint32_t number) {
  return number > kHighestRegion
             ? nullptr
             : context.shms.reserve(number, kSpareSlots, ZOV_DEFAULT_TAG, ZOV_HERE);
}

// The region as somebody has it open, through any record of the heap context.
CacheRegion *openedAnywhere(const CacheContext &context, uint32_t number) {
  CacheContext *user = contexts.find(context.hashId(), [number](const CacheContext &candidate) {
    return candidate.shms.get(number) != nullptr;
  });
  return user == nullptr ? nullptr : user->shms.get(number);
}

// Dooms a region for all who have it open, through whatever record, or calls that
// off.
void setDoom(const CacheContext &context, uint32_t number, uint32_t doomed) {
  contexts.forEach(context.hashId(), [number, doomed](CacheContext &user) {
    CacheRegion *region = user.shms.get(number);
    if (region != nullptr) {
      region->destroyOnClose = doomed;
    }
  });
}

// Destroys a region, or leaves that to the last who has it open.
void destroyRegion(const CacheContext &context, uint32_t number) {
  if (openedAnywhere(context, number) != nullptr) {
    setDoom(context, number, 1);
  } else {
    zov_shmDestroy(context.shmCtx, number);
  }
}

ZOV_SHM_REGION createHeapRegion(const CacheContext &context, uint32_t number, uint64_t start,
                                uint32_t size) {
  // A table that cannot grow must not cost the context its other regions.
  return zov::shmReserve(context.shmCtx, number)
             ? zov_shmCreate(context.shmCtx, number, start, size)
             : nullptr;
}

// Makes the entry of a region in its empty slot, or leaves the slot empty. A
// region that is open through another record is shared, with its doom.
void fillSlot(CacheRegion **slot, CacheContext *context, uint32_t number, uint64_t start,
              uint32_t size, bool create) {
  CacheRegion *region = newRecord<CacheRegion>(ZOV_HERE);
  if (region == nullptr) {
    return;
  }
  const CacheRegion *opened = openedAnywhere(*context, number);
  region->shm = create && opened == nullptr ? createHeapRegion(*context, number, start, size)
                                            : zov_shmOpen(context->shmCtx, number, start, size);
  if (region->shm == nullptr) {
    zov_freeMem(region, ZOV_DEFAULT_TAG);
    return;
  }
  region->ctx = context;
  region->shmNo = number;
  region->destroyOnClose = opened == nullptr ? 0 : opened->destroyOnClose;
  *slot = region;
}

CacheRegion *countOpen(CacheRegion *region) {
  if (region != nullptr) {
    ++region->numOpens;
  }
  return region;
}

CacheRegion *_createSHM(CacheContext *context, uint32_t number, uint64_t start, uint32_t size) {
  CacheRegion **slot = _findSHM(*context, number);
  if (slot == nullptr) {
    return nullptr;
  }
  if (*slot == nullptr) {
    fillSlot(slot, context, number, start, size, true);
  }
  if (*slot != nullptr) {
    setDoom(*context, number, 0);
  }
  return countOpen(*slot);
}

CacheRegion *_openSHM(CacheContext *context, uint32_t number, uint64_t start, uint32_t size) {
  CacheRegion **slot = _findSHM(*context, number);
  if (slot == nullptr) {
    return nullptr;
  }
  if (*slot == nullptr) {
    fillSlot(slot, context, number, start, size, false);
  }
  return countOpen(*slot);
}

void _addToList(CacheRegion *region) {
  region->prev = nullptr;
  region->next = mru;
  (mru != nullptr ? mru->prev : lru) = region;
  mru = region;
}

void _removeFromList(CacheRegion *region) {
  (region->next != nullptr ? region->next->prev : lru) = region->prev;
  (region->prev != nullptr ? region->prev->next : mru) = region->next;
  region->next = nullptr;
  region->prev = nullptr;
}

bool _map(CacheRegion *region) {
  region->ptr = zov_shmGetPtr(region->shm);
  if (region->ptr == nullptr) {
    return false;
  }
  ++numMapped;
  return true;
}

void _unmap(CacheRegion *region) {
  zov_shmReleasePtr(region->shm, region->ptr);
  region->ptr = nullptr;
  --numMapped;
}

void makeRoom() {
  while (numMapped >= maxMapped && mru != nullptr) {
    CacheRegion *victim = mru;
    _removeFromList(victim);
    _unmap(victim);
  }
}

void *_getPtr(CacheRegion *region) {
  if (region->ptr == nullptr) {
    makeRoom();
    if (!_map(region)) {
      return nullptr;
    }
  } else if (region->numPins == 0) {
    _removeFromList(region);
  }
  ++region->numPins;
  return region->ptr;
}

void _releasePtr(CacheRegion *region) {
  if (--region->numPins == 0) {
    _addToList(region);
  }
}

void _closeSHM(CacheRegion *region) {
  if (--region->numOpens != 0) {
    return;
  }
  if (region->ptr != nullptr) {
    // A region closed while pinned, which is its user's mistake, is in no list.
    if (region->numPins == 0) {
      _removeFromList(region);
    }
    _unmap(region);
  }
  zov_shmClose(region->shm);
  CacheContext &context = *region->ctx;
  *context.shms.find(region->shmNo) = nullptr;
  if (region->destroyOnClose != 0) {
    destroyRegion(context, region->shmNo);
  }
  zov_freeMem(region, ZOV_DEFAULT_TAG);
}

}  // namespace

bool zov::shmCacheIsDoomed(ZOV_CACHE_REGION region) {
  return region->destroyOnClose != 0;
}

ZOV_CACHE_REGION zov::shmCacheOpened(ZOV_CACHE_CTX context, uint32_t number) {
  zov_syncEnterExcl(mapCacheMutex);
  CacheRegion *region = openedAnywhere(*context, number);
  zov_syncExitExcl(mapCacheMutex);
  return region;
}

bool zov::shmCacheHasRegion(ZOV_CACHE_CTX context, uint32_t number) {
  zov_syncEnterExcl(mapCacheMutex);
  const bool found = zov_shmOpen(context->shmCtx, number, 0, 0) != nullptr;
  zov_syncExitExcl(mapCacheMutex);
  return found;
}

void zov::shmCacheLeave(ZOV_CACHE_CTX context) {
  const ZOV_SHM_CTX shmCtx = context->shmCtx;
  zov_syncEnterExcl(mapCacheMutex);
  const bool deleted = zov_shmCacheIsDeleted(context) != 0;
  const bool last = _closeCtx(context);
  // The context's lock is left before the mutex is, or the context might be
  // removed in between by the last user of another record.
  shmLeave(shmCtx);
  const ZOV_SHM_CTX removed = last ? afterRecord(shmCtx, deleted) : nullptr;
  zov_syncExitExcl(mapCacheMutex);
  shmRelease(removed);
}

uint32_t zov::shmCacheHighestRegion(ZOV_CACHE_CTX context, uint32_t end) {
  zov_syncEnterExcl(mapCacheMutex);
  const uint32_t number = shmHighestRegion(context->shmCtx, end);
  zov_syncExitExcl(mapCacheMutex);
  return number;
}

extern "C" {

ZOV_CACHE_CTX zov_shmCacheOpenCtx(uint64_t id, uint32_t flags, uint32_t rootSize, void **root) {
  const zov::NoJump noJump;
  zov_syncEnterExcl(mapCacheMutex);
  CacheContext *context = _openCtx(id, flags, rootSize, root);
  zov_syncExitExcl(mapCacheMutex);
  return context;
}

void zov_shmCacheCloseCtx(ZOV_CACHE_CTX context) {
  zov_syncEnterExcl(mapCacheMutex);
  const ZOV_SHM_CTX shmCtx = context->shmCtx;
  const bool owed = context->removeOnClose;
  const ZOV_SHM_CTX removed = _closeCtx(context) ? afterRecord(shmCtx, owed) : nullptr;
  zov_syncExitExcl(mapCacheMutex);
  zov::shmRelease(removed);
}

void zov_shmCacheMarkDeleted(ZOV_CACHE_CTX context) {
  zov_syncEnterExcl(mapCacheMutex);
  context->id.store(kDeletedId, std::memory_order_relaxed);
  zov_syncExitExcl(mapCacheMutex);
}

int32_t zov_shmCacheIsDeleted(ZOV_CACHE_CTX context) {
  return context->id.load(std::memory_order_relaxed) == kDeletedId ? 1 : 0;
}

uint32_t zov_shmCacheNumUsers(ZOV_CACHE_CTX context) {
  return context->numUsers.load(std::memory_order_relaxed);
}

void zov_shmCacheRemoveCtx(uint64_t id) {
  zov_syncEnterExcl(mapCacheMutex);
  const ZOV_SHM_CTX removed = _removeCtx(id);
  zov_syncExitExcl(mapCacheMutex);
  zov::shmRelease(removed);
}

ZOV_CACHE_REGION zov_shmCacheCreate(ZOV_CACHE_CTX context, uint32_t number, uint64_t start,
                                    uint32_t size) {
  const zov::NoJump noJump;
  zov_syncEnterExcl(mapCacheMutex);
  CacheRegion *region = _createSHM(context, number, start, size);
  zov_syncExitExcl(mapCacheMutex);
  return region;
}

ZOV_CACHE_REGION zov_shmCacheOpen(ZOV_CACHE_CTX context, uint32_t number, uint64_t start,
                                  uint32_t size) {
  const zov::NoJump noJump;
  zov_syncEnterExcl(mapCacheMutex);
  CacheRegion *region = _openSHM(context, number, start, size);
  zov_syncExitExcl(mapCacheMutex);
  return region;
}

void zov_shmCacheClose(ZOV_CACHE_REGION region) {
  zov_syncEnterExcl(mapCacheMutex);
  _closeSHM(region);
  zov_syncExitExcl(mapCacheMutex);
}

void zov_shmCacheDestroy(ZOV_CACHE_CTX context, uint32_t number) {
  zov_syncEnterExcl(mapCacheMutex);
  destroyRegion(*context, number);
  zov_syncExitExcl(mapCacheMutex);
}

void *zov_shmCacheGetPtr(ZOV_CACHE_REGION region) {
  zov_syncEnterExcl(mapCacheMutex);
  void *address = _getPtr(region);
  zov_syncExitExcl(mapCacheMutex);
  return address;
}

void zov_shmCacheReleasePtr(ZOV_CACHE_REGION region, void *) {
  zov_syncEnterExcl(mapCacheMutex);
  _releasePtr(region);
  zov_syncExitExcl(mapCacheMutex);
}

int32_t zov_shmCacheLock(ZOV_CACHE_CTX context) {
  zov::shmEnter(context->shmCtx);
  return ZOV_OKAY;
}

void zov_shmCacheUnlock(ZOV_CACHE_CTX context) {
  zov::shmLeave(context->shmCtx);
}

uint64_t zov_shmCacheRootId() {
  return zov_shmRootId();
}

uint64_t zov_shmCacheNextId() {
  return zov_shmNextId();
}

int32_t zov_shmCacheInit(uint32_t *pageSize) {
  const int32_t status = zov_shmInit(pageSize);
  if (status != ZOV_OKAY) {
    return status;
  }
  mapCacheMutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  if (mapCacheMutex == ZOV_NO_SYNC) {
    zov_shmTerm();
    return ZOV_ERROR;
  }
  ctxList = nullptr;
  contexts.clear();
  lru = nullptr;
  mru = nullptr;
  numMapped = 0;
  maxMapped = kMaxMapped;
  return ZOV_OKAY;
}

int32_t zov_shmCacheTerm() {
  ctxList = nullptr;
  contexts.clear();
  zov_syncDelete(mapCacheMutex);
  mapCacheMutex = ZOV_NO_SYNC;
  zov_shmTerm();
  return ZOV_OKAY;
}
}
