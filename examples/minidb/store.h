// SPDX-License-Identifier: Apache-2.0
//
// The data file of a minidb: records of a key and a value, kept in an
// append-only file through libzov's file handles, with an index in memory.
#ifndef MINIDB_STORE_H
#define MINIDB_STORE_H

#include "buffer.h"

namespace minidb {

// A string of bytes that need not end in a NUL.
struct Text {
  const char *bytes;
  uint32_t length;
};

struct Record {
  Text key;
  Text value;
};

constexpr uint32_t kMaxKeyBytes = 64 * 1024;
constexpr uint32_t kMaxValueBytes = 16 * 1024 * 1024;

struct Store;

// What a scan does with each record, which lives until it returns. False ends
// the scan.
using Visitor = bool (*)(const Record &record, void *context);

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

// Keeps other processes out of a data file until unlockStore(); null when another
// one is in, which is reported. openStore() does this by itself.
ZOV_FILE lockStore(Place place);

void unlockStore(ZOV_FILE lock);

// Closes a store. What was not committed is gone.
void closeStore(Store *store);

// Puts the entry of a record, as the data file holds it, at the end of a
// buffer. The record must keep the limits above. False when memory is missing.
bool encodeRecord(Buffer &buffer, ZOV_TAG tag, const Record &record);

// Appends encoded entries, each in place of an earlier one with its key. They
// count from now on for this store and are on disk after the next commit.
bool appendEntries(Store &store, const Buffer &entries);

// Appends a record, in place of an earlier one with its key; as appendEntries().
bool putRecord(Store &store, const Record &record);

// Makes everything put so far safe on disk.
bool commit(Store &store);

enum class Lookup { kFound, kMissing, kFailed };

// Finds the record of a key. Its text lives until the next call on the store. A
// failure is reported.
Lookup getRecord(Store &store, Text key, Record &record);

uint64_t countRecords(const Store &store);

// Visits every record, oldest first. False when reading failed, which is
// reported, or the visitor ended the scan.
bool scanRecords(Store &store, Visitor visit, void *context);

// Puts another data file, of the same records, in place of the store's own in
// one step, and reads it. False when that failed, which is reported; the store
// is then only to be closed.
bool replaceFile(Store &store, const char *newPath);

// The path lives as long as the store.
Place placeOf(const Store &store);

// Rewrites the data file with nothing but the records that count. A process
// that is killed meanwhile leaves the old file or the new one, whole. False when
// that failed, which is reported; the store is then only to be closed.
bool compact(Store &store);

}  // namespace minidb

#endif
