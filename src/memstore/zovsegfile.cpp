// SPDX-License-Identifier: Apache-2.0
//
// Segmented files: growable arrays of bytes in the regions of one heap context
// each. The context's root block is the file's header, shared by all handles of
// the file; a handle holds the segments that it has touched:
//
//   SegFile.segs[n] -> cache region n -> bytes [calc_segstart(n), + calc_segsize(n))
//
// The file's lock, which is the context's, guards the header, the data and the
// segments of each handle. Under it the cache takes its own mutex when a segment is
// opened, but not for what is transferred: a segment stays open until its handle is
// closed or the segment cut off, and an open region never moves. So transfers pin
// nothing; zov_segGetPtr() does. size and modTime are atomics besides, read without
// the lock.
//
// Bytes at and past the size are zero: what is cut off is cleared if it stays. A
// segment that is cut off while another handle has it open is destroyed with its
// last close, unless a handle needs it again before. Holes are segments that do not
// exist yet.
//
// Nothing jumps: what allocates may do so under the file's lock, so jumps are
// held off from before it is entered.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>

#include <algorithm>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zov_word.h"
#include "memstore/zovsegfile_private.h"
#include "memstore/zovshm_private.h"
#include "memstore/zovshmcache_private.h"
#include "memstore/zovshmheap_private.h"

namespace zov {

// The root block of a file. The heap reads words of it too, by their offset.
struct SegHeader {
  uint64_t modTime;      // of the last write, in seconds; 0 until then
  uint32_t numSegments;  // one above the highest number made and not cut off
  uint32_t segSize;      // base segment size in bytes, 0 until the first open
  uint64_t size;         // bytes in the file
};
static_assert(sizeof(SegHeader) == 24 && offsetof(SegHeader, size) == 16);

}  // namespace zov

// baseBytes repeats the header's segSize, which never changes after the first open:
// transfers compute with it and need not load the header.
struct SegFile {
  ZOV_CACHE_CTX ctx;
  uint64_t id;
  zov::SegHeader *hdr;
  zov::SlotTable<ZOV_CACHE_REGION> segs;  // the segments that are open
  uint32_t baseBytes;
};

