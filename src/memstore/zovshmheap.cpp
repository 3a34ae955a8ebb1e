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
// sem guards liveContexts. A context's regions are guarded by the
// mapping cache above, which makes every call on them under its own mutex; the
// tags are without mutex for that reason. The context's lock is not used here:
// it belongs to whoever uses the memory. The tags are never armed, so nothing
// jumps; liveContexts grows with jumps held off.
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>

#include <atomic>

#include "memstore/zovshmheap_private.h"

#include "core/zov_private.h"
#include "memstore/zovshm_private.h"

// 1. The record lives in its own tag, with the root block, the table and the
//    regions, and is gone when the tag is released.
// 2. lock is 0 exactly while root is null.
// 3. hashNext belongs to liveContexts.
struct ShmContext {
  ZOV_TAG tag;
  ZOV_SYNC lock;  // Rank 7: the root block and the bytes of the regions
  void *root;     // the root block, null until the first creating open
  zov::SlotTable<ZOV_SHM_REGION> regions;
  uint64_t regionBytes;  // of all regions ever made
  ShmContext *hashNext;

  uint64_t hashId() const { return reinterpret_cast<uint64_t>(this); }
};

namespace {

constexpr uint32_t kPageSize = 4096;

// A context that had more than this is large: libc keeps the memory of blocks of
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

ShmContext *findContext(uint64_t id) {
  if (sem == ZOV_NO_SYNC) {
    return nullptr;
  }
  zov_syncEnterExcl(sem);
  ShmContext *context = liveContexts.find(id);
  zov_syncExitExcl(sem);
  return context;
}

// Makes a context and gives its id, or 0.
uint64_t getContext() {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  if (tag == ZOV_NO_TAG) {
    return 0;
  }
  ShmContext *context = static_cast<ShmContext *>(
      zov_getMem(sizeof(ShmContext), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (context == nullptr) {
    zov_freeTagMemory(tag, 1);
    return 0;
  }
  context->tag = tag;
  link(context);
  return context->hashId();
}

void reportRoot(const ShmContext &context, uint32_t size, void **root) {
  if (size != 0 && root != nullptr) {
    *root = context.root;
  }
}

// Whether the context has a root block, whose address it then reports.
bool openCtx(const ShmContext &context, uint32_t size, void **root) {
  if (context.root == nullptr) {
    return false;
  }
  reportRoot(context, size, root);
  return true;
}

// Gives the context its root block and its lock. The lock comes first: a root
// block shows that both are there.
bool createCtx(ShmContext &context, uint32_t size, void **root) {
  const ZOV_SYNC lock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  if (lock == ZOV_NO_SYNC) {
    return false;
  }
  void *block = zov_getMem(size, context.tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE);
  if (block == nullptr) {
    zov_syncDelete(lock);
    return false;
  }
  context.lock = lock;
  context.root = block;
  reportRoot(context, size, root);
  return true;
}

// Releases a context that is out of reach. True for a large one.
bool releaseContext(ShmContext *context) {
  const bool large = context->regionBytes > kLargeBytes;
  zov_syncDelete(context->lock);
  zov_freeTagMemory(context->tag, 1);
  return large;
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
  if (context != nullptr && releaseContext(context)) {
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
  ShmContext *context = findContext(id);
  if (context != nullptr && openCtx(*context, rootSize, root)) {
    return context;
  }
  if (context == nullptr || (flags & O_CREAT) == 0) {
    errno = ENOENT;
    return nullptr;
  }
  return createCtx(*context, rootSize, root) ? context : nullptr;
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
  if (context->lock == 0) {
    return ZOV_ERROR;
  }
  zov_syncEnterExcl(context->lock);
  return ZOV_OKAY;
}

void zov_shmUnlock(ZOV_SHM_CTX context) ZOV_NO_ANALYSIS {
  zov_syncExitExcl(context->lock);
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
  bool large = false;
  liveContexts.drain([&large](ShmContext *context) { large = releaseContext(context) || large; });
  if (large) {
    giveMemoryBack();
  }
  zov_syncDelete(sem);
  sem = ZOV_NO_SYNC;
  rootCtx = 0;
}
}
