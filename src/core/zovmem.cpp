// SPDX-License-Identifier: Apache-2.0
//
// Tagged memory. Every block carries a header of two words in front of the
// caller's bytes, which links it into the list of its tag, newest first:
//
//   tag.blocks -> [newer = null | older] -> [newer | older] -> ... older = null
//
// so that a block is unlinked in constant time and a tag can release all it
// owns in one walk. The tags themselves form a list from tag0, the default
// tag, to tagN, the newest.
//
// A thread-safe tag has a mutex of its own, which guards its fields and is held
// around the libc call. tagTabSem guards the list of tags. They nest in one
// place only, tag mutex before tagTabSem, when a tag is deleted. While the
// library terminates the sync objects are gone, and no lock is touched.
//
// zov_getMem() and zov_extendMem() may jump to the tag's recovery point. They
// do so from leaveForFailure() with every lock of this module released, the
// message written, and nothing done to the tag. Calls that hold something while
// they allocate jump through workOrJump(). jumpTo() alone calls longjmp().
//
// A block that is freed a second time has lost the mark of its header
// (zovmem_block.h). The block freed last is also known by its address, which is
// compared first: the pages of a large block may be gone. Where addresses leave
// no room for a mark, a record of the latest frees replaces it (zovmem_freed.h).
#include <assert.h>
#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "core/zov_flags.h"
#include "core/zov_lock.h"
#include "core/zov_shortage.h"
#include "core/zovmem_block.h"
#include "core/zovmem_freed.h"
#include "core/zovmem_private.h"
#include "core/zovuxthreads_private.h"

