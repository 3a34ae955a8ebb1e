// SPDX-License-Identifier: Apache-2.0
//
// Names: remove, rename, validate, and directory chains. Each path goes to the
// disk or to the memory file system as its type flags say; the disk is left alone
// under the read-only and diskless flags.
//
// No locks. What allocates holds nothing, and may jump.
#include <string.h>

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "files/zovfile_private.h"

namespace zov {
namespace {

bool isSeparator(char character) {
  return character == '/' || character == '\\';
}

// Creates every directory that a prefix of the path names, then the path itself,
// and turns its backslashes into slashes.
int32_t createChain(char *path) {
  for (char *at = path; *at != '\0'; ++at) {
    if (at == path || !isSeparator(*at)) {
      continue;
    }
    *at = '\0';
    const int32_t status = zov_dirCreate(path);
    *at = '/';
    if (!isMadeOrThere(status)) {
      return status;
    }
  }
  return zov_dirCreate(path);
}

}  // namespace

}  // namespace zov

extern "C" {

int32_t zov_fileRemove(const char *path) {
  return zov_fileRemoveEx(path, 0);
}

int32_t zov_fileRemoveEx(const char *path, uint32_t typeFlags) {
  if (path == nullptr) {
    return ZOV_ERROR;
  }
  if (zov::isInMemory(typeFlags)) {
    return zov_mfRemove(path);
  }
  return zov::diskMayChange() ? zov_flRemove(path) : ZOV_ERROR;
}

int32_t zov_fileRename(const char *oldPath, const char *newPath) {
  return zov_fileRenameEx(oldPath, 0, newPath, 0);
}

int32_t zov_fileRenameEx(const char *oldPath, uint32_t oldTypeFlags, const char *newPath,
                         uint32_t newTypeFlags) {
  if (oldPath == nullptr || newPath == nullptr ||
      zov::isInMemory(oldTypeFlags) != zov::isInMemory(newTypeFlags)) {
    return ZOV_ERROR;
  }
  if (zov::isInMemory(oldTypeFlags)) {
    return zov_mfRename(oldPath, newPath);
  }
  return zov::diskMayChange() ? zov_flRename(oldPath, newPath) : ZOV_ERROR;
}

int32_t zov_fileValidate(const char *path, int32_t *isDirectory) {
  return zov_fileValidateEx(path, 0, isDirectory);
}

int32_t zov_fileValidateEx(const char *path, uint32_t typeFlags, int32_t *isDirectory) {
  if (path == nullptr) {
    return 0;
  }
  if (zov::isInMemory(typeFlags)) {
    return zov_mfValidate(path, isDirectory);
  }
  return zov::loadFlag(zov_diskless) != 0 ? 0 : zov_flValidate(path, isDirectory);
}

int32_t zov_dirCreateAll(const char *path) {
  if (path == nullptr || zov::loadFlag(zov_diskless) != 0) {
    return ZOV_ERROR;
  }
  // To the system a backslash is a letter of the name.
  if (strchr(path, '\\') == nullptr) {
    const int32_t status = zov_dirCreate(path);
    if (zov::isMadeOrThere(status)) {
      return status;
    }
  }
  char *copy = zov::copyString(path, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (copy == nullptr) {
    return ZOV_NOMEMORY;
  }
  const int32_t status = zov::createChain(copy);
  zov_freeMem(copy, ZOV_DEFAULT_TAG);
  return status;
}
}
