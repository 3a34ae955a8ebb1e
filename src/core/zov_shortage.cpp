// SPDX-License-Identifier: Apache-2.0
//
// Shortages and their messages. A message that has to wait stands in three
// words of its thread. No locks; nothing here allocates from a tag or jumps.
#include "core/zov_shortage.h"

#include <errno.h>

namespace zov {
constinit thread_local int32_t noJumpDepth = 0;
constinit thread_local Shortage heldShortage = Shortage::kNone;
}  // namespace zov

namespace {

// The place of the shortage that waits. Source names are literals here: what
// allocates under a lock is the library itself.
constinit thread_local const char *heldSourceName = nullptr;
constinit thread_local uint32_t heldLine = 0;

// Leaves errno, which tells the caller of what failed.
void logShortage(zov::Shortage what, const char *sourceName, uint32_t line) {
  const int error = errno;
  switch (what) {
    case zov::Shortage::kMemory:
      zov_log("Out of memory. Called from %s:%u\n", sourceName, line);
      break;
    case zov::Shortage::kSyncObjects:
      zov_log("Insufficient number of semaphores, called from %s:%d\n", sourceName,
              static_cast<int>(line));
      break;
    case zov::Shortage::kNone:
      break;
  }
  errno = error;
}

}  // namespace

void zov::reportShortage(Shortage what, const char *sourceName, uint32_t line) {
  if (heldShortage != Shortage::kNone) {
    return;
  }
  heldShortage = what;
  heldSourceName = sourceName;
  heldLine = line;
  if (noJumpDepth == 0) {
    releaseHeldShortage();
  }
}

void zov::releaseHeldShortage() {
  // Raised and still held, so that nothing that writes the message jumps or
  // reports a shortage of its own.
  ++noJumpDepth;
  logShortage(heldShortage, heldSourceName, heldLine);
  --noJumpDepth;
  heldShortage = Shortage::kNone;
}
