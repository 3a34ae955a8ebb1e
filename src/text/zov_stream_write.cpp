// SPDX-License-Identifier: Apache-2.0
//
// Text streams: writing. Callers hand over UTF-8 bytes. A byte stream stores
// them as they are; a UTF-16 stream gathers the bytes of a character in the
// stream's record and writes one or two units in host byte order when the last
// one arrives.
//
// A byte that completes a character gets the answer 0, failure, although the
// character is written. Callers of zov_fputc() on UTF-16 streams know this and
// ignore the result; calls that write a string stop after the first character.
//
// Writing takes no lock. Only the formatting calls allocate and may jump, with
// the stream as it was.
#include <assert.h>
#include <string.h>

#include "core/zov_make.h"
#include "text/zov_stream_private.h"

namespace zov {
namespace {

constexpr uint8_t kFirstLead = 0xC2;  // those below lead overlong forms
constexpr uint8_t kLastLead = 0xF4;   // those above lead past U+10FFFF

// Writes a character whole or leaves nothing of it. Gives false in both cases,
// the answer that its last byte gets, see above.
bool putCodePoint(TextStream &stream, uint32_t codePoint) {
  assert(stream.pendingBytes == 0);
  uint16_t units[2] = {static_cast<uint16_t>(codePoint)};
  uint32_t bytes = sizeof units[0];
  if (codePoint > 0xFFFF) {
    units[0] = static_cast<uint16_t>(0xD800u | (((codePoint - 0x10000u) >> 10) & 0x3FFu));
    units[1] = static_cast<uint16_t>(0xDC00u | (codePoint & 0x3FFu));
    bytes = sizeof units;
  }
  if (fileCacheReserve(stream.cache, bytes)) {
    fileCacheWrite(stream.cache, units, bytes);
  }
  return false;
}

bool startSequence(TextStream &stream, uint8_t byte) {
  if (byte < 0x80) {
    return putCodePoint(stream, byte);
  }
  if (byte < kFirstLead || byte > kLastLead) {
    return false;
  }
  stream.pendingBytes = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
  stream.pendingCode = byte & (0x3Fu >> stream.pendingBytes);
  return true;
}

// Refuses a byte that does not continue the sequence, which goes on waiting.
bool continueSequence(TextStream &stream, uint8_t byte) {
  assert(stream.pendingBytes >= 1 && stream.pendingBytes <= 3);
  if ((byte & 0xC0) != 0x80) {
    return false;
  }
  stream.pendingCode = (stream.pendingCode << 6) | (byte & 0x3Fu);
  --stream.pendingBytes;
  return stream.pendingBytes > 0 || putCodePoint(stream, stream.pendingCode);
}

bool _zov_fputc(TextStream &stream, char character) {
  if (stream.encoding == ZOV_ENC_BYTES) [[likely]] {
    return fileCachePutByte(stream.cache, character);
  }
  if (stream.encoding != ZOV_ENC_UTF16) {
    return false;
  }
  const uint8_t byte = static_cast<uint8_t>(character);
  return stream.pendingBytes == 0 ? startSequence(stream, byte) : continueSequence(stream, byte);
}

// Writes bytes as if one by one, up to the first that fails.
bool putAll(TextStream &stream, const char *text, uint64_t length) {
  if (stream.encoding == ZOV_ENC_BYTES) {
    return fileCacheWrite(stream.cache, text, length) == length;
  }
  for (uint64_t i = 0; i < length; ++i) {
    if (!_zov_fputc(stream, text[i])) {
      return false;
    }
  }
  return true;
}

// Grows the format buffer, where it is shorter than a text of that length and its
// NUL. False without memory.
bool checkSize(TextStream &stream, uint32_t lengthBytes) {
  const uint32_t wanted = lengthBytes + 1;
  if (stream.formatCapacity >= wanted) {
    return true;
  }
  const bool isGrown = growArray(stream.formatBuffer, wanted, 0, ZOV_DEFAULT_TAG, ZOV_HERE);
  stream.formatCapacity = isGrown ? wanted : stream.formatCapacity;
  return isGrown;
}

// Formats into the stream's buffer. A text that does not fit is measured, and
// formatted again into a buffer that has grown.
ZOV_PRINTF(2, 0)
int32_t formatInto(TextStream &stream, const char *text, va_list arguments) {
  const int32_t length = zov_vsnprintf(stream.formatBuffer, stream.formatCapacity, text, arguments);
  if (length < 1 || static_cast<uint32_t>(length) < stream.formatCapacity) {
    return length;
  }
  if (!checkSize(stream, static_cast<uint32_t>(length))) {
    return -1;
  }
  return zov_vsnprintf(stream.formatBuffer, stream.formatCapacity, text, arguments);
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_fputc(int32_t character, ZOV_STREAM stream) {
  return zov::_zov_fputc(*stream, static_cast<char>(character)) ? 1 : 0;
}

int32_t zov_fputs(const char *text, ZOV_STREAM stream) {
  const uint64_t length = strlen(text);
  return zov::putAll(*stream, text, length) ? static_cast<int32_t>(length) : -1;
}

int32_t zov_vfprintf(ZOV_STREAM stream, const char *format, va_list arguments) {
  const int32_t length = zov::formatInto(*stream, format, arguments);
  if (length < 1) {
    return length;
  }
  return zov::putAll(*stream, stream->formatBuffer, static_cast<uint64_t>(length)) ? length : -1;
}

int32_t zov_fprintf(ZOV_STREAM stream, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov_vfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

int32_t zov_fflush(ZOV_STREAM stream) {
  if (zov::fileCacheSync(stream->cache) != ZOV_OKAY) {
    return 0;
  }
  return stream->pendingBytes > 0 ? -1 : 0;
}
}
