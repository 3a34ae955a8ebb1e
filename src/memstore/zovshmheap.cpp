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
// A context has its lock from a successful open on, until the mapping cache has
// closed it and drops the lock: files that nobody uses take no sync object. A thread
// that calls zov_shmLock() past the cache makes it again. A lock that is held or
// waited for stays until it is dropped the next time.
//
// sem guards liveContexts, and root and lock while they change. A context's regions
// are guarded by the mapping cache above, which makes every call on them under its
// own mutex; the tags are without mutex for that reason. The context's lock is not
// used here: it belongs to the users of the memory. The tags are never armed, so
// nothing jumps; what allocates under sem does so with jumps held off.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>

#include <atomic>

#include "memstore/zovshmheap_private.h"

#include "core/zov_flags.h"
#include "core/zov_lock.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zovmem_private.h"
#include "core/zovuxthreads_private.h"
#include "memstore/zovshm_private.h"

// 1. The record lives in its own tag, with the root block, the table and the
//    regions, and is gone when the tag is released.
// 2. lock is 0 while it is away, and always while root is null.
// 3. lockUsers counts the threads that are inside zov_shmLock() or have returned
//    from it and not left the lock.
// 4. A thread counts itself there and then reads lock; shmDropLock() takes lock out
//    and then reads the count. These four are seq_cst, so that one of the two sees
//    the other. Elsewhere lock is released when it is made and acquired by its user,
//    and a thread releases its count when it has left the lock.
// 5. hashNext belongs to liveContexts.
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

