// SPDX-License-Identifier: Apache-2.0
//
// Each FAULT and REPLACE below stands in for the call that it names; the build
// reads the names from here.
#define ZOVTEST_FAULTS
#include "support/faults.h"

#include <dirent.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "support/crash.h"
#include "support/replace.h"

namespace zovtest {

namespace {

thread_local Fault *newest = nullptr;
thread_local bool inHook = false;
thread_local std::optional<Fault> failingAllocation;

std::atomic<int64_t> liveBlockCount{0};
std::atomic<int64_t> liveSlotCount{0};
std::atomic<int64_t> heldLockCount{0};

void *counted(void *block) {
  liveBlockCount += block != nullptr ? 1 : 0;
  return block;
}

template <typename Result = int>
Result failed(const Fault::Verdict &verdict, Result result = -1) {
  errno = verdict.error;
  return result;
}

std::string bytesOf(const void *from, ssize_t count) {
  return {static_cast<const char *>(from), static_cast<size_t>(count)};
}

}  // namespace

Fault::Fault(Call call, uint32_t nth, int error, bool onwards, size_t limit,
             std::function<void(uint32_t)> before)
    : call_(call),
      nth_(nth),
      error_(error),
      onwards_(onwards),
      limit_(limit),
      before_(std::move(before)),
      older_(newest) {
  newest = this;
}

Fault::~Fault() {
  Fault **link = &newest;
  while (*link != this) {
    link = &(*link)->older_;
  }
  *link = older_;
}

void Fault::use(Verdict &verdict) {
  const uint32_t number = ++uses_;
  if (before_ && !inHook) {
    inHook = true;
    before_(number);
    inHook = false;
  }
  if (number == nth_ || (onwards_ && number > nth_)) {
    if (limit_ == SIZE_MAX && !verdict.fails) {
      verdict.fails = true;
      verdict.error = error_;
    }
    verdict.limit = std::min(verdict.limit, limit_);
  }
}

Fault::Verdict Fault::ask(Call call) {
  Verdict verdict;
  for (Fault *fault = inHook ? nullptr : newest; fault != nullptr; fault = fault->older_) {
    if (fault->call_ == call || (fault->call_ == Call::system && call < Call::system)) {
      fault->use(verdict);
    }
  }
  return verdict;
}

void failAllocationAfter(uint32_t passing, bool all) {
  failingAllocation.emplace(Call::allocation, passing + 1, ENOMEM, all);
}

bool stopFailing() {
  const bool struck = failingAllocation->struck();
  failingAllocation.reset();
  return struck;
}

std::atomic<uint32_t> locksFoundTaken{0};
thread_local std::optional<timespec> madeUpNow;

Standing standing() {
  return {openDescriptors(), liveBlockCount, heldLockCount, liveSlotCount};
}

// A call that fails with `failure`, an expression of `verdict`.
#define FAULT(Result, name, parameters, arguments, failure)   \
  REPLACE(Result, name, parameters, {                         \
    const Fault::Verdict verdict = Fault::ask(Call::name);    \
    return verdict.fails ? failure : __real_##name arguments; \
  })

// A call that fails with -1. What it did goes into the record where there is one:
// `what` is its kind, path or descriptor, and bytes.
#define RECORDED(Result, name, parameters, arguments, ...)                           \
  REPLACE(Result, name, parameters, {                                                \
    const Fault::Verdict verdict = Fault::ask(Call::name);                           \
    const Result result = verdict.fails ? failed(verdict) : __real_##name arguments; \
    if (result >= 0 && recorder != nullptr) {                                        \
      recorder->add(Event::__VA_ARGS__);                                             \
    }                                                                                \
    return result;                                                                   \
  })

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

// clang-format off
RECORDED(int, open, (const char *path, int flags, mode_t mode), (path, flags, mode), kCreate, path)
FAULT(ssize_t, read, (int fd, void *to, size_t size), (fd, to, std::min(verdict.limit, size)), failed(verdict))
RECORDED(ssize_t, write, (int fd, const void *from, size_t size), (fd, from, std::min(verdict.limit, size)), kWrite, fd, bytesOf(from, result), -1)
FAULT(ssize_t, pread, (int fd, void *to, size_t size, off_t at), (fd, to, std::min(verdict.limit, size), at), failed(verdict))
RECORDED(ssize_t, pwrite, (int fd, const void *from, size_t size, off_t at), (fd, from, std::min(verdict.limit, size), at), kWrite, fd, bytesOf(from, result), at)
FAULT(int, ftruncate, (int fd, off_t size), (fd, size), failed(verdict))
FAULT(int, fstat, (int fd, struct stat *to), (fd, to), failed(verdict))
FAULT(int, stat, (const char *path, struct stat *to), (path, to), failed(verdict))
FAULT(int, lstat, (const char *path, struct stat *to), (path, to), failed(verdict))
RECORDED(int, rename, (const char *from, const char *to), (from, to), kRename, from, to)
RECORDED(int, remove, (const char *path), (path), kRemove, path)
RECORDED(int, unlink, (const char *path), (path), kRemove, path)
RECORDED(int, mkdir, (const char *path, mode_t mode), (path, mode), kCreate, path + std::string("/"))
RECORDED(int, rmdir, (const char *path), (path), kRemove, path)
FAULT(DIR *, opendir, (const char *path), (path), failed(verdict, nullptr))
FAULT(int, flock, (int fd, int how), (fd, how), failed(verdict))
FAULT(int, fchmod, (int fd, mode_t mode), (fd, mode), failed(verdict))
FAULT(int, fchown, (int fd, uid_t user, gid_t group), (fd, user, group), failed(verdict))
FAULT(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), failed(verdict))
FAULT(char *, getcwd, (char *to, size_t size), (to, size), failed(verdict, nullptr))
FAULT(int, fcntl, (int fd, int command, long argument), (fd, command, argument), failed(verdict))
FAULT(int, pipe2, (int *ends, int flags), (ends, flags), failed(verdict))
FAULT(pid_t, fork, (), (), failed(verdict))
FAULT(int, poll, (pollfd *fds, nfds_t count, int waitMs), (fds, count, waitMs), failed(verdict))
FAULT(int, ppoll, (pollfd *fds, nfds_t count, const timespec *wait, const sigset_t *mask), (fds, count, wait, mask), failed(verdict))
FAULT(int, pthread_create, (pthread_t *id, const pthread_attr_t *with, void *(*run)(void *), void *about), (id, with, run, about), verdict.error)
FAULT(int, pthread_mutex_init, (pthread_mutex_t *mutex, const pthread_mutexattr_t *with), (mutex, with), verdict.error)
FAULT(int, pthread_cond_init, (pthread_cond_t *condition, const pthread_condattr_t *with), (condition, with), verdict.error)
// clang-format on

