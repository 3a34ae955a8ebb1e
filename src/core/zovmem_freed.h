// SPDX-License-Identifier: Apache-2.0
//
// The latest frees of a tag, by address: what lets zov_freeMem() recognise a
// block that was freed already without reading memory it no longer owns. One
// address beside the marks of the blocks; nine where there are no marks.
#ifndef ZOV_CORE_ZOVMEM_FREED_H
#define ZOV_CORE_ZOVMEM_FREED_H

#include <stdint.h>

#include <type_traits>

#include "core/zovmem_block.h"

namespace zov {

// The last address freed, guarded by the lock of its tag, or 0. It leaves when
// an allocation brings it back.
class LatestFree {
 public:
  bool holds(uintptr_t address) const { return latest_ == address; }

  void add(uintptr_t address) { latest_ = address; }

  void forget(uintptr_t address) {
    if (latest_ == address) {
      latest_ = 0;
    }
  }

  // A block moved: its old address is free, its new one is not.
  void replace(uintptr_t old, uintptr_t current) {
    if (old != current) {
      latest_ = old;
    }
  }

 private:
  uintptr_t latest_;
};

// The last nine addresses freed, guarded by the lock of their tag. Addresses
// are numbers here, not pointers: what they named is gone.
//
// 1. latest_ is the newest of them, ring_ the eight before it; 0 is no address.
// 2. counts_ holds sixteen counters of four bits, one per hash value, that say
//    how many addresses in the ring have that hash. Almost every question is
//    answered by one counter being zero, without a look at the ring.
// 3. An address leaves when an allocation brings it back, so it is never held
//    against its new owner. Allocators hand out first what was freed last: a
//    block that is taken and given back touches latest_ and nothing else.
//
// A zero-filled record is an empty one. add() and forget() are on the path of
// every free and every allocation.
class FreedRecord {
 public:
  bool holds(uintptr_t address) const {
    return latest_ == address || (mayBeInRing(address) && isInRing(address));
  }

  void add(uintptr_t address) {
    if (latest_ != 0) {
      push(latest_);
    }
    latest_ = address;
  }

  void forget(uintptr_t address) {
    if (latest_ == address) {
      latest_ = 0;
    } else if (mayBeInRing(address)) {
      forgetInRing(address);
    }
  }

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

  static uint64_t one(uintptr_t address) { return uint64_t{1} << shiftOf(address); }

  bool mayBeInRing(uintptr_t address) const {
    return counts_ != 0 && ((counts_ >> shiftOf(address)) & 15) != 0;
  }

  [[gnu::noinline]] bool isInRing(uintptr_t address) const { return find(address) < kSlots; }

  uint32_t find(uintptr_t address) const {
    uint32_t slot = 0;
    while (slot < kSlots && ring_[slot] != address) {
      ++slot;
    }
    return slot;
  }

  void drop(uint32_t slot) {
    if (ring_[slot] != 0) {
      counts_ -= one(ring_[slot]);
      ring_[slot] = 0;
    }
  }

  [[gnu::noinline]] void push(uintptr_t address) {
    top_ = (top_ + 1) % kSlots;
    drop(top_);
    ring_[top_] = address;
    counts_ += one(address);
  }

  [[gnu::noinline]] void forgetInRing(uintptr_t address) {
    if (ring_[top_] == address) {
      drop(top_);
      top_ = (top_ - 1) % kSlots;
      return;
    }
    const uint32_t slot = find(address);
    if (slot < kSlots) {
      drop(slot);
    }
  }

  uintptr_t latest_;
  uint64_t counts_;
  uintptr_t ring_[kSlots];
  uint32_t top_;
};

using FreedBlocks = std::conditional_t<kMarksFit, LatestFree, FreedRecord>;

}  // namespace zov

#endif
