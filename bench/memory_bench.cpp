// SPDX-License-Identifier: Apache-2.0
//
// Allocation: a block taken and given back, on each kind of tag and from libc.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>

#include <memory_resource>

#include "zov.h"

namespace {

constexpr int kHeldBlocks = 1000;

void sizes(benchmark::internal::Benchmark *bench) {
  bench->Arg(16)->Arg(64)->Arg(256);
}

template <typename Source>
void Pairs(benchmark::State &state) {
  const uint64_t size = static_cast<uint64_t>(state.range(0));
  Source source;
  for (auto _ : state) {
    void *block = source.get(size);
    benchmark::DoNotOptimize(block);
    source.put(block);
  }
}

struct Malloc {
  void *get(uint64_t size) { return malloc(size); }
  void put(void *block) { free(block); }
};

pthread_mutex_t sharedMutex = PTHREAD_MUTEX_INITIALIZER;

// What a tag with a mutex cannot go below.
struct LockedMalloc {
  void *get(uint64_t size) {
    pthread_mutex_lock(&sharedMutex);
    void *block = malloc(size);
    pthread_mutex_unlock(&sharedMutex);
    return block;
  }
  void put(void *block) {
    pthread_mutex_lock(&sharedMutex);
    free(block);
    pthread_mutex_unlock(&sharedMutex);
  }
};

// Each thread's own tag, with a mutex or without.
template <uint32_t kFlags>
class Tag {
 public:
  Tag() {
    zov_init();
    tag_ = zov_createTagEx(nullptr, kFlags, ZOV_HERE);
  }
  ~Tag() {
    zov_freeTagMemory(tag_, 1);
    zov_term();
  }
  Tag(const Tag &) = delete;
  Tag &operator=(const Tag &) = delete;
  void *get(uint64_t size) { return zov_getMem(size, tag_, ZOV_MEM_PLAIN, nullptr, ZOV_HERE); }
  void put(void *block) { zov_freeMem(block, tag_); }

 private:
  ZOV_TAG tag_;
};

// The default tag, which all threads share.
struct DefaultTag {
  DefaultTag() { zov_init(); }
  ~DefaultTag() { zov_term(); }
  void *get(uint64_t size) {
    return zov_getMem(size, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  }
  void put(void *block) { zov_freeMem(block, ZOV_DEFAULT_TAG); }
};

using PlainTag = Tag<0>;
using LockedTag = Tag<ZOV_TAG_THREADSAFE>;

BENCHMARK_TEMPLATE(Pairs, Malloc)->Name("allocate-free/malloc")->Apply(sizes);
BENCHMARK_TEMPLATE(Pairs, PlainTag)->Name("allocate-free/zov")->Apply(sizes);
BENCHMARK_TEMPLATE(Pairs, LockedMalloc)->Name("allocate-free-mutex/malloc")->Apply(sizes);
BENCHMARK_TEMPLATE(Pairs, LockedTag)->Name("allocate-free-mutex/zov")->Apply(sizes);

#define ZOV_SHARED(source, name) \
  BENCHMARK_TEMPLATE(Pairs, source)->Name(name)->Arg(64)->ThreadRange(1, 4)->UseRealTime()
ZOV_SHARED(Malloc, "allocate-free-threads/malloc");
ZOV_SHARED(LockedTag, "allocate-free-threads/zov");
ZOV_SHARED(LockedMalloc, "allocate-free-shared/malloc");
ZOV_SHARED(DefaultTag, "allocate-free-shared/zov");

// A thousand blocks taken, then given back in the same order: what the records
// of a tag cost when blocks do not come and go one at a time.
void MallocMany(benchmark::State &state) {
  void *blocks[kHeldBlocks];
  for (auto _ : state) {
    for (void *&block : blocks) {
      block = malloc(64);
    }
    for (void *block : blocks) {
      free(block);
    }
  }
  state.SetItemsProcessed(state.iterations() * kHeldBlocks);
}
BENCHMARK(MallocMany)->Name("allocate-free-1000/malloc");
BENCHMARK(MallocMany)->Name("release-1000/malloc");

void TagMany(benchmark::State &state) {
  zov_init();
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  void *blocks[kHeldBlocks];
  for (auto _ : state) {
    for (void *&block : blocks) {
      block = zov_getMem(64, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
    }
    for (void *block : blocks) {
      zov_freeMem(block, tag);
    }
  }
  state.SetItemsProcessed(state.iterations() * kHeldBlocks);
  zov_term();
}
BENCHMARK(TagMany)->Name("allocate-free-1000/zov");

void TagManyAtOnce(benchmark::State &state) {
  zov_init();
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  for (auto _ : state) {
    for (int count = 0; count < kHeldBlocks; ++count) {
      benchmark::DoNotOptimize(zov_getMem(64, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
    }
    zov_freeTagMemory(tag, 0);
  }
  state.SetItemsProcessed(state.iterations() * kHeldBlocks);
  zov_term();
}
BENCHMARK(TagManyAtOnce)->Name("release-1000/zov");

// An arena, whose blocks can only be released together.
void Arena(benchmark::State &state) {
  std::pmr::monotonic_buffer_resource arena;
  for (auto _ : state) {
    for (int count = 0; count < kHeldBlocks; ++count) {
      benchmark::DoNotOptimize(arena.allocate(64));
    }
    arena.release();
  }
  state.SetItemsProcessed(state.iterations() * kHeldBlocks);
}
BENCHMARK(Arena)->Name("release-1000/std-arena");

}  // namespace
