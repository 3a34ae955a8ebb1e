// SPDX-License-Identifier: Apache-2.0
//
// What the parts of the UTF-8 conversion share with other modules: the encoding of
// one code point, the meaning of a lead byte, and the converters for lengths of 64
// bits. All work on their arguments alone; only withUTF8() allocates and may jump.
#ifndef ZOV_FILES_ZOVUTF8_PRIVATE_H
#define ZOV_FILES_ZOVUTF8_PRIVATE_H

#include <assert.h>
#include <stddef.h>

#include "core/zov_word.h"
#include "zov.h"

namespace zov {

constexpr uint32_t kLastCodePoint = 0x10FFFF;
constexpr uint32_t kReplacement = '?';

// A sink gets this for input that is no character.
constexpr uint32_t kInvalidUnit = UINT32_MAX;

// What a sink did with a code point. Sinks come in pairs, one that counts and one
// that stores: a call without a buffer measures.
enum SinkResult : int32_t {
  kTaken = 0,
  kNoRoom = 1,   // nothing was stored
  kRefused = 2,  // an invalid unit, under an error mode that allows none
};

constexpr bool isSurrogate(uint32_t codePoint) {
  return codePoint - 0xD800 < 0x800;
}

// Bytes of the UTF-8 form of a code point, 0 above the last one.
constexpr uint32_t utf8Length(uint32_t codePoint) {
  if (codePoint < 0x80) {
    return 1;
  }
  if (codePoint < 0x800) {
    return 2;
  }
  if (codePoint < 0x10000) {
    return 3;
  }
  return codePoint <= kLastCodePoint ? 4 : 0;
}

// Stores a code point in a sequence of a fixed length, for which the compiler
// unrolls the loop.
template <uint32_t kLength>
inline void storeSequence(char *out, uint32_t codePoint) {
  constexpr uint32_t leadBits = kLength == 1 ? 0 : 0xF00 >> kLength & 0xFF;
  for (uint32_t index = kLength - 1; index > 0; --index) {
    out[index] = static_cast<char>(0x80 | (codePoint & 0x3F));
    codePoint >>= 6;
  }
  out[0] = static_cast<char>(leadBits | codePoint);
}

// Stores the UTF-8 form of a code point. The length is that of utf8Length().
inline void storeUtf8(char *out, uint32_t codePoint, uint32_t lengthBytes) {
  assert(lengthBytes != 0 && lengthBytes == utf8Length(codePoint));
  switch (lengthBytes) {
    case 1:
      return storeSequence<1>(out, codePoint);
    case 2:
      return storeSequence<2>(out, codePoint);
    case 3:
      return storeSequence<3>(out, codePoint);
    default:
      return storeSequence<4>(out, codePoint);
  }
}

// A byte in the place of a lead byte of a sequence of several bytes.
struct Utf8Lead {
  uint16_t length;  // of its sequence, 2 to 4; 0: the byte leads none
  uint16_t bits;    // the bits it gives to the code point
};

// C0, C1 and everything above F4 lead nothing: no valid sequence begins so.
constexpr Utf8Lead utf8Lead(uint8_t byte) {
  if (byte < 0xC2 || byte > 0xF4) {
    return {0, 0};
  }
  if (byte < 0xE0) {
    return {2, static_cast<uint16_t>(byte & 0x1F)};
  }
  if (byte < 0xF0) {
    return {3, static_cast<uint16_t>(byte & 0x0F)};
  }
  return {4, static_cast<uint16_t>(byte & 0x07)};
}

constexpr bool isContinuation(uint8_t byte) {
  return (byte & 0xC0) == 0x80;
}

// Whether a whole sequence may have a value. The last two of the basic plane are
// refused although the encoder accepts them; other non-characters pass in both
// directions.
constexpr bool isValidValue(uint32_t value, uint32_t lengthBytes) {
  return utf8Length(value) == lengthBytes && !isSurrogate(value) && value - 0xFFFE > 1;
}

// Room for a result in front of its terminator. A size of 0 sets no bound.
constexpr uint32_t capacityOf(uint32_t size) {
  return size - 1;
}

// Terminates a result, for which the walk has left room unless the size is 0, and
// returns its length with the terminator. One that 32 bits cannot tell is a
// failure.
template <typename Unit>
inline uint32_t terminate(Unit *out, uint32_t size, uint64_t count) {
  assert(out == nullptr || size == 0 || count < size);
  if (out == nullptr) {
    ++count;
  } else if (count < size) {
    out[count++] = 0;
  }
  return count < ZOV_UTF8_FAILED ? static_cast<uint32_t>(count) : ZOV_UTF8_FAILED;
}

// Where a run stopped, and how many characters or bytes it gave.
struct DecodeRun {
  const uint8_t *bytes;
  uint64_t chars;
};

struct EncodeRun {
  const wchar_t *text;
  uint64_t bytes;
};

// The fast part of either direction: converts whole characters up to the end, or
// stops before the first that is invalid or does not fit. Without `out` it counts,
// and `room` sets no bound.
DecodeRun decodeRun(const uint8_t *bytes, const uint8_t *end, wchar_t *out, uint64_t room);
EncodeRun encodeRun(const wchar_t *text, const wchar_t *end, char *out, uint64_t room);

// zov_wchar_to_utf8_len() and zov_utf8_to_wchar_len() for any length.
uint32_t encodeWide(char *out, uint32_t sizeBytes, const wchar_t *text, size_t lengthChars,
                    uint32_t errorMode);
uint32_t decodeUtf8(wchar_t *out, uint32_t sizeChars, const char *text, size_t lengthBytes,
                    uint32_t errorMode);

// Calls with UTF-8 copies of wide texts and releases them. Returns `failure`, with
// errno, when one cannot be converted. The conversion may jump: with several texts
// the caller holds jumps off, or the copy of the first would be lost.
template <typename Result, typename Call>
Result withUTF8(Result, Call call) {
  return call();
}

template <typename Result, typename Call, typename... Texts>
Result withUTF8(Result failure, Call call, const wchar_t *text, Texts... others) {
  char *bytes = zov_convertToUTF8(text, ZOV_UTF8_STRICT);
  if (bytes == nullptr) {
    return failure;
  }
  const Result result = withUTF8(
      failure, [&](auto... copies) { return call(static_cast<const char *>(bytes), copies...); },
      others...);
  const KeepErrno kept;
  zov_freeMem(bytes, ZOV_DEFAULT_TAG);
  return result;
}

}  // namespace zov

#endif
