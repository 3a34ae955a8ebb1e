// SPDX-License-Identifier: Apache-2.0
//
// The four transfers of the native file primitives, inline for the file
// handles: after a system call every return through one more function is
// mispredicted, which shows beside the shortest transfers.
#ifndef ZOV_FILES_ZOVUNIX_PRIVATE_H
#define ZOV_FILES_ZOVUNIX_PRIVATE_H

#include <errno.h>
#include <unistd.h>

#include "zov.h"

namespace zov {

inline int nativeOf(uint64_t descriptor) {
  return static_cast<int>(descriptor);
}

// A transfer's outcome from what the system call returned, with errno cleared
// before the call.
inline uint32_t transferred(ssize_t result) {
  return static_cast<int32_t>(result) < 0 && errno != 0 ? ZOV_IO_FAILED
                                                        : static_cast<uint32_t>(result);
}

inline uint32_t nativeSeekWrite(uint64_t descriptor, int64_t offset, const void *buffer,
                                uint32_t lengthBytes) {
  const int native = nativeOf(descriptor);
  errno = 0;
  return transferred(offset == ZOV_OFFSET_CURRENT ? write(native, buffer, lengthBytes)
                                                  : pwrite(native, buffer, lengthBytes, offset));
}

inline uint32_t nativeSeekRead(uint64_t descriptor, int64_t offset, void *buffer,
                               uint32_t lengthBytes) {
  const int native = nativeOf(descriptor);
  errno = 0;
  return transferred(offset == ZOV_OFFSET_CURRENT ? read(native, buffer, lengthBytes)
                                                  : pread(native, buffer, lengthBytes, offset));
}

inline uint32_t nativeWrite(uint64_t descriptor, const void *buffer, uint32_t lengthBytes) {
  return nativeSeekWrite(descriptor, ZOV_OFFSET_CURRENT, buffer, lengthBytes);
}

inline uint32_t nativeRead(uint64_t descriptor, void *buffer, uint32_t lengthBytes) {
  return nativeSeekRead(descriptor, ZOV_OFFSET_CURRENT, buffer, lengthBytes);
}

}  // namespace zov

#endif
