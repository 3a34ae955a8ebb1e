// SPDX-License-Identifier: Apache-2.0
//
// A mutex of libzov for the length of a scope.
#ifndef ENGINES_GUARD_H
#define ENGINES_GUARD_H

#include "zov.h"

#if defined(__clang__)
#define ENGINES_SCOPED __attribute__((scoped_lockable))
#else
#define ENGINES_SCOPED
#endif

namespace engines {

class ENGINES_SCOPED Guard {
 public:
  explicit Guard(ZOV_SYNC mutex) ZOV_ACQUIRE(mutex) : mutex_(mutex) { zov_syncEnterExcl(mutex); }
  ~Guard() ZOV_RELEASE() { zov_syncExitExcl(mutex_); }
  Guard(const Guard &) = delete;
  Guard &operator=(const Guard &) = delete;

 private:
  const ZOV_SYNC mutex_;
};

}  // namespace engines

#endif
