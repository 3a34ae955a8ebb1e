// SPDX-License-Identifier: Apache-2.0
//
// Comparing and hashing names without regard to ASCII case, eight letters at a
// time, and the memory of the name index. Other bytes, UTF-8 among them, are
// compared as they are. Nothing here locks; callers hold jumps off.
#include <algorithm>
#include <bit>

#include "config/zovini_name.h"

namespace zov {
namespace {

constexpr uint64_t kMix = 0x9E3779B97F4A7C15;

// The next letters of a text in lower case, and NULs where it has ended.
uint64_t foldedWord(IniText text, size_t at) {
  uint64_t word = 0;
  memcpy(&word, text.bytes + at, std::min(text.length - at, sizeof word));
  return iniFoldWord(word);
}

}  // namespace

bool iniEqual(IniText first, IniText second) {
  if (first.length != second.length) {
    return false;
  }
  for (size_t at = 0; at < first.length; at += sizeof(uint64_t)) {
    if (foldedWord(first, at) != foldedWord(second, at)) {
      return false;
    }
  }
  return true;
}

uint32_t iniHash(IniText text) {
  uint64_t hash = text.length;
  for (size_t at = 0; at < text.length; at += sizeof(uint64_t)) {
    hash = (std::rotl(hash, 29) ^ foldedWord(text, at)) * kMix;
    hash ^= hash >> 32;
  }
  hash *= kMix;
  return static_cast<uint32_t>(hash >> 32);
}

bool iniIndexReset(IniIndex &index, uint32_t count) {
  const uint32_t wanted = std::bit_ceil(2 * count);
  if (index.capacity < wanted) {
    void *block = zov_getMem(uint64_t{wanted} * sizeof(uint32_t), ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN,
                             nullptr, ZOV_HERE);
    if (block == nullptr) {
      return false;
    }
    iniIndexFree(index);
    index.slots = static_cast<uint32_t *>(block);
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
