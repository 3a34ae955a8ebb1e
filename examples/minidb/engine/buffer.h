// SPDX-License-Identifier: Apache-2.0
//
// Strings of bytes, and bytes that grow, of a memory tag.
#ifndef MINIDB_BUFFER_H
#define MINIDB_BUFFER_H

#include <string.h>

#include "zov.h"

namespace minidb {

// A string of bytes that need not end in a NUL; null bytes mean that there is none.
struct Text {
  const char *bytes;
  uint32_t length;
};

inline Text textOf(const char *string) {
  return {string, static_cast<uint32_t>(strlen(string))};
}

// Orders texts by their bytes, as memcmp() does, the shorter one first.
inline int compareTexts(Text first, Text second) {
  const uint32_t common = first.length < second.length ? first.length : second.length;
  const int order = common == 0 ? 0 : memcmp(first.bytes, second.bytes, common);
  if (order != 0 || first.length == second.length) {
    return order;
  }
  return first.length < second.length ? -1 : 1;
}

// Released with its tag. A zero-filled one is empty.
struct Buffer {
  char *bytes;
  uint32_t length;
  uint32_t capacity;
};

inline Text textOf(const Buffer &buffer) {
  return {buffer.bytes, buffer.length};
}

// Makes room for so many bytes in all. False when memory is missing, which
// libzov reports; the buffer then stays as it was.
inline bool reserveBytes(Buffer &buffer, ZOV_TAG tag, uint64_t length) {
  if (length <= buffer.capacity) {
    return true;
  }
  const uint64_t capacity = length + length / 2;
  if (capacity > UINT32_MAX) {
    return false;
  }
  char *grown = static_cast<char *>(zov_extendMem(buffer.bytes, capacity, tag, 0, 0, ZOV_HERE));
  if (grown == nullptr) {
    return false;
  }
  buffer.bytes = grown;
  buffer.capacity = static_cast<uint32_t>(capacity);
  return true;
}

// As reserveBytes(), and puts bytes at the end.
inline bool appendBytes(Buffer &buffer, ZOV_TAG tag, const void *bytes, uint32_t length) {
  if (length == 0) {
    return true;
  }
  if (!reserveBytes(buffer, tag, uint64_t{buffer.length} + length)) {
    return false;
  }
  memcpy(buffer.bytes + buffer.length, bytes, length);
  buffer.length += length;
  return true;
}

inline bool appendText(Buffer &buffer, ZOV_TAG tag, Text text) {
  return appendBytes(buffer, tag, text.bytes, text.length);
}

}  // namespace minidb

#endif
