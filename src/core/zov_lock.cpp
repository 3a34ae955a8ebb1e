// SPDX-License-Identifier: Apache-2.0
//
// The check of the ranks in an asserting build; other builds have nothing of it.
// Each thread keeps a record of the ranked locks it holds, in the order it took
// them:
//
//   heldLocks[0 .. numHeld - 1]     {address of the lock, kind}
//
// A recursive mutex is recorded once, at its first entry. Locks that a thread has
// for its caller leave the record when they are handed over, so it never holds more
// than the library nests. A lock that is left by another thread than the one that
// took it would stay, but the library does that with none that it keeps.
#include "core/zov_lock.h"

#ifndef NDEBUG

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

namespace {

using zov::LockKind;

struct LockRank {
  uint32_t rank;
  const char *name;
};

// By LockKind.
constexpr LockRank ranks[] = {
    {0, "an unranked mutex"},
    {1, "globalMutex"},
    {2, "iniSem"},
    {3, "queueTabMutex"},
    {4, "a queue's read mutex"},
    {5, "a queue's list mutex"},
    {6, "an output stack's mutex"},
    {7, "a file's lock"},
    {8, "mapCacheMutex"},
    {9, "the heap's sem"},
    {10, "a pool's mutex"},
    {10, "dirMutex"},
    {11, "a tag's mutex"},
    {12, "tagTabSem"},
    {13, "an event's mutex"},
    {14, "semTabMutex"},
};

struct HeldLock {
  const void *lock;
  LockKind kind;
};

// More than there are ranks, as two files' locks may nest.
constexpr uint32_t kMostHeld = 20;

constinit thread_local HeldLock heldLocks[kMostHeld] = {};
constinit thread_local uint32_t numHeld = 0;

const LockRank &rankOf(LockKind kind) {
  return ranks[static_cast<uint8_t>(kind)];
}

// A move in memory holds the locks of two directories.
bool mayNest(LockKind outer, LockKind inner) {
  return rankOf(outer).rank < rankOf(inner).rank ||
         (outer == LockKind::kFile && inner == LockKind::kFile);
}

[[noreturn]] void stop(const char *what, LockKind held) {
  fprintf(stderr, "Lock order: %s while %s (rank %u) is held\n", what, rankOf(held).name,
          rankOf(held).rank);
  abort();
}

}  // namespace

void zov::checkLock(LockKind kind) {
  for (uint32_t index = 0; kind != LockKind::kUnranked && index < numHeld; ++index) {
    if (!mayNest(heldLocks[index].kind, kind)) {
      char what[64];
      snprintf(what, sizeof what, "%s (rank %u) is taken", rankOf(kind).name, rankOf(kind).rank);
      stop(what, heldLocks[index].kind);
    }
  }
}

void zov::recordLock(const void *lock, LockKind kind) {
  if (kind != LockKind::kUnranked) {
    assert(numHeld < kMostHeld);
    heldLocks[numHeld++] = {lock, kind};
  }
}

void zov::forgetLock(const void *lock) {
  HeldLock *end = std::remove_if(heldLocks, heldLocks + numHeld,
                                 [lock](const HeldLock &held) { return held.lock == lock; });
  numHeld = static_cast<uint32_t>(end - heldLocks);
}

void zov::forgetLock(ZOV_SYNC mutex) {
  forgetLock(reinterpret_cast<const void *>(mutex));
}

// Start-up runs in the process-wide critical section, when no tag can be armed
// yet; a program that is in it answers for its own jumps.
void zov::checkAllocation() {
  for (uint32_t index = 0; noJumpDepth == 0 && index < numHeld; ++index) {
    if (heldLocks[index].kind != LockKind::kGlobal) {
      stop("memory is taken without a NoJump", heldLocks[index].kind);
    }
  }
}

#endif
