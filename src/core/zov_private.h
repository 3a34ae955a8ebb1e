// SPDX-License-Identifier: Apache-2.0
//
// What the modules of the library share about the state of the process: the
// exported flags, which any thread may read while another sets them, and the
// two per-thread counters that keep failing allocations in bounds.
#ifndef ZOV_CORE_ZOV_PRIVATE_H
#define ZOV_CORE_ZOV_PRIVATE_H

#include <setjmp.h>

#include <atomic>

#include "zov.h"

// Takes a function out of the analysis of lock annotations, for locks that are
// taken on a condition.
#if defined(__clang__)
#define ZOV_NO_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define ZOV_NO_ANALYSIS
#endif

namespace zov {

// The exported flags are plain integers to their users; the library itself
// reads and writes them as relaxed atomics. They order nothing.
inline int32_t loadFlag(int32_t &flag) {
  return std::atomic_ref<int32_t>(flag).load(std::memory_order_relaxed);
}

inline void storeFlag(int32_t &flag, int32_t value) {
  std::atomic_ref<int32_t>(flag).store(value, std::memory_order_relaxed);
}

// Below 1 the library is not started: an unmatched zov_term() leaves -1.
inline bool started() {
  return loadFlag(zov_inited) >= 1;
}

inline bool terminating() {
  return loadFlag(zov_terminating) != 0;
}

// What can run out, each with its message.
enum class Shortage : uint8_t { kNone, kMemory, kSyncObjects };

// Reports a shortage met by whoever the place names. While a NoJump is live the
// message waits for the outermost one to end: its way may lead through locks
// that rank below those held, down to a file in memory that the log goes to.
// Of several in that time the first is reported.
void reportShortage(Shortage what, const char *sourceName, uint32_t line);

// The directory for temporary files once it was looked for, in the default tag;
// null before. Set in the process-wide critical section, freed at shut-down.
extern std::atomic<char *> zov_tmp;

// Raised while this thread holds a lock of the library around something that
// allocates: a failing allocation then returns null and never jumps past the
// unlock. Counts, so that it nests.
extern thread_local int32_t noJumpDepth;

// The kind of the shortage that waits to be reported.
extern thread_local Shortage heldShortage;

// Reports the shortage that waits.
void releaseHeldShortage();

// Around a lock, where the two ends stand in functions of their own: before it
// is entered, and after it is left.
inline void holdJumps() {
  ++noJumpDepth;
}

inline void allowJumps() {
  if (--noJumpDepth == 0 && heldShortage != Shortage::kNone) [[unlikely]] {
    releaseHeldShortage();
  }
}

// The same for a scope. Nothing jumps while one is live, so its destructor
// always runs.
class NoJump {
 public:
  NoJump() { holdJumps(); }
  ~NoJump() { allowJumps(); }
  NoJump(const NoJump &) = delete;
  NoJump &operator=(const NoJump &) = delete;
};

// Copies the recovery point of an armed tag. False for a tag that has none, and
// where a failed allocation does not jump whatever the tag.
bool recoveryOf(ZOV_TAG tag, jmp_buf recovery);

// Jumps to a recovery point. Nothing else in the library does. The caller holds
// no lock, and no object with a destructor is alive.
[[noreturn]] void jumpTo(jmp_buf recovery);

// How a call fails that holds something while it allocates from a tag. The work
// runs with jumps held off, and says whether it got what it wants. If it did not
// because memory is short, the call fails through the tag as one allocation
// does: the message goes out and, where the tag is armed, undo() releases what
// the work has left and the jump comes last. Both are lambdas that refer to the
// caller's variables and own nothing.
template <typename Work, typename Undo>
void workOrJump(ZOV_TAG tag, Work work, Undo undo) {
  jmp_buf recovery;
  holdJumps();
  const bool isShort = !work() && heldShortage == Shortage::kMemory;
  const bool jumps = isShort && noJumpDepth == 1 && recoveryOf(tag, recovery);
  if (jumps) {
    undo();
  }
  allowJumps();
  if (jumps) {
    jumpTo(recovery);
  }
}

// The same for work that makes one block, or null with nothing left behind.
template <typename Make>
auto makeOrJump(ZOV_TAG tag, Make make) {
  decltype(make()) made = nullptr;
  workOrJump(
      tag, [&] { return (made = make()) != nullptr; }, [] {});
  return made;
}

// Creates a tag without mutex that is never armed, and whose record is short for
// that: zov_resetTag() is not for it. ZOV_NO_TAG when memory is short.
ZOV_TAG createPlainTag();

// Whether a thread is inside a mutex.
bool isEntered(ZOV_SYNC mutex);

// Takes down the memory module together with every sync object, when start-up
// fails half-way. The objects' table lives in the default tag, so they go
// first, and the frees that follow must not touch the locks any more.
void abandonMemory();

// Forgets a queue module that its program did not end: its queues and its lock
// go with the tags and the sync objects that shut-down is about to destroy.
void abandonQueues();

}  // namespace zov

#endif
