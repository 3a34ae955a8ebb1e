// SPDX-License-Identifier: Apache-2.0
#include "engine/entry_list.h"

namespace minidb {

namespace {

bool encode(ZOV_OUTPUTBUFF out, const Entry &entry) {
  return zov_outputBuffPutInt64(out, static_cast<int64_t>(checkOf(entry))) == 0 &&
         zov_outputBuffPutChar(out, static_cast<char>(entry.kind)) == 0 &&
         putText(out, entry.key) == 0 && putText(out, entry.value) == 0 &&
         zov_outputBuffFlush(out) == 0;
}

}  // namespace

bool openList(EntryList &list, ZOV_TAG tag) {
  list = {};
  list.tag = tag;
  list.sink = {&list.bytes, tag};
  return zov_outputBuffCreate(appendToSink, &list.sink, kSwaps, &list.encoder) == 0;
}

void closeList(EntryList &list) {
  zov_outputBuffDestroy(list.encoder);
  list.encoder = nullptr;
}

bool addEntry(EntryList &list, const Entry &entry) {
  if (entry.key.length > kMaxKeyBytes || entry.value.length > kMaxValueBytes) {
    zov_log_err("minidb: a record is too long.\n");
    return false;
  }
  const uint32_t bytes = kEntryFrameBytes + entry.key.length + entry.value.length;
  const EntryMark mark = {bytes, entry.key.length, entry.kind};
  // With the room made beforehand the encoder cannot fail, and keeps no rest.
  return reserveBytes(list.bytes, list.tag, uint64_t{list.bytes.length} + bytes) &&
         appendBytes(list.marks, list.tag, &mark, sizeof mark) && encode(list.encoder, entry);
}

}  // namespace minidb
