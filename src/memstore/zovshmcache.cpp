// SPDX-License-Identifier: Apache-2.0
//
// The mapping cache: one record for every open context of the heap and one entry
// for every open region, with their users counted.
//
//   contexts: id -> CacheContext      shms[number] -> CacheRegion
//   mru -> CacheRegion -> ...         mapped and not pinned, latest released first
//
// zov_shmCacheGetPtr() maps a region and pins it. At most maxMapped regions are
// mapped. To make room the region released last is unmapped, deliberately not the
// one released first. While all are pinned there may be more than maxMapped.
// Transfers neither map nor pin: a region of this heap has its address for as long
// as it exists, and an open one exists (shmCacheAddress()).
//
// mapCacheMutex guards all of it, across all contexts, and is taken inside a
// context's own lock. A context that is deleted while in use can be opened by
// its id once more, beside the first record. The records then share the heap's
// regions, and each has its own entries. All entries of a region therefore agree
// on whether its destruction is pending. It is destroyed when no record has it
// open any more; the heap context, when its last record is closed.
//
// With this heap unmapping costs and frees nothing, so directories may pin all
// their pages, and leave others little or nothing of the limit.
//
// Nothing jumps: callers may hold the context's lock, so jumps are held off
// around every allocation. That also keeps messages back until the locks are
// left.
#include <assert.h>

#include "memstore/zovshmcache_private.h"

#include "core/zov_lock.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovshm_private.h"
#include "memstore/zovshmheap_private.h"

// 1. shmCtx is the context's id too. isDeleted and numUsers are written under
//    mapCacheMutex and read without.
// 2. hashNext belongs to contexts. A deleted record stays there, as it has a share
//    in the heap context still.
// 3. root is the heap's, kept so that a further open need not ask it.
struct CacheContext {
  ZOV_SHM_CTX shmCtx;
  zov::SlotTable<ZOV_CACHE_REGION> shms;  // the regions that are open
  void *root;
  uint32_t numUsers;
  bool isDeleted;      // further opens make another record
  bool removeOnClose;  // the last user removes the heap context
  CacheContext *hashNext;

  uint64_t hashId() const { return reinterpret_cast<uint64_t>(shmCtx); }
};

// 1. On the list of unpinned regions exactly while ptr is set and numPins is 0.
// 2. numOpens is 0 only while the entry is made or closed.
// 3. shm never changes, and is read without mapCacheMutex by callers that have the region open.
struct CacheRegion {
  CacheRegion *next;  // released earlier
  CacheRegion *prev;  // released later
  CacheContext *ctx;
  uint32_t shmNo;
  uint32_t numOpens;
  uint32_t numPins;
  bool destroyOnClose;  // the same in all entries of the region
  ZOV_SHM_REGION shm;
  void *ptr;  // null while not mapped
};

