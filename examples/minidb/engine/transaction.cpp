// SPDX-License-Identifier: Apache-2.0
#include "engine/transaction.h"

#include <atomic>

namespace minidb {

namespace {

constexpr uint32_t kPathBytes = 32;

std::atomic<uint32_t> changesMade{0};

bool copyEntry(const Entry &entry, void *base) {
  return appendEntry(*static_cast<Store *>(base), entry);
}

// A count under way.
struct Count {
  Store *base;
  uint64_t records;
};

bool countEntry(const Entry &entry, void *context) {
  Count &count = *static_cast<Count *>(context);
  Entry before;
  const Lookup found = findEntry(*count.base, entry.key, before);
  count.records -= found == Lookup::kFound;
  count.records += entry.kind == Kind::kPut;
  return found != Lookup::kFailed;
}

// A scan under way.
struct Scan {
  Visitor visit;
  void *context;
  Store *changes;
};

bool visitUnchanged(const Entry &entry, void *context) {
  const Scan &scan = *static_cast<const Scan *>(context);
  if (entry.kind == Kind::kDelete) {
    return true;
  }
  if (scan.changes != nullptr) {
    Entry change;
    const Lookup found = findEntry(*scan.changes, entry.key, change);
    if (found != Lookup::kMissing) {
      return found != Lookup::kFailed;
    }
  }
  return scan.visit(entry, scan.context);
}

bool visitPut(const Entry &entry, void *context) {
  const Scan &scan = *static_cast<const Scan *>(context);
  return entry.kind == Kind::kDelete || scan.visit(entry, scan.context);
}

}  // namespace

Store *openChanges() {
  char path[kPathBytes];
  zov_snprintf(path, sizeof path, "/changes%u", changesMade.fetch_add(1));
  return openStore({path, ZOV_FILE_MEMORY}, true);
}

void discardTransaction(Store *changes) {
  if (changes == nullptr) {
    return;
  }
  char path[kPathBytes];
  zov_strncpyZ(path, placeOf(*changes).path, sizeof path);
  closeStore(changes);
  removeFiles({path, ZOV_FILE_MEMORY});
}

bool commitTransaction(View view) {
  return scanEntries(*view.changes, copyEntry, view.base) && commit(*view.base);
}

Lookup findInView(View view, Text key, Entry &entry) {
  if (view.changes != nullptr) {
    const Lookup found = findEntry(*view.changes, key, entry);
    if (found != Lookup::kMissing) {
      return found;
    }
  }
  return findEntry(*view.base, key, entry);
}

uint64_t countView(View view) {
  Count count = {view.base, countRecords(*view.base)};
  if (view.changes != nullptr && !scanEntries(*view.changes, countEntry, &count)) {
    return UINT64_MAX;
  }
  return count.records;
}

bool scanView(View view, Visitor visit, void *context) {
  Scan scan = {visit, context, view.changes};
  return scanEntries(*view.base, visitUnchanged, &scan) &&
         (view.changes == nullptr || scanEntries(*view.changes, visitPut, &scan));
}

}  // namespace minidb
