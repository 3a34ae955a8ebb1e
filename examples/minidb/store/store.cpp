// SPDX-License-Identifier: Apache-2.0
//
// Opening and closing of a store, and its views.
#include "store/store.h"

#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>

#include "store/internal.h"

namespace minidb {

namespace {

thread_local char problemText[kProblemBytes];

// The end of names that compaction uses beside a data file.
bool isReplacement(const char *path) {
  const size_t length = strlen(path);
  return length > 4 && strcmp(path + length - 4, ".new") == 0;
}

Store *newStore(const Options &options) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  auto *store =
      static_cast<Store *>(zov_getMem(sizeof(Store), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (store == nullptr) {
    zov_freeTagMemory(tag, 1);
    fail("there is not enough memory for a database");
    return nullptr;
  }
  store->tag = tag;
  store->typeFlags = options.typeFlags;
  store->readOnly = options.readOnly;
  store->scratchLimit = static_cast<uint32_t>(options.dirtyBytes / kPageBytes);
  store->writeLock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  store->stateLock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  pthread_mutex_init(&store->queueLock, nullptr);
  pthread_cond_init(&store->groupEnded, nullptr);
  const uint64_t bytes = options.cacheBytes == 0 ? kDefaultCacheBytes : options.cacheBytes;
  if (!openCache(store->cache, tag, bytes < kMinCacheBytes ? kMinCacheBytes : bytes) ||
      store->writeLock == ZOV_NO_SYNC || store->stateLock == ZOV_NO_SYNC) {
    closeStore(store);
    return nullptr;
  }
  return store;
}

// Takes a file for the store's; an empty one becomes a database if `create` says so.
// What is there is looked at down to the page that was written last, the root.
Status enterFile(Store &store, PageFile *file, bool create) {
  View &view = store.newest;
  view.store = &store;
  view.file = file;
  view.end = kFirstPage;
  Status status = readMetas(store, *file, view);
  if (status == Status::kMissing) {
    if (!create) {
      return Status::kRefused;
    }
    const View empty = view;
    return rebuild(store, empty, {});
  }
  file->end = view.end;
  if (status == Status::kOkay && view.depth > 0) {
    Frame *frame = pinNode(view, view.root, view.depth - 1);
    if (frame == nullptr) {
      return Status::kFailed;
    }
    unpin(frame);
  }
  return status;
}

// Removes what a killed process left, and makes the name of the file last: the process
// may have renamed it.
Status tidy(Store &store) {
  const char *path = store.newest.file->path;
  char *leftover = replacementPath(store, path);
  if (leftover == nullptr) {
    return failed(Status::kFailed, "there is not enough memory to open \"%s\"", path);
  }
  zov_fileRemove(leftover);
  zov_freeMem(leftover, store.tag);
  return syncDirectory(path) ? Status::kOkay : Status::kFailed;
}

Status openData(Store &store, const Options &options) {
  const bool create = options.create && !options.readOnly;
  PageFile *file = nullptr;
  if (isReplacement(options.path)) {
    return failed(Status::kRefused, "\"%s\": names that end in .new are for compaction",
                  options.path);
  }
  Status status = openPageFile(
      store, options.path, options.readOnly ? O_RDONLY : O_RDWR | (create ? O_CREAT : 0), &file);
  if (status == Status::kOkay) {
    status = enterFile(store, file, create || !onDisk(store.typeFlags));
  }
  const bool writes = onDisk(store.typeFlags) && !store.readOnly;
  return status == Status::kOkay && writes ? tidy(store) : status;
}

// Looks what other processes have committed, and whether they have put another file in
// place of the one that is open. stateLock.
Status refresh(Store &store) {
  View view = store.newest;
  PageFile *old = view.file;
  if (!leadsTo(old->path, *old) &&
      openPageFile(store, old->path, O_RDONLY, &view.file) != Status::kOkay) {
    return Status::kFailed;
  }
  const bool read = readMetas(store, *view.file, view) == Status::kOkay;
  if (view.file != old) {
    closePageFile(store, read ? old : view.file);
  }
  if (read) {
    store.newest = view;
  }
  return read ? Status::kOkay : Status::kFailed;
}

}  // namespace

const char *problem() {
  return problemText;
}

bool fail(const char *format, ...) {
  char text[kProblemBytes];
  va_list arguments;
  va_start(arguments, format);
  zov_vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  memcpy(problemText, text, sizeof text);
  return false;
}

Status failed(Status status, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  zov_vsnprintf(problemText, sizeof problemText, format, arguments);
  va_end(arguments);
  return status;
}

Status openStore(const Options &options, Store **out) {
  *out = nullptr;
  Store *store = newStore(options);
  if (store == nullptr) {
    return Status::kFailed;
  }
  const Status status = openData(*store, options);
  if (status == Status::kOkay) {
    *out = store;
  } else {
    closeStore(store);
  }
  return status;
}

void closeStore(Store *store) {
  if (store->newest.file != nullptr) {
    closePageFile(*store, store->newest.file);
  }
  closeCache(store->cache);
  pthread_cond_destroy(&store->groupEnded);
  pthread_mutex_destroy(&store->queueLock);
  zov_syncDelete(store->stateLock);
  zov_syncDelete(store->writeLock);
  zov_freeTagMemory(store->tag, 1);
}

bool isStoreFile(const Store &store, const char *path) {
  char replacement[PATH_MAX];
  if (!onDisk(store.typeFlags)) {
    return false;
  }
  zov_syncEnterExcl(store.stateLock);
  const PageFile &file = *store.newest.file;
  zov_snprintf(replacement, sizeof replacement, "%s.new", file.path);
  const bool own = leadsTo(path, file) || isSameFile(path, replacement);
  zov_syncExitExcl(store.stateLock);
  return own;
}

Status openView(Store &store, View &view) {
  view = {};
  zov_syncEnterExcl(store.stateLock);
  const Status status = store.readOnly && onDisk(store.typeFlags) ? refresh(store) : Status::kOkay;
  if (status == Status::kOkay) {
    view = store.newest;
    view.file->users.fetch_add(1);
  }
  zov_syncExitExcl(store.stateLock);
  return status;
}

void closeView(View &view) {
  if (view.file != nullptr) {
    closePageFile(*view.store, view.file);
  }
  view = {};
}

Status readStats(Store &store, Stats &stats) {
  View view;
  const Status status = openView(store, view);
  if (status != Status::kOkay) {
    return status;
  }
  stats = {view.records, view.number, view.end, view.live, view.depth, 0, 0, 0, 0, 0, 0};
  closeView(view);
  const Cache &cache = store.cache;
  stats.cachePages = uint64_t{cache.shardFrames} * kShards;
  stats.cacheUsed = cache.used.load();
  stats.cacheHits = cache.hits.load();
  stats.pagesRead = cache.reads.load();
  stats.pagesWritten = cache.writes.load();
  stats.syncs = store.syncs.load();
  return Status::kOkay;
}

}  // namespace minidb
