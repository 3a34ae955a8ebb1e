// SPDX-License-Identifier: Apache-2.0
//
// What the files of the file handle module share.
#ifndef ZOV_FILES_ZOVFILE_PRIVATE_H
#define ZOV_FILES_ZOVFILE_PRIVATE_H

#include "zov.h"

namespace zov {

// Two paths that are taken for one file without a look at it: they are equal
// but for case and both on disk or both in memory.
bool isSamePath(const char *first, uint32_t firstFlags, const char *second, uint32_t secondFlags);

inline bool isInMemory(uint32_t typeFlags) {
  return (typeFlags & ZOV_FILE_MEMORY) != 0;
}

}  // namespace zov

#endif
