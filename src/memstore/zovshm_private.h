// SPDX-License-Identifier: Apache-2.0
//
// What the layers of the memory storage share: a table that finds a record by
// its 64-bit id, and tables of pointers by number. A table is guarded by the lock
// of the module that owns it.
#ifndef ZOV_MEMSTORE_ZOVSHM_PRIVATE_H
#define ZOV_MEMSTORE_ZOVSHM_PRIVATE_H

#include <assert.h>
#include <errno.h>
#include <stddef.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zov_word.h"

namespace zov {

inline int32_t failWith(int error) {
  errno = error;
  return ZOV_ERROR;
}

// Records by id, chained through their own field `hashNext` from a power of two
// of buckets. A Record has `uint64_t hashId() const`; several may share an id.
//
// 1. Starts with buckets of its own and allocates more, from the default tag,
//    as it fills. A shortage then costs only speed, so it is not reported.
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

  // Calls visit(record) for every record of an id; none may be removed meanwhile.
  template <typename Visit>
  void forEach(uint64_t id, Visit visit) {
    find(id, [&visit](Record &record) {
      visit(record);
      return false;
    });
  }

  // The caller holds jumps off. The place is that of the allocation of more buckets.
  void insert(Record *record, const char *sourceName, uint32_t line) {
    assert(noJumpDepth > 0);
    if (count_ >= size() * 2) {
      grow(sourceName, line);
    }
    link(record);
    ++count_;
  }

  void remove(Record *record) {
    Record **place = bucketOf(record->hashId());
    while (*place != record) {
      place = &(*place)->hashNext;
      assert(*place != nullptr);
    }
    *place = record->hashNext;
    --count_;
  }

  // Takes every record out and calls visit(record), which may release it.
  template <typename Visit>
  void drain(Visit visit) {
    for (size_t bucket = 0; bucket < size(); ++bucket) {
      Record *&first = (more_ == nullptr ? first_ : more_)[bucket];
      while (first != nullptr) {
        Record *record = first;
        first = record->hashNext;
        --count_;
        visit(record);
      }
    }
    assert(count_ == 0);
    clear();
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
    const uint64_t hash = spread(id) >> 32;
    return more_ == nullptr ? &first_[hash % std::size(first_)] : &more_[hash & mask_];
  }

  void link(Record *record) {
    Record **bucket = bucketOf(record->hashId());
    record->hashNext = *bucket;
    *bucket = record;
  }

