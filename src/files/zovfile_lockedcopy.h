// SPDX-License-Identifier: Apache-2.0
//
// A copy of a file on disk, under a name that all processes agree on, which is
// to take the file's place. Only one process at a time has the copy of a name.
#ifndef ZOV_FILES_ZOVFILE_LOCKEDCOPY_H
#define ZOV_FILES_ZOVFILE_LOCKEDCOPY_H

#include <sys/stat.h>

#include "zov.h"

namespace zov {

// 1. file is open for writing and holds the lock, from a successful
//    lockedCopyMake() to lockedCopyEnd().
// 2. Until isPlaced the copy stands under its own path, then under the path of
//    the file that it replaced.
struct LockedCopy {
  const char *path;    // outlives the copy
  uint32_t typeFlags;  // of the file; with ZOV_FILE_NOSYNC nothing is synced
  ZOV_FILE file;       // never synced by zov_fileSync()
  bool isPlaced;
};

// None of these allocates more than a handle, and none jumps.

// Opens a file that is to be replaced to read, and tells its status. Null when it
// is no plain file; nothing is waited for. The permission in the status is what
// its replacement may get: of a file with an access list the owner's alone.
ZOV_FILE openOriginal(const char *path, uint32_t typeFlags, struct stat &status);

// Makes the copy of an open file, empty and readable by its owner alone. Removes
// what a killed process left under the name, and waits two seconds for a living
// one. ZOV_ERROR when that was not enough, or when something is there that no
// process leaves there; nothing is owed then.
int32_t lockedCopyMake(LockedCopy &copy, const struct stat &original);

// Gives the copy the owner and the group of a file, or what of the two the
// system allows.
void lockedCopyGiveOwner(const LockedCopy &copy, const struct stat &original);

// Whether an open file is the copy.
bool lockedCopyIs(const LockedCopy &copy, const struct stat &file);

// Gives the copy, once all is written, the permission of the file it was made of,
// brings it to the disk and puts it under that file's path in one step. ZOV_ERROR
// before that step leaves both as they are; after it, isPlaced tells, the
// directory could not be synced.
int32_t lockedCopyPlace(LockedCopy &copy, const char *path, const struct stat &original);

// Ends the lock and closes the copy, which is removed unless it was placed.
void lockedCopyEnd(LockedCopy &copy);

}  // namespace zov

#endif
