// SPDX-License-Identifier: Apache-2.0
//
// Small things that several modules do with words: case and hashes of eight
// bytes at a time, access to fields that several threads share, and errno kept
// over a clean-up. Holds no state.
#ifndef ZOV_CORE_ZOV_WORD_H
#define ZOV_CORE_ZOV_WORD_H

#include <errno.h>
#include <stdint.h>

#include <atomic>

namespace zov {

// Eight bytes with 'A' to 'Z' made small. Bytes above 0x7F stay as they are.
constexpr uint64_t foldWord(uint64_t word) {
  constexpr uint64_t kEachByte = 0x0101010101010101;
  const uint64_t low = word & (0x7F * kEachByte);
  const uint64_t fromA = low + (0x80 - 'A') * kEachByte;
  const uint64_t aboveZ = low + (0x7F - 'Z') * kEachByte;
  const uint64_t capital = (fromA ^ aboveZ) & ~word & (0x80 * kEachByte);
  return word | (capital >> 2);
}

// Spreads a word over all 64 bits; the upper ones are the best mixed.
// Multiplicative hashing with 2^64 over the golden ratio (Knuth, TAOCP 3, 6.4).
constexpr uint64_t spread(uint64_t word) {
  return word * 0x9E3779B97F4A7C15;
}

// For plain fields that other threads read while one writes, where no order
// hangs on what they hold.
template <typename Integer>
Integer loadRelaxed(Integer &field) {
  return std::atomic_ref<Integer>(field).load(std::memory_order_relaxed);
}

template <typename Integer>
void storeRelaxed(Integer &field, Integer value) {
  std::atomic_ref<Integer>(field).store(value, std::memory_order_relaxed);
}

// Restores errno at the end of a scope: a clean-up or a message between a failed
// call and the caller leaves what the failure said. Nothing may jump past it.
class KeepErrno {
 public:
  KeepErrno() : error_(errno) {}
  ~KeepErrno() { errno = error_; }
  KeepErrno(const KeepErrno &) = delete;
  KeepErrno &operator=(const KeepErrno &) = delete;

 private:
  int error_;
};

}  // namespace zov

#endif
