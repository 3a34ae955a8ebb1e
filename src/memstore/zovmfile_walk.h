// SPDX-License-Identifier: Apache-2.0
//
// Looking for directories and files in memory, and walking through a directory,
// with results that tell why nothing was found. Nothing here jumps; any thread
// may call, but of one walk only one at a time.
#ifndef ZOV_MEMSTORE_ZOVMFILE_WALK_H
#define ZOV_MEMSTORE_ZOVMFILE_WALK_H

#include "zov.h"

namespace zov {

// How a step through a directory ended.
enum class WalkEnd : uint8_t {
  kName,      // there is a name, the walk's until the next step
  kEnd,       // there was none left
  kNoMemory,  // the next step goes on there
  kError,     // the directory could not be read; errno says why
};

// Looks for what a path names. ZOV_OKAY, ZOV_NOTFOUND, ZOV_NOMEMORY, or ZOV_ERROR for
// a path that leads through a file or is refused.
int32_t findMem(const char *path, bool &isDirectory);

// zov_mfPathOpen(). ZOV_OKAY with the walk, or as findMem() without.
int32_t memWalkOpen(const char *directory, const char *pattern, ZOV_MEM_WALK &walk);

// zov_mfPathNext(). name and isDirectory are set with kName only.
WalkEnd memWalkNext(MemWalk &walk, const char *&name, int32_t &isDirectory);

}  // namespace zov

#endif
