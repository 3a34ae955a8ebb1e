// SPDX-License-Identifier: Apache-2.0
//
// What the library's own locks have in common: their ranks, which ARCHITECTURE.md
// lists, the annotations that Clang's analysis reads, and the ways to hold one.
//
//   createMutex()                    makes a mutex of the table with its rank
//   MutexLock                        holds one for a scope in which nothing jumps
//   enterDirectly(), leaveDirectly() hold one that is never entered twice
//   PosixMutex                       a plain POSIX mutex with its rank
//
// An asserting build knows the locks that each thread holds. It stops, with a
// message on stderr, at a lock that is taken against the ranks, and at memory that
// is taken from a tag under a lock while nothing holds jumps off.
#ifndef ZOV_CORE_ZOV_LOCK_H
#define ZOV_CORE_ZOV_LOCK_H

#include <assert.h>
#include <pthread.h>

#include "core/zov_shortage.h"

// The annotations that the public header has no use for.
#if defined(__clang__)
#define ZOV_ANNOTATE(attribute) __attribute__((attribute))
#else
#define ZOV_ANNOTATE(attribute)
#endif
// Takes a function out of the analysis: where a lock is taken on a condition, or
// handed over.
#define ZOV_NO_ANALYSIS ZOV_ANNOTATE(no_thread_safety_analysis)
#define ZOV_SCOPED_CAPABILITY ZOV_ANNOTATE(scoped_lockable)
#define ZOV_GUARDED_BY(mutex) ZOV_ANNOTATE(guarded_by(mutex))
#define ZOV_REQUIRES(...) ZOV_ANNOTATE(requires_capability(__VA_ARGS__))
#define ZOV_TRY_ACQUIRE(...) ZOV_ANNOTATE(try_acquire_capability(__VA_ARGS__))
#define ZOV_ASSERT_HELD(...) ZOV_ANNOTATE(assert_capability(__VA_ARGS__))
#define ZOV_RETURNS_LOCK(mutex) ZOV_ANNOTATE(lock_returned(mutex))

namespace zov {

// The locks of the library, in the order of the table in ARCHITECTURE.md. A mutex
// that a program makes has no rank and is not checked.
enum class LockKind : uint8_t {
  kUnranked,
  kGlobal,
  kIni,
  kQueueTable,
  kQueueReader,
  kQueueList,
  kOutputStack,
  kFile,
  kMapCache,
  kHeap,
  kPool,
  kDirectories,
  kTag,
  kTagTable,
  kEvent,
  kSyncTable,
};

#ifdef NDEBUG
inline void checkLock(LockKind) {}
inline void recordLock(const void *, LockKind) {}
inline void forgetLock(const void *) {}
inline void forgetLock(ZOV_SYNC) {}
inline void checkAllocation() {}
inline void setLockKind(ZOV_SYNC, LockKind) {}
inline LockKind lockKindOf(ZOV_SYNC) {
  return LockKind::kUnranked;
}
#else
// Stops unless the thread may take a lock of this kind now: before it waits for it.
void checkLock(LockKind kind);

// Records a lock as held.
void recordLock(const void *lock, LockKind kind);

// Takes a lock off the record: the thread is about to leave it, or has it for its
// caller, who may do under it what the ranks forbid. Does nothing for one that is
// not on the record.
void forgetLock(const void *lock);
void forgetLock(ZOV_SYNC mutex);

// Stops when a failing allocation might jump past a lock that the thread holds.
void checkAllocation();

// The rank of a mutex of the table.
void setLockKind(ZOV_SYNC mutex, LockKind kind);
LockKind lockKindOf(ZOV_SYNC mutex);
#endif

// zov_syncCreate_check() for a mutex of the library.
inline ZOV_SYNC createMutex(LockKind kind, const char *sourceName, uint32_t line) {
  const ZOV_SYNC mutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, sourceName, line);
  if (mutex != ZOV_NO_SYNC) {
    setLockKind(mutex, kind);
  }
  return mutex;
}

// Holds a mutex for a scope. What allocates in the scope needs a NoJump around the
// lock, made before it: a jump would pass over the destructor.
class ZOV_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(ZOV_SYNC mutex) ZOV_ACQUIRE(mutex) : mutex_(mutex) {
    zov_syncEnterExcl(mutex);
  }
  ~MutexLock() ZOV_RELEASE() { zov_syncExitExcl(mutex_); }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  const ZOV_SYNC mutex_;
};

// Locks and unlocks a POSIX mutex, and returns what that returned.
inline int lockPosix(pthread_mutex_t &mutex, LockKind kind) {
  checkLock(kind);
  const int error = pthread_mutex_lock(&mutex);
  recordLock(&mutex, kind);
  return error;
}

inline int unlockPosix(pthread_mutex_t &mutex) {
  forgetLock(&mutex);
  return pthread_mutex_unlock(&mutex);
}

// Holds a mutex of the table by its POSIX mutex, which stands first in its slot.
// That saves the test of the handle, the owner and the count of entries. For a
// mutex that nothing but this pair enters, no thread twice, and that is left by the
// thread inside. Not analysed, as the POSIX functions are not annotated.
inline void enterDirectly(ZOV_SYNC mutex) ZOV_ACQUIRE(mutex) ZOV_NO_ANALYSIS {
  lockPosix(*reinterpret_cast<pthread_mutex_t *>(mutex), lockKindOf(mutex));
}

inline void leaveDirectly(ZOV_SYNC mutex) ZOV_RELEASE(mutex) ZOV_NO_ANALYSIS {
  unlockPosix(*reinterpret_cast<pthread_mutex_t *>(mutex));
}

// A POSIX mutex that is not in the table. Not recursive.
template <LockKind kind>
struct ZOV_CAPABILITY("mutex") PosixMutex {
  pthread_mutex_t posix;

  void enter() ZOV_ACQUIRE() ZOV_NO_ANALYSIS { lockPosix(posix, kind); }

  void leave() ZOV_RELEASE() ZOV_NO_ANALYSIS { unlockPosix(posix); }

  // Calls wait(&posix), which sleeps on a condition, with the mutex left meanwhile.
  template <typename Wait>
  int sleep(Wait wait) ZOV_REQUIRES(this) {
    forgetLock(&posix);
    const int error = wait(&posix);
    recordLock(&posix, kind);
    return error;
  }
};

}  // namespace zov

#endif
