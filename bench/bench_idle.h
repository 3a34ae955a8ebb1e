// SPDX-License-Identifier: Apache-2.0
//
// A thread that does nothing, for benchmarks of what takes locks: libc's own are
// cheaper while a process has a single thread.
#ifndef BENCH_BENCH_IDLE_H
#define BENCH_BENCH_IDLE_H

#include <unistd.h>

#include "zov.h"

inline void *benchIdle(void *) {
  for (;;) {
    pause();
  }
}

// Starts the thread at the first call, for the rest of the process. The library
// is started.
inline void startIdleThread() {
  static bool started = false;
  if (!started) {
    started = zov_threadBegin(benchIdle, 0, nullptr) == ZOV_OKAY;
  }
}

#endif
