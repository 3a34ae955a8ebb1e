// SPDX-License-Identifier: Apache-2.0
//
// The four transfers of the native file primitives, inline for the file handles:
// each return after a system call is mispredicted, so a function less makes the
// shortest transfers measurably faster. And walks through a directory on disk, with
// results that tell why there is none or no name.
#ifndef ZOV_FILES_ZOVUNIX_PRIVATE_H
#define ZOV_FILES_ZOVUNIX_PRIVATE_H

#include <errno.h>
#include <unistd.h>

#include "memstore/zovmfile_walk.h"

namespace zov {

inline int nativeOf(uint64_t descriptor) {
  return static_cast<int>(descriptor);
}

// The result of a transfer from that of its system call, before which errno was
// cleared.
inline uint32_t transferred(ssize_t result) {
  return static_cast<int32_t>(result) < 0 && errno != 0 ? ZOV_IO_FAILED
                                                        : static_cast<uint32_t>(result);
}

inline uint32_t nativeWrite(uint64_t descriptor, const void *buffer, uint32_t lengthBytes) {
  errno = 0;
  return transferred(write(nativeOf(descriptor), buffer, lengthBytes));
}

inline uint32_t nativeRead(uint64_t descriptor, void *buffer, uint32_t lengthBytes) {
  errno = 0;
  return transferred(read(nativeOf(descriptor), buffer, lengthBytes));
}

inline uint32_t nativeSeekWrite(uint64_t descriptor, int64_t offset, const void *buffer,
                                uint32_t lengthBytes) {
  if (offset == ZOV_OFFSET_CURRENT) {
    return nativeWrite(descriptor, buffer, lengthBytes);
  }
  errno = 0;
  return transferred(pwrite(nativeOf(descriptor), buffer, lengthBytes, offset));
}

inline uint32_t nativeSeekRead(uint64_t descriptor, int64_t offset, void *buffer,
                               uint32_t lengthBytes) {
  if (offset == ZOV_OFFSET_CURRENT) {
    return nativeRead(descriptor, buffer, lengthBytes);
  }
  errno = 0;
  return transferred(pread(nativeOf(descriptor), buffer, lengthBytes, offset));
}

// zov_flPathOpen(). ZOV_OKAY with the walk; without, ZOV_NOMEMORY, or ZOV_ERROR with
// errno.
int32_t diskWalkOpen(const char *directory, const char *pattern, ZOV_DISK_WALK &walk);

// zov_flPathNext(). name and isDirectory are set with kName only.
WalkEnd diskWalkNext(DiskWalk &walk, const char *&name, int32_t &isDirectory);

}  // namespace zov

#endif
