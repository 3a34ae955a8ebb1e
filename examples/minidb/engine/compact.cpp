// SPDX-License-Identifier: Apache-2.0
//
// Compaction. The records that count are written to a new data file: for a
// store on disk in the directory for temporary files, which may be on another
// file system than the store. From there it is copied beside the store, checked
// and synced, and moved over the store: the one step that counts. Whatever a
// killed process leaves of the steps before is never read, and the next
// compaction starts afresh.
#include "engine/report.h"
#include "engine/store.h"
#include "engine/transfer.h"

namespace minidb {

namespace {

// A second store that records are copied to.
struct Copy {
  Store *store;
  uint64_t records;
};

bool copyRecord(const Entry &entry, void *context) {
  Copy &copy = *static_cast<Copy *>(context);
  if (entry.kind == Kind::kDelete) {
    return true;
  }
  showProgress("compact", ++copy.records);
  return appendEntry(*copy.store, entry);
}

bool writeCopy(Store &store, Place place) {
  Copy copy = {openStore(place, true), 0};
  if (copy.store == nullptr) {
    return false;
  }
  const bool written = scanEntries(store, copyRecord, &copy) && commit(*copy.store);
  closeStore(copy.store);
  return written;
}

// A path for the new file. Memory has no directory for temporary files.
char *temporaryPath(Place place, ZOV_TAG tag) {
  uint32_t counter = 0;
  return place.typeFlags == 0 ? zov_fileCreateTmpName(&counter, "minidb", "data", tag)
                              : zov_makeStrVA(ZOV_HERE, tag, "%s.tmp", place.path);
}

}  // namespace

bool compact(Store &store) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  const Place place = placeOf(store);
  const Place written = {temporaryPath(place, tag), place.typeFlags};
  const Place beside = {zov_makeStrVA(ZOV_HERE, tag, "%s.new", place.path), place.typeFlags};
  bool compacted = false;
  if (written.path != nullptr && beside.path != nullptr) {
    compacted = commit(store) && writeCopy(store, written) && bringBeside(written, beside) &&
                replaceFile(store, beside.path);
    removeFiles(written);
  }
  zov_freeTagMemory(tag, 1);
  return compacted;
}

}  // namespace minidb
