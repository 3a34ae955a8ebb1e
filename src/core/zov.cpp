// SPDX-License-Identifier: Apache-2.0
//
// Start-up, shut-down and the process-wide flags. Start-up runs the inits of
// the modules in the order of a table and, when one fails, the undo actions of
// those before it in reverse; the init that fails cleans up after itself.
// Shut-down has an order of its own, because every sync object is destroyed in
// one go before the memory goes that their table lives in.
//
// globalMutex is the process-wide critical section. It is not recursive and is
// held for the whole of start-up and shut-down, so no init or term may enter
// it. Nothing here jumps: allocations during start-up come from tags that
// nobody can have armed yet.
#include <errno.h>
#include <pthread.h>
#include <stddef.h>

#include <iterator>

#include "core/zov_private.h"
#include "text/zov_console_private.h"

int32_t zov_inited = 0;
int32_t zov_terminating = 0;
int32_t zov_readonly = 0;
int32_t zov_diskless = 0;
int32_t zov_background = 0;
const char *server_name = "unknown";

namespace zov {
std::atomic<char *> zov_tmp = nullptr;
thread_local int32_t noJumpDepth = 0;
thread_local Shortage heldShortage = Shortage::kNone;
}  // namespace zov

namespace {

// The place of the shortage that waits. Source names are literals here: what
// allocates under a lock is the library itself.
thread_local const char *heldSourceName = nullptr;
thread_local uint32_t heldLine = 0;

// Rank 1: start-up, shut-down, and what else must happen once per process.
pthread_mutex_t globalMutex = PTHREAD_MUTEX_INITIALIZER;

struct Stage {
  int32_t (*init)();
  void (*undo)();
};

template <ZOV_FILE_STACK &stack>
void stackTerm() {
  zov_fileStackTerm(&stack);
}

// In the order of start-up.
constexpr Stage stages[] = {
    {zov_syncInit, zov_syncTerm},
    {zov_memInit, zov::abandonMemory},
    {zov_fileInit, zov_fileTerm},
    {zov_iniInit, zov_iniTerm},
    {zov_osInit, zov_osTerm},
    {zov_mfInit, [] { zov_mfTerm(); }},
    {[] { return zov_fileStackInit(&zov::stdoutStack, "stdout"); }, stackTerm<zov::stdoutStack>},
    {[] { return zov_fileStackInit(&zov::stderrStack, "stderr"); }, stackTerm<zov::stderrStack>},
    {[] { return zov_fileStackInit(&zov::logStack, nullptr); }, stackTerm<zov::logStack>},
};

int32_t _zov_init() {
  for (size_t stage = 0; stage < std::size(stages); ++stage) {
    if (stages[stage].init() == ZOV_OKAY) {
      continue;
    }
    while (stage-- > 0) {
      stages[stage].undo();
    }
    return ZOV_ERROR;
  }
  return ZOV_OKAY;
}

void _zov_term() {
  stackTerm<zov::logStack>();
  stackTerm<zov::stdoutStack>();
  stackTerm<zov::stderrStack>();
  zov_freeMem(zov::zov_tmp.exchange(nullptr), ZOV_DEFAULT_TAG);
  zov::storeFlag(zov_terminating, 1);
  zov_mfTerm();
  zov_osTerm();
  zov_iniTerm();
  zov_fileTerm();
  zov::abandonQueues();
  zov_syncShutdown();
  zov_memTerm();
  zov_syncTerm();
  zov::storeFlag(zov_terminating, 0);
}

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
  if (noJumpDepth == 0) {
    logShortage(what, sourceName, line);
  } else if (heldShortage == Shortage::kNone) {
    heldShortage = what;
    heldSourceName = sourceName;
    heldLine = line;
  }
}

void zov::releaseHeldShortage() {
  // Raised and still held, so that what writes the message neither jumps nor
  // reports a shortage of its own.
  ++noJumpDepth;
  logShortage(heldShortage, heldSourceName, heldLine);
  --noJumpDepth;
  heldShortage = Shortage::kNone;
}

extern "C" {

int32_t zov_init() {
  zov_enterCritSec();
  int32_t status = ZOV_OKAY;
  const int32_t users = zov::loadFlag(zov_inited) + 1;
  zov::storeFlag(zov_inited, users);
  if (users == 1) {
    status = _zov_init();
    if (status != ZOV_OKAY) {
      zov::storeFlag(zov_inited, 0);
    }
  }
  zov_exitCritSec();
  return status;
}

void zov_term() {
  zov_enterCritSec();
  const int32_t users = zov::loadFlag(zov_inited);
  if (users == 1) {
    _zov_term();
  }
  zov::storeFlag(zov_inited, users - 1);
  zov_exitCritSec();
}

void zov_rdonly() {
  zov::storeFlag(zov_readonly, 1);
}

void zov_nodisk() {
  zov::storeFlag(zov_diskless, 1);
}

int32_t zov_enterCritSec() {
  return pthread_mutex_lock(&globalMutex);
}

int32_t zov_exitCritSec() {
  return pthread_mutex_unlock(&globalMutex);
}
}
