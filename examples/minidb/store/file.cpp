// SPDX-License-Identifier: Apache-2.0
//
// Files of pages: transfers, identity and locks, and the two metas. Beside libzov this
// uses what it does not offer: modes, owners and identities of files.
//
// A meta is a page of its own: at 32 the magic (16 bytes), version and page size (4
// each), root, end, records and live pages (8 each), depth (4). Commit n writes page
// n % 2, so that the other one is whole while this one is written.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "store/internal.h"

namespace minidb {

namespace {

constexpr char kMagic[16] = "minidb data\r\n\x1a";
constexpr char kOldMagic[] = "minidb file ";
constexpr uint32_t kVersion = 3;

std::atomic<uint32_t> memoryFiles;

Status openFailed(const char *path) {
  const int error = errno;
  return failed(error == ENOENT ? Status::kMissing : Status::kFailed, "cannot open \"%s\": %s",
                path, strerror(error));
}

// The descriptor that the lock is on.
Status openDescriptor(const char *path, int32_t flags, PageFile &file) {
  const int descriptor = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
  if (descriptor < 0) {
    return openFailed(path);
  }
  file.descriptor = static_cast<uint64_t>(descriptor);
  struct stat status;
  if (fstat(descriptor, &status) != 0) {
    return openFailed(path);
  }
  file.device = status.st_dev;
  file.inode = status.st_ino;
  if (!S_ISREG(status.st_mode)) {
    return failed(Status::kRefused, "\"%s\" is not a regular file", path);
  }
  if ((flags & O_ACCMODE) != O_RDONLY && zov_flLock(file.descriptor) != ZOV_OKAY) {
    return failed(Status::kRefused, "\"%s\" is in use", path);
  }
  return Status::kOkay;
}

// kConflict when the name has got another file meanwhile. The name is kept without
// links, and as one that does not depend on the current directory.
Status openOnce(Store &store, const char *path, int32_t flags, PageFile &file) {
  char resolved[PATH_MAX] = "memory";
  if (onDisk(store.typeFlags)) {
    const Status status = openDescriptor(path, flags, file);
    if (status != Status::kOkay) {
      return status;
    }
    if (realpath(path, resolved) == nullptr) {
      return errno == ENOENT ? Status::kConflict : openFailed(path);
    }
  }
  file.path = static_cast<char *>(zov_getMem(0, store.tag, ZOV_MEM_STRDUP, resolved, ZOV_HERE));
  if (file.path != nullptr) {
    const auto access = static_cast<uint32_t>(flags & O_ACCMODE);
    file.handle =
        onDisk(store.typeFlags) ? zov_fileOpen(file.path, access, store.typeFlags) : openMemory();
  }
  if (file.handle == nullptr) {
    return openFailed(path);
  }
  return !onDisk(store.typeFlags) || leadsTo(resolved, file) ? Status::kOkay : Status::kConflict;
}

bool isMeta(ConstBytes page, uint64_t number) {
  return isWhole(page, number) && kindOf(page) == Kind::kMeta &&
         memcmp(page + 32, kMagic, sizeof kMagic) == 0;
}

// What a file is that has no meta.
Status notOurs(const PageFile &file, ConstBytes pages) {
  const char *what = "is not a minidb data file";
  if (memcmp(pages, kOldMagic, sizeof kOldMagic - 1) == 0) {
    what = "was made by an older minidb";
  } else if (memcmp(pages + 32, kMagic, sizeof kMagic) == 0 ||
             memcmp(pages + kPageBytes + 32, kMagic, sizeof kMagic) == 0) {
    what = "is damaged: neither meta page is whole";
  }
  return failed(Status::kRefused, "\"%s\" %s; it was left as it is", file.path, what);
}

Status takeMeta(PageFile &file, ConstBytes page, View &view) {
  if (get<uint32_t>(page + 48) != kVersion || get<uint32_t>(page + 52) != kPageBytes) {
    return failed(Status::kRefused, "\"%s\" has format %u; this minidb reads %u", file.path,
                  get<uint32_t>(page + 48), kVersion);
  }
  view.file = &file;
  view.number = commitOf(page);
  view.root = get<uint64_t>(page + 56);
  view.end = get<uint64_t>(page + 64);
  view.records = get<uint64_t>(page + 72);
  view.live = get<uint64_t>(page + 80);
  view.depth = get<uint32_t>(page + 88);
  if (view.depth > kMaxDepth || (view.depth == 0) != (view.root == 0) || view.end < kFirstPage ||
      view.end > kMaxPages || view.root >= view.end) {
    return failed(Status::kFailed, "\"%s\" is damaged: its meta page makes no sense", file.path);
  }
  return Status::kOkay;
}

template <typename Transfer, typename Byte>
bool transferAll(Transfer transfer, ZOV_FILE file, int64_t offset, Byte *at, uint32_t length) {
  while (length > 0) {
    const uint32_t count = transfer(file, offset, at, length);
    if (count == 0 || count == ZOV_IO_FAILED) {
      return false;
    }
    at += count;
    offset += count;
    length -= count;
  }
  return true;
}

bool isSameInode(const char *path, const char *other) {
  struct stat first;
  struct stat second;
  return stat(path, &first) == 0 && stat(other, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

// The name at the end of a path, and the path of its directory.
const char *splitPath(const char *path, char (&directory)[PATH_MAX]) {
  const char *slash = strrchr(path, '/');
  const int length = slash == nullptr ? 1 : static_cast<int>(slash - path) + 1;
  zov_snprintf(directory, sizeof directory, "%.*s", length, slash == nullptr ? "." : path);
  return slash == nullptr ? path : slash + 1;
}

}  // namespace

bool readAll(ZOV_FILE file, int64_t offset, void *bytes, uint32_t length) {
  return transferAll(zov_fileSeekRead, file, offset, static_cast<char *>(bytes), length);
}

bool writeAll(ZOV_FILE file, int64_t offset, const void *bytes, uint32_t length) {
  return transferAll(zov_fileSeekWrite, file, offset, static_cast<const char *>(bytes), length);
}

// Its name goes at once; the file stays until it is closed.
ZOV_FILE openMemory() {
  char path[32];
  zov_snprintf(path, sizeof path, "/minidb/%u", memoryFiles.fetch_add(1));
  ZOV_FILE file = zov_fileOpen(path, O_RDWR | O_CREAT, ZOV_FILE_MEMORY);
  if (file != nullptr) {
    zov_fileRemoveEx(path, ZOV_FILE_MEMORY);
  }
  return file;
}

void closeFile(ZOV_FILE file) {
  if (file != nullptr) {
    zov_fileClose(file);
  }
}

Status openPageFile(Store &store, const char *path, int32_t flags, PageFile **out) {
  Status status = Status::kConflict;
  while (status == Status::kConflict) {
    auto *file = static_cast<PageFile *>(
        zov_getMem(sizeof(PageFile), store.tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
    if (file == nullptr) {
      return failed(Status::kFailed, "there is not enough memory to open \"%s\"", path);
    }
    file->descriptor = ZOV_NO_DESCRIPTOR;
    file->users.store(1);
    status = openOnce(store, path, flags, *file);
    if (status == Status::kOkay) {
      *out = file;
    } else {
      closePageFile(store, file);
    }
  }
  return status;
}

void closePageFile(Store &store, PageFile *file) {
  if (file->users.fetch_sub(1) > 1) {
    return;
  }
  forgetFile(store.cache, *file);
  closeFile(file->handle);
  if (file->descriptor != ZOV_NO_DESCRIPTOR) {
    zov_flClose(file->descriptor);
  }
  zov_freeMem(file->path, store.tag);
  zov_freeMem(file, store.tag);
}

// Only a read that gives nothing at all makes a file empty. Another process may write
// one meta after the other while both are read; so they are read again.
Status readMetas(Store &store, PageFile &file, View &view) {
  uint8_t pages[2 * kPageBytes];
  for (int attempt = 0;; ++attempt) {
    if (zov_fileSeekRead(file.handle, 0, pages, 1) == 0) {
      return failed(Status::kMissing, "\"%s\" is empty", file.path);
    }
    memset(pages, 0, sizeof pages);
    store.cache.reads.fetch_add(2, std::memory_order_relaxed);
    if (!readAll(file.handle, 0, pages, sizeof pages)) {
      return zov_fileLength(file.handle) < int64_t{sizeof pages}
                 ? notOurs(file, pages)
                 : failed(Status::kFailed, "cannot read the meta pages of \"%s\"", file.path);
    }
    const bool first = isMeta(pages, 0);
    const bool second = isMeta(pages + kPageBytes, 1);
    if (first || second) {
      const bool later = second && (!first || commitOf(pages + kPageBytes) > commitOf(pages));
      return takeMeta(file, pages + (later ? kPageBytes : 0), view);
    }
    if (attempt == 3) {
      return notOurs(file, pages);
    }
  }
}

bool writeMeta(Store &store, const View &view) {
  uint8_t page[kPageBytes];
  const uint64_t slot = view.number % 2;
  initPage(page, Kind::kMeta, 0, slot, view.number);
  memcpy(page + 32, kMagic, sizeof kMagic);
  put(page + 48, kVersion);
  put(page + 52, kPageBytes);
  put(page + 56, view.root);
  put(page + 64, view.end);
  put(page + 72, view.records);
  put(page + 80, view.live);
  put(page + 88, view.depth);
  sealPage(page);
  store.cache.writes.fetch_add(1, std::memory_order_relaxed);
  return writeAll(view.file->handle, static_cast<int64_t>(slot * kPageBytes), page, sizeof page) ||
         fail("cannot write a meta page of \"%s\"", view.file->path);
}

bool syncFile(Store &store, const PageFile &file) {
  store.syncs.fetch_add(1, std::memory_order_relaxed);
  return zov_fileSync(file.handle) == ZOV_OKAY || fail("cannot sync \"%s\"", file.path);
}

bool leadsTo(const char *path, const PageFile &file) {
  struct stat status;
  return stat(path, &status) == 0 && status.st_dev == file.device && status.st_ino == file.inode;
}

bool isSameFile(const char *path, const char *other) {
  char directory[PATH_MAX];
  char otherDirectory[PATH_MAX];
  const char *name = splitPath(path, directory);
  const char *otherName = splitPath(other, otherDirectory);
  return isSameInode(path, other) ||
         (strcmp(name, otherName) == 0 && isSameInode(directory, otherDirectory));
}

// Some file systems cannot sync a directory, and some directories not be read.
bool syncDirectory(const char *path) {
  char directory[PATH_MAX];
  splitPath(path, directory);
  ZOV_FILE file = zov_fileOpen(directory, O_RDONLY | O_DIRECTORY, 0);
  bool synced = file != nullptr ? zov_fileSync(file) == ZOV_OKAY : errno == EACCES;
  synced = synced || errno == EINVAL;
  closeFile(file);
  return synced || fail("cannot sync the directory of \"%s\"", path);
}

char *replacementPath(Store &store, const char *path) {
  return zov_makeStrVA(ZOV_HERE, store.tag, "%s.new", path);
}

}  // namespace minidb
