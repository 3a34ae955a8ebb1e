// SPDX-License-Identifier: Apache-2.0
//
// Pools beside malloc() and free(), for chunks of some sizes: one chunk in and
// out, and a hundred out and then in, which is more than libc keeps at hand per
// thread. The plain pool takes no lock, as one thread's own needs none.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>

#include "zov.h"

namespace {

constexpr int64_t kChunks = 100;

void start(const benchmark::State &) {
  zov_init();
}

void stop(const benchmark::State &) {
  zov_term();
}

class Malloc {
 public:
  void *get(size_t size) { return malloc(size); }
  void put(void *chunk) { free(chunk); }
};

template <bool kThreadSafe>
class Pool {
 public:
  Pool() : pool_(zov_allocPool(ZOV_DEFAULT_TAG, 1, kThreadSafe)) {}
  ~Pool() { zov_zFreePool(&pool_); }
  Pool(const Pool &) = delete;
  Pool &operator=(const Pool &) = delete;
  void *get(size_t size) {
    return zov_getMemFromPool(size, pool_, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  }
  void put(void *chunk) { zov_putInPool(chunk, pool_); }

 private:
  ZOV_POOL pool_;
};

using PlainPool = Pool<false>;
using LockedPool = Pool<true>;

template <typename Source>
void GetPut(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Source source;
  for (auto _ : state) {
    void *chunk = source.get(size);
    benchmark::DoNotOptimize(chunk);
    source.put(chunk);
  }
}

template <typename Source>
void Burst(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Source source;
  void *chunks[kChunks];
  for (auto _ : state) {
    for (void *&chunk : chunks) {
      chunk = source.get(size);
    }
    benchmark::DoNotOptimize(chunks);
    for (void *chunk : chunks) {
      source.put(chunk);
    }
  }
  state.SetItemsProcessed(state.iterations() * kChunks);
}

// What a pool with a mutex cannot go below: two pairs of lock and unlock.
class TwoPairs {
 public:
  void *get(size_t) { return pair(); }
  void put(void *) { pair(); }

 private:
  void *pair() {
    pthread_mutex_lock(&mutex_);
    pthread_mutex_unlock(&mutex_);
    return this;
  }

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

#define ZOV_BENCH(scenario, source, name) \
  BENCHMARK_TEMPLATE(scenario, source)->Name(name)->Arg(64)->Arg(4096)->Setup(start)->Teardown(stop)

ZOV_BENCH(GetPut, Malloc, "pool-get-put/malloc");
ZOV_BENCH(GetPut, PlainPool, "pool-get-put/zov");
ZOV_BENCH(GetPut, TwoPairs, "pool-get-put-mutex/mutex-pairs");
ZOV_BENCH(GetPut, LockedPool, "pool-get-put-mutex/zov");
ZOV_BENCH(Burst, Malloc, "pool-burst/malloc");
ZOV_BENCH(Burst, PlainPool, "pool-burst/zov");
ZOV_BENCH(Burst, LockedPool, "pool-burst-mutex/zov");

}  // namespace
