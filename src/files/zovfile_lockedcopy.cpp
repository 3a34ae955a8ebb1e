// SPDX-License-Identifier: Apache-2.0
//
// Copies that replace files on disk, made under one name by any number of
// processes. The copy is its own lock:
//
//   create exclusively -> lock -> check the name -> write -> check -> rename
//
// The rule: a process removes, empties or renames the name only while it holds the
// lock (flock) of the file that the name leads to. The process that made a copy
// holds its lock until the copy is placed or removed; one that is killed leaves a
// copy without a lock, a leftover.
//
// Each step keeps the rule:
//
// - Creating is exclusive, so it takes no other file's name.
// - Another process may lock a new copy, and remove it as a leftover, before its
//   maker has locked it. So the maker checks the name under the lock, and leaves
//   alone a copy that it could not lock or that has lost its name.
// - A leftover is removed under its lock, when the name leads to it. It may be the
//   copy of a process that has just placed it, so the name is opened once more
//   under the lock.
// - The maker renames the copy, or removes it after a failure, under the lock, when
//   the name leads to it.
// - Between such a check and the removal or renaming the name goes on leading to
//   the file: a process that would take it needs the lock, and creating needs a
//   free name.
// - A leftover is not filled again: a process that opened it before it was emptied
//   could not tell it from a copy in use.
//
// On a file system without such locks the exclusive creation alone is the lock.
// Nothing tells then whether a copy is in use, so only its maker touches it.
//
// A link, a fifo, a directory or a file with a second name under the name is no
// such copy. It is neither opened for writing nor removed.
//
// This process keeps no state and takes no lock of its own here. Callers hold jumps
// off.
#include "files/zovfile_lockedcopy.h"

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "core/zov_shortage.h"
#include "files/zovunix_entry.h"

