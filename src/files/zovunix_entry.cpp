// SPDX-License-Identifier: Apache-2.0
//
// Whether two paths mean the same thing on disk: the same file, or the same
// entry of the same directory. Reads the file system and keeps nothing.
#include <limits.h>
#include <string.h>
#include <sys/stat.h>

#include "files/zovunix_entry.h"

namespace {

bool isSame(const struct stat &first, const struct stat &second) {
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// The last component of a path, without the separators behind it.
struct EntryName {
  const char *text;
  size_t length;
};

EntryName entryName(const char *path) {
  size_t end = strlen(path);
  while (end > 0 && path[end - 1] == '/') {
    --end;
  }
  size_t begin = end;
  while (begin > 0 && path[begin - 1] != '/') {
    --begin;
  }
  return {path + begin, end - begin};
}

bool copyParent(const char *path, EntryName name, char (&directory)[PATH_MAX]) {
  const size_t length = static_cast<size_t>(name.text - path);
  if (length >= sizeof directory) {
    return false;
  }
  memcpy(directory, path, length);
  directory[length] = '\0';
  if (length == 0) {
    strcpy(directory, ".");
  }
  return true;
}

bool statParent(const char *path, EntryName name, struct stat *result) {
  char directory[PATH_MAX];
  return copyParent(path, name, directory) && stat(directory, result) == 0;
}

}  // namespace

bool zov::parentOf(const char *path, char (&directory)[PATH_MAX]) {
  return copyParent(path, entryName(path), directory);
}

bool zov::isSameFile(const char *first, const char *second) {
  struct stat firstFile;
  struct stat secondFile;
  return lstat(first, &firstFile) == 0 && lstat(second, &secondFile) == 0 &&
         isSame(firstFile, secondFile);
}

bool zov::isSameEntry(const char *first, const char *second) {
  const EntryName firstName = entryName(first);
  const EntryName secondName = entryName(second);
  if (firstName.length != secondName.length ||
      memcmp(firstName.text, secondName.text, firstName.length) != 0) {
    return false;
  }
  struct stat firstParent;
  struct stat secondParent;
  return statParent(first, firstName, &firstParent) &&
         statParent(second, secondName, &secondParent) && isSame(firstParent, secondParent);
}
