// SPDX-License-Identifier: Apache-2.0
//
// Changing the tree of a transaction. A change goes down to a leaf, makes the pages on the
// way the transaction's own, with new counts, and changes the leaf. A page that is full is
// parted; one that gets empty leaves the tree.
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

uint64_t nextCommit(const Transaction &transaction) {
  return transaction.base.number + 1;
}

// Makes the pages of the path its own, with so many more records in their counts.
void makePathOwn(Transaction &transaction, int64_t more) {
  Step *steps = transaction.path.steps;
  View &view = transaction.view;
  for (uint32_t level = view.depth; level-- > 0;) {
    Step &step = steps[level];
    if (step.number < transaction.first) {
      step.number = takeNumber(transaction);
      step.page.stamp(step.number, nextCommit(transaction));
      if (level + 1 == view.depth) {
        view.root = step.number;
      } else {
        steps[level + 1].page.setChild(steps[level + 1].index, step.number);
      }
    }
    step.changed = true;
    if (level > 0) {
      const uint64_t records = step.page.records(step.index) + static_cast<uint64_t>(more);
      step.page.setRecords(step.index, records);
    }
  }
}

// The cell that leads to a page.
void makeInnerCell(Cell &cell, Text key, const Page &child) {
  cell.length = kInnerCell + key.length;
  memset(cell.bytes, 0, kInnerCell);
  put(cell.bytes, static_cast<uint16_t>(key.length));
  put(cell.bytes + 8, child.number());
  put(cell.bytes + 16, child.sumRecords());
  memcpy(cell.bytes + kInnerCell, key.bytes, key.length);
}

// Whether the path is behind all cells of a level.
bool isAtEnd(const Transaction &transaction, uint32_t level) {
  const Step *steps = transaction.path.steps;
  bool atEnd = steps[level].index == steps[level].page.count();
  while (++level < transaction.view.depth) {
    atEnd = atEnd && steps[level].index + 1 == steps[level].page.count();
  }
  return atEnd;
}

// Parts a full page of the path: half of the bytes go to a new page to its right, or only
// the new cell where keys are appended. The cell becomes that of the new page.
bool split(Transaction &transaction, uint32_t level, Cell &cell) {
  const bool appends = isAtEnd(transaction, level);
  Page &left = transaction.path.steps[level].page;
  const uint32_t index = transaction.path.steps[level].index;
  const Page old = left;
  Page right;
  left.init(old.kind(), level, old.number(), old.commit());
  right.init(old.kind(), level, takeNumber(transaction), old.commit());
  const uint32_t half = (kPageBytes - old.lowest() + cell.length) / 2;
  uint32_t sum = 0;
  for (uint32_t next = 0; next <= old.count(); ++next) {
    const uint32_t from = next - (next > index ? 1 : 0);
    const uint32_t length = next == index ? cell.length : old.cellBytes(from);
    Page &to = (appends ? next < index : sum < half) ? left : right;
    to.insert(to.count(), next == index ? cell.bytes : old.cell(from), length);
    sum += length;
  }
  ++transaction.view.live;
  makeInnerCell(cell, right.key(0), right);
  return storePage(transaction, right);
}

// Puts a new root above the old one and the page that was parted from it.
bool growRoot(Transaction &transaction, const Cell &cell) {
  View &view = transaction.view;
  Step *steps = transaction.path.steps;
  if (view.depth == kMaxDepth) {
    return fail("the tree is too deep");
  }
  Step &root = steps[view.depth];
  root.number = takeNumber(transaction);
  root.changed = true;
  root.page.init(view.depth == 0 ? Kind::kLeaf : Kind::kInner, view.depth, root.number,
                 nextCommit(transaction));
  if (view.depth > 0) {
    Cell first;
    makeInnerCell(first, {"", 0}, steps[view.depth - 1].page);
    root.page.insert(0, first.bytes, first.length);
  }
  root.page.insert(root.page.count(), cell.bytes, cell.length);
  view.root = root.number;
  ++view.depth;
  ++view.live;
  return true;
}

// Inserts a cell where the path, which is its own, leads to; parts pages up to the root
// as long as they are full.
bool insert(Transaction &transaction, Cell &cell) {
  Step *steps = transaction.path.steps;
  for (uint32_t level = 0; level < transaction.view.depth; ++level) {
    Step &step = steps[level];
    if (step.page.hasRoom(cell.length)) {
      step.page.insert(step.index, cell.bytes, cell.length);
      return true;
    }
    if (!split(transaction, level, cell)) {
      return false;
    }
    if (level + 1 < transaction.view.depth) {
      Step &above = steps[level + 1];
      above.page.setRecords(above.index++, step.page.sumRecords());
    }
  }
  return growRoot(transaction, cell);
}

