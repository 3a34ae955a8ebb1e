// SPDX-License-Identifier: Apache-2.0
//
// Transactions from begin to end. Those that want to be committed wait in a list while
// others are being committed. Then one of them commits all: the first one's tree is taken as it is
// when nobody committed since it began, and the keys that the others changed are changed in it
// again. Then its pages go to the end of the data file, children before parents:
//
//   pages -> sync -> meta -> sync -> newest view
#include <assert.h>

#include "store/internal.h"

namespace minidb {

namespace {

constexpr int64_t kLogBytes = 1 << 20;

// --- Changing again what was changed elsewhere ---------------------------

// Calls visit(key) for every key in the log until it gives something else than kOkay.
template <typename Visit>
Status walkKeys(const Transaction &transaction, Visit visit) {
  uint8_t entry[2 + kMaxKeyBytes];
  Status status = Status::kOkay;
  for (int64_t at = 0; at < transaction.logBytes && status == Status::kOkay;) {
    if (!readAll(transaction.log, at, entry, 2) ||
        !readAll(transaction.log, at + 2, entry + 2, get<uint16_t>(entry))) {
      return failed(Status::kFailed, "the keys of a transaction cannot be read");
    }
    status = visit(Text{reinterpret_cast<char *>(entry + 2), get<uint16_t>(entry)});
    at += 2 + get<uint16_t>(entry);
  }
  return status;
}

// Whether two views show the same record of a key, or both none.
Status compareRecords(const View &first, const View &second, Text key, bool &equal) {
  Cursor one;
  Cursor other;
  const Status found = seekKey(one, first, key);
  const Status alsoFound = seekKey(other, second, key);
  equal =
      found == alsoFound && (found == Status::kMissing || valueLength(one) == valueLength(other));
  Status status = found == Status::kFailed ? found : alsoFound;
  Text piece = {"", 1};
  while (equal && status == Status::kOkay && piece.length > 0) {
    Text same = {};
    status = readValue(one, piece);
    status = status == Status::kOkay ? readValue(other, same) : status;
    equal = compareTexts(piece, same) == 0;
  }
  return status == Status::kFailed ? status : Status::kOkay;
}

Status findConflict(const Transaction &from, const Transaction &target) {
  return walkKeys(from, [&](Text key) {
    bool equal = false;
    const Status status = compareRecords(from.base, target.view, key, equal);
    if (status != Status::kOkay || equal) {
      return status;
    }
    return failed(Status::kConflict, "\"%.*s\" was changed since the transaction began",
                  static_cast<int>(key.length), key.bytes);
  });
}

Status applyChanges(const Transaction &from, Transaction &target) {
  return walkKeys(from, [&](Text key) {
    Cursor cursor;
    const Status found = seekKey(cursor, from.view, key);
    if (found == Status::kOkay) {
      return copyRecord(target, cursor);
    }
    const Status removed = found == Status::kMissing ? removeRecord(target, key) : found;
    return removed == Status::kMissing ? Status::kOkay : removed;
  });
}

Status merge(const Transaction &from, Transaction &target) {
  if (from.logTooLong) {
    return failed(Status::kConflict, "others committed since this large transaction began");
  }
  Status status = from.mode == Mode::kSnapshot ? findConflict(from, target) : Status::kOkay;
  if (status == Status::kOkay) {
    status = applyChanges(from, target);
    target.failed = status != Status::kOkay;
  }
  return status;
}

// --- Writing -------------------------------------------------------------

// Writes a copy of a pinned page to its place.
bool writeCopy(Transaction &transaction, const Frame &frame, uint64_t place) {
  Cache &cache = transaction.store->cache;
  Frame *placed = pinPage(cache, *transaction.view.file, place, &transaction.scratch);
  if (placed == nullptr) {
    return false;
  }
  memcpy(placed->bytes, frame.bytes, kPageBytes);
  put(placed->bytes + 8, place);
  const bool written = writePage(cache, *placed);
  unpin(placed);
  return written;
}

uint64_t placeFor(Transaction &transaction, uint64_t number) {
  return (number & kScratchBit) != 0 ? takePlace(transaction) : number;
}

// Each page of a chain has to know the place of the next one. Those that took a place
// when they were made stand behind the others, and are written.
bool placeChain(Transaction &transaction, uint64_t &first) {
  uint64_t number = first;
  uint64_t place = first = placeFor(transaction, number);
  bool written = true;
  while (written && (number & kScratchBit) != 0) {
    Frame *frame = pinChain(transaction.view, number);
    if (frame == nullptr) {
      return false;
    }
    number = nextOf(frame->bytes);
    const uint64_t next = placeFor(transaction, number);
    put(frame->bytes + kHeaderBytes, next);
    written = writeCopy(transaction, *frame, place);
    unpin(frame);
    place = next;
  }
  return written;
}

// Places what is below a page, then the page. Goes down at most kMaxDepth levels.
bool placeTree(Transaction &transaction, uint64_t &number, uint32_t level) {
  if (!isOwn(transaction, number)) {
    return true;
  }
  Frame *frame = pinNode(transaction.view, number, level);
  if (frame == nullptr) {
    return false;
  }
  bool placed = true;
  for (uint32_t index = 0; placed && index < countOf(frame->bytes); ++index) {
    Bytes cell = cellOf(frame->bytes, index);
    if (level == 0 && !isChained(cell)) {
      continue;
    }
    Bytes link = level == 0 ? valueOf(cell) : cell + 8;
    uint64_t child = get<uint64_t>(link);
    placed = level == 0 ? placeChain(transaction, child) : placeTree(transaction, child, level - 1);
    if (child != get<uint64_t>(link)) {
      put(link, child);
      frame->dirty.store(true, std::memory_order_relaxed);
    }
  }
  const uint64_t place = placed ? placeFor(transaction, number) : number;
  if (place != number) {
    placed = placed && writeCopy(transaction, *frame, place);
  } else if (frame->dirty.load(std::memory_order_relaxed)) {
    placed = placed && writePage(transaction.store->cache, *frame);
  }
  number = place;
  unpin(frame);
  return placed;
}

// --- Committing ----------------------------------------------------------

Status refuseBroken() {
  return failed(Status::kRefused,
                "a sync failed: changes are refused until the database is opened again");
}

void setResult(Transaction &transaction, Status status) {
  transaction.result = status;
  zov_strncpyZ(transaction.reason, problem(), sizeof transaction.reason);
  transaction.decided = true;
}

// The transaction whose tree all others are put into: one that began with the newest
// view, or a new one.
Transaction *findTarget(Store &store, Transaction *group) {
  Transaction *target = nullptr;
  for (Transaction *each = group; each != nullptr; each = each->next) {
    if (each->base.number == store.newest.number && (target == nullptr || each->logTooLong)) {
      target = each;
    }
  }
  if (target == nullptr) {
    beginOn(store, store.newest, Mode::kExclusive, &target);
  }
  return target;
}

Status writeGroup(Store &store, Transaction *target) {
  if (store.broken.load()) {
    return refuseBroken();
  }
  if (target == nullptr || target->failed) {
    return Status::kFailed;
  }
  const Status status = target->view.changes > 0 ? writeTransaction(*target) : Status::kOkay;
  if (status == Status::kOkay) {
    publish(*target);
  }
  return status;
}

// Commits a group. writeLock.
void commitGroup(Store &store, Transaction *group) {
  Transaction *target = findTarget(store, group);
  bool own = target != nullptr;
  for (Transaction *each = group; each != nullptr; each = each->next) {
    own = own && each != target;
    if (target != nullptr && each != target && !target->failed) {
      setResult(*each, merge(*each, *target));
    }
  }
  const Status status = writeGroup(store, target);
  for (Transaction *each = group; each != nullptr; each = each->next) {
    if (!each->decided || (each->result == Status::kOkay && status != Status::kOkay)) {
      setResult(*each, status);
    }
  }
  if (own) {
    endTransaction(target);
  }
}

// Waits until the transaction is committed by somebody, or is the one to commit all
// that wait.
Transaction *joinGroup(Store &store, Transaction &transaction) {
  pthread_mutex_lock(&store.queueLock);
  Transaction **last = &store.waiting;
  while (*last != nullptr) {
    last = &(*last)->next;
  }
  *last = &transaction;
  while (!transaction.done && store.leading) {
    pthread_cond_wait(&store.groupEnded, &store.queueLock);
  }
  Transaction *group = nullptr;
  if (!transaction.done) {
    group = store.waiting;
    store.waiting = nullptr;
    store.leading = true;
  }
  pthread_mutex_unlock(&store.queueLock);
  return group;
}

void dismissGroup(Store &store, Transaction *group) {
  pthread_mutex_lock(&store.queueLock);
  for (; group != nullptr; group = group->next) {
    group->done = true;
  }
  store.leading = false;
  pthread_cond_broadcast(&store.groupEnded);
  pthread_mutex_unlock(&store.queueLock);
}

}  // namespace

Status beginOn(Store &store, const View &view, Mode mode, Transaction **out) {
  assert(view.file != nullptr);
  auto *transaction = static_cast<Transaction *>(
      zov_getMem(sizeof(Transaction), store.tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  ZOV_FILE scratch = openMemory();
  if (transaction == nullptr || scratch == nullptr) {
    zov_freeMem(transaction, store.tag);
    closeFile(scratch);
    return failed(Status::kFailed, "there is not enough memory for a transaction");
  }
  transaction->store = &store;
  transaction->mode = mode;
  transaction->logTooLong = mode == Mode::kExclusive;
  transaction->base = transaction->view = view;
  transaction->view.scratch = &transaction->scratch;
  transaction->scratch.handle = scratch;
  transaction->scratch.path = view.file->path;
  view.file->users.fetch_add(1);
  *out = transaction;
  return Status::kOkay;
}

// Places are given back when nothing of the transaction can be written there any more.
void endTransaction(Transaction *transaction) {
  Store &store = *transaction->store;
  if (transaction->spilled || transaction->scratchPages > store.cache.shardFrames) {
    forgetFile(store.cache, transaction->scratch);
  }
  for (uint64_t page = 0; !transaction->spilled && page < transaction->scratchPages; ++page) {
    forgetPage(store.cache, transaction->scratch, kScratchBit | page);
  }
  store.scratchPages.fetch_sub(transaction->scratchPages);
  zov_syncEnterExcl(store.stateLock);
  PageFile &file = *transaction->base.file;
  const bool mayBeKept = transaction->decided && (transaction->result == Status::kOkay ||
                                                  transaction->result == Status::kUnknown);
  if (!mayBeKept && transaction->firstPlace + transaction->places == file.end) {
    file.end = transaction->firstPlace;
  }
  zov_syncExitExcl(store.stateLock);
  closeFile(transaction->scratch.handle);
  closeFile(transaction->log);
  closePageFile(store, &file);
  zov_freeMem(transaction, store.tag);
}

// Of a file that nobody knows yet a failed sync does no harm.
Status writeTransaction(Transaction &transaction) {
  Store &store = *transaction.store;
  View &view = transaction.view;
  if (view.depth > 0 && !placeTree(transaction, view.root, view.depth - 1)) {
    return Status::kFailed;
  }
  zov_syncEnterExcl(store.stateLock);
  view.end = view.file->end;
  zov_syncExitExcl(store.stateLock);
  ++view.number;
  const bool known = view.file == store.newest.file;
  if (!syncFile(store, *view.file)) {
    store.broken.store(known);
    return Status::kFailed;
  }
  if (!writeMeta(store, view) || !syncFile(store, *view.file)) {
    store.broken.store(known);
    return failed(Status::kUnknown,
                  "\"%s\" could not be synced: whether the changes were kept shows when it is "
                  "opened again",
                  view.file->path);
  }
  return Status::kOkay;
}

void publish(Transaction &transaction) {
  Store &store = *transaction.store;
  zov_syncEnterExcl(store.stateLock);
  PageFile *old = store.newest.file;
  store.newest = transaction.view;
  store.newest.scratch = nullptr;
  store.newest.file->users.fetch_add(1);
  zov_syncExitExcl(store.stateLock);
  closePageFile(store, old);
  setResult(transaction, Status::kOkay);
}

Status copyRecord(Transaction &transaction, Cursor &cursor) {
  Writer writer;
  startValue(writer, transaction);
  Text piece = {"", 1};
  while (piece.length > 0) {
    Status status = readValue(cursor, piece);
    status = status == Status::kOkay ? appendValue(writer, piece) : status;
    if (status != Status::kOkay) {
      return status;
    }
  }
  return putValue(writer, keyOf(cursor));
}

uint64_t takePlace(Transaction &transaction) {
  Store &store = *transaction.store;
  zov_syncEnterExcl(store.stateLock);
  const uint64_t place = transaction.view.file->end++;
  zov_syncExitExcl(store.stateLock);
  if (place != transaction.firstPlace + transaction.places) {
    transaction.firstPlace = place;
    transaction.places = 0;
  }
  ++transaction.places;
  return place;
}

uint64_t takeNumber(Transaction &transaction) {
  Store &store = *transaction.store;
  if (!transaction.spilled && store.scratchPages.fetch_add(1) < store.scratchLimit) {
    return kScratchBit | transaction.scratchPages++;
  }
  if (!transaction.spilled) {
    store.scratchPages.fetch_sub(1);
    transaction.spilled = true;
  }
  return takePlace(transaction);
}

Frame *newPage(Transaction &transaction, Kind kind, uint32_t level, uint64_t number) {
  PageFile &file = (number & kScratchBit) != 0 ? transaction.scratch : *transaction.view.file;
  Frame *frame = pinPage(transaction.store->cache, file, number, &transaction.scratch);
  if (frame != nullptr) {
    initPage(frame->bytes, kind, level, number, transaction.base.number + 1);
    frame->dirty.store(true, std::memory_order_relaxed);
    transaction.view.live += kind == Kind::kChain ? 0 : 1;
  }
  return frame;
}

bool logKey(Transaction &transaction, Text key) {
  transaction.logTooLong = transaction.logTooLong || transaction.logBytes > kLogBytes;
  if (transaction.logTooLong) {
    return true;
  }
  uint8_t entry[2 + kMaxKeyBytes];
  put(entry, static_cast<uint16_t>(key.length));
  memcpy(entry + 2, key.bytes, key.length);
  transaction.log = transaction.log == nullptr ? openMemory() : transaction.log;
  if (transaction.log == nullptr ||
      !writeAll(transaction.log, transaction.logBytes, entry, 2 + key.length)) {
    return fail("there is not enough memory for a transaction");
  }
  transaction.logBytes += 2 + key.length;
  return true;
}

MINIDB_LOCKS_SOMETIMES Status beginTransaction(Store &store, Mode mode, Transaction **transaction) {
  *transaction = nullptr;
  if (store.readOnly) {
    return failed(Status::kRefused, "the database is open read-only");
  }
  if (mode == Mode::kExclusive) {
    zov_syncEnterExcl(store.writeLock);
  }
  View view = {};
  Status status = store.broken.load() ? refuseBroken() : openView(store, view);
  if (status == Status::kOkay) {
    status = beginOn(store, view, mode, transaction);
    closeView(view);
  }
  if (status != Status::kOkay && mode == Mode::kExclusive) {
    zov_syncExitExcl(store.writeLock);
  }
  return status;
}

const View &viewOf(const Transaction &transaction) {
  return transaction.view;
}

Status commit(Transaction *transaction) {
  Store &store = *transaction->store;
  Status status = transaction->failed ? Status::kFailed : Status::kOkay;
  if (status == Status::kOkay && transaction->view.changes > 0) {
    const bool alone = transaction->mode == Mode::kExclusive;
    Transaction *group = alone ? transaction : joinGroup(store, *transaction);
    if (group != nullptr) {
      zov_syncEnterExcl(store.writeLock);
      commitGroup(store, group);
      zov_syncExitExcl(store.writeLock);
    }
    if (group != nullptr && !alone) {
      dismissGroup(store, group);
    }
    status = transaction->result;
    if (status != Status::kOkay) {
      fail("%s", transaction->reason);
    }
  }
  rollback(transaction);
  return status;
}

MINIDB_LOCKS_SOMETIMES void rollback(Transaction *transaction) {
  Store &store = *transaction->store;
  const bool alone = transaction->mode == Mode::kExclusive;
  endTransaction(transaction);
  if (alone) {
    zov_syncExitExcl(store.writeLock);
  }
}

}  // namespace minidb
