// SPDX-License-Identifier: Apache-2.0
//
// What the sources of file handles share, and what other modules use to replace a
// file on disk.
#ifndef ZOV_FILES_ZOVFILE_PRIVATE_H
#define ZOV_FILES_ZOVFILE_PRIVATE_H

#include <sys/stat.h>

#include "core/zov_flags.h"
#include "core/zov_lock.h"
#include "memstore/zovmfile_walk.h"

// What Clang checks inside the library. Programs may unlock a file in another
// function than the one that locked it, so zov.h leaves them unchecked.
extern "C" {
int32_t zov_fileLock(ZOV_FILE file) ZOV_TRY_ACQUIRE(0, file);
void zov_fileUnlock(ZOV_FILE file) ZOV_RELEASE(file);
}

namespace zov {

// Type flags are the low 16 bits of what callers pass. No flag lies above them,
// so nothing drops the other bits.
inline bool isInMemory(uint32_t typeFlags) {
  return (typeFlags & ZOV_FILE_MEMORY) != 0;
}

// A path with the type flags of what it names.
struct Place {
  const char *path;
  uint32_t typeFlags;
};

inline bool isInMemory(const Place &place) {
  return isInMemory(place.typeFlags);
}

// Whether the process-wide modes let files and directories on disk change.
inline bool diskMayChange() {
  return loadFlag(zov_diskless) == 0 && loadFlag(zov_readonly) == 0;
}

// Whether a call that makes a directory left one there.
inline bool isMadeOrThere(int32_t status) {
  return status == ZOV_OKAY || status == ZOV_EXISTS;
}

// Handles (zovfile.cpp). Nothing here jumps.

// The number of the standard stream that a path on disk names, or -1.
int32_t standardStream(const char *path);

// zov_fileLock() for the length of one operation of the library.
inline bool tryFileLock(ZOV_FILE file) ZOV_TRY_ACQUIRE(true, file) {
  return zov_fileLock(file) == ZOV_OKAY;
}

// How the opening of a file ended.
enum class Opened : uint8_t {
  kYes,
  kNoMemory,
  kNo,  // errno says why
};

// zov_fileOpen() with a path, of a library that is started.
Opened fileOpen(const char *path, uint32_t openFlags, uint32_t typeFlags, ZOV_FILE &file);

// Opens a new file on disk as openNewFile() does.
Opened fileOpenNew(const char *path, uint32_t typeFlags, ZOV_FILE &file);

// Opens what a path on disk names to read, without waiting for it, and tells its
// status. kNo, perhaps without errno, when it is no plain file.
Opened fileOpenPlain(const char *path, uint32_t typeFlags, struct stat &status, ZOV_FILE &file);

// Opens a new file in memory that has no name, see newMemDraft(). The path is the
// name it is meant for. Null, with errno, without memory.
ZOV_FILE fileOpenDraft(const char *path, uint32_t typeFlags);

// What a handle stands for: a descriptor, or a file in memory and not null. Both
// stay the handle's.
int descriptorOf(const FileHandle &file);
ZOV_MFILE memFileOf(const FileHandle &file);

// Closes a handle. False, with errno, when the system tells only now that bytes
// were lost.
bool closesWhole(ZOV_FILE file);

// Walks (zovfile_walk.cpp).

// zov_pathOpenEx(). ZOV_OKAY with the walk. Without: ZOV_NOTFOUND when there is no such
// directory in memory, ZOV_NOMEMORY, or ZOV_ERROR.
int32_t walkOpen(const Place &directory, const char *pattern, ZOV_PATH_WALK &walk);

// zov_pathNext(). name and isDirectory are set with kName only.
WalkEnd walkNext(PathWalk &walk, const char *&name, int32_t &isDirectory);

// Copies (zovfile_copy.cpp). Callers hold jumps off.

// Whether two paths are taken for one file without a look at it: they are equal
// but for case, and both on disk or both in memory.
bool isSamePath(const Place &first, const Place &second);

// Opens what is to be copied, to read: a plain file, a file in memory or a
// standard stream. Anything else is refused before it is opened.
ZOV_FILE openSource(const Place &place);

// Copies an open file over another, and makes sure that the source still ends
// where it ended when the copy began.
int32_t copyWhole(ZOV_FILE source, ZOV_FILE destination);

// Gives a file that was made to hold the contents of `source` its permission
// bits: no bit for group or others that the source lacks. A source in memory has
// no bits; those of the file to be replaced count then, if there is one. Does
// nothing for a file made in memory. ZOV_ERROR with errno.
int32_t passModeOn(const FileHandle &source, const FileHandle &made, const char *replaced);

// Removes the name of an open file if it still leads there.
int32_t removeNameOf(const FileHandle &file, const char *path);

// Files made beside others on disk (zovfile_beside.cpp). Nothing here allocates
// from a tag, takes a lock or reads the process-wide modes.

// Opens a file that must not exist yet for reading and writing, with permission
// for its owner alone: O_EXCL, O_NOFOLLOW, O_CLOEXEC, mode 0600. A descriptor,
// or -1 with errno.
int openNewFile(const char *path);

// Syncs the directory of a path whose entry was made or renamed. ZOV_ERROR with
// errno when that fails. ZOV_OKAY, without a sync, for a directory that may not be
// read (EACCES), on a file system that syncs none (EINVAL), and under
// ZOV_FILE_NOSYNC.
int32_t syncDirectoryOf(const char *path, uint32_t typeFlags);

// The permission bits that a file or directory passes to what replaces it: with an
// access list the owner's alone, since the group's bits are then the most that
// anybody on the list has.
mode_t passableMode(int descriptor, mode_t mode);
mode_t passableMode(const char *path, mode_t mode);

// Gives an open file the permission bits `wanted`, which were those of a file of
// `group`, and removes its access list. A file of another group gets no group
// bits, and of the bits for others only those that the group had. On a file system
// without modes the file stays as it was made. ZOV_ERROR with errno.
int32_t giveMode(int descriptor, mode_t wanted, gid_t group);

// The bits that the process denies to files it makes; all when the kernel does not
// show them. Leaves them as they are, for files that other threads make meanwhile.
mode_t deniedBits();

}  // namespace zov

#endif
