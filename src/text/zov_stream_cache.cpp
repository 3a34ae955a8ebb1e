// SPDX-License-Identifier: Apache-2.0
//
// The cache block of the text streams. It slides over the file: it sends the bytes
// written to the handle and, where the handle can be read, loads those that follow:
//
//     base          position        base + kBlockBytes
//      |---------------|------------------|
//        goes out next   written over or read next
//
// Streams are read or written from the start, so the handle is positioned only to
// the end of a file in memory that is appended to. After a seek out of the block
// the next transfer goes on where the last one left the handle, whatever offset the
// stream has by then. So pipes and terminals work as files do.
//
// A stream belongs to one thread at a time and nothing here takes a lock,
// allocates or jumps.
#include <assert.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "core/zov_flags.h"
#include "files/zovfile_private.h"
#include "text/zov_stream_private.h"

namespace zov {
namespace {

// Bytes of the block to send: those in front of position; those in front of
// written, where a seek has left the block.
uint32_t bytesToSend(const FileCache &cache) {
  const uint64_t offset = offsetInBlock(cache);
  return offset <= kBlockBytes ? static_cast<uint32_t>(offset) : cache.written;
}

// Zeros the block from the bytes that it holds up to position.
void clearGap(FileCache &cache) {
  const uint64_t offset = offsetInBlock(cache);
  const uint32_t held = std::max(cache.written, cache.valid);
  assert(held <= kBlockBytes);
  if (offset <= kBlockBytes && offset > held) {
    memset(cache.data + held, 0, offset - held);
  }
}

// Makes position the start of an empty block. A block that begins before the
// file takes nothing, wherever a seek goes in it.
void placeBlock(FileCache &cache) {
  const bool isInFile = static_cast<int64_t>(cache.position) >= 0;
  cache.base = cache.position;
  cache.valid = 0;
  cache.written = 0;
  cache.writeLimit = cache.canWrite && isInFile ? kBlockBytes : 0;
}

// Takes the bytes out of the block that the handle took before it failed, so that
// the next attempt does not send them twice. The others still wait, and the
// block may now reach up to a position that was outside of it.
void dropSent(FileCache &cache, uint32_t sent, uint32_t wanted) {
  assert(sent < wanted && wanted <= kBlockBytes);
  memmove(cache.data, cache.data + sent, kBlockBytes - sent);
  cache.base += sent;
  cache.written = std::max(cache.written, wanted) - sent;
  cache.valid = 0;
  clearGap(cache);
}

// One transfer to the handle. A file in memory knows no append mode, so the handle
// is moved to its end; the file's lock keeps others from appending at that place.
uint32_t send(FileCache &cache, const char *bytes, uint32_t lengthBytes) {
  if (!cache.seeksEnd) {
    return zov_fileWrite(cache.handle, bytes, lengthBytes);
  }
  if (!tryFileLock(cache.handle)) {
    return ZOV_IO_FAILED;
  }
  zov_fileSeek(cache.handle, 0, SEEK_END);
  const uint32_t sent = zov_fileWrite(cache.handle, bytes, lengthBytes);
  zov_fileUnlock(cache.handle);
  return sent;
}

// Sends so many bytes of the block, the rest again where a transfer was short,
// and tells how many the handle took. Bytes that the read-only flag drops count.
uint32_t sendAll(FileCache &cache, uint32_t wanted) {
  uint32_t sent = 0;
  while (sent < wanted) {
    const uint32_t count = send(cache, cache.data + sent, wanted - sent);
    if (count == 0 && loadFlag(zov_readonly) != 0) {
      return wanted;
    }
    if (count == 0 || count == ZOV_IO_FAILED) {
      break;
    }
    sent += count;
  }
  return sent;
}

// Sends the bytes that wait. False, with errno, when the handle failed: those that
// it did not take stay for another attempt.
bool flushModified(FileCache &cache) {
  if (cache.written == 0) {
    return true;
  }
  const int before = errno;
  const uint32_t wanted = bytesToSend(cache);
  cache.length = fileCacheLength(cache);
  const uint32_t sent = sendAll(cache, wanted);
  if (sent < wanted) {
    if (sent > 0) {
      dropSent(cache, sent, wanted);
    }
    return false;
  }
  placeBlock(cache);
  errno = before;
  return true;
}

// Reads on behind the valid bytes of the block and tells how many came. Nothing
// is read at the known end of the file, which spares appending writers and
// readers at the end the call.
uint32_t load(FileCache &cache) {
  const bool atEnd = cache.length != 0 && cache.base + cache.valid >= cache.length;
  if (atEnd || !cache.canRead) {
    return 0;
  }
  const uint32_t count =
      zov_fileRead(cache.handle, cache.data + cache.valid, kBlockBytes - cache.valid);
  if (count == ZOV_IO_FAILED) {
    cache.readFailed = true;
    return 0;
  }
  cache.valid += count;
  assert(cache.valid <= kBlockBytes);
  return count;
}

// Moves the block to position and loads from the handle. False when the bytes written
// could not be sent; the block then stays.
bool reposition(FileCache &cache) {
  if (!flushModified(cache)) {
    return false;
  }
  placeBlock(cache);
  load(cache);
  return true;
}

// False, with errno, where the mode of the stream or its position forbids writing.
bool mayWrite(const FileCache &cache) {
  const bool isInFile = static_cast<int64_t>(cache.position) >= 0;
  if (cache.canWrite && isInFile) {
    return true;
  }
  errno = isInFile ? EBADF : EINVAL;
  return false;
}

}  // namespace

void fileCacheOpen(FileCache &cache, ZOV_FILE handle, const FileUse &use) {
  cache.handle = handle;
  cache.canRead = use.canRead;
  cache.canWrite = use.canWrite;
  cache.seeksEnd = use.seeksEnd;
  if (use.hasEnd) {
    cache.length = static_cast<uint64_t>(std::max<int64_t>(zov_fileLength(handle), 0));
  }
  cache.position = use.appends ? cache.length : 0;
  placeBlock(cache);
}

void fileCacheClose(FileCache &cache) {
  const int before = errno;
  const bool isSent = flushModified(cache);
  const int sendError = errno;
  const bool isClosed = closesWhole(cache.handle);
  cache.handle = nullptr;
  if (!isSent || isClosed) {
    errno = isSent ? before : sendError;
  }
}

uint32_t fileCacheFill(FileCache &cache) {
  uint64_t offset = offsetInBlock(cache);
  if (offset >= cache.valid) {
    if (!reposition(cache)) {
      return 0;
    }
    offset = 0;
  }
  return cache.valid - static_cast<uint32_t>(offset);
}

bool fileCachePeek(FileCache &cache, uint32_t lengthBytes) {
  assert(cache.position == cache.base && lengthBytes <= kBlockBytes);
  while (cache.valid < lengthBytes && load(cache) > 0) {
  }
  return cache.valid >= lengthBytes;
}

uint32_t fileCacheRead(FileCache &cache, void *buffer, uint32_t lengthBytes) {
  char *out = static_cast<char *>(buffer);
  uint32_t delivered = 0;
  while (delivered < lengthBytes) {
    const uint32_t available = fileCacheFill(cache);
    if (available == 0) {
      break;
    }
    const uint32_t run = std::min(lengthBytes - delivered, available);
    memcpy(out + delivered, cache.data + offsetInBlock(cache), run);
    cache.position += run;
    delivered += run;
  }
  return delivered;
}

uint64_t fileCacheWrite(FileCache &cache, const void *bytes, uint64_t lengthBytes) {
  const char *from = static_cast<const char *>(bytes);
  uint64_t taken = 0;
  while (taken < lengthBytes) {
    uint64_t offset = offsetInBlock(cache);
    if (offset >= cache.writeLimit) [[unlikely]] {
      if (!mayWrite(cache) || !reposition(cache)) {
        break;
      }
      offset = 0;
    }
    const uint64_t run = std::min(lengthBytes - taken, kBlockBytes - offset);
    memcpy(cache.data + offset, from + taken, run);
    cache.position += run;
    cache.written = std::max(cache.written, static_cast<uint32_t>(offset + run));
    taken += run;
    assert(cache.written <= kBlockBytes);
  }
  return taken;
}

bool fileCacheReserve(FileCache &cache, uint32_t lengthBytes) {
  assert(lengthBytes <= kBlockBytes);
  const uint64_t offset = offsetInBlock(cache);
  const bool fits = offset < cache.writeLimit && cache.writeLimit - offset >= lengthBytes;
  return fits || (mayWrite(cache) && reposition(cache));
}

int32_t fileCacheSeek(FileCache &cache, int64_t offset, int32_t origin) {
  const uint64_t from[] = {0, cache.position, fileCacheLength(cache)};
  if (origin < 0 || origin > 2) {
    return ZOV_ERROR;
  }
  cache.position = from[origin] + static_cast<uint64_t>(offset);
  clearGap(cache);
  return ZOV_OKAY;
}

int32_t fileCacheSync(FileCache &cache) {
  if (!flushModified(cache)) {
    return ZOV_ERROR;
  }
  const int before = errno;
  const int32_t status = zov_fileSync(cache.handle);
  if (status == ZOV_OKAY || errno == EINVAL || errno == EROFS) {
    errno = before;
  }
  return status;
}

bool fileCacheSyncWhole(FileCache &cache) {
  const uint64_t length = fileCacheLength(cache);
  return fileCacheSync(cache) == ZOV_OKAY &&
         zov_fileLength(cache.handle) == static_cast<int64_t>(length);
}

}  // namespace zov
