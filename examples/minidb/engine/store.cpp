// SPDX-License-Identifier: Apache-2.0
//
// The data file and its index. New entries collect in memory and are written
// when enough are there or a commit asks for them. Entries are read through
// libzov's typed buffers, whose channel is the file and what waits behind it;
// one reader goes through the file in order, another looks at single entries.
// Most of a store's memory belongs to its own tag.
//
// A second file beside a data file on disk, of its name and ".lock", is locked
// while the store is open. The data file itself cannot carry the lock, because
// compaction puts another file in its place. A file in memory has none: other
// processes do not see it, and its lock would belong to one thread.
#include "engine/store.h"

#include <fcntl.h>

#include "engine/index.h"
#include "engine/report.h"

namespace minidb {

namespace {

constexpr uint32_t kPendingBytes = 256 * 1024;

// Decodes entries. The one behind the entry read last costs no search.
struct EntryReader {
  Store *store;
  ZOV_INPUTBUFF decoder;
  int64_t fetched;   // offset of what the decoder asks for next
  int64_t position;  // offset of what the decoder is about to decode, or -1
  Buffer key;
  Buffer value;
};

}  // namespace

// 1. Entries up to `writtenBytes` are in the file, those up to `endBytes` in it
//    or pending, those up to `committedBytes` safe.
// 2. The index holds the latest entry of every key, and nothing else.
struct Store {
  ZOV_TAG tag;
  char *path;
  uint32_t typeFlags;
  ZOV_FILE lock;  // null for a file in memory
  ZOV_FILE file;
  uint64_t sequence;  // of the last commit
  int64_t committedBytes;
  int64_t writtenBytes;
  int64_t endBytes;
  Buffer pending;  // what stands from writtenBytes to endBytes
  Index index;
  EntryReader walk;
  EntryReader probe;
  EntryList single;  // the entry appended last, by itself
};

namespace {

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

bool writePending(Store &store) {
  if (!writeAt(store, store.writtenBytes, store.pending.bytes, store.pending.length)) {
    return false;
  }
  store.writtenBytes = store.endBytes;
  store.pending.length = 0;
  return true;
}

// --- Reading entries -----------------------------------------------------

// The channel of a reader's decoder: the file, and behind it what is pending.
int32_t fetch(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  EntryReader &reader = *static_cast<EntryReader *>(context);
  const Store &store = *reader.store;
  const bool inFile = reader.fetched < store.writtenBytes;
  const int64_t end = inFile ? store.writtenBytes : store.endBytes;
  uint32_t count =
      end - reader.fetched < capacity ? static_cast<uint32_t>(end - reader.fetched) : capacity;
  if (count == 0) {
    return kChannelEnd;
  }
  if (inFile) {
    count = zov_fileSeekRead(store.file, reader.fetched, buffer, count);
    if (count == 0 || count == ZOV_IO_FAILED) {
      return kChannelFailed;
    }
  } else {
    memcpy(buffer, store.pending.bytes + (reader.fetched - store.writtenBytes), count);
  }
  reader.fetched += count;
  *delivered = count;
  return 0;
}

bool openEntryReader(EntryReader &reader, Store &store) {
  reader.store = &store;
  reader.position = -1;
  return zov_inputBuffCreate(fetch, nullptr, &reader, kSwaps, &reader.decoder) == 0;
}

int32_t decode(EntryReader &reader, ZOV_TAG tag, Entry &entry) {
  int64_t check = 0;
  char kind = 0;
  int32_t status = zov_inputBuffGetInt64(reader.decoder, &check);
  if (status == 0) {
    status = zov_inputBuffGetChar(reader.decoder, &kind);
  }
  if (status == 0) {
    status = getText(reader.decoder, reader.key, tag, kMaxKeyBytes);
  }
  if (status == 0) {
    status = getText(reader.decoder, reader.value, tag, kMaxValueBytes);
  }
  if (status != 0) {
    return status;
  }
  entry = {static_cast<Kind>(kind), textOf(reader.key), textOf(reader.value)};
  return checkOf(entry) == static_cast<uint64_t>(check) ? 0 : kBadItem;
}

// Reads and checks the entry at an offset. Its texts are the reader's.
bool readEntry(EntryReader &reader, int64_t offset, Entry &entry) {
  if (offset != reader.position) {
    zov_inputBuffReset(reader.decoder);
    reader.fetched = offset;
  }
  reader.position = -1;
  const int32_t status = decode(reader, reader.store->tag, entry);
  if (status != 0) {
    return status != ZOV_BUFF_NOMEMORY && damaged(*reader.store, offset);
  }
  reader.position = offset + kEntryFrameBytes + entry.key.length + entry.value.length;
  return true;
}

// Visits the entries that were appended, in order, until `visit` gives false.
template <typename Visit>
bool walkEntries(Store &store, Visit visit) {
  for (int64_t offset = kFirstEntry; offset < store.endBytes; offset = store.walk.position) {
    Entry entry;
    if (!readEntry(store.walk, offset, entry) || !visit(entry, offset)) {
      return false;
    }
  }
  return true;
}

// --- The index -----------------------------------------------------------

// The slot of a key. Sets `failed` when an entry that may be the key's cannot be
// read. The entry found is the probe's; `known` is the offset of one that is the
// key's without a look.
Index::Slot *slotOfKey(Store &store, Text key, int64_t known, Entry &entry, bool &failed) {
  failed = false;
  return findSlot(store.index, hashBytes(key), [&](int64_t offset) {
    if (offset == known) {
      return true;
    }
    if (!readEntry(store.probe, offset, entry)) {
      failed = true;
      return true;
    }
    return compareTexts(entry.key, key) == 0;
  });
}

bool indexEntry(Store &store, Text key, int64_t offset, bool deletes) {
  if (!reserveSlot(store.index, store.tag)) {
    return false;
  }
  Entry entry;
  bool failed = false;
  Index::Slot *slot = slotOfKey(store, key, 0, entry, failed);
  if (!failed) {
    fillSlot(store.index, slot, hashBytes(key), offset, deletes);
  }
  return !failed;
}

// --- The file ------------------------------------------------------------

bool syncFile(const Store &store) {
  return zov_fileSync(store.file) == ZOV_OKAY || cannot("sync", store.path);
}

// Between the machine's order of bytes and that of the file.
CommitSlot inFileOrder(CommitSlot slot) {
  if (kSwaps) {
    slot = {zov_swaporder64(slot.sequence), zov_swaporder64(slot.committedBytes),
            zov_swaporder64(slot.check)};
  }
  return slot;
}

CommitSlot sealedSlot(uint64_t sequence, int64_t committedBytes) {
  CommitSlot slot = {sequence, static_cast<uint64_t>(committedBytes), 0};
  slot.check = checkOf(slot);
  return inFileOrder(slot);
}

bool writeSlot(Store &store) {
  const CommitSlot slot = sealedSlot(store.sequence + 1, store.endBytes);
  // The slots are written in turn.
  const int64_t offset = kSlotOffset[(store.sequence + 1) % 2];
  if (!writeAt(store, offset, &slot, sizeof slot) || !syncFile(store)) {
    return false;
  }
  ++store.sequence;
  store.committedBytes = store.endBytes;
  return true;
}

void readSlots(Store &store) {
  for (const int64_t offset : kSlotOffset) {
    CommitSlot slot;
    if (!readAt(store, offset, &slot, sizeof slot)) {
      continue;
    }
    slot = inFileOrder(slot);
    if (slot.check == checkOf(slot) && slot.sequence > store.sequence) {
      store.sequence = slot.sequence;
      store.committedBytes = static_cast<int64_t>(slot.committedBytes);
    }
  }
}

void setEnd(Store &store, int64_t offset) {
  store.committedBytes = offset;
  store.writtenBytes = offset;
  store.endBytes = offset;
}

// In one write, so that a killed process leaves an empty file or a whole one.
bool formatFile(Store &store) {
  char first[kFirstEntry] = {};
  const CommitSlot slot = sealedSlot(1, kFirstEntry);
  memcpy(first, kMagic, sizeof kMagic);
  memcpy(first + kSlotOffset[1], &slot, sizeof slot);
  store.sequence = 1;
  setEnd(store, kFirstEntry);
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
  setEnd(store, store.committedBytes);
  return walkEntries(store, [&](const Entry &entry, int64_t offset) {
    return indexEntry(store, entry.key, offset, entry.kind == Kind::kDelete);
  });
}

// Reads the file, or makes it. An empty file is one whose making was
// interrupted.
bool enterFile(Store &store, bool create) {
  const int64_t length = zov_fileLength(store.file);
  return length == 0 && create ? formatFile(store) : readFile(store, length);
}

bool openFile(Store &store, bool create) {
  store.file = zov_fileOpen(store.path, O_RDWR | (create ? O_CREAT : 0), store.typeFlags);
  return store.file != nullptr ? enterFile(store, create) : cannot("open", store.path);
}

char *lockPath(const char *path) {
  return zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%s.lock", path);
}

// Forgets what is known of the file.
void resetContents(Store &store) {
  zov_freeMem(store.index.slots, store.tag);
  store.index = {};
  store.sequence = 0;
  store.pending.length = 0;
  store.walk.position = -1;
  store.probe.position = -1;
}

bool prepareStore(Store &store, const char *path) {
  store.path = static_cast<char *>(zov_getMem(0, store.tag, ZOV_MEM_STRDUP, path, ZOV_HERE));
  return store.path != nullptr && reserveSlot(store.index, store.tag) &&
         openEntryReader(store.walk, store) && openEntryReader(store.probe, store) &&
         openList(store.single, store.tag);
}

// A store with everything but its files.
Store *newStore(Place place) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  Store *store =
      static_cast<Store *>(zov_getMem(sizeof(Store), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (store == nullptr) {
    zov_freeTagMemory(tag, 1);
    return nullptr;
  }
  store->tag = tag;
  store->typeFlags = place.typeFlags;
  if (!prepareStore(*store, place.path)) {
    closeStore(store);
    return nullptr;
  }
  return store;
}

}  // namespace

ZOV_FILE lockStore(const char *dataPath) {
  char *path = lockPath(dataPath);
  if (path == nullptr) {
    return nullptr;
  }
  ZOV_FILE lock = zov_fileOpen(path, O_RDWR | O_CREAT, 0);
  if (lock == nullptr) {
    cannot("open", path);
  } else if (zov_fileLock(lock) != ZOV_OKAY) {
    zov_log_err("minidb: \"%s\" is in use by another process.\n", dataPath);
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
  const bool locks = place.typeFlags == 0;
  if (locks) {
    store->lock = lockStore(place.path);
  }
  if ((locks && store->lock == nullptr) || !openFile(*store, create)) {
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
  zov_inputBuffDestroy(store->walk.decoder);
  zov_inputBuffDestroy(store->probe.decoder);
  closeList(store->single);
  zov_freeTagMemory(store->tag, 1);
}

void removeFiles(Place place) {
  zov_fileRemoveEx(place.path, place.typeFlags);
  char *lock = place.typeFlags == 0 ? lockPath(place.path) : nullptr;
  if (lock != nullptr) {
    zov_fileRemove(lock);
    zov_freeMem(lock, ZOV_DEFAULT_TAG);
  }
}

Place placeOf(const Store &store) {
  return {store.path, store.typeFlags};
}

bool appendEntry(Store &store, const Entry &entry) {
  clearList(store.single);
  return addEntry(store.single, entry) && appendEntries(store, store.single);
}

bool appendEntries(Store &store, const EntryList &entries) {
  return visitEntries(entries, [&](const EntryMark &mark, const char *bytes) {
    if (store.pending.length >= kPendingBytes && !writePending(store)) {
      return false;
    }
    if (!appendBytes(store.pending, store.tag, bytes, mark.bytes)) {
      return false;
    }
    const int64_t offset = store.endBytes;
    store.endBytes += mark.bytes;
    return indexEntry(store, {bytes + kKeyOffset, mark.keyBytes}, offset,
                      mark.kind == Kind::kDelete);
  });
}

bool commit(Store &store) {
  return store.endBytes == store.committedBytes ||
         (writePending(store) && syncFile(store) && writeSlot(store));
}

bool discardChanges(Store &store) {
  resetContents(store);
  return store.file != nullptr && reserveSlot(store.index, store.tag) && enterFile(store, false);
}

Lookup findEntry(Store &store, Text key, Entry &entry) {
  bool failed = false;
  const Index::Slot *slot = slotOfKey(store, key, 0, entry, failed);
  if (failed) {
    return Lookup::kFailed;
  }
  if (slot->offset == 0) {
    return Lookup::kMissing;
  }
  return slot->offset < 0 ? Lookup::kDeleted : Lookup::kFound;
}

uint64_t countRecords(const Store &store) {
  return store.index.live;
}

bool scanEntries(Store &store, Visitor visit, void *context) {
  return walkEntries(store, [&](const Entry &entry, int64_t offset) {
    Entry latest;
    bool failed = false;
    const Index::Slot *slot = slotOfKey(store, entry.key, offset, latest, failed);
    // An entry that a later one replaced does not count.
    return !failed && (offsetOf(*slot) != offset || visit(entry, context));
  });
}

bool replaceFile(Store &store, const char *newPath) {
  if (zov_fileMoveEx(newPath, store.typeFlags, store.path, store.typeFlags) != ZOV_OKAY) {
    return cannot("replace", store.path);
  }
  zov_fileClose(store.file);
  store.file = nullptr;
  resetContents(store);
  return reserveSlot(store.index, store.tag) && openFile(store, false);
}

}  // namespace minidb
