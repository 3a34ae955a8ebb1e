// SPDX-License-Identifier: Apache-2.0
//
// Shortages and their messages. A message that has to wait stands in three
// words of its thread. No locks; nothing here allocates from a tag or jumps.
#include "core/zov_shortage.h"

#include "core/zov_word.h"

namespace zov {
constinit thread_local int32_t noJumpDepth = 0;
constinit thread_local Shortage HeldShortage::kind = Shortage::kNone;
}  // namespace zov

namespace {

// The place of the shortage that waits. The name is a literal: under a lock only
// the library itself allocates.
constinit thread_local const char *heldSourceName = nullptr;
constinit thread_local uint32_t heldLine = 0;

// Leaves errno, by which the caller of the failed call learns why.
void logShortage(zov::Shortage what, const char *sourceName, uint32_t line) {
  const zov::KeepErrno keepErrno;
  assert(what != zov::Shortage::kNone);
  if (what == zov::Shortage::kMemory) {
    zov_log("Out of memory. Called from %s:%u\n", sourceName, line);
  } else {
    zov_log("Insufficient number of semaphores, called from %s:%d\n", sourceName,
            static_cast<int>(line));
  }
}

}  // namespace

void zov::reportShortage(Shortage what, const char *sourceName, uint32_t line) {
  if (HeldShortage::kind != Shortage::kNone) {
    return;
  }
  HeldShortage::kind = what;
  heldSourceName = sourceName;
  heldLine = line;
  if (noJumpDepth == 0) {
    releaseHeldShortage();
  }
}

void zov::releaseHeldShortage() {
  assert(HeldShortage::kind != Shortage::kNone && noJumpDepth == 0);
  // Raised and still held, so that nothing that writes the message jumps or
  // reports a shortage of its own.
  ++noJumpDepth;
  logShortage(HeldShortage::kind, heldSourceName, heldLine);
  --noJumpDepth;
  HeldShortage::kind = Shortage::kNone;
}
