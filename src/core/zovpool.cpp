// SPDX-License-Identifier: Apache-2.0
//
// Memory pools. A pool keeps the chunks that were put back to it on a stack and
// gives them out again before it asks its tag for new ones:
//
//   pool.freeChunks -> [tag|next|capacity|pool| payload ]
//                            next -> [tag|next|capacity|pool| payload ] -> null
//
// Record and chunks are blocks of the pool's tag, which outlives the pool. A
// chunk that is out is on no list; its header says which pool it belongs to.
//
// A pool's mutex guards its stack and the count. It is never held while the tag is
// called: an allocation may jump from zov_allocPool() and zov_getMemFromPool() to
// the tag's recovery point, with nothing left behind.
#include <assert.h>
#include <string.h>

#include "core/zov_lock.h"
#include "core/zov_make.h"

namespace {

struct Chunk;

}  // namespace

// 1. freeCount is the length of the list at freeChunks, at most kMaxFree.
// 2. tag, mutex and isFixedSize do not change.
struct MemoryPool {
  Chunk *freeChunks ZOV_GUARDED_BY(mutex);  // put back last comes first
  ZOV_TAG tag;
  ZOV_SYNC mutex;  // rank 10; ZOV_NO_SYNC for a pool that is not thread-safe
  uint32_t freeCount ZOV_GUARDED_BY(mutex);
  bool isFixedSize;
};

namespace {

constexpr uint32_t kMaxFree = 1000;

// Stands in front of the payload, which it keeps aligned to 16 bytes.
struct Chunk {
  ZOV_TAG tag;        // owner of the block
  Chunk *next;        // while the chunk is free
  uint64_t capacity;  // payload bytes it was allocated with
  MemoryPool *pool;   // the pool that gave it out last
};
static_assert(sizeof(Chunk) % 16 == 0);

void *payloadOf(Chunk *chunk) {
  return chunk + 1;
}

Chunk *chunkOf(void *payload) {
  return static_cast<Chunk *>(payload) - 1;
}

// A pool without mutex is one thread's at a time, which is as good as a lock.
void assumeUnshared([[maybe_unused]] const MemoryPool &pool) ZOV_ASSERT_HELD(pool.mutex) {
  assert(pool.mutex == ZOV_NO_SYNC);
}

Chunk *_popChunk(MemoryPool &pool) ZOV_REQUIRES(pool.mutex) {
  Chunk *chunk = pool.freeChunks;
  assert((chunk == nullptr) == (pool.freeCount == 0));
  if (chunk != nullptr) {
    pool.freeChunks = chunk->next;
    --pool.freeCount;
  }
  return chunk;
}

Chunk *popChunk(MemoryPool &pool) {
  if (pool.mutex == ZOV_NO_SYNC) {
    assumeUnshared(pool);
    return _popChunk(pool);
  }
  zov::enterDirectly(pool.mutex);
  Chunk *chunk = _popChunk(pool);
  zov::leaveDirectly(pool.mutex);
  return chunk;
}

bool _pushChunk(MemoryPool &pool, Chunk *chunk) ZOV_REQUIRES(pool.mutex) {
  assert(pool.freeCount <= kMaxFree);
  if (pool.freeCount == kMaxFree) {
    return false;
  }
  chunk->next = pool.freeChunks;
  pool.freeChunks = chunk;
  ++pool.freeCount;
  return true;
}

// False when the pool is full.
bool pushChunk(MemoryPool &pool, Chunk *chunk) {
  if (pool.mutex == ZOV_NO_SYNC) {
    assumeUnshared(pool);
    return _pushChunk(pool, chunk);
  }
  zov::enterDirectly(pool.mutex);
  const bool fits = _pushChunk(pool, chunk);
  zov::leaveDirectly(pool.mutex);
  return fits;
}

// A size that the header would carry past the end of the number range becomes
// one that no tag can serve, so that it fails as any other shortage does.
Chunk *newChunk(const MemoryPool &pool, uint64_t size, const char *sourceName, uint32_t line) {
  const uint64_t blockBytes = size > UINT64_MAX - sizeof(Chunk) ? UINT64_MAX : size + sizeof(Chunk);
  void *block = zov_getMem(blockBytes, pool.tag, ZOV_MEM_PLAIN, nullptr, sourceName, line);
  if (block == nullptr) {
    return nullptr;
  }
  Chunk *chunk = static_cast<Chunk *>(block);
  chunk->tag = pool.tag;
  chunk->capacity = size;
  return chunk;
}

// Whether a chunk that was put back does for a size.
bool isEnough(const MemoryPool &pool, const Chunk *chunk, uint64_t size) {
  return pool.isFixedSize || chunk->capacity >= size;
}

void fill(void *payload, uint64_t size, int32_t mode, const void *source) {
  if (mode == ZOV_MEM_ZERO) {
    memset(payload, 0, size);
  } else if (mode == ZOV_MEM_COPY && size != 0) {
    memcpy(payload, source, size);
  }
}

// Every way to a chunk but the shortest.
[[gnu::noinline]] void *_getMemFromPool(uint64_t size, MemoryPool &pool, int32_t mode,
                                        const void *source, const char *sourceName, uint32_t line) {
  Chunk *chunk = popChunk(pool);
  if (chunk != nullptr && !isEnough(pool, chunk, size)) {
    zov_freeMem(chunk, pool.tag);
    chunk = nullptr;
  }
  if (chunk == nullptr) {
    chunk = newChunk(pool, size, sourceName, line);
    if (chunk == nullptr) {
      return nullptr;
    }
  }
  chunk->pool = &pool;
  fill(payloadOf(chunk), size, mode, source);
  return payloadOf(chunk);
}

[[gnu::noinline]] void _putInPool(MemoryPool &pool, Chunk *chunk) {
  if (!pushChunk(pool, chunk)) {
    zov_freeMem(chunk, pool.tag);
  }
}

// Takes a chunk that another pool gave out.
[[gnu::cold, gnu::noinline]] void putForeign(MemoryPool &pool, Chunk *chunk) {
  zov_log("Attempting to put a memory chunk into a pool that didn't create it\n");
  // Else the other tag's release would pull it from under this pool.
  zov_moveMemTag(chunk, pool.tag, chunk->tag);
  chunk->tag = pool.tag;
  _putInPool(pool, chunk);
}

}  // namespace

