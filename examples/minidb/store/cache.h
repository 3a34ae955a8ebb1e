// SPDX-License-Identifier: Apache-2.0
//
// The page cache: a fixed number of frames from one pool, each a page of some file.
// A page is found by its file and number and stays where it is while it is pinned.
// Changed pages are written when their frame is wanted for another, or at a commit.
//
// The frames are parted among shards by hash; each has its lock, under which pages
// are also read and written. Nothing else is locked beneath it.
#ifndef MINIDB_STORE_CACHE_H
#define MINIDB_STORE_CACHE_H

#include <atomic>

#include "store/page.h"

namespace minidb {

struct PageFile;

// Pages of a transaction's own scratch file have this bit in their numbers.
constexpr uint64_t kScratchBit = uint64_t{1} << 63;
constexpr uint64_t kMaxPages = uint64_t{1} << 50;

// A thread that has it pinned reads `bytes`; it changes them only when the page is
// of its own transaction.
struct Frame {
  Frame *next;  // in its bucket
  PageFile *file;
  PageFile *owner;  // scratch file of the transaction that has changed it
  uint64_t number;
  uint32_t slot;  // in the shard's list
  std::atomic<uint32_t> pins;
  bool used;                // since the clock's hand came by
  std::atomic<bool> dirty;  // set by the transaction that has it pinned
  alignas(8) uint8_t bytes[kPageBytes];
};

struct Shard {
  ZOV_SYNC lock;
  Frame **frames;
  Frame **buckets;
  uint32_t count;
  uint32_t hand;
};

constexpr uint32_t kShards = 8;

struct Cache {
  ZOV_POOL pool;
  uint32_t shardFrames;  // a power of two is not needed
  uint32_t shardBuckets;
  Shard shards[kShards];
  std::atomic<uint64_t> used, hits, reads, writes;
};

bool openCache(Cache &cache, ZOV_TAG tag, uint64_t bytes);

// Locks only; the memory goes with the tag.
void closeCache(Cache &cache);

// Gives a page, read if need be; with an owner, the scratch file of a transaction, a
// frame for a page that this is about to make. Null when that fails, with the problem
// set. unpin() gives it back.
Frame *pinPage(Cache &cache, PageFile &file, uint64_t number, PageFile *owner);
void unpin(Frame *frame);

// Writes a pinned page now.
bool writePage(Cache &cache, Frame &frame);

// Reads a page into memory of the caller, past the cache, and checks it.
bool readPage(Cache &cache, PageFile &file, uint64_t number, Bytes page);

// Forgets pages that nobody has pinned: one; all of a file, and those that the
// transaction whose scratch file it is has not written.
void forgetPage(Cache &cache, const PageFile &file, uint64_t number);
void forgetFile(Cache &cache, const PageFile &file);

}  // namespace minidb

#endif
