// SPDX-License-Identifier: Apache-2.0
//
// Files in memory put in the place of others: drafts, which have no name until
// they are whole, and moves.
//
// An entry leads to its file by an id, so one store under the directory's lock
// changes the file of a name. A name that is missing is made with the id in it.
// What may fail comes before that; the file that lost its name goes after the
// locks are left.
//
// A move holds the locks of both directories, in the order of their ids. No locks
// of its own. Nothing jumps: jumps are held off before a directory is locked.
#include "memstore/zovmfile_place.h"

#include <errno.h>
#include <fcntl.h>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovsegfile_private.h"

namespace {

using zov::Directory;
using zov::Target;

int32_t refuse(int error) {
  errno = error;
  return ZOV_ERROR;
}

void lockBoth(Directory &first, Directory &second) {
  const bool inOrder = first.id < second.id;
  zov_segLock((inOrder ? first : second).tree.seg);
  if (&first != &second) {
    zov_segLock((inOrder ? second : first).tree.seg);
  }
}

void unlockBoth(Directory &first, Directory &second) {
  zov_segUnlock(first.tree.seg);
  if (&first != &second) {
    zov_segUnlock(second.tree.seg);
  }
}

// Looks a target up in its directory, which is locked; its cursor is then at the
// entry, or at the place of a new one.
int32_t look(Target &target, uint16_t type) {
  target.cursor = zov::cursorOf(*target.directory);
  return zov::findMemEntityInSubdir(target.cursor, target.key, type, target.id);
}

// Makes the name of a target lead to a file. `target` was looked up, with that
// status, as a file. What it led to before is its id afterwards, or 0.
int32_t putInPlace(Target &target, int32_t status, uint64_t id) {
  if (status == ZOV_OKAY) {
    zov::replaceFileInSubdir(target.cursor, id);
    return ZOV_OKAY;
  }
  target.id = 0;
  if (status != ZOV_NOTFOUND) {
    return ZOV_ERROR;
  }
  if (!zov::mayBeNewName(target.key)) {
    return refuse(EINVAL);
  }
  return zov::addEntryInSubdir(*target.directory, target.cursor, target.key, id, zov::kTypeFile);
}

void removeReplaced(const Target &target) {
  if (target.id != 0) {
    zov::segRemoveById(target.id);
  }
}

int32_t _placeMemDraft(MemFile &draft, Target &target) {
  const ZOV_SEG seg = target.directory->tree.seg;
  zov_segLock(seg);
  const int32_t status = putInPlace(target, look(target, zov::kTypeFile), draft.draftId);
  zov_segUnlock(seg);
  return status;
}

// The move, with both directories locked. What the destination led to before is
// its id afterwards, or 0.
int32_t _moveMemFile(Target &source, Target &destination) {
  Directory &from = *source.directory;
  if (look(source, zov::kTypeAny) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  const bool isFile = zov::readEntryInSubdir(source.cursor).type == zov::kTypeFile;
  const int32_t status = look(destination, zov::kTypeFile);
  const bool sameDirectory = &from == destination.directory;
  if (sameDirectory && zov::isSameName(source.key, destination.key)) {
    destination.id = 0;
    return ZOV_OKAY;
  }
  if (!zov::mayBeNewName(destination.key)) {
    return refuse(EINVAL);
  }
  if (sameDirectory && status == ZOV_NOTFOUND) {
    destination.id = 0;
    return zov::renameEntryInSubdir(from, source.cursor, destination.key);
  }
  if (!isFile) {
    return refuse(EISDIR);
  }
  if (putInPlace(destination, status, source.id) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  zov::removeEntryInSubdir(from, source.cursor);
  return ZOV_OKAY;
}

}  // namespace

ZOV_MFILE zov::newMemDraft() {
  const NoJump noJump;
  MemFile *file = zov::make<MemFile>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (file == nullptr) {
    return nullptr;
  }
  file->draftId = zov_segNextId();
  file->seg = file->draftId == 0 ? nullptr : zov_segOpen(file->draftId, O_CREAT);
  if (file->seg == nullptr) {
    segRemoveById(file->draftId);
    zov_freeMem(file, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  return file;
}

int32_t zov::placeMemDraft(ZOV_MFILE draft, const char *path) {
  if (draft->draftId == 0) {
    return refuse(EINVAL);
  }
  const NoJump noJump;
  Target target(path);
  if (!findParent(target, true) || _placeMemDraft(*draft, target) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  draft->draftId = 0;
  removeReplaced(target);
  return ZOV_OKAY;
}

int32_t zov::moveMemFile(const char *source, const char *destination) {
  const NoJump noJump;
  Target from(source);
  Target to(destination);
  if (!findParent(from, false)) {
    return ZOV_ERROR;
  }
  if (from.directory == nullptr) {
    return refuse(ENOENT);
  }
  if (!findParent(to, true)) {
    return ZOV_ERROR;
  }
  lockBoth(*from.directory, *to.directory);
  const int32_t status = _moveMemFile(from, to);
  unlockBoth(*from.directory, *to.directory);
  if (status == ZOV_OKAY) {
    removeReplaced(to);
  }
  return status;
}

int32_t zov::removeNameOfMemFile(const MemFile &file, const char *path) {
  const NoJump noJump;
  Target target(path);
  if (handleFullPath(target, 0, kTypeFile) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  const bool leadsThere = target.id == segIdOf(*file.seg);
  if (leadsThere) {
    removeEntryInSubdir(*target.directory, target.cursor);
  }
  zov_segUnlock(target.directory->tree.seg);
  if (!leadsThere) {
    return refuse(ENOENT);
  }
  segRemoveById(target.id);
  return ZOV_OKAY;
}

bool zov::isSameMemEntry(const char *first, const char *second) {
  const NoJump noJump;
  Target one(first);
  Target other(second);
  return isSameName(one.key, other.key) && findParent(one, false) && findParent(other, false) &&
         one.directoryId == other.directoryId;
}

bool zov::isSameMemDirectory(const char *first, const char *second) {
  const NoJump noJump;
  uint64_t one = 0;
  uint64_t other = 0;
  return openMemSubdir(directoryPath(first), 0, one) &&
         openMemSubdir(directoryPath(second), 0, other) && one == other;
}

bool zov::mayBeNewMemName(const char *path) {
  return mayBeNewName(Target(path).key);
}
