// SPDX-License-Identifier: Apache-2.0
//
// Allocation: a block taken and given back, on each kind of tag and from libc.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include "zov.h"

namespace {

constexpr int kHeldBlocks = 1000;

void sizes(benchmark::internal::Benchmark *bench) {
  bench->Arg(16)->Arg(64)->Arg(256);
}

void Malloc(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void *block = malloc(size);
    benchmark::DoNotOptimize(block);
    free(block);
  }
}
BENCHMARK(Malloc)->Apply(sizes);

void pairOnTag(benchmark::State &state, ZOV_TAG tag) {
  const uint64_t size = static_cast<uint64_t>(state.range(0));
  for (auto _ : state) {
    void *block = zov_getMem(size, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
    benchmark::DoNotOptimize(block);
    zov_freeMem(block, tag);
  }
}

void TagWithoutMutex(benchmark::State &state) {
  zov_init();
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  pairOnTag(state, tag);
  zov_term();
}
BENCHMARK(TagWithoutMutex)->Apply(sizes);

void ThreadSafeTag(benchmark::State &state) {
  zov_init();
  pairOnTag(state, ZOV_DEFAULT_TAG);
  zov_term();
}
BENCHMARK(ThreadSafeTag)->Apply(sizes);

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
BENCHMARK(MallocMany);

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
BENCHMARK(TagMany);

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
BENCHMARK(TagManyAtOnce);

}  // namespace
