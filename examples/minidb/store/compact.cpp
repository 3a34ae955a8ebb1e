// SPDX-License-Identifier: Apache-2.0
//
// A new data file, written beside the old one and put in its place: by compaction, and
// when an empty file becomes a database, so that a file that has bytes always has a
// whole meta.
//
//   make DATA.new, for the owner alone -> lock it -> records, sync, meta, sync
//   -> the old file's owner and mode, sync -> rename -> sync the directory
#include <assert.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/internal.h"

namespace minidb {

namespace {

constexpr uint64_t kStepRecords = 1024;

Status copyRecords(const View &source, Transaction &target, Progress progress) {
  Cursor cursor;
  uint64_t copied = 0;
  Status status = seekFirst(cursor, source, {});
  while (status == Status::kOkay) {
    if (progress.step != nullptr && copied % kStepRecords == 0 &&
        !progress.step(progress.context, copied)) {
      return failed(Status::kRefused, "the compaction was stopped");
    }
    ++copied;
    status = copyRecord(target, cursor);
    status = status == Status::kOkay ? seekNext(cursor) : status;
  }
  return status == Status::kMissing ? Status::kOkay : status;
}

Status createReplacement(Store &store, const View &source, PageFile **file) {
  if (!onDisk(store.typeFlags)) {
    return openPageFile(store, source.file->path, O_RDWR, file);
  }
  char *path = replacementPath(store, source.file->path);
  if (path == nullptr) {
    return failed(Status::kFailed, "there is not enough memory to make a file");
  }
  zov_fileRemove(path);
  const Status status = openPageFile(store, path, O_RDWR | O_CREAT | O_EXCL, file);
  zov_freeMem(path, store.tag);
  return status;
}

// Writes the records of a view as the only commit of a new file.
Status fill(Transaction &target, const View &source, Progress progress) {
  // The other meta page is there, but none.
  const uint8_t nothing[kPageBytes] = {};
  const int64_t other = source.number % 2 == 0 ? 0 : kPageBytes;
  if (!writeAll(target.view.file->handle, other, nothing, sizeof nothing)) {
    return failed(Status::kFailed, "cannot write to \"%s\"", target.view.file->path);
  }
  const Status status = copyRecords(source, target, progress);
  return status == Status::kOkay ? writeTransaction(target) : status;
}

// Gives the new file owner, group and mode of the old one.
bool takeAfter(const PageFile &file, const PageFile &old) {
  const int descriptor = static_cast<int>(file.descriptor);
  struct stat wanted;
  struct stat made;
  if (fstat(static_cast<int>(old.descriptor), &wanted) != 0 || fstat(descriptor, &made) != 0) {
    return fail("cannot look at \"%s\"", old.path);
  }
  if (wanted.st_nlink > 1) {
    return fail("\"%s\" has another name, a hard link, that would keep the old file", old.path);
  }
  if ((made.st_uid != wanted.st_uid || made.st_gid != wanted.st_gid) &&
      fchown(descriptor, wanted.st_uid, wanted.st_gid) != 0) {
    return fail("cannot give a new \"%s\" the owner of the old one", old.path);
  }
  return fchmod(descriptor, wanted.st_mode & 07777) == 0 ||
         fail("cannot set the permissions of a new \"%s\"", old.path);
}

// Puts a whole new file in place of the old one. With kUnknown it is there, but may be
// gone after a crash.
Status replace(Store &store, PageFile &file, const PageFile &old) {
  if (!onDisk(store.typeFlags)) {
    return Status::kOkay;
  }
  char *path = static_cast<char *>(zov_getMem(0, store.tag, ZOV_MEM_STRDUP, old.path, ZOV_HERE));
  if (path == nullptr || !takeAfter(file, old) || !syncFile(store, file)) {
    zov_freeMem(path, store.tag);
    return Status::kFailed;
  }
  if (zov_fileRename(file.path, path) != ZOV_OKAY) {
    zov_freeMem(path, store.tag);
    return failed(Status::kFailed, "cannot put a new file in place of \"%s\"", old.path);
  }
  zov_freeMem(file.path, store.tag);
  file.path = path;
  return syncDirectory(path) ? Status::kOkay : Status::kUnknown;
}

}  // namespace

Status rebuild(Store &store, const View &source, Progress progress) {
  PageFile *file = nullptr;
  Status status = createReplacement(store, source, &file);
  if (status != Status::kOkay) {
    return status;
  }
  assert(file != nullptr);
  file->end = kFirstPage;
  Transaction *target = nullptr;
  View empty = {};
  empty.store = &store;
  empty.file = file;
  empty.end = kFirstPage;
  empty.number = source.number;
  status = beginOn(store, empty, Mode::kExclusive, &target);
  status = status == Status::kOkay ? fill(*target, source, progress) : status;
  // What failed so far has changed nothing.
  status = status == Status::kUnknown ? Status::kFailed : status;
  status = status == Status::kOkay ? replace(store, *file, *source.file) : status;
  if (status == Status::kOkay || status == Status::kUnknown) {
    store.broken.store(status == Status::kUnknown);
    publish(*target);
  } else if (file->descriptor != ZOV_NO_DESCRIPTOR) {
    zov_fileRemove(file->path);
  }
  if (target != nullptr) {
    endTransaction(target);
  }
  closePageFile(store, file);
  return status;
}

Status compactStore(Store &store, Progress progress) {
  Transaction *lock = nullptr;
  Status status = beginTransaction(store, Mode::kExclusive, &lock);
  if (status == Status::kOkay) {
    status = rebuild(store, viewOf(*lock), progress);
    rollback(lock);
  }
  return status;
}

}  // namespace minidb
