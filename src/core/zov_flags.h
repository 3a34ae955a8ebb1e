// SPDX-License-Identifier: Apache-2.0
//
// How the library looks at the exported flags, which any thread may read while
// another sets them.
#ifndef ZOV_CORE_ZOV_FLAGS_H
#define ZOV_CORE_ZOV_FLAGS_H

#include <atomic>

#include "zov.h"

namespace zov {

// The exported flags are plain integers to their users; the library itself
// reads and writes them as relaxed atomics. They order nothing.
inline int32_t loadFlag(int32_t &flag) {
  return std::atomic_ref<int32_t>(flag).load(std::memory_order_relaxed);
}

inline void storeFlag(int32_t &flag, int32_t value) {
  std::atomic_ref<int32_t>(flag).store(value, std::memory_order_relaxed);
}

// Below 1 the library is not started: an unmatched zov_term() leaves -1.
inline bool started() {
  return loadFlag(zov_inited) >= 1;
}

inline bool terminating() {
  return loadFlag(zov_terminating) != 0;
}

}  // namespace zov

#endif
