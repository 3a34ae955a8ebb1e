// SPDX-License-Identifier: Apache-2.0
//
// The directories of the memory file system, and the way from a path to them.
//
// Everything that takes a Directory runs under its lock, and all of it with
// jumps held off.
#ifndef ZOV_MEMSTORE_ZOVMFILE_PRIVATE_H
#define ZOV_MEMSTORE_ZOVMFILE_PRIVATE_H

#include "memstore/zovmfile_tree.h"

// An open file.
struct MemFile {
  uint64_t position;  // where zov_mfRead() and zov_mfWrite() go on
  ZOV_SEG seg;
  uint64_t draftId;  // the id of a file that has no name yet; else 0
};

namespace zov {

// A directory, with the one handle of its file that its tree is used through.
// Made when something is first stored in the directory and kept to the end, since
// no directory is ever removed.
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

// The directory of an id, or null when nothing was stored in it yet.
Directory *findSubdir(uint64_t id);

// The directory of an id, for something to be stored in it: formatted if it is new.
// Null, with errno set, when that fails. The caller holds no directory's lock.
Directory *openSubdir(uint64_t id);

Cursor cursorOf(Directory &directory);

// Looks a name up: ZOV_OKAY with its id, ZOV_NOTFOUND with errno ENOENT and the
// cursor at its place, or ZOV_ERROR when the type is another, with errno ENOTDIR
// or EISDIR.
int32_t findMemEntityInSubdir(Cursor &cursor, const NameKey &key, uint16_t type, uint64_t &id);

// Whether a name is none: empty, "." or "..".
bool isDots(const NameKey &key);

// Whether a name may be given to what has another: it is one, and holds no
// backslash.
bool mayBeNewName(const NameKey &key);

// Adds an entry at the cursor, which a failed look-up left. ZOV_ERROR, with
// nothing changed and errno set, when the name is too long or memory is short.
int32_t addEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &key, uint64_t id,
                         uint16_t type);

// The same with a new id.
int32_t createEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &key, uint16_t type,
                            uint64_t &id);

// Removes the entry at the cursor.
void removeEntryInSubdir(Directory &directory, Cursor &cursor);

// Makes the entry at the cursor lead to another file. Cannot fail.
void replaceFileInSubdir(const Cursor &cursor, uint64_t id);

// Renames the entry at the cursor. ZOV_ERROR, with errno set, when the new name is
// there already or may not be given.
int32_t renameEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &newKey);

// Finds the directory of that name in this one; with O_CREAT makes it if it is
// missing. Other statuses than ZOV_OKAY set errno.
int32_t openSubdirInSubdir(Directory &parent, const NameKey &key, uint32_t flags, uint64_t &id);

int32_t directoriesInit();
void directoriesTerm();

// Paths (zovmfile_path.cpp).

// Resolves "." and "..", and empty components, in place; false when a ".." leads
// out of a relative path. A "/." at the end stays as it is.
bool normalizePath(char *path);

// A path that is normalised and then has no separator at its end: the caller's
// own bytes if they are, else a copy. Copies of usual length need no allocation.
class NormalPath {
 public:
  NormalPath(const char *path, size_t length);
  ~NormalPath();
  NormalPath(const NormalPath &) = delete;
  NormalPath &operator=(const NormalPath &) = delete;

  // Null, with errno set, when the path cannot be normalised or memory is short.
  const char *get() const { return text_; }
  size_t length() const { return length_; }

 private:
  char short_[512];
  char *long_ = nullptr;
  const char *text_ = nullptr;
  size_t length_ = 0;
};

// The path of a directory, without the separators at its end. A "." there stays, as
// normalizePath() has it, and names no directory.
NormalPath directoryPath(const char *path);

// Finds a directory by its normalised path. The directories above it are made if
// they are missing, itself with O_CREAT. False, with errno set, when there is none.
bool openMemSubdir(const NormalPath &path, uint32_t flags, uint64_t &id);

// What a path leads to: a name in a directory, and perhaps an entry.
struct Target {
  explicit Target(const char *path);

  const char *path;
  NameKey key;           // the last component
  uint64_t directoryId;  // of what it stands in
  Directory *directory;  // the same; null while nothing is stored there
  Cursor cursor;         // at the entry, unless it was made just now
  uint64_t id;
  bool created;
};

// Finds the directory that a path's last component stands in, making what is
// missing, and does not lock it; `toStore` says that it is to be formatted if nothing
// is stored there. False, with errno set, when there is none.
bool findParent(Target &target, bool toStore);

// Finds the entry a path names, with O_CREAT making a file that is missing, and
// all directories above it in any case. With ZOV_OKAY the directory is locked
// and the caller unlocks it; with any other status it is not.
int32_t handleFullPath(Target &target, uint32_t flags, uint16_t type);

}  // namespace zov

#endif
