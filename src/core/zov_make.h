// SPDX-License-Identifier: Apache-2.0
//
// Typed forms of zov_getMem() and zov_extendMem(), which the sources of the library
// use in their place. Each takes a tag and the place that a shortage is reported for
// (ZOV_HERE), fails when memory is short, and may jump as zov_getMem() does.
#ifndef ZOV_CORE_ZOV_MAKE_H
#define ZOV_CORE_ZOV_MAKE_H

#include <type_traits>

#include "zov.h"

namespace zov {

// An object all of whose bytes are zero, with room for more bytes behind it,
// which are zero too.
template <typename T>
T *make(ZOV_TAG tag, const char *sourceName, uint32_t line, uint64_t extraBytes = 0) {
  static_assert(std::is_trivially_destructible_v<T>);
  return static_cast<T *>(
      zov_getMem(sizeof(T) + extraBytes, tag, ZOV_MEM_ZERO, nullptr, sourceName, line));
}

// The same with bytes that hold anything, for what sets them all.
template <typename T>
T *makeUncleared(ZOV_TAG tag, const char *sourceName, uint32_t line, uint64_t extraBytes = 0) {
  static_assert(std::is_trivially_destructible_v<T>);
  return static_cast<T *>(
      zov_getMem(sizeof(T) + extraBytes, tag, ZOV_MEM_PLAIN, nullptr, sourceName, line));
}

// Elements whose bytes hold anything. The caller knows that their size in bytes
// does not overflow.
template <typename T>
T *makeArray(uint64_t count, ZOV_TAG tag, const char *sourceName, uint32_t line) {
  static_assert(std::is_trivially_destructible_v<T>);
  return static_cast<T *>(
      zov_getMem(count * sizeof(T), tag, ZOV_MEM_PLAIN, nullptr, sourceName, line));
}

// The same with all bytes zero.
template <typename T>
T *makeZeroArray(uint64_t count, ZOV_TAG tag, const char *sourceName, uint32_t line) {
  static_assert(std::is_trivially_destructible_v<T>);
  return static_cast<T *>(
      zov_getMem(count * sizeof(T), tag, ZOV_MEM_ZERO, nullptr, sourceName, line));
}

// Makes an array longer, as zov_extendMem() does a block, and zeros its last
// zeroCount elements. False when memory is short: the array stays as it is.
template <typename T>
bool growArray(T *&elements, uint64_t count, uint64_t zeroCount, ZOV_TAG tag,
               const char *sourceName, uint32_t line) {
  static_assert(std::is_trivially_copyable_v<T>);
  void *grown = zov_extendMem(elements, count * sizeof(T), tag, zeroCount != 0 ? 1 : 0,
                              zeroCount * sizeof(T), sourceName, line);
  elements = grown == nullptr ? elements : static_cast<T *>(grown);
  return grown != nullptr;
}

// A copy of a text up to its NUL.
inline char *copyString(const char *text, ZOV_TAG tag, const char *sourceName, uint32_t line) {
  return static_cast<char *>(zov_getMem(0, tag, ZOV_MEM_STRDUP, text, sourceName, line));
}

}  // namespace zov

#endif
