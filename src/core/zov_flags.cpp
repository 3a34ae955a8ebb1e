// SPDX-License-Identifier: Apache-2.0
//
// The process-wide flags, which order nothing, and the process-wide critical
// section, for work that must happen once per process. It is not recursive and is
// held for the whole of start-up and shut-down, so no init or term may enter it.
// Nothing here allocates or jumps.
#include "core/zov_flags.h"

#include "core/zov_lock.h"

int32_t zov_inited = 0;
int32_t zov_terminating = 0;
int32_t zov_readonly = 0;
int32_t zov_diskless = 0;
int32_t zov_background = 0;
const char *server_name = "unknown";

namespace {

// Rank 1: start-up, shut-down, and what else must happen once per process.
pthread_mutex_t globalMutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

extern "C" {

void zov_rdonly() {
  zov::storeFlag(zov_readonly, 1);
}

void zov_nodisk() {
  zov::storeFlag(zov_diskless, 1);
}

int32_t zov_enterCritSec() {
  return zov::lockPosix(globalMutex, zov::LockKind::kGlobal);
}

int32_t zov_exitCritSec() {
  return zov::unlockPosix(globalMutex);
}
}
