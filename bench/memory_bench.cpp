// SPDX-License-Identifier: Apache-2.0
//
// Allocation on each kind of tag, beside libc's and TBB's, and beside arenas, whose
// blocks can only be released together:
//
//   allocate-free          a block taken and given back
//   allocate-free-mutex    the same under a mutex, with two pairs of lock and unlock
//   allocate-free-threads  the same on threads that share nothing
//   allocate-free-shared   the same on threads that share the mutex
//   allocate-free-1000     a thousand blocks taken, then given back in that order
//   release-1000           a thousand blocks taken, then all given back at once
//   tag-life               a tag made, ten blocks taken, all deleted; per block
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>

#include <memory_resource>

#if defined(ZOV_HAVE_APR)
#include <apr_pools.h>
#endif
#if defined(ZOV_HAVE_TBB)
#include <tbb/scalable_allocator.h>
#endif

#include "bench_rows.h"
#include "zov.h"

namespace {

constexpr int kHeldBlocks = 1000;
constexpr int kLifeBlocks = 10;

struct Malloc {
  static constexpr char kName[] = "malloc";
  void *get(uint64_t size) { return malloc(size); }
  void put(void *block) { free(block); }
};

#if defined(ZOV_HAVE_TBB)
struct Tbb {
  static constexpr char kName[] = "tbb";
  void *get(uint64_t size) { return scalable_malloc(size); }
  void put(void *block) { scalable_free(block); }
};
#endif

constexpr uint64_t kHeaderBytes = 16;

// What a library cannot go below that has a header before each block: two calls
// that only add it to malloc().
struct TwoCalls {
  static constexpr char kName[] = "two-calls";
  static void *getWithHeader(uint64_t size) {
    return static_cast<char *>(malloc(size + kHeaderBytes)) + kHeaderBytes;
  }
  static void putWithHeader(void *block) { free(static_cast<char *>(block) - kHeaderBytes); }

  void *(*volatile get)(uint64_t size) = getWithHeader;
  void (*volatile put)(void *block) = putWithHeader;
};

pthread_mutex_t sharedMutex = PTHREAD_MUTEX_INITIALIZER;

// What a tag with a mutex cannot go below.
template <typename Source>
struct Locked {
  void *get(uint64_t size) {
    pthread_mutex_lock(&sharedMutex);
    void *block = source.get(size);
    pthread_mutex_unlock(&sharedMutex);
    return block;
  }
  void put(void *block) {
    pthread_mutex_lock(&sharedMutex);
    source.put(block);
    pthread_mutex_unlock(&sharedMutex);
  }
  Source source;
};

// A tag of its own, with a mutex or without.
template <uint32_t kFlags>
class Tag {
 public:
  static constexpr char kName[] = "zov";
  Tag() : tag_(zov_createTagEx(nullptr, kFlags, ZOV_HERE)) {}
  ~Tag() { zov_freeTagMemory(tag_, 1); }
  Tag(const Tag &) = delete;
  Tag &operator=(const Tag &) = delete;
  void *get(uint64_t size) { return zov_getMem(size, tag_, ZOV_MEM_PLAIN, nullptr, ZOV_HERE); }
  void put(void *block) { zov_freeMem(block, tag_); }
  void release() { zov_freeTagMemory(tag_, 0); }

 private:
  ZOV_TAG tag_;
};

// The default tag, which all threads share.
struct DefaultTag {
  void *get(uint64_t size) {
    return zov_getMem(size, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  }
  void put(void *block) { zov_freeMem(block, ZOV_DEFAULT_TAG); }
};

using PlainTag = Tag<0>;
using LockedTag = Tag<ZOV_TAG_THREADSAFE>;

struct StdArena {
  static constexpr char kName[] = "std-arena";
  void *get(uint64_t size) { return arena.allocate(size); }
  void release() { arena.release(); }
  std::pmr::monotonic_buffer_resource arena;
};

#if defined(ZOV_HAVE_APR)
class AprPool {
 public:
  static constexpr char kName[] = "apr-pool";
  AprPool() { apr_pool_create(&pool_, nullptr); }
  ~AprPool() { apr_pool_destroy(pool_); }
  AprPool(const AprPool &) = delete;
  AprPool &operator=(const AprPool &) = delete;
  void *get(uint64_t size) { return apr_palloc(pool_, size); }
  void release() { apr_pool_clear(pool_); }

