// SPDX-License-Identifier: Apache-2.0
//
// A copy of a file on disk that is to replace it, under a name that all processes
// agree on. One process at a time has the copy of a name.
#ifndef ZOV_FILES_ZOVFILE_LOCKEDCOPY_H
#define ZOV_FILES_ZOVFILE_LOCKEDCOPY_H

#include "files/zovfile_private.h"

namespace zov {

// 1. file is open for writing and holds the lock from a successful
//    lockedCopyMake() to lockedCopyEnd(), and null before.
// 2. The copy stands under its own path until isPlaced, then under the path of the
//    file that it replaced.
struct LockedCopy {
  const char *path;    // outlives the copy
  uint32_t typeFlags;  // of the file; with ZOV_FILE_NOSYNC nothing is synced
  ZOV_FILE file;       // never synced by zov_fileSync()
  bool isPlaced;
};

// None of these allocates more than a handle, and none jumps.

// Opens a file that is to be replaced to read, and tells its status. kNo when it
// is no plain file; waits for nothing. The permission bits in the status are those
// that its replacement may get, see passableMode().
Opened openOriginal(const char *path, uint32_t typeFlags, struct stat &status, ZOV_FILE &file);

// Makes the copy of an open file, empty and readable by its owner alone. Removes
// the copy of a killed process under the name, and waits two seconds for that of a
// living one. ZOV_ERROR when that is not enough, or when the name is of something
// else, and ZOV_NOMEMORY; the copy needs no end then.
int32_t lockedCopyMake(LockedCopy &copy, const struct stat &original);

// Gives the copy the owner and group of a file, or the group alone, or neither, as
// the system allows.
void lockedCopyGiveOwner(const LockedCopy &copy, const struct stat &original);

// Whether an open file is the copy.
bool lockedCopyIs(const LockedCopy &copy, const struct stat &file);

// Gives a copy that is written the permission bits of the original, syncs it, and
// renames it over the original. ZOV_ERROR leaves both as they are; but with
// isPlaced it says that the directory could not be synced.
int32_t lockedCopyPlace(LockedCopy &copy, const char *path, const struct stat &original);

// Ends the lock and closes the copy, which is removed unless it was placed.
void lockedCopyEnd(LockedCopy &copy);

}  // namespace zov

#endif
