// SPDX-License-Identifier: Apache-2.0
//
// The storage engine of minidb: records of a key and a value, in the order of the
// keys, in one file that is a copy-on-write B+tree. This header is all of it that
// the rest of minidb uses.
//
// 1. Results. What can fail returns false then. lastStatus() tells what came of it, and
//    problem() has a sentence for people, without a line end; both are of the thread's
//    latest call that failed. The store prints nothing itself; libzov reports failing
//    transfers and allocations.
// 2. Memory. The store allocates from a tag of its own, which nobody arms: no call
//    jumps. Nothing here allocates from a tag of the caller's; who wants a value
//    whole brings the memory. A statement may therefore allocate from a tag with a
//    recovery point between any two calls. After its jump it ends the views and
//    transactions that it began; cursors and writers own nothing and need no end.
//    All pages in memory together take the page cache, 8 MiB for those that changed and
//    are not committed, and a way from the root to a leaf for each transaction.
// 3. Threads. A store is for any number of threads. A view, a transaction, a cursor
//    or a writer is for one thread at a time. Readers wait for no writer.
// 4. Isolation. A view shows what was committed when it was opened, whatever is
//    committed later. A transaction shows that and its own changes. Of two
//    transactions that change one key, the first that commits wins; the other is
//    refused as a whole (snapshot isolation: no lost update and no unrepeatable
//    read, but write skew, as nobody checks what was only read).
// 5. Durability. True of commit() says that the changes are on the disk. Commits
//    that wait for one another share one pair of syncs.
#ifndef MINIDB_STORE_STORE_H
#define MINIDB_STORE_STORE_H

#include "store/page.h"
#include "zov.h"