namespace {

using zov::BlockHeader;

constexpr uint64_t kHeaderBytes = sizeof(BlockHeader);
constexpr uint64_t kLargestBlock = UINT64_MAX - kHeaderBytes;

// Zeroed blocks below this come from malloc(), which has the memory of a thread's
// latest frees at hand. calloc() goes past that to the lock of its heap.
constexpr uint64_t kFewBytes = 1000;

// What a failing allocation does.
enum class FailMode : uint8_t { kAlwaysReturns, kReturns, kJumps };

// Rank 12: the list of tags.
ZOV_SYNC tagTabSem = ZOV_NO_SYNC;

// mutex, of rank 11, is ZOV_NO_SYNC when the tag is not thread-safe.
struct TagRecord {
  TagRecord *next ZOV_GUARDED_BY(tagTabSem);      // newer tag, null for tagN
  TagRecord *previous ZOV_GUARDED_BY(tagTabSem);  // older tag, null for tag0
  ZOV_SYNC mutex;
  BlockHeader *blocks ZOV_GUARDED_BY(mutex);     // newest block, null when there is none
  zov::FreedBlocks freed ZOV_GUARDED_BY(mutex);  // what the marks do not tell
  FailMode mode ZOV_GUARDED_BY(mutex);
};

// A tag whose mode is not kAlwaysReturns. The others have the shorter record.
struct ArmableTag : TagRecord {
  jmp_buf recovery;  // meaningful in mode kJumps
};

jmp_buf &recoveryIn(TagRecord &tag) ZOV_REQUIRES(tag.mutex) {
  assert(tag.mode != FailMode::kAlwaysReturns);
  return static_cast<ArmableTag &>(tag).recovery;
}

// tag0 changes at start-up and shut-down only.
TagRecord *tag0 = nullptr;
TagRecord *tagN ZOV_GUARDED_BY(tagTabSem) = nullptr;

TagRecord *resolve(ZOV_TAG tag) {
  return tag == ZOV_DEFAULT_TAG ? tag0 : reinterpret_cast<TagRecord *>(tag);
}

uintptr_t addressOf(const BlockHeader *header) {
  return reinterpret_cast<uintptr_t>(header);
}

BlockHeader *headerOf(void *block) {
  return static_cast<BlockHeader *>(block) - 1;
}

// Enters and leaves a tag's mutex or tagTabSem: where there is none, and while the
// library terminates, nothing. The analysis takes it for held all the same.
void enterIfAny(ZOV_SYNC mutex) ZOV_ACQUIRE(mutex) ZOV_NO_ANALYSIS {
  if (mutex != ZOV_NO_SYNC && !zov::terminating()) {
    zov::enterDirectly(mutex);
  }
}

void leaveIfAny(ZOV_SYNC mutex) ZOV_RELEASE(mutex) ZOV_NO_ANALYSIS {
  if (mutex != ZOV_NO_SYNC && !zov::terminating()) {
    zov::leaveDirectly(mutex);
  }
}

// A tag without mutex is one thread's at a time, which is as good as a lock.
void assumeUnshared([[maybe_unused]] const TagRecord &tag) ZOV_ASSERT_HELD(tag.mutex) {
  assert(tag.mutex == ZOV_NO_SYNC);
}

// While there is no tagTabSem, at start-up and shut-down, there is one thread.
void assumeAlone() ZOV_ASSERT_HELD(tagTabSem) {
  assert(tagTabSem == ZOV_NO_SYNC);
}

void linkBlock(TagRecord &tag, BlockHeader *header) ZOV_REQUIRES(tag.mutex) {
  BlockHeader *head = tag.blocks;
  assert(head == nullptr || head->newer() == nullptr);
  header->setNewer(nullptr);
  header->older = head;
  if (head != nullptr) {
    head->setNewer(header);
  }
  tag.blocks = header;
  tag.freed.forget(addressOf(header));
}

void unlinkBlock(TagRecord &tag, BlockHeader *header) ZOV_REQUIRES(tag.mutex) {
  BlockHeader *newer = header->newer();
  BlockHeader *older = header->older;
  (newer != nullptr ? newer->older : tag.blocks) = older;
  if (older != nullptr) {
    older->setNewer(newer);
  }
}

// Without marks, of a block that is not the head two empty words mean that it
// belongs to no list.
// GCOVR_EXCL_START: where coverage is measured, on x86-64, there are marks.
bool isListed(const TagRecord &tag, const BlockHeader *header) ZOV_REQUIRES(tag.mutex) {
  return header->markedNewer != 0 || header->older != nullptr || tag.blocks == header;
}
// GCOVR_EXCL_STOP

bool isFreed(const TagRecord &tag, const BlockHeader *header) ZOV_REQUIRES(tag.mutex) {
  return tag.freed.holds(addressOf(header)) ||
         !(zov::kMarksFit ? zov::isMarked(header) : isListed(tag, header));
}

// Where the caller asked for memory, for the message if that fails.
struct Failure {
  const char *sourceName;
  uint32_t line;
};

// Leaves the tag's mutex, reports that an allocation failed and jumps if the tag
// is armed: from a copy, as another thread may change the tag by then.
[[gnu::cold, gnu::noinline]] void *leaveForFailure(TagRecord &tag, Failure failure)
    ZOV_RELEASE(tag.mutex) {
  const bool jumps = tag.mode == FailMode::kJumps && zov::noJumpDepth == 0;
  jmp_buf recovery;
  if (jumps) {
    memcpy(recovery, recoveryIn(tag), sizeof recovery);
  }
  leaveIfAny(tag.mutex);
  errno = ENOMEM;  // and the message leaves it
  zov::reportShortage(zov::Shortage::kMemory, failure.sourceName, failure.line);
  if (jumps) {
    zov::jumpTo(recovery);
  }
  return nullptr;
}

void *afterHeader(BlockHeader *header) {
  return header + 1;
}

BlockHeader *allocate(uint64_t size, bool zero) {
  if (size > kLargestBlock) {
    return nullptr;
  }
  void *memory = zero ? calloc(1, size + kHeaderBytes) : malloc(size + kHeaderBytes);
  return static_cast<BlockHeader *>(memory);
}

// realloc() out of the compiler's sight, which would object to what is done with
// the old address afterwards.
[[gnu::noinline]] BlockHeader *reallocate(BlockHeader *header, uint64_t size) {
  return size > kLargestBlock ? nullptr
                              : static_cast<BlockHeader *>(realloc(header, size + kHeaderBytes));
}

// Allocates a block for a tag without mutex. Inlined, as callers choose such a tag
// for many small blocks.
inline void *getUnlocked(TagRecord &tag, uint64_t size, Failure failure) {
  assumeUnshared(tag);
  BlockHeader *header = allocate(size, false);
  if (header == nullptr) [[unlikely]] {
    return leaveForFailure(tag, failure);
  }
  linkBlock(tag, header);
  return afterHeader(header);
}

[[gnu::noinline]] void *_getMem(TagRecord &tag, uint64_t size, bool zero, Failure failure) {
  enterIfAny(tag.mutex);
  BlockHeader *header = allocate(size, zero);
  if (header == nullptr) [[unlikely]] {
    return leaveForFailure(tag, failure);
  }
  linkBlock(tag, header);
  leaveIfAny(tag.mutex);
  return afterHeader(header);
}

void *getZeroedMem(TagRecord &tag, uint64_t size, Failure failure) {
  if (size >= kFewBytes) {
    return _getMem(tag, size, true, failure);
  }
  void *block = _getMem(tag, size, false, failure);
  return block == nullptr ? nullptr : memset(block, 0, size);
}

void *copyMem(TagRecord &tag, const void *source, uint64_t size, Failure failure) {
  void *block = _getMem(tag, size, false, failure);
  return block == nullptr ? nullptr : memcpy(block, source, size);
}

// Every mode but the plain one.
[[gnu::noinline]] void *getFilledMem(TagRecord &tag, uint64_t size, uint32_t mode,
                                     const void *source, Failure failure) {
  if (mode == ZOV_MEM_ZERO) {
    return size == 0 ? nullptr : getZeroedMem(tag, size, failure);
  }
  if (source == nullptr) {
    return nullptr;
  }
  switch (mode) {
    case ZOV_MEM_STRDUP:
      return copyMem(tag, source, strlen(static_cast<const char *>(source)) + 1, failure);
    case ZOV_MEM_COPY:
      return size == 0 ? nullptr : copyMem(tag, source, size, failure);
    case ZOV_MEM_WSTRDUP:
      return copyMem(tag, source,
                     (wcslen(static_cast<const wchar_t *>(source)) + 1) * sizeof(wchar_t), failure);
    default:
      return nullptr;
  }
}

// Puts a block that realloc() moved in the place of the old one, by the
// neighbours it had.
void relink(TagRecord &tag, BlockHeader *header, BlockHeader links) ZOV_REQUIRES(tag.mutex) {
  *header = links;
  BlockHeader *newer = links.newer();
  (newer != nullptr ? newer->older : tag.blocks) = header;
  if (links.older != nullptr) {
    links.older->setNewer(header);
  }
}

// Takes a block off its tag, ready for libc; false when it was freed already.
inline bool detachBlock(TagRecord &tag, BlockHeader *header) ZOV_REQUIRES(tag.mutex) {
  if (isFreed(tag, header)) [[unlikely]] {
    return false;
  }
  unlinkBlock(tag, header);
  header->clear();
  tag.freed.add(addressOf(header));
  return true;
}

// With puts(), not through the log, as the programs that look for it expect.
[[gnu::cold, gnu::noinline]] void reportDoubleFree() {
  puts("Attempting to free previously freed memory");
}

[[gnu::noinline]] void freeLocked(TagRecord &tag, BlockHeader *header) {
  enterIfAny(tag.mutex);
  const bool detached = detachBlock(tag, header);
  if (detached) {
    free(header);
  }
  leaveIfAny(tag.mutex);
  if (!detached) {
    reportDoubleFree();
  }
}

void releaseBlocks(TagRecord &tag) ZOV_REQUIRES(tag.mutex) {
  BlockHeader *header = tag.blocks;
  tag.blocks = nullptr;
  while (header != nullptr) {
    BlockHeader *older = header->older;
    header->clear();
    tag.freed.add(addressOf(header));
    free(header);
    header = older;
  }
}

void unlinkTag(TagRecord *tag) ZOV_REQUIRES(tagTabSem) {
  assert((tag->previous == nullptr) == (tag == tag0) && (tag->next == nullptr) == (tag == tagN));
  (tag->previous != nullptr ? tag->previous->next : tag0) = tag->next;
  (tag->next != nullptr ? tag->next->previous : tagN) = tag->previous;
}

void linkTag(TagRecord *tag) ZOV_REQUIRES(tagTabSem) {
  assert(tagN != nullptr && tagN->next == nullptr);
  tag->previous = tagN;
  tagN->next = tag;
  tagN = tag;
}

// Releases a tag whose mutex the caller holds, and which no thread wants any more.
void deleteTag(TagRecord *tag) ZOV_RELEASE(tag->mutex) {
  const ZOV_SYNC mutex = tag->mutex;
  enterIfAny(tagTabSem);
  unlinkTag(tag);
  leaveIfAny(tag->mutex);
  free(tag);
  if (mutex != ZOV_NO_SYNC && !zov::terminating()) {
    zov_syncDelete(mutex);
  }
  leaveIfAny(tagTabSem);
}

void _freeTagMemory(TagRecord *tag, bool deleteIt) {
  enterIfAny(tag->mutex);
  releaseBlocks(*tag);
  if (deleteIt) {
    deleteTag(tag);
  } else {
    leaveIfAny(tag->mutex);
  }
}

// The record of a tag without mutex, or null.
TagRecord *newRecord(size_t bytes, FailMode mode) {
  TagRecord *tag = static_cast<TagRecord *>(calloc(1, bytes));
  if (tag != nullptr) {
    tag->mutex = ZOV_NO_SYNC;
    assumeUnshared(*tag);
    tag->mode = mode;
  }
  return tag;
}

TagRecord *newRecord(jmp_buf *recovery) {
  TagRecord *tag = newRecord(sizeof(ArmableTag), FailMode::kReturns);
  if (tag != nullptr && recovery != nullptr) {
    assumeUnshared(*tag);
    memcpy(recoveryIn(*tag), *recovery, sizeof *recovery);
    tag->mode = FailMode::kJumps;
  }
  return tag;
}

ZOV_TAG publish(TagRecord *tag) {
  enterIfAny(tagTabSem);
  linkTag(tag);
  leaveIfAny(tagTabSem);
  return reinterpret_cast<ZOV_TAG>(tag);
}

int32_t abandonInit() {
  zov::abandonMemory();
  return ZOV_ERROR;
}

bool isNoTag(ZOV_TAG tag) {
  return tag == ZOV_NO_TAG;
}

}  // namespace

