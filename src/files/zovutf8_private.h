// SPDX-License-Identifier: Apache-2.0
//
// What both directions of the UTF-8 conversion, and the text streams, share:
// the encoding of one code point, the meaning of a lead byte, and the
// converters themselves with lengths that are not bounded to 32 bits.
// Everything here works on its arguments alone; nothing allocates or jumps.
#ifndef ZOV_FILES_ZOVUTF8_PRIVATE_H
#define ZOV_FILES_ZOVUTF8_PRIVATE_H

#include <stddef.h>

#include "zov.h"

namespace zov {

constexpr uint32_t kLastCodePoint = 0x10FFFF;
constexpr uint32_t kInvalidUnit =
    UINT32_MAX;  // what sinks are given for input that is no character
constexpr char kReplacement = '?';

// What a sink did with a code point. Sinks exist in pairs, one that counts and
// one that stores, so that a call without a buffer measures.
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

// Stores the UTF-8 form of a code point, whose length is that of utf8Length().
inline void storeUtf8(char *out, uint32_t codePoint, uint32_t lengthBytes) {
  constexpr uint8_t leadBits[] = {0, 0, 0xC0, 0xE0, 0xF0};
  for (uint32_t index = lengthBytes; index > 1; codePoint >>= 6) {
    out[--index] = static_cast<char>(0x80 | (codePoint & 0x3F));
  }
  out[0] = static_cast<char>(leadBits[lengthBytes] | codePoint);
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

// zov_wchar_to_utf8_len() and zov_utf8_to_wchar_len() for any length.
uint32_t encodeWide(char *out, uint32_t sizeBytes, const wchar_t *text, size_t lengthChars,
                    uint32_t errorMode);
uint32_t decodeUtf8(wchar_t *out, uint32_t sizeChars, const char *text, size_t lengthBytes,
                    uint32_t errorMode);

}  // namespace zov

#endif
