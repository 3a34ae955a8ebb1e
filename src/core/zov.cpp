// SPDX-License-Identifier: Apache-2.0
//
// Start-up and shut-down, which know every module and lie above them all.
// Start-up runs the inits of the modules in the order of a table and, when one
// fails, the undo actions of those before it in reverse; the init that fails
// cleans up after itself. Shut-down has an order of its own, because every sync
// object is destroyed in one go before the memory goes that their table lives
// in.
//
// Both happen in the process-wide critical section. Nothing here jumps:
// allocations during start-up come from tags that no program can have armed yet.
#include <stddef.h>

#include <iterator>

#include "core/zov_flags.h"
#include "core/zovmem_private.h"
#include "core/zovqueue_private.h"
#include "files/zovunix_tmpdir.h"
#include "text/zov_console_private.h"

namespace {

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
  zov_freeMem(zov::zov_tmp.exchange(nullptr, std::memory_order_acquire), ZOV_DEFAULT_TAG);
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

}  // namespace

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
}
