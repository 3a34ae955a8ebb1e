// SPDX-License-Identifier: Apache-2.0
//
// How many descriptors a process of the library may have open.
#ifndef ZOV_OS_ZOVUNIX_LIMIT_H
#define ZOV_OS_ZOVUNIX_LIMIT_H

#include <sys/resource.h>

namespace zov {

// What a limit on descriptors becomes at start-up: all that the hard limit
// allows, and a fixed number where it allows everything. Never lower than it is.
constexpr rlimit raisedLimit(rlimit limit) {
  constexpr rlim_t kEnoughDescriptors = 1024;
  const rlim_t target = limit.rlim_max == RLIM_INFINITY ? kEnoughDescriptors : limit.rlim_max;
  if (limit.rlim_cur < target) {
    limit.rlim_cur = target;
  }
  return limit;
}

}  // namespace zov

#endif
