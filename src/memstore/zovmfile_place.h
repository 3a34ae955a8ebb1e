// SPDX-License-Identifier: Apache-2.0
//
// Puts a file in memory in the place of another, in one step: under a name that
// exists before and after, other threads find the old file or the new one at each
// moment, never none and never half of one. Whatever fails, both stand as they were.
//
// Files are named as in zov_mfOpen(). Failures set errno. Nothing here jumps; any
// thread may call.
#ifndef ZOV_MEMSTORE_ZOVMFILE_PLACE_H
#define ZOV_MEMSTORE_ZOVMFILE_PLACE_H

#include "zov.h"

namespace zov {

// Makes an empty file without a name, open at position 0; null when memory is short.
// It is used and closed as any other, and its close removes it unless it was placed
// before.
ZOV_MFILE newMemDraft();

// Gives a draft the name of `path`. Its file takes the place of the one there, which
// is removed as by zov_mfRemove(), and nothing is allocated; or a new name is made,
// which may not be empty, "." or "..", nor have a backslash. The handle stays open.
// ZOV_ERROR when a directory has the name or the name is refused, ZOV_NOMEMORY when
// memory is short.
int32_t placeMemDraft(ZOV_MFILE draft, const char *path);

// Moves a file to another name of the same or another directory. It takes the place
// of a file there, and the name keeps that file's spelling. A directory is only
// renamed within its own directory, to a name that is free. ZOV_OKAY, with nothing
// touched, when both paths name one entry; ZOV_ERROR when the source is missing or
// the destination is refused or a directory, ZOV_NOMEMORY when memory is short.
int32_t moveMemFile(const char *source, const char *destination);

// Removes the name of an open file as zov_mfRemove() does, if it still leads to
// that file. ZOV_ERROR when it does not.
int32_t removeNameOfMemFile(const MemFile &file, const char *path);

// Whether two paths name the same entry of the same directory. The entry need not
// exist. The directories above it are made, as by every look-up.
bool isSameMemEntry(const char *first, const char *second);

// Whether two paths name the same directory. False when it does not exist.
bool isSameMemDirectory(const char *first, const char *second);

}  // namespace zov

#endif
