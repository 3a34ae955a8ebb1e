// SPDX-License-Identifier: Apache-2.0
//
// The directories of the memory file system, and the way from a path to them.
//
// Everything that takes a Directory runs under its lock, and all of it with
// jumps held off.
#ifndef ZOV_MEMSTORE_ZOVMFILE_PRIVATE_H
#define ZOV_MEMSTORE_ZOVMFILE_PRIVATE_H

#include "memstore/zovmfile_tree.h"

namespace zov {

// A directory, with the one handle of its file that its tree is used through.
// Made when the directory is first needed and kept to the end, since no
// directory is ever removed.
//
// id never changes. The file's lock guards changes and what tree grows by.
struct Directory {
  uint64_t id;
  Tree tree;
  uint64_t changes;  // counts what moves entries, and so spoils cursors
  Directory *next;   // in the list of all
  Directory *hashNext;

  uint64_t hashId() const { return id; }
};

// Directories (zovmfile_dir.cpp).

// The directory of an id, or null when memory is short. Formats it when it is
// new. Nobody may hold its lock but under that of its parent, while it is made.
Directory *openSubdir(uint64_t id);

Cursor cursorOf(Directory &directory);

// Looks a name up: ZOV_OKAY with its id, ZOV_NOTFOUND with errno ENOENT and the
// cursor at its place, or ZOV_ERROR when the type is another.
int32_t findMemEntityInSubdir(Cursor &cursor, const NameKey &key, uint16_t type, uint64_t &id);

// Adds an entry with a new id at the cursor, which a failed look-up left.
int32_t createEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &key, uint16_t type,
                            uint64_t &id);

// Removes the entry at the cursor.
void removeEntryInSubdir(Directory &directory, Cursor &cursor);

// Renames the entry at the cursor. ZOV_ERROR when the new name is there already.
int32_t renameEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &newKey);

// The directory of that name in this one; with O_CREAT made if it is missing.
// Null when it is not there or memory is short.
Directory *openSubdirInSubdir(Directory &parent, const NameKey &key, uint32_t flags);

int32_t directoriesInit();
void directoriesTerm();

// Paths (zovmfile_path.cpp).

// Resolves "." and "..", and empty components, in place; false when a ".." leads
// out of a relative path. A "/." at the end stays as it is.
bool normalizePath(char *path);

// A path that is normalised and has no separator at its end: the caller's own
// bytes if they are, else a copy. Copies of usual length need no allocation.
class NormalPath {
 public:
  NormalPath(const char *path, size_t length);
  ~NormalPath();
  NormalPath(const NormalPath &) = delete;
  NormalPath &operator=(const NormalPath &) = delete;

  // Null when the path cannot be normalised or memory is short.
  const char *get() const { return text_; }
  size_t length() const { return length_; }

 private:
  char short_[512];
  char *long_ = nullptr;
  const char *text_ = nullptr;
  size_t length_ = 0;
};

// Opens a directory by its normalised path. The directories above it are made if
// they are missing, itself with O_CREAT.
Directory *openMemSubdir(const NormalPath &path, uint32_t flags);

// What a path leads to: a name in a directory, and perhaps an entry.
struct Target {
  explicit Target(const char *path);

  const char *path;
  NameKey key;           // the last component
  Directory *directory;  // locked from a successful handleFullPath() on
  Cursor cursor;         // at the entry, unless it was made just now
  uint64_t id;
  bool created;
};

// Finds the entry a path names, with O_CREAT making a file that is missing, and
// all directories above it in any case. With ZOV_OKAY the directory is locked
// and the caller unlocks it; with any other status it is not.
int32_t handleFullPath(Target &target, uint32_t flags, uint16_t type);

}  // namespace zov

#endif
