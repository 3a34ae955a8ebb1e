// SPDX-License-Identifier: Apache-2.0
//
// Whether two paths mean the same file, directory or entry on disk. Reads the file
// system and keeps nothing.
#include <assert.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files/zovunix_entry.h"

namespace zov {
namespace {

// Links that the system follows from one path.
constexpr int32_t kMostLinks = 40;

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
  assert(begin <= end && memchr(path + begin, '/', end - begin) == nullptr);
  return {path + begin, end - begin};
}

bool copyStart(const char *path, size_t length, char (&copy)[PATH_MAX]) {
  if (length >= sizeof copy) {
    return false;
  }
  memcpy(copy, path, length);
  copy[length] = '\0';
  return true;
}

bool copyParent(const char *path, EntryName name, char (&directory)[PATH_MAX]) {
  const size_t length = static_cast<size_t>(name.text - path);
  return length == 0 ? copyStart(".", 1, directory) : copyStart(path, length, directory);
}

enum class Step : uint8_t { kFollowed, kNoLink, kTooLong };

// Replaces the path of a link by the path that it holds.
Step followLink(char (&path)[PATH_MAX]) {
  assert(memchr(path, '\0', sizeof path) != nullptr);
  char target[PATH_MAX];
  const ssize_t count = readlink(path, target, sizeof target);
  if (count < 0) {
    return Step::kNoLink;
  }
  const size_t length = static_cast<size_t>(count);
  const size_t kept = target[0] == '/' ? 0 : static_cast<size_t>(entryName(path).text - path);
  if (kept + length >= sizeof path) {
    return Step::kTooLong;
  }
  memcpy(path + kept, target, length);
  path[kept + length] = '\0';
  return Step::kFollowed;
}

bool statParent(const char *path, EntryName name, struct stat *result) {
  char directory[PATH_MAX];
  return copyParent(path, name, directory) && stat(directory, result) == 0;
}

}  // namespace

bool copyPath(const char *path, char (&copy)[PATH_MAX]) {
  return copyStart(path, strlen(path), copy);
}

bool parentOf(const char *path, char (&directory)[PATH_MAX]) {
  return copyParent(path, entryName(path), directory);
}

bool isSameFile(const char *first, const char *second) {
  struct stat firstFile;
  struct stat secondFile;
  return lstat(first, &firstFile) == 0 && lstat(second, &secondFile) == 0 &&
         isSame(firstFile, secondFile);
}

bool leadsTo(const char *path, int descriptor) {
  struct stat named;
  struct stat opened;
  return stat(path, &named) == 0 && fstat(descriptor, &opened) == 0 && isSame(named, opened);
}

bool isSameDirectory(const char *first, const char *second) {
  struct stat firstFile;
  struct stat secondFile;
  return stat(first, &firstFile) == 0 && stat(second, &secondFile) == 0 &&
         S_ISDIR(firstFile.st_mode) && isSame(firstFile, secondFile);
}

bool isSameEntry(const char *first, const char *second) {
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

bool leadsThrough(const char *link, const char *entry) {
  char path[PATH_MAX];
  if (!copyPath(link, path)) {  // GCOVR_EXCL_BR_LINE: the system has taken this path before
    return true;                // GCOVR_EXCL_LINE
  }
  for (int32_t links = 0; links < kMostLinks; ++links) {
    const Step step = followLink(path);
    if (step != Step::kFollowed) {
      return step == Step::kTooLong;
    }
    if (isSameEntry(path, entry)) {
      return true;
    }
  }
  return false;  // a circle without the entry
}

bool followLinks(char (&path)[PATH_MAX]) {
  Step step = Step::kFollowed;
  // GCOVR_EXCL_BR_START: more links than the system follows are made after it was asked.
  for (int32_t links = 0; links <= kMostLinks && step == Step::kFollowed; ++links) {
    // GCOVR_EXCL_BR_STOP
    step = followLink(path);
  }
  return step == Step::kNoLink;
}

}  // namespace zov
