// SPDX-License-Identifier: Apache-2.0
//
// Makes malloc(), calloc() and realloc() beneath the library fail on demand.
// For test programs linked with WRAP malloc calloc realloc free and this file.
// Only the thread that asks is affected.
#ifndef TESTS_SUPPORT_ALLOC_FAILURE_H
#define TESTS_SUPPORT_ALLOC_FAILURE_H

#include <stdint.h>

namespace zovtest {

// From now on the allocation after `passing` more fails; with `all`, and every
// one after it.
void failAllocationAfter(uint32_t passing, bool all = false);

// Lets allocations through again. Tells whether one was made to fail.
bool stopFailing();

// Blocks allocated and not yet freed by this program, its framework included.
int64_t liveBlocks();

}  // namespace zovtest

#endif
