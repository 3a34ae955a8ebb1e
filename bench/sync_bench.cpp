// SPDX-License-Identifier: Apache-2.0
//
// Recursive mutexes, alone, entered again, and contended, beside POSIX's.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include "zov.h"

namespace {

pthread_mutex_t recursiveMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
ZOV_SYNC mutex = ZOV_NO_SYNC;

void start(const benchmark::State &) {
  zov_init();
  mutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
}

void stop(const benchmark::State &) {
  zov_term();
}

void PthreadRecursive(benchmark::State &state) {
  for (auto _ : state) {
    pthread_mutex_lock(&recursiveMutex);
    pthread_mutex_unlock(&recursiveMutex);
  }
}
BENCHMARK(PthreadRecursive)->ThreadRange(1, 2);

void Zov(benchmark::State &state) {
  for (auto _ : state) {
    zov_syncEnterExcl(mutex);
    zov_syncExitExcl(mutex);
  }
}
BENCHMARK(Zov)->ThreadRange(1, 2)->Setup(start)->Teardown(stop);

void PthreadReentered(benchmark::State &state) {
  pthread_mutex_lock(&recursiveMutex);
  for (auto _ : state) {
    pthread_mutex_lock(&recursiveMutex);
    pthread_mutex_unlock(&recursiveMutex);
  }
  pthread_mutex_unlock(&recursiveMutex);
}
BENCHMARK(PthreadReentered);

void ZovReentered(benchmark::State &state) {
  zov_syncEnterExcl(mutex);
  for (auto _ : state) {
    zov_syncEnterExcl(mutex);
    zov_syncExitExcl(mutex);
  }
  zov_syncExitExcl(mutex);
}
BENCHMARK(ZovReentered)->Setup(start)->Teardown(stop);

}  // namespace
