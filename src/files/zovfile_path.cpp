// SPDX-License-Identifier: Apache-2.0
//
// Paths as strings. The only separator is a slash, and a path that begins with
// one is fully qualified. Nothing resolves dots or folds slashes: a path that
// comes out names what the path that went in named. zov_currdir() and
// zov_pathIsLink() alone ask the system.
//
// Every string returned belongs to the default tag and to the caller. Where one
// is built in several steps it is one block that grows; should a step jump, the
// block is lost until shut-down releases the tag. No state, no locks.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/zov_private.h"

namespace {

constexpr char root[] = "/";

// Bytes by which the buffer for the current directory grows.
constexpr uint64_t kGrowBytes = 10;

char *copyString(const char *text) {
  return static_cast<char *>(zov_getMem(0, ZOV_DEFAULT_TAG, ZOV_MEM_STRDUP, text, ZOV_HERE));
}

// Lengthens a string it takes over by another; null, with the first released,
// when there is no memory.
char *append(char *text, const char *tail) {
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

// Makes a path it takes over end in a slash. Null gives null.
char *normalize_path(char *path) {
  return path == nullptr || zov_pathIsDir(path) == 1 ? path : append(path, root);
}

bool namesCurrentDirectory(const char *path) {
  return path == nullptr || *path == '\0' || strcmp(path, ".") == 0 || strcmp(path, "./") == 0;
}

}  // namespace

extern "C" {

char *zov_currdir() {
  if (zov::loadFlag(zov_diskless) != 0) {
    return copyString(root);
  }
  char *buffer = nullptr;
  uint64_t sizeBytes = 0;
  while (true) {
    sizeBytes += kGrowBytes;
    char *larger =
        static_cast<char *>(zov_extendMem(buffer, sizeBytes, ZOV_DEFAULT_TAG, 0, 0, ZOV_HERE));
    if (larger == nullptr) {
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

int32_t zov_pathIsFullyQualified(const char *path) {
  return *path == '/' ? 1 : 0;
}

char *zov_fullpath(const char *path) {
  if (namesCurrentDirectory(path)) {
    return normalize_path(zov_currdir());
  }
  if (zov_pathIsFullyQualified(path) != 0) {
    return normalize_path(copyString(path));
  }
  char *directory = normalize_path(zov_currdir());
  return directory == nullptr ? nullptr : normalize_path(append(directory, path));
}

void zov_pathSplit(const char *path, char **directory, char **name) {
  const char *slash = strrchr(path, '/');
  const char *last = slash == nullptr ? path : slash + 1;
  if (directory != nullptr) {
    *directory = nullptr;
  }
  if (name != nullptr) {
    *name = nullptr;
  }
  if (name != nullptr && (slash == nullptr || *last != '\0')) {
    *name = copyString(last);
  }
  if (directory != nullptr && slash != nullptr) {
    const size_t length = static_cast<size_t>(last - path);
    char *copy = static_cast<char *>(
        zov_getMem(length + 1, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
    if (copy != nullptr) {
      memcpy(copy, path, length);
      copy[length] = '\0';
    }
    *directory = copy;
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
