// SPDX-License-Identifier: Apache-2.0
//
// The bottom of the memory storage: contexts with a root block and numbered
// regions, in the form of a shared-memory facility but in the process's own
// memory. Every block of a context, its record included, is of the context's own
// tag, so that releasing the tag releases the context:
//
//   liveContexts: id -> ShmContext
//             tag, lock, root block, regions by number
//
// A context's id is the address of its record, and a region's handle the address
// of its block. Ids come from callers, so an id is looked up in liveContexts
// before it is taken for an address.
//
// A context's lock is there from a successful open on, for as long as the mapping
// cache has it open: the cache drops it then, so that sync objects are for the files
// that are in use. Who comes without the cache, by zov_shmLock(), has it made again;
// a lock that somebody holds or waits for stays until it is dropped the next time.
//
// sem guards liveContexts, and root and lock while they change. A context's regions
// are guarded by the mapping cache above, which makes every call on them under its
// own mutex; the tags are without mutex for that reason. The context's lock is not
// used here: it belongs to whoever uses the memory. The tags are never armed, so
// nothing jumps; what allocates under sem does so with jumps held off.
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>

#include <atomic>

#include "memstore/zovshmheap_private.h"

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zovmem_private.h"
#include "core/zovuxthreads_private.h"
#include "memstore/zovshm_private.h"

// 1. The record lives in its own tag, with the root block, the table and the
//    regions, and is gone when the tag is released.
// 2. lock is 0 while it is away, and always while root is null.
// 3. lockUsers counts who is inside zov_shmLock() or behind it. A user is counted
//    before it reads lock, and lock is taken out before the users are looked at: one
//    of the two sees the other.
// 4. hashNext belongs to liveContexts.
struct ShmContext {
  ZOV_TAG tag;
  std::atomic<ZOV_SYNC> lock;  // Rank 7: the root block and the bytes of the regions
  void *root;                  // the root block, null until the first creating open
  zov::SlotTable<ZOV_SHM_REGION> regions;
  uint64_t regionBytes;  // of all regions ever made
  ShmContext *hashNext;
  std::atomic<uint32_t> lockUsers;

  uint64_t hashId() const { return reinterpret_cast<uint64_t>(this); }
};

namespace {

constexpr uint32_t kPageSize = 4096;

// A context that had so much or more is large: libc keeps the memory of blocks of
// that size once it has seen some freed, until it is told to give it back.
constexpr uint64_t kLargeBytes = 16 << 20;

// Rank 9: liveContexts.
ZOV_SYNC sem = ZOV_NO_SYNC;
zov::IdTable<ShmContext> liveContexts;

uint64_t rootCtx = 0;

void link(ShmContext *context) {
  const zov::NoJump noJump;
  zov_syncEnterExcl(sem);
  liveContexts.insert(context);
  zov_syncExitExcl(sem);
}

// Makes a context and gives its id, or 0.
uint64_t getContext() {
  const ZOV_TAG tag = zov::createPlainTag();
  if (tag == ZOV_NO_TAG) {
    return 0;
  }
  ShmContext *context = zov::make<ShmContext>(tag, ZOV_HERE);
  if (context == nullptr) {
    zov_freeTagMemory(tag, 1);
    return 0;
  }
  context->tag = tag;
  link(context);
  return context->hashId();
}

// Gives a context its lock if it is away. The caller holds sem.
bool makeLock(ShmContext &context) {
  if (context.lock.load(std::memory_order_relaxed) != 0) {
    return true;
  }
  const ZOV_SYNC lock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  if (lock == ZOV_NO_SYNC) {
    return false;
  }
  context.lock.store(lock, std::memory_order_release);
  return true;
}

// Gives a context its root block, and its lock before it. The caller holds sem.
bool createCtx(ShmContext &context, uint32_t size) {
  if (!makeLock(context)) {
    return false;
  }
  context.root = zov::makeZeroArray<char>(size, context.tag, ZOV_HERE);
  if (context.root == nullptr) {
    zov_syncDelete(context.lock.exchange(0));
  }
  return context.root != nullptr;
}

// Opens a context whose lock then is there. The caller holds sem.
bool openCtx(ShmContext *context, uint32_t flags, uint32_t size) {
  if (context != nullptr && context->root != nullptr) {
    return makeLock(*context);
  }
  if (context == nullptr || (flags & O_CREAT) == 0) {
    errno = ENOENT;
    return false;
  }
  return createCtx(*context, size);
}

// The lock of a context for a counted user; 0 when there is none.
ZOV_SYNC lockForUser(ShmContext &context) {
  const ZOV_SYNC lock = context.lock.load();
  if (lock != 0) {
    return lock;
  }
  const zov::NoJump noJump;
  zov_syncEnterExcl(sem);
  const bool made = context.root != nullptr && makeLock(context);
  const ZOV_SYNC current = made ? context.lock.load() : 0;
  zov_syncExitExcl(sem);
  return current;
}

bool isLarge(const ShmContext &context) {
  return context.regionBytes >= kLargeBytes;
}

// Releases a context that is out of reach.
void releaseContext(ShmContext *context) {
  zov_syncDelete(context->lock.load(std::memory_order_relaxed));
  zov_freeTagMemory(context->tag, 1);
}

void giveMemoryBack() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

}  // namespace

