// SPDX-License-Identifier: Apache-2.0
//
// Bytes that grow, of a memory tag.
#ifndef MINIDB_BUFFER_H
#define MINIDB_BUFFER_H

#include <string.h>

#include "zov.h"

namespace minidb {

// Released with its tag. A zero-filled one is empty.
struct Buffer {
  char *bytes;
  uint32_t length;
  uint32_t capacity;
};

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
  if (!reserveBytes(buffer, tag, uint64_t{buffer.length} + length)) {
    return false;
  }
  memcpy(buffer.bytes + buffer.length, bytes, length);
  buffer.length += length;
  return true;
}

}  // namespace minidb

#endif
