// SPDX-License-Identifier: Apache-2.0
//
// Paths on disk: their directory, and whether two of them mean the same file,
// directory or entry.
#ifndef ZOV_FILES_ZOVUNIX_ENTRY_H
#define ZOV_FILES_ZOVUNIX_ENTRY_H

#include <limits.h>
#include <sys/stat.h>

namespace zov {

inline bool isSame(const struct stat &first, const struct stat &second) {
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Copies a path. False for one that is too long for the system too.
bool copyPath(const char *path, char (&copy)[PATH_MAX]);

// The directory of a path's last component: the path up to it, or "." for a bare
// name. False for a path that is too long for the system too.
bool parentOf(const char *path, char (&directory)[PATH_MAX]);

// True when both paths exist and are of one file, symbolic links not followed:
// they are one entry, or links of one file.
bool isSameFile(const char *first, const char *second);

// True when a path leads to an open file, symbolic links followed.
bool leadsTo(const char *path, int descriptor);

// True when both paths lead to one directory, symbolic links followed.
bool isSameDirectory(const char *first, const char *second);

// True when both paths name the same entry of the same directory, which need
// not exist. "a" and "./a" do.
bool isSameEntry(const char *first, const char *second);

// True when the way of a symbolic link passes the entry of the other path: moved
// there, the link would lead to itself. Also when the system does not tell.
bool leadsThrough(const char *link, const char *entry);

// Replaces a path by where it leads to, all symbolic links followed; nothing need
// exist there. False when the links form a circle or their path is too long.
bool followLinks(char (&path)[PATH_MAX]);

}  // namespace zov

#endif
