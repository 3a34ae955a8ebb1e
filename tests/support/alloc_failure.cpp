// SPDX-License-Identifier: Apache-2.0
#include "support/alloc_failure.h"

#include <errno.h>
#include <stddef.h>

#include <atomic>

#include "support/replace.h"

namespace {

thread_local bool armed = false;
thread_local bool failAll = false;
thread_local bool failed = false;
thread_local uint32_t remaining = 0;
std::atomic<int64_t> live{0};

bool shouldFail() {
  if (!armed || (failed && !failAll)) {
    return false;
  }
  if (remaining > 0) {
    --remaining;
    return false;
  }
  failed = true;
  errno = ENOMEM;
  return true;
}

void *counted(void *block) {
  live += block != nullptr ? 1 : 0;
  return block;
}

}  // namespace

namespace zovtest {

void failAllocationAfter(uint32_t passing, bool all) {
  armed = true;
  failAll = all;
  failed = false;
  remaining = passing;
}

bool stopFailing() {
  armed = false;
  return failed;
}

int64_t liveBlocks() {
  return live;
}

}  // namespace zovtest

// Sizes that no allocator can serve must fail under the sanitizers as they do
// without, and not end the program.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() {
  return "allocator_may_return_null=1";
}

REPLACE(void *, malloc, (size_t size),
        return shouldFail() ? nullptr : counted(__real_malloc(size));)
REPLACE(void *, calloc, (size_t count, size_t size),
        return shouldFail() ? nullptr : counted(__real_calloc(count, size));)
REPLACE(void *, realloc, (void *block, size_t size), {
  if (shouldFail()) {
    return nullptr;
  }
  void *moved = __real_realloc(block, size);
  return block == nullptr ? counted(moved) : moved;
})
REPLACE(void, free, (void *block), {
  live -= block != nullptr ? 1 : 0;
  __real_free(block);
})
