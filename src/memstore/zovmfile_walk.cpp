// SPDX-License-Identifier: Apache-2.0
//
// Walks through a directory in memory, in the order of its names. The directory
// is locked for one step at a time and may change in between. If it has not, the
// cursor of the last step is still valid; else the name of the last step is looked
// up again, and the walk goes on behind the place where it is or would be.
//
// No locks of its own. Nothing jumps: jumps are held off before the directory is
// locked.
#include "memstore/zovmfile_walk.h"

#include <assert.h>
#include <string.h>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovsegfile_private.h"

// 1. lastName is the name of the entry at cursor while the directory's count of
//    changes is seenChanges.
// 2. pattern lies behind the record, in the same block.
struct MemWalk {
  const char *pattern;
  char *lastName;  // in a block of nameRoom bytes; null before the first step
  uint64_t nameRoom;
  uint64_t directoryId;
  zov::Directory *directory;  // null as long as nothing was stored there
  zov::Cursor cursor;
  uint64_t seenChanges;
  bool ended;
};

namespace zov {
namespace {

// The entry behind that of the last step, whatever its name; null at the end.
const DirEntry *nextEntry(MemWalk &walk) {
  if (walk.lastName == nullptr) {
    return firstName(walk.cursor);
  }
  if (walk.seenChanges == walk.directory->changes) {
    return nextName(walk.cursor, true);
  }
  const bool stillThere = locate(walk.cursor, NameKey(walk.lastName)) == ZOV_OKAY;
  return nextName(walk.cursor, stillThere);
}

bool makeRoom(MemWalk &walk, uint64_t bytes) {
  if (bytes <= walk.nameRoom) {
    return true;
  }
  const uint64_t room = bytes < 64 ? 64 : bytes;
  char *name =
      static_cast<char *>(zov_extendMem(walk.lastName, room, ZOV_DEFAULT_TAG, 0, 0, ZOV_HERE));
  if (name == nullptr) {
    return false;
  }
  walk.lastName = name;
  walk.nameRoom = room;
  return true;
}

// Makes an entry that of the last step.
bool takeName(MemWalk &walk, const DirEntry &entry) {
  if (!makeRoom(walk, uint64_t{entry.nameLen} + 1)) {
    return false;
  }
  assert(entry.nameLen < walk.nameRoom);
  getName(walk.cursor, entry, walk.lastName);
  walk.seenChanges = walk.directory->changes;
  return true;
}

// Finds the directory if no step did so before. An empty one ends the walk.
bool begin(MemWalk &walk) {
  if (walk.directory == nullptr) {
    walk.directory = walk.ended ? nullptr : findSubdir(walk.directoryId);
    walk.ended = walk.directory == nullptr;
    if (!walk.ended) {
      walk.cursor = cursorOf(*walk.directory);
    }
  }
  return walk.directory != nullptr;
}

// Steps to the next name that matches. When memory is short the cursor has moved,
// and the next step looks the last name up.
WalkEnd pathNext(MemWalk &walk, int32_t &isDirectory) {
  while (!walk.ended) {
    const DirEntry *entry = nextEntry(walk);
    walk.ended = entry == nullptr;
    if (walk.ended) {
      break;
    }
    if (!takeName(walk, *entry)) {
      walk.seenChanges = ~walk.directory->changes;
      return WalkEnd::kNoMemory;
    }
    if (zov_match(walk.lastName, walk.pattern) != 0) {
      isDirectory = entry->type == kTypeDirectory ? 1 : 0;
      return WalkEnd::kName;
    }
  }
  return WalkEnd::kEnd;
}

}  // namespace

int32_t memWalkOpen(const char *directory, const char *pattern, ZOV_MEM_WALK &walk) {
  const NoJump noJump;
  uint64_t id = 0;
  const int32_t status = openMemSubdir(directoryPath(directory), 0, id);
  if (status != ZOV_OKAY) {
    return status;
  }
  const size_t patternBytes = strlen(pattern) + 1;
  walk = make<MemWalk>(ZOV_DEFAULT_TAG, ZOV_HERE, patternBytes);
  if (walk == nullptr) {
    return ZOV_NOMEMORY;
  }
  walk->pattern = static_cast<char *>(memcpy(walk + 1, pattern, patternBytes));
  walk->directoryId = id;
  return ZOV_OKAY;
}

WalkEnd memWalkNext(MemWalk &walk, const char *&name, int32_t &isDirectory) {
  const NoJump noJump;
  if (!begin(walk)) {
    return WalkEnd::kEnd;
  }
  const SegLock lock(walk.directory->tree.seg);
  const WalkEnd end = pathNext(walk, isDirectory);
  if (end == WalkEnd::kName) {
    name = walk.lastName;
  }
  return end;
}

}  // namespace zov

extern "C" {

ZOV_MEM_WALK zov_mfPathOpen(const char *directory, const char *pattern) {
  ZOV_MEM_WALK walk = nullptr;
  zov::memWalkOpen(directory, pattern, walk);
  return walk;
}

const char *zov_mfPathNext(ZOV_MEM_WALK walk, int32_t *isDirectory) {
  const char *name = nullptr;
  zov::memWalkNext(*walk, name, *isDirectory);
  return name;
}

void zov_mfPathClose(ZOV_MEM_WALK walk) {
  if (walk != nullptr) {
    zov_freeMem(walk->lastName, ZOV_DEFAULT_TAG);
    zov_freeMem(walk, ZOV_DEFAULT_TAG);
  }
}
}
