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
constexpr uint32_t kVersion = 3;

std::atomic<uint32_t> memoryFiles;

bool openFailed(const char *path) {
  return fail(errno == ENOENT ? Status::kMissing : Status::kFailed, "cannot open \"%s\": %s", path,
              strerror(errno));
}

// The descriptor that the lock is on.
bool openDescriptor(const char *path, int32_t flags, PageFile &file) {
  const int descriptor = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
  if (descriptor < 0) {
    return openFailed(path);
  }
  file.descriptor = static_cast<uint64_t>(descriptor);
  struct stat status;
  if (fstat(descriptor, &status) != 0) {
    return openFailed(path);
  }
  if (!S_ISREG(status.st_mode)) {
    return fail(Status::kRefused, "\"%s\" is not a regular file", path);
  }
  return (flags & O_ACCMODE) == O_RDONLY || zov_flLock(file.descriptor) == ZOV_OKAY ||
         fail(Status::kRefused, "\"%s\" is in use", path);
}

// kConflict when the name has got another file meanwhile. The name is kept without
// links, and as one that does not depend on the current directory.
bool openOnce(Store &store, const char *path, int32_t flags, PageFile &file) {
  if (store.inMemory) {
    zov_strncpyZ(file.path, "memory", sizeof file.path);
    file.handle = openMemory();
    return file.handle != nullptr || openFailed(path);
  }
  if (!openDescriptor(path, flags, file)) {
    return false;
  }
  if (realpath(path, file.path) != nullptr) {
    file.handle = zov_fileOpen(file.path, static_cast<uint32_t>(flags & O_ACCMODE), 0);
    if (file.handle == nullptr || leadsTo(file.path, file.descriptor)) {
      return file.handle != nullptr || openFailed(path);
    }
  } else if (errno != ENOENT) {
    return openFailed(path);
  }
  return fail(Status::kConflict, "\"%s\" was replaced", path);
}

bool hasMagic(const Page &page) {
  return memcmp(page.bytes + 32, kMagic, sizeof kMagic) == 0;
}

bool isMeta(const Page &page, uint64_t number) {
  return page.isWhole(number) && page.kind() == Kind::kMeta && hasMagic(page);
}

// What a file is that has no meta.
bool notOurs(const PageFile &file, const Page *metas) {
  const bool isOurs = hasMagic(metas[0]) || hasMagic(metas[1]);
  return fail(Status::kRefused, "\"%s\" %s; it was left as it is", file.path,
              isOurs ? "is damaged: neither meta page is whole" : "is not a minidb data file");
}

