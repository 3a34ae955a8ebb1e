// SPDX-License-Identifier: Apache-2.0
//
// What the library's own users of sync objects share.
#ifndef ZOV_CORE_ZOVUXTHREADS_PRIVATE_H
#define ZOV_CORE_ZOVUXTHREADS_PRIVATE_H

#include "core/zov_lock.h"

namespace zov {

// Whether any thread is inside a mutex.
bool isEntered(ZOV_SYNC mutex);

// Whether the calling thread is. Neither knows of a mutex that is entered directly.
bool isEnteredHere(ZOV_SYNC mutex);

}  // namespace zov

#endif
