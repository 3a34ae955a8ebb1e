// SPDX-License-Identifier: Apache-2.0
//
// The records of the text streams and the operations of their cache block,
// shared by the sources that open, read and write streams.
#ifndef ZOV_TEXT_ZOV_STREAM_PRIVATE_H
#define ZOV_TEXT_ZOV_STREAM_PRIVATE_H

#include "files/zovfile_private.h"

namespace zov {

constexpr uint32_t kBlockBytes = 1024;
constexpr uint32_t kPushbackValues = 20;

// The one block between a stream and its file handle.
//
// 1. The handle is read and written at its own position only, which nothing
//    but those transfers moves. base, position and length are counted by the
//    stream: a seek changes position and leaves block and handle alone.
// 2. position may lie anywhere, before base and before the file too. position -
//    base, modulo 2^64, is the offset into the block. It is inside for reading
//    while below valid, for writing while below writeLimit.
// 3. While written is not 0, bytes wait in the block. Before it is used for
//    anything else the handle gets the bytes between base and position; where
//    position is outside of the block, those in front of written.
// 4. Up to position the block holds bytes read, bytes written, or zeros.
// 5. valid and written are at most kBlockBytes.
struct FileCache {
  uint64_t base;        // offset in the file of the first byte of the block
  uint64_t position;    // offset of the next byte read or written
  uint32_t valid;       // bytes of the block read from the file
  uint32_t written;     // end in the block of the bytes that wait; 0 for none
  uint32_t writeLimit;  // kBlockBytes; 0 where writing is refused or base is below 0
  bool canRead;
  bool canWrite;
  bool seeksEnd;    // each transfer to the handle goes to the end of the file
  bool readFailed;  // once: the end of the input may not be that of the file
  uint64_t length;  // end of the file without the block; 0 while it is not known
  ZOV_FILE handle;
  char data[kBlockBytes];
};

// How a stream may use its handle.
struct FileUse {
  bool canRead;
  bool canWrite;
  bool appends = false;   // writing starts at the end of the file
  bool seeksEnd = false;  // the handle does not go there by itself
  bool hasEnd = false;    // the handle is asked for its length
};

inline uint64_t offsetInBlock(const FileCache &cache) {
  return cache.position - cache.base;
}

// The end of the file with the bytes that wait in the block; 0 if it is not known.
inline uint64_t fileCacheLength(const FileCache &cache) {
  const uint64_t reached = cache.written == 0 ? 0 : cache.base + cache.written;
  return reached > cache.length ? reached : cache.length;
}

// Puts a zero-filled cache on a handle, which it owns from then on.
void fileCacheOpen(FileCache &cache, ZOV_FILE handle, const FileUse &use);

// Sends the bytes that wait and closes the handle. errno tells what failed first
// and stays when nothing did.
void fileCacheClose(FileCache &cache);

// Brings the byte at position into the block and tells how many bytes can be read
// from there on; 0 at the end of the file or on failure.
uint32_t fileCacheFill(FileCache &cache);

// Whether a stream that has not moved yet has so many bytes, at most a block of
// them. Reads on behind those in the block while it has fewer, and leaves them to
// be read.
bool fileCachePeek(FileCache &cache, uint32_t lengthBytes);

// Each gives the number of bytes moved, fewer than asked for at the end of the
// file or on failure.
uint32_t fileCacheRead(FileCache &cache, void *buffer, uint32_t lengthBytes);
uint64_t fileCacheWrite(FileCache &cache, const void *bytes, uint64_t lengthBytes);

// Makes sure that so many bytes, at most a block of them, can be written without
// failing.
bool fileCacheReserve(FileCache &cache, uint32_t lengthBytes);

// Moves position. ZOV_ERROR for an origin other than 0, 1 and 2.
int32_t fileCacheSeek(FileCache &cache, int64_t offset, int32_t origin);

// Sends the bytes that wait and syncs the handle's file. errno tells what failed
// and stays when nothing did; a pipe or a terminal, which cannot be synced, changes
// the status and not errno.
int32_t fileCacheSync(FileCache &cache);

// The same, and tells whether the file then is as long as it should be.
bool fileCacheSyncWhole(FileCache &cache);

inline bool fileCachePutByte(FileCache &cache, char byte) {
  const uint64_t offset = offsetInBlock(cache);
  if (offset >= cache.writeLimit) [[unlikely]] {
    return fileCacheWrite(cache, &byte, 1) == 1;
  }
  const uint32_t end = static_cast<uint32_t>(offset) + 1;
  cache.data[offset] = byte;
  ++cache.position;
  cache.written = cache.written < end ? end : cache.written;
  return true;
}

}  // namespace zov

// An open stream, one block of the default tag together with its cache block: an
// allocation that jumps cannot leave half a stream behind. The fields of the byte
// calls come first, in one cache line.
struct TextStream {
  int32_t encoding;        // of zov_encoding, or any that the caller of zov_fopen() gave
  uint32_t pushbackCount;  // values in use
  zov::FileCache cache;
  int32_t bomLength;                        // bytes of the byte-order mark of the file: 0, 2 or 3
  uint32_t pushback[zov::kPushbackValues];  // a stack, its top at pushbackCount - 1
  char *formatBuffer;                       // of the default tag, null until it is needed
  uint32_t formatCapacity;                  // its size in bytes
  uint32_t pendingCode;                     // UTF-16 output: code point put together so far
  int32_t pendingBytes;                     // UTF-16 output: continuation bytes to come
};

namespace zov {

// zov_fopenEx(). May jump.
Opened streamOpen(const char *name, const char *mode, int32_t encoding, uint32_t options,
                  ZOV_STREAM &stream);

// Reads from a handle that is open for it and stands at its start. The stream owns
// the handle. Null without memory: the handle is then still the caller's. Called with
// jumps held off.
ZOV_STREAM streamOpenOn(ZOV_FILE handle);

// Whether the end of the input was that of the file: a failing read looks the same.
bool streamReachedEnd(const TextStream &stream);

// Whether a reading failed, which ends the input too. Of a file in memory it does so
// for a shortage of memory only.
bool streamReadFailed(const TextStream &stream);

// Whether the file has the mark FE FF, so that its units are read in the wrong
// order. For a stream that was opened for reading and has not moved yet.
bool streamIsByteSwapped(const TextStream &stream);

// How the reading of a line ended.
enum class LineEnd : uint8_t {
  kNothing,   // there was none left
  kWhole,     // with its newline, or at the end of the input
  kNoMemory,  // its block could not be made or grow; the next call goes on there
};

// zov_fGetLine() for lines that may hold zeros: gives the length as well, and
// tells a line that was cut from a whole one. The stream has an encoding.
LineEnd streamGetLine(TextStream &stream, char **buffer, uint32_t *sizeBytes,
                      uint32_t *lengthBytes);

}  // namespace zov

#endif
