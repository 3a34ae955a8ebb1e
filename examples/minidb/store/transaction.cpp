// SPDX-License-Identifier: Apache-2.0
//
// Transactions from begin to end. Those that are to be committed wait while others are being
// committed; then one of them commits all. The tree of one is taken as it is when nobody
// committed since it began, and the keys that the others changed are changed in it again.
// Then its pages go to the end of the data file:
//
//   pages -> sync -> meta -> sync -> newest view
#include <assert.h>

#include "store/internal.h"

namespace minidb {

namespace {

constexpr uint32_t kMaxLogBytes = 1 << 20;
constexpr uint64_t kClaim = 256;  // pages

int64_t offsetOf(const Transaction &transaction, uint64_t number) {
  return static_cast<int64_t>(number - transaction.first) * kPageBytes;
}

bool isInMemory(const Transaction &transaction, uint64_t number) {
  return number - transaction.first < transaction.inMemory;
}

// The first place that nobody has. Those of transactions that ended are free again, but
// not what a sync failed for, which may have been kept. writeLock.
uint64_t freePlace(const Store &store, const PageFile &file) {
  return file.claims == 0 && !store.broken ? file.kept : std::max(file.kept, file.end);
}

// Whether the transaction can be the next to commit as it is. writeLock.
bool isNext(Transaction &transaction) {
  const Store &store = *transaction.store;
  const PageFile &file = *transaction.view.file;
  transaction.placed =
      transaction.placed || (!transaction.claims && transaction.first == freePlace(store, file));
  return transaction.placed && transaction.base.number == store.newest.number;
}

// Claims the next places in the data file, which do not take numbers that it has.
void claimPlaces(Transaction &transaction) {
  Store &store = *transaction.store;
  PageFile &file = *transaction.view.file;
  zov_syncEnterExcl(store.writeLock);
  if (!transaction.claims) {
    isNext(transaction);
    transaction.claims = true;
    file.end = freePlace(store, file);
    ++file.claims;
  }
  transaction.next = std::max(file.end, transaction.next);
  transaction.claimed = file.end = transaction.next + kClaim;
  zov_syncExitExcl(store.writeLock);
}

// --- Changing again what was changed elsewhere ---------------------------

// Calls visit(key) for every key in the log until it fails.
template <typename Visit>
bool walkKeys(const Transaction &transaction, Visit visit) {
  bool more = true;
  for (uint32_t at = 0; at < transaction.logBytes && more;) {
    const uint8_t *entry = transaction.log + at;
    const Text key = {reinterpret_cast<const char *>(entry) + 2, get<uint16_t>(entry)};
    more = visit(key);
    at += 2 + key.length;
  }
  return more;
}

// Looks for a record. False when that fails.
bool look(Cursor &cursor, const View &view, Text key, bool &found) {
  found = seekKey(cursor, view, key);
  return found || lastStatus() == Status::kMissing;
}

// kConflict unless two views show the same record of a key, or both none.
bool compareRecords(const View &first, const View &second, Text key) {
  Cursor one;
  Cursor other;
  bool found;
  bool alsoFound;
  if (!look(one, first, key, found) || !look(other, second, key, alsoFound)) {
    return false;
  }
  bool equal = found == alsoFound && (!found || valueLength(one) == valueLength(other));
  for (Text piece = {"", found ? 1U : 0U}; equal && piece.length > 0;) {
    Text same = {};
    if (!readValue(one, piece) || !readValue(other, same)) {
      return false;
    }
    equal = compareTexts(piece, same) == 0;
  }
  return equal || fail(Status::kConflict, "\"%.*s\" was changed since the transaction began",
                       static_cast<int>(key.length), key.bytes);
}

bool applyChange(const Transaction &from, Transaction &target, Text key) {
  Cursor cursor;
  bool found;
  if (!look(cursor, from.view, key, found)) {
    return false;
  }
  return found ? copyRecord(target, cursor)
               : removeRecord(target, key) || lastStatus() == Status::kMissing;
}

// A failure on the way makes the target fail.
bool merge(const Transaction &from, Transaction &target) {
  if (from.logEnded) {
    return fail(Status::kConflict, "others wrote while this large transaction was under way");
  }
  if (from.mode == Mode::kSnapshot &&
      !walkKeys(from, [&](Text key) { return compareRecords(from.base, target.view, key); })) {
    return false;
  }
  target.failed = !walkKeys(from, [&](Text key) { return applyChange(from, target, key); });
  return !target.failed;
}

// --- Committing ----------------------------------------------------------

bool refuseBroken() {
  return fail(Status::kRefused,
              "a sync failed: changes are refused until the database is opened again");
}

void decide(Transaction &transaction, bool done) {
  transaction.result = latestProblem();
  transaction.result.status = done ? Status::kOkay : lastStatus();
}

// Writes the pages that are not yet in their places. Some of those in memory may have left
// the tree before they were ever stored.
bool writePages(Transaction &transaction) {
  const PageFile &file = *transaction.view.file;
  for (Step &step : transaction.path.steps) {
    if (step.changed && !storePage(transaction, step.page)) {
      return false;
    }
    step.changed = false;
  }
  const uint64_t end = transaction.first + transaction.inMemory;
  zov_fileSetSize(transaction.pages, offsetOf(transaction, end));
  for (uint64_t number = transaction.first; number < end; ++number) {
    Page page;
    if (!readAll(transaction.pages, offsetOf(transaction, number), page.bytes, kPageBytes)) {
      return fail("the pages of a transaction cannot be read");
    }
    page.stamp(number, transaction.base.number + 1);
    if (!writePage(transaction.store->cache, file, page)) {
      return false;
    }
  }
  return true;
}

// Commits a group. writeLock.
void commitGroup(Store &store, Transaction *group) {
  Transaction *target = group;
  bool done = isNext(*group) || beginOn(store, store.newest, Mode::kExclusive, &target);
  for (Transaction *each = group; each != nullptr; each = each->other) {
    if (each != target) {
      decide(*each, done && merge(*each, *target));
      done = done && !target->failed;
    }
  }
  if (done && target->view.changes > 0) {
    done = store.broken ? refuseBroken() : writeTransaction(*target);
    if (done) {
      publish(*target);
    }
  }
  for (Transaction *each = group; each != nullptr; each = each->other) {
    if (each == target || (!done && each->result.status == Status::kOkay)) {
      decide(*each, done);
    }
  }
  if (target != group) {
    endTransaction(target);
  }
}

// Waits until somebody has committed the transaction, or is the one to commit all that
// wait.
void commitWithOthers(Store &store, Transaction &transaction) {
  pthread_mutex_lock(&store.stateLock);
  transaction.other = store.waiting;
  store.waiting = &transaction;
  while (!transaction.decided && store.leading) {
    pthread_cond_wait(&store.groupEnded, &store.stateLock);
  }
  if (!transaction.decided) {
    Transaction *group = store.waiting;
    store.waiting = nullptr;
    store.leading = true;
    pthread_mutex_unlock(&store.stateLock);
    zov_syncEnterExcl(store.writeLock);
    commitGroup(store, group);
    zov_syncExitExcl(store.writeLock);
    pthread_mutex_lock(&store.stateLock);
    for (Transaction *each = group; each != nullptr; each = each->other) {
      each->decided = true;
    }
    store.leading = false;
    pthread_cond_broadcast(&store.groupEnded);
  }
  pthread_mutex_unlock(&store.stateLock);
}

}  // namespace

bool beginOn(Store &store, const View &view, Mode mode, Transaction **out) {
  assert(view.file != nullptr);
  auto *transaction = static_cast<Transaction *>(
      zov_getMem(sizeof(Transaction), store.tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  ZOV_FILE pages = openMemory();
  if (transaction == nullptr || pages == nullptr) {
    zov_freeMem(transaction, store.tag);
    closeFile(pages);
    return fail("there is not enough memory for a transaction");
  }
  const bool alone = mode == Mode::kExclusive;
  transaction->store = &store;
  transaction->mode = mode;
  transaction->placed = transaction->logEnded = alone;
  transaction->base = transaction->view = view;
  transaction->view.transaction = transaction;
  transaction->pages = pages;
  transaction->first = transaction->next = alone ? freePlace(store, *view.file) : view.end;
  ++view.file->users;
  *out = transaction;
  return true;
}

void endTransaction(Transaction *transaction) {
  Store &store = *transaction->store;
  PageFile *file = transaction->base.file;
  store.dirtyPages -= static_cast<uint32_t>(transaction->inMemory);
  file->claims -= transaction->claims ? 1 : 0;
  closeFile(transaction->pages);
  zov_freeMem(transaction->log, store.tag);
  closePageFile(store, file);
  zov_freeMem(transaction, store.tag);
}

// Of a file that nobody knows yet a failed sync does no harm. The meta from before the
// file was opened is written once more: a system forgets what it could not sync, but goes
// on showing it.
bool writeTransaction(Transaction &transaction) {
  Store &store = *transaction.store;
  View &view = transaction.view;
  const bool known = view.file == store.newest.file;
  if (!writePages(transaction) ||
      (known && !view.file->committed && !writeMeta(store, store.newest))) {
    return false;
  }
  view.file->committed = true;
  ++view.number;
  view.end = transaction.next;
  view.file->end = std::max(view.file->end, view.end);
  if (!syncFile(store, *view.file)) {
    store.broken = known;
    return false;
  }
  if (!writeMeta(store, view) || !syncFile(store, *view.file)) {
    store.broken = known;
    return fail(known ? Status::kUnknown : Status::kFailed,
                "\"%s\" could not be synced: whether the changes were kept shows when it is "
                "opened again",
                view.file->path);
  }
  return true;
}

void publish(Transaction &transaction) {
  Store &store = *transaction.store;
  pthread_mutex_lock(&store.stateLock);
  PageFile *old = store.newest.file;
  store.newest = transaction.view;
  store.newest.transaction = nullptr;
  store.newest.file->kept = store.newest.end;
  ++store.newest.file->users;
  pthread_mutex_unlock(&store.stateLock);
  closePageFile(store, old);
}

uint64_t takeNumber(Transaction &transaction) {
  Store &store = *transaction.store;
  if (!transaction.claims && ++store.dirtyPages <= store.dirtyLimit) {
    ++transaction.inMemory;
    return transaction.next++;
  }
  store.dirtyPages -= transaction.claims ? 0 : 1;
  if (transaction.next >= transaction.claimed) {
    claimPlaces(transaction);
  }
  return transaction.next++;
}

bool storePage(Transaction &transaction, Page &page) {
  const uint64_t number = page.number();
  if (!isInMemory(transaction, number)) {
    return writePage(transaction.store->cache, *transaction.view.file, page);
  }
  return writeAll(transaction.pages, offsetOf(transaction, number), page.bytes, kPageBytes) ||
         fail("there is not enough memory for a transaction");
}

bool readOwn(const Transaction &transaction, uint64_t number, uint32_t level, Page &page) {
  const Step &step = transaction.path.steps[level];
  if (step.number == number) {
    page = step.page;
    return true;
  }
  if (!isInMemory(transaction, number)) {
    return readPage(transaction.store->cache, *transaction.view.file, number, page, true);
  }
  return readAll(transaction.pages, offsetOf(transaction, number), page.bytes, kPageBytes) ||
         fail("the pages of a transaction cannot be read");
}

bool logKey(Transaction &transaction, Text key) {
  const uint32_t at = transaction.logBytes;
  transaction.logEnded = transaction.logEnded || at > kMaxLogBytes;
  if (transaction.logEnded) {
    return true;
  }
  void *log =
      zov_extendMem(transaction.log, at + 2 + key.length, transaction.store->tag, 0, 0, ZOV_HERE);
  if (log == nullptr) {
    return fail("there is not enough memory for a transaction");
  }
  transaction.log = static_cast<uint8_t *>(log);
  transaction.logBytes += 2 + key.length;
  put(transaction.log + at, static_cast<uint16_t>(key.length));
  memcpy(transaction.log + at + 2, key.bytes, key.length);
  return true;
}

MINIDB_LOCKS_SOMETIMES bool beginTransaction(Store &store, Mode mode, Transaction **transaction) {
  *transaction = nullptr;
  if (store.readOnly) {
    return fail(Status::kRefused, "the database is open read-only");
  }
  if (mode == Mode::kExclusive) {
    zov_syncEnterExcl(store.writeLock);
  }
  View view = {};
  const bool begun = store.broken
                         ? refuseBroken()
                         : openView(store, view) && beginOn(store, view, mode, transaction);
  closeView(view);
  if (!begun && mode == Mode::kExclusive) {
    zov_syncExitExcl(store.writeLock);
  }
  return begun;
}

const View &viewOf(const Transaction &transaction) {
  return transaction.view;
}

bool commit(Transaction *transaction) {
  Store &store = *transaction->store;
  bool done = !transaction->failed || fail("the transaction has failed");
  if (done && transaction->view.changes > 0) {
    if (transaction->mode == Mode::kExclusive) {
      commitGroup(store, transaction);
    } else {
      commitWithOthers(store, *transaction);
    }
    latestProblem() = transaction->result;
    done = lastStatus() == Status::kOkay;
  }
  rollback(transaction);
  return done;
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
