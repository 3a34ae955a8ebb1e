// SPDX-License-Identifier: Apache-2.0
//
// Walks over the names of a directory, on disk or in memory, that match a
// pattern. The caller owns the walk from open to close. The walk owns a name until
// the next one, and of wide names the latest: the caller owns those before. A step
// that gives none, at the end or on failure, changes no owner.
//
// No locks. Opening may jump with nothing held; the steps of a walk keep an
// open directory and allocate with jumps held off.
#include <assert.h>

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "files/zovfile_private.h"
#include "files/zovunix_private.h"

// One of the walks beneath is set, from open to close.
struct PathWalk {
  ZOV_DISK_WALK disk;
  ZOV_MEM_WALK memory;
  wchar_t *wideName;  // the last result of zov_pathNextW(), or null
};

namespace zov {
namespace {

// Begins the walk on disk or in memory.
int32_t openWalk(PathWalk &walk, const Place &directory, const char *pattern) {
  if (isInMemory(directory)) {
    return memWalkOpen(directory.path, pattern, walk.memory);
  }
  if (loadFlag(zov_diskless) != 0) {
    return ZOV_ERROR;
  }
  return diskWalkOpen(directory.path, pattern, walk.disk);
}

}  // namespace

int32_t walkOpen(const Place &directory, const char *pattern, ZOV_PATH_WALK &walk) {
  PathWalk *opened = make<PathWalk>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (opened == nullptr) {
    return ZOV_NOMEMORY;
  }
  const NoJump noJump;
  const int32_t status = openWalk(*opened, directory, pattern);
  if (status != ZOV_OKAY) {
    zov_freeMem(opened, ZOV_DEFAULT_TAG);
    return status;
  }
  walk = opened;
  return ZOV_OKAY;
}

WalkEnd walkNext(PathWalk &walk, const char *&name, int32_t &isDirectory) {
  assert((walk.memory != nullptr) != (walk.disk != nullptr));
  const NoJump noJump;
  return walk.memory != nullptr ? memWalkNext(*walk.memory, name, isDirectory)
                                : diskWalkNext(*walk.disk, name, isDirectory);
}

}  // namespace zov

extern "C" {

ZOV_PATH_WALK zov_pathOpen(const char *directory, const char *pattern) {
  return zov_pathOpenEx(directory, 0, pattern);
}

ZOV_PATH_WALK zov_pathOpenEx(const char *directory, uint32_t typeFlags, const char *pattern) {
  if (directory == nullptr || pattern == nullptr) {
    return nullptr;
  }
  ZOV_PATH_WALK walk = nullptr;
  zov::walkOpen({directory, typeFlags}, pattern, walk);
  return walk;
}

const char *zov_pathNext(ZOV_PATH_WALK walk, int32_t *isDirectory) {
  const char *name = nullptr;
  if (walk != nullptr) {
    zov::walkNext(*walk, name, *isDirectory);
  }
  return name;
}

wchar_t *zov_pathNextW(ZOV_PATH_WALK walk, int32_t *isDirectory) {
  const char *name = zov_pathNext(walk, isDirectory);
  if (name == nullptr) {
    return nullptr;
  }
  const zov::NoJump noJump;
  wchar_t *wideName = zov_convertToWchar(name, ZOV_UTF8_STRICT);
  if (wideName != nullptr) {
    walk->wideName = wideName;
  }
  return wideName;
}

void zov_pathClose(ZOV_PATH_WALK walk) {
  if (walk == nullptr) {
    return;
  }
  zov_freeMem(walk->wideName, ZOV_DEFAULT_TAG);
  zov_mfPathClose(walk->memory);
  zov_flPathClose(walk->disk);
  zov_freeMem(walk, ZOV_DEFAULT_TAG);
}
}
