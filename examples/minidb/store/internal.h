// SPDX-License-Identifier: Apache-2.0
//
// What the sources of the store share: files of pages and their cache, the store, its
// transactions and the tree.
//
// Locks, in the order in which they are taken: a store's writeLock, its stateLock, the
// lock of its cache. The writeLock may be taken again by who has it.
#ifndef MINIDB_STORE_INTERNAL_H
#define MINIDB_STORE_INTERNAL_H

#include <limits.h>

#include <atomic>

#include "store/store.h"

// For what takes or leaves a lock only in one mode.
#if defined(__clang__)
#define MINIDB_LOCKS_SOMETIMES __attribute__((no_thread_safety_analysis))
#else
#define MINIDB_LOCKS_SOMETIMES
#endif

namespace minidb {

// What came of a call; room for a sentence.
struct Problem {
  Status status;
  char text[256];
};

// The latest one of this thread.
Problem &latestProblem();

// For `return miss()`: there is no such record.
inline bool miss() {
  latestProblem().status = Status::kMissing;
  return false;
}

constexpr uint64_t kFirstPage = 2;  // behind the metas

// --- Files of pages ------------------------------------------------------

struct PageFile {
  ZOV_FILE handle;
  uint64_t descriptor;           // carries the lock of a file on disk and keeps its inode
  uint64_t id;                   // of its pages in the cache
  uint64_t kept;                 // pages that the latest commit counts; writeLock
  uint64_t end;                  // first page behind them and all claims; writeLock
  std::atomic<uint32_t> claims;  // transactions that have places behind `kept`
  std::atomic<uint32_t> users;   // the store, views and transactions
  bool committed;                // here, since it was opened; writeLock
  char path[PATH_MAX + 8];       // with room for an ending
};

bool readAll(ZOV_FILE file, int64_t offset, void *bytes, uint32_t length);
bool writeAll(ZOV_FILE file, int64_t offset, const void *bytes, uint32_t length);

// A file in memory without a name; null when memory is missing.
ZOV_FILE openMemory();
void closeFile(ZOV_FILE file);  // or null

// Opens the file of a path; on disk it is locked unless it is read-only, and a new one
// has mode 0600. kMissing when there is none.
bool openPageFile(Store &store, const char *path, int32_t flags, PageFile **file);
void closePageFile(Store &store, PageFile *file);  // with its last user

// Reads the newer meta that is right. kMissing for a file without a byte.
bool readMetas(Store &store, PageFile &file, View &view);
bool writeMeta(Store &store, const View &view);
bool syncFile(Store &store, const PageFile &file);

// --- The page cache ------------------------------------------------------

// A page of some file that was read or written.
struct Frame {
  uint64_t file;
  uint64_t number;
  uint64_t used;  // by the cache's clock
  Page page;
};

constexpr uint32_t kWays = 8;  // frames of a set

// Frames from one pool, in sets of a fixed size: a page has a place in one of them. Pages
// are copied in and out under the lock, but read and written without it: a committed page
// does not change, and any other is its transaction's alone.
struct Cache {
  ZOV_SYNC lock;  // guards the frames
  ZOV_POOL pool;
  Frame **frames;  // null where none was needed yet
  uint32_t sets;
  uint64_t clock;
  std::atomic<uint64_t> count, hits, reads, writes;
};

bool openCache(Cache &cache, ZOV_TAG tag, uint64_t bytes);
void closeCache(Cache &cache);  // the memory goes with the tag

// Reads a page and checks it; with `cached`, from the cache if it is there.
bool readPage(Cache &cache, const PageFile &file, uint64_t number, Page &page, bool cached);

// Seals a page and writes it to its place.
bool writePage(Cache &cache, const PageFile &file, Page &page);

// --- The store -----------------------------------------------------------

struct Store {
  ZOV_TAG tag;
  bool inMemory;
  uint32_t dirtyLimit;  // pages of all transactions in memory
  bool readOnly;
  std::atomic<bool> broken;
  ZOV_SYNC writeLock;                 // held by who commits, compacts or has the store alone
  mutable pthread_mutex_t stateLock;  // guards these:
  View newest;                        // what is committed; a user of its file
  Transaction *waiting;               // to be committed, the last one first
  bool leading;                       // somebody commits those that waited
  pthread_cond_t groupEnded;
  std::atomic<uint32_t> dirtyPages;
  std::atomic<uint64_t> syncs;
  std::atomic<uint64_t> files;
  Cache cache;
};

// --- Transactions --------------------------------------------------------

// 1. Its own pages are those from base.end on that `view` reaches; only they change.
// 2. They are numbered as if it were the next to commit: from `first` on. When it is,
//    these numbers are their places in the data file. Else its changes are made again in
//    a transaction that is.
// 3. The path holds the pages of the last change. Of the others the first `inMemory`
//    ones are in a file in memory; when there is no more room in memory, the transaction
//    claims places behind all commits, and writes the pages there.
struct Transaction {
  Store *store;
  Mode mode;
  bool failed;
  bool claims;  // has claimed places
  bool placed;  // nobody else takes the places from `first` on
  View base;
  View view;
  ZOV_FILE pages;
  uint64_t first;
  uint64_t inMemory;
  uint64_t next;  // number
  uint64_t claimed;
  uint8_t *log;  // the keys changed, each behind its length
  uint32_t logBytes;
  bool logEnded;  // some are missing
  bool decided;   // by whoever committed it with others; stateLock
  Problem result;
  Transaction *other;  // that waits
  Path path;
};

// Begins one on a view, whose file it becomes a user of. An exclusive one: writeLock.
bool beginOn(Store &store, const View &view, Mode mode, Transaction **transaction);

// Writes and syncs its pages, then the meta, and makes its view the newest. writeLock.
bool writeTransaction(Transaction &transaction);
void publish(Transaction &transaction);

// Ends a transaction but for the lock of an exclusive one.
void endTransaction(Transaction *transaction);

// Number for a new page.
uint64_t takeNumber(Transaction &transaction);

// Puts a page of its own where it belongs; reads it from there.
bool storePage(Transaction &transaction, Page &page);
bool readOwn(const Transaction &transaction, uint64_t number, uint32_t level, Page &page);

// Notes that a key is about to be changed.
bool logKey(Transaction &transaction, Text key);

// Puts the record that a cursor stands on.
bool copyRecord(Transaction &transaction, Cursor &cursor);

// --- The tree ------------------------------------------------------------

// Reads a page of a view that has to be of a kind and level; not from the cache with
// `afresh`.
bool fetchPage(const View &view, uint64_t number, Kind kind, uint32_t level, Page &page,
               bool afresh = false);

// Reads a page into a path, unless it is there. What it takes the place of is stored.
bool enterPage(const View &view, Path &path, uint32_t level, uint64_t number);

// Goes to the leaf that a key belongs to, and the first cell that is not below it.
bool descend(const View &view, Text key, Path &path);

}  // namespace minidb

#endif
