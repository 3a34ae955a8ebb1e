// SPDX-License-Identifier: Apache-2.0
//
// Files in memory: the calls by path and by handle. Each file is a segmented
// file, named by an id that stands in the entry of its name.
//
//   path -> Directory, locked -> entry -> id -> MemFile { position, seg }
//
// An id leads to its file only while the entry that holds it exists. So a file is
// opened, and its statistics are read, under the lock of its directory; a removal
// takes the entry out first. Users may hold a file's own lock for long, so no thread
// waits for it under a directory's: a file is truncated after that is left.
//
// No locks of its own. Nothing jumps: jumps are held off before a directory is
// locked.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovmfile_transfer.h"
#include "memstore/zovmfile_walk.h"
#include "memstore/zovsegfile_private.h"

namespace zov {
namespace {

// Takes back the entry of a new file that could not be opened.
void undoCreate(const Lookup &lookup) {
  Cursor cursor = cursorOf(*lookup.directory);
  if (locate(cursor, lookup.key) == ZOV_OKAY) {
    removeEntryInSubdir(*lookup.directory, cursor);
    segRemoveById(lookup.id);
  }
}

int32_t truncate(ZOV_SEG seg) {
  const SegLock lock(seg);
  return zov_segSize(seg) == 0 ? ZOV_OKAY : zov_segSetSize(seg, 0);
}

int32_t openByPath(const char *path, uint32_t flags, ZOV_SEG &seg) {
  Lookup lookup(path);
  const int32_t found = handleFullPath(lookup, flags, kTypeFile);
  if (found != 0) {
    return found;
  }
  int32_t status = ZOV_OKAY;
  seg = zov_segOpen(lookup.id, flags & ~static_cast<uint32_t>(O_TRUNC));
  if (seg == nullptr) {
    status = errno == ENOENT ? ZOV_NOTFOUND : ZOV_NOMEMORY;
    if (lookup.created) {
      undoCreate(lookup);
    }
  }
  zov_segUnlock(lookup.directory->tree.seg);
  if (seg != nullptr && (flags & O_TRUNC) != 0 && truncate(seg) != ZOV_OKAY) {
    zov_segClose(seg);
    return ZOV_NOMEMORY;
  }
  return status;
}

// A statistic of the file of a path, which `read` finds by its id; 0 when there is
// none, or when the file was removed by its id and `read` finds `missing`.
uint64_t statistic(const char *path, uint64_t (*read)(uint64_t id), uint64_t missing) {
  const NoJump noJump;
  Lookup lookup(path);
  if (handleFullPath(lookup, 0, kTypeFile) != 0) {
    return 0;
  }
  const uint64_t value = read(lookup.id);
  zov_segUnlock(lookup.directory->tree.seg);
  return value == missing ? 0 : value;
}

int32_t findFile(const char *path) {
  Lookup lookup(path);
  const int32_t status = handleFullPath(lookup, 0, kTypeFile);
  if (status == 0) {
    zov_segUnlock(lookup.directory->tree.seg);
  }
  return status;
}

// A status as callers of the library get it, whom errno tells why.
int32_t told(int32_t status) {
  return status == ZOV_NOMEMORY ? ZOV_ERROR : status;
}

// Transfers at the position, which moves behind the bytes that were moved.
int64_t readAtPosition(MemFile &file, void *buffer, uint32_t length) {
  const int64_t moved = segRead(file.seg, file.position, buffer, length);
  file.position += movedBytes(moved);
  return moved;
}

int64_t writeAtPosition(MemFile &file, const void *buffer, uint32_t length) {
  const int64_t moved = segWrite(file.seg, file.position, buffer, length);
  file.position += movedBytes(moved);
  return moved;
}

uint32_t transferResult(int64_t moved) {
  return moved < 0 ? ZOV_IO_FAILED : static_cast<uint32_t>(moved);
}

}  // namespace

int32_t findMem(const char *path, bool &isDirectory) {
  const NoJump noJump;
  const NormalPath normal = directoryPath(path);
  if (normal.get() == nullptr) {
    return normal.status();
  }
  uint64_t id = 0;
  const int32_t directory = openMemSubdir(normal, 0, id);
  isDirectory = directory == ZOV_OKAY;
  const int32_t file = isDirectory ? ZOV_OKAY : findFile(path);
  return file != ZOV_OKAY && directory == ZOV_NOMEMORY ? directory : file;
}

int32_t memOpen(const char *path, uint32_t flags, ZOV_MFILE &file) {
  const NoJump noJump;
  MemFile *opened = make<MemFile>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (opened == nullptr) {
    return ZOV_NOMEMORY;
  }
  const int32_t status = openByPath(path, flags, opened->seg);
  if (status != ZOV_OKAY) {
    zov_freeMem(opened, ZOV_DEFAULT_TAG);
    return status;
  }
  file = opened;
  return ZOV_OKAY;
}

uint32_t memRead(ZOV_MFILE file, void *buffer, uint32_t length) {
  return transferResult(readAtPosition(*file, buffer, length));
}

uint32_t memWrite(ZOV_MFILE file, const void *buffer, uint32_t length) {
  return transferResult(writeAtPosition(*file, buffer, length));
}

uint32_t memSeekRead(ZOV_MFILE file, uint64_t offset, void *buffer, uint32_t length) {
  return transferResult(segRead(file->seg, offset, buffer, length));
}

uint32_t memSeekWrite(ZOV_MFILE file, uint64_t offset, const void *buffer, uint32_t length) {
  return transferResult(segWrite(file->seg, offset, buffer, length));
}

}  // namespace zov

