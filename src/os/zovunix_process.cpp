// SPDX-License-Identifier: Apache-2.0
//
// Process identity.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include "zov.h"

extern "C" {

uint32_t zov_get_pid() {
  return static_cast<uint32_t>(getpid());
}

int32_t zov_check_pid(uint32_t pid) {
  // Any failure but "no such process" means that there is one, which may not
  // be signalled.
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH ? 1 : 0;
}
}
