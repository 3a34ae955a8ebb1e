// SPDX-License-Identifier: Apache-2.0
//
// Opening and closing of a store, its views, and new data files. Such a one is written
// beside the old one and put in its place: by compaction, and when an empty file becomes a
// database, so that a file that has bytes always has a whole meta.
//
//   make DATA.new, for the owner alone -> lock it -> records, sync, meta, sync
//   -> the old file's owner and mode, sync -> rename -> sync the directory
#include "store/store.h"

#include <fcntl.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/internal.h"

namespace minidb {

namespace {

ZOV_PRINTF(2, 0) void setProblem(Status status, const char *format, va_list arguments) {
  Problem problem = {status, ""};
  zov_vsnprintf(problem.text, sizeof problem.text, format, arguments);
  latestProblem() = problem;
}

// The name that compaction uses beside a data file, and whether a path has one like it.
constexpr char kReplacement[] = ".new";

template <size_t size>
void nameReplacement(char (&name)[size], const char *path) {
  zov_snprintf(name, size, "%s%s", path, kReplacement);
}

bool isReplacement(const char *path) {
  const size_t length = strlen(path);
  return length > 4 && strcmp(path + length - 4, kReplacement) == 0;
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
  store->inMemory = options.inMemory;
  store->readOnly = options.readOnly;
  store->dirtyLimit = static_cast<uint32_t>(options.dirtyBytes / kPageBytes);
  store->writeLock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  pthread_mutex_init(&store->stateLock, nullptr);
  pthread_cond_init(&store->groupEnded, nullptr);
  if (!openCache(store->cache, tag, std::max(options.cacheBytes, kMinCacheBytes)) ||
      store->writeLock == ZOV_NO_SYNC) {
    closeStore(store);
    return nullptr;
  }
  return store;
}

// --- Putting a new file in place of one ----------------------------------

// Writes the records of a view as the only commit of a new file. The other meta page is
// there, but none. What failed has changed nothing.
bool fill(Transaction &target, const View &source, Progress progress) {
  const Page nothing = {};
  const int64_t other = source.number % 2 == 0 ? 0 : kPageBytes;
  if (!writeAll(target.view.file->handle, other, &nothing, sizeof nothing)) {
    return fail("cannot write to \"%s\"", target.view.file->path);
  }
  Cursor cursor;
  uint64_t copied = 0;
  bool more = seekFirst(cursor, source, {});
  while (more) {
    more = goOn(progress, copied++) && copyRecord(target, cursor) && seekNext(cursor);
  }
  return lastStatus() == Status::kMissing && writeTransaction(target);
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
bool replace(Store &store, PageFile &file, const PageFile &old) {
  if (store.inMemory) {
    return true;
  }
  if (!takeAfter(file, old) || !syncFile(store, file)) {
    return false;
  }
  if (zov_fileRename(file.path, old.path) != ZOV_OKAY) {
    return fail("cannot put a new file in place of \"%s\"", old.path);
  }
  memcpy(file.path, old.path, sizeof file.path);
  return syncDirectory(file.path) || fail(Status::kUnknown, "%s", problem());
}

// Replaces the file of the newest view by a new one with the records of a view.
// writeLock.
bool rebuild(Store &store, const View &source, Progress progress) {
  char path[sizeof source.file->path];
  PageFile *file = nullptr;
  Transaction *target = nullptr;
  nameReplacement(path, source.file->path);
  if (!store.inMemory) {
    zov_fileRemove(path);
  }
  if (!openPageFile(store, path, O_RDWR | O_CREAT | O_EXCL, &file)) {
    return fail("%s", problem());
  }
  const View empty = {&store, file, nullptr, 0, kFirstPage, source.number, 0, 0, 0, 0};
  const bool filled =
      beginOn(store, empty, Mode::kExclusive, &target) && fill(*target, source, progress);
  const bool done = filled && replace(store, *file, *source.file);
  if (done || (filled && lastStatus() == Status::kUnknown)) {
    store.broken = !done;
    publish(*target);
  } else if (!store.inMemory) {
    zov_fileRemove(file->path);
  }
  if (target != nullptr) {
    endTransaction(target);
  }
  closePageFile(store, file);
  return done;
}

// --- Opening -------------------------------------------------------------

// Takes a file for the store's; an empty one becomes a database if `create` says so.
// What is there is looked at down to the page that was written last, the root.
bool enterFile(Store &store, PageFile *file, bool create) {
  View &view = store.newest;
  view.store = &store;
  view.file = file;
  view.end = kFirstPage;
  if (!readMetas(store, *file, view)) {
    const View empty = view;
    return create && lastStatus() == Status::kMissing && rebuild(store, empty, {});
  }
  file->kept = file->end = view.end;
  Page root;
  const Kind kind = view.depth == 1 ? Kind::kLeaf : Kind::kInner;
  return view.depth == 0 || fetchPage(view, view.root, kind, view.depth - 1, root);
}

// Removes what a killed process left, and makes the name of the file last: the process
// may have renamed it.
bool tidy(Store &store) {
  char leftover[sizeof store.newest.file->path];
  const char *path = store.newest.file->path;
  nameReplacement(leftover, path);
  zov_fileRemove(leftover);
  return syncDirectory(path);
}

bool openData(Store &store, const Options &options) {
  const bool create = options.create && !options.readOnly;
  PageFile *file = nullptr;
  if (isReplacement(options.path)) {
    return fail(Status::kRefused, "\"%s\": names that end in .new are for compaction",
                options.path);
  }
  const int32_t flags = options.readOnly ? O_RDONLY : O_RDWR | (create ? O_CREAT : 0);
  return openPageFile(store, options.path, flags, &file) &&
         enterFile(store, file, create || store.inMemory) &&
         (store.readOnly || store.inMemory || tidy(store));
}

// Looks what other processes have committed, and whether they have put another file in
// place of the one that is open. stateLock.
bool refresh(Store &store) {
  View view = store.newest;
  PageFile *old = view.file;
  if (!leadsTo(old->path, old->descriptor) &&
      !openPageFile(store, old->path, O_RDONLY, &view.file)) {
    return false;
  }
  const bool read = readMetas(store, *view.file, view);
  if (view.file != old) {
    closePageFile(store, read ? old : view.file);
  }
  if (read) {
    store.newest = view;
  }
  return read;
}

}  // namespace

Problem &latestProblem() {
  static thread_local Problem latest;
  return latest;
}

const char *problem() {
  return latestProblem().text;
}

Status lastStatus() {
  return latestProblem().status;
}

bool fail(Status status, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  setProblem(status, format, arguments);
  va_end(arguments);
  return false;
}

bool fail(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  setProblem(Status::kFailed, format, arguments);
  va_end(arguments);
  return false;
}

bool openStore(const Options &options, Store **out) {
  *out = nullptr;
  Store *store = newStore(options);
  if (store == nullptr) {
    return false;
  }
  if (!openData(*store, options)) {
    closeStore(store);
    return false;
  }
  *out = store;
  return true;
}

void closeStore(Store *store) {
  if (store->newest.file != nullptr) {
    closePageFile(*store, store->newest.file);
  }
  closeCache(store->cache);
  pthread_cond_destroy(&store->groupEnded);
  pthread_mutex_destroy(&store->stateLock);
  zov_syncDelete(store->writeLock);
  zov_freeTagMemory(store->tag, 1);
}

bool isStoreFile(const Store &store, const char *path) {
  char replacement[sizeof store.newest.file->path];
  if (store.inMemory) {
    return false;
  }
  pthread_mutex_lock(&store.stateLock);
  const PageFile &file = *store.newest.file;
  nameReplacement(replacement, file.path);
  const bool own = leadsTo(path, file.descriptor) || isSameFile(path, file.path) ||  // from now on
                   isSameFile(path, replacement);
  pthread_mutex_unlock(&store.stateLock);
  return own;
}

bool openView(Store &store, View &view) {
  view = {};
  pthread_mutex_lock(&store.stateLock);
  const bool fresh = !store.readOnly || store.inMemory || refresh(store);
  if (fresh) {
    view = store.newest;
    ++view.file->users;
  }
  pthread_mutex_unlock(&store.stateLock);
  return fresh;
}

bool goOn(const Progress &progress, uint64_t records) {
  constexpr uint64_t kEvery = 256;
  return progress.step == nullptr || records % kEvery != 0 || progress.step(progress.context) ||
         fail(Status::kRefused, "interrupted");
}

void closeView(View &view) {
  if (view.file != nullptr) {
    closePageFile(*view.store, view.file);
  }
  view = {};
}

void readFigures(const View &view, Figure (&figures)[kFigures]) {
  const Cache &cache = view.store->cache;
  const Figure now[] = {{"records", view.records},
                        {"commits", view.number},
                        {"depth", view.depth},
                        {"pages", view.end},
                        {"pages in use", view.live},
                        {"pages read", cache.reads},
                        {"pages written", cache.writes},
                        {"syncs", view.store->syncs},
                        {"cache pages", cache.sets * kWays},
                        {"cache pages used", cache.count},
                        {"cache hits", cache.hits}};
  std::copy(now, now + kFigures, figures);
}

bool compactStore(Store &store, Progress progress) {
  Transaction *lock = nullptr;
  if (!beginTransaction(store, Mode::kExclusive, &lock)) {
    return false;
  }
  const bool done = rebuild(store, viewOf(*lock), progress);
  rollback(lock);
  return done;
}

}  // namespace minidb
