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
    int64_t offset;  // 0: empty
  };
  Slot *slots;
  uint64_t capacity;  // a power of two, or 0
  uint64_t used;
};

// The slot of a hash that `matches(offset)` accepts, or the empty one where it
// would go. There is always an empty one.
template <typename Matches>
Index::Slot *findSlot(const Index &index, uint64_t hash, Matches matches) {
  uint64_t at = hash & (index.capacity - 1);
  for (;;) {
    Index::Slot *slot = &index.slots[at];
    if (slot->offset == 0 || (slot->hash == hash && matches(slot->offset))) {
      return slot;
    }
    at = (at + 1) & (index.capacity - 1);
  }
}

// Makes room for one more entry. False when memory is missing, which libzov
// reports; the index then stays as it was.
inline bool reserveSlot(Index &index, ZOV_TAG tag) {
  if ((index.used + 1) * 4 <= index.capacity * 3) {
    return true;
  }
  Index grown = {nullptr, index.capacity == 0 ? 1024 : index.capacity * 2, index.used};
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
