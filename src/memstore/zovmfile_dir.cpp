// SPDX-License-Identifier: Apache-2.0
//
// Directories of the memory file system: their entries, made, renamed and
// removed so that nothing is lost when memory runs out, and the table of those
// in use.
//
//   dirTable: id -> Directory -> one handle of the directory's segmented file
//
// A directory gets its id with its entry, and a Directory, with pages and a lock,
// when the first entry is stored in it. Until then it is empty.
//
// dirMutex guards the table and nothing in the directories; recentDirectories
// finds those used lately without it. A directory's tree is guarded by the lock of
// its file.
//
// Nothing jumps: callers hold jumps off.
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <atomic>
#include <utility>

#include "core/zov_flags.h"
#include "core/zov_lock.h"
#include "core/zov_make.h"
#include "core/zov_word.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovsegfile_private.h"
#include "memstore/zovshm_private.h"

namespace zov {
namespace {

// Rank 10: dirTable. Taken under a directory's lock.
ZOV_SYNC dirMutex = ZOV_NO_SYNC;
IdTable<Directory> dirTable ZOV_GUARDED_BY(dirMutex);

// Directories by the hash of their id; a look-up puts the one it finds in the place
// of another. Released and acquired, for the fields that newDirectory() set.
constexpr uint32_t kRecentBits = 6;
std::atomic<Directory *> recentDirectories[1 << kRecentBits];

std::atomic<Directory *> &recentPlace(uint64_t id) {
  return recentDirectories[spread(id) >> (64 - kRecentBits)];
}

// Puts a directory into the table unless another thread was faster. Returns the one
// in the table.
Directory *publish(Directory *directory) {
  const MutexLock lock(dirMutex);
  Directory *known = dirTable.find(directory->id);
  if (known != nullptr) {
    return known;
  }
  dirTable.insert(directory, ZOV_HERE);
  return directory;
}

// Formats a directory that is empty, and pins the pages that every directory has.
// A failed format leaves it empty.
bool prepareTree(Tree &tree) {
  const ZOV_SEG seg = tree.seg;
  const SegLock lock(seg);
  tree.nodeBytes = zov_segSegSize(seg);
  if (zov_segSize(seg) == 0 && initializeSubdir(seg) != ZOV_OKAY) {
    if (zov_segSize(seg) != 0) {
      zov_segSetSize(seg, 0);
    }
    return false;
  }
  return pinPages(tree, kRootNode + 1) == ZOV_OKAY;
}

void freeDirectory(Directory *directory) {
  if (directory->tree.seg != nullptr) {
    unpinPages(directory->tree);
    zov_segClose(directory->tree.seg);
  }
  zov_freeMem(directory, ZOV_DEFAULT_TAG);
}

Directory *newDirectory(uint64_t id) {
  Directory *directory = make<Directory>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (directory == nullptr) {
    return nullptr;
  }
  directory->id = id;
  directory->tree.seg = zov_segOpen(id, O_CREAT);
  if (directory->tree.seg == nullptr || !prepareTree(directory->tree)) {
    freeDirectory(directory);
    return nullptr;
  }
  return directory;
}

// Stores an entry's name and reserves so many nodes, after which the insertion cannot
// fail. A failure takes nothing.
int32_t prepareEntry(const Cursor &cursor, DirEntry &entry, const NameKey &key, uint32_t nodes) {
  if (key.length > kLongestName) {
    return failWith(ENAMETOOLONG);
  }
  if (setName(cursor, entry, key) != ZOV_OKAY) {
    return ZOV_NOMEMORY;
  }
  if (reserveNodes(cursor, nodes) != ZOV_OKAY) {
    removeName(cursor, entry);
    return ZOV_NOMEMORY;
  }
  return ZOV_OKAY;
}

}  // namespace

Directory *findSubdir(uint64_t id) {
  std::atomic<Directory *> &recent = recentPlace(id);
  Directory *directory = recent.load(std::memory_order_acquire);
  if (directory != nullptr && directory->id == id) {
    return directory;
  }
  {
    const MutexLock lock(dirMutex);
    directory = dirTable.find(id);
  }
  if (directory != nullptr) {
    recent.store(directory, std::memory_order_release);
  }
  return directory;
}

Directory *openSubdir(uint64_t id) {
  Directory *directory = findSubdir(id);
  if (directory != nullptr) {
    return directory;
  }
  directory = newDirectory(id);
  if (directory == nullptr) {
    return nullptr;
  }
  Directory *known = publish(directory);
  if (known != directory) {
    freeDirectory(directory);
  }
  return known;
}

Cursor cursorOf(Directory &directory) {
  Cursor cursor;
  cursor.tree = &directory.tree;
  cursor.depth = -1;
  return cursor;
}

int32_t findMemEntityInSubdir(Cursor &cursor, const NameKey &key, uint16_t type, uint64_t &id) {
  if (locate(cursor, key) != ZOV_OKAY) {
    errno = ENOENT;
    return ZOV_NOTFOUND;
  }
  const DirEntry &entry = readEntryInSubdir(cursor);
  if (type != kTypeAny && type != entry.type) {
    return failWith(type == kTypeDirectory ? ENOTDIR : EISDIR);
  }
  id = entry.fileId;
  return ZOV_OKAY;
}

bool isDots(const NameKey &key) {
  return key.length <= 2 && memcmp(key.text, "..", key.length) == 0;
}

bool mayBeNewName(const NameKey &key) {
  return !isDots(key) && memchr(key.text, '\\', key.length) == nullptr;
}

int32_t addEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &key, uint64_t id,
                         uint16_t type) {
  DirEntry entry = {};
  entry.fileId = id;
  entry.type = type;
  const int32_t status = prepareEntry(cursor, entry, key, nodesToInsert(cursor));
  if (status != ZOV_OKAY) {
    return status;
  }
  ++directory.changes;
  insertEntry(cursor, entry);
  return ZOV_OKAY;
}