ZOV_TAG zov::createPlainTag() {
  assert(started());
  TagRecord *tag = newRecord(sizeof(TagRecord), FailMode::kAlwaysReturns);
  return tag == nullptr ? ZOV_NO_TAG : publish(tag);
}

bool zov::recoveryOf(ZOV_TAG tag, jmp_buf recovery) {
  if (!started() || isNoTag(tag)) {
    return false;
  }
  TagRecord &record = *resolve(tag);
  enterIfAny(record.mutex);
  const bool isArmed = record.mode == FailMode::kJumps;
  if (isArmed) {
    memcpy(recovery, recoveryIn(record), sizeof recoveryIn(record));
  }
  leaveIfAny(record.mutex);
  return isArmed;
}

void zov::jumpTo(jmp_buf recovery) {
  assert(noJumpDepth == 0);
  longjmp(recovery, 1);
}

void zov::abandonMemory() {
  storeFlag(zov_terminating, 1);
  zov_syncShutdown();
  zov_memTerm();
  storeFlag(zov_terminating, 0);
}

extern "C" {

ZOV_TAG zov_createTagEx(jmp_buf *recovery, uint32_t flags, const char *, uint32_t) {
  if (!zov::started()) {
    return ZOV_NO_TAG;
  }
  TagRecord *tag = newRecord(recovery);
  if (tag == nullptr) {
    return ZOV_NO_TAG;
  }
  if ((flags & ZOV_TAG_THREADSAFE) != 0) {
    tag->mutex = zov::createMutex(zov::LockKind::kTag, ZOV_HERE);
  }
  return publish(tag);
}

void zov_freeTagMemory(ZOV_TAG tag, uint16_t deleteTag) {
  if (!zov::started() || tag == ZOV_DEFAULT_TAG || isNoTag(tag)) {
    return;
  }
  _freeTagMemory(resolve(tag), deleteTag != 0);
}

void zov_resetTag(jmp_buf *recovery, ZOV_TAG tag) {
  if (!zov::started() || isNoTag(tag)) {
    return;
  }
  TagRecord &record = *resolve(tag);
  enterIfAny(record.mutex);
  assert(record.mode != FailMode::kAlwaysReturns);
  if (recovery != nullptr) {
    memcpy(recoveryIn(record), *recovery, sizeof *recovery);
    record.mode = FailMode::kJumps;
  } else {
    record.mode = FailMode::kReturns;
  }
  leaveIfAny(record.mutex);
}

void *zov_getMem(uint64_t size, ZOV_TAG tag, uint32_t mode, const void *source,
                 const char *sourceName, uint32_t line) {
  if (!zov::started() || isNoTag(tag)) [[unlikely]] {
    return nullptr;
  }
  zov::checkAllocation();
  TagRecord &record = *resolve(tag);
  if (mode != ZOV_MEM_PLAIN) {
    return getFilledMem(record, size, mode, source, {sourceName, line});
  }
  if (size == 0) {
    return nullptr;
  }
  return record.mutex == ZOV_NO_SYNC ? getUnlocked(record, size, {sourceName, line})
                                     : _getMem(record, size, false, {sourceName, line});
}

void *zov_extendMem(void *block, uint64_t newSize, ZOV_TAG tag, int32_t zero, uint64_t grownBytes,
                    const char *sourceName, uint32_t line) {
  if (!zov::started() || isNoTag(tag)) {
    return nullptr;
  }
  if (block == nullptr) {
    const uint32_t mode = zero != 0 ? ZOV_MEM_ZERO : ZOV_MEM_PLAIN;
    return zov_getMem(newSize, tag, mode, nullptr, sourceName, line);
  }
  zov::checkAllocation();
  TagRecord &record = *resolve(tag);
  enterIfAny(record.mutex);
  BlockHeader *old = headerOf(block);
  const BlockHeader links = *old;
  const uintptr_t oldAddress = addressOf(old);
  old->clear();  // its place is a freed block's if it moves
  BlockHeader *header = reallocate(old, newSize);
  if (header == nullptr) {
    *old = links;
    return leaveForFailure(record, {sourceName, line});
  }
  relink(record, header, links);
  record.freed.replace(oldAddress, addressOf(header));
  leaveIfAny(record.mutex);
  if (zero != 0) {
    const uint64_t cleared = grownBytes < newSize ? grownBytes : newSize;
    memset(static_cast<char *>(afterHeader(header)) + (newSize - cleared), 0, cleared);
  }
  return afterHeader(header);
}

void zov_freeMem(void *block, ZOV_TAG tag) {
  if (block == nullptr || !zov::started() || isNoTag(tag)) {
    return;
  }
  TagRecord &record = *resolve(tag);
  BlockHeader *header = headerOf(block);
  if (record.mutex != ZOV_NO_SYNC) {
    freeLocked(record, header);
    return;
  }
  assumeUnshared(record);
  if (detachBlock(record, header)) [[likely]] {
    free(header);
  } else {
    reportDoubleFree();
  }
}

void zov_moveMemTag(void *block, ZOV_TAG newTag, ZOV_TAG currentTag) {
  if (block == nullptr || !zov::started() || newTag == currentTag || isNoTag(newTag) ||
      isNoTag(currentTag)) {
    return;
  }
  TagRecord &from = *resolve(currentTag);
  TagRecord &to = *resolve(newTag);
  BlockHeader *header = headerOf(block);
  enterIfAny(from.mutex);
  unlinkBlock(from, header);
  leaveIfAny(from.mutex);
  enterIfAny(to.mutex);
  linkBlock(to, header);
  leaveIfAny(to.mutex);
}

int32_t zov_memCmp(const void *first, const void *second, uint64_t length) {
  const int order = length == 0 ? 0 : memcmp(first, second, length);
  return (order > 0) - (order < 0);
}

int32_t zov_memInit() {
  assumeAlone();
  assert(tag0 == nullptr && tagN == nullptr);
  TagRecord *tag = newRecord(nullptr);
  if (tag == nullptr) {
    zov_log("Out of memory initializing ZOV memory module\n");
    return ZOV_ERROR;
  }
  // The tag is published first: the mutexes are allocated from it.
  tag0 = tag;
  tagN = tag;
  const ZOV_SYNC mutex = zov::createMutex(zov::LockKind::kTag, ZOV_HERE);
  if (mutex == ZOV_NO_SYNC) {
    return abandonInit();
  }
  tag->mutex = mutex;
  tagTabSem = zov::createMutex(zov::LockKind::kTagTable, ZOV_HERE);
  return tagTabSem == ZOV_NO_SYNC ? abandonInit() : ZOV_OKAY;
}

void zov_memTerm() {
  tagTabSem = ZOV_NO_SYNC;
  assumeAlone();
  while (tag0 != nullptr) {
    _freeTagMemory(tag0, true);
  }
}
}
