// SPDX-License-Identifier: Apache-2.0
//
// Putting a file in memory in the place of another, in one step: under every
// name that is there before and after, other threads find the old file or the new
// one at each moment, never none and never half of one. Whatever fails, both
// stand as they were.
//
// Files are named as in zov_mfOpen(). Failures set errno. Nothing here jumps; any
// thread may call.
#ifndef ZOV_MEMSTORE_ZOVMFILE_PLACE_H
#define ZOV_MEMSTORE_ZOVMFILE_PLACE_H

#include "zov.h"

namespace zov {

// Makes an empty file that has no name, open at position 0; null when memory is
// short. It is used and closed as any other, and goes with its close unless it
// was placed before.
ZOV_MFILE newMemDraft();

// Gives a draft the name of `path`: its file takes the place of the one there,
// which goes as with zov_mfRemove(), or a new name is made. Without allocation in
// the first case. The handle stays open. A name that is made must be one that
// mayBeNewMemName() accepts. ZOV_ERROR: a directory is there, the name is refused,
// or memory is short.
int32_t placeMemDraft(ZOV_MFILE draft, const char *path);

// Moves a file to another name of the same or another directory, in the place of
// a file that is there, whose spelling of the name stays. A directory gets another
// name in its own directory only, and takes no place. ZOV_OKAY, with nothing
// touched, when both paths name one entry; ZOV_ERROR when the source is missing,
// the destination is refused or a directory, or memory is short.
int32_t moveMemFile(const char *source, const char *destination);

// Removes the name of an open file as zov_mfRemove() does, if it still leads to
// that file. ZOV_ERROR when it does not.
int32_t removeNameOfMemFile(const MemFile &file, const char *path);

// Whether two paths name the same entry of the same directory, which need not
// exist. The directories that lead there are made, as by every look-up.
bool isSameMemEntry(const char *first, const char *second);

// Whether two paths name the same directory, which exists.
bool isSameMemDirectory(const char *first, const char *second);

// Whether the last component of a path may become the name of something: it is
// not empty, not "." or "..", and has no backslash, which would separate names in
// the path of a directory.
bool mayBeNewMemName(const char *path);

}  // namespace zov

#endif
