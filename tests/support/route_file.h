// SPDX-License-Identifier: Apache-2.0
//
// Whole files on disk or in memory, as the type flags say.
#ifndef TESTS_SUPPORT_ROUTE_FILE_H
#define TESTS_SUPPORT_ROUTE_FILE_H

#include <fcntl.h>

#include <string>

#include "zov.h"

namespace zovtest {

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

}  // namespace zovtest

#endif