extern "C" {

ZOV_POOL zov_allocPool(ZOV_TAG tag, int32_t fixedSize, int32_t threadSafe) {
  MemoryPool *pool = zov::makeUncleared<MemoryPool>(tag, ZOV_HERE);
  if (pool == nullptr) {
    return nullptr;
  }
  pool->mutex = ZOV_NO_SYNC;
  assumeUnshared(*pool);
  pool->freeChunks = nullptr;
  pool->freeCount = 0;
  pool->tag = tag;
  pool->isFixedSize = fixedSize != 0;
  if (threadSafe != 0) {
    pool->mutex = zov::createMutex(zov::LockKind::kPool, ZOV_HERE);
  }
  return pool;
}

// A chunk that is there and wants no lock is given out without a call, and so
// without a frame: that is most of what it costs.
void *zov_getMemFromPool(uint64_t size, ZOV_POOL pool, int32_t mode, const void *source,
                         const char *sourceName, uint32_t line) {
  if (pool->mutex == ZOV_NO_SYNC && mode == ZOV_MEM_PLAIN) {
    assumeUnshared(*pool);
    Chunk *chunk = pool->freeChunks;
    if (chunk != nullptr && isEnough(*pool, chunk, size)) {
      _popChunk(*pool);
      chunk->pool = pool;
      return payloadOf(chunk);
    }
  }
  return _getMemFromPool(size, *pool, mode, source, sourceName, line);
}

void zov_putInPool(void *payload, ZOV_POOL pool) {
  if (payload == nullptr) {
    return;
  }
  Chunk *chunk = chunkOf(payload);
  if (chunk->pool != pool) [[unlikely]] {
    putForeign(*pool, chunk);
    return;
  }
  if (pool->mutex == ZOV_NO_SYNC) {
    assumeUnshared(*pool);
    if (_pushChunk(*pool, chunk)) {
      return;
    }
  }
  _putInPool(*pool, chunk);
}

void zov_zFreePool(ZOV_POOL *pool) {
  MemoryPool *record = *pool;
  if (record == nullptr) {
    return;
  }
  const ZOV_TAG tag = record->tag;
  const ZOV_SYNC mutex = record->mutex;
  while (Chunk *chunk = popChunk(*record)) {
    zov_freeMem(chunk, tag);
  }
  zov_freeMem(record, tag);
  zov_syncDelete(mutex);
  *pool = nullptr;
}
}