 private:
  apr_pool_t *pool_ = nullptr;
};
#endif

// Takes a block and has it written to, so that no source only promises it.
template <typename Source>
void *take(benchmark::State &state, Source &source, uint64_t size) {
  char *block = static_cast<char *>(source.get(size));
  if (block == nullptr) [[unlikely]] {
    state.SkipWithError("no memory");
    return nullptr;
  }
  *static_cast<volatile char *>(block) = 'x';
  return block;
}

template <typename Source>
void Pairs(benchmark::State &state) {
  const uint64_t size = static_cast<uint64_t>(state.range(0));
  Source source;
  for (auto _ : state) {
    source.put(take(state, source, size));
  }
}

template <typename Source>
void Many(benchmark::State &state) {
  Source source;
  void *blocks[kHeldBlocks];
  for (auto _ : state) {
    for (void *&block : blocks) {
      block = take(state, source, 64);
    }
    for (void *block : blocks) {
      source.put(block);
    }
  }
  state.SetItemsProcessed(state.iterations() * kHeldBlocks);
}

template <typename Arena>
void ManyAtOnce(benchmark::State &state) {
  Arena arena;
  for (auto _ : state) {
    for (int count = 0; count < kHeldBlocks; ++count) {
      benchmark::DoNotOptimize(take(state, arena, 64));
    }
    arena.release();
  }
  state.SetItemsProcessed(state.iterations() * kHeldBlocks);
}

template <typename Arena>
void Life(benchmark::State &state) {
  for (auto _ : state) {
    Arena arena;
    for (int count = 0; count < kLifeBlocks; ++count) {
      benchmark::DoNotOptimize(take(state, arena, 64));
    }
  }
  state.SetItemsProcessed(state.iterations() * kLifeBlocks);
}

void startStop(benchmark::internal::Benchmark *row) {
  row->Setup(startLibraries)->Teardown(stopLibraries);
}

void sizes(benchmark::internal::Benchmark *row) {
  row->Arg(16)->Arg(64)->Arg(256);
}

void shared(benchmark::internal::Benchmark *row) {
  onThreads(row->Arg(64));
}

// A source that gives back block by block, its form with a mutex, what threads take
// from that have nothing in common, and what they share.
template <typename Source, typename WithMutex, typename Own, typename Common>
bool addSource() {
  return addRows(Source::kName,
                 {{"allocate-free", Pairs<Source>, sizes},
                  {"allocate-free-mutex", Pairs<WithMutex>, sizes},
                  {"allocate-free-threads", Pairs<Own>, shared},
                  {"allocate-free-shared", Pairs<Common>, shared},
                  {"allocate-free-1000", Many<Source>}},
                 startStop);
}

template <typename Arena>
bool addArena() {
  return addRows(Arena::kName, {{"release-1000", ManyAtOnce<Arena>}, {"tag-life", Life<Arena>}},
                 startStop);
}

const bool added = [] {
  addSource<Malloc, Locked<Malloc>, Malloc, Locked<Malloc>>();
  addSource<PlainTag, LockedTag, LockedTag, DefaultTag>();
  addRows(Malloc::kName, {{"release-1000", Many<Malloc>}}, startStop);
  addRows(TwoCalls::kName, {{"allocate-free", Pairs<TwoCalls>, sizes}}, startStop);
  addArena<PlainTag>();
  addArena<StdArena>();
#if defined(ZOV_HAVE_TBB)
  addSource<Tbb, Locked<Tbb>, Tbb, Locked<Tbb>>();
#endif
#if defined(ZOV_HAVE_APR)
  addArena<AprPool>();
#endif
  return true;
}();

}  // namespace