bool takeMeta(PageFile &file, const Page &page, View &view) {
  const uint8_t *at = page.bytes;
  if (get<uint32_t>(at + 48) != kVersion || get<uint32_t>(at + 52) != kPageBytes) {
    return fail(Status::kRefused, "\"%s\" has format %u; this minidb reads %u", file.path,
                get<uint32_t>(at + 48), kVersion);
  }
  view.file = &file;
  view.number = page.commit();
  view.root = get<uint64_t>(at + 56);
  view.end = get<uint64_t>(at + 64);
  view.records = get<uint64_t>(at + 72);
  view.live = get<uint64_t>(at + 80);
  view.depth = get<uint32_t>(at + 88);
  const bool right = view.depth <= kMaxDepth && (view.depth == 0) == (view.root == 0) &&
                     view.end >= kFirstPage && view.root < view.end;
  return right || fail("\"%s\" is damaged: its meta page makes no sense", file.path);
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

bool isSame(const struct stat &first, const struct stat &second) {
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

bool isSameInode(const char *path, const char *other) {
  struct stat first;
  struct stat second;
  return stat(path, &first) == 0 && stat(other, &second) == 0 && isSame(first, second);
}

// The name at the end of a path, and the path of its directory.
const char *splitPath(const char *path, char (&directory)[PATH_MAX]) {
  const char *slash = strrchr(path, '/');
  const int length = slash == nullptr ? 1 : static_cast<int>(slash - path) + 1;
  zov_snprintf(directory, sizeof directory, "%.*s", length, slash == nullptr ? "." : path);
  return slash == nullptr ? path : slash + 1;
}

// --- The page cache ------------------------------------------------------

constexpr uint64_t kMaxPages = uint64_t{1} << 50;

// The frame of a page, or the one of its set that it may have: a null one, or that of
// the page used the longest ago. cache.lock.
Frame **findFrame(const Cache &cache, uint64_t file, uint64_t number) {
  Frame **set = cache.frames + (file + number) % cache.sets * kWays;
  Frame **oldest = set;
  for (Frame **way = set; way < set + kWays; ++way) {
    if (*way == nullptr || ((*way)->number == number && (*way)->file == file)) {
      return way;
    }
    oldest = (*way)->used < (*oldest)->used ? way : oldest;
  }
  return oldest;
}

bool findPage(Cache &cache, uint64_t file, uint64_t number, Page &page) {
  zov_syncEnterExcl(cache.lock);
  Frame *frame = *findFrame(cache, file, number);
  const bool found = frame != nullptr && frame->number == number && frame->file == file;
  if (found) {
    page = frame->page;
    frame->used = ++cache.clock;
    ++cache.hits;
  }
  zov_syncExitExcl(cache.lock);
  return found;
}

// Does nothing when memory is missing.
void keepPage(Cache &cache, uint64_t file, const Page &page) {
  zov_syncEnterExcl(cache.lock);
  Frame **frame = findFrame(cache, file, page.number());
  if (*frame == nullptr) {
    void *chunk = zov_getMemFromPool(sizeof(Frame), cache.pool, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
    *frame = static_cast<Frame *>(chunk);
    cache.count += chunk != nullptr ? 1 : 0;
  }
  if (*frame != nullptr) {
    (*frame)->file = file;
    (*frame)->number = page.number();
    (*frame)->used = ++cache.clock;
    (*frame)->page = page;
  }
  zov_syncExitExcl(cache.lock);
}

bool transferFailed(const char *what, const PageFile &file, uint64_t number) {
  return fail("cannot %s page %llu of \"%s\"", what, static_cast<unsigned long long>(number),
              file.path);
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

bool openPageFile(Store &store, const char *path, int32_t flags, PageFile **out) {
  do {
    auto *file = static_cast<PageFile *>(
        zov_getMem(sizeof(PageFile), store.tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
    if (file == nullptr) {
      return fail("there is not enough memory to open \"%s\"", path);
    }
    file->descriptor = ZOV_NO_DESCRIPTOR;
    file->id = ++store.files;
    file->kept = file->end = kFirstPage;
    file->users = 1;
    if (openOnce(store, path, flags, *file)) {
      *out = file;
      return true;
    }
    closePageFile(store, file);
  } while (lastStatus() == Status::kConflict);
  return false;
}

void closePageFile(Store &store, PageFile *file) {
  if (--file->users > 0) {
    return;
  }
  closeFile(file->handle);
  if (file->descriptor != ZOV_NO_DESCRIPTOR) {
    zov_flClose(file->descriptor);
  }
  zov_freeMem(file, store.tag);
}

// Only a read that gives nothing at all makes a file empty. Another process may write
// one meta after the other while both are read; so they are read again.
bool readMetas(Store &store, PageFile &file, View &view) {
  Page metas[2];
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (zov_fileSeekRead(file.handle, 0, metas, 1) == 0) {
      return fail(Status::kMissing, "\"%s\" is empty", file.path);
    }
    memset(metas, 0, sizeof metas);
    store.cache.reads += 2;
    if (!readAll(file.handle, 0, metas, sizeof metas)) {
      return zov_fileLength(file.handle) < int64_t{sizeof metas}
                 ? notOurs(file, metas)
                 : fail("cannot read the meta pages of \"%s\"", file.path);
    }
    const bool first = isMeta(metas[0], 0);
    const bool second = isMeta(metas[1], 1);
    if (first || second) {
      const bool later = second && (!first || metas[1].commit() > metas[0].commit());
      return takeMeta(file, metas[later ? 1 : 0], view);
    }
  }
  return notOurs(file, metas);
}

bool writeMeta(Store &store, const View &view) {
  Page page;
  const uint64_t slot = view.number % 2;
  page.init(Kind::kMeta, 0, slot, view.number);
  memcpy(page.bytes + 32, kMagic, sizeof kMagic);
  put(page.bytes + 48, kVersion);
  put(page.bytes + 52, kPageBytes);
  put(page.bytes + 56, view.root);
  put(page.bytes + 64, view.end);
  put(page.bytes + 72, view.records);
  put(page.bytes + 80, view.live);
  put(page.bytes + 88, view.depth);
  return writePage(store.cache, *view.file, page);
}

bool syncFile(Store &store, const PageFile &file) {
  ++store.syncs;
  return zov_fileSync(file.handle) == ZOV_OKAY || fail("cannot sync \"%s\"", file.path);
}

bool leadsTo(const char *path, uint64_t descriptor) {
  struct stat named;
  struct stat open;
  return stat(path, &named) == 0 && fstat(static_cast<int>(descriptor), &open) == 0 &&
         isSame(named, open);
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

bool openCache(Cache &cache, ZOV_TAG tag, uint64_t bytes) {
  cache.sets = static_cast<uint32_t>(bytes / sizeof(Frame) / kWays);
  cache.lock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  cache.pool = zov_allocPool(tag, 1, 0);
  cache.frames = static_cast<Frame **>(
      zov_getMem(cache.sets * kWays * sizeof(Frame *), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  return (cache.lock != ZOV_NO_SYNC && cache.pool != nullptr && cache.frames != nullptr) ||
         fail("there is not enough memory for the page cache");
}

void closeCache(Cache &cache) {
  zov_syncDelete(cache.lock);
  zov_zFreePool(&cache.pool);
}

bool readPage(Cache &cache, const PageFile &file, uint64_t number, Page &page, bool cached) {
  if (cached && findPage(cache, file.id, number, page)) {
    return true;
  }
  ++cache.reads;
  if (number >= kMaxPages ||
      !readAll(file.handle, static_cast<int64_t>(number) * kPageBytes, page.bytes, kPageBytes)) {
    return transferFailed("read", file, number);
  }
  if (!page.isWhole(number)) {
    return fail("page %llu of \"%s\" is damaged", static_cast<unsigned long long>(number),
                file.path);
  }
  if (cached) {
    keepPage(cache, file.id, page);
  }
  return true;
}

bool writePage(Cache &cache, const PageFile &file, Page &page) {
  ++cache.writes;
  page.seal();
  if (!writeAll(file.handle, static_cast<int64_t>(page.number()) * kPageBytes, page.bytes,
                kPageBytes)) {
    return transferFailed("write", file, page.number());
  }
  keepPage(cache, file.id, page);
  return true;
}

}  // namespace minidb
