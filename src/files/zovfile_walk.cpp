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

// One of the walks beneath is set, from open to close.
struct PathWalk {
  ZOV_DISK_WALK disk;
  ZOV_MEM_WALK memory;
  wchar_t *wideName;  // the last result of zov_pathNextW(), or null
};

namespace zov {
namespace {

// Begins the walk on disk or in memory. False on failure.
bool openWalk(PathWalk &walk, const Place &directory, const char *pattern) {
  if (isInMemory(directory)) {
    walk.memory = zov_mfPathOpen(directory.path, pattern);
  } else if (loadFlag(zov_diskless) == 0) {
    walk.disk = zov_flPathOpen(directory.path, pattern);
  }
  return walk.memory != nullptr || walk.disk != nullptr;
}

}  // namespace
}  // namespace zov

extern "C" {

ZOV_PATH_WALK zov_pathOpen(const char *directory, const char *pattern) {
  return zov_pathOpenEx(directory, 0, pattern);
}

ZOV_PATH_WALK zov_pathOpenEx(const char *directory, uint32_t typeFlags, const char *pattern) {
  if (directory == nullptr || pattern == nullptr) {
    return nullptr;
  }
  PathWalk *walk = zov::make<PathWalk>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (walk == nullptr) {
    return nullptr;
  }
  const zov::NoJump noJump;
  if (!zov::openWalk(*walk, {directory, typeFlags}, pattern)) {
    zov_freeMem(walk, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  return walk;
}

const char *zov_pathNext(ZOV_PATH_WALK walk, int32_t *isDirectory) {
  const zov::NoJump noJump;
  if (walk == nullptr) {
    return nullptr;
  }
  assert((walk->memory != nullptr) != (walk->disk != nullptr));
  return walk->memory != nullptr ? zov_mfPathNext(walk->memory, isDirectory)
                                 : zov_flPathNext(walk->disk, isDirectory);
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
