// SPDX-License-Identifier: Apache-2.0
//
// What the memory files ask of the segmented files beside the public calls.
#ifndef ZOV_MEMSTORE_ZOVSEGFILE_PRIVATE_H
#define ZOV_MEMSTORE_ZOVSEGFILE_PRIVATE_H

#include "core/zov_lock.h"

namespace zov {

// Removes the file of an id: at once, or with its last close. Also takes an id
// that no file was ever opened by. Cannot fail.
void segRemoveById(uint64_t id);

// The id of an open file.
uint64_t segIdOf(const SegFile &file);

// zov_segLock() for the length of one operation of the library.
void segLock(ZOV_SEG file) ZOV_ACQUIRE(file);

// The same for a scope. What allocates in it needs a NoJump before.
class ZOV_SCOPED_CAPABILITY SegLock {
 public:
  explicit SegLock(ZOV_SEG file) ZOV_ACQUIRE(file) : file_(file) { segLock(file); }
  ~SegLock() ZOV_RELEASE() { zov_segUnlock(file_); }
  SegLock(const SegLock &) = delete;
  SegLock &operator=(const SegLock &) = delete;

 private:
  const ZOV_SEG file_;
};

// zov_segSeekRead() and zov_segSeekWrite(), but -1, with errno ENOMEM, when there
// was something to move and a shortage of memory let nothing be moved.
int64_t segRead(ZOV_SEG file, uint64_t offset, void *buffer, uint32_t length);
int64_t segWrite(ZOV_SEG file, uint64_t offset, const void *buffer, uint32_t length);

// The number of bytes that one of these moved.
inline uint32_t movedBytes(int64_t moved) {
  return moved < 0 ? 0 : static_cast<uint32_t>(moved);
}

// zov_segSetSize(), but a failure leaves no segment that was not there before.
int32_t segSetSizeOrKeep(ZOV_SEG file, uint64_t size);

}  // namespace zov

#endif
