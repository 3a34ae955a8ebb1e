// SPDX-License-Identifier: Apache-2.0
//
// Text streams: reading. Whatever the file holds, callers get UTF-8 bytes. A
// UTF-16 unit is decoded when its first byte is asked for; the other bytes of
// its UTF-8 form wait on the push-back stack, which every read empties first:
//
//   FFFE 41 00 E9 00  ->  41 C3 A9,  A9 being pushed back while C3 is returned
//
// Lines are read in runs straight out of the cache block, bytes copied and units
// decoded on the way. A stream whose encoding is neither of the two yields zeros
// without reading and never ends.
//
// Reading takes no lock. Only zov_fGetLine() allocates and may jump; the caller's
// block and its size are then as they were before that allocation.
#include <assert.h>
#include <string.h>

#include <algorithm>

#include "core/zov_make.h"
#include "files/zovutf8_private.h"
#include "text/zov_stream_private.h"

namespace zov {
namespace {

constexpr int32_t kEndOfInput = -1;

// An unpaired low surrogate reads as this.
constexpr int32_t kStandIn = '.';

// Lines are read into blocks that start and grow by this much.
constexpr uint32_t kLineBytes = 100;

// A stretch of one line. It ends with a newline, where the room ends or where
// the input ends.
struct LinePiece {
  uint32_t count;  // bytes
  bool hasNewline;
};

bool readsRuns(const TextStream &stream) {
  return stream.pushbackCount == 0 && stream.encoding == ZOV_ENC_BYTES;
}

int32_t takeByte(FileCache &cache) {
  assert(offsetInBlock(cache) < cache.valid);
  const char byte = cache.data[offsetInBlock(cache)];
  ++cache.position;
  return static_cast<uint8_t>(byte);
}

// False at the end of the file, and for half a unit before it.
bool readUnit(FileCache &cache, uint16_t &unit) {
  const uint64_t offset = offsetInBlock(cache);
  if (offset < cache.valid && cache.valid - offset >= sizeof unit) [[likely]] {
    memcpy(&unit, cache.data + offset, sizeof unit);
    cache.position += sizeof unit;
    return true;
  }
  return fileCacheRead(cache, &unit, sizeof unit) == sizeof unit;
}

// Gives the first byte of a character's UTF-8 form and pushes the others back,
// last one first.
int32_t firstOfEncoded(TextStream &stream, uint32_t codePoint) {
  char bytes[4];
  uint32_t count = 0;
  zov_utf8_codes(codePoint, bytes, &count);
  assert(stream.pushbackCount == 0 && count <= kPushbackValues);
  while (count > 1) {
    stream.pushback[stream.pushbackCount++] = static_cast<uint8_t>(bytes[--count]);
  }
  return static_cast<uint8_t>(bytes[0]);
}

int32_t nextDecoded(TextStream &stream) {
  uint16_t unit = 0;
  if (!readUnit(stream.cache, unit)) {
    return kEndOfInput;
  }
  if (unit < 0x80) {
    return unit;
  }
  if ((unit & 0xFC00) == 0xDC00) {
    return kStandIn;
  }
  if ((unit & 0xFC00) != 0xD800) {
    return firstOfEncoded(stream, unit);
  }
  // Any unit passes for the low half.
  uint16_t low = 0;
  if (!readUnit(stream.cache, low)) {
    return kEndOfInput;
  }
  return firstOfEncoded(stream, 0x10000u + ((unit & 0x3FFu) << 10) + (low & 0x3FFu));
}

// nextByte() where the block does not have the byte ready.
[[gnu::noinline]] int32_t nextByteSlow(TextStream &stream) {
  assert(stream.pushbackCount <= kPushbackValues);
  if (stream.pushbackCount > 0) {
    return static_cast<int32_t>(stream.pushback[--stream.pushbackCount]);
  }
  switch (stream.encoding) {
    case ZOV_ENC_BYTES:
      return fileCacheFill(stream.cache) > 0 ? takeByte(stream.cache) : kEndOfInput;
    case ZOV_ENC_UTF16:
      return nextDecoded(stream);
    default:
      return 0;
  }
}

inline int32_t nextByte(TextStream &stream) {
  FileCache &cache = stream.cache;
  if (readsRuns(stream) && offsetInBlock(cache) < cache.valid) [[likely]] {
    return takeByte(cache);
  }
  return nextByteSlow(stream);
}

// Copies up to and with the next newline out of the block. Stops short at the
// block's end; a count of 0 is the end of the input.
LinePiece copyRun(FileCache &cache, char *out, uint32_t room) {
  const uint32_t limit = std::min(room, fileCacheFill(cache));
  if (limit == 0) {
    return {0, false};
  }
  const char *from = cache.data + offsetInBlock(cache);
  const void *newline = memchr(from, '\n', limit);
  const uint32_t count = newline == nullptr
                             ? limit
                             : static_cast<uint32_t>(static_cast<const char *>(newline) - from) + 1;
  memcpy(out, from, count);
  cache.position += count;
  return {count, newline != nullptr};
}

// Decodes UTF-16 up to and with the next newline out of the block, which takes a
// third of the time that it takes unit by unit. Stops short at the block's end, in
// front of a surrogate and of a character that does not fit whole.
LinePiece decodeRun(FileCache &cache, char *out, uint32_t room) {
  const uint64_t offset = offsetInBlock(cache);
  const uint64_t available = offset < cache.valid ? cache.valid - offset : 0;
  const char *const start = cache.data + (available == 0 ? 0 : offset);
  const char *const end = start + available / sizeof(uint16_t) * sizeof(uint16_t);
  const char *from = start;
  LinePiece piece = {0, false};
  while (from < end && piece.count < room && !piece.hasNewline) {
    uint16_t unit;
    memcpy(&unit, from, sizeof unit);
    if (unit < 0x80) {
      out[piece.count++] = static_cast<char>(unit);
      piece.hasNewline = unit == '\n';
    } else {
      const uint32_t length = utf8Length(unit);
      if ((unit & 0xF800) == 0xD800 || room - piece.count < length) {
        break;
      }
      storeUtf8(out + piece.count, unit, length);
      piece.count += length;
    }
    from += sizeof unit;
  }
  cache.position += static_cast<uint64_t>(from - start);
  return piece;
}

// Reads one byte as a piece; a count of 0 is the end of the input.
LinePiece readByte(TextStream &stream, char *out) {
  const int32_t value = nextByte(stream);
  if (value == kEndOfInput) {
    return {0, false};
  }
  *out = static_cast<char>(value);
  return {1, value == '\n'};
}

// Reads a piece of at least a byte; a count of 0 is the end of the input.
LinePiece readSome(TextStream &stream, char *out, uint32_t room) {
  if (readsRuns(stream)) {
    return copyRun(stream.cache, out, room);
  }
  if (stream.pushbackCount == 0 && stream.encoding == ZOV_ENC_UTF16) {
    const LinePiece run = decodeRun(stream.cache, out, room);
    if (run.count > 0) {
      return run;
    }
  }
  return readByte(stream, out);
}

// Reads until a newline, the end of the room or the end of the input.
LinePiece readPiece(TextStream &stream, char *out, uint32_t room) {
  LinePiece piece = {0, false};
  while (piece.count < room && !piece.hasNewline) {
    const LinePiece more = readSome(stream, out + piece.count, room - piece.count);
    if (more.count == 0) {
      break;
    }
    piece = {piece.count + more.count, more.hasNewline};
  }
  return piece;
}

// Grows a line's block. False without memory: block and size stay as they are.
bool growLine(char **buffer, uint32_t *sizeBytes) {
  if (*sizeBytes > UINT32_MAX - kLineBytes ||
      !growArray(*buffer, *sizeBytes + kLineBytes, 0, ZOV_DEFAULT_TAG, ZOV_HERE)) {
    return false;
  }
  *sizeBytes += kLineBytes;
  return true;
}

// Reads a line into a block that exists.
LineEnd getLine(TextStream &stream, char **buffer, uint32_t *sizeBytes, uint32_t &used) {
  used = 0;
  for (;;) {
    assert(used < *sizeBytes);
    const uint32_t room = *sizeBytes - 1 - used;
    const LinePiece piece = readPiece(stream, *buffer + used, room);
    if (piece.count == 0 && room > 0) {
      return used > 0 ? LineEnd::kWhole : LineEnd::kNothing;
    }
    used += piece.count;
    (*buffer)[used] = '\0';
    if (piece.hasNewline) {
      return LineEnd::kWhole;
    }
    if (!growLine(buffer, sizeBytes)) {
      return LineEnd::kNoMemory;
    }
  }
}

}  // namespace

LineEnd streamGetLine(TextStream &stream, char **buffer, uint32_t *sizeBytes,
                      uint32_t *lengthBytes) {
  *lengthBytes = 0;
  if (*buffer == nullptr) {
    *buffer = makeZeroArray<char>(kLineBytes, ZOV_DEFAULT_TAG, ZOV_HERE);
    if (*buffer == nullptr) {
      return LineEnd::kNoMemory;
    }
    *sizeBytes = kLineBytes;
  }
  if (*sizeBytes == 0) {
    *sizeBytes = kLineBytes;
  }
  const bool ends = stream.encoding == ZOV_ENC_BYTES || stream.encoding == ZOV_ENC_UTF16;
  return ends ? getLine(stream, buffer, sizeBytes, *lengthBytes) : LineEnd::kNothing;
}

}  // namespace zov