// What could not be written is forgotten, though it shows until the system crashes.
REPLACE(int, fsync, (int fd), {
  const Fault::Verdict verdict = Fault::ask(Call::fsync);
  if (recorder != nullptr) {
    recorder->add(Event::kSync, fd, verdict.fails ? "fails" : "");
  }
  return verdict.fails ? failed(verdict) : __real_fsync(fd);
})

REPLACE(int, gettimeofday, (timeval * now, void *zone), {
  const Fault::Verdict verdict = Fault::ask(Call::gettimeofday);
  const int status = verdict.fails ? failed(verdict) : __real_gettimeofday(now, zone);
  return madeUpNow ? *now = {madeUpNow->tv_sec, madeUpNow->tv_nsec / 1000}, 0 : status;
})
REPLACE(int, clock_gettime, (clockid_t clock, timespec *now), {
  const Fault::Verdict verdict = Fault::ask(Call::clock_gettime);
  const int status = verdict.fails ? failed(verdict) : __real_clock_gettime(clock, now);
  return madeUpNow ? *now = *madeUpNow, 0 : status;
})
REPLACE(int, close, (int fd), {
  const int status = __real_close(fd);
  const Fault::Verdict verdict = Fault::ask(Call::close);
  return verdict.fails ? failed(verdict) : status;
})
REPLACE(dirent *, readdir, (DIR * directory), {
  const Fault::Verdict verdict = Fault::ask(Call::readdir);
  dirent *entry = verdict.fails ? failed(verdict, nullptr) : __real_readdir(directory);
  if (entry != nullptr && verdict.limit != SIZE_MAX) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
})

REPLACE(void *, malloc, (size_t size), {
  const Fault::Verdict verdict = Fault::ask(Call::allocation);
  return verdict.fails ? failed(verdict, nullptr) : counted(__real_malloc(size));
})
REPLACE(void *, calloc, (size_t count, size_t size), {
  const Fault::Verdict verdict = Fault::ask(Call::allocation);
  return verdict.fails ? failed(verdict, nullptr) : counted(__real_calloc(count, size));
})
REPLACE(void *, realloc, (void *block, size_t size), {
  const Fault::Verdict verdict = Fault::ask(Call::allocation);
  if (verdict.fails) {
    return failed(verdict, nullptr);
  }
  void *moved = __real_realloc(block, size);
  return block == nullptr ? counted(moved) : moved;
})
REPLACE(void, free, (void *block), {
  liveBlockCount -= block != nullptr ? 1 : 0;
  __real_free(block);
})

REPLACE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), {
  Fault::ask(Call::pthread_mutex_lock);
  if (pthread_mutex_trylock(mutex) != 0) {
    ++locksFoundTaken;
    __real_pthread_mutex_lock(mutex);
  }
  ++heldLockCount;
  return 0;
})
REPLACE(int, pthread_mutex_unlock, (pthread_mutex_t * mutex), {
  --heldLockCount;
  return __real_pthread_mutex_unlock(mutex);
})

REPLACE(ZOV_SYNC, zov_syncCreate_check, (int32_t kind, const char *by, uint32_t at), {
  const bool fails = Fault::ask(Call::syncObject).fails;
  const ZOV_SYNC made = fails ? ZOV_NO_SYNC : __real_zov_syncCreate_check(kind, by, at);
  liveSlotCount += made != ZOV_NO_SYNC ? 1 : 0;
  return made;
})
REPLACE(void, zov_syncDelete, (ZOV_SYNC handle), {
  liveSlotCount -= handle + 1 < 2 ? 0 : 1;
  __real_zov_syncDelete(handle);
})
REPLACE(void, zov_syncShutdown, (), {
  liveSlotCount = 0;
  __real_zov_syncShutdown();
})
REPLACE(ZOV_TAG, zov_createTagEx, (jmp_buf * recovery, uint32_t flags, const char *by, uint32_t at),
        return Fault::ask(Call::tag).fails ? ZOV_NO_TAG
                                           : __real_zov_createTagEx(recovery, flags, by, at);)

}  // namespace zovtest