namespace zov {
namespace {

constexpr mode_t kPermissionBits = 0777;
constexpr int64_t kMostWaitMs = 2000;
constexpr uint32_t kStepMs = 1;

// How an attempt to get the name ended.
enum class Attempt : uint8_t { kMade, kAgain, kRefused, kNoMemory };

enum class Lock : uint8_t {
  kTaken,
  kBusy,     // held elsewhere, or failed for a reason that may pass
  kUnknown,  // the file system has no locks
};

int64_t nowMs() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

Lock takeLock(int descriptor) {
  if (zov_flLock(static_cast<uint64_t>(descriptor)) == ZOV_OKAY) {
    return Lock::kTaken;
  }
  const bool isUnknown =
      errno == EOPNOTSUPP || errno == ENOLCK || errno == ENOSYS || errno == EINVAL;
  return isUnknown ? Lock::kUnknown : Lock::kBusy;
}

// A child that another thread forked shares the lock, so closing the descriptor
// does not end it.
void endLock(int descriptor) {
  zov_flUnlock(static_cast<uint64_t>(descriptor));
}

// Whether the entry of a name, links not followed, is an open file. leadsTo()
// follows them, and a link is nothing that this protocol makes or removes.
bool isEntryOf(const char *path, int descriptor) {
  struct stat named;
  struct stat opened;
  return lstat(path, &named) == 0 && fstat(descriptor, &opened) == 0 && isSame(named, opened);
}

// Opens what a name leads to, without waiting and without following links.
int openLeftover(const char *path) {
  return open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

// Whether the name still leads to an open leftover. Opening it makes a network
// file system ask its server.
bool opensAgain(const char *path, const struct stat &leftover) {
  const int opened = openLeftover(path);
  if (opened < 0) {
    return false;
  }
  struct stat now;
  const bool isStill = fstat(opened, &now) == 0 && isSame(now, leftover);
  close(opened);
  return isStill;
}

bool mayBeLeftover(const struct stat &found, const struct stat &original) {
  return S_ISREG(found.st_mode) && found.st_nlink <= 1 && !isSame(found, original);
}

Attempt removeOpened(const char *path, int descriptor, const struct stat &original) {
  struct stat found;
  if (fstat(descriptor, &found) != 0 || !mayBeLeftover(found, original)) {
    return Attempt::kRefused;
  }
  const Lock lock = takeLock(descriptor);
  if (lock != Lock::kTaken) {
    return lock == Lock::kBusy ? Attempt::kAgain : Attempt::kRefused;
  }
  const bool isRemoved = !opensAgain(path, found) || zov_flRemove(path) == 0;
  endLock(descriptor);
  return isRemoved ? Attempt::kAgain : Attempt::kRefused;
}

Attempt removeLeftover(const char *path, const struct stat &original) {
  const int opened = openLeftover(path);
  if (opened < 0) {
    return errno == ENOENT ? Attempt::kAgain : Attempt::kRefused;
  }
  const Attempt attempt = removeOpened(path, opened, original);
  close(opened);
  return attempt;
}

// Makes the copy. One that cannot be locked, or has lost its name, is left to the
// process that has it.
Attempt tryMake(LockedCopy &copy, const struct stat &original) {
  const Opened opened = fileOpenNew(copy.path, copy.typeFlags | ZOV_FILE_NOSYNC, copy.file);
  if (opened == Opened::kNoMemory) {
    return Attempt::kNoMemory;
  }
  if (opened == Opened::kNo) {
    return errno == EEXIST ? removeLeftover(copy.path, original) : Attempt::kRefused;
  }
  const int descriptor = descriptorOf(*copy.file);
  if (takeLock(descriptor) != Lock::kBusy && isEntryOf(copy.path, descriptor)) {
    return Attempt::kMade;
  }
  endLock(descriptor);
  zov_fileClose(copy.file);
  copy.file = nullptr;
  return Attempt::kAgain;
}

// Whether the system reports no lost bytes. Of bytes that were not synced it may
// report them only when a descriptor is closed.
bool isSent(int descriptor) {
  const int second = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  return second >= 0 && close(second) == 0;
}

int32_t finish(const LockedCopy &copy, const struct stat &original) {
  const int descriptor = descriptorOf(*copy.file);
  if (giveMode(descriptor, original.st_mode & kPermissionBits, original.st_gid) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  const bool isUnsynced = (copy.typeFlags & ZOV_FILE_NOSYNC) != 0;
  if (!isUnsynced && zov_flSync(static_cast<uint64_t>(descriptor)) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  return isSent(descriptor) && isEntryOf(copy.path, descriptor) ? ZOV_OKAY : ZOV_ERROR;
}

}  // namespace

Opened openOriginal(const char *path, uint32_t typeFlags, struct stat &status, ZOV_FILE &file) {
  if (standardStream(path) >= 0) {
    return Opened::kNo;
  }
  const Opened opened = fileOpenPlain(path, typeFlags, status, file);
  if (opened == Opened::kYes) {
    status.st_mode = passableMode(descriptorOf(*file), status.st_mode);
  }
  return opened;
}

int32_t lockedCopyMake(LockedCopy &copy, const struct stat &original) {
  assert(noJumpDepth > 0);
  assert(copy.file == nullptr && !copy.isPlaced);
  const int64_t last = nowMs() + kMostWaitMs;
  Attempt attempt = tryMake(copy, original);
  while (attempt == Attempt::kAgain && nowMs() <= last) {
    zov_sleep(kStepMs);
    attempt = tryMake(copy, original);
  }
  assert((attempt == Attempt::kMade) == (copy.file != nullptr));
  if (attempt == Attempt::kNoMemory) {
    return ZOV_NOMEMORY;
  }
  return attempt == Attempt::kMade ? ZOV_OKAY : ZOV_ERROR;
}

void lockedCopyGiveOwner(const LockedCopy &copy, const struct stat &original) {
  const int descriptor = descriptorOf(*copy.file);
  // giveMode() looks at the group that the copy has in the end.
  [[maybe_unused]] const bool isGiven =
      fchown(descriptor, original.st_uid, original.st_gid) == 0 ||
      fchown(descriptor, static_cast<uid_t>(-1), original.st_gid) == 0;
}

bool lockedCopyIs(const LockedCopy &copy, const struct stat &file) {
  struct stat own;
  return fstat(descriptorOf(*copy.file), &own) == 0 && isSame(own, file);
}

int32_t lockedCopyPlace(LockedCopy &copy, const char *path, const struct stat &original) {
  assert(copy.file != nullptr && !copy.isPlaced);
  if (finish(copy, original) != ZOV_OKAY || zov_flRename(copy.path, path) != 0) {
    return ZOV_ERROR;
  }
  copy.isPlaced = true;
  return syncDirectoryOf(path, copy.typeFlags);
}

void lockedCopyEnd(LockedCopy &copy) {
  const int descriptor = descriptorOf(*copy.file);
  if (!copy.isPlaced && isEntryOf(copy.path, descriptor)) {
    zov_flRemove(copy.path);
  }
  endLock(descriptor);
  zov_fileClose(copy.file);
}

}  // namespace zov
