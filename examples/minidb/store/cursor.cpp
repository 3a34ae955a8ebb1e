// SPDX-License-Identifier: Apache-2.0
//
// Reading the tree. A page is pinned only while it is looked at; a cursor works on a
// copy of its leaf.
#include "store/internal.h"

namespace minidb {

namespace {

Frame *pinOf(const View &view, uint64_t number, Kind kind, uint32_t level) {
  PageFile *file = (number & kScratchBit) != 0 ? view.scratch : view.file;
  if (file == nullptr || number == 0) {
    fail("the data file is damaged: a page leads nowhere");
    return nullptr;
  }
  Frame *frame = pinPage(view.store->cache, *file, number, nullptr);
  if (frame != nullptr && (kindOf(frame->bytes) != kind || levelOf(frame->bytes) != level)) {
    fail("\"%s\" is damaged: page %llu is not what leads there says", view.file->path,
         static_cast<unsigned long long>(number));
    unpin(frame);
    return nullptr;
  }
  return frame;
}

// What of the way ends at the leaf in the cursor, from which it takes a copy.
void copyLeaf(Cursor &cursor, Frame *frame) {
  memcpy(cursor.leaf, frame->bytes, kPageBytes);
  cursor.changes = cursor.view->changes;
  unpin(frame);
}

// Goes to the first leaf below a page that stands at `at` of the path.
Status firstLeaf(Cursor &cursor, uint32_t at, uint64_t number) {
  const uint32_t depth = cursor.view->depth;
  for (;; ++at) {
    cursor.path.number[at] = number;
    cursor.path.index[at] = 0;
    Frame *frame = pinNode(*cursor.view, number, depth - 1 - at);
    if (frame == nullptr) {
      return Status::kFailed;
    }
    if (at == depth - 1) {
      copyLeaf(cursor, frame);
      return Status::kOkay;
    }
    number = childOf(frame->bytes, 0);
    unpin(frame);
  }
}

Status nextLeaf(Cursor &cursor) {
  for (uint32_t at = cursor.view->depth - 1; at-- > 0;) {
    Frame *frame = pinNode(*cursor.view, cursor.path.number[at], cursor.view->depth - 1 - at);
    if (frame == nullptr) {
      return Status::kFailed;
    }
    const uint32_t index = cursor.path.index[at] + 1;
    const uint64_t child = index < countOf(frame->bytes) ? childOf(frame->bytes, index) : 0;
    unpin(frame);
    if (child != 0) {
      cursor.path.index[at] = index;
      return firstLeaf(cursor, at + 1, child);
    }
  }
  return Status::kMissing;
}

uint32_t &indexOf(Cursor &cursor) {
  return cursor.path.index[cursor.view->depth - 1];
}

ConstBytes cellAt(const Cursor &cursor) {
  return cellOf(cursor.leaf, cursor.path.index[cursor.view->depth - 1]);
}

// Goes to the leaf of a key and the first record there that is not below it.
Status place(Cursor &cursor, Text key) {
  cursor.path.found = false;
  if (cursor.view->depth == 0) {
    return Status::kMissing;
  }
  Frame *frame = descend(*cursor.view, key, cursor.path, false);
  if (frame == nullptr) {
    return Status::kFailed;
  }
  copyLeaf(cursor, frame);
  return Status::kOkay;
}

// Ends a move: goes on to the next leaf behind the last record of this one, and looks
// at the end of the range.
Status arrive(Cursor &cursor) {
  Status status = Status::kOkay;
  if (indexOf(cursor) == countOf(cursor.leaf)) {
    status = nextLeaf(cursor);
  }
  if (status != Status::kOkay) {
    return status;
  }
  if (cursor.range.to.bytes != nullptr && compareTexts(keyOf(cursor), cursor.range.to) > 0) {
    return Status::kMissing;
  }
  cursor.remaining = valueLength(cursor);
  cursor.chain = chainOf(cellAt(cursor));
  return Status::kOkay;
}

// The number of records below a key, those of the key itself included or not.
Status rankOf(const View &view, Text key, bool included, uint64_t &rank) {
  Path path;
  Frame *frame = descend(view, key, path, true);
  if (frame == nullptr) {
    return Status::kFailed;
  }
  unpin(frame);
  rank = path.rank + (included && path.found ? 1 : 0);
  return Status::kOkay;
}

}  // namespace

Frame *pinNode(const View &view, uint64_t number, uint32_t level) {
  return pinOf(view, number, level == 0 ? Kind::kLeaf : Kind::kInner, level);
}

Frame *pinChain(const View &view, uint64_t number) {
  return pinOf(view, number, Kind::kChain, 0);
}

Frame *descend(const View &view, Text key, Path &path, bool ranked) {
  uint64_t number = view.root;
  path.rank = 0;
  path.rightmost = true;
  for (uint32_t at = 0;; ++at) {
    Frame *frame = pinNode(view, number, view.depth - 1 - at);
    if (frame == nullptr) {
      return nullptr;
    }
    ConstBytes page = frame->bytes;
    path.number[at] = number;
    if (at == view.depth - 1) {
      path.index[at] = findCell(page, key, path.found);
      path.rank += path.index[at];
      return frame;
    }
    const uint32_t index = findChild(page, key);
    for (uint32_t left = 0; ranked && left < index; ++left) {
      path.rank += recordsOf(page, left);
    }
    path.index[at] = index;
    path.rightmost = path.rightmost && index == countOf(page) - 1;
    number = childOf(page, index);
    unpin(frame);
  }
}

Status seekFirst(Cursor &cursor, const View &view, Range range) {
  cursor.view = &view;
  cursor.range = range;
  const Status status = place(cursor, range.from);
  return status == Status::kOkay ? arrive(cursor) : status;
}

Status seekKey(Cursor &cursor, const View &view, Text key) {
  cursor.view = &view;
  cursor.range = {key, key};
  const Status status = place(cursor, key);
  if (status != Status::kOkay || !cursor.path.found) {
    return status == Status::kOkay ? Status::kMissing : status;
  }
  return arrive(cursor);
}

Status seekNext(Cursor &cursor) {
  if (cursor.changes == cursor.view->changes) {
    ++indexOf(cursor);
    return arrive(cursor);
  }
  char bytes[kMaxKeyBytes];
  const Text key = {bytes, keyOf(cursor).length};
  memcpy(bytes, keyOf(cursor).bytes, key.length);
  const Status status = place(cursor, key);
  if (status != Status::kOkay) {
    return status;
  }
  indexOf(cursor) += cursor.path.found ? 1 : 0;
  return arrive(cursor);
}

Text keyOf(const Cursor &cursor) {
  ConstBytes cell = cellAt(cursor);
  return {reinterpret_cast<const char *>(cell + kLeafCell), get<uint16_t>(cell)};
}

uint32_t valueLength(const Cursor &cursor) {
  return valueBytes(cellAt(cursor));
}

Status readValue(Cursor &cursor, Text &piece) {
  piece = {"", 0};
  if (cursor.remaining == 0) {
    return Status::kOkay;
  }
  if (cursor.chain == 0) {
    piece = {reinterpret_cast<const char *>(valueOf(cellAt(cursor))), cursor.remaining};
    cursor.remaining = 0;
    return Status::kOkay;
  }
  Frame *frame = pinChain(*cursor.view, cursor.chain);
  if (frame == nullptr) {
    return Status::kFailed;
  }
  memcpy(cursor.piece, frame->bytes, kPageBytes);
  unpin(frame);
  const uint32_t length = cursor.remaining < kChainBytes ? cursor.remaining : kChainBytes;
  cursor.remaining -= length;
  if (lowestOf(cursor.piece) != length || (nextOf(cursor.piece) == 0) != (cursor.remaining == 0)) {
    return failed(Status::kFailed, "\"%s\" is damaged: a value has another length",
                  cursor.view->file->path);
  }
  cursor.chain = nextOf(cursor.piece);
  piece = {reinterpret_cast<const char *>(cursor.piece + kChainStart), length};
  return Status::kOkay;
}

Status countRange(const View &view, Range range, uint64_t &count) {
  uint64_t below = 0;
  Status status = Status::kOkay;
  count = view.records;
  if (view.depth > 0 && range.to.bytes != nullptr) {
    status = rankOf(view, range.to, true, count);
  }
  if (view.depth > 0 && range.from.bytes != nullptr && status == Status::kOkay) {
    status = rankOf(view, range.from, false, below);
  }
  count = count > below ? count - below : 0;
  return status;
}

}  // namespace minidb
