// SPDX-License-Identifier: Apache-2.0
//
// The operating system's stage of start-up, process identity, the interrupt hook and
// the service entry points, which have no service behind them on this system.
//
// Start-up changes three things for the whole process and for good: the limit on
// open descriptors is raised, standard descriptors that are closed are filled, and
// SIGPIPE is ignored. It also sets up a list head with its mutex, for the programs
// built on the library, which itself never looks at them.
//
// The interrupt hook is one callback, which a signal handler calls; it is kept
// in an atomic that needs no lock. Nothing here allocates from a tag or jumps.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>

#include "os/zovunix_limit.h"
#include "os/zovunix_standard.h"
#include "zov.h"

void *deviceHead = nullptr;
// Not ranked: the library never takes it. Guards deviceHead.
ZOV_SYNC deviceSem = ZOV_NO_SYNC;

namespace zov {
namespace {

std::atomic<ZOV_INTERRUPT> interrupt_fcn = nullptr;
static_assert(decltype(interrupt_fcn)::is_always_lock_free, "read by a signal handler");

// A limit that cannot be read or raised stays.
void raiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit = raisedLimit(limit);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// Drops the interrupts that arrive while the callback runs. SIGINT is blocked
// then, so one of them waits; ignoring it anew discards it.
void handler(int) {
  const int error = errno;  // not by KeepErrno, as the callback may jump
  signal(SIGINT, SIG_IGN);
  const ZOV_INTERRUPT callback = interrupt_fcn.load(std::memory_order_relaxed);
  if (callback != nullptr) {
    callback();
  }
  signal(SIGINT, SIG_IGN);
  signal(SIGINT, handler);
  errno = error;
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_osInit() {
  zov::raiseDescriptorLimit();
  zov::fillStandard();
  deviceHead = nullptr;
  deviceSem = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  if (deviceSem == ZOV_NO_SYNC) {
    return ZOV_ERROR;
  }
  signal(SIGPIPE, SIG_IGN);
  return ZOV_OKAY;
}

void zov_osTerm() {
  zov_syncDelete(deviceSem);
  deviceSem = ZOV_NO_SYNC;
}

uint32_t zov_get_pid() {
  return static_cast<uint32_t>(getpid());
}

int32_t zov_check_pid(uint32_t pid) {
  // kill() takes these for groups of processes.
  if (pid == 0 || pid > INT32_MAX) {
    return 0;
  }
  // Any failure but "no such process" means a process that may not be signalled.
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH ? 1 : 0;
}

int32_t zov_handleInterrupt(ZOV_INTERRUPT callback) {
  // Empties the hook as well when there is no callback: this may be called from the
  // old one, after which the zov::handler installs itself again.
  zov::interrupt_fcn.store(callback, std::memory_order_relaxed);
  signal(SIGINT, callback == nullptr ? SIG_IGN : zov::handler);
  return ZOV_OKAY;
}

int32_t zov_errPrint(const char *text) {
  return puts(text);
}

int32_t zov_serviceStart(const void *, const void *, int32_t argumentCount, char **arguments,
                         ZOV_SERVICE_MAIN mainFunction) {
  return mainFunction(argumentCount, arguments);
}

void zov_serviceStarted() {}

void zov_serviceDone() {}

int32_t zov_serviceInstall() {
  return ZOV_ERROR;
}

int32_t zov_serviceUninstall() {
  return ZOV_ERROR;
}
}
