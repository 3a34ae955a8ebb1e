// SPDX-License-Identifier: Apache-2.0
//
// The latest frees of a tag, by address: what lets zov_freeMem() recognise a
// block that was freed already without reading memory it no longer owns.
#ifndef ZOV_CORE_ZOVMEM_FREED_H
#define ZOV_CORE_ZOVMEM_FREED_H

#include <stdint.h>

namespace zov {

// A ring of the last eight addresses freed, guarded by the lock of its tag.
//
// Addresses are numbers here, not pointers: what they named is gone.
//
// 1. Exactly eight addresses are on record at any time, fillers being 0, and
//    no other address twice.
// 2. counts holds sixteen counters of four bits, one per hash value, that say
//    how many of the eight have that hash. Almost every question is answered by
//    one counter being zero, without a look at the ring.
// 3. An address leaves when an allocation brings it back, so it is never held
//    against its new owner. Allocators hand out what was freed last, which is
//    then found on top.
//
// Every operation is a few instructions without a branch that depends on how
// full the ring is; add() and forget() are on the path of every free and every
// allocation.
class FreedRecord {
 public:
  void clear() {
    for (uintptr_t &address : ring_) {
      address = 0;
    }
    top_ = 0;
    counts_ = uint64_t{kSlots} << shiftOf(0);
  }

  bool holds(uintptr_t address) const { return mayHold(address) && find(address) < kSlots; }

  void add(uintptr_t address) {
    top_ = (top_ + 1) % kSlots;
    put(top_, address);
  }

  void forget(uintptr_t address) {
    if (!mayHold(address)) {
      return;
    }
    if (ring_[top_] == address) {
      put(top_, 0);
      top_ = (top_ - 1) % kSlots;
      return;
    }
    const uint32_t slot = find(address);
    if (slot < kSlots) {
      put(slot, 0);
    }
  }

  // A block moved: its old address is free, its new one is not.
  void replace(uintptr_t old, uintptr_t current) {
    if (old != current) {
      forget(current);
      add(old);
    }
  }

 private:
  static constexpr uint32_t kSlots = 8;

  // Where an address's counter stands. Blocks are 16 bytes apart at least.
  static uint32_t shiftOf(uintptr_t address) {
    const uint64_t units = address >> 4;
    return static_cast<uint32_t>((units ^ (units >> 4) ^ (units >> 8)) & 15) * 4;
  }

  bool mayHold(uintptr_t address) const { return ((counts_ >> shiftOf(address)) & 15) != 0; }

  uint32_t find(uintptr_t address) const {
    uint32_t slot = 0;
    while (slot < kSlots && ring_[slot] != address) {
      ++slot;
    }
    return slot;
  }

  void put(uint32_t slot, uintptr_t address) {
    counts_ -= uint64_t{1} << shiftOf(ring_[slot]);
    counts_ += uint64_t{1} << shiftOf(address);
    ring_[slot] = address;
  }

  uintptr_t ring_[kSlots];
  uint64_t counts_;
  uint32_t top_;
};

}  // namespace zov

#endif
