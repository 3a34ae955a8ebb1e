// SPDX-License-Identifier: Apache-2.0
//
// Reading the tree: the one way down, which changes take too, cursors, and the look at
// every page. Who goes down works on copies of the pages.
#include "store/internal.h"

namespace minidb {

namespace {

Step &leafOf(Cursor &cursor) {
  return cursor.path.steps[0];
}

const Step &leafOf(const Cursor &cursor) {
  return cursor.path.steps[0];
}

bool nextLeaf(Cursor &cursor) {
  Step *steps = cursor.path.steps;
  uint32_t level = 1;
  while (level < cursor.view->depth && steps[level].index + 1 >= steps[level].page.count()) {
    ++level;
  }
  if (level >= cursor.view->depth) {
    return miss();
  }
  ++steps[level].index;
  for (; level > 0; --level) {
    const uint64_t child = steps[level].page.child(steps[level].index);
    if (!enterPage(*cursor.view, cursor.path, level - 1, child)) {
      return false;
    }
    steps[level - 1].index = 0;
  }
  return true;
}

// Ends a move: goes on to the next leaf behind the last record of this one, and looks
// at the end of the range.
bool arrive(Cursor &cursor) {
  if (leafOf(cursor).index == leafOf(cursor).page.count() && !nextLeaf(cursor)) {
    return false;
  }
  if (cursor.range.to.bytes != nullptr && compareTexts(keyOf(cursor), cursor.range.to) > 0) {
    return miss();
  }
  cursor.remaining = valueLength(cursor);
  cursor.chain = leafOf(cursor).page.chain(leafOf(cursor).index);
  return true;
}

bool seek(Cursor &cursor, const View &view, Range range, bool strict) {
  cursor.view = &view;
  cursor.range = range;
  cursor.path.strict = strict;
  cursor.path.entered = 0;
  for (uint32_t level = 0; level < view.depth; ++level) {
    cursor.path.steps[level].number = 0;
    cursor.path.steps[level].changed = false;
  }
  if (!descend(view, range.from, cursor.path)) {
    return false;
  }
  return view.depth == 0 ? miss() : arrive(cursor);
}

// The number of records below a key, those of the key itself included or not.
bool rankOf(const View &view, Text key, bool included, uint64_t &rank) {
  Path path = {};
  rank = 0;
  if (!descend(view, key, path)) {
    return false;
  }
  for (uint32_t level = 0; level < view.depth; ++level) {
    rank += path.steps[level].page.sumRecords(path.steps[level].index);
  }
  rank += included && path.found ? 1 : 0;
  return true;
}

// Whether the key of a cursor is above the last one, and what leads to its leaf between
// the two.
bool isInOrder(const Cursor &cursor, Text last) {
  const Step *steps = cursor.path.steps;
  uint32_t level = 0;
  while (level < cursor.view->depth && steps[level].index == 0) {
    ++level;
  }
  if (level == 0 || level == cursor.view->depth) {
    return last.bytes == nullptr || compareTexts(last, keyOf(cursor)) < 0;
  }
  const Text between = steps[level].page.key(steps[level].index);
  return compareTexts(last, between) < 0 && compareTexts(between, keyOf(cursor)) <= 0;
}

// Looks at the record that a cursor stands on. `last` takes the place of its key.
bool checkRecord(Cursor &cursor, Text &last, char *bytes) {
  const Step &leaf = leafOf(cursor);
  if (!isInOrder(cursor, last)) {
    return fail("page %llu is damaged: its keys are out of order",
                static_cast<unsigned long long>(leaf.number));
  }
  last = {bytes, keyOf(cursor).length};
  memcpy(bytes, keyOf(cursor).bytes, last.length);
  cursor.path.entered += leaf.page.chainPages(leaf.index);
  bool isWhole = true;
  for (Text piece = {"", 1}; isWhole && piece.length > 0;) {
    isWhole = readValue(cursor, piece);
  }
  return isWhole;
}

}  // namespace

bool fetchPage(const View &view, uint64_t number, Kind kind, uint32_t level, Page &page,
               bool afresh) {
  const bool own = view.transaction != nullptr && number >= view.end;
  const bool there = number >= kFirstPage && (own || number < view.end);
  if (there && !(own ? readOwn(*view.transaction, number, level, page)
                     : readPage(view.store->cache, *view.file, number, page, !afresh))) {
    return false;
  }
  return (there && page.kind() == kind && page.level() == level &&
          (own || page.commit() <= view.number)) ||
         fail("\"%s\" is damaged: page %llu is not what leads there says", view.file->path,
              static_cast<unsigned long long>(number));
}

bool enterPage(const View &view, Path &path, uint32_t level, uint64_t number) {
  Step &step = path.steps[level];
  if (step.number == number && number != 0) {
    return true;
  }
  if (step.changed && !storePage(*view.transaction, step.page)) {
    return false;
  }
  step.changed = false;
  step.number = 0;
  const Kind kind = level == 0 ? Kind::kLeaf : Kind::kInner;
  if (!fetchPage(view, number, kind, level, step.page, path.strict)) {
    return false;
  }
  ++path.entered;
  step.number = number;
  const Step *above = level + 1 < view.depth ? &path.steps[level + 1] : nullptr;
  return !path.strict ||
         step.page.sumRecords() ==
             (above == nullptr ? view.records : above->page.records(above->index)) ||
         fail("page %llu is damaged: it counts other records than the page above",
              static_cast<unsigned long long>(number));
}

bool descend(const View &view, Text key, Path &path) {
  uint64_t number = view.root;
  path.found = false;
  for (uint32_t level = view.depth; level-- > 0;) {
    if (!enterPage(view, path, level, number)) {
      return false;
    }
    Step &step = path.steps[level];
    step.index = step.page.find(key, path.found);
    if (level > 0) {
      step.index -= !path.found && step.index > 0 ? 1 : 0;
      number = step.page.child(step.index);
    }
  }
  return true;
}

bool seekFirst(Cursor &cursor, const View &view, Range range) {
  return seek(cursor, view, range, false);
}

bool seekNext(Cursor &cursor) {
  ++leafOf(cursor).index;
  return arrive(cursor);
}

Text keyOf(const Cursor &cursor) {
  return leafOf(cursor).page.key(leafOf(cursor).index);
}

uint32_t valueLength(const Cursor &cursor) {
  return leafOf(cursor).page.valueBytes(leafOf(cursor).index);
}

bool readValue(Cursor &cursor, Text &piece) {
  piece = {"", 0};
  if (cursor.remaining == 0) {
    return true;
  }
  const uint8_t *bytes = leafOf(cursor).page.value(leafOf(cursor).index);
  uint32_t length = cursor.remaining;
  if (cursor.chain != 0) {
    const Page &page = cursor.piece;
    if (!fetchPage(*cursor.view, cursor.chain, Kind::kChain, 0, cursor.piece, cursor.path.strict)) {
      return false;
    }
    bytes = page.bytes + kChainStart;
    length = std::min(length, kChainBytes);
    cursor.chain = page.next();
    if (page.lowest() != length || (cursor.chain == 0) != (length == cursor.remaining)) {
      return fail("\"%s\" is damaged: a value has another length", cursor.view->file->path);
    }
  }
  cursor.remaining -= length;
  piece = {reinterpret_cast<const char *>(bytes), length};
  return true;
}

bool countRange(const View &view, Range range, uint64_t &count) {
  uint64_t below = 0;
  count = view.records;
  if ((range.to.bytes != nullptr && !rankOf(view, range.to, true, count)) ||
      (range.from.bytes != nullptr && !rankOf(view, range.from, false, below))) {
    return false;
  }
  count = count > below ? count - below : 0;
  return true;
}

bool checkView(const View &view, Progress progress) {
  using Number = unsigned long long;
  Cursor cursor;
  Text last = {};
  char bytes[kMaxKeyBytes];
  uint64_t records = 0;
  bool more = seek(cursor, view, {}, true);
  while (more) {
    more = goOn(progress, records++) && checkRecord(cursor, last, bytes) && seekNext(cursor);
  }
  return lastStatus() == Status::kMissing &&
         ((cursor.path.entered == view.live && records == view.records) ||
          fail("%llu pages and %llu records are in use, but %llu and %llu were counted",
               Number{cursor.path.entered}, Number{records}, Number{view.live},
               Number{view.records}));
}

}  // namespace minidb