uint64_t zov::shmRootWord(uint64_t id, size_t offset, uint64_t missing) {
  if (sem == ZOV_NO_SYNC) {
    return missing;
  }
  zov_syncEnterExcl(sem);
  const ShmContext *context = liveContexts.find(id);
  uint64_t word = missing;
  if (context != nullptr && context->root != nullptr) {
    uint64_t *place = reinterpret_cast<uint64_t *>(static_cast<char *>(context->root) + offset);
    word = std::atomic_ref<uint64_t>(*place).load(std::memory_order_relaxed);
  }
  zov_syncExitExcl(sem);
  return word;
}

void zov::shmEnter(ZOV_SHM_CTX context) ZOV_NO_ANALYSIS {
  zov_syncEnterExcl(context->lock.load(std::memory_order_acquire));
}

void zov::shmLeave(ZOV_SHM_CTX context) ZOV_NO_ANALYSIS {
  zov_syncExitExcl(context->lock.load(std::memory_order_relaxed));
}

void zov::shmDropLock(ZOV_SHM_CTX context) {
  zov_syncEnterExcl(sem);
  const ZOV_SYNC lock = context->lock.exchange(0);
  const bool used = context->lockUsers.load() != 0 || isEntered(lock);
  if (used) {
    context->lock.store(lock);
  }
  zov_syncExitExcl(sem);
  if (!used) {
    zov_syncDelete(lock);
  }
}

ZOV_SHM_CTX zov::shmDetach(uint64_t id) {
  if (sem == ZOV_NO_SYNC) {
    return nullptr;
  }
  zov_syncEnterExcl(sem);
  ShmContext *context = liveContexts.find(id);
  if (context != nullptr) {
    liveContexts.remove(context);
  }
  zov_syncExitExcl(sem);
  return context;
}

void zov::shmRelease(ZOV_SHM_CTX context) {
  if (context == nullptr) {
    return;
  }
  const bool large = isLarge(*context);
  releaseContext(context);
  if (large) {
    giveMemoryBack();
  }
}

bool zov::shmReserve(ZOV_SHM_CTX context, uint32_t number) {
  return context->regions.reserve(number, 0, context->tag, ZOV_HERE) != nullptr;
}

uint32_t zov::shmHighestRegion(ZOV_SHM_CTX context, uint32_t end) {
  return context->regions.highestBelow(end);
}