namespace minidb {

constexpr uint32_t kMaxValueBytes = 0x7fffffff;
constexpr uint64_t kMinCacheBytes = 1 << 20;
constexpr uint32_t kMaxDepth = 16;

enum class Status : uint8_t {
  kOkay,      // of none that failed
  kMissing,   // no such record, or no further one, without a sentence
  kConflict,  // somebody else changed a key of the transaction: nothing was kept
  kRefused,   // what was asked for cannot be: too long, read-only, ... nothing changed
  kFailed,    // memory, disk or a damaged file: nothing was kept
  kUnknown    // a sync failed at the very end: the next open tells whether it was kept
};

// The sentence and the status of this thread's latest failure. fail() sets them for
// `return fail(...)`, without a status kFailed.
const char *problem();
Status lastStatus();
bool fail(Status status, const char *format, ...) ZOV_PRINTF(2, 3);
bool fail(const char *format, ...) ZOV_PRINTF(1, 2);

// --- Files by their identity ---------------------------------------------

// Whether a path leads to the file that is open.
bool leadsTo(const char *path, uint64_t descriptor);

// Whether two paths lead to one file, or would once both are made.
bool isSameFile(const char *path, const char *other);

// Syncs the directory that a file is in.
bool syncDirectory(const char *path);

// --- The store -----------------------------------------------------------

struct Store;

struct Options {
  const char *path;               // of the data file; for one in memory any name
  bool inMemory;                  // the store, which ends with closeStore() then
  bool create;                    // make a missing or empty file a database, of mode 0600
  bool readOnly;                  // never write, and take no lock: others may have it open
  uint64_t cacheBytes = 8 << 20;  // of the page cache, at least kMinCacheBytes
  uint64_t dirtyBytes = 8 << 20;  // for pages of all transactions, in memory
};

// Opens a data file: to write for this process alone, by a lock on the file itself,
// whatever name or link led there; kRefused when another one has it. kMissing, with a
// problem, when there is none and `create` is off. Any other file, one of another
// version or a damaged one is kRefused or kFailed, and left as it is. What an
// interrupted compaction left beside the file is removed, under the lock. The path's
// links are resolved once; a relative path may be opened before the process changes
// its directory.
bool openStore(const Options &options, Store **store);

// Waits for nobody: every view and transaction has been ended.
void closeStore(Store *store);

// True when writing to a path would write to a file of the database, by the identity
// of what the path leads to, not its name; or to the name that compaction uses.
bool isStoreFile(const Store &store, const char *path);

// --- Views ---------------------------------------------------------------

struct Transaction;

// One state of the database. The fields are the store's own.
struct View {
  Store *store;
  struct PageFile *file;
  Transaction *transaction;  // whose pages are those from `end` on, or null
  uint64_t root;             // page number, 0 for an empty tree
  uint64_t end;              // pages of the file when it was committed
  uint64_t number;           // of the commit, counted from 1
  uint64_t records;
  uint64_t live;     // pages that the tree uses
  uint64_t changes;  // counts those of a transaction
  uint32_t depth;    // pages from the root to a leaf
};

// Opens the latest committed state. For a read-only store that is what other
// processes have committed by now. When it fails there is nothing to close.
bool openView(Store &store, View &view);

// A zero-filled or closed view is ignored.
void closeView(View &view);

// --- Reading -------------------------------------------------------------

// Keys from one to another, both included. Null bytes leave an end open. The bytes
// live as long as what walks through the range.
struct Range {
  Text from;
  Text to;
};

// A page on the way from the root to a record, and the cell there.
struct Step {
  uint64_t number;  // of the page, 0 for none
  uint32_t index;
  bool changed;  // a transaction's, since it was last stored
  Page page;
};

// By levels: the leaf is the first.
struct Path {
  bool found;
  bool strict;       // reads each page from the file, and compares counts
  uint64_t entered;  // pages
  Step steps[kMaxDepth];
};

// A place in a view and copies of the pages that lead there: 70 KB, of which it uses as
// much as the tree is deep. It owns nothing. Texts that it gives live until its next call.
// When a transaction changes, cursors over it have to be placed again.
struct Cursor {
  const View *view;
  Range range;
  uint64_t chain;      // next page of the value, 0 when the leaf holds it
  uint32_t remaining;  // bytes of the value still to be given
  Path path;
  Page piece;
};

// Stand on the first record of a range; on the next one; on that of a key. The view
// outlives the cursor. kMissing when there is none.
bool seekFirst(Cursor &cursor, const View &view, Range range);
bool seekNext(Cursor &cursor);
inline bool seekKey(Cursor &cursor, const View &view, Text key) {
  return seekFirst(cursor, view, {key, key});
}

// Of the record that the cursor stands on.
Text keyOf(const Cursor &cursor);
uint32_t valueLength(const Cursor &cursor);

// Gives the value piece by piece, from its beginning after each seek, up to 4 KiB at
// a time; an empty piece behind the last.
bool readValue(Cursor &cursor, Text &piece);

// Counts the records of a range by two descents.
bool countRange(const View &view, Range range, uint64_t &count);

// --- Changing ------------------------------------------------------------

enum class Mode : uint8_t {
  kSnapshot,   // refused when a key that it changes was changed since it began
  kOverwrite,  // never refused: for a statement by itself that changes given keys
  kExclusive   // keeps other writers waiting from begin to end, which one thread does
               // that begins nothing else meanwhile: for a statement by itself that
               // changes much or looks first
};

// Begins a transaction on the latest committed state. kRefused for a read-only or broken
// store.
bool beginTransaction(Store &store, Mode mode, Transaction **transaction);

// What a transaction sees, until it ends.
const View &viewOf(const Transaction &transaction);

// Puts a record in place of one with the same key. Keys have 1 to kMaxKeyBytes bytes.
// kRefused for lengths beyond the limits; kFailed: then the transaction can only be
// rolled back, and refuses everything else.
bool putRecord(Transaction &transaction, Text key, Text value);

// Removes a record. kMissing or, as above, kRefused and kFailed.
bool removeRecord(Transaction &transaction, Text key);

// Both end the transaction, whatever comes of it. A commit may give kConflict; kFailed;
// kUnknown, and from then on the store refuses changes; kRefused when it does so already.
bool commit(Transaction *transaction);
void rollback(Transaction *transaction);

// --- Care ----------------------------------------------------------------

// Asked now and then whether something long is to go on; false ends it with kRefused, and
// nothing has changed. A null step goes on always.
struct Progress {
  bool (*step)(void *context);
  void *context;
};

// Whether to go on after so many records, or kRefused.
bool goOn(const Progress &progress, uint64_t records);

// Writes the records packed to a new file beside the old one and puts it in its place
// in one step, with the old one's owner and permissions. Writers wait; views stay
// what they are. Fails while a hard link gives the file a second name, as that would
// stay with the old file.
bool compactStore(Store &store, Progress progress);

// A figure of the store or of a view; those of pages in a file count its metas.
struct Figure {
  const char *name;
  uint64_t value;
};
constexpr uint32_t kFigures = 11;
void readFigures(const View &view, Figure (&figures)[kFigures]);

// Reads every page of a view from the file, past the cache: checksums, numbers, the
// order of keys, counts, depth, lengths of values, and that just as many pages are in
// use as were counted. The first fault is the problem().
bool checkView(const View &view, Progress progress);

}  // namespace minidb

#endif
