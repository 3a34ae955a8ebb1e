// SPDX-License-Identifier: Apache-2.0
//
// The native file primitives: each is one POSIX call, with the library's
// conventions for handles and results. A descriptor is the system's number in 64
// bits, all-ones when there is none. Every one is closed when the process executes
// another program.
//
//   uint64_t descriptor  ->  int  ->  open, read, pwrite, fsync, flock, ...
//
// A transfer makes exactly one system call. An interrupted or short one is
// returned as it is, since only the caller knows whether a part is of use.
//
// A walk through a directory is one block of the default tag, with its strings
// behind the record, and a second block for the name that it last returned:
//
//   DiskWalk { dir, path, pattern, lastName } "path\0" "pattern\0"
//                                      +----> "name"
//
// so that opening one allocates once, before there is a directory stream that a
// jump would leave open. zov_flPathNext() may jump between two names, when the walk
// is whole and holds none. The W forms may jump while they convert their path.
// Nothing else here allocates. No state, no locks.
#include <assert.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "core/zov_word.h"
#include "files/zovunix_private.h"
#include "files/zovutf8_private.h"
#include "os/zovunix_standard.h"

// 1. dir is open for as long as the walk exists.
// 2. pattern lies behind the record, in the same block.
struct DiskWalk {
  DIR *dir;
  const char *pattern;
  char *lastName;  // owned; null before the first name and after the last
};

namespace zov {
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

// 1 if a name in a walk's directory is of a directory, else 0; for file systems
// whose entries do not say it.
int32_t getPathType(const DiskWalk &walk, const char *name) {
  struct stat status;
  return fstatat(dirfd(walk.dir), name, &status, 0) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

int32_t entryIsDirectory(const DiskWalk &walk, const dirent &entry) {
  return entry.d_type == DT_UNKNOWN ? getPathType(walk, entry.d_name) : entry.d_type == DT_DIR;
}

// The next entry that matches. Null at the end, with 0 in errno, and on failure.
const dirent *nextMatch(const DiskWalk &walk) {
  assert(walk.dir != nullptr && walk.lastName == nullptr);
  errno = 0;  // readdir() has no other way to tell the two apart
  const dirent *entry = readdir(walk.dir);
  while (entry != nullptr && zov_match(entry->d_name, walk.pattern) == 0) {
    entry = readdir(walk.dir);
  }
  return entry;
}

}  // namespace

int32_t diskWalkOpen(const char *directory, const char *pattern, ZOV_DISK_WALK &walk) {
  const size_t patternBytes = strlen(pattern) + 1;
  DiskWalk *opened = makeUncleared<DiskWalk>(ZOV_DEFAULT_TAG, ZOV_HERE, patternBytes);
  if (opened == nullptr) {
    return ZOV_NOMEMORY;
  }
  DIR *dir = opendir(directory);
  if (dir == nullptr) {
    const KeepErrno kept;
    zov_freeMem(opened, ZOV_DEFAULT_TAG);
    return ZOV_ERROR;
  }
  *opened = DiskWalk{.dir = dir,
                     .pattern = static_cast<char *>(memcpy(opened + 1, pattern, patternBytes)),
                     .lastName = nullptr};
  walk = opened;
  return ZOV_OKAY;
}

WalkEnd diskWalkNext(DiskWalk &walk, const char *&name, int32_t &isDirectory) {
  zov_freeMem(walk.lastName, ZOV_DEFAULT_TAG);
  walk.lastName = nullptr;
  const int before = errno;
  const dirent *entry = nextMatch(walk);
  if (entry == nullptr && errno != 0) {
    return WalkEnd::kError;
  }
  errno = before;
  if (entry == nullptr) {
    return WalkEnd::kEnd;
  }
  isDirectory = entryIsDirectory(walk, *entry);
  walk.lastName = copyString(entry->d_name, ZOV_DEFAULT_TAG, ZOV_HERE);
  name = walk.lastName;
  return name == nullptr ? WalkEnd::kNoMemory : WalkEnd::kName;
}

}  // namespace zov

extern "C" {

int32_t zov_flOpen(const char *path, uint32_t openFlags, uint32_t, uint64_t *descriptor) {
  const int opened = open(path, static_cast<int>(openFlags) | O_CLOEXEC, zov::kFileMode);
  if (opened < 0) {
    *descriptor = ZOV_NO_DESCRIPTOR;
    return static_cast<int16_t>(errno);
  }
  *descriptor = static_cast<uint64_t>(opened);
  return ZOV_OKAY;
}

int32_t zov_flOpenStd(uint64_t *descriptor, int32_t streamNumber) {
  if (streamNumber < STDIN_FILENO || streamNumber > STDERR_FILENO) {
    return ZOV_ERROR;
  }
  *descriptor = static_cast<uint64_t>(streamNumber);
  return ZOV_OKAY;
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
  const int native = zov::nativeOf(descriptor);
  if (zov::isFilled(native)) {
    errno = EBADF;
    return ZOV_ERROR;
  }
  return flock(native, LOCK_EX | LOCK_NB) == 0 ? ZOV_OKAY : ZOV_ERROR;
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
    return zov::getFileType(path, isDirectory);
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
  if (mkdir(path, zov::kDirectoryMode) == 0) {
    return ZOV_OKAY;
  }
  return errno == EEXIST ? ZOV_EXISTS : ZOV_ERROR;
}

int32_t zov_dirCreateW(const wchar_t *path) {
  return zov::withUTF8(int32_t{ZOV_ERROR}, zov_dirCreate, path);
}

int32_t zov_dirRemove(const char *path) {
  if (zov::loadFlag(zov_diskless) != 0) {
    return ZOV_ERROR;
  }
  return rmdir(path) == 0 || errno == ENOENT ? ZOV_OKAY : ZOV_ERROR;
}

int32_t zov_dirRemoveW(const wchar_t *path) {
  return zov::withUTF8(int32_t{ZOV_ERROR}, zov_dirRemove, path);
}

ZOV_DISK_WALK zov_flPathOpen(const char *directory, const char *pattern) {
  ZOV_DISK_WALK walk = nullptr;
  zov::diskWalkOpen(directory, pattern, walk);
  return walk;
}

const char *zov_flPathNext(ZOV_DISK_WALK walk, int32_t *isDirectory) {
  const char *name = nullptr;
  zov::diskWalkNext(*walk, name, *isDirectory);
  return name;
}

void zov_flPathClose(ZOV_DISK_WALK walk) {
  if (walk == nullptr) {
    return;
  }
  closedir(walk->dir);
  zov_freeMem(walk->lastName, ZOV_DEFAULT_TAG);
  zov_freeMem(walk, ZOV_DEFAULT_TAG);
}
}
