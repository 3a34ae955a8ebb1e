// SPDX-License-Identifier: Apache-2.0
//
// The names of a directory's entries: their storage beyond the entry, and their
// comparison. Extra entries come from nodes of their own; free ones form a list
// across those nodes, from the directory's header on.
//
// A comparison reads the name where it is stored. It takes eight bytes at a time
// with the letters folded, most significant first, and looks into the extra
// entries only when the entry's own 22 bytes agree.
//
// No locks of its own, no jumps; see zovmfile_tree.h.
#include <string.h>

#include <algorithm>

#include "memstore/zovmfile_tree.h"

namespace zov {
namespace {

int32_t sign(uint64_t left, uint64_t right) {
  return (left > right) - (left < right);
}

unsigned char foldByte(char byte) {
  const unsigned char value = static_cast<unsigned char>(byte);
  const bool capital = value >= 'A' && value <= 'Z';
  return static_cast<unsigned char>(capital ? value + ('a' - 'A') : value);
}

int32_t compareFolded(const char *left, const char *right, size_t count) {
  for (size_t index = 0; index < count; ++index) {
    const int32_t order = foldByte(left[index]) - foldByte(right[index]);
    if (order != 0) {
      return order;
    }
  }
  return 0;
}

ExtraEntry &extraAt(const Cursor &cursor, ExtraLink link) {
  assert(link.node > kRootNode && link.index < cursor.tree->nodeBytes / sizeof(ExtraEntry));
  return pageAt<ExtraEntry>(cursor, link.node)[link.index];
}

bool isNone(ExtraLink link) {
  return link.node == 0;
}

// Takes a node for extra entries and puts them on the free list, in their order.
int32_t allocateSubdirExtraNode(const Cursor &cursor) {
  if (reserveNodes(cursor, 1) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  const uint32_t number = allocSubdirNode(cursor);
  ExtraEntry *entries = pageAt<ExtraEntry>(cursor, number);
  ExtraLink &freeExtra = headerOf(cursor).freeExtra;
  const size_t last = cursor.tree->nodeBytes / sizeof(ExtraEntry) - 1;
  for (size_t index = 0; index < last; ++index) {
    entries[index].next = {number, static_cast<uint16_t>(index + 1), 0};
  }
  entries[last].next = freeExtra;
  freeExtra = {number, 0, 0};
  return ZOV_OKAY;
}

int32_t allocateSubdirExtraEntry(const Cursor &cursor, ExtraLink &taken) {
  ExtraLink &freeExtra = headerOf(cursor).freeExtra;
  if (isNone(freeExtra) && allocateSubdirExtraNode(cursor) != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  taken = freeExtra;
  freeExtra = extraAt(cursor, taken).next;
  return ZOV_OKAY;
}

void freeSubdirExtraEntry(const Cursor &cursor, ExtraLink link) {
  ExtraLink &freeExtra = headerOf(cursor).freeExtra;
  extraAt(cursor, link).next = freeExtra;
  freeExtra = link;
}

void freeChain(const Cursor &cursor, ExtraLink link) {
  while (!isNone(link)) {
    const ExtraLink next = extraAt(cursor, link).next;
    freeSubdirExtraEntry(cursor, link);
    link = next;
  }
}

// Stores the rest of a name in entries linked from `first` on, in the order in
// which they are taken. A failure takes none.
int32_t writeExtraName(const Cursor &cursor, const char *rest, size_t length, ExtraLink &first) {
  first = {};
  ExtraLink *last = &first;
  for (size_t done = 0; done < length; done += kExtraNameBytes) {
    ExtraLink link;
    if (allocateSubdirExtraEntry(cursor, link) != ZOV_OKAY) {
      freeChain(cursor, first);
      return ZOV_ERROR;
    }
    ExtraEntry &entry = extraAt(cursor, link);
    entry = {};
    memcpy(entry.name, rest + done, std::min<size_t>(length - done, kExtraNameBytes));
    *last = link;
    last = &entry.next;
  }
  return ZOV_OKAY;
}

// Compares two names that agree in their first 22 bytes and go on behind them.
int32_t compareExtraName(const Cursor &cursor, const NameKey &key, const DirEntry &entry) {
  const char *rest = key.text + kEntryNameBytes;
  size_t keyLeft = key.length - kEntryNameBytes;
  size_t entryLeft = entry.nameLen - kEntryNameBytes;
  for (ExtraLink link = entry.extra; keyLeft > 0 && entryLeft > 0;) {
    const ExtraEntry &extra = extraAt(cursor, link);
    const size_t count = std::min<size_t>({keyLeft, entryLeft, kExtraNameBytes});
    const int32_t order = compareFolded(rest, extra.name, count);
    if (order != 0) {
      return order;
    }
    link = extra.next;
    rest += count;
    keyLeft -= count;
    entryLeft -= count;
  }
  return sign(keyLeft, entryLeft);
}

}  // namespace

NameKey::NameKey(const char *name, size_t bytes) : text(name), length(bytes), first{} {
  memcpy(first, name, std::min<size_t>(length, kEntryNameBytes));
}

int32_t setName(const Cursor &cursor, DirEntry &entry, const NameKey &key) {
  assert(key.length <= kLongestName);
  memcpy(entry.name, key.text, std::min<size_t>(key.length, kEntryNameBytes));
  entry.nameLen = static_cast<uint16_t>(key.length);
  if (key.length <= kEntryNameBytes) {
    return ZOV_OKAY;
  }
  return writeExtraName(cursor, key.text + kEntryNameBytes, key.length - kEntryNameBytes,
                        entry.extra);
}

void removeName(const Cursor &cursor, const DirEntry &entry) {
  freeChain(cursor, entry.extra);
}

void getName(const Cursor &cursor, const DirEntry &entry, char *name) {
  const size_t length = entry.nameLen;
  size_t done = std::min<size_t>(length, kEntryNameBytes);
  memcpy(name, entry.name, done);
  for (ExtraLink link = entry.extra; done < length;) {
    const ExtraEntry &extra = extraAt(cursor, link);
    const size_t count = std::min<size_t>(length - done, kExtraNameBytes);
    memcpy(name + done, extra.name, count);
    link = extra.next;
    done += count;
  }
  name[length] = '\0';
}

int32_t compareName(const Cursor &cursor, const NameKey &key, const DirEntry &entry) {
  // The last word reaches two bytes past the name, which are zero in every
  // entry.
  for (size_t at = 0; at < sizeof key.first; at += sizeof(uint64_t)) {
    const int32_t order = sign(orderedWord(key.first + at), orderedWord(entry.name + at));
    if (order != 0) {
      return order;
    }
  }
  const bool keyGoesOn = key.length > kEntryNameBytes;
  const bool entryGoesOn = entry.nameLen > kEntryNameBytes;
  if (keyGoesOn && entryGoesOn) {
    return compareExtraName(cursor, key, entry);
  }
  return keyGoesOn - entryGoesOn;
}

bool isSameName(const NameKey &first, const NameKey &second) {
  return first.length == second.length && compareFolded(first.text, second.text, first.length) == 0;
}

}  // namespace zov