namespace zov {
namespace {

constexpr uint32_t kSpareSlots = 9;
constexpr uint32_t kHighestRegion = UINT32_MAX - 10;
constexpr uint32_t maxMapped = 400;

// Rank 8: everything of this module.
ZOV_SYNC mapCacheMutex = ZOV_NO_SYNC;

IdTable<CacheContext> contexts ZOV_GUARDED_BY(mapCacheMutex);

// The region released last, of those that are mapped and not pinned.
CacheRegion *mru ZOV_GUARDED_BY(mapCacheMutex) = nullptr;
uint32_t numMapped ZOV_GUARDED_BY(mapCacheMutex) = 0;

// The heap context of a record, whose lock is the record's.
ZOV_SHM_CTX shmOf(ZOV_CACHE_CTX context) ZOV_RETURNS_LOCK(context) {
  return context->shmCtx;
}

// The record that an open of the id shares; null when it makes one.
CacheContext *_findCtx(uint64_t id) ZOV_REQUIRES(mapCacheMutex) {
  return contexts.find(id, [](const CacheContext &context) { return !context.isDeleted; });
}

CacheContext *_openCtx(uint64_t id, uint32_t flags, uint32_t rootSize, void **root)
    ZOV_REQUIRES(mapCacheMutex) {
  CacheContext *context = _findCtx(id);
  if (context != nullptr) {
    *root = context->root;
    storeRelaxed(context->numUsers, context->numUsers + 1);
    return context;
  }
  context = make<CacheContext>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (context == nullptr) {
    return nullptr;
  }
  context->shmCtx = zov_shmOpenCtx(id, flags, rootSize, root);
  if (context->shmCtx == nullptr) {
    zov_freeMem(context, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  context->root = *root;
  context->numUsers = 1;
  contexts.insert(context, ZOV_HERE);
  return context;
}

// Takes one user off a context. True for the last one, when the record is gone.
bool _closeCtx(CacheContext *context) ZOV_REQUIRES(mapCacheMutex) {
  assert(context->numUsers > 0);
  storeRelaxed(context->numUsers, context->numUsers - 1);
  if (context->numUsers != 0) {
    return false;
  }
  zov_shmCloseCtx(context->shmCtx);
  contexts.remove(context);
  context->shms.clear(ZOV_DEFAULT_TAG);
  zov_freeMem(context, ZOV_DEFAULT_TAG);
  return true;
}

// Removes a heap context that nobody has open: it is out of reach then, and given
// back for the caller to release when the mutex is left. One that is in use is left
// to its last user, and the result is null.
ZOV_SHM_CTX _removeCtx(uint64_t id) ZOV_REQUIRES(mapCacheMutex) {
  CacheContext *user = contexts.find(id);
  if (user == nullptr) {
    return shmDetach(id);
  }
  storeRelaxed(user->isDeleted, true);
  user->removeOnClose = true;
  return nullptr;
}

// Follows the close of a record. The heap context is removed as by _removeCtx() if
// that is owed; else it loses its lock when this was its only record.
ZOV_SHM_CTX settleHeapContext(ZOV_SHM_CTX shmCtx, bool removalOwed) ZOV_REQUIRES(mapCacheMutex) {
  const uint64_t id = reinterpret_cast<uint64_t>(shmCtx);
  if (removalOwed) {
    return _removeCtx(id);
  }
  if (contexts.find(id) == nullptr) {
    shmDropLock(shmCtx);
  }
  return nullptr;
}

// The slot of a region. Grows the table up to it; null when memory is short or the
// number is too high.
CacheRegion **_findSHM(CacheContext &context, uint32_t number) ZOV_REQUIRES(mapCacheMutex) {
  return number > kHighestRegion
             ? nullptr
             : context.shms.reserve(number, kSpareSlots, ZOV_DEFAULT_TAG, ZOV_HERE);
}

// The region as somebody has it open, through any record of the heap context.
CacheRegion *openedAnywhere(const CacheContext &context, uint32_t number)
    ZOV_REQUIRES(mapCacheMutex) {
  CacheContext *user = contexts.find(context.hashId(), [number](const CacheContext &candidate) {
    return candidate.shms.get(number) != nullptr;
  });
  return user == nullptr ? nullptr : user->shms.get(number);
}

// Sets in all entries of a region whether its last close destroys it.
void setDestroyOnClose(const CacheContext &context, uint32_t number, bool destroyOnClose)
    ZOV_REQUIRES(mapCacheMutex) {
  contexts.forEach(context.hashId(), [number, destroyOnClose](CacheContext &user) {
    CacheRegion *region = user.shms.get(number);
    if (region != nullptr) {
      region->destroyOnClose = destroyOnClose;
    }
  });
}

// Destroys a region, or leaves that to the last who has it open.
void destroyRegion(const CacheContext &context, uint32_t number) ZOV_REQUIRES(mapCacheMutex) {
  if (openedAnywhere(context, number) != nullptr) {
    setDestroyOnClose(context, number, true);
  } else {
    zov_shmDestroy(context.shmCtx, number);
  }
}

ZOV_SHM_REGION createHeapRegion(const CacheContext &context, uint32_t number, uint64_t start,
                                uint32_t size) ZOV_REQUIRES(mapCacheMutex) {
  // A table that cannot grow must not cost the context its other regions.
  return shmReserve(context.shmCtx, number) ? zov_shmCreate(context.shmCtx, number, start, size)
                                            : nullptr;
}

// Makes the entry of a region in its empty slot, or leaves the slot empty. A
// region that is open through another record is shared.
void fillSlot(CacheRegion **slot, CacheContext *context, uint32_t number, uint64_t start,
              uint32_t size, bool create) ZOV_REQUIRES(mapCacheMutex) {
  CacheRegion *region = make<CacheRegion>(ZOV_DEFAULT_TAG, ZOV_HERE);
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
  assert(opened == nullptr || opened->shm == region->shm);
  region->ctx = context;
  region->shmNo = number;
  region->destroyOnClose = opened != nullptr && opened->destroyOnClose;
  *slot = region;
}

// Opens a region, or with `create` makes it if the heap has none.
CacheRegion *_openSHM(CacheContext *context, uint32_t number, uint64_t start, uint32_t size,
                      bool create) ZOV_REQUIRES(mapCacheMutex) {
  CacheRegion **slot = _findSHM(*context, number);
  if (slot == nullptr) {
    return nullptr;
  }
  if (*slot == nullptr) {
    fillSlot(slot, context, number, start, size, create);
  }
  if (*slot != nullptr) {
    assert((*slot)->ctx == context && (*slot)->shmNo == number);
    ++(*slot)->numOpens;
  }
  return *slot;
}

// Creates a region, or keeps the one that is there from a pending destruction.
CacheRegion *_createSHM(CacheContext *context, uint32_t number, uint64_t start, uint32_t size)
    ZOV_REQUIRES(mapCacheMutex) {
  CacheRegion *region = _openSHM(context, number, start, size, true);
  if (region != nullptr) {
    setDestroyOnClose(*context, number, false);
  }
  return region;
}

void _addToList(CacheRegion *region) ZOV_REQUIRES(mapCacheMutex) {
  assert(region->ptr != nullptr && region->numPins == 0);
  region->prev = nullptr;
  region->next = mru;
  if (mru != nullptr) {
    mru->prev = region;
  }
  mru = region;
}

void _removeFromList(CacheRegion *region) ZOV_REQUIRES(mapCacheMutex) {
  assert(region == (region->prev == nullptr ? mru : region->prev->next));
  if (region->next != nullptr) {
    region->next->prev = region->prev;
  }
  (region->prev != nullptr ? region->prev->next : mru) = region->next;
}

bool _map(CacheRegion *region) ZOV_REQUIRES(mapCacheMutex) {
  assert(region->ptr == nullptr && region->numPins == 0);
  region->ptr = zov_shmGetPtr(region->shm);
  if (region->ptr == nullptr) {
    return false;
  }
  ++numMapped;
  return true;
}

void _unmap(CacheRegion *region) ZOV_REQUIRES(mapCacheMutex) {
  assert(region->ptr != nullptr && numMapped > 0);
  zov_shmReleasePtr(region->shm, region->ptr);
  region->ptr = nullptr;
  --numMapped;
}

void makeRoom() ZOV_REQUIRES(mapCacheMutex) {
  while (numMapped >= maxMapped && mru != nullptr) {
    CacheRegion *victim = mru;
    _removeFromList(victim);
    _unmap(victim);
  }
}

void *_getPtr(CacheRegion *region) ZOV_REQUIRES(mapCacheMutex) {
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

void _releasePtr(CacheRegion *region) ZOV_REQUIRES(mapCacheMutex) {
  assert(region->numPins > 0);
  if (--region->numPins == 0) {
    _addToList(region);
  }
}

void _closeSHM(CacheRegion *region) ZOV_REQUIRES(mapCacheMutex) {
  assert(region->numOpens > 0);
  if (--region->numOpens != 0) {
    return;
  }
  if (region->ptr != nullptr) {
    // A region closed while pinned, which is its user's mistake, is not on the list.
    if (region->numPins == 0) {
      _removeFromList(region);
    }
    _unmap(region);
  }
  zov_shmClose(region->shm);
  CacheContext &context = *region->ctx;
  CacheRegion **slot = context.shms.find(region->shmNo);
  assert(slot != nullptr && *slot == region);
  *slot = nullptr;
  if (region->destroyOnClose) {
    destroyRegion(context, region->shmNo);
  }
  zov_freeMem(region, ZOV_DEFAULT_TAG);
}

}  // namespace

void shmCacheEnter(ZOV_CACHE_CTX context) {
  shmEnter(shmOf(context));
}

bool shmCacheIsDestroyPending(ZOV_CACHE_REGION region) {
  return region->destroyOnClose;
}

void *shmCacheAddress(ZOV_CACHE_REGION region) {
  return zov_shmGetPtr(region->shm);
}

ZOV_CACHE_REGION shmCacheOpened(ZOV_CACHE_CTX context, uint32_t number) {
  const MutexLock lock(mapCacheMutex);
  return openedAnywhere(*context, number);
}

bool shmCacheHasRegion(ZOV_CACHE_CTX context, uint32_t number) {
  const MutexLock lock(mapCacheMutex);
  return zov_shmOpen(context->shmCtx, number, 0, 0) != nullptr;
}

void shmCacheLeave(ZOV_CACHE_CTX context) {
  const ZOV_SHM_CTX shmCtx = context->shmCtx;
  ZOV_SHM_CTX removed = nullptr;
  {
    const MutexLock lock(mapCacheMutex);
    const bool isDeleted = context->isDeleted;
    // The context's lock is left before the mutex is, or the context might be
    // removed in between by the last user of another record.
    shmLeave(shmOf(context));
    removed = _closeCtx(context) ? settleHeapContext(shmCtx, isDeleted) : nullptr;
  }
  shmRelease(removed);
}

uint32_t shmCacheHighestRegion(ZOV_CACHE_CTX context, uint32_t end) {
  const MutexLock lock(mapCacheMutex);
  return shmHighestRegion(context->shmCtx, end);
}

}  // namespace zov

extern "C" {

ZOV_CACHE_CTX zov_shmCacheOpenCtx(uint64_t id, uint32_t flags, uint32_t rootSize, void **root) {
  const zov::NoJump noJump;
  const zov::MutexLock lock(zov::mapCacheMutex);
  return zov::_openCtx(id, flags, rootSize, root);
}

void zov_shmCacheCloseCtx(ZOV_CACHE_CTX context) {
  const ZOV_SHM_CTX shmCtx = context->shmCtx;
  ZOV_SHM_CTX removed = nullptr;
  {
    const zov::MutexLock lock(zov::mapCacheMutex);
    const bool owed = context->removeOnClose;
    removed = zov::_closeCtx(context) ? zov::settleHeapContext(shmCtx, owed) : nullptr;
  }
  zov::shmRelease(removed);
}

void zov_shmCacheMarkDeleted(ZOV_CACHE_CTX context) {
  const zov::MutexLock lock(zov::mapCacheMutex);
  zov::storeRelaxed(context->isDeleted, true);
}

int32_t zov_shmCacheIsDeleted(ZOV_CACHE_CTX context) {
  return zov::loadRelaxed(context->isDeleted) ? 1 : 0;
}

uint32_t zov_shmCacheNumUsers(ZOV_CACHE_CTX context) {
  return zov::loadRelaxed(context->numUsers);
}

void zov_shmCacheRemoveCtx(uint64_t id) {
  ZOV_SHM_CTX removed = nullptr;
  {
    const zov::MutexLock lock(zov::mapCacheMutex);
    removed = zov::_removeCtx(id);
  }
  zov::shmRelease(removed);
}

ZOV_CACHE_REGION zov_shmCacheCreate(ZOV_CACHE_CTX context, uint32_t number, uint64_t start,
                                    uint32_t size) {
  const zov::NoJump noJump;
  const zov::MutexLock lock(zov::mapCacheMutex);
  return zov::_createSHM(context, number, start, size);
}

ZOV_CACHE_REGION zov_shmCacheOpen(ZOV_CACHE_CTX context, uint32_t number, uint64_t start,
                                  uint32_t size) {
  const zov::NoJump noJump;
  const zov::MutexLock lock(zov::mapCacheMutex);
  return zov::_openSHM(context, number, start, size, false);
}

void zov_shmCacheClose(ZOV_CACHE_REGION region) {
  const zov::MutexLock lock(zov::mapCacheMutex);
  zov::_closeSHM(region);
}

void zov_shmCacheDestroy(ZOV_CACHE_CTX context, uint32_t number) {
  const zov::MutexLock lock(zov::mapCacheMutex);
  zov::destroyRegion(*context, number);
}

void *zov_shmCacheGetPtr(ZOV_CACHE_REGION region) {
  const zov::MutexLock lock(zov::mapCacheMutex);
  return zov::_getPtr(region);
}

void zov_shmCacheReleasePtr(ZOV_CACHE_REGION region, void *) {
  const zov::MutexLock lock(zov::mapCacheMutex);
  zov::_releasePtr(region);
}

int32_t zov_shmCacheLock(ZOV_CACHE_CTX context) {
  zov::shmEnterForCaller(zov::shmOf(context));
  return ZOV_OKAY;
}

void zov_shmCacheUnlock(ZOV_CACHE_CTX context) {
  zov::shmLeave(zov::shmOf(context));
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
  zov::mapCacheMutex = zov::createMutex(zov::LockKind::kMapCache, ZOV_HERE);
  if (zov::mapCacheMutex == ZOV_NO_SYNC) {
    zov_shmTerm();
    return ZOV_ERROR;
  }
  return ZOV_OKAY;
}

int32_t zov_shmCacheTerm() {
  {
    const zov::MutexLock lock(zov::mapCacheMutex);
    zov::contexts.clear();
    zov::mru = nullptr;
    zov::numMapped = 0;
  }
  zov_syncDelete(zov::mapCacheMutex);
  zov::mapCacheMutex = ZOV_NO_SYNC;
  zov_shmTerm();
  return ZOV_OKAY;
}
}
