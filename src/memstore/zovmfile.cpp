// SPDX-License-Identifier: Apache-2.0
//
// Files in memory: the calls by path and by handle. Each file is a segmented
// file, named by an id that stands in the entry of its name.
//
//   path -> Directory, locked -> entry -> id -> MemFile { position, seg }
//
// An id leads to its file only while the entry that holds it is there, so a file
// is opened, and its statistics are read, under the lock of its directory; who
// removes it takes the entry out first. A file's own lock may be held for long by
// its users, so it is never waited for under a directory's: truncating waits
// until that is left.
//
// No locks of its own. Nothing jumps: jumps are held off before a directory is
// locked.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovmfile_transfer.h"
#include "memstore/zovsegfile_private.h"

namespace {

using zov::Target;

// Takes back the entry of a file that could be named and not opened.
void undoCreate(const Target &target) {
  zov::Cursor cursor = zov::cursorOf(*target.directory);
  if (zov::locate(cursor, target.key) == ZOV_OKAY) {
    zov::removeEntryInSubdir(*target.directory, cursor);
    zov::segRemoveById(target.id);
  }
}

int32_t truncate(ZOV_SEG seg) {
  zov_segLock(seg);
  const int32_t status = zov_segSize(seg) == 0 ? ZOV_OKAY : zov_segSetSize(seg, 0);
  zov_segUnlock(seg);
  return status;
}

ZOV_SEG openByPath(const char *path, uint32_t flags) {
  Target target(path);
  if (zov::handleFullPath(target, flags, zov::kTypeFile) != ZOV_OKAY) {
    return nullptr;
  }
  const ZOV_SEG seg = zov_segOpen(target.id, flags & ~static_cast<uint32_t>(O_TRUNC));
  if (seg == nullptr && target.created) {
    undoCreate(target);
  }
  zov_segUnlock(target.directory->tree.seg);
  if (seg != nullptr && (flags & O_TRUNC) != 0 && truncate(seg) != ZOV_OKAY) {
    zov_segClose(seg);
    return nullptr;
  }
  return seg;
}

// A statistic of the file of a path: what `read` finds by its id, or 0 when there
// is none. The id may be dead, if the file was removed by it.
uint64_t statistic(const char *path, uint64_t (*read)(uint64_t id), uint64_t missing) {
  const zov::NoJump noJump;
  Target target(path);
  if (zov::handleFullPath(target, 0, zov::kTypeFile) != ZOV_OKAY) {
    return 0;
  }
  const uint64_t value = read(target.id);
  zov_segUnlock(target.directory->tree.seg);
  return value == missing ? 0 : value;
}

bool isFile(const char *path) {
  Target target(path);
  if (zov::handleFullPath(target, 0, zov::kTypeFile) != ZOV_OKAY) {
    return false;
  }
  zov_segUnlock(target.directory->tree.seg);
  return true;
}

// Transfers at the position, which moves behind what was moved.
int64_t readOn(MemFile &file, void *buffer, uint32_t length) {
  const int64_t moved = zov::segRead(file.seg, file.position, buffer, length);
  file.position += zov::movedBytes(moved);
  return moved;
}

int64_t writeOn(MemFile &file, const void *buffer, uint32_t length) {
  const int64_t moved = zov::segWrite(file.seg, file.position, buffer, length);
  file.position += zov::movedBytes(moved);
  return moved;
}

uint32_t transferResult(int64_t moved) {
  return moved < 0 ? ZOV_IO_FAILED : static_cast<uint32_t>(moved);
}

}  // namespace

uint32_t zov::memRead(ZOV_MFILE file, void *buffer, uint32_t length) {
  return transferResult(readOn(*file, buffer, length));
}

uint32_t zov::memWrite(ZOV_MFILE file, const void *buffer, uint32_t length) {
  return transferResult(writeOn(*file, buffer, length));
}

uint32_t zov::memSeekRead(ZOV_MFILE file, uint64_t offset, void *buffer, uint32_t length) {
  return transferResult(segRead(file->seg, offset, buffer, length));
}

uint32_t zov::memSeekWrite(ZOV_MFILE file, uint64_t offset, const void *buffer, uint32_t length) {
  return transferResult(segWrite(file->seg, offset, buffer, length));
}

extern "C" {

ZOV_MFILE zov_mfOpen(const char *path, uint32_t flags) {
  const zov::NoJump noJump;
  MemFile *file = zov::make<MemFile>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (file == nullptr) {
    return nullptr;
  }
  file->seg = openByPath(path, flags);
  if (file->seg == nullptr) {
    zov_freeMem(file, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  return file;
}

void zov_mfClose(ZOV_MFILE file) {
  if (file == nullptr) {
    return;
  }
  if (file->draftId == 0) {
    zov_segClose(file->seg);
  } else {
    zov_segRemove(file->seg);
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
  return file == nullptr ? 0 : zov::movedBytes(readOn(*file, buffer, length));
}

uint32_t zov_mfWrite(ZOV_MFILE file, const void *buffer, uint32_t length) {
  return file == nullptr ? 0 : zov::movedBytes(writeOn(*file, buffer, length));
}

uint32_t zov_mfSeekRead(ZOV_MFILE file, uint64_t offset, void *buffer, uint32_t length) {
  return file == nullptr ? 0 : zov_segSeekRead(file->seg, offset, buffer, length);
}

uint32_t zov_mfSeekWrite(ZOV_MFILE file, uint64_t offset, const void *buffer, uint32_t length) {
  return file == nullptr ? 0 : zov_segSeekWrite(file->seg, offset, buffer, length);
}

int32_t zov_mfLock(ZOV_MFILE file) {
  return file == nullptr ? ZOV_OKAY : zov_segLock(file->seg);
}

int32_t zov_mfUnlock(ZOV_MFILE file) {
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
  zov_segLock(file->seg);
  const int32_t status = zov::segSetSizeOrKeep(file->seg, size);
  zov_segUnlock(file->seg);
  return status;
}

uint64_t zov_mfSizeStat(const char *path) {
  return statistic(path, zov_segSizeStat, UINT64_MAX);
}

uint64_t zov_mfModTime(const char *path) {
  return statistic(path, zov_segModTime, UINT32_MAX);
}

int32_t zov_mfRemove(const char *path) {
  const zov::NoJump noJump;
  Target target(path);
  const int32_t status = zov::handleFullPath(target, 0, zov::kTypeFile);
  if (status != ZOV_OKAY) {
    return status;
  }
  zov::removeEntryInSubdir(*target.directory, target.cursor);
  zov_segUnlock(target.directory->tree.seg);
  zov::segRemoveById(target.id);
  return ZOV_OKAY;
}

int32_t zov_mfRename(const char *oldPath, const char *newPath) {
  const zov::NoJump noJump;
  const Target renamed(newPath);
  Target target(oldPath);
  int32_t status = zov::handleFullPath(target, 0, zov::kTypeAny);
  if (status != ZOV_OKAY) {
    return status;
  }
  status = zov::renameEntryInSubdir(*target.directory, target.cursor, renamed.key);
  zov_segUnlock(target.directory->tree.seg);
  return status;
}

int32_t zov_mfValidate(const char *path, int32_t *isDirectory) {
  const zov::NoJump noJump;
  const zov::NormalPath normal = zov::directoryPath(path);
  if (normal.get() == nullptr) {
    return 0;
  }
  uint64_t id = 0;
  const bool directory = zov::openMemSubdir(normal, 0, id);
  if (!directory && !isFile(path)) {
    return 0;
  }
  if (isDirectory != nullptr) {
    *isDirectory = directory ? 1 : 0;
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