namespace zov {
namespace {

using Slots = SlotTable<ZOV_CACHE_REGION>;

// A piece of a file within one segment. It stays where it is while the handle has
// the segment open.
struct Piece {
  char *data;
  uint32_t bytes;
};

constexpr uint32_t kSpareSlots = 3;

// Bytes lie below this offset. It bounds what a mistaken offset can cost.
constexpr uint64_t kEndOfBytes = uint64_t{1} << 47;

uint32_t pagesize = 0;

// The number of the segment that an offset lies in. With base size B, group 0 has
// four segments of B bytes; group g, 1 to 5, has three of 4^g * B; group 6 the rest.
// A segment of group g > 0 begins at a multiple of its size, in groups 1 to 5 at 1,
// 2 or 3 times it; so its number is offset / size + 3g.
uint64_t calc_segno(uint32_t baseBytes, uint64_t offset) {
  const uint64_t base = baseBytes;
  if (offset < 4 * base) {
    return offset / base;
  }
  uint64_t segment = 4096 * base;
  uint64_t before = 18;
  while (offset < segment) {
    segment /= 4;
    before -= 3;
  }
  assert(segment > 0);
  return offset / segment + before;
}

// The group of a segment, whose size is 4^group times the base size.
uint32_t groupOf(uint32_t number) {
  return number < 4 ? 0 : std::min((number - 1) / 3, 6u);
}

uint32_t calc_segsize(uint32_t baseBytes, uint32_t number) {
  return baseBytes << (2 * groupOf(number));
}

uint64_t calc_segstart(uint32_t baseBytes, uint32_t number) {
  return uint64_t{number - 3 * groupOf(number)} * calc_segsize(baseBytes, number);
}

// The handle's slot for a segment, made if there is none; null when memory is short.
ZOV_CACHE_REGION *updateSegArray(SegFile &file, uint32_t number) {
  return file.segs.reserve(number, kSpareSlots, ZOV_DEFAULT_TAG, ZOV_HERE);
}

void countSegment(SegFile &file, uint32_t number) {
  if (file.hdr->numSegments <= number) {
    file.hdr->numSegments = number + 1;
  }
}

ZOV_CACHE_REGION createSegment(SegFile &file, uint32_t number, uint32_t size) {
  ZOV_CACHE_REGION region =
      zov_shmCacheCreate(file.ctx, number, calc_segstart(file.baseBytes, number), size);
  if (region != nullptr) {
    countSegment(file, number);
  }
  return region;
}

// Keeps a region whose segment was cut off from its pending destruction: creating it
// once more calls that off.
ZOV_CACHE_REGION keepSegment(SegFile &file, uint32_t number, ZOV_CACHE_REGION region) {
  if (region != nullptr && shmCacheIsDestroyPending(region)) [[unlikely]] {
    zov_shmCacheClose(createSegment(file, number, 0));
  }
  return region;
}

ZOV_CACHE_REGION openSegment(SegFile &file, uint32_t number, uint32_t size) {
  ZOV_CACHE_REGION region =
      zov_shmCacheOpen(file.ctx, number, calc_segstart(file.baseBytes, number), size);
  return keepSegment(file, number, region);
}

// Opens a segment that this handle has not open, or makes it. One that exists but
// cannot be opened, because memory is short, must not be replaced by a new one.
ZOV_CACHE_REGION openOrCreate(SegFile &file, uint32_t number, uint32_t size) {
  ZOV_CACHE_REGION *slot = updateSegArray(file, number);
  if (slot == nullptr) {
    return nullptr;
  }
  const bool inFile = number < file.hdr->numSegments;
  *slot = inFile ? openSegment(file, number, size) : nullptr;
  if (*slot == nullptr && !(inFile && shmCacheHasRegion(file.ctx, number))) {
    *slot = createSegment(file, number, size);
  }
  return *slot;
}

ZOV_CACHE_REGION getSegment(SegFile &file, uint32_t number, uint32_t size) {
  ZOV_CACHE_REGION region = file.segs.get(number);
  return region != nullptr ? keepSegment(file, number, region) : openOrCreate(file, number, size);
}

void releaseSegment(SegFile &file, uint32_t number) {
  ZOV_CACHE_REGION *slot = file.segs.find(number);
  assert(slot != nullptr && *slot != nullptr);
  zov_shmCacheClose(*slot);
  *slot = nullptr;
}

// Clears bytes, but for pages that hold nothing, which the system may not have made.
void clearBytes(char *bytes, uint64_t count) {
  while (count > 0) {
    const uint64_t piece = std::min<uint64_t>(count, 4096);
    if (*bytes != 0 || memcmp(bytes, bytes + 1, piece - 1) != 0) {
      memset(bytes, 0, piece);
    }
    bytes += piece;
    count -= piece;
  }
}

// Destroys a segment of a file of `size` bytes.
void deleteSegment(SegFile &file, uint32_t number, uint64_t size) {
  if (file.segs.get(number) != nullptr) {
    releaseSegment(file, number);
  }
  zov_shmCacheDestroy(file.ctx, number);
  ZOV_CACHE_REGION region = shmCacheOpened(file.ctx, number);
  const uint64_t start = calc_segstart(file.baseBytes, number);
  if (region != nullptr && size > start) {
    // It stays although it is cut off.
    clearBytes(static_cast<char *>(shmCacheAddress(region)),
               std::min<uint64_t>(size - start, calc_segsize(file.baseBytes, number)));
  }
}

// Cuts off the segments from `kept` on.
void cutSegments(SegFile &file, uint32_t kept) {
  SegHeader &header = *file.hdr;
  uint32_t number = shmCacheHighestRegion(file.ctx, header.numSegments);
  for (; number != Slots::kNoNumber && number >= kept;
       number = shmCacheHighestRegion(file.ctx, number)) {
    deleteSegment(file, number, header.size);
  }
  header.numSegments = std::min(header.numSegments, kept);
}

// Finds the data at an offset, making its segment if that is missing. False when
// memory is short.
bool accessDataInSegment(SegFile &file, uint64_t offset, uint32_t wanted, Piece &piece) {
  const uint32_t number = static_cast<uint32_t>(calc_segno(file.baseBytes, offset));
  const uint32_t size = calc_segsize(file.baseBytes, number);
  ZOV_CACHE_REGION region = getSegment(file, number, size);
  if (region == nullptr) {
    return false;
  }
  const uint32_t position = static_cast<uint32_t>(offset - calc_segstart(file.baseBytes, number));
  assert(position < size && wanted > 0);
  piece.data = static_cast<char *>(shmCacheAddress(region)) + position;
  piece.bytes = std::min(size - position, wanted);
  return true;
}

// Calls copy(data, bytes, done) for each piece of a range until the end or until
// memory is short, and returns the number of bytes so far.
template <typename Copy>
uint32_t forEachPiece(SegFile &file, uint64_t offset, uint32_t length, Copy copy) {
  uint32_t done = 0;
  Piece piece;
  while (done < length && accessDataInSegment(file, offset + done, length - done, piece)) {
    copy(piece.data, piece.bytes, done);
    done += piece.bytes;
  }
  return done;
}

// Transfers return the number of bytes they moved, or kNoMemory when there were some
// to move and a shortage let none be moved.
constexpr int64_t kNoMemory = -1;

int64_t transferred(uint32_t wanted, uint32_t done) {
  return done == 0 && wanted > 0 ? kNoMemory : done;
}

int64_t _seekRead(SegFile &file, uint64_t offset, void *buffer, uint32_t length) {
  const uint64_t size = file.hdr->size;
  if (offset >= size) {
    return 0;
  }
  const uint32_t wanted = static_cast<uint32_t>(std::min<uint64_t>(size - offset, length));
  char *bytes = static_cast<char *>(buffer);
  const uint32_t read =
      forEachPiece(file, offset, wanted, [bytes](const char *data, uint32_t count, uint32_t done) {
        memcpy(bytes + done, data, count);
      });
  return transferred(wanted, read);
}

int64_t _seekWrite(SegFile &file, uint64_t offset, const void *buffer, uint32_t length) {
  if (offset >= kEndOfBytes) {
    errno = EFBIG;
    return 0;
  }
  const uint32_t wanted = static_cast<uint32_t>(std::min<uint64_t>(kEndOfBytes - offset, length));
  const char *bytes = static_cast<const char *>(buffer);
  const uint32_t written = forEachPiece(
      file, offset, wanted,
      [bytes](char *data, uint32_t size, uint32_t done) { memcpy(data, bytes + done, size); });
  if (written > 0) {
    if (offset + written > file.hdr->size) {
      storeRelaxed(file.hdr->size, offset + written);
    }
    storeRelaxed(file.hdr->modTime, static_cast<uint64_t>(zov_timeSecs()));
  }
  return transferred(wanted, written);
}

// Clears the bytes of the last kept segment that lie between the new size and the
// old one. False when it cannot be opened.
bool clearTail(SegFile &file, uint32_t lastKept, uint64_t size) {
  const uint64_t oldSize = file.hdr->size;
  const uint32_t segmentBytes = calc_segsize(file.baseBytes, lastKept);
  const uint64_t start = calc_segstart(file.baseBytes, lastKept);
  const uint64_t end = std::min(oldSize, start + segmentBytes);
  if (size >= end || !shmCacheHasRegion(file.ctx, lastKept)) {
    return true;
  }
  Piece piece;
  if (!accessDataInSegment(file, size, static_cast<uint32_t>(end - size), piece)) {
    return false;
  }
  clearBytes(piece.data, piece.bytes);
  return true;
}

// Makes segments behind the last one until there are `count` of them.
bool makeSegments(SegFile &file, uint32_t count) {
  while (file.hdr->numSegments < count) {
    const uint32_t next = file.hdr->numSegments;
    if (getSegment(file, next, calc_segsize(file.baseBytes, next)) == nullptr) {
      return false;
    }
    countSegment(file, next);
  }
  return true;
}

int32_t _setSize(SegFile &file, uint64_t size) {
  if (size >= kEndOfBytes) {
    return failWith(EFBIG);
  }
  const uint32_t lastKept =
      static_cast<uint32_t>(calc_segno(file.baseBytes, size == 0 ? 0 : size - 1));
  if (!makeSegments(file, lastKept + 1) || !clearTail(file, lastKept, size)) {
    return ZOV_ERROR;
  }
  cutSegments(file, lastKept + 1);
  assert(file.hdr->numSegments == lastKept + 1);
  storeRelaxed(file.hdr->size, size);
  return ZOV_OKAY;
}

// The context of a file, whose lock is the file's.
ZOV_CACHE_CTX ctxOf(ZOV_SEG file) ZOV_RETURNS_LOCK(file) {
  return file->ctx;
}

void freeSegfile(SegFile *file) {
  file->segs.clear(ZOV_DEFAULT_TAG);
  zov_freeMem(file, ZOV_DEFAULT_TAG);
}

SegFile *allocSegfile(uint64_t id) {
  SegFile *file = make<SegFile>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (file != nullptr) {
    file->id = id;
  }
  return file;
}

// The base segment size, which the first open decides. Several threads may be here
// at once, but all store the same.
uint32_t settleBaseSize(SegHeader &header) {
  if (loadRelaxed(header.segSize) == 0) {
    storeRelaxed(header.segSize, pagesize);
  }
  return loadRelaxed(header.segSize);
}

// Connects a new handle to its file. False when there is no such file.
bool openFile(SegFile &file, uint32_t flags) {
  void *root = nullptr;
  file.ctx = zov_shmCacheOpenCtx(file.id, flags, sizeof(SegHeader), &root);
  if (file.ctx == nullptr) {
    return false;
  }
  file.hdr = static_cast<SegHeader *>(root);
  file.baseBytes = settleBaseSize(*file.hdr);
  return true;
}

}  // namespace

void segRemoveById(uint64_t id) {
  zov_shmCacheRemoveCtx(id);
}

uint64_t segIdOf(const SegFile &file) {
  return file.id;
}

void segLock(ZOV_SEG file) {
  shmCacheEnter(ctxOf(file));
}

int64_t segRead(ZOV_SEG file, uint64_t offset, void *buffer, uint32_t length) {
  const NoJump noJump;
  const SegLock lock(file);
  return _seekRead(*file, offset, buffer, length);
}

int64_t segWrite(ZOV_SEG file, uint64_t offset, const void *buffer, uint32_t length) {
  const NoJump noJump;
  const SegLock lock(file);
  return _seekWrite(*file, offset, buffer, length);
}

int32_t segSetSizeOrKeep(ZOV_SEG file, uint64_t size) {
  const NoJump noJump;
  const uint32_t segments = file->hdr->numSegments;
  const int32_t status = _setSize(*file, size);
  if (status != ZOV_OKAY) {
    cutSegments(*file, segments);
    assert(file->hdr->numSegments == segments);
  }
  return status;
}

}  // namespace zov