// Takes a page of the path out of the tree.
void dropStep(Transaction &transaction, uint32_t level) {
  transaction.path.steps[level].number = 0;
  transaction.path.steps[level].changed = false;
  --transaction.view.live;
}

// Takes the pages away that got empty. A root with a single child makes way for it.
bool prune(Transaction &transaction) {
  View &view = transaction.view;
  Step *steps = transaction.path.steps;
  for (uint32_t level = 0; steps[level].page.count() == 0;) {
    dropStep(transaction, level);
    if (++level == view.depth) {
      view.root = 0;
      view.depth = 0;
      return true;
    }
    steps[level].page.remove(steps[level].index);
  }
  while (view.depth > 1 && steps[view.depth - 1].page.count() == 1) {
    view.root = steps[view.depth - 1].page.child(0);
    dropStep(transaction, --view.depth);
    if (!enterPage(view, transaction.path, view.depth - 1, view.root)) {
      return false;
    }
  }
  return true;
}

// Changes the record of a key: a null cell removes it. The value that it had goes out
// of use. Tells of one that was there by the path.
bool change(Transaction &transaction, Text key, Cell *cell) {
  View &view = transaction.view;
  Path &path = transaction.path;
  if (!descend(view, key, path)) {
    return false;
  }
  if (cell == nullptr && !path.found) {
    return true;
  }
  if (!logKey(transaction, key)) {
    return false;
  }
  const int64_t more = cell == nullptr ? -1 : path.found ? 0 : 1;
  makePathOwn(transaction, more);
  ++view.changes;
  view.records += static_cast<uint64_t>(more);
  if (path.found) {
    Step &leaf = path.steps[0];
    view.live -= leaf.page.chainPages(leaf.index);
    leaf.page.remove(leaf.index);
  }
  return cell == nullptr ? prune(transaction) : insert(transaction, *cell);
}

bool checkChange(const Transaction &transaction, Text key) {
  if (transaction.failed) {
    return fail("the transaction has failed and can only be rolled back");
  }
  if (key.length == 0 || key.length > kMaxKeyBytes) {
    return fail(Status::kRefused, "a key has 1 to %u bytes, not %u", kMaxKeyBytes, key.length);
  }
  return true;
}

// Writes a value to pages of its own; `take` gives a piece for each, all but the last full.
template <typename Take>
bool writeChain(Transaction &transaction, uint32_t length, uint64_t number, Take take) {
  while (length > 0) {
    Page page;
    Text piece = {};
    if (!take(piece)) {
      return false;
    }
    length -= piece.length;
    const uint64_t next = length == 0 ? 0 : takeNumber(transaction);
    page.init(Kind::kChain, 0, number, nextCommit(transaction));
    put(page.bytes + 24, piece.length);
    put(page.bytes + kHeaderBytes, next);
    memcpy(page.bytes + kChainStart, piece.bytes, piece.length);
    if (!storePage(transaction, page)) {
      return false;
    }
    number = next;
    ++transaction.view.live;
  }
  return true;
}

// Puts a record whose value comes in pieces.
template <typename Take>
bool putPieces(Transaction &transaction, Text key, uint32_t length, Take take) {
  if (!checkChange(transaction, key)) {
    return false;
  }
  Cell cell;
  uint8_t *value = cell.bytes + kLeafCell + key.length;
  put(cell.bytes, uint32_t{key.length});
  put(cell.bytes + 4, length);
  memcpy(cell.bytes + kLeafCell, key.bytes, key.length);
  if (isChained(key.length, length)) {
    const uint64_t first = takeNumber(transaction);
    put(value, first);
    cell.length = kLeafCell + key.length + 8;
    transaction.failed = !writeChain(transaction, length, first, take);
  } else {
    Text piece = {};
    transaction.failed = !take(piece);
    cell.length = kLeafCell + key.length + piece.length;
    memcpy(value, piece.bytes, piece.length);
  }
  transaction.failed = transaction.failed || !change(transaction, key, &cell);
  return !transaction.failed;
}

}  // namespace

bool putRecord(Transaction &transaction, Text key, Text value) {
  if (value.length > kMaxValueBytes) {
    return fail(Status::kRefused, "a value has at most %u bytes", kMaxValueBytes);
  }
  return putPieces(transaction, key, value.length, [&value](Text &piece) {
    piece = {value.bytes, std::min(value.length, kChainBytes)};
    value = {value.bytes + piece.length, value.length - piece.length};
    return true;
  });
}

bool copyRecord(Transaction &transaction, Cursor &cursor) {
  return putPieces(transaction, keyOf(cursor), valueLength(cursor),
                   [&cursor](Text &piece) { return readValue(cursor, piece); });
}

bool removeRecord(Transaction &transaction, Text key) {
  if (!checkChange(transaction, key)) {
    return false;
  }
  transaction.failed = !change(transaction, key, nullptr);
  return !transaction.failed && (transaction.path.found || miss());
}

}  // namespace minidb
