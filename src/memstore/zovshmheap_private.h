// SPDX-License-Identifier: Apache-2.0
//
// What the mapping cache asks of the heap beside the public calls.
#ifndef ZOV_MEMSTORE_ZOVSHMHEAP_PRIVATE_H
#define ZOV_MEMSTORE_ZOVSHMHEAP_PRIVATE_H

#include "zov.h"

namespace zov {

// Makes room in the context's table for a region of that number, so that
// zov_shmCreate() cannot fail on the table. False, with the table as it was,
// when there is none.
bool shmReserve(ZOV_SHM_CTX context, uint32_t number);

// The root block of a context that is known to be live, or null.
void *shmRoot(ZOV_SHM_CTX context);

// zov_shmRemoveCtx() in two steps. The first takes the context out of reach and
// gives it, or null when there is none of that id; the second releases the
// memory, which may take a while and wants no lock. Null is ignored.
ZOV_SHM_CTX shmDetach(uint64_t id);
void shmRelease(ZOV_SHM_CTX context);

}  // namespace zov

#endif
