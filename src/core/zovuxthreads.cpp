// SPDX-License-Identifier: Apache-2.0
//
// Sync objects: recursive mutexes and manual-reset events in one process-wide
// table. A handle is the address of a slot. Slots come in blocks of 1024,
// allocated from the default tag when first needed and released at shut-down;
// each block's free slots form a stack linked by index:
//
//   sem_table[0..127] -> block of 1024 SyncSlot
//        firstFree  ---> slot.nextFree ---> slot.nextFree ---> kEndOfFree
//
// semTabMutex guards the table and the free stacks and nothing else. It is
// never held while a block is allocated or an object is entered or waited on.
// A slot's other fields belong to the threads that have its handle; those that are
// read without a lock (kind, owner, recursionCount, signalled) are atomics. They
// are relaxed, but for signalled.
//
// zov_syncCreate_check() is the only call that allocates. It holds jumps off, since
// its caller may have made half of something else.
#include <assert.h>
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <new>

#include "core/zov_flags.h"
#include "core/zov_lock.h"
#include "core/zov_shortage.h"
#include "core/zovuxthreads_private.h"

namespace {

constexpr uint32_t kTableEntries = 128;
constexpr uint32_t kBlockSlots = 1024;
constexpr size_t kCacheLine = 64;
constexpr uint16_t kEndOfFree = 65535;
constexpr uint16_t kInUse = 65534;

// Rank 14, innermost: sem_table, the free stacks in it and firstWithRoom.
zov::PosixMutex<zov::LockKind::kSyncTable> semTabMutex = {PTHREAD_MUTEX_INITIALIZER};

struct SyncBlockEntry;

// A thread's identity: the address of a thread-local of its own, which costs
// no call to read. 0 is no thread.
using ThreadId = uintptr_t;

using EventMutex = zov::PosixMutex<zov::LockKind::kEvent>;

// 1. kind is 0 while the slot is free; nextFree is kInUse exactly while it is
//    handed out.
// 2. Of a mutex, recursionCount and owner are written by the thread inside, or by
//    one that leaves in its place. Both are 0 for ever where it is entered directly.
// 3. A slot shares no cache line with another: threads that each have a mutex of
//    their own would wait for that line in turns. All of a mutex is in the first.
// 4. signalled is seq_cst in zov_syncStart() and zov_syncResume(). The sleeper of a
//    queue resets it and then reads the queue's flags; the closer writes the flags
//    and then sets it. In one order of all four, one of the two sees the other. A
//    wait acquires what the thread that signalled did before.
struct alignas(kCacheLine) SyncSlot {
  union {
    pthread_mutex_t mutex;     // kind 1
    pthread_cond_t condition;  // kind 2
  };
  std::atomic<int32_t> recursionCount;
  std::atomic<uint16_t> kind;
  uint16_t nextFree ZOV_GUARDED_BY(semTabMutex);
  union {
    std::atomic<ThreadId> owner;  // kind 1
    EventMutex eventMutex;        // kind 2, rank 13: guards signalled while it is set
  };
  std::atomic<int32_t> signalled;
#ifndef NDEBUG
  zov::LockKind lockKind;  // kind 1
#endif
  SyncBlockEntry *block;
};

static_assert(offsetof(SyncSlot, owner) + sizeof(ThreadId) <= kCacheLine);

// Blocks are allocated zero-filled, which is a free slot of kind 0.
struct SyncBlockEntry {
  SyncSlot *slots ZOV_GUARDED_BY(semTabMutex);
  void *memory ZOV_GUARDED_BY(semTabMutex);  // the slots begin at its first cache line
  uint16_t firstFree ZOV_GUARDED_BY(semTabMutex);
};

SyncBlockEntry sem_table[kTableEntries] ZOV_GUARDED_BY(semTabMutex);

// Where a free slot is looked for first: every entry in front of it has a block
// without one. Spares a create the walk past full blocks.
SyncBlockEntry *firstWithRoom ZOV_GUARDED_BY(semTabMutex) = sem_table;

constinit thread_local char threadAnchor = 0;

ThreadId currentThread() {
  return reinterpret_cast<ThreadId>(&threadAnchor);
}

SyncSlot *slotOf(ZOV_SYNC handle) {
  return reinterpret_cast<SyncSlot *>(handle);
}

ZOV_SYNC handleOf(SyncSlot &slot) {
  return reinterpret_cast<ZOV_SYNC>(&slot);
}

// 0 and ZOV_NO_SYNC, the handles that stand for no object at all.
bool isAbsent(ZOV_SYNC handle) {
  return handle + 1 < 2;
}

bool isKind(ZOV_SYNC handle, uint16_t kind) {
  return !isAbsent(handle) && slotOf(handle)->kind.load(std::memory_order_relaxed) == kind;
}

void *newBlock() {
  const zov::NoJump noJump;
  return zov_getMem(sizeof(SyncSlot) * kBlockSlots + kCacheLine, ZOV_DEFAULT_TAG, ZOV_MEM_ZERO,
                    nullptr, ZOV_HERE);
}

SyncSlot *slotsIn(void *memory) {
  const uintptr_t behind = reinterpret_cast<uintptr_t>(memory) + kCacheLine - 1;
  return reinterpret_cast<SyncSlot *>(behind - behind % kCacheLine);
}

// Links a new block's slots into a free stack in index order.
void attachBlock(SyncBlockEntry &entry, void *memory) ZOV_REQUIRES(semTabMutex) {
  assert(entry.slots == nullptr);
  SyncSlot *slots = slotsIn(memory);
  for (uint32_t index = 0; index < kBlockSlots; ++index) {
    slots[index].nextFree = static_cast<uint16_t>(index + 1);
    slots[index].block = &entry;
  }
  slots[kBlockSlots - 1].nextFree = kEndOfFree;
  entry.slots = slots;
  entry.memory = memory;
  entry.firstFree = 0;
}

SyncSlot *popFreeSlot(SyncBlockEntry &entry) ZOV_REQUIRES(semTabMutex) {
  assert(entry.firstFree < kBlockSlots);
  SyncSlot *slot = &entry.slots[entry.firstFree];
  entry.firstFree = slot->nextFree;
  slot->nextFree = kInUse;
  assert(slot->block == &entry && slot->kind.load(std::memory_order_relaxed) == 0);
  return slot;
}

// The first entry that has a free slot or no block yet.
SyncBlockEntry *findEntry() ZOV_REQUIRES(semTabMutex) {
  for (; firstWithRoom != std::end(sem_table); ++firstWithRoom) {
    if (firstWithRoom->slots == nullptr || firstWithRoom->firstFree != kEndOfFree) {
      return firstWithRoom;
    }
  }
  return nullptr;
}

// Start-up and shut-down run alone. Shut-down frees memory, which no thread may do
// under semTabMutex.
void assumeAlone() ZOV_ASSERT_HELD(semTabMutex) {}

// Takes a slot, or null when there is none. A missing block is allocated with
// the lock released, as the default tag's mutex ranks lower. A thread that then
// finds that another was faster drops its block.
SyncSlot *semGetNewEntry(const char *sourceName, uint32_t line) {
  void *spare = nullptr;
  SyncSlot *slot = nullptr;
  semTabMutex.enter();
  SyncBlockEntry *entry = findEntry();
  while (entry != nullptr && entry->slots == nullptr) {
    if (spare != nullptr) {
      attachBlock(*entry, spare);
      spare = nullptr;
      break;
    }
    semTabMutex.leave();
    spare = newBlock();
    if (spare == nullptr) {
      return nullptr;
    }
    semTabMutex.enter();
    entry = findEntry();
  }
  if (entry != nullptr) {
    slot = popFreeSlot(*entry);
  }
  semTabMutex.leave();
  zov_freeMem(spare, ZOV_DEFAULT_TAG);
  if (slot == nullptr) {
    errno = ENFILE;
    zov::reportShortage(zov::Shortage::kSyncObjects, sourceName, line);
  }
  return slot;
}

void putBack(SyncSlot &slot) {
  SyncBlockEntry &entry = *slot.block;
  semTabMutex.enter();
  assert(slot.nextFree == kInUse && &slot >= entry.slots && &slot < entry.slots + kBlockSlots);
  slot.nextFree = entry.firstFree;
  entry.firstFree = static_cast<uint16_t>(&slot - entry.slots);
  firstWithRoom = std::min(firstWithRoom, &entry);
  semTabMutex.leave();
}

bool initMutex(SyncSlot &slot) {
  slot.recursionCount.store(0, std::memory_order_relaxed);
  new (&slot.owner) std::atomic<ThreadId>(0);
  zov::setLockKind(handleOf(slot), zov::LockKind::kUnranked);
  return pthread_mutex_init(&slot.mutex, nullptr) == 0;
}

bool initEvent(SyncSlot &slot) {
  if (pthread_mutex_init(&slot.eventMutex.posix, nullptr) != 0) {
    return false;
  }
  if (pthread_cond_init(&slot.condition, nullptr) != 0) {
    pthread_mutex_destroy(&slot.eventMutex.posix);
    return false;
  }
  slot.signalled.store(1, std::memory_order_relaxed);
  return true;
}

void destroyObjects(SyncSlot &slot) {
  switch (slot.kind.load(std::memory_order_relaxed)) {
    case ZOV_SYNC_MUTEX:
      pthread_mutex_destroy(&slot.mutex);
      break;
    case ZOV_SYNC_EVENT:
      pthread_mutex_destroy(&slot.eventMutex.posix);
      pthread_cond_destroy(&slot.condition);
      break;
    default:
      break;
  }
}

// A function of its own, so that a thread that enters again needs no stack frame.
[[gnu::noinline]] void lockMutex(SyncSlot &slot) {
  zov::lockPosix(slot.mutex, zov::lockKindOf(handleOf(slot)));
  assert(slot.recursionCount.load(std::memory_order_relaxed) < 1);
  slot.owner.store(currentThread(), std::memory_order_relaxed);
  slot.recursionCount.store(1, std::memory_order_relaxed);
}

// Waits for the event whose mutex is held; false when the time ran out.
bool waitSignalled(SyncSlot &slot, uint32_t waitMs) ZOV_REQUIRES(slot.eventMutex) {
  const auto sleep = [&slot, waitMs](pthread_mutex_t *mutex) {
    return waitMs == ZOV_WAIT_FOREVER ? pthread_cond_wait(&slot.condition, mutex)
                                      : zov_posix_cond_timedwait(&slot.condition, mutex, waitMs);
  };
  bool timedOut = false;
  while (!timedOut && slot.signalled.load(std::memory_order_acquire) == 0) {
    timedOut = slot.eventMutex.sleep(sleep) != 0 && waitMs != ZOV_WAIT_FOREVER;
  }
  return !timedOut;
}

}  // namespace

