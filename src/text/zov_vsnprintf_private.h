// SPDX-License-Identifier: Apache-2.0
//
// The parts that the files of the formatter share: the sink of every character,
// one parsed directive, and the conversions that print one.
//
// Everything here lives on the stack of the call that formats. Nothing
// allocates, locks, jumps or keeps state between calls.
#ifndef ZOV_TEXT_ZOV_VSNPRINTF_PRIVATE_H
#define ZOV_TEXT_ZOV_VSNPRINTF_PRIVATE_H

#include <assert.h>
#include <locale.h>
#include <stdarg.h>
#include <stdint.h>
#include <string.h>

#include <array>

namespace zov {

// Room for the digits of any 64-bit number, in octal and in decimal.
constexpr int32_t kDigits = 43;

// All powers of ten of 64 bits.
inline constexpr std::array<uint64_t, 20> kPowersOf10 = [] {
  std::array<uint64_t, 20> powers{1};
  for (uint32_t exponent = 1; exponent < powers.size(); ++exponent) {
    powers[exponent] = powers[exponent - 1] * 10;
  }
  return powers;
}();

enum FmtFlag : uint16_t {
  FMT_LEFT = 0x001,      // "-", or a negative "*" width
  FMT_PLUS = 0x002,      // "+"
  FMT_SPACE = 0x004,     // " "
  FMT_ALT = 0x008,       // "#"
  FMT_ZERO = 0x010,      // "0"
  FMT_GROUP = 0x020,     // "'", separators between thousands
  FMT_UPPER = 0x040,     // X A E F G
  FMT_UNSIGNED = 0x080,  // o u x X p
  FMT_GSTYLE = 0x100,    // g G
  FMT_ESTYLE = 0x200,    // e E
  FMT_PTR = 0x400,       // p, which prints "0x" unasked
};

enum FmtModifier : int32_t {
  kModNone = 0,
  kModChar = 1,        // hh
  kModShort = 2,       // h
  kModLong = 3,        // l
  kModLongLong = 4,    // ll
  kModLongDouble = 5,  // L
  kModSize = 6,        // z
  kModPtrdiff = 7,     // t
  kModMax = 8,         // j
};

// The sink of one call's characters.
//
// 1. buffer[0 .. min(position, size - 1)) holds the characters produced so far;
//    position counts on when the buffer is full.
// 2. size is 0 when buffer is null.
struct FmtOutput {
  char *buffer;
  uint64_t position;  // characters produced
  uint64_t size;      // bytes of buffer, the terminator's included
  va_list arguments;  // the call's own copy, consumed in order
};

// One directive.
struct FmtSpec {
  uint16_t flags = 0;
  int32_t modifier = kModNone;
  int32_t base = 0;        // 8, 10 or 16, of the integer conversions
  int32_t width = 0;       // characters at least, 0 or more
  int32_t precision = -1;  // -1 when not given
  FmtOutput *output;
  const char *cursor;             // next character of the format
  const lconv *locale = nullptr;  // null until setup_locale()

  bool has(uint16_t any) const { return (flags & any) != 0; }

  // A number has only its sign and its digits to be printed.
  bool isPlain() const {
    return width == 0 && precision < 0 && !has(FMT_ALT | FMT_GROUP | FMT_PTR);
  }
};

// How many more characters fit.
inline uint64_t roomLeft(const FmtOutput &output) {
  return output.position + 1 < output.size ? output.size - 1 - output.position : 0;
}

inline void emit(FmtOutput &output, char character) {
  if (output.position + 1 < output.size) {
    output.buffer[output.position] = character;
  }
  ++output.position;
}

// memcpy() for mostly a few bytes: both ends are copied in one piece each and meet
// or overlap in the middle, without a call or a loop.
inline void copyShort(char *to, const char *from, uint64_t count) {
  if (count > 16) {
    memcpy(to, from, count);
  } else if (count >= 8) {
    memcpy(to, from, 8);
    memcpy(to + count - 8, from + count - 8, 8);
  } else if (count >= 4) {
    memcpy(to, from, 4);
    memcpy(to + count - 4, from + count - 4, 4);
  } else if (count > 0) {
    to[0] = from[0];
    to[count / 2] = from[count / 2];
    to[count - 1] = from[count - 1];
  }
}

inline void emitstr(FmtOutput &output, const char *text, uint64_t length) {
  const uint64_t room = roomLeft(output);
  const uint64_t stored = length < room ? length : room;
  if (stored > 0) {
    copyShort(output.buffer + output.position, text, stored);
  }
  output.position += length;
}

// Emits a run of one character, none for a count below 1. Characters that do not
// fit are counted in one step.
inline void emitn(FmtOutput &output, int64_t count, char character) {
  if (count <= 0) {
    return;
  }
  const uint64_t length = static_cast<uint64_t>(count);
  const uint64_t room = roomLeft(output);
  const uint64_t stored = length < room ? length : room;
  if (stored > 0) {
    memset(output.buffer + output.position, character, stored);
  }
  output.position += length;
}

// The sign that a number gets: '-', '+', ' ' or 0 for none.
inline char signOf(const FmtSpec &spec, bool isNegative) {
  if (isNegative || !spec.has(FMT_PLUS | FMT_SPACE)) {
    return isNegative ? '-' : '\0';
  }
  return spec.has(FMT_PLUS) ? '+' : ' ';
}

inline void emitSign(FmtOutput &output, char sign) {
  if (sign != 0) {
    emit(output, sign);
  }
}

// How many digits a value has, at least 1.
int32_t countDigits(uint64_t value, int32_t base);

// Writes the count low-order digits of a value, zeros in front of a shorter
// one.
void convert(uint64_t value, char *text, int32_t count, int32_t base, bool upper);

// Prints digits as convert() writes them in the directive's base; if grouped, with
// the locale's separator before every third digit from the end.
void emitDigits(FmtSpec &spec, uint64_t value, int32_t count, bool grouped);

// Prints an integer; value is sign-extended unless FMT_UNSIGNED is set.
void format_int(FmtSpec &spec, int64_t value);

// Fetches a floating-point number and prints it. False when its integer part is
// too large.
bool handle_float(FmtSpec &spec);

}  // namespace zov

#endif
