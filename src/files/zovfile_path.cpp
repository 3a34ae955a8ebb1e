// SPDX-License-Identifier: Apache-2.0
//
// Paths as strings. The only separator is a slash, and a path that begins with
// one is fully qualified. Nothing resolves dots or folds slashes, so a result
// names what the argument named. Only zov_currdir() and zov_pathIsLink() ask the
// system.
//
// Strings returned are the caller's, in the default tag. One that is built in
// several steps is a block that grows, with jumps held off until it is whole or
// released. No state, no locks.
#include <assert.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zovmem_private.h"

namespace zov {
namespace {

constexpr char root[] = "/";

// Bytes by which the buffer for the current directory grows.
constexpr uint64_t kGrowBytes = 10;

char *copyText(const char *text) {
  return copyString(text, ZOV_DEFAULT_TAG, ZOV_HERE);
}

char *copyPrefix(const char *text, size_t length) {
  char *copy = makeArray<char>(length + 1, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (copy != nullptr) {
    memcpy(copy, text, length);
    copy[length] = '\0';
  }
  return copy;
}

// Appends to a string that it owns from then on. Null, with the string released,
// when memory is short. Callers hold jumps off.
char *append(char *text, const char *tail) {
  assert(noJumpDepth > 0);
  const size_t length = strlen(text);
  const size_t tailBytes = strlen(tail) + 1;
  char *longer =
      static_cast<char *>(zov_extendMem(text, length + tailBytes, ZOV_DEFAULT_TAG, 0, 0, ZOV_HERE));
  if (longer == nullptr) {
    zov_freeMem(text, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  memcpy(longer + length, tail, tailBytes);
  return longer;
}

// The same for the slash that a directory's path ends in. Null gives null.
char *normalize_path(char *path) {
  return path == nullptr || zov_pathIsDir(path) == 1 ? path : append(path, root);
}

bool namesCurrentDirectory(const char *path) {
  return path == nullptr || *path == '\0' || strcmp(path, ".") == 0 || strcmp(path, "./") == 0;
}

// The current directory; null, with isShort set, without memory, and where the
// system does not tell.
char *_currdir(bool &isShort) {
  char *buffer = nullptr;
  for (uint64_t sizeBytes = kGrowBytes;; sizeBytes += kGrowBytes) {
    char *larger =
        static_cast<char *>(zov_extendMem(buffer, sizeBytes, ZOV_DEFAULT_TAG, 0, 0, ZOV_HERE));
    isShort = larger == nullptr;
    if (isShort) {
      break;
    }
    buffer = larger;
    if (getcwd(buffer, sizeBytes) != nullptr) {
      return buffer;
    }
    if (errno != ERANGE) {
      break;
    }
  }
  zov_freeMem(buffer, ZOV_DEFAULT_TAG);
  return nullptr;
}

// The current directory; the root under the diskless flag. Null as above.
char *currentDirectory(bool &isShort) {
  if (loadFlag(zov_diskless) == 0) {
    return _currdir(isShort);
  }
  char *copy = copyText(root);
  isShort = copy == nullptr;
  return copy;
}

char *_fullpath(const char *path, bool &isShort) {
  const bool isCurrent = namesCurrentDirectory(path);
  const bool isQualified = !isCurrent && zov_pathIsFullyQualified(path) != 0;
  char *full = isQualified ? copyText(path) : currentDirectory(isShort);
  if (full == nullptr && !isQualified) {
    return nullptr;
  }
  full = normalize_path(full);
  if (!isQualified && !isCurrent && full != nullptr) {
    full = normalize_path(append(full, path));
  }
  isShort = full == nullptr;
  return full;
}

}  // namespace

}  // namespace zov

extern "C" {

char *zov_currdir() {
  return zov::makeOrJump(ZOV_DEFAULT_TAG, zov::currentDirectory);
}

int32_t zov_pathIsFullyQualified(const char *path) {
  return *path == '/' ? 1 : 0;
}

char *zov_fullpath(const char *path) {
  return zov::makeOrJump(ZOV_DEFAULT_TAG,
                         [&](bool &isShort) { return zov::_fullpath(path, isShort); });
}

void zov_pathSplit(const char *path, char **directory, char **name) {
  const char *slash = strrchr(path, '/');
  const char *last = slash == nullptr ? path : slash + 1;
  const bool wantsDirectory = directory != nullptr && slash != nullptr;
  const bool wantsName = name != nullptr && (slash == nullptr || *last != '\0');
  char *directoryCopy = nullptr;
  char *nameCopy = nullptr;
  for (char **out : {directory, name}) {
    if (out != nullptr) {
      *out = nullptr;
    }
  }
  zov::workOrJump(
      ZOV_DEFAULT_TAG,
      [&] {
        directoryCopy =
            wantsDirectory ? zov::copyPrefix(path, static_cast<size_t>(last - path)) : nullptr;
        nameCopy = wantsName ? zov::copyText(last) : nullptr;
        return (directoryCopy != nullptr) == wantsDirectory && (nameCopy != nullptr) == wantsName;
      },
      [&] {
        zov_freeMem(nameCopy, ZOV_DEFAULT_TAG);
        zov_freeMem(directoryCopy, ZOV_DEFAULT_TAG);
      });
  if (wantsDirectory) {
    *directory = directoryCopy;
  }
  if (wantsName) {
    *name = nameCopy;
  }
}

uint32_t zov_pathIsDir(const char *path) {
  if (path == nullptr || *path == '\0') {
    return ZOV_PATH_EMPTY;
  }
  return path[strlen(path) - 1] == '/' ? 1 : 0;
}

const char *zov_pathStripDrive(const char *path) {
  return path;
}

int32_t zov_pathIsLink(const char *path) {
  struct stat status;
  return lstat(path, &status) == 0 && S_ISLNK(status.st_mode) ? 1 : 0;
}
}
