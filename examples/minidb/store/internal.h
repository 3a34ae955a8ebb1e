// SPDX-License-Identifier: Apache-2.0
//
// What the sources of the store share: files of pages, the store and its transactions.
//
// Locks, in the order in which they are taken: a store's writeLock, its stateLock, a
// shard's lock of the cache. Nothing is taken beside its queueLock.
#ifndef MINIDB_STORE_INTERNAL_H
#define MINIDB_STORE_INTERNAL_H

#include "store/cache.h"

// For what takes or leaves a lock only in one mode.
#if defined(__clang__)
#define MINIDB_LOCKS_SOMETIMES __attribute__((no_thread_safety_analysis))
#else
#define MINIDB_LOCKS_SOMETIMES
#endif

namespace minidb {

constexpr uint32_t kProblemBytes = 256;

// --- Files of pages ------------------------------------------------------

// The data file, or one in memory for a transaction's pages.
struct PageFile {
  ZOV_FILE handle;
  uint64_t descriptor;  // carries the lock of a file on disk and keeps its inode
  uint64_t device;
  uint64_t inode;
  char *path;
  uint64_t end;                 // first page that nobody took; stateLock
  std::atomic<uint32_t> users;  // the store and the views
};

bool readAll(ZOV_FILE file, int64_t offset, void *bytes, uint32_t length);
bool writeAll(ZOV_FILE file, int64_t offset, const void *bytes, uint32_t length);

// A file in memory without a name; null when memory is missing.
ZOV_FILE openMemory();
void closeFile(ZOV_FILE file);  // or null

// Opens the file of a path; on disk it is locked unless it is read-only, and a new one
// has mode 0600. kMissing when there is none.
Status openPageFile(Store &store, const char *path, int32_t flags, PageFile **file);
void closePageFile(Store &store, PageFile *file);  // with its last user

// Reads the newer meta that is right. kMissing for a file without a byte.
Status readMetas(Store &store, PageFile &file, View &view);
bool writeMeta(Store &store, const View &view);
bool syncFile(Store &store, const PageFile &file);

// Whether a path leads to a file.
bool leadsTo(const char *path, const PageFile &file);

// The name of the file that replaces the one of a path, in memory of the store.
char *replacementPath(Store &store, const char *path);

// --- The store -----------------------------------------------------------

inline bool onDisk(uint32_t typeFlags) {
  return (typeFlags & ZOV_FILE_MEMORY) == 0;
}

constexpr uint64_t kFirstPage = 2;  // behind the metas

struct Store {
  ZOV_TAG tag;
  uint32_t typeFlags;
  uint32_t scratchLimit;  // pages of all transactions together
  bool readOnly;
  std::atomic<bool> broken;
  ZOV_SYNC writeLock;  // held by who commits, compacts or has the store alone
  ZOV_SYNC stateLock;  // guards what follows, and the ends of page files
  View newest;         // what is committed; a user of its file
  std::atomic<uint32_t> scratchPages;
  std::atomic<uint64_t> syncs;
  pthread_mutex_t queueLock;  // guards these, and `done` of transactions
  pthread_cond_t groupEnded;
  Transaction *waiting;  // to be committed, the earliest first
  bool leading;          // somebody commits
  Cache cache;
};

// Replaces the file of the newest view by a new one with the records of a view.
// writeLock.
Status rebuild(Store &store, const View &source, Progress progress);

// --- Transactions --------------------------------------------------------

// 1. Own pages are those of the scratch file and those from base.end on: no other
//    page that `view` reaches is as new. Only they are changed.
// 2. Pages get their place in the data file when the transaction is committed, or at
//    once when the scratch pages of all transactions have run out.
struct Transaction {
  Store *store;
  Mode mode;
  bool failed;
  bool spilled;  // has taken places for pages that may still change
  View base;
  View view;
  PageFile scratch;
  uint32_t scratchPages;
  uint64_t firstPlace;  // of those taken last in one piece
  uint64_t places;
  ZOV_FILE log;  // in memory: the keys changed, each behind its length
  int64_t logBytes;
  bool logTooLong;    // some are missing
  Transaction *next;  // that waits
  bool done;          // while it waited, by another thread
  bool decided;       // the result is known
  Status result;
  char reason[kProblemBytes];
};

inline bool isOwn(const Transaction &transaction, uint64_t number) {
  return (number & kScratchBit) != 0 || number >= transaction.base.end;
}

// Begins one on a view, whose file it becomes a user of.
Status beginOn(Store &store, const View &view, Mode mode, Transaction **transaction);

// Gives its pages their places, writes and syncs them, then the meta. writeLock.
Status writeTransaction(Transaction &transaction);

// Makes a transaction's view the newest. writeLock.
void publish(Transaction &transaction);

// Ends a transaction but for the lock of an exclusive one.
void endTransaction(Transaction *transaction);

// Puts the record that a cursor stands on.
Status copyRecord(Transaction &transaction, Cursor &cursor);

// Number for a new page; place in the data file; pinned new page.
uint64_t takeNumber(Transaction &transaction);
uint64_t takePlace(Transaction &transaction);
Frame *newPage(Transaction &transaction, Kind kind, uint32_t level, uint64_t number);

// Notes that a key is about to be changed.
bool logKey(Transaction &transaction, Text key);

// --- The tree ------------------------------------------------------------

// Pins a page of the tree, level 0 being that of leaves; null as pinPage().
Frame *pinNode(const View &view, uint64_t number, uint32_t level);
Frame *pinChain(const View &view, uint64_t number);

// Pins the leaf that a key belongs to and tells the way. The tree is not empty.
Frame *descend(const View &view, Text key, Path &path, bool ranked);

}  // namespace minidb

#endif