extern "C" {

uint64_t zov_shmRootId() {
  return rootCtx;
}

uint64_t zov_shmNextId() {
  return sem == ZOV_NO_SYNC ? 0 : getContext();
}

ZOV_SHM_CTX zov_shmOpenCtx(uint64_t id, uint32_t flags, uint32_t rootSize, void **root) {
  if (sem == ZOV_NO_SYNC) {
    return nullptr;
  }
  const zov::NoJump noJump;
  zov_syncEnterExcl(sem);
  ShmContext *context = liveContexts.find(id);
  if (!openCtx(context, flags, rootSize)) {
    context = nullptr;
  } else if (rootSize != 0 && root != nullptr) {
    *root = context->root;
  }
  zov_syncExitExcl(sem);
  return context;
}

void zov_shmCloseCtx(ZOV_SHM_CTX) {}

void zov_shmRemoveCtx(ZOV_SHM_CTX context) {
  zov::shmRelease(zov::shmDetach(reinterpret_cast<uint64_t>(context)));
}

ZOV_SHM_REGION zov_shmCreate(ZOV_SHM_CTX context, uint32_t number, uint64_t, uint32_t size) {
  if (context == nullptr || number == UINT32_MAX) {
    return nullptr;
  }
  ZOV_SHM_REGION *slot = context->regions.reserve(number, 0, context->tag, ZOV_HERE);
  if (slot == nullptr) {
    context->regions = {};
    return nullptr;
  }
  *slot =
      static_cast<ZOV_SHM_REGION>(zov_getMem(size, context->tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  context->regionBytes += *slot == nullptr ? 0 : size;
  return *slot;
}

ZOV_SHM_REGION zov_shmOpen(ZOV_SHM_CTX context, uint32_t number, uint64_t, uint32_t) {
  return context == nullptr ? nullptr : context->regions.get(number);
}

void zov_shmClose(ZOV_SHM_REGION) {}

void zov_shmDestroy(ZOV_SHM_CTX context, uint32_t number) {
  ZOV_SHM_REGION *slot = context == nullptr ? nullptr : context->regions.find(number);
  if (slot != nullptr) {
    zov_freeMem(*slot, context->tag);
    *slot = nullptr;
  }
}

void *zov_shmGetPtr(ZOV_SHM_REGION region) {
  return region;
}

void zov_shmReleasePtr(ZOV_SHM_REGION, void *) {}

int32_t zov_shmLock(ZOV_SHM_CTX context) ZOV_NO_ANALYSIS {
  context->lockUsers.fetch_add(1);
  const ZOV_SYNC lock = lockForUser(*context);
  if (lock == 0) {
    context->lockUsers.fetch_sub(1);
    return ZOV_ERROR;
  }
  zov_syncEnterExcl(lock);
  return ZOV_OKAY;
}

void zov_shmUnlock(ZOV_SHM_CTX context) ZOV_NO_ANALYSIS {
  // The lock may be out for a look at its users, of whom this is one.
  zov_syncExitExcl(lockForUser(*context));
  context->lockUsers.fetch_sub(1);
}

int32_t zov_shmInit(uint32_t *pageSize) {
  sem = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  if (sem == ZOV_NO_SYNC) {
    return ZOV_ERROR;
  }
  liveContexts.clear();
  rootCtx = getContext();
  if (rootCtx == 0) {
    zov_shmTerm();
    return ZOV_ERROR;
  }
  *pageSize = kPageSize;
  return ZOV_OKAY;
}

void zov_shmTerm() {
  // At shut-down the tags are about to go anyway, and faster in their own order.
  const bool tagsGo = zov::terminating();
  bool large = false;
  liveContexts.drain([tagsGo, &large](ShmContext *context) {
    if (!tagsGo || isLarge(*context)) {
      large = isLarge(*context) || large;
      releaseContext(context);
    }
  });
  if (large) {
    giveMemoryBack();
  }
  zov_syncDelete(sem);
  sem = ZOV_NO_SYNC;
  rootCtx = 0;
}
}