namespace zov {
namespace {

constexpr uint32_t kPageSize = 4096;

// A context that had so many bytes is large. libc keeps the memory of large blocks
// once some were freed, until it is told to give it back.
constexpr uint64_t kLargeBytes = 16 << 20;

// Rank 9: liveContexts.
ZOV_SYNC sem = ZOV_NO_SYNC;
IdTable<ShmContext> liveContexts ZOV_GUARDED_BY(sem);

uint64_t rootCtx = 0;

void link(ShmContext *context) {
  const NoJump noJump;
  const MutexLock lock(sem);
  liveContexts.insert(context, ZOV_HERE);
}

// Makes a context and returns its id, or 0 when memory is short.
uint64_t getContext() {
  const ZOV_TAG tag = createPlainTag();
  if (tag == ZOV_NO_TAG) {
    return 0;
  }
  ShmContext *context = make<ShmContext>(tag, ZOV_HERE);
  if (context == nullptr) {
    zov_freeTagMemory(tag, 1);
    return 0;
  }
  context->tag = tag;
  link(context);
  return context->hashId();
}

// Gives a context its lock if it has none.
bool makeLock(ShmContext &context) ZOV_REQUIRES(sem) {
  if (context.lock.load(std::memory_order_relaxed) != 0) {
    return true;
  }
  const ZOV_SYNC lock = zov::createMutex(zov::LockKind::kFile, ZOV_HERE);
  if (lock == ZOV_NO_SYNC) {
    return false;
  }
  context.lock.store(lock, std::memory_order_release);
  return true;
}

// Gives a context its root block and then its lock, so that none is seen that a
// shortage takes back.
bool createCtx(ShmContext &context, uint32_t size) ZOV_REQUIRES(sem) {
  void *root = makeZeroArray<char>(size, context.tag, ZOV_HERE);
  if (root == nullptr || !makeLock(context)) {
    zov_freeMem(root, context.tag);
    return false;
  }
  context.root = root;
  return true;
}

// Opens a context, which has its lock then.
bool openCtx(ShmContext *context, uint32_t flags, uint32_t size) ZOV_REQUIRES(sem) {
  if (context != nullptr && context->root != nullptr) {
    return makeLock(*context);
  }
  assert(context == nullptr || context->lock.load(std::memory_order_relaxed) == 0);
  if (context == nullptr || (flags & O_CREAT) == 0) {
    errno = ENOENT;
    return false;
  }
  return createCtx(*context, size);
}

// The lock of a context that the caller has open.
ZOV_SYNC lockOf(ZOV_SHM_CTX context) ZOV_RETURNS_LOCK(context) {
  return context->lock.load(std::memory_order_acquire);
}

// The lock of a context for a thread that lockUsers counts; 0 when it has none and
// none can be made.
ZOV_SYNC lockForUser(ZOV_SHM_CTX context) {
  const ZOV_SYNC lock = context->lock.load(std::memory_order_seq_cst);
  if (lock != 0) {
    return lock;
  }
  const NoJump noJump;
  const MutexLock guard(sem);
  const bool made = context->root != nullptr && makeLock(*context);
  return made ? context->lock.load(std::memory_order_relaxed) : 0;
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

uint64_t shmRootWord(uint64_t id, size_t offset, uint64_t missing) {
  if (sem == ZOV_NO_SYNC) {
    return missing;
  }
  const MutexLock lock(sem);
  const ShmContext *context = liveContexts.find(id);
  if (context == nullptr || context->root == nullptr) {
    return missing;
  }
  return loadRelaxed(*reinterpret_cast<uint64_t *>(static_cast<char *>(context->root) + offset));
}

void shmEnter(ZOV_SHM_CTX context) {
  zov_syncEnterExcl(lockOf(context));
}

void shmEnterForCaller(ZOV_SHM_CTX context) {
  shmEnter(context);
  forgetLock(lockOf(context));
}

void shmLeave(ZOV_SHM_CTX context) {
  zov_syncExitExcl(lockOf(context));
}

void shmDropLock(ZOV_SHM_CTX context) {
  ZOV_SYNC lock = 0;
  {
    const MutexLock guard(sem);
    lock = context->lock.exchange(0, std::memory_order_seq_cst);
    assert(lock != 0);
    if (context->lockUsers.load(std::memory_order_seq_cst) != 0 || isEntered(lock)) {
      context->lock.store(lock, std::memory_order_release);
      return;
    }
  }
  zov_syncDelete(lock);
}

ZOV_SHM_CTX shmDetach(uint64_t id) {
  if (sem == ZOV_NO_SYNC) {
    return nullptr;
  }
  const MutexLock lock(sem);
  ShmContext *context = liveContexts.find(id);
  if (context != nullptr) {
    liveContexts.remove(context);
  }
  return context;
}

void shmRelease(ZOV_SHM_CTX context) {
  if (context == nullptr) {
    return;
  }
  const bool large = isLarge(*context);
  releaseContext(context);
  if (large) {
    giveMemoryBack();
  }
}

bool shmReserve(ZOV_SHM_CTX context, uint32_t number) {
  return context->regions.reserve(number, 0, context->tag, ZOV_HERE) != nullptr;
}

uint32_t shmHighestRegion(ZOV_SHM_CTX context, uint32_t end) {
  return context->regions.highestBelow(end);
}

}  // namespace zov

extern "C" {

uint64_t zov_shmRootId() {
  return zov::rootCtx;
}

uint64_t zov_shmNextId() {
  return zov::sem == ZOV_NO_SYNC ? 0 : zov::getContext();
}

ZOV_SHM_CTX zov_shmOpenCtx(uint64_t id, uint32_t flags, uint32_t rootSize, void **root) {
  if (zov::sem == ZOV_NO_SYNC) {
    return nullptr;
  }
  const zov::NoJump noJump;
  const zov::MutexLock lock(zov::sem);
  ShmContext *context = zov::liveContexts.find(id);
  if (!zov::openCtx(context, flags, rootSize)) {
    return nullptr;
  }
  if (rootSize != 0 && root != nullptr) {
    *root = context->root;
  }
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
  *slot = reinterpret_cast<ZOV_SHM_REGION>(zov::makeZeroArray<char>(size, context->tag, ZOV_HERE));
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

// May fail, and the analysis does not follow a comparison with ZOV_OKAY: so this
// and zov_shmUnlock() have no annotation.
int32_t zov_shmLock(ZOV_SHM_CTX context) ZOV_NO_ANALYSIS {
  context->lockUsers.fetch_add(1, std::memory_order_seq_cst);
  const ZOV_SYNC lock = zov::lockForUser(context);
  if (lock == 0) {
    context->lockUsers.fetch_sub(1, std::memory_order_relaxed);
    return ZOV_ERROR;
  }
  zov_syncEnterExcl(lock);
  zov::forgetLock(lock);  // it is the caller's
  return ZOV_OKAY;
}

void zov_shmUnlock(ZOV_SHM_CTX context) ZOV_NO_ANALYSIS {
  // shmDropLock() may have taken the lock out to look at its users, one of them here.
  zov_syncExitExcl(zov::lockForUser(context));
  [[maybe_unused]] const uint32_t users =
      context->lockUsers.fetch_sub(1, std::memory_order_release);
  assert(users > 0);
}

int32_t zov_shmInit(uint32_t *pageSize) {
  zov::sem = zov::createMutex(zov::LockKind::kHeap, ZOV_HERE);
  if (zov::sem == ZOV_NO_SYNC) {
    return ZOV_ERROR;
  }
  zov::rootCtx = zov::getContext();
  if (zov::rootCtx == 0) {
    zov_shmTerm();
    return ZOV_ERROR;
  }
  *pageSize = zov::kPageSize;
  return ZOV_OKAY;
}

void zov_shmTerm() {
  // At shut-down the tags are about to go anyway, and faster in their own order.
  const bool tagsGo = zov::terminating();
  bool large = false;
  {
    const zov::MutexLock lock(zov::sem);
    zov::liveContexts.drain([tagsGo, &large](ShmContext *context) {
      if (!tagsGo || zov::isLarge(*context)) {
        large = zov::isLarge(*context) || large;
        zov::releaseContext(context);
      }
    });
  }
  if (large) {
    zov::giveMemoryBack();
  }
  zov_syncDelete(zov::sem);
  zov::sem = ZOV_NO_SYNC;
  zov::rootCtx = 0;
}
}
