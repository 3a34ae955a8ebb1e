// SPDX-License-Identifier: Apache-2.0
//
// Makes malloc(), calloc() and realloc() beneath the library fail on demand.
// For test programs added with ALLOCATIONS. Only the thread that asks is affected.
#ifndef TESTS_SUPPORT_ALLOC_FAILURE_H
#define TESTS_SUPPORT_ALLOC_FAILURE_H

#include "support/test.h"

namespace zovtest {

// From now on the allocation after `passing` more fails; with `all`, and every
// one after it.
void failAllocationAfter(uint32_t passing, bool all = false);

// Lets allocations through again. Tells whether one was made to fail.
bool stopFailing();

// Blocks allocated and not yet freed by this program, its framework included.
int64_t liveBlocks();

// Calls work() with its first allocation failing, then its second, and so on
// until none was left to fail. Each time check() is told whether one failed, and
// puts away what work() made. What work() prints is dropped.
template <typename Work, typename Check>
void failEachAllocation(Work work, Check check) {
  const int64_t before = liveBlocks();
  bool failed = true;
  for (uint32_t passing = 0; failed && !testing::Test::HasFatalFailure(); ++passing) {
    SCOPED_TRACE(testing::Message() << "after failing allocation " << passing);
    ASSERT_LT(passing, 1000u);
    outputOf([&] {
      failAllocationAfter(passing);
      work();
      failed = stopFailing();
    });
    check(failed);
  }
  EXPECT_EQ(liveBlocks(), before) << "something is left";
}

}  // namespace zovtest

#endif