extern "C" {

uint64_t zov_segRootId() {
  return zov_shmCacheRootId();
}

uint64_t zov_segNextId() {
  return zov_shmCacheNextId();
}

ZOV_SEG zov_segOpen(uint64_t id, uint32_t flags) {
  const zov::NoJump noJump;
  SegFile *file = zov::allocSegfile(id);
  if (file == nullptr) {
    return nullptr;
  }
  if (!zov::openFile(*file, flags)) {
    zov::freeSegfile(file);
    return nullptr;
  }
  int32_t status = ZOV_OKAY;
  if ((flags & O_TRUNC) != 0) {
    const zov::SegLock lock(file);
    status = zov::_setSize(*file, 0);
  }
  if (status != ZOV_OKAY) {
    zov_segClose(file);
    return nullptr;
  }
  return file;
}

void zov_segClose(ZOV_SEG file) {
  zov::segLock(file);
  uint32_t number = file->segs.highestBelow(UINT32_MAX);
  for (; number != zov::Slots::kNoNumber; number = file->segs.highestBelow(number)) {
    zov::releaseSegment(*file, number);
  }
  zov::shmCacheLeave(zov::ctxOf(file));  // with its lock
  zov::freeSegfile(file);
}

int32_t zov_segRemove(ZOV_SEG file) {
  zov_shmCacheMarkDeleted(file->ctx);
  zov_segClose(file);
  return ZOV_OKAY;
}

uint32_t zov_segSeekRead(ZOV_SEG file, uint64_t offset, void *buffer, uint32_t length) {
  return zov::movedBytes(zov::segRead(file, offset, buffer, length));
}

uint32_t zov_segSeekWrite(ZOV_SEG file, uint64_t offset, const void *buffer, uint32_t length) {
  return zov::movedBytes(zov::segWrite(file, offset, buffer, length));
}

int32_t zov_segGetPtr(ZOV_SEG file, uint32_t number, void **address) {
  const zov::NoJump noJump;
  ZOV_CACHE_REGION region = zov::getSegment(*file, number, file->baseBytes);
  *address = region == nullptr ? nullptr : zov_shmCacheGetPtr(region);
  return *address == nullptr ? ZOV_ERROR : ZOV_OKAY;
}

void zov_segReleasePtr(ZOV_SEG file, uint32_t number, void *address) {
  ZOV_CACHE_REGION region = file->segs.get(number);
  if (region != nullptr) {
    zov_shmCacheReleasePtr(region, address);
  }
}

uint32_t zov_segSegSize(ZOV_SEG file) {
  return file->baseBytes;
}

uint64_t zov_segSize(ZOV_SEG file) {
  return zov::loadRelaxed(file->hdr->size);
}

int32_t zov_segSetSize(ZOV_SEG file, uint64_t size) {
  const zov::NoJump noJump;
  return zov::_setSize(*file, size);
}

uint64_t zov_segSizeStat(uint64_t id) {
  return zov::shmRootWord(id, offsetof(zov::SegHeader, size), UINT64_MAX);
}

uint64_t zov_segModTime(uint64_t id) {
  return zov::shmRootWord(id, offsetof(zov::SegHeader, modTime), UINT32_MAX);
}

int32_t zov_segLock(ZOV_SEG file) {
  return zov_shmCacheLock(zov::ctxOf(file));
}

void zov_segUnlock(ZOV_SEG file) {
  zov_shmCacheUnlock(zov::ctxOf(file));
}

int32_t zov_segInit() {
  return zov_shmCacheInit(&zov::pagesize);
}

int32_t zov_segTerm() {
  return zov_shmCacheTerm();
}
}
