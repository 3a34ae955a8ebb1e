// SPDX-License-Identifier: Apache-2.0
//
// What paths on disk mean: their directory, and whether two mean the same thing.
#ifndef ZOV_FILES_ZOVUNIX_ENTRY_H
#define ZOV_FILES_ZOVUNIX_ENTRY_H

#include <limits.h>
#include <sys/stat.h>

namespace zov {

inline bool isSame(const struct stat &first, const struct stat &second) {
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// The directory that a path's last component stands in: the path up to it, or
// "." where there is no more. False for a path that the system would not take
// either.
bool parentOf(const char *path, char (&directory)[PATH_MAX]);

// True when both paths exist and lead to one file, links not followed: they are
// one entry, or links of one file.
bool isSameFile(const char *first, const char *second);

// True when a path, links followed, leads to an open file.
bool leadsTo(const char *path, int descriptor);

// True when both paths lead to one directory, links followed.
bool isSameDirectory(const char *first, const char *second);

// True when both paths name the same entry of the same directory, which need
// not exist. "a" and "./a" do.
bool isSameEntry(const char *first, const char *second);

// True when a symbolic link leads to what it leads to by way of the entry that
// the other path names: put in the place of that entry it would lead to itself.
// Also when that cannot be found out.
bool leadsThrough(const char *link, const char *entry);

// Puts in the place of a path what it leads to, if it is a symbolic link, links
// to links followed to their end; that need not exist. False when the links go
// in a circle or their path is too long.
bool followLinks(char (&path)[PATH_MAX]);

}  // namespace zov

#endif
