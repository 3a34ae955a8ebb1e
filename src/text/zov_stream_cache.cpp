// SPDX-License-Identifier: Apache-2.0
//
// The cache block of the text streams. It slides over the file by sending what
// was written to the handle and, where the handle can be read, loading what
// comes next from it:
//
//     base          position        base + kBlockBytes
//      |---------------|------------------|
//        goes out next   written over or read next
//
// Streams are read from the start or written from the start, so the handle is
// never positioned. After a seek out of the block the next transfer goes on
// where the last one left the handle, whatever offset the stream has by then.
// One consequence serves the callers: pipes and terminals work as files do.
//
// A stream belongs to one thread at a time and nothing here takes a lock,
// allocates or jumps.
#include <fcntl.h>
#include <string.h>

#include <algorithm>

#include "text/zov_stream_private.h"

namespace zov {
namespace {

// Bytes of the block in front of position. A seek may have gone back behind
// the block or far ahead of it; the block is all there is to send.
uint32_t bytesToSend(const FileCache &cache) {
  if (cache.position < cache.base) {
    return 0;
  }
  return static_cast<uint32_t>(std::min<uint64_t>(offsetInBlock(cache), kBlockBytes));
}

// Takes the bytes out of the block that a handle took before it failed, so that
// the next attempt does not send them twice.
void dropSent(FileCache &cache, uint32_t sent) {
  memmove(cache.data, cache.data + sent, kBlockBytes - sent);
  cache.base += sent;
  cache.valid = 0;
}

// Sends the bytes in front of position. False when the handle failed or took
// only some of them: they stay for another attempt. A handle that takes nothing
// and does not fail, as under the read-only flag, lets the writer go on.
bool flushModified(FileCache &cache) {
  if (cache.dirty == 0) {
    return true;
  }
  const uint32_t wanted = bytesToSend(cache);
  const uint32_t sent = zov_fileWrite(cache.handle, cache.data, wanted);
  if (sent == ZOV_IO_FAILED) {
    return false;
  }
  if (sent < wanted) {
    if (sent == 0) {
      return true;
    }
    dropSent(cache, sent);
    return false;
  }
  cache.dirty = 0;
  cache.valid = 0;
  cache.base = cache.position;
  return true;
}

// Reads on behind the valid bytes of the block and tells how many came. Nothing
// is read at the known end of the file, which spares appending writers and
// readers at the end the call.
uint32_t load(FileCache &cache) {
  const bool atEnd = cache.length != 0 && cache.base + cache.valid >= cache.length;
  if (atEnd || cache.writeOnly != 0) {
    return 0;
  }
  const uint32_t count =
      zov_fileRead(cache.handle, cache.data + cache.valid, kBlockBytes - cache.valid);
  if (count == ZOV_IO_FAILED) {
    return 0;
  }
  cache.valid += count;
  return count;
}

// Moves the block to position and loads what the handle gives there. False when
// the bytes written could not be sent; the block is then where it was.
bool reposition(FileCache &cache) {
  if (!flushModified(cache)) {
    return false;
  }
  cache.dirty = 0;
  cache.valid = 0;
  cache.base = cache.position;
  load(cache);
  return true;
}

}  // namespace

void fileCacheOpen(FileCache &cache, ZOV_FILE handle, bool isStandard, uint32_t openFlags) {
  cache.handle = handle;
  cache.writeOnly = (openFlags & O_ACCMODE) == O_WRONLY ? 1 : 0;
  if (!isStandard) {
    cache.length = static_cast<uint64_t>(std::max<int64_t>(zov_fileLength(handle), 0));
  }
}

void fileCacheClose(FileCache &cache) {
  flushModified(cache);
  zov_fileClose(cache.handle);
  cache.handle = nullptr;
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
    if (offsetInBlock(cache) >= kBlockBytes && !reposition(cache)) {
      break;
    }
    const uint64_t offset = offsetInBlock(cache);
    const uint64_t run = std::min(lengthBytes - taken, kBlockBytes - offset);
    memcpy(cache.data + offset, from + taken, run);
    cache.dirty = 1;
    cache.position += run;
    cache.length = std::max(cache.length, cache.position);
    taken += run;
  }
  return taken;
}

int32_t fileCacheSeek(FileCache &cache, int64_t offset, int32_t origin) {
  const uint64_t distance = static_cast<uint64_t>(offset);
  switch (origin) {
    case 0:
      cache.position = distance;
      return ZOV_OKAY;
    case 1:
      cache.position += distance;
      return ZOV_OKAY;
    case 2:
      cache.position = cache.length + distance;
      return ZOV_OKAY;
    default:
      return ZOV_ERROR;
  }
}

int32_t fileCacheSync(FileCache &cache) {
  return flushModified(cache) ? zov_fileSync(cache.handle) : ZOV_ERROR;
}

}  // namespace zov
