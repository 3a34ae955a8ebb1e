// SPDX-License-Identifier: Apache-2.0
//
// What the layers of the memory storage share: a table that finds a record by
// its 64-bit id, and the growth of tables of pointers. The lock of whoever owns
// a table guards it.
#ifndef ZOV_MEMSTORE_ZOVSHM_PRIVATE_H
#define ZOV_MEMSTORE_ZOVSHM_PRIVATE_H

#include <stddef.h>
#include <string.h>

#include <iterator>

#include "core/zov_private.h"

namespace zov {

// Records by id, chained through their own field `hashNext` from a power of two
// of buckets. A Record has `uint64_t hashId() const`; several may share an id.
//
// 1. Starts with buckets of its own and allocates more, from the default tag,
//    as it fills. Having no memory for that costs speed and nothing else.
// 2. All zero is an empty table.
template <typename Record>
class IdTable {
 public:
  // The first record of an id that `matches` accepts, or null.
  template <typename Matches>
  Record *find(uint64_t id, Matches matches) {
    Record *record = *bucketOf(id);
    while (record != nullptr && !(record->hashId() == id && matches(*record))) {
      record = record->hashNext;
    }
    return record;
  }

  Record *find(uint64_t id) {
    return find(id, [](const Record &) { return true; });
  }

  // The caller keeps jumps away with a NoJump.
  void insert(Record *record) {
    if (count_ >= size() * 2) {
      grow();
    }
    link(record);
    ++count_;
  }

  void remove(Record *record) {
    Record **place = bucketOf(record->hashId());
    while (*place != record) {
      place = &(*place)->hashNext;
    }
    *place = record->hashNext;
    --count_;
  }

  // Forgets every record and releases the buckets.
  void clear() {
    zov_freeMem(more_, ZOV_DEFAULT_TAG);
    *this = IdTable();
  }

 private:
  size_t size() const { return more_ == nullptr ? std::size(first_) : mask_ + 1; }

  // Ids are addresses: the low bits tell little.
  Record **bucketOf(uint64_t id) {
    const uint64_t hash = (id * UINT64_C(0x9E3779B97F4A7C15)) >> 32;
    return more_ == nullptr ? &first_[hash % std::size(first_)] : &more_[hash & mask_];
  }

  void link(Record *record) {
    Record **bucket = bucketOf(record->hashId());
    record->hashNext = *bucket;
    *bucket = record;
  }

  void grow() {
    const size_t oldSize = size();
    const size_t newSize = oldSize * 4;
    Record **buckets = static_cast<Record **>(
        zov_getMem(newSize * sizeof(Record *), ZOV_DEFAULT_TAG, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
    if (buckets == nullptr) {
      return;
    }
    Record **old = more_ == nullptr ? first_ : more_;
    Record **oldMore = more_;
    more_ = buckets;
    mask_ = newSize - 1;
    for (size_t bucket = 0; bucket < oldSize; ++bucket) {
      for (Record *record = old[bucket], *next; record != nullptr; record = next) {
        next = record->hashNext;
        link(record);
      }
    }
    zov_freeMem(oldMore, ZOV_DEFAULT_TAG);
  }

  Record *first_[64];
  Record **more_;
  size_t mask_;   // meaningful with more_
  size_t count_;  // records in the table
};

// Grows a table of pointers from `count` slots to `newCount`, the new ones null,
// and gives its new place; null when memory is short, the old table being as it
// was. A table that grows by far is laid out anew, so that the holes of a sparse
// file take address space and no memory.
template <typename Pointer>
Pointer *growTable(Pointer *table, uint64_t count, uint64_t newCount, ZOV_TAG tag,
                   const char *sourceName, uint32_t line) {
  const uint64_t newBytes = newCount * sizeof(Pointer);
  if (newCount / 2 < count) {
    return static_cast<Pointer *>(zov_extendMem(
        table, newBytes, tag, 1, (newCount - count) * sizeof(Pointer), sourceName, line));
  }
  Pointer *grown =
      static_cast<Pointer *>(zov_getMem(newBytes, tag, ZOV_MEM_ZERO, nullptr, sourceName, line));
  if (grown != nullptr && count > 0) {
    memcpy(grown, table, count * sizeof(Pointer));
    zov_freeMem(table, tag);
  }
  return grown;
}

}  // namespace zov

#endif
