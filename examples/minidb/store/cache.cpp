// SPDX-License-Identifier: Apache-2.0
#include "store/cache.h"

#include "store/internal.h"

namespace minidb {

namespace {

uint64_t hashOf(const PageFile &file, uint64_t number) {
  const uint64_t mixed = (number ^ reinterpret_cast<uintptr_t>(&file)) * 0x9e3779b97f4a7c15u;
  return mixed ^ (mixed >> 32);
}

Shard &shardOf(Cache &cache, uint64_t hash) {
  return cache.shards[hash % kShards];
}

Frame **bucketOf(const Cache &cache, Shard &shard, uint64_t hash) {
  return &shard.buckets[hash / kShards % cache.shardBuckets];
}

// The place of the link that leads to a page's frame, or to null.
Frame **findLink(const Cache &cache, Shard &shard, const PageFile &file, uint64_t number) {
  Frame **link = bucketOf(cache, shard, hashOf(file, number));
  while (*link != nullptr && ((*link)->number != number || (*link)->file != &file)) {
    link = &(*link)->next;
  }
  return link;
}

int64_t placeOf(uint64_t number) {
  return static_cast<int64_t>(number & ~kScratchBit) * int64_t{kPageBytes};
}

bool transferFailed(const PageFile &file, const char *what, uint64_t number) {
  return fail("cannot %s page %llu of \"%s\"", what,
              static_cast<unsigned long long>(number & ~kScratchBit), file.path);
}

void unlink(const Cache &cache, Shard &shard, Frame *frame) {
  Frame **link = findLink(cache, shard, *frame->file, frame->number);
  *link = frame->next;
}

// Takes a frame out of the shard and puts it into the pool.
void dropFrame(Cache &cache, Shard &shard, Frame *frame) {
  unlink(cache, shard, frame);
  Frame *last = shard.frames[--shard.count];
  shard.frames[frame->slot] = last;
  last->slot = frame->slot;
  zov_putInPool(frame, cache.pool);
  cache.used.fetch_sub(1, std::memory_order_relaxed);
}

// A frame that nobody uses, taken from its page. Null when all are pinned or cannot be
// written.
Frame *evictOne(Cache &cache, Shard &shard) {
  for (uint32_t left = 2 * shard.count; left > 0; --left) {
    shard.hand = (shard.hand + 1) % shard.count;
    Frame *frame = shard.frames[shard.hand];
    if (frame->pins.load(std::memory_order_acquire) > 0) {
      continue;
    }
    if (frame->used) {
      frame->used = false;
    } else if (!frame->dirty || writePage(cache, *frame)) {
      unlink(cache, shard, frame);
      return frame;
    }
  }
  fail("the page cache is too small for what is under way");
  return nullptr;
}

Frame *newFrame(Cache &cache, Shard &shard) {
  if (shard.count == cache.shardFrames) {
    return evictOne(cache, shard);
  }
  void *chunk = zov_getMemFromPool(sizeof(Frame), cache.pool, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  if (chunk == nullptr) {
    return shard.count > 0 ? evictOne(cache, shard) : nullptr;
  }
  Frame *frame = static_cast<Frame *>(chunk);
  frame->slot = shard.count;
  shard.frames[shard.count++] = frame;
  cache.used.fetch_add(1, std::memory_order_relaxed);
  return frame;
}

// Links a frame to its page before the page is there.
Frame *enterPage(Cache &cache, Shard &shard, PageFile &file, uint64_t number) {
  Frame *frame = newFrame(cache, shard);
  if (frame == nullptr) {
    return nullptr;
  }
  Frame **bucket = bucketOf(cache, shard, hashOf(file, number));
  frame->file = &file;
  frame->owner = nullptr;
  frame->number = number;
  frame->pins.store(0, std::memory_order_relaxed);
  frame->dirty = false;
  frame->next = *bucket;
  *bucket = frame;
  return frame;
}

Frame *findOrRead(Cache &cache, Shard &shard, PageFile &file, uint64_t number, PageFile *owner) {
  Frame *frame = *findLink(cache, shard, file, number);
  if (frame != nullptr) {
    cache.hits.fetch_add(1, std::memory_order_relaxed);
  } else {
    frame = enterPage(cache, shard, file, number);
    if (frame != nullptr && owner == nullptr && !readPage(cache, file, number, frame->bytes)) {
      dropFrame(cache, shard, frame);
      frame = nullptr;
    }
  }
  if (frame != nullptr) {
    frame->owner = owner != nullptr ? owner : frame->owner;
    frame->used = true;
    frame->pins.fetch_add(1, std::memory_order_relaxed);
  }
  return frame;
}

}  // namespace

bool openCache(Cache &cache, ZOV_TAG tag, uint64_t bytes) {
  cache.shardFrames = static_cast<uint32_t>(bytes / sizeof(Frame) / kShards);
  cache.shardBuckets = cache.shardFrames + cache.shardFrames / 2;
  cache.pool = zov_allocPool(tag, 1, 1);
  bool opened = cache.pool != nullptr;
  for (Shard &shard : cache.shards) {
    shard.lock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
    shard.frames = static_cast<Frame **>(
        zov_getMem(cache.shardFrames * sizeof(Frame *), tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
    shard.buckets = static_cast<Frame **>(
        zov_getMem(cache.shardBuckets * sizeof(Frame *), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
    opened =
        opened && shard.lock != ZOV_NO_SYNC && shard.frames != nullptr && shard.buckets != nullptr;
  }
  return opened || fail("there is not enough memory for the page cache");
}

void closeCache(Cache &cache) {
  for (Shard &shard : cache.shards) {
    zov_syncDelete(shard.lock);
  }
  zov_zFreePool(&cache.pool);
}

Frame *pinPage(Cache &cache, PageFile &file, uint64_t number, PageFile *owner) {
  Shard &shard = shardOf(cache, hashOf(file, number));
  zov_syncEnterExcl(shard.lock);
  Frame *frame = findOrRead(cache, shard, file, number, owner);
  zov_syncExitExcl(shard.lock);
  return frame;
}

void unpin(Frame *frame) {
  frame->pins.fetch_sub(1, std::memory_order_release);
}

bool writePage(Cache &cache, Frame &frame) {
  sealPage(frame.bytes);
  cache.writes.fetch_add(1, std::memory_order_relaxed);
  if (!writeAll(frame.file->handle, placeOf(frame.number), frame.bytes, kPageBytes)) {
    return transferFailed(*frame.file, "write", frame.number);
  }
  frame.dirty = false;
  return true;
}

bool readPage(Cache &cache, PageFile &file, uint64_t number, Bytes page) {
  cache.reads.fetch_add(1, std::memory_order_relaxed);
  if ((number & ~kScratchBit) >= kMaxPages ||
      !readAll(file.handle, placeOf(number), page, kPageBytes)) {
    return transferFailed(file, "read", number);
  }
  return isWhole(page, number) ||
         fail("page %llu of \"%s\" is damaged",
              static_cast<unsigned long long>(number & ~kScratchBit), file.path);
}

void forgetPage(Cache &cache, const PageFile &file, uint64_t number) {
  Shard &shard = shardOf(cache, hashOf(file, number));
  zov_syncEnterExcl(shard.lock);
  Frame *frame = *findLink(cache, shard, file, number);
  if (frame != nullptr) {
    dropFrame(cache, shard, frame);
  }
  zov_syncExitExcl(shard.lock);
}

void forgetFile(Cache &cache, const PageFile &file) {
  for (Shard &shard : cache.shards) {
    zov_syncEnterExcl(shard.lock);
    for (uint32_t slot = shard.count; slot-- > 0;) {
      Frame *frame = shard.frames[slot];
      if (frame->file == &file || (frame->dirty && frame->owner == &file)) {
        dropFrame(cache, shard, frame);
      }
    }
    zov_syncExitExcl(shard.lock);
  }
}

}  // namespace minidb
