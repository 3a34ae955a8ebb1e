// SPDX-License-Identifier: Apache-2.0
//
// The index of a data file: where the latest entry of each key stands.
#ifndef MINIDB_INDEX_H
#define MINIDB_INDEX_H

#include "zov.h"

namespace minidb {

// A hash table of offsets with open addressing. Keys are not kept: the caller
// tells whether the entry at an offset has the key it looks for.
struct Index {
  struct Slot {
    uint64_t hash;
    int64_t offset;  // 0: empty; negative: that of an entry that deletes
  };
  Slot *slots;
  uint64_t capacity;  // a power of two, or 0
  uint64_t used;      // slots that are not empty
  uint64_t live;      // those of them whose entry does not delete
};

inline int64_t offsetOf(const Index::Slot &slot) {
  return slot.offset < 0 ? -slot.offset : slot.offset;
}

// The slot of a hash whose offset `matches()` accepts, or the empty one where it
// would go. There is always an empty one.
template <typename Matches>
Index::Slot *findSlot(const Index &index, uint64_t hash, Matches matches) {
  uint64_t at = hash & (index.capacity - 1);
  for (;;) {
    Index::Slot *slot = &index.slots[at];
    if (slot->offset == 0 || (slot->hash == hash && matches(offsetOf(*slot)))) {
      return slot;
    }
    at = (at + 1) & (index.capacity - 1);
  }
}

// Puts the offset of a key's latest entry into the slot found for it.
inline void fillSlot(Index &index, Index::Slot *slot, uint64_t hash, int64_t offset, bool deletes) {
  index.used += slot->offset == 0;
  index.live -= slot->offset > 0;
  index.live += !deletes;
  *slot = {hash, deletes ? -offset : offset};
}

// Makes room for one more entry. False when memory is missing, which libzov
// reports; the index then stays as it was.
inline bool reserveSlot(Index &index, ZOV_TAG tag) {
  if ((index.used + 1) * 4 <= index.capacity * 3) {
    return true;
  }
  Index grown = {nullptr, index.capacity == 0 ? 256 : index.capacity * 2, index.used, index.live};
  grown.slots = static_cast<Index::Slot *>(
      zov_getMem(grown.capacity * sizeof(Index::Slot), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (grown.slots == nullptr) {
    return false;
  }
  for (uint64_t at = 0; at < index.capacity; ++at) {
    const Index::Slot &slot = index.slots[at];
    if (slot.offset != 0) {
      *findSlot(grown, slot.hash, [](int64_t) { return false; }) = slot;
    }
  }
  zov_freeMem(index.slots, tag);
  index = grown;
  return true;
}

}  // namespace minidb

#endif
