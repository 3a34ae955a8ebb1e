// SPDX-License-Identifier: Apache-2.0
//
// A thread that does nothing. libc's own locks are cheaper while a process has a
// single thread; servers have several, so every benchmark has a second one.
#ifndef BENCH_BENCH_IDLE_H
#define BENCH_BENCH_IDLE_H

#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

// Starts the thread, for the rest of the process.
inline void startIdleThread() {
  const auto idle = [](void *) -> void * {
    for (;;) {
      pause();
    }
  };
  pthread_t thread;
  if (pthread_create(&thread, nullptr, idle, nullptr) != 0) {
    abort();
  }
}

#endif
