// SPDX-License-Identifier: Apache-2.0
//
// How many descriptors a process of the library may have open.
#ifndef ZOV_OS_ZOVUNIX_LIMIT_H
#define ZOV_OS_ZOVUNIX_LIMIT_H

#include <sys/resource.h>

namespace zov {

// The limit on descriptors from start-up on: all that the hard limit allows, or a
// fixed number where that is without limit. Never lower than before.
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
