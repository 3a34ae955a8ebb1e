// SPDX-License-Identifier: Apache-2.0
//
// Files in memory put in the place of others: drafts, which have no name until
// they are whole, and moves.
//
// An entry leads to its file by an id, so one store under the directory's lock
// changes the file of a name. A name that is missing is made with the id in it.
// All that can fail comes before that; the file that lost its name is removed after
// the locks are left.
//
// A move holds the locks of both directories, in the order of their ids. No locks
// of its own. Nothing jumps: jumps are held off before a directory is locked.
#include "memstore/zovmfile_place.h"

#include <assert.h>
#include <errno.h>
#include <fcntl.h>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovsegfile_private.h"

namespace zov {
namespace {

// Looks the name up in its directory, which is locked. The cursor is then at the
// entry, or where a new one belongs.
int32_t findEntry(Lookup &lookup, uint16_t type) {
  lookup.cursor = cursorOf(*lookup.directory);
  return findMemEntityInSubdir(lookup.cursor, lookup.key, type, lookup.id);
}

// Makes a name lead to a file. findEntry() gave that status for it as a file. Its id
// is then that of the file it led to before, or 0.
int32_t putInPlace(Lookup &lookup, int32_t status, uint64_t id) {
  if (status == ZOV_OKAY) {
    replaceFileInSubdir(lookup.cursor, id);
    return ZOV_OKAY;
  }
  if (status != ZOV_NOTFOUND) {
    return ZOV_ERROR;
  }
  if (!mayBeNewName(lookup.key)) {
    return failWith(EINVAL);
  }
  return addEntryInSubdir(*lookup.directory, lookup.cursor, lookup.key, id, kTypeFile);
}

void removeReplaced(const Lookup &lookup) {
  if (lookup.id != 0) {
    segRemoveById(lookup.id);
  }
}

int32_t _placeMemDraft(const MemFile &draft, Lookup &lookup) {
  const SegLock lock(lookup.directory->tree.seg);
  return putInPlace(lookup, findEntry(lookup, kTypeFile), segIdOf(*draft.seg));
}

// The move. Locks both directories, the lower id first; one that is both is entered
// twice. The id of the destination is then that of the file it led to before, or 0.
int32_t _moveMemFile(Lookup &source, Lookup &destination) {
  Directory &from = *source.directory;
  Directory &to = *destination.directory;
  assert((from.id == to.id) == (&from == &to));
  const SegLock outer((from.id < to.id ? from : to).tree.seg);
  const SegLock inner((from.id < to.id ? to : from).tree.seg);
  if (findEntry(source, kTypeAny) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  const bool isFile = readEntryInSubdir(source.cursor).type == kTypeFile;
  const int32_t status = findEntry(destination, kTypeFile);
  const bool sameDirectory = &from == &to;
  if (sameDirectory && isSameName(source.key, destination.key)) {
    destination.id = 0;
    return ZOV_OKAY;
  }
  if (!mayBeNewName(destination.key)) {
    return failWith(EINVAL);
  }
  if (sameDirectory && status == ZOV_NOTFOUND) {
    return renameEntryInSubdir(from, source.cursor, destination.key);
  }
  if (!isFile) {
    return failWith(EISDIR);
  }
  const int32_t placed = putInPlace(destination, status, source.id);
  if (placed == ZOV_OKAY) {
    removeEntryInSubdir(from, source.cursor);
  }
  return placed;
}

}  // namespace

ZOV_MFILE newMemDraft() {
  const NoJump noJump;
  MemFile *file = make<MemFile>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (file == nullptr) {
    return nullptr;
  }
  const uint64_t id = zov_segNextId();
  file->isDraft = true;
  file->seg = id == 0 ? nullptr : zov_segOpen(id, O_CREAT);
  if (file->seg == nullptr) {
    segRemoveById(id);
    zov_freeMem(file, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  return file;
}

int32_t placeMemDraft(ZOV_MFILE draft, const char *path) {
  if (!draft->isDraft) {
    return failWith(EINVAL);
  }
  const NoJump noJump;
  Lookup lookup(path);
  int32_t status = findParent(lookup, true);
  if (status == ZOV_OKAY) {
    status = _placeMemDraft(*draft, lookup);
  }
  if (status != ZOV_OKAY) {
    return status;
  }
  draft->isDraft = false;
  removeReplaced(lookup);
  return ZOV_OKAY;
}

int32_t moveMemFile(const char *source, const char *destination) {
  const NoJump noJump;
  Lookup from(source);
  Lookup to(destination);
  int32_t status = findParent(from, false);
  if (status == ZOV_OKAY && from.directory == nullptr) {
    status = failWith(ENOENT);
  }
  if (status == ZOV_OKAY) {
    status = findParent(to, true);
  }
  if (status != ZOV_OKAY) {
    return status;
  }
  status = _moveMemFile(from, to);
  if (status == ZOV_OKAY) {
    removeReplaced(to);
  }
  return status;
}

int32_t removeNameOfMemFile(const MemFile &file, const char *path) {
  const NoJump noJump;
  Lookup lookup(path);
  if (handleFullPath(lookup, 0, kTypeFile) != 0) {
    return ZOV_ERROR;
  }
  const bool leadsThere = lookup.id == segIdOf(*file.seg);
  if (leadsThere) {
    removeEntryInSubdir(*lookup.directory, lookup.cursor);
  }
  zov_segUnlock(lookup.directory->tree.seg);
  if (!leadsThere) {
    return failWith(ENOENT);
  }
  segRemoveById(lookup.id);
  return ZOV_OKAY;
}

bool isSameMemEntry(const char *first, const char *second) {
  const NoJump noJump;
  Lookup one(first);
  Lookup other(second);
  return isSameName(one.key, other.key) && findParent(one, false) == ZOV_OKAY &&
         findParent(other, false) == ZOV_OKAY && one.directoryId == other.directoryId;
}

bool isSameMemDirectory(const char *first, const char *second) {
  const NoJump noJump;
  uint64_t one = 0;
  uint64_t other = 0;
  return openMemSubdir(directoryPath(first), 0, one) == ZOV_OKAY &&
         openMemSubdir(directoryPath(second), 0, other) == ZOV_OKAY && one == other;
}

}  // namespace zov