// enterDirectly() takes a handle for its slot's POSIX mutex.
static_assert(offsetof(SyncSlot, mutex) == 0);

#ifndef NDEBUG
void zov::setLockKind(ZOV_SYNC mutex, LockKind kind) {
  slotOf(mutex)->lockKind = kind;
}

zov::LockKind zov::lockKindOf(ZOV_SYNC mutex) {
  return slotOf(mutex)->lockKind;
}
#endif

bool zov::isEntered(ZOV_SYNC mutex) {
  assert(isKind(mutex, ZOV_SYNC_MUTEX));
  return slotOf(mutex)->recursionCount.load(std::memory_order_relaxed) != 0;
}

bool zov::isEnteredHere(ZOV_SYNC mutex) {
  return isEntered(mutex) &&  // GCOVR_EXCL_BR_LINE: only assertions ask, of locks they need
         slotOf(mutex)->owner.load(std::memory_order_relaxed) == currentThread();
}

extern "C" {

ZOV_SYNC zov_syncCreate_check(int32_t kind, const char *sourceName, uint32_t line) {
  if (!zov::started()) {
    return ZOV_NO_SYNC;
  }
  SyncSlot *slot = semGetNewEntry(sourceName, line);
  if (slot == nullptr) {
    return ZOV_NO_SYNC;
  }
  if (kind != ZOV_SYNC_MUTEX && kind != ZOV_SYNC_EVENT) {
    // The slot is not put back: a wrong kind is a programming error.
    zov_log("Invalid semaphore type\n");
    return ZOV_NO_SYNC;
  }
  if (!(kind == ZOV_SYNC_MUTEX ? initMutex(*slot) : initEvent(*slot))) {
    putBack(*slot);
    return ZOV_NO_SYNC;
  }
  slot->kind.store(static_cast<uint16_t>(kind), std::memory_order_relaxed);
  return handleOf(*slot);
}

void zov_syncDelete(ZOV_SYNC handle) {
  if (isAbsent(handle)) {
    return;
  }
  SyncSlot &slot = *slotOf(handle);
  destroyObjects(slot);
  slot.kind.store(0, std::memory_order_relaxed);
  putBack(slot);
}

void zov_syncEnterExcl(ZOV_SYNC handle) ZOV_NO_ANALYSIS {
  if (!isKind(handle, ZOV_SYNC_MUTEX)) [[unlikely]] {
    zov_log("Invalid mutex\n");
    return;
  }
  SyncSlot &slot = *slotOf(handle);
  const int32_t count = slot.recursionCount.load(std::memory_order_relaxed);
  // A thread that is not inside never finds itself here, even in old values: no
  // other thread writes its identity, and it is taken out before the mutex is left.
  if (count != 0 && slot.owner.load(std::memory_order_relaxed) == currentThread()) {
    assert(count > 0);
    slot.recursionCount.store(count + 1, std::memory_order_relaxed);
    return;
  }
  lockMutex(slot);
}

void zov_syncExitExcl(ZOV_SYNC handle) ZOV_NO_ANALYSIS {
  if (!isKind(handle, ZOV_SYNC_MUTEX)) [[unlikely]] {
    zov_log("Invalid mutex\n");
    return;
  }
  SyncSlot &slot = *slotOf(handle);
  const int32_t count = slot.recursionCount.load(std::memory_order_relaxed) - 1;
  slot.recursionCount.store(count, std::memory_order_relaxed);
  if (count < 1) {
    slot.owner.store(0, std::memory_order_relaxed);
    zov::unlockPosix(slot.mutex);
  }
}

void zov_syncStart(ZOV_SYNC handle) {
  if (!isKind(handle, ZOV_SYNC_EVENT)) {
    zov_log("Invalid event\n");
    return;
  }
  slotOf(handle)->signalled.store(0, std::memory_order_seq_cst);
}

void zov_syncResume(ZOV_SYNC handle) {
  if (!isKind(handle, ZOV_SYNC_EVENT)) {
    zov_log("Invalid event\n");
    return;
  }
  SyncSlot &slot = *slotOf(handle);
  slot.eventMutex.enter();
  slot.signalled.store(1, std::memory_order_seq_cst);
  pthread_cond_broadcast(&slot.condition);
  slot.eventMutex.leave();
}

int32_t zov_syncWait(ZOV_SYNC handle, uint32_t waitMs) {
  if (!isKind(handle, ZOV_SYNC_EVENT)) {
    zov_log("Invalid event\n");
    return ZOV_ERROR;
  }
  SyncSlot &slot = *slotOf(handle);
  slot.eventMutex.enter();
  const bool signalled = waitSignalled(slot, waitMs);
  slot.eventMutex.leave();
  return signalled ? ZOV_OKAY : ZOV_TIMEOUT;
}

int32_t zov_posix_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                 uint32_t waitMs) {
  constexpr int64_t kNsPerSecond = 1'000'000'000;
  timeval now = {};
  gettimeofday(&now, nullptr);
  int64_t seconds = now.tv_sec + waitMs / 1000;
  int64_t nanoseconds = int64_t{waitMs % 1000} * 1'000'000 + int64_t{now.tv_usec} * 1000;
  // Exactly one second stays as it is. libc answers that with EINVAL, which
  // counts as a wake-up, and the caller's loop asks again with a later clock.
  if (nanoseconds > kNsPerSecond) {
    seconds += nanoseconds / kNsPerSecond;
    nanoseconds %= kNsPerSecond;
  }
  const timespec deadline{seconds, nanoseconds};
  const int result = pthread_cond_timedwait(condition, mutex, &deadline);
  return result == ETIMEDOUT || result == ETIME ? 1 : 0;
}

int32_t zov_syncInit() {
  assumeAlone();
  for (SyncBlockEntry &entry : sem_table) {
    entry = SyncBlockEntry{};
  }
  firstWithRoom = sem_table;
  return ZOV_OKAY;
}

void zov_syncShutdown() {
  assumeAlone();
  for (SyncBlockEntry &entry : sem_table) {
    if (entry.slots == nullptr) {
      continue;
    }
    for (uint32_t index = 0; index < kBlockSlots; ++index) {
      if (entry.slots[index].nextFree == kInUse) {
        destroyObjects(entry.slots[index]);
      }
    }
    zov_freeMem(entry.memory, ZOV_DEFAULT_TAG);
  }
}

void zov_syncTerm() {}
}
