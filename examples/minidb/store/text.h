// SPDX-License-Identifier: Apache-2.0
//
// Strings of bytes that need not end in a NUL and may hold some.
#ifndef MINIDB_STORE_TEXT_H
#define MINIDB_STORE_TEXT_H

#include <stdint.h>
#include <string.h>

namespace minidb {

// Null bytes mean that there is none.
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

}  // namespace minidb

#endif
