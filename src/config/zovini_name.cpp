// SPDX-License-Identifier: Apache-2.0
//
// Comparing and hashing names without regard to ASCII case, eight letters at a
// time, and the memory of the name index. Other bytes, UTF-8 among them, are
// compared as they are. Nothing here locks; callers hold jumps off.
#include <bit>

#include "config/zovini_name.h"
#include "core/zov_make.h"
#include "core/zov_word.h"

namespace zov {
namespace {

constexpr size_t kWordBytes = sizeof(uint64_t);

template <typename Word>
uint64_t load(const char *bytes) {
  Word word;
  memcpy(&word, bytes, sizeof word);
  return word;
}

// Fewer than eight bytes as one word, in which some occur twice. Texts of one length
// give equal words exactly when they are equal.
uint64_t tailWord(const char *bytes, size_t length) {
  if (length >= 4) {
    return load<uint32_t>(bytes) | (load<uint32_t>(bytes + length - 4) << 32);
  }
  if (length == 0) {
    return 0;
  }
  return load<uint8_t>(bytes) | (load<uint8_t>(bytes + length / 2) << 8) |
         (load<uint8_t>(bytes + length - 1) << 16);
}

uint64_t mixed(uint64_t hash, uint64_t word) {
  hash = spread(hash ^ foldWord(word));
  return hash ^ (hash >> 32);
}

bool isEqualFolded(const char *first, const char *second, size_t length) {
  for (; length >= kWordBytes; length -= kWordBytes) {
    if (foldWord(load<uint64_t>(first)) != foldWord(load<uint64_t>(second))) {
      return false;
    }
    first += kWordBytes;
    second += kWordBytes;
  }
  return foldWord(tailWord(first, length)) == foldWord(tailWord(second, length));
}

}  // namespace

bool iniEqual(IniText first, IniText second) {
  return first.length == second.length && (memcmp(first.bytes, second.bytes, first.length) == 0 ||
                                           isEqualFolded(first.bytes, second.bytes, first.length));
}

uint32_t iniHash(IniText text) {
  uint64_t hash = text.length;
  size_t at = 0;
  for (; text.length - at >= kWordBytes; at += kWordBytes) {
    hash = mixed(hash, load<uint64_t>(text.bytes + at));
  }
  hash = mixed(hash, tailWord(text.bytes + at, text.length - at));
  return static_cast<uint32_t>(hash ^ (hash >> 16));
}

bool iniIndexReset(IniIndex &index, uint32_t count) {
  const uint32_t wanted = std::bit_ceil(2 * count);
  if (index.capacity < wanted) {
    uint32_t *slots = makeArray<uint32_t>(wanted, ZOV_DEFAULT_TAG, ZOV_HERE);
    if (slots == nullptr) {
      return false;
    }
    iniIndexFree(index);
    index.slots = slots;
    index.capacity = wanted;
  }
  memset(index.slots, 0, index.capacity * sizeof(uint32_t));
  return true;
}

void iniIndexFree(IniIndex &index) {
  zov_freeMem(index.slots, ZOV_DEFAULT_TAG);
  index = {};
}

}  // namespace zov
