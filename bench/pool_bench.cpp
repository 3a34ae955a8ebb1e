// SPDX-License-Identifier: Apache-2.0
//
// Pools beside malloc() and free() and the standard library's pools, for chunks of
// some sizes: one chunk in and out, and a hundred out and then in, which is more than
// libc keeps at hand per thread. The plain pool takes no lock, as one thread's own
// needs none; -mutex is the other kind, and -shared that one on several threads.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>

#include <memory_resource>

#include "bench_rows.h"
#include "zov.h"

namespace {

constexpr int64_t kChunks = 100;

struct Malloc {
  static constexpr char kName[] = "malloc";
  void *get(size_t size) { return malloc(size); }
  void put(void *chunk, size_t) { free(chunk); }
};

// Its chunks are given back with their size, so it looks nothing up.
template <typename Resource>
struct StdPool {
  static constexpr char kName[] = "std-pool";
  void *get(size_t size) { return resource.allocate(size); }
  void put(void *chunk, size_t size) { resource.deallocate(chunk, size); }
  Resource resource;
};

// What a pool with a mutex cannot go below: two pairs of lock and unlock.
class TwoPairs {
 public:
  static constexpr char kName[] = "mutex-pairs";
  void *get(size_t) { return pair(); }
  void put(void *, size_t) { pair(); }

 private:
  void *pair() {
    pthread_mutex_lock(&mutex_);
    pthread_mutex_unlock(&mutex_);
    return this;
  }

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

template <bool kThreadSafe>
class Pool {
 public:
  static constexpr char kName[] = "zov";
  Pool() : pool_(zov_allocPool(ZOV_DEFAULT_TAG, 1, kThreadSafe)) {}
  ~Pool() { zov_zFreePool(&pool_); }
  Pool(const Pool &) = delete;
  Pool &operator=(const Pool &) = delete;
  void *get(size_t size) {
    return zov_getMemFromPool(size, pool_, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  }
  void put(void *chunk, size_t) { zov_putInPool(chunk, pool_); }

 private:
  ZOV_POOL pool_;
};

template <typename Source>
void GetPut(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Source &source = *common<Source>;
  for (auto _ : state) {
    void *chunk = source.get(size);
    if (chunk == nullptr) [[unlikely]] {
      state.SkipWithError("no chunk");
      break;
    }
    benchmark::DoNotOptimize(chunk);
    source.put(chunk, size);
  }
}

template <typename Source>
void Burst(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Source &source = *common<Source>;
  void *chunks[kChunks];
  for (auto _ : state) {
    for (void *&chunk : chunks) {
      chunk = source.get(size);
    }
    benchmark::DoNotOptimize(chunks);
    for (void *chunk : chunks) {
      source.put(chunk, size);
    }
  }
  state.SetItemsProcessed(state.iterations() * kChunks);
}

template <typename Source>
void startStop(benchmark::internal::Benchmark *row) {
  withCommon<Source, startLibraries, stopLibraries>(row->Arg(64));
}

void largeToo(benchmark::internal::Benchmark *row) {
  row->Arg(4096);
}

template <typename Source>
bool addPlain() {
  return addRows(
      Source::kName,
      {{"pool-get-put", GetPut<Source>, largeToo}, {"pool-burst", Burst<Source>, largeToo}},
      startStop<Source>);
}

template <typename Source>
bool addLocked() {
  return addRows(Source::kName,
                 {{"pool-get-put-mutex", GetPut<Source>, largeToo},
                  {"pool-get-put-shared", GetPut<Source>, onThreads}},
                 startStop<Source>);
}

const bool added = addPlain<Malloc>() && addPlain<Pool<false>>() &&
                   addPlain<StdPool<std::pmr::unsynchronized_pool_resource>>() &&
                   addLocked<TwoPairs>() && addLocked<Pool<true>>() &&
                   addLocked<StdPool<std::pmr::synchronized_pool_resource>>();

}  // namespace
