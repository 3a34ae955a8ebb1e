// SPDX-License-Identifier: Apache-2.0
//
// Makes the calls beneath the library fail, fall short or run something first,
// and counts what they hand out. For test programs added with FAULTS. Calls that
// a test itself makes are met too: arm only around the work.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <time.h>

#include <functional>
#include <optional>

#include "support/test.h"

namespace zovtest {

// What can be made to fail. Those up to `system` are asked for by their names;
// close() closes and then fails. `system` stands for any of them, `allocation`
// for malloc(), calloc() and realloc(), the last two for the library's own
// zov_syncCreate_check() and zov_createTagEx() where another module calls them.
// clang-format off
enum class Call : uint8_t {
  open, read, write, pread, pwrite, fsync, ftruncate, fstat, stat, lstat, rename, remove, unlink,
  close, mkdir, rmdir, opendir, readdir, flock, fchmod, fchown, lseek, getcwd, fcntl, pipe2,
  fork, poll, ppoll, gettimeofday, clock_gettime,
  system,
  allocation, pthread_create, pthread_mutex_init, pthread_cond_init, pthread_mutex_lock,
  syncObject, tag
};
// clang-format on

struct Limit {
  size_t bytes;
};

// While it lives, uses of a call on this thread are counted, and
//  - the nth of them fails with `error`, and each later one too with `onwards`;
//  - or it transfers at most `limit` (an entry of a directory comes without type);
//  - or `before` runs before each use and is told its number.
// Several may live at once, the newest first.
class Fault {
 public:
  Fault(Call call, uint32_t nth, int error, bool onwards = false, size_t limit = SIZE_MAX,
        std::function<void(uint32_t)> before = {});
  Fault(Call call, uint32_t nth, Limit limit, bool onwards = false)
      : Fault(call, nth, 0, onwards, limit.bytes) {}
  explicit Fault(Call call, std::function<void(uint32_t)> before = {})
      : Fault(call, UINT32_MAX, 0, false, SIZE_MAX, std::move(before)) {}
  ~Fault();
  Fault(const Fault &) = delete;
  Fault &operator=(const Fault &) = delete;

  uint32_t uses() const { return uses_; }
  bool struck() const { return uses_ >= nth_; }

  // Of the faults on this thread: what becomes of one use of a call.
  struct Verdict {
    bool fails = false;
    int error = 0;
    size_t limit = SIZE_MAX;
  };
  static Verdict ask(Call call);

 private:
  void use(Verdict &verdict);

  Call call_;
  uint32_t nth_;
  int error_;
  bool onwards_;
  size_t limit_;
  std::function<void(uint32_t)> before_;
  uint32_t uses_ = 0;
  Fault *older_;
};

// From now on the allocation after `passing` more fails; with `all`, and every
// one after it.
void failAllocationAfter(uint32_t passing, bool all = false);

// Lets allocations through again. Tells whether one was made to fail.
bool stopFailing();

// What setjmp() gives where no allocation but the first `passing` of some work finds
// memory, with the tag armed: 0 when the work came back.
template <typename Work>
int jumpOf(ZOV_TAG tag, Work work, uint32_t passing = 0) {
  jmp_buf recovery;
  const int value = setjmp(recovery);
  if (value == 0) {
    zov_resetTag(&recovery, tag);
    failAllocationAfter(passing, true);
    work();
  }
  EXPECT_TRUE(!stopFailing() || errno == ENOMEM) << errno;
  zov_resetTag(nullptr, tag);
  return value;
}

// What the clocks say to the library on this thread, where it is set.
extern thread_local std::optional<timespec> madeUpNow;

// Locks of the library that were found taken, by any thread so far.
extern std::atomic<uint32_t> locksFoundTaken;

// Blocks allocated and not yet freed by the library.
inline int64_t liveBlocks() {
  return standing().blocks;
}

}  // namespace zovtest

#endif