  void grow(const char *sourceName, uint32_t line) {
    const size_t oldSize = size();
    const size_t newSize = oldSize * 4;
    const Unreported onlySlower;
    Record **buckets = zov::makeZeroArray<Record *>(newSize, ZOV_DEFAULT_TAG, sourceName, line);
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
// and returns its new place. Null when memory is short; the old table then stands.
template <typename Pointer>
Pointer *growTable(Pointer *table, uint64_t count, uint64_t newCount, ZOV_TAG tag,
                   const char *sourceName, uint32_t line) {
  return static_cast<Pointer *>(zov_extendMem(table, newCount * sizeof(Pointer), tag, 1,
                                              (newCount - count) * sizeof(Pointer), sourceName,
                                              line));
}

// Pointers by number, null where there is none, in blocks of kNear slots:
//
//   near_[number]                          the first block, which grows up to that
//   far_->blocks[number / kNear - 1][...]  the others, each made when it is needed
//
// So a number costs its block and a place in the list of blocks, however high it
// is, and a search skips blocks that are missing. All zero is an empty table. The
// memory is of one tag, which every call names.
template <typename Pointer>
class SlotTable {
 public:
  static constexpr uint32_t kNoNumber = UINT32_MAX;

  Pointer get(uint32_t number) const {
    const Pointer *slot = find(number);
    return slot == nullptr ? nullptr : *slot;
  }

  // The slot of a number; null when there is none.
  Pointer *find(uint32_t number) const {
    if (number < nearSlots_) {
      return &near_[number];
    }
    Pointer *block = number < kNear ? nullptr : blockAt(number / kNear);
    return block == nullptr ? nullptr : &block[number % kNear];
  }

  // The slot of a number, made if there is none; in the first block together with
  // `spare` slots behind it. Null, with the table as it was, for kNoNumber and when
  // memory is short.
  Pointer *reserve(uint32_t number, uint32_t spare, ZOV_TAG tag, const char *sourceName,
                   uint32_t line) {
    Pointer *slot = find(number);
    if (slot != nullptr || number == kNoNumber) {
      return slot;
    }
    const bool made = number < kNear ? growNear(number, spare, tag, sourceName, line)
                                     : addBlock(number / kNear, tag, sourceName, line);
    return made ? find(number) : nullptr;
  }

  // The highest number below `end` that has a pointer, or kNoNumber.
  uint32_t highestBelow(uint32_t end) const {
    const uint32_t blocks = far_ == nullptr ? 1 : far_->count + 1;
    for (uint32_t block = std::min(end / kNear + 1, blocks); block-- > 0;) {
      const Pointer *slots = blockAt(block);
      const uint32_t first = block * kNear;
      const uint32_t count = slots == nullptr ? 0 : block == 0 ? nearSlots_ : kNear;
      for (uint32_t slot = std::min(end - first, count); slot-- > 0;) {
        if (slots[slot] != nullptr) {
          return first + slot;
        }
      }
    }
    return kNoNumber;
  }

  void clear(ZOV_TAG tag) {
    for (uint32_t block = 0; far_ != nullptr && block < far_->count; ++block) {
      zov_freeMem(far_->blocks()[block], tag);
    }
    zov_freeMem(far_, tag);
    zov_freeMem(near_, tag);
    *this = SlotTable();
  }

 private:
  static constexpr uint32_t kNear = 4096;

  // The blocks lie behind the record.
  struct alignas(Pointer *) Far {
    uint32_t count;

    Pointer **blocks() { return reinterpret_cast<Pointer **>(this + 1); }
  };

  static uint64_t farBytes(uint64_t count) { return sizeof(Far) + count * sizeof(Pointer *); }

  Pointer *blockAt(uint32_t block) const {
    if (block == 0) {
      return near_;
    }
    return far_ != nullptr && block - 1 < far_->count ? far_->blocks()[block - 1] : nullptr;
  }

  bool growNear(uint32_t number, uint32_t spare, ZOV_TAG tag, const char *sourceName,
                uint32_t line) {
    assert(nearSlots_ <= number && number < kNear);
    const uint32_t slots = std::min(number + 1 + spare, kNear);
    Pointer *grown = growTable(near_, nearSlots_, slots, tag, sourceName, line);
    if (grown == nullptr) {
      return false;
    }
    near_ = grown;
    nearSlots_ = slots;
    return true;
  }

  bool addBlock(uint32_t block, ZOV_TAG tag, const char *sourceName, uint32_t line) {
    if (!listBlocks(block, tag, sourceName, line)) {
      return false;
    }
    assert(block > 0 && block <= far_->count);
    Pointer *&slots = far_->blocks()[block - 1];
    assert(slots == nullptr);
    slots = zov::makeZeroArray<Pointer>(kNear, tag, sourceName, line);
    return slots != nullptr;
  }

  // Makes the list of blocks reach to this one. It at least doubles, since a file
  // may grow by one block at a time.
  bool listBlocks(uint32_t block, ZOV_TAG tag, const char *sourceName, uint32_t line) {
    const uint32_t known = far_ == nullptr ? 0 : far_->count;
    if (block <= known) {
      return true;
    }
    const uint32_t count = std::max(block, known * 2);
    Far *grown = static_cast<Far *>(
        zov_getMem(farBytes(count), tag, ZOV_MEM_ZERO, nullptr, sourceName, line));
    if (grown == nullptr) {
      return false;
    }
    if (known > 0) {
      memcpy(grown->blocks(), far_->blocks(), known * sizeof(Pointer *));
    }
    grown->count = count;
    zov_freeMem(far_, tag);
    far_ = grown;
    return true;
  }

  Pointer *near_;
  Far *far_;
  uint32_t nearSlots_;
};

}  // namespace zov

#endif
