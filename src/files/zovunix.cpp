// SPDX-License-Identifier: Apache-2.0
//
// The native file primitives: each is one POSIX call, put into the library's
// conventions for handles and results. A descriptor is the system's own number
// held in 64 bits, all-ones when there is none.
//
//   uint64_t descriptor  ->  int  ->  open, read, pwrite, fsync, flock, ...
//
// A transfer makes exactly one system call. Interrupted and short transfers go
// back to the caller as they are, because only the caller knows what a partial
// record is worth to it.
//
// No state, no locks, no messages, nothing that allocates or jumps.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/zov_private.h"
#include "files/zovunix_private.h"

namespace {

constexpr mode_t kFileMode = 0666;
constexpr mode_t kDirectoryMode = 0777;

// 1 if the path exists, links followed, else 0. Where isDirectory is given it
// gets 1 for a directory and 0 for anything else, a missing path included.
int32_t getFileType(const char *path, int32_t *isDirectory) {
  struct stat status;
  const bool exists = stat(path, &status) == 0;
  if (isDirectory != nullptr) {
    *isDirectory = exists && S_ISDIR(status.st_mode) ? 1 : 0;
  }
  return exists ? 1 : 0;
}

}  // namespace

extern "C" {

int32_t zov_flOpen(const char *path, uint32_t openFlags, uint32_t, uint64_t *descriptor) {
  const int opened = open(path, static_cast<int>(openFlags), kFileMode);
  if (opened < 0) {
    *descriptor = ZOV_NO_DESCRIPTOR;
    return static_cast<int16_t>(errno);
  }
  *descriptor = static_cast<uint64_t>(opened);
  return ZOV_OKAY;
}

int32_t zov_flOpenStd(uint64_t *descriptor, int32_t streamNumber) {
  switch (streamNumber) {
    case STDIN_FILENO:
    case STDOUT_FILENO:
    case STDERR_FILENO:
      *descriptor = static_cast<uint64_t>(streamNumber);
      return ZOV_OKAY;
    default:
      return ZOV_ERROR;
  }
}

int32_t zov_flClose(uint64_t descriptor) {
  return close(zov::nativeOf(descriptor));
}

int32_t zov_flSeek(uint64_t descriptor, int64_t offset, int32_t whence) {
  return lseek(zov::nativeOf(descriptor), offset, whence) == -1 ? ZOV_ERROR : ZOV_OKAY;
}

uint32_t zov_flWrite(uint64_t descriptor, const void *buffer, uint32_t lengthBytes) {
  return zov::nativeWrite(descriptor, buffer, lengthBytes);
}

uint32_t zov_flRead(uint64_t descriptor, void *buffer, uint32_t lengthBytes) {
  return zov::nativeRead(descriptor, buffer, lengthBytes);
}

uint32_t zov_flSeekWrite(uint64_t descriptor, int64_t offset, const void *buffer,
                         uint32_t lengthBytes) {
  return zov::nativeSeekWrite(descriptor, offset, buffer, lengthBytes);
}

uint32_t zov_flSeekRead(uint64_t descriptor, int64_t offset, void *buffer, uint32_t lengthBytes) {
  return zov::nativeSeekRead(descriptor, offset, buffer, lengthBytes);
}

int32_t zov_flSync(uint64_t descriptor) {
  return fsync(zov::nativeOf(descriptor)) == 0 ? ZOV_OKAY : ZOV_ERROR;
}

int64_t zov_flSize(uint64_t descriptor) {
  struct stat status;
  return fstat(zov::nativeOf(descriptor), &status) == 0 ? status.st_size : 0;
}

int32_t zov_flSetSize(uint64_t descriptor, int64_t sizeBytes) {
  return ftruncate(zov::nativeOf(descriptor), sizeBytes);
}

int32_t zov_flLock(uint64_t descriptor) {
  return flock(zov::nativeOf(descriptor), LOCK_EX | LOCK_NB) == 0 ? ZOV_OKAY : ZOV_ERROR;
}

int32_t zov_flUnlock(uint64_t descriptor) {
  return flock(zov::nativeOf(descriptor), LOCK_UN | LOCK_NB);
}

int32_t zov_flRename(const char *oldPath, const char *newPath) {
  return rename(oldPath, newPath);
}

int32_t zov_flRemove(const char *path) {
  return remove(path);
}

int32_t zov_flValidate(const char *path, int32_t *isDirectory) {
  if (isDirectory != nullptr) {
    return getFileType(path, isDirectory);
  }
  const int opened = open(path, O_RDONLY | O_CLOEXEC);
  if (opened < 0) {
    return 0;
  }
  close(opened);
  return 1;
}

int64_t zov_flModTime(const char *path) {
  struct stat status;
  return stat(path, &status) == 0 ? status.st_mtime : -1;
}

int32_t zov_dirCreate(const char *path) {
  if (zov::loadFlag(zov_diskless) != 0) {
    return ZOV_ERROR;
  }
  if (mkdir(path, kDirectoryMode) == 0) {
    return ZOV_OKAY;
  }
  return errno == EEXIST ? ZOV_EXISTS : ZOV_ERROR;
}

int32_t zov_dirRemove(const char *path) {
  if (zov::loadFlag(zov_diskless) != 0) {
    return ZOV_ERROR;
  }
  return rmdir(path) == 0 || errno == ENOENT ? ZOV_OKAY : ZOV_ERROR;
}
}
