// SPDX-License-Identifier: Apache-2.0
//
// Whole files on disk or in memory, as the type flags say, and strings that the library
// hands out.
#ifndef TESTS_SUPPORT_ROUTE_FILE_H
#define TESTS_SUPPORT_ROUTE_FILE_H

#include <fcntl.h>

#include <string>
#include <vector>

#include "zov.h"

namespace zovtest {

// Takes over a string of the default tag.
inline std::string taken(char *text, const char *none = "") {
  const std::string copy = text == nullptr ? none : text;
  zov_freeMem(text, ZOV_DEFAULT_TAG);
  return copy;
}

inline bool putFile(const std::string &path, const std::string &bytes, uint32_t flags) {
  ZOV_FILE file = zov_fileOpen(path.c_str(), O_RDWR | O_TRUNC, flags);
  if (file == nullptr) {
    return false;
  }
  const uint32_t length = static_cast<uint32_t>(bytes.size());
  const bool written = zov_fileWrite(file, bytes.data(), length) == length;
  zov_fileClose(file);
  return written;
}

inline std::string getFile(const std::string &path, uint32_t flags) {
  ZOV_FILE file = zov_fileOpen(path.c_str(), O_RDONLY, flags);
  if (file == nullptr) {
    return "(none)";
  }
  std::string bytes(static_cast<size_t>(zov_fileLength(file)), '?');
  bytes.resize(zov_fileRead(file, bytes.data(), static_cast<uint32_t>(bytes.size())));
  zov_fileClose(file);
  return bytes;
}

// The names that a walk finds in a directory, those of directories with a slash behind.
inline std::vector<std::string> namesIn(const std::string &directory, uint32_t flags) {
  std::vector<std::string> names;
  int32_t isDirectory = 0;
  ZOV_PATH_WALK walk = zov_pathOpenEx(directory.c_str(), flags, "*");
  while (const char *name = zov_pathNext(walk, &isDirectory)) {
    names.push_back(name + std::string(isDirectory == 0 ? "" : "/"));
  }
  zov_pathClose(walk);
  return names;
}

}  // namespace zovtest

#endif
