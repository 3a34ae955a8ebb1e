// SPDX-License-Identifier: Apache-2.0
//
// Transactions from begin to end. One that ends while others wait for it is committed
// by whoever has the write lock, together with all that wait: the first one's tree is
// taken as it is when nobody committed since it began; the keys that the others
// changed are changed in it again. Then its pages go to the end of the data file,
// children before parents:
//
//   pages -> sync -> meta -> sync -> newest view
#include <fcntl.h>

#include "store/internal.h"

namespace minidb {

namespace {

constexpr int64_t kLogBytes = 1 << 20;
constexpr uint64_t kRunPages = 64;
constexpr bool kSwaps = std::endian::native == std::endian::big;

// --- Keys changed --------------------------------------------------------

// What the typed buffer of a log writes to, and is read from.
int32_t writeLog(void *context, const void *data, uint32_t length) {
  KeyLog &log = *static_cast<KeyLog *>(context);
  if (log.file == nullptr) {
    log.file = openMemory();
  }
  if (log.file == nullptr || !writeAll(log.file, log.length, data, length)) {
    return ZOV_BUFF_NOMEMORY;
  }
  log.length += length;
  return 0;
}

struct LogReader {
  const KeyLog *log;
  int64_t offset;
};

int32_t readLog(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  LogReader &reader = *static_cast<LogReader *>(context);
  const int64_t left = reader.log->length - reader.offset;
  *delivered = left < capacity ? static_cast<uint32_t>(left) : capacity;
  if (*delivered == 0 || !readAll(reader.log->file, reader.offset, buffer, *delivered)) {
    return ZOV_BUFF_NOMEMORY;
  }
  reader.offset += *delivered;
  return 0;
}

// Calls visit(key) for every key in the log until it gives something else than kOkay.
template <typename Visit>
Status walkKeys(const KeyLog &log, Visit visit) {
  LogReader reader = {&log, 0};
  ZOV_INPUTBUFF buffer = nullptr;
  int64_t walked = 0;
  Status status = Status::kOkay;
  int32_t result = zov_inputBuffCreate(readLog, nullptr, &reader, kSwaps, &buffer);
  while (result == 0 && status == Status::kOkay && walked < log.length) {
    char key[kMaxKeyBytes];
    int16_t length = 0;
    result = zov_inputBuffGetInt16(buffer, &length);
    result =
        result == 0 ? zov_inputBuffGetBytes(buffer, key, static_cast<uint64_t>(length)) : result;
    status = result == 0 ? visit(Text{key, static_cast<uint32_t>(length)}) : status;
    walked += 2 + length;
  }
  zov_inputBuffDestroy(buffer);
  return result == 0 ? status : failed(Status::kFailed, "the keys of a transaction cannot be read");
}

// --- Changing again what was changed elsewhere ---------------------------

// Whether two views show the same record of a key, or both none.
Status compareRecords(const View &first, const View &second, Text key, bool &equal) {
  Cursor cursors[2];
  const Status found[2] = {seekKey(cursors[0], first, key), seekKey(cursors[1], second, key)};
  equal = found[0] == found[1];
  if (found[0] == Status::kFailed || found[1] == Status::kFailed) {
    return Status::kFailed;
  }
  equal =
      equal && (found[0] == Status::kMissing || valueLength(cursors[0]) == valueLength(cursors[1]));
  Text pieces[2] = {{"", 1}, {"", 1}};
  while (equal && found[0] == Status::kOkay && pieces[0].length > 0) {
    if (readValue(cursors[0], pieces[0]) != Status::kOkay ||
        readValue(cursors[1], pieces[1]) != Status::kOkay) {
      return Status::kFailed;
    }
    equal = compareTexts(pieces[0], pieces[1]) == 0;
  }
  return Status::kOkay;
}

Status findConflict(const Transaction &from, const Transaction &target) {
  return walkKeys(from.log, [&](Text key) {
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
  return walkKeys(from.log, [&](Text key) {
    Cursor cursor;
    const Status found = seekKey(cursor, from.view, key);
    if (found == Status::kOkay) {
      return copyRecord(target, cursor);
    }
    const Status removed = found == Status::kMissing ? removeRecord(target, key) : found;
    return removed == Status::kMissing ? Status::kOkay : removed;
  });
}

Status merge(Transaction &from, Transaction &target) {
  if (from.log.tooLong || zov_outputBuffFlush(from.log.buffer) != 0) {
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

// Writes a pinned page of the transaction's own to its place; `number` becomes that.
bool placePage(Transaction &transaction, Frame *frame, uint64_t &number) {
  Cache &cache = transaction.store->cache;
  if ((number & kScratchBit) == 0) {
    return !frame->dirty.load(std::memory_order_relaxed) || writePage(cache, *frame);
  }
  number = takePlace(transaction);
  Frame *placed = pinPage(cache, *transaction.view.file, number, &transaction.scratch);
  if (placed == nullptr) {
    return false;
  }
  memcpy(placed->bytes, frame->bytes, kPageBytes);
  put(placed->bytes + 8, number);
  const bool written = writePage(cache, *placed);
  unpin(placed);
  return written;
}

// Each page of a chain has to know the place of the next one. Those with a place stand
// behind those without, and are written.
bool placeChain(Transaction &transaction, uint64_t &first) {
  uint64_t number = first;
  first = (number & kScratchBit) != 0 ? takePlace(transaction) : number;
  uint64_t place = first;
  while ((number & kScratchBit) != 0) {
    Frame *frame = pinChain(transaction.view, number);
    if (frame == nullptr) {
      return false;
    }
    number = nextOf(frame->bytes);
    const uint64_t next = (number & kScratchBit) != 0 ? takePlace(transaction) : number;
    put(frame->bytes + kHeaderBytes, next);
    Cache &cache = transaction.store->cache;
    Frame *placed = pinPage(cache, *transaction.view.file, place, &transaction.scratch);
    bool written = placed != nullptr;
    if (written) {
      memcpy(placed->bytes, frame->bytes, kPageBytes);
      put(placed->bytes + 8, place);
      written = writePage(cache, *placed);
      unpin(placed);
    }
    unpin(frame);
    if (!written) {
      return false;
    }
    place = next;
  }
  return true;
}

// Places what is below a page, then the page. Goes down at most kMaxDepth levels.
bool placeTree(Transaction &transaction, uint64_t &number, uint32_t level) {
  if (!isOwn(transaction, number)) {
    return true;
  }
  Frame *frame = pinNode(transaction.view, number, level);
  bool placed = frame != nullptr;
  for (uint32_t index = 0; placed && index < countOf(frame->bytes); ++index) {
    Bytes cell = cellOf(frame->bytes, index);
    if (level == 0 && !isChained(cell)) {
      continue;
    }
    Bytes link = level == 0 ? valueOf(cell) : cell + 8;
    const uint64_t old = get<uint64_t>(link);
    uint64_t child = old;
    placed = level == 0 ? placeChain(transaction, child) : placeTree(transaction, child, level - 1);
    if (child != old) {
      put(link, child);
      frame->dirty.store(true, std::memory_order_relaxed);
    }
  }
  placed = placed && placePage(transaction, frame, number);
  if (frame != nullptr) {
    unpin(frame);
  }
  return placed;
}

// Gives places at the end of the file back: those that were not used, or all.
void returnPlaces(Transaction &transaction, uint64_t from) {
  Store &store = *transaction.store;
  zov_syncEnterExcl(store.stateLock);
  if (transaction.runEnd == transaction.view.file->end && transaction.runEnd > 0) {
    transaction.view.file->end = from;
  }
  zov_syncExitExcl(store.stateLock);
}

// --- Committing ----------------------------------------------------------

Status refuseBroken() {
  return failed(Status::kRefused,
                "a sync failed: changes are refused until the database is opened again");
}

void setResult(Transaction &transaction, Status status) {
  transaction.result = status;
  zov_strncpyZ(transaction.reason, problem(), sizeof transaction.reason);
  transaction.done = true;
}

// The transaction whose tree all others are put into: one that began with the newest
// view, or a new one.
Transaction *findTarget(Store &store, Transaction *group) {
  Transaction *target = nullptr;
  for (Transaction *each = group; each != nullptr; each = each->next) {
    if (each->base.number == store.newest.number && each->base.file == store.newest.file &&
        (target == nullptr || !target->log.tooLong)) {
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
    if (!each->done || (each->result == Status::kOkay && status != Status::kOkay)) {
      setResult(*each, status);
    }
  }
  if (own) {
    endTransaction(target);
  }
}

void joinWaiting(Store &store, Transaction &transaction) {
  zov_syncEnterExcl(store.stateLock);
  transaction.next = store.waiting;
  store.waiting = &transaction;
  zov_syncExitExcl(store.stateLock);
}

// Those that wait, the earliest first.
Transaction *takeWaiting(Store &store) {
  zov_syncEnterExcl(store.stateLock);
  Transaction *latest = store.waiting;
  store.waiting = nullptr;
  zov_syncExitExcl(store.stateLock);
  Transaction *group = nullptr;
  while (latest != nullptr) {
    Transaction *next = latest->next;
    latest->next = group;
    group = latest;
    latest = next;
  }
  return group;
}

bool openTransaction(Transaction &transaction) {
  transaction.scratch.path = transaction.base.file->path;
  transaction.scratch.handle = openMemory();
  if (transaction.scratch.handle == nullptr) {
    return false;
  }
  return transaction.mode == Mode::kExclusive ||
         zov_outputBuffCreate(writeLog, &transaction.log, kSwaps, &transaction.log.buffer) == 0;
}

}  // namespace

Status beginOn(Store &store, const View &view, Mode mode, Transaction **out) {
  auto *transaction = static_cast<Transaction *>(
      zov_getMem(sizeof(Transaction), store.tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  *out = transaction;
  if (transaction == nullptr) {
    return failed(Status::kFailed, "there is not enough memory for a transaction");
  }
  transaction->store = &store;
  transaction->mode = mode;
  transaction->base = transaction->view = view;
  transaction->log.tooLong = mode == Mode::kExclusive;
  view.file->users.fetch_add(1);
  transaction->view.scratch = &transaction->scratch;
  if (!openTransaction(*transaction)) {
    endTransaction(transaction);
    *out = nullptr;
    return failed(Status::kFailed, "there is not enough memory for a transaction");
  }
  return Status::kOkay;
}

// Behind its pages, so that nothing of it is written to places that are given back.
void endTransaction(Transaction *transaction) {
  Store &store = *transaction->store;
  if (transaction->spilled || transaction->scratchPages > store.cache.shardFrames) {
    forgetFile(store.cache, transaction->scratch);
  } else {
    for (uint64_t page = 0; page < transaction->scratchPages; ++page) {
      forgetPage(store.cache, transaction->scratch, kScratchBit | page);
    }
  }
  store.scratchPages.fetch_sub(transaction->scratchPages);
  returnPlaces(*transaction, transaction->result == Status::kOkay && transaction->done
                                 ? transaction->runNext
                                 : transaction->spillStart);
  if (transaction->scratch.handle != nullptr) {
    zov_fileClose(transaction->scratch.handle);
  }
  if (transaction->log.file != nullptr) {
    zov_fileClose(transaction->log.file);
  }
  zov_outputBuffDestroy(transaction->log.buffer);
  closePageFile(store, transaction->base.file);
  zov_freeMem(transaction, store.tag);
}

Status writeTransaction(Transaction &transaction) {
  Store &store = *transaction.store;
  View &view = transaction.view;
  if (view.depth > 0 && !placeTree(transaction, view.root, view.depth - 1)) {
    return Status::kFailed;
  }
  returnPlaces(transaction, transaction.runNext);
  transaction.runEnd = transaction.runNext;
  zov_syncEnterExcl(store.stateLock);
  view.end = view.file->end;
  zov_syncExitExcl(store.stateLock);
  view.number = transaction.base.number + 1;
  // Of a file that nobody knows yet a failure does no harm.
  const bool known = view.file == store.newest.file;
  if (!syncFile(store, view)) {
    store.broken.store(known);
    return Status::kFailed;
  }
  if (!writeMeta(store, view) || !syncFile(store, view)) {
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
  store.newest.changes = 0;
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
  if (transaction.runNext == transaction.runEnd) {
    Store &store = *transaction.store;
    zov_syncEnterExcl(store.stateLock);
    uint64_t &end = transaction.view.file->end;
    if (transaction.runEnd != end) {
      transaction.spillStart = end;
      transaction.runNext = end;
    }
    end += kRunPages;
    transaction.runEnd = end;
    zov_syncExitExcl(store.stateLock);
  }
  return transaction.runNext++;
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
  KeyLog &log = transaction.log;
  log.tooLong = log.tooLong || log.length > kLogBytes;
  return log.tooLong ||
         (zov_outputBuffPutInt16(log.buffer, static_cast<int16_t>(key.length)) == 0 &&
          zov_outputBuffPutBytes(log.buffer, key.bytes, key.length) == 0) ||
         fail("there is not enough memory for a transaction");
}

MINIDB_LOCKS_SOMETIMES Status beginTransaction(Store &store, Mode mode, Transaction **transaction) {
  *transaction = nullptr;
  if (store.readOnly) {
    return failed(Status::kRefused, "the database is open read-only");
  }
  if (mode == Mode::kExclusive) {
    zov_syncEnterExcl(store.writeLock);
  }
  View view;
  Status status = openView(store, view);
  if (status == Status::kOkay) {
    status = store.broken.load() ? refuseBroken() : beginOn(store, view, mode, transaction);
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
  if (transaction->failed || transaction->view.changes == 0) {
    const Status status = transaction->failed ? Status::kFailed : Status::kOkay;
    rollback(transaction);
    return status;
  }
  const bool alone = transaction->mode == Mode::kExclusive;
  if (!alone) {
    joinWaiting(store, *transaction);
  }
  zov_syncEnterExcl(store.writeLock);
  if (!transaction->done) {
    Transaction *group = alone ? transaction : takeWaiting(store);
    commitGroup(store, group);
  }
  zov_syncExitExcl(store.writeLock);
  const Status status = transaction->result;
  if (status != Status::kOkay) {
    fail("%s", transaction->reason);
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
