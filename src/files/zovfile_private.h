// SPDX-License-Identifier: Apache-2.0
//
// What the files of the file handle module share, and what other modules use to
// put a new file in the place of an old one on disk.
#ifndef ZOV_FILES_ZOVFILE_PRIVATE_H
#define ZOV_FILES_ZOVFILE_PRIVATE_H

#include <sys/stat.h>

#include "zov.h"

namespace zov {

// Two paths that are taken for one file without a look at it: they are equal
// but for case and both on disk or both in memory.
bool isSamePath(const char *first, uint32_t firstFlags, const char *second, uint32_t secondFlags);

inline bool isInMemory(uint32_t typeFlags) {
  return (typeFlags & ZOV_FILE_MEMORY) != 0;
}

// Handles (zovfile.cpp). Neither jumps.

// Opens a new file on disk as openNewFile() does. Null with errno.
ZOV_FILE fileOpenNew(const char *path, uint32_t typeFlags);

// The descriptor of a handle on disk, which stays the handle's.
int descriptorOf(const FileHandle &file);

// Files that stand beside others on disk (zovfile_beside.cpp). Nothing here
// allocates from a tag, takes a lock or looks at the process-wide modes.

// Opens a file that must not exist yet for reading and writing, with permission
// for its owner alone: O_EXCL, O_NOFOLLOW, O_CLOEXEC, mode 0600. A descriptor,
// or -1 with errno.
int openNewFile(const char *path);

// Closes a handle on disk. False, with errno, when the system tells only now
// that bytes were lost.
bool closesWhole(ZOV_FILE file);

// Brings the entry that a path names, made or renamed before, to the disk.
// ZOV_ERROR with errno when that fails. Nothing to do for a directory that may
// not be read (EACCES), on a file system that syncs none (EINVAL), and under
// ZOV_FILE_NOSYNC.
int32_t syncDirectoryOf(const char *path, uint32_t typeFlags);

// Gives an open file the permission bits `mode`, those of a file of the group
// `group`. Where the file is not of that group nobody gets more by it: group bits
// go, and so do those for others that the group did not have. ZOV_ERROR with
// errno.
int32_t giveMode(int descriptor, mode_t mode, gid_t group);

// The bits that the process denies to files it makes; all when they cannot be
// learnt. Changes nothing, so that files other threads make meanwhile get theirs.
mode_t deniedBits();

}  // namespace zov

#endif
