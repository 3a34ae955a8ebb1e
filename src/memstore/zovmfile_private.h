// SPDX-License-Identifier: Apache-2.0
//
// The directories of the memory file system, and the way from a path to them.
//
// Everything that takes a Directory runs under its lock, and all of it with
// jumps held off.
#ifndef ZOV_MEMSTORE_ZOVMFILE_PRIVATE_H
#define ZOV_MEMSTORE_ZOVMFILE_PRIVATE_H

#include "core/zov_lock.h"
#include "memstore/zovmfile_tree.h"
#include "memstore/zovshm_private.h"

// An open file.
struct MemFile {
  uint64_t position;  // where zov_mfRead() and zov_mfWrite() go on
  ZOV_SEG seg;
  bool isDraft;  // the file has no name yet
};

namespace zov {

// A directory, with its tree over the one handle of its file that is used. Made when
// something is first stored in the directory and kept to the end, since no directory
// is ever removed.
//
// id never changes and is read without a lock. The file's lock guards changes and
// tree.
struct Directory {
  uint64_t id;
  Tree tree;
  uint64_t changes;  // counts insertions and removals; a Cursor is valid while it stays
  Directory *hashNext;

  uint64_t hashId() const { return id; }
};

// Directories (zovmfile_dir.cpp).

// The directory of an id, or null while nothing was stored in it.
Directory *findSubdir(uint64_t id);

// The directory of an id, formatted if it is new, for something to be stored in it.
// Null, with errno set, when that fails. The caller holds no directory's lock.
Directory *openSubdir(uint64_t id);

Cursor cursorOf(Directory &directory);

// Looks a name up: ZOV_OKAY with its id; ZOV_NOTFOUND with errno ENOENT and the
// cursor where it belongs; or, when it is of another type, ZOV_ERROR with errno
// ENOTDIR or EISDIR.
int32_t findMemEntityInSubdir(Cursor &cursor, const NameKey &key, uint16_t type, uint64_t &id);

// Whether a component of a path names no entry: it is empty, "." or "..".
bool isDots(const NameKey &key);

// Whether an entry may be renamed to this: it is a name, and holds no backslash.
bool mayBeNewName(const NameKey &key);

// Adds an entry at the cursor, which a failed look-up left. ZOV_ERROR when the name is
// too long, ZOV_NOMEMORY when memory is short; each with nothing changed and errno set.
int32_t addEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &key, uint64_t id,
                         uint16_t type);

// The same with a new id.
int32_t createEntryInSubdir(Directory &directory, Cursor &cursor, const NameKey &key, uint16_t type,
                            uint64_t &id);

// Removes the entry at the cursor.
void removeEntryInSubdir(Directory &directory, Cursor &cursor);

// Makes the entry at the cursor lead to another file. Cannot fail.
void replaceFileInSubdir(const Cursor &cursor, uint64_t id);

// Renames the entry at the cursor. ZOV_ERROR when the new name exists or is refused,
// ZOV_NOMEMORY when memory is short; each with errno set.
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

// A path in its normal form, without separators at its end. Refers to the caller's
// bytes if they have that form, else holds a copy. Copies of usual length need no
// allocation; the others are why jumps are held off while one lives.
class NormalPath {
 public:
  NormalPath(const char *path, size_t length);
  ~NormalPath();
  NormalPath(const NormalPath &) = delete;
  NormalPath &operator=(const NormalPath &) = delete;

  // ZOV_NOTFOUND when the path cannot be normalised, ZOV_NOMEMORY when memory is
  // short, both with errno set. The path is null then.
  int32_t status() const { return status_; }
  const char *get() const { return text_; }
  size_t length() const { return length_; }

 private:
  char short_[512];
  char *long_ = nullptr;
  const char *text_ = nullptr;
  size_t length_ = 0;
  int32_t status_ = ZOV_OKAY;
};

// The path of a directory, without the separators at its end. A "." there stays, as
// normalizePath() has it, and names no directory.
NormalPath directoryPath(const char *path);

// Finds a directory by its normalised path. The directories above it are made if
// they are missing, itself with O_CREAT. ZOV_NOTFOUND when it is missing,
// ZOV_NOMEMORY, or ZOV_ERROR when the path leads through a file or a name is too
// long; each with errno set.
int32_t openMemSubdir(const NormalPath &path, uint32_t flags, uint64_t &id);

// The look-up of a path: a name in a directory, and perhaps an entry.
struct Lookup {
  explicit Lookup(const char *path);

  const char *path;
  NameKey key;           // the last component
  uint64_t directoryId;  // of the directory that holds the name
  Directory *directory;  // the same; null while nothing is stored there
  Cursor cursor;         // at the entry, unless it was created
  uint64_t id;           // of the file or directory that the entry leads to
  bool created;          // by this look-up
};

// Finds the directory that holds the last component of the path, and makes it and
// those above it if they are missing. With `toStore` it is formatted if nothing is
// stored there. Does not lock it. ZOV_NOMEMORY, or ZOV_ERROR when there is none; each
// with errno set.
int32_t findParent(Lookup &lookup, bool toStore);

// Finds the entry of the path. Makes the directories above it if they are missing,
// and with O_CREAT the file too. With ZOV_OKAY the directory is locked and the caller
// unlocks it; with any other, ZOV_NOTFOUND, ZOV_NOMEMORY or ZOV_ERROR, it is not.
// Callers compare the status with 0: the analysis of locks follows that, and no
// comparison with an enumerator.
int32_t handleFullPath(Lookup &lookup, uint32_t flags, uint16_t type)
    ZOV_TRY_ACQUIRE(0, lookup.directory->tree.seg);

}  // namespace zov

#endif