extern "C" {

ZOV_MFILE zov_mfOpen(const char *path, uint32_t flags) {
  ZOV_MFILE file = nullptr;
  zov::memOpen(path, flags, file);
  return file;
}

void zov_mfClose(ZOV_MFILE file) {
  if (file == nullptr) {
    return;
  }
  if (file->isDraft) {
    zov_segRemove(file->seg);
  } else {
    zov_segClose(file->seg);
  }
  zov_freeMem(file, ZOV_DEFAULT_TAG);
}

int32_t zov_mfSeek(ZOV_MFILE file, uint64_t offset, int32_t whence) {
  if (file == nullptr) {
    return ZOV_ERROR;
  }
  const uint64_t size = zov_segSize(file->seg);
  uint64_t target = offset;
  switch (whence) {
    case SEEK_SET:
      break;
    case SEEK_CUR:
      target += file->position;
      break;
    case SEEK_END:
      target += size;
      break;
    default:
      return ZOV_ERROR;
  }
  if (target > size) {
    return ZOV_ERROR;
  }
  file->position = target;
  return ZOV_OKAY;
}

uint32_t zov_mfRead(ZOV_MFILE file, void *buffer, uint32_t length) {
  return file == nullptr ? 0 : zov::movedBytes(zov::readAtPosition(*file, buffer, length));
}

uint32_t zov_mfWrite(ZOV_MFILE file, const void *buffer, uint32_t length) {
  return file == nullptr ? 0 : zov::movedBytes(zov::writeAtPosition(*file, buffer, length));
}

uint32_t zov_mfSeekRead(ZOV_MFILE file, uint64_t offset, void *buffer, uint32_t length) {
  return file == nullptr ? 0 : zov_segSeekRead(file->seg, offset, buffer, length);
}

uint32_t zov_mfSeekWrite(ZOV_MFILE file, uint64_t offset, const void *buffer, uint32_t length) {
  return file == nullptr ? 0 : zov_segSeekWrite(file->seg, offset, buffer, length);
}

// A null file has no lock to enter or leave.
int32_t zov_mfLock(ZOV_MFILE file) ZOV_NO_ANALYSIS {
  return file == nullptr ? ZOV_OKAY : zov_segLock(file->seg);
}

int32_t zov_mfUnlock(ZOV_MFILE file) ZOV_NO_ANALYSIS {
  if (file != nullptr) {
    zov_segUnlock(file->seg);
  }
  return ZOV_OKAY;
}

uint64_t zov_mfSize(ZOV_MFILE file) {
  return file == nullptr ? 0 : zov_segSize(file->seg);
}

int32_t zov_mfSetSize(ZOV_MFILE file, uint64_t size) {
  if (file == nullptr) {
    return ZOV_ERROR;
  }
  const zov::NoJump noJump;
  const zov::SegLock lock(file->seg);
  return zov::segSetSizeOrKeep(file->seg, size);
}

uint64_t zov_mfSizeStat(const char *path) {
  return zov::statistic(path, zov_segSizeStat, UINT64_MAX);
}

uint64_t zov_mfModTime(const char *path) {
  return zov::statistic(path, zov_segModTime, UINT32_MAX);
}

int32_t zov_mfRemove(const char *path) {
  const zov::NoJump noJump;
  zov::Lookup lookup(path);
  const int32_t status = zov::handleFullPath(lookup, 0, zov::kTypeFile);
  if (status != 0) {
    return zov::told(status);
  }
  zov::removeEntryInSubdir(*lookup.directory, lookup.cursor);
  zov_segUnlock(lookup.directory->tree.seg);
  zov::segRemoveById(lookup.id);
  return ZOV_OKAY;
}

int32_t zov_mfRename(const char *oldPath, const char *newPath) {
  const zov::NoJump noJump;
  const zov::Lookup renamed(newPath);
  zov::Lookup lookup(oldPath);
  int32_t status = zov::handleFullPath(lookup, 0, zov::kTypeAny);
  if (status == 0) {
    status = zov::renameEntryInSubdir(*lookup.directory, lookup.cursor, renamed.key);
    zov_segUnlock(lookup.directory->tree.seg);
  }
  return zov::told(status);
}

int32_t zov_mfValidate(const char *path, int32_t *isDirectory) {
  bool found = false;
  if (zov::findMem(path, found) != ZOV_OKAY) {
    return 0;
  }
  if (isDirectory != nullptr) {
    *isDirectory = found ? 1 : 0;
  }
  return 1;
}

int32_t zov_mfInit() {
  if (zov_segInit() != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  if (zov::directoriesInit() != ZOV_OKAY) {
    zov_segTerm();
    return ZOV_ERROR;
  }
  return ZOV_OKAY;
}

int32_t zov_mfTerm() {
  zov::directoriesTerm();
  return zov_segTerm();
}
}
