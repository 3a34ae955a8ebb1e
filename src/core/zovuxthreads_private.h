// SPDX-License-Identifier: Apache-2.0
//
// What the library's own users of sync objects share.
#ifndef ZOV_CORE_ZOVUXTHREADS_PRIVATE_H
#define ZOV_CORE_ZOVUXTHREADS_PRIVATE_H

#include "zov.h"

// Takes a function out of the analysis of lock annotations, for locks that are
// taken on a condition.
#if defined(__clang__)
#define ZOV_NO_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define ZOV_NO_ANALYSIS
#endif

namespace zov {

// Whether a thread is inside a mutex.
bool isEntered(ZOV_SYNC mutex);

}  // namespace zov

#endif
