// SPDX-License-Identifier: Apache-2.0
//
// What happens when memory or sync objects run out while a lock of the library
// is held: nothing jumps, and the message waits until the lock is left. The
// state is a few words of each thread.
#ifndef ZOV_CORE_ZOV_SHORTAGE_H
#define ZOV_CORE_ZOV_SHORTAGE_H

#include <assert.h>

#include "zov.h"

namespace zov {

// What can run out, each with its message.
enum class Shortage : uint8_t { kNone, kMemory, kSyncObjects };

// Reports a shortage at the place named. While a NoJump is live the
// message waits for the outermost one to end: its way may lead through locks
// that rank below those held, down to a file in memory that the log goes to.
// Of several in that time the first is reported, and none that is met by what
// writes the message.
void reportShortage(Shortage what, const char *sourceName, uint32_t line);

// Raised while this thread holds a lock of the library around something that
// allocates: a failing allocation then returns null and never jumps past the
// unlock. Counts, so that it nests.
extern constinit thread_local int32_t noJumpDepth;

// Reports the shortage that waits.
void releaseHeldShortage();

// The kind of the shortage that waits to be reported, for this module alone: any
// allocation since the outermost NoJump may have met it, one that was tolerated too,
// so it says nothing about why a call failed.
class HeldShortage {
  friend void reportShortage(Shortage what, const char *sourceName, uint32_t line);
  friend void releaseHeldShortage();
  friend void allowJumps();
  friend class Unreported;

  static constinit thread_local Shortage kind;
};

// Around a lock, where the two ends stand in functions of their own: before it
// is entered, and after it is left.
inline void holdJumps() {
  ++noJumpDepth;
}

inline void allowJumps() {
  assert(noJumpDepth > 0);
  if (--noJumpDepth == 0 && HeldShortage::kind != Shortage::kNone) [[unlikely]] {
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

// While one is live, under a NoJump, shortages are not reported: for work that only
// makes later work faster.
class Unreported {
 public:
  Unreported() : before_(HeldShortage::kind) {}
  ~Unreported() { HeldShortage::kind = before_; }
  Unreported(const Unreported &) = delete;
  Unreported &operator=(const Unreported &) = delete;

 private:
  Shortage before_;
};

}  // namespace zov

#endif
