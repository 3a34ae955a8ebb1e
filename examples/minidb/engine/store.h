// SPDX-License-Identifier: Apache-2.0
//
// The data file of a minidb: records of a key and a value, kept in an
// append-only file through libzov's file handles, with an index in memory. One
// thread at a time uses a store.
#ifndef MINIDB_STORE_H
#define MINIDB_STORE_H

#include "engine/entry_list.h"

namespace minidb {

struct Store;

// A file's path with its type flags: 0 on disk, ZOV_FILE_MEMORY in memory.
struct Place {
  const char *path;
  uint32_t typeFlags;
};

// Opens the data file at a place for this process alone; with `create` one that
// is missing is made. Null when that fails, which is reported. A file that is
// shorter than what was committed to it is refused and left as it is; what
// stands behind the last commit was never finished and counts as not there.
Store *openStore(Place place, bool create);

// Keeps other processes out of a data file on disk until unlockStore(), which the
// same thread calls; null when another one is in, which is reported. openStore()
// does this by itself.
ZOV_FILE lockStore(const char *dataPath);

void unlockStore(ZOV_FILE lock);

// Closes a store; one on disk on the thread that opened it. What was not committed
// is gone.
void closeStore(Store *store);

// Removes a data file that is not open, with the lock file that goes with it.
void removeFiles(Place place);

// The path lives as long as the store.
Place placeOf(const Store &store);

// Appends an entry, or a list of them, each in place of an earlier one of its
// key. They count from now on for this store and are on disk after the next
// commit. After a failure, which is reported, the store is to be put right by
// discardChanges(), or closed.
bool appendEntry(Store &store, const Entry &entry);
bool appendEntries(Store &store, const EntryList &entries);

// Makes everything appended so far safe on disk. After a failure as above.
bool commit(Store &store);

// Goes back to the last commit by reading the file again. False when that fails,
// which is reported; the store is then only to be closed.
bool discardChanges(Store &store);

enum class Lookup { kFound, kDeleted, kMissing, kFailed };

// Finds the record of a key. Its text lives until the next call on the store. A
// failure is reported.
Lookup findEntry(Store &store, Text key, Entry &entry);

// The number of keys that are not deleted.
uint64_t countRecords(const Store &store);

// What a scan does with each entry, which lives until it returns. False ends
// the scan.
using Visitor = bool (*)(const Entry &entry, void *context);

// Visits the latest entry of every key, those that delete included, oldest
// first. False when reading failed, which is reported, or the visitor ended the
// scan.
bool scanEntries(Store &store, Visitor visit, void *context);

// Puts another data file, of the same records, in place of the store's own in
// one step, and reads it. False when that failed, which is reported; the store
// is then only to be closed.
bool replaceFile(Store &store, const char *newPath);

// Rewrites the data file with nothing but the records that count. A process
// that is killed meanwhile leaves the old file or the new one, whole. False when
// that failed, which is reported; discardChanges() tells whether the store can
// still be used.
bool compact(Store &store);

}  // namespace minidb

#endif