int32_t createEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &key, uint16_t type,
                            uint64_t &id) {
  id = zov_segNextId();
  if (id == 0) {
    return ZOV_NOMEMORY;
  }
  const int32_t status = addEntryInSubdir(directory, cursor, key, id, type);
  if (status != ZOV_OKAY) {
    segRemoveById(id);
  }
  return status;
}

void removeEntryInSubdir(Directory &directory, Cursor &cursor) {
  removeName(cursor, readEntryInSubdir(cursor));
  ++directory.changes;
  compress_node(cursor);
}

void replaceFileInSubdir(const Cursor &cursor, uint64_t id) {
  assert(readEntryInSubdir(cursor).type == kTypeFile);
  const PathElement &place = cursor.path[cursor.depth];
  nodeAt(cursor, place.node).slots()[place.slot].entry.fileId = id;
}

int32_t renameEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &newKey) {
  if (!mayBeNewName(newKey)) {
    return failWith(EINVAL);
  }
  Cursor place = cursorOf(directory);
  if (locate(place, newKey) != ZOV_NOTFOUND) {
    return failWith(EEXIST);
  }
  const DirEntry &old = readEntryInSubdir(cursor);
  DirEntry entry = {};
  entry.fileId = old.fileId;
  entry.type = old.type;
  // The new name gets all it needs before the old one is removed. The removal can
  // fill other nodes, so one node a level is reserved, and one more because
  // splitting the root takes two.
  const uint32_t nodes = static_cast<uint32_t>(place.depth + 2);
  const int32_t status = prepareEntry(cursor, entry, newKey, nodes);
  if (status != ZOV_OKAY) {
    return status;
  }
  removeEntryInSubdir(directory, cursor);
  locate(place, newKey);
  insertEntry(place, entry);
  return ZOV_OKAY;
}

int32_t openSubdirInSubdir(Directory &parent, const NameKey &key, uint32_t flags, uint64_t &id) {
  Cursor cursor = cursorOf(parent);
  const int32_t status = findMemEntityInSubdir(cursor, key, kTypeDirectory, id);
  const bool create = status == ZOV_NOTFOUND && (flags & O_CREAT) != 0;
  return create ? createEntryInSubdir(parent, cursor, key, kTypeDirectory, id) : status;
}

int32_t directoriesInit() {
  dirMutex = createMutex(LockKind::kDirectories, ZOV_HERE);
  return dirMutex == ZOV_NO_SYNC ? ZOV_ERROR : ZOV_OKAY;
}

// At shut-down the memory goes with its tags, so nothing need be closed.
void directoriesTerm() {
  IdTable<Directory> all = {};
  {
    const MutexLock lock(dirMutex);
    std::swap(all, dirTable);
  }
  if (!terminating()) {
    all.drain(freeDirectory);
  }
  all.clear();
  for (std::atomic<Directory *> &recent : recentDirectories) {
    recent.store(nullptr, std::memory_order_relaxed);
  }
  zov_syncDelete(dirMutex);
  dirMutex = ZOV_NO_SYNC;
}

}  // namespace zov
