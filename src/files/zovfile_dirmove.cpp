// SPDX-License-Identifier: Apache-2.0
//
// Moving a directory: by renaming it, or else by moving its files one by one with
// zov_fileMoveEx(). What makes the whole move fail is checked before anything
// changes.
//
// No locks, and nothing jumps: jumps are held off while the walk is open.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/zov_flags.h"
#include "core/zov_shortage.h"
#include "core/zov_word.h"
#include "files/zovfile_private.h"
#include "files/zovunix_entry.h"
#include "memstore/zovmfile_place.h"

namespace zov {
namespace {

char *pathIn(const Place &place, const char *name) {
  return zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%s%c%s", place.path, '/', name);
}

int32_t moveEntry(const Place &source, const Place &destination, const char *name) {
  char *from = pathIn(source, name);
  char *to = pathIn(destination, name);
  const int32_t status = from == nullptr || to == nullptr
                             ? ZOV_NOMEMORY
                             : zov_fileMoveEx(from, source.typeFlags, to, destination.typeFlags);
  zov_freeMem(to, ZOV_DEFAULT_TAG);
  zov_freeMem(from, ZOV_DEFAULT_TAG);
  return status;
}

// Moves the files that a walk through the source names, up to the first failure.
int32_t moveWalked(PathWalk &walk, const Place &source, const Place &destination) {
  assert(noJumpDepth > 0);
  for (;;) {
    const char *name = nullptr;
    int32_t isDirectory = 0;
    switch (walkNext(walk, name, isDirectory)) {
      case WalkEnd::kName:
        break;
      case WalkEnd::kEnd:
        return ZOV_OKAY;
      case WalkEnd::kNoMemory:
        return ZOV_NOMEMORY;
      case WalkEnd::kError:
        return ZOV_ERROR;
    }
    const int32_t status = isDirectory != 0 ? ZOV_OKAY : moveEntry(source, destination, name);
    if (status != ZOV_OKAY) {
      return status;
    }
  }
}

bool isSameDirectory(const Place &source, const Place &destination) {
  if (isInMemory(source) != isInMemory(destination)) {
    return false;
  }
  return isInMemory(source) ? isSameMemDirectory(source.path, destination.path)
                            : zov::isSameDirectory(source.path, destination.path);
}

// ZOV_OKAY when something has the name, ZOV_NOMEMORY when that cannot be told.
int32_t look(const Place &place, bool &isDirectory) {
  if (isInMemory(place)) {
    return findMem(place.path, isDirectory);
  }
  int32_t directory = 0;
  const bool found = zov_fileValidateEx(place.path, place.typeFlags, &directory) != 0;
  isDirectory = found && directory != 0;
  return found ? ZOV_OKAY : ZOV_NOTFOUND;
}

// True when nothing on disk has the name; false also when the system does not tell.
bool isMissing(const char *path) {
  struct stat state;
  return lstat(path, &state) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

int32_t renameWhole(const Place &source, const Place &destination) {
  if (isInMemory(source) && isInMemory(destination)) {
    return moveMemFile(source.path, destination.path);
  }
  return zov_fileRenameEx(source.path, source.typeFlags, destination.path, destination.typeFlags);
}

// Takes from a directory just made on disk the bits of group and others that the
// source does not have.
int32_t narrow(const char *made, const struct stat &source) {
  const int directory = open(made, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) {
    return ZOV_ERROR;
  }
  struct stat own;
  const mode_t most = S_ISGID | S_IRWXU | (source.st_mode & (S_IRWXG | S_IRWXO));
  const bool isGiven = fstat(directory, &own) == 0 &&
                       giveMode(directory, own.st_mode & most, source.st_gid) == ZOV_OKAY;
  close(directory);
  return isGiven ? ZOV_OKAY : ZOV_ERROR;
}

// Cuts the last component off a path. False when none is left to be cut off.
bool goUp(char (&path)[PATH_MAX]) {
  char from[PATH_MAX];
  memcpy(from, path, strlen(path) + 1);
  parentOf(from, path);  // which is no longer
  return strcmp(path, from) != 0;
}

// Syncs the directories that hold the levels of a path, from the last one up to one
// that is not among them.
int32_t syncLevels(const Place &place, const char *above) {
  char level[PATH_MAX];
  copyPath(place.path, level);
  while (strcmp(level, above) != 0) {
    if (syncDirectoryOf(level, place.typeFlags) != ZOV_OKAY) {
      return ZOV_ERROR;
    }
    goUp(level);
  }
  return ZOV_OKAY;
}

// Removes the levels of a path, as syncLevels() goes through them.
void removeLevels(const Place &place, const char *above) {
  const KeepErrno kept;
  char level[PATH_MAX];
  for (copyPath(place.path, level); strcmp(level, above) != 0; goUp(level)) {
    zov_dirRemove(level);
  }
}

// Makes a directory on disk with those above it, and syncs each that got a new
// entry: a crash that takes the directory away would take along files whose sources
// are removed. What cannot be synced is removed again, as the next move would rely on
// it. ZOV_EXISTS is no failure: the path ends in a slash, or another thread was
// faster.
int32_t makeSynced(const Place &place) {
  char there[PATH_MAX];  // the start of the path that leads to something
  if (!copyPath(place.path, there)) {
    return ZOV_ERROR;
  }
  while (isMissing(there) && goUp(there)) {
  }
  const int32_t status = zov_dirCreateAll(place.path);
  if (!isMadeOrThere(status) || syncLevels(place, there) == ZOV_OKAY) {
    return status;
  }
  removeLevels(place, there);
  return ZOV_ERROR;
}

// Makes a directory on disk for the files of another, which may be missing. The
// status is that of makeSynced().
int32_t makeDestination(const Place &source, const Place &destination) {
  struct stat state;
  const bool hasModel = !isInMemory(source) && stat(source.path, &state) == 0;
  if (!isInMemory(source) && !hasModel && !isMissing(source.path)) {
    return ZOV_ERROR;
  }
  if (hasModel) {
    state.st_mode = passableMode(source.path, state.st_mode);
  }
  const int32_t status = makeSynced(destination);
  if (isMadeOrThere(status) && hasModel && narrow(destination.path, state) != ZOV_OKAY) {
    zov_dirRemove(destination.path);
    return ZOV_ERROR;
  }
  return status;
}

// A destination in memory is made with its first file.
int32_t prepareDestination(const Place &source, const Place &destination) {
  bool isDirectory = false;
  if (isInMemory(destination) || look(destination, isDirectory) == ZOV_OKAY) {
    return ZOV_OKAY;
  }
  const int32_t status = makeDestination(source, destination);
  if (!isMadeOrThere(status)) {
    return status;
  }
  look(destination, isDirectory);
  return isDirectory ? ZOV_OKAY : ZOV_ERROR;  // a link that leads nowhere
}

// Whether a walk could not be opened, with that status, because there is no source.
bool isForMissing(const Place &source, int32_t status) {
  return isInMemory(source) ? status == ZOV_NOTFOUND
                            : status == ZOV_ERROR && isMissing(source.path);
}

// Moves the files, one level deep. A missing source has none.
int32_t moveFiles(const Place &source, const Place &destination) {
  ZOV_PATH_WALK walk = nullptr;
  int32_t status = walkOpen(source, "*", walk);
  if (status != ZOV_OKAY && !isForMissing(source, status)) {
    return status;
  }
  status = prepareDestination(source, destination);
  if (status == ZOV_OKAY && walk != nullptr) {
    status = moveWalked(*walk, source, destination);
  }
  zov_pathClose(walk);
  if (status == ZOV_OKAY && !isInMemory(source) && !isSameDirectory(source, destination)) {
    zov_dirRemove(source.path);  // stays when it holds directories
  }
  return status;
}

int32_t _dirMove(const Place &source, const Place &destination) {
  const bool onDisk = !isInMemory(source) || !isInMemory(destination);
  if (onDisk && !diskMayChange()) {
    return ZOV_ERROR;
  }
  if (isSameDirectory(source, destination)) {
    return ZOV_OKAY;
  }
  bool isDirectory = false;
  const int32_t found = look(destination, isDirectory);
  if (found == ZOV_NOMEMORY || (found == ZOV_OKAY && !isDirectory)) {
    return found == ZOV_NOMEMORY ? ZOV_NOMEMORY : ZOV_ERROR;
  }
  return renameWhole(source, destination) == ZOV_OKAY ? ZOV_OKAY : moveFiles(source, destination);
}

}  // namespace

}  // namespace zov

extern "C" {

int32_t zov_dirMove(const char *source, const char *destination) {
  return zov_dirMoveEx(source, 0, destination, 0);
}

int32_t zov_dirMoveEx(const char *source, uint32_t sourceFlags, const char *destination,
                      uint32_t destinationFlags) {
  if (source == nullptr || destination == nullptr || !zov::started()) {
    return ZOV_ERROR;
  }
  const zov::Place from = {source, sourceFlags};
  const zov::Place to = {destination, destinationFlags};
  if (zov::isSamePath(from, to)) {
    return ZOV_OKAY;
  }
  const zov::NoJump noJump;
  return zov::_dirMove(from, to);
}
}
