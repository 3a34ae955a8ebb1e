// SPDX-License-Identifier: Apache-2.0
#include "support/alloc_failure.h"

#include <errno.h>
#include <stddef.h>

#include <atomic>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void __real_free(void *block);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *block, size_t size);
void __wrap_free(void *block);
const char *__asan_default_options();
const char *__tsan_default_options();

// Sizes that no allocator can serve must fail under the sanitizers as they do
// without, and not end the program.
const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}
const char *__tsan_default_options() {
  return "allocator_may_return_null=1";
}
}

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
  if (block != nullptr) {
    ++live;
  }
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

extern "C" {

void *__wrap_malloc(size_t size) {
  return shouldFail() ? nullptr : counted(__real_malloc(size));
}

void *__wrap_calloc(size_t count, size_t size) {
  return shouldFail() ? nullptr : counted(__real_calloc(count, size));
}

void *__wrap_realloc(void *block, size_t size) {
  if (shouldFail()) {
    return nullptr;
  }
  void *moved = __real_realloc(block, size);
  return block == nullptr ? counted(moved) : moved;
}

void __wrap_free(void *block) {
  if (block != nullptr) {
    --live;
  }
  __real_free(block);
}
}
