// SPDX-License-Identifier: Apache-2.0
//
// Changing the tree of a transaction. A change first makes the pages from the root to
// the leaf the transaction's own, with new counts, then changes the leaf. A page that
// is full is parted; one that gets empty leaves the tree.
#include "store/internal.h"

namespace minidb {

namespace {

static_assert(kInnerCell + kMaxKeyBytes <= kMaxCell);
static_assert(kLeafCell + kMaxKeyBytes + 8 <= kMaxCell);

// A cell to be inserted.
struct Cell {
  uint32_t length;
  uint8_t bytes[kMaxCell];
};

uint32_t levelAt(const Transaction &transaction, uint32_t at) {
  return transaction.view.depth - 1 - at;
}

// Pins a page of the transaction's own to change it.
Frame *pinOwn(Transaction &transaction, const Path &path, uint32_t at) {
  Frame *frame = pinNode(transaction.view, path.number[at], levelAt(transaction, at));
  if (frame != nullptr) {
    frame->dirty.store(true, std::memory_order_relaxed);
  }
  return frame;
}

// Puts a copy of its own in place of a page of the path, if it is not yet one.
Frame *makeOwn(Transaction &transaction, Path &path, uint32_t at) {
  if (isOwn(transaction, path.number[at])) {
    return pinOwn(transaction, path, at);
  }
  const uint32_t level = levelAt(transaction, at);
  Frame *old = pinNode(transaction.view, path.number[at], level);
  if (old == nullptr) {
    return nullptr;
  }
  const uint64_t number = takeNumber(transaction);
  Frame *frame = newPage(transaction, kindOf(old->bytes), level, number);
  if (frame != nullptr) {
    memcpy(frame->bytes + 24, old->bytes + 24, kPageBytes - 24);
    put(frame->bytes + 6, static_cast<uint16_t>(countOf(old->bytes)));
    --transaction.view.live;
    path.number[at] = number;
  }
  unpin(old);
  return frame;
}

// Makes the whole path its own, with so many more records in its counts.
bool makePathOwn(Transaction &transaction, Path &path, int64_t more) {
  Frame *parent = nullptr;
  for (uint32_t at = 0; at < transaction.view.depth; ++at) {
    Frame *frame = makeOwn(transaction, path, at);
    if (parent != nullptr) {
      Bytes cell = cellOf(parent->bytes, path.index[at - 1]);
      put(cell + 8, path.number[at]);
      put(cell + 16, get<uint64_t>(cell + 16) + static_cast<uint64_t>(more));
      unpin(parent);
    } else {
      transaction.view.root = path.number[at];
    }
    if (frame == nullptr) {
      return false;
    }
    parent = frame;
  }
  if (parent != nullptr) {
    unpin(parent);
  }
  return true;
}

void makeInnerCell(Cell &cell, Text key, uint64_t child, uint64_t records) {
  cell.length = kInnerCell + key.length;
  memset(cell.bytes, 0, kInnerCell);
  put(cell.bytes, static_cast<uint16_t>(key.length));
  put(cell.bytes + 8, child);
  put(cell.bytes + 16, records);
  memcpy(cell.bytes + kInnerCell, key.bytes, key.length);
}

// Parts a full page, which is unpinned: half of the bytes go to a new page to its right,
// or only the new cell where keys are appended. The cell becomes that of the new page,
// and `leftRecords` what the old one is left with.
bool split(Transaction &transaction, const Path &path, uint32_t at, Frame *frame, Cell &cell,
           uint64_t &leftRecords) {
  uint8_t old[kPageBytes];
  memcpy(old, frame->bytes, sizeof old);
  const uint64_t number = takeNumber(transaction);
  Frame *right = newPage(transaction, kindOf(old), levelOf(old), number);
  if (right == nullptr) {
    unpin(frame);
    return false;
  }
  const uint32_t index = path.index[at];
  const uint32_t count = countOf(old);
  const bool appends = path.rightmost && index == count;
  const uint32_t half = (kPageBytes - lowestOf(old) + cell.length) / 2;
  initPage(frame->bytes, kindOf(old), levelOf(old), numberOf(old), commitOf(old));
  uint32_t sum = 0;
  for (uint32_t next = 0; next <= count; ++next) {
    const uint32_t from = next - (next > index ? 1 : 0);
    const uint32_t length = next == index ? cell.length : cellBytes(old, from);
    Bytes to = (appends ? next < count : sum < half) ? frame->bytes : right->bytes;
    insertCell(to, countOf(to), next == index ? cell.bytes : cellOf(old, from), length);
    sum += length;
  }
  leftRecords = sumRecords(frame->bytes);
  makeInnerCell(cell, cellKey(right->bytes, 0), number, sumRecords(right->bytes));
  unpin(frame);
  unpin(right);
  return true;
}

// Puts a new root above the old one and the page that was parted from it.
bool growRoot(Transaction &transaction, const Cell &cell, uint64_t leftRecords) {
  View &view = transaction.view;
  if (view.depth == kMaxDepth) {
    return fail("the tree is too deep");
  }
  const uint64_t number = takeNumber(transaction);
  Frame *frame =
      newPage(transaction, view.depth == 0 ? Kind::kLeaf : Kind::kInner, view.depth, number);
  if (frame == nullptr) {
    return false;
  }
  if (view.depth > 0) {
    Cell first;
    makeInnerCell(first, {"", 0}, view.root, leftRecords);
    insertCell(frame->bytes, 0, first.bytes, first.length);
  }
  insertCell(frame->bytes, countOf(frame->bytes), cell.bytes, cell.length);
  view.root = number;
  ++view.depth;
  unpin(frame);
  return true;
}

// Inserts a cell into the leaf of a path that is the transaction's own, parting pages
// up to the root as long as they are full.
bool insert(Transaction &transaction, Path &path, Cell &cell) {
  uint64_t leftRecords = 0;
  for (uint32_t at = transaction.view.depth; at-- > 0;) {
    Frame *frame = pinOwn(transaction, path, at);
    if (frame == nullptr) {
      return false;
    }
    if (levelAt(transaction, at) > 0) {
      put(cellOf(frame->bytes, path.index[at]++) + 16, leftRecords);
    }
    if (hasRoom(frame->bytes, cell.length)) {
      insertCell(frame->bytes, path.index[at], cell.bytes, cell.length);
      unpin(frame);
      return true;
    }
    if (!split(transaction, path, at, frame, cell, leftRecords)) {
      return false;
    }
  }
  return growRoot(transaction, cell, leftRecords);
}

// Takes the cell of a path's leaf away, and the pages that get empty by that. A root
// with a single child makes way for it.
bool removeAt(Transaction &transaction, const Path &path) {
  View &view = transaction.view;
  bool empty = true;
  for (uint32_t at = view.depth; empty && at-- > 0;) {
    Frame *frame = pinOwn(transaction, path, at);
    if (frame == nullptr) {
      return false;
    }
    removeCell(frame->bytes, path.index[at]);
    empty = countOf(frame->bytes) == 0;
    view.live -= empty ? 1 : 0;
    unpin(frame);
  }
  if (empty) {
    view.root = 0;
    view.depth = 0;
  }
  while (view.depth > 1) {
    Frame *frame = pinNode(view, view.root, view.depth - 1);
    if (frame == nullptr) {
      return false;
    }
    const bool single = countOf(frame->bytes) == 1;
    const uint64_t child = childOf(frame->bytes, 0);
    unpin(frame);
    if (!single) {
      break;
    }
    view.root = child;
    --view.depth;
    --view.live;
  }
  return true;
}

// Puts a cell in place of the one at a path's leaf.
bool replaceAt(Transaction &transaction, Path &path, Cell &cell) {
  const uint32_t at = transaction.view.depth - 1;
  Frame *frame = pinOwn(transaction, path, at);
  if (frame == nullptr) {
    return false;
  }
  if (cellBytes(frame->bytes, path.index[at]) == cell.length) {
    memcpy(cellOf(frame->bytes, path.index[at]), cell.bytes, cell.length);
    unpin(frame);
    return true;
  }
  removeCell(frame->bytes, path.index[at]);
  unpin(frame);
  return insert(transaction, path, cell);
}

// Changes the record of a key: a null cell removes it. The value that it had goes out
// of use. Sets `found` when there was one.
bool change(Transaction &transaction, Text key, Cell *cell, bool &found) {
  View &view = transaction.view;
  Path path;
  path.found = false;
  path.rightmost = true;
  Frame *leaf = view.depth == 0 ? nullptr : descend(view, key, path, false);
  if (leaf != nullptr) {
    if (path.found) {
      view.live -= chainPages(cellOf(leaf->bytes, path.index[view.depth - 1]));
    }
    unpin(leaf);
  }
  found = path.found;
  if ((leaf == nullptr && view.depth > 0) || (cell == nullptr && !found)) {
    return leaf != nullptr || view.depth == 0;
  }
  const int64_t more = cell == nullptr ? -1 : found ? 0 : 1;
  if (!logKey(transaction, key) || !makePathOwn(transaction, path, more)) {
    return false;
  }
  ++view.changes;
  view.records += static_cast<uint64_t>(more);
  if (cell == nullptr) {
    return removeAt(transaction, path);
  }
  return found ? replaceAt(transaction, path, *cell) : insert(transaction, path, *cell);
}

Status checkChange(const Transaction &transaction, Text key) {
  if (transaction.failed) {
    return failed(Status::kFailed, "the transaction has failed and can only be rolled back");
  }
  if (key.length == 0 || key.length > kMaxKeyBytes) {
    return failed(Status::kRefused, "a key has 1 to %u bytes, not %u", kMaxKeyBytes, key.length);
  }
  return Status::kOkay;
}

// Writes what has come so far to a page of the value's chain.
bool writePiece(Writer &writer, uint32_t length, bool last) {
  Transaction &transaction = *writer.transaction;
  if (writer.first == 0) {
    writer.first = writer.current = takeNumber(transaction);
  }
  const uint64_t number = writer.current;
  Frame *frame = newPage(transaction, Kind::kChain, 0, number);
  if (frame == nullptr) {
    return false;
  }
  writer.current = last ? 0 : takeNumber(transaction);
  put(frame->bytes + 24, length);
  put(frame->bytes + kHeaderBytes, writer.current);
  memcpy(frame->bytes + kChainStart, writer.piece, length);
  // A page that has its place is not looked for again when the transaction ends.
  const bool written = (number & kScratchBit) != 0 || writePage(transaction.store->cache, *frame);
  unpin(frame);
  return written;
}

uint32_t lengthInPiece(const Writer &writer) {
  const uint32_t rest = writer.length % kChainBytes;
  return rest == 0 && writer.length > 0 ? kChainBytes : rest;
}

}  // namespace

void startValue(Writer &writer, Transaction &transaction) {
  writer.transaction = &transaction;
  writer.first = writer.current = 0;
  writer.length = 0;
}

Status appendValue(Writer &writer, Text piece) {
  if (writer.transaction->failed) {
    return checkChange(*writer.transaction, {});
  }
  if (piece.length > kMaxValueBytes - writer.length) {
    return failed(Status::kRefused, "a value has at most %u bytes", kMaxValueBytes);
  }
  while (piece.length > 0) {
    uint32_t used = lengthInPiece(writer);
    if (used == kChainBytes) {
      if (!writePiece(writer, used, false)) {
        writer.transaction->failed = true;
        return Status::kFailed;
      }
      used = 0;
    }
    const uint32_t room = kChainBytes - used;
    const uint32_t count = piece.length < room ? piece.length : room;
    memcpy(writer.piece + used, piece.bytes, count);
    writer.length += count;
    piece = {piece.bytes + count, piece.length - count};
  }
  return Status::kOkay;
}

Status putValue(Writer &writer, Text key) {
  Transaction &transaction = *writer.transaction;
  const Status status = checkChange(transaction, key);
  if (status != Status::kOkay) {
    return status;
  }
  const bool chained = isChained(key.length, writer.length);
  if (chained && !writePiece(writer, lengthInPiece(writer), true)) {
    transaction.failed = true;
    return Status::kFailed;
  }
  Cell cell = {kLeafCell + key.length + (chained ? 8 : writer.length), {}};
  put(cell.bytes, static_cast<uint16_t>(key.length));
  put(cell.bytes + 4, writer.length);
  memcpy(cell.bytes + kLeafCell, key.bytes, key.length);
  if (chained) {
    put(valueOf(cell.bytes), writer.first);
  } else {
    memcpy(valueOf(cell.bytes), writer.piece, writer.length);
  }
  transaction.view.live += chainPages(cell.bytes);
  bool found = false;
  transaction.failed = !change(transaction, key, &cell, found);
  return transaction.failed ? Status::kFailed : Status::kOkay;
}

Status putRecord(Transaction &transaction, Text key, Text value) {
  Writer writer;
  startValue(writer, transaction);
  const Status status = appendValue(writer, value);
  return status == Status::kOkay ? putValue(writer, key) : status;
}

Status removeRecord(Transaction &transaction, Text key) {
  const Status status = checkChange(transaction, key);
  if (status != Status::kOkay) {
    return status;
  }
  bool found = false;
  transaction.failed = !change(transaction, key, nullptr, found);
  return transaction.failed ? Status::kFailed : found ? Status::kOkay : Status::kMissing;
}

}  // namespace minidb
