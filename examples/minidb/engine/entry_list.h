// SPDX-License-Identifier: Apache-2.0
//
// Entries as a data file holds them, on their way there. Worker threads make
// such lists while another thread appends them.
#ifndef MINIDB_ENTRY_LIST_H
#define MINIDB_ENTRY_LIST_H

#include "engine/encoding.h"
#include "engine/format.h"

namespace minidb {

constexpr uint32_t kMaxKeyBytes = 64 * 1024;
constexpr uint32_t kMaxValueBytes = 16 * 1024 * 1024;

// What the owner of a list wants to know of each entry without decoding it.
struct EntryMark {
  uint32_t bytes;
  uint32_t keyBytes;
  Kind kind;
};

// Must not move while it is open. One thread at a time.
struct EntryList {
  ZOV_TAG tag;
  Buffer bytes;
  Buffer marks;  // an EntryMark each
  Sink sink;
  ZOV_OUTPUTBUFF encoder;
};

// Opens an empty list, whose memory is the tag's. False when memory is missing.
bool openList(EntryList &list, ZOV_TAG tag);

// Releases what does not go with the tag. A zero-filled list is ignored.
void closeList(EntryList &list);

inline void clearList(EntryList &list) {
  list.bytes.length = 0;
  list.marks.length = 0;
}

// Adds an entry. False for a record that is too long, which is reported, and when
// memory is missing; the list then stays as it was.
bool addEntry(EntryList &list, const Entry &entry);

// Calls `visit(mark, bytes)` for each entry until it gives false.
template <typename Visit>
bool visitEntries(const EntryList &list, Visit visit) {
  const char *at = list.bytes.bytes;
  for (uint32_t offset = 0; offset < list.marks.length; offset += sizeof(EntryMark)) {
    EntryMark mark;
    memcpy(&mark, list.marks.bytes + offset, sizeof mark);
    if (!visit(mark, at)) {
      return false;
    }
    at += mark.bytes;
  }
  return true;
}

}  // namespace minidb

#endif
