// SPDX-License-Identifier: Apache-2.0
//
// The data file: opening and locking it, entries, commits and compaction.
// Appended entries are collected in a buffer and written in large pieces; a
// commit writes the rest, syncs, and then writes and syncs a commit slot.
// Reading goes through a window of the file, which never goes stale because
// entries are never changed. Everything in memory belongs to the store's own
// tag, so closing is one release.
//
// A second file beside the data file, of its name and ".lock", is locked while
// the store is open. The data file itself cannot carry the lock, because
// compaction puts another file in its place.
#include "store.h"

#include <string.h>

#include "format.h"
#include "index.h"
#include "report.h"

namespace minidb {

namespace {

constexpr uint32_t kReadWrite = 0x2;
constexpr uint32_t kReadWriteCreate = 0x42;
constexpr uint32_t kBufferBytes = 256 * 1024;
constexpr uint32_t kWindowBytes = 32 * 1024;
constexpr int64_t kHeaderBytes = sizeof(EntryHeader);

}  // namespace

// 1. Entries up to `writtenBytes` are in the file, those up to `endBytes` in it
//    or in the buffer, those up to `committedBytes` safe.
// 2. The index holds the latest entry of every key, and nothing else.
struct Store {
  ZOV_TAG tag;
  char *path;
  uint32_t typeFlags;
  ZOV_FILE lock;
  ZOV_FILE file;
  uint64_t sequence;  // of the last commit
  int64_t committedBytes;
  int64_t writtenBytes;
  int64_t endBytes;
  char *buffer;  // what stands from writtenBytes to endBytes, kBufferBytes
  char *window;  // a piece of the file, kWindowBytes
  int64_t windowOffset;
  uint32_t windowBytes;
  Index index;
  Buffer walked;  // the body of the entry a walk is at
  Buffer probed;  // that of the entry compared with a key last
  Buffer put;     // the entry put last
};

namespace {

char *newBytes(ZOV_TAG tag, uint64_t length) {
  return static_cast<char *>(zov_getMem(length, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
}

bool damaged(const Store &store, int64_t offset) {
  zov_log_err("minidb: \"%s\" is damaged at byte %lld; it was left as it is.\n", store.path,
              static_cast<long long>(offset));
  return false;
}

// --- Bytes ---------------------------------------------------------------

bool readAt(const Store &store, int64_t offset, void *bytes, uint32_t length) {
  return zov_fileSeekRead(store.file, offset, bytes, length) == length;
}

bool writeAt(const Store &store, int64_t offset, const void *bytes, uint32_t length) {
  const char *at = static_cast<const char *>(bytes);
  while (length > 0) {
    const uint32_t written = zov_fileSeekWrite(store.file, offset, at, length);
    if (written == 0 || written == ZOV_IO_FAILED) {
      return cannot("write to", store.path);
    }
    at += written;
    offset += written;
    length -= written;
  }
  return true;
}

bool isInWindow(const Store &store, int64_t offset, uint32_t length) {
  return offset >= store.windowOffset && offset + length <= store.windowOffset + store.windowBytes;
}

bool moveWindow(Store &store, int64_t offset) {
  const uint32_t count = zov_fileSeekRead(store.file, offset, store.window, kWindowBytes);
  store.windowOffset = offset;
  store.windowBytes = count == ZOV_IO_FAILED ? 0 : count;
  return store.windowBytes > 0;
}

// Copies bytes that were put, from the buffer, the window or the file.
bool fetch(Store &store, int64_t offset, void *bytes, uint32_t length) {
  if (offset >= store.writtenBytes) {
    memcpy(bytes, store.buffer + (offset - store.writtenBytes), length);
    return true;
  }
  if (length > kWindowBytes) {
    return readAt(store, offset, bytes, length);
  }
  if (!isInWindow(store, offset, length) &&
      !(moveWindow(store, offset) && isInWindow(store, offset, length))) {
    return false;
  }
  memcpy(bytes, store.window + (offset - store.windowOffset), length);
  return true;
}

bool flushBuffer(Store &store) {
  const uint32_t length = static_cast<uint32_t>(store.endBytes - store.writtenBytes);
  if (!writeAt(store, store.writtenBytes, store.buffer, length)) {
    return false;
  }
  store.writtenBytes = store.endBytes;
  store.windowBytes = 0;  // it may have ended short of what is there now
  return true;
}

// Appends bytes that reach the file with the buffer.
bool append(Store &store, const void *bytes, uint32_t length) {
  const char *at = static_cast<const char *>(bytes);
  while (length > 0) {
    const uint32_t used = static_cast<uint32_t>(store.endBytes - store.writtenBytes);
    if (used == kBufferBytes) {
      if (!flushBuffer(store)) {
        return false;
      }
      continue;
    }
    const uint32_t count = length < kBufferBytes - used ? length : kBufferBytes - used;
    memcpy(store.buffer + used, at, count);
    store.endBytes += count;
    at += count;
    length -= count;
  }
  return true;
}

// --- Entries -------------------------------------------------------------

uint32_t bodyBytes(const EntryHeader &header) {
  return header.keyBytes + header.valueBytes;
}

Record recordOf(const EntryHeader &header, const Buffer &body) {
  return {{body.bytes, header.keyBytes}, {body.bytes + header.keyBytes, header.valueBytes}};
}

// Reads and checks the entry at an offset.
bool readEntry(Store &store, int64_t offset, EntryHeader &header, Buffer &body) {
  const int64_t bodyOffset = offset + kHeaderBytes;
  if (bodyOffset > store.endBytes || !fetch(store, offset, &header, sizeof header) ||
      header.keyBytes > kMaxKeyBytes || header.valueBytes > kMaxValueBytes ||
      bodyOffset + bodyBytes(header) > store.endBytes) {
    return damaged(store, offset);
  }
  if (!reserveBytes(body, store.tag, uint64_t{bodyBytes(header)} + 1)) {
    return false;
  }
  if (!fetch(store, bodyOffset, body.bytes, bodyBytes(header)) ||
      header.check != checkOf(header, body.bytes)) {
    return damaged(store, offset);
  }
  return true;
}

// Visits the entries that were put, in order, until `visit` gives false.
template <typename Visit>
bool walkEntries(Store &store, Visit visit) {
  int64_t offset = kFirstEntry;
  while (offset < store.endBytes) {
    EntryHeader header;
    if (!readEntry(store, offset, header, store.walked) ||
        !visit(recordOf(header, store.walked), offset)) {
      return false;
    }
    offset += kHeaderBytes + bodyBytes(header);
  }
  return true;
}

// The slot of a key in the index. Sets `failed` when an entry that may be the
// key's cannot be read. The entry found is left in `probed`.
Index::Slot *slotOfKey(Store &store, Text key, EntryHeader &header, bool &failed) {
  failed = false;
  return findSlot(store.index, hashBytes(key.bytes, key.length), [&](int64_t offset) {
    if (!readEntry(store, offset, header, store.probed)) {
      failed = true;
      return false;
    }
    return header.keyBytes == key.length && memcmp(store.probed.bytes, key.bytes, key.length) == 0;
  });
}

bool indexEntry(Store &store, Text key, int64_t offset) {
  if (!reserveSlot(store.index, store.tag)) {
    return false;
  }
  EntryHeader header;
  bool failed = false;
  Index::Slot *slot = slotOfKey(store, key, header, failed);
  if (failed) {
    return false;
  }
  if (slot->offset == 0) {
    ++store.index.used;
  }
  *slot = {hashBytes(key.bytes, key.length), offset};
  return true;
}

// --- The file ------------------------------------------------------------

bool syncFile(const Store &store) {
  return zov_fileSync(store.file) == ZOV_OKAY || cannot("sync", store.path);
}

CommitSlot sealedSlot(uint64_t sequence, int64_t committedBytes) {
  CommitSlot slot = {sequence, committedBytes, 0};
  slot.check = checkOf(slot);
  return slot;
}

// Slots are written in turn.
int64_t slotOffset(const CommitSlot &slot) {
  return kSlotOffset[slot.sequence % 2];
}

bool writeSlot(Store &store) {
  const CommitSlot slot = sealedSlot(store.sequence + 1, store.endBytes);
  if (!writeAt(store, slotOffset(slot), &slot, sizeof slot) || !syncFile(store)) {
    return false;
  }
  store.sequence = slot.sequence;
  store.committedBytes = slot.committedBytes;
  return true;
}

void readSlots(Store &store) {
  for (const int64_t offset : kSlotOffset) {
    CommitSlot slot;
    if (readAt(store, offset, &slot, sizeof slot) && slot.check == checkOf(slot) &&
        slot.sequence > store.sequence) {
      store.sequence = slot.sequence;
      store.committedBytes = slot.committedBytes;
    }
  }
}

// In one write, so that a killed process leaves an empty file or a whole one.
bool formatFile(Store &store) {
  char first[kFirstEntry] = {};
  memcpy(first, kMagic, sizeof kMagic);
  const CommitSlot slot = sealedSlot(1, kFirstEntry);
  memcpy(first + slotOffset(slot), &slot, sizeof slot);
  store.sequence = slot.sequence;
  store.committedBytes = kFirstEntry;
  store.endBytes = kFirstEntry;
  store.writtenBytes = kFirstEntry;
  return writeAt(store, 0, first, sizeof first) && syncFile(store);
}

bool readFile(Store &store, int64_t length) {
  char magic[sizeof kMagic];
  if (!readAt(store, 0, magic, sizeof magic) || memcmp(magic, kMagic, sizeof magic) != 0) {
    zov_log_err("minidb: \"%s\" is not a minidb data file; it was left as it is.\n", store.path);
    return false;
  }
  readSlots(store);
  if (store.sequence == 0 || store.committedBytes < kFirstEntry) {
    return damaged(store, kSlotOffset[0]);
  }
  if (length < store.committedBytes) {
    zov_log_err("minidb: \"%s\" is truncated, %lld bytes of %lld; it was left as it is.\n",
                store.path, static_cast<long long>(length),
                static_cast<long long>(store.committedBytes));
    return false;
  }
  store.endBytes = store.committedBytes;
  store.writtenBytes = store.committedBytes;
  return walkEntries(store, [&](const Record &record, int64_t offset) {
    return indexEntry(store, record.key, offset);
  });
}

// An empty file is one whose making was interrupted.
bool openFile(Store &store, uint32_t openFlags) {
  store.file = zov_fileOpen(store.path, openFlags, store.typeFlags);
  if (store.file == nullptr) {
    return cannot("open", store.path);
  }
  const int64_t length = zov_fileLength(store.file);
  return length == 0 && openFlags == kReadWriteCreate ? formatFile(store) : readFile(store, length);
}

// A store with everything but its files.
Store *newStore(Place place) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  Store *store =
      static_cast<Store *>(zov_getMem(sizeof(Store), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (store != nullptr) {
    store->tag = tag;
    store->typeFlags = place.typeFlags;
    store->path = static_cast<char *>(zov_getMem(0, tag, ZOV_MEM_STRDUP, place.path, ZOV_HERE));
    store->buffer = newBytes(tag, kBufferBytes);
    store->window = newBytes(tag, kWindowBytes);
    if (store->path != nullptr && store->buffer != nullptr && store->window != nullptr &&
        reserveSlot(store->index, tag)) {
      return store;
    }
  }
  zov_freeTagMemory(tag, 1);
  return nullptr;
}

// Forgets what the last file held.
void resetContents(Store &store) {
  zov_freeMem(store.index.slots, store.tag);
  store.index = {};
  store.sequence = 0;
  store.committedBytes = 0;
  store.windowBytes = 0;
}

}  // namespace

ZOV_FILE lockStore(Place place) {
  char *path = zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%s.lock", place.path);
  if (path == nullptr) {
    return nullptr;
  }
  ZOV_FILE lock = zov_fileOpen(path, kReadWriteCreate, place.typeFlags);
  if (lock == nullptr) {
    cannot("open", path);
  } else if (zov_fileLock(lock) != ZOV_OKAY) {
    zov_log_err("minidb: \"%s\" is in use by another process.\n", place.path);
    zov_fileClose(lock);
    lock = nullptr;
  }
  zov_freeMem(path, ZOV_DEFAULT_TAG);
  return lock;
}

void unlockStore(ZOV_FILE lock) {
  zov_fileUnlock(lock);
  zov_fileClose(lock);
}

Store *openStore(Place place, bool create) {
  if (!create && zov_fileLengthStat(place.path, place.typeFlags) < 0) {
    cannot("open", place.path);
    return nullptr;
  }
  Store *store = newStore(place);
  if (store == nullptr) {
    return nullptr;
  }
  store->lock = lockStore(place);
  if (store->lock == nullptr || !openFile(*store, create ? kReadWriteCreate : kReadWrite)) {
    closeStore(store);
    return nullptr;
  }
  return store;
}

void closeStore(Store *store) {
  if (store->file != nullptr) {
    zov_fileClose(store->file);
  }
  if (store->lock != nullptr) {
    unlockStore(store->lock);
  }
  zov_freeTagMemory(store->tag, 1);
}

bool encodeRecord(Buffer &buffer, ZOV_TAG tag, const Record &record) {
  EntryHeader header = {0, record.key.length, record.value.length};
  const uint32_t start = buffer.length;
  if (!appendBytes(buffer, tag, &header, sizeof header) ||
      !appendBytes(buffer, tag, record.key.bytes, record.key.length) ||
      !appendBytes(buffer, tag, record.value.bytes, record.value.length)) {
    buffer.length = start;
    return false;
  }
  header.check = checkOf(header, buffer.bytes + start + sizeof header);
  memcpy(buffer.bytes + start, &header, sizeof header);
  return true;
}

bool appendEntries(Store &store, const Buffer &entries) {
  for (uint32_t at = 0; at < entries.length;) {
    const char *entry = entries.bytes + at;
    EntryHeader header;
    memcpy(&header, entry, sizeof header);
    const uint32_t length = static_cast<uint32_t>(kHeaderBytes) + bodyBytes(header);
    const int64_t offset = store.endBytes;
    if (!append(store, entry, length) ||
        !indexEntry(store, {entry + kHeaderBytes, header.keyBytes}, offset)) {
      return false;
    }
    at += length;
  }
  return true;
}

bool putRecord(Store &store, const Record &record) {
  if (record.key.length > kMaxKeyBytes || record.value.length > kMaxValueBytes) {
    zov_log_err("minidb: a record is too long.\n");
    return false;
  }
  store.put.length = 0;
  return encodeRecord(store.put, store.tag, record) && appendEntries(store, store.put);
}

bool commit(Store &store) {
  return store.endBytes == store.committedBytes ||
         (flushBuffer(store) && syncFile(store) && writeSlot(store));
}

Lookup getRecord(Store &store, Text key, Record &record) {
  EntryHeader header;
  bool failed = false;
  const Index::Slot *slot = slotOfKey(store, key, header, failed);
  if (failed) {
    return Lookup::kFailed;
  }
  if (slot->offset == 0) {
    return Lookup::kMissing;
  }
  record = recordOf(header, store.probed);
  return Lookup::kFound;
}

uint64_t countRecords(const Store &store) {
  return store.index.used;
}

bool scanRecords(Store &store, Visitor visit, void *context) {
  return walkEntries(store, [&](const Record &record, int64_t offset) {
    EntryHeader header;
    bool failed = false;
    const Index::Slot *slot = slotOfKey(store, record.key, header, failed);
    // An entry that a later one replaced does not count.
    return !failed && (slot->offset != offset || visit(record, context));
  });
}

bool replaceFile(Store &store, const char *newPath) {
  if (zov_fileMoveEx(newPath, store.typeFlags, store.path, store.typeFlags) != ZOV_OKAY) {
    return cannot("replace", store.path);
  }
  zov_fileClose(store.file);
  resetContents(store);
  return reserveSlot(store.index, store.tag) && openFile(store, kReadWrite);
}

Place placeOf(const Store &store) {
  return {store.path, store.typeFlags};
}

}  // namespace minidb