extern "C" {

int32_t zov_fgetc(ZOV_STREAM stream) {
  return zov::nextByte(*stream);
}

int32_t zov_fungetc(int32_t value, ZOV_STREAM stream) {
  if (stream->pushbackCount >= zov::kPushbackValues) {
    return zov::kEndOfInput;
  }
  stream->pushback[stream->pushbackCount++] = static_cast<uint32_t>(value);
  return value;
}

char *zov_fgets(char *buffer, int32_t sizeBytes, ZOV_STREAM stream) {
  if (buffer == nullptr || sizeBytes < 1) {
    return nullptr;
  }
  const uint32_t room = static_cast<uint32_t>(sizeBytes) - 1;
  const zov::LinePiece piece = zov::readPiece(*stream, buffer, room);
  if (piece.count == 0 && room > 0) {
    return nullptr;
  }
  buffer[piece.count] = '\0';
  return buffer;
}

char *zov_fGetLine(ZOV_STREAM stream, char **buffer, uint32_t *sizeBytes) {
  if (stream == nullptr || buffer == nullptr || sizeBytes == nullptr) {
    return nullptr;
  }
  // A line whose block could not grow counts as far as it was read.
  uint32_t lengthBytes = 0;
  const zov::LineEnd end = zov::streamGetLine(*stream, buffer, sizeBytes, &lengthBytes);
  return end != zov::LineEnd::kNothing && lengthBytes > 0 ? *buffer : nullptr;
}
}
