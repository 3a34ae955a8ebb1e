// SPDX-License-Identifier: Apache-2.0
//
// Compaction. The records that count are written to a new data file in the
// directory for temporary files, which may be on another file system than the
// store. From there it is copied beside the store, synced, compared with what
// was written, and renamed over the store: the one step that counts. Whatever a
// killed process leaves of the steps before is never read, and the next
// compaction starts afresh.
#include "report.h"
#include "store.h"

namespace minidb {

namespace {

constexpr uint32_t kReadWrite = 0x2;

// A second store that records are copied to.
struct Copy {
  Store *store;
  uint64_t records;
};

bool copyRecord(const Record &record, void *context) {
  Copy &copy = *static_cast<Copy *>(context);
  showProgress("compact", ++copy.records);
  return putRecord(*copy.store, record);
}

bool writeCopy(Store &store, const char *path) {
  Copy copy = {openStore(path, true), 0};
  if (copy.store == nullptr) {
    return false;
  }
  const bool written = scanRecords(store, copyRecord, &copy) && commit(*copy.store);
  closeStore(copy.store);
  return written;
}

bool syncFile(const char *path) {
  ZOV_FILE file = zov_fileOpen(path, kReadWrite, 0);
  if (file == nullptr) {
    return cannot("open", path);
  }
  const int32_t status = zov_fileSync(file);
  zov_fileClose(file);
  return status == ZOV_OKAY || cannot("sync", path);
}

// Brings the written file beside the store.
bool bringOver(const char *written, const char *beside) {
  zov_fileRemove(beside);
  if (zov_fileCopy(written, beside) != ZOV_OKAY) {
    return cannot("write", beside);
  }
  if (zov_fileCmp(written, beside) != ZOV_OKAY) {
    zov_log_err("minidb: \"%s\" is not what was written to it.\n", beside);
    return false;
  }
  return syncFile(beside);
}

bool compactThrough(Store &store, const char *written, const char *beside) {
  if (!writeCopy(store, written) || !bringOver(written, beside)) {
    zov_fileRemove(beside);
    return false;
  }
  return replaceFile(store, beside);
}

// Removes a data file with the lock file that goes with it.
void removeStore(const char *path, ZOV_TAG tag) {
  zov_fileRemove(path);
  char *lock = zov_makeStrVA(ZOV_HERE, tag, "%s.lock", path);
  if (lock != nullptr) {
    zov_fileRemove(lock);
  }
}

}  // namespace

bool compact(Store &store) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  uint32_t counter = 0;
  char *written = zov_fileCreateTmpName(&counter, "minidb", "data", tag);
  char *beside = zov_makeStrVA(ZOV_HERE, tag, "%s.new", pathOf(store));
  bool compacted = false;
  if (written != nullptr && beside != nullptr) {
    compacted = commit(store) && compactThrough(store, written, beside);
    removeStore(written, tag);
  }
  zov_freeTagMemory(tag, 1);
  return compacted;
}

}  // namespace minidb
