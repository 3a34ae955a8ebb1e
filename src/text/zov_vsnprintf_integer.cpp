// SPDX-License-Identifier: Apache-2.0
//
// The formatter's integers, and the digits of all its numbers. A number is laid
// out first, so that the padding is known when the first character goes out,
// and printed from the layout:
//
//   leading spaces | sign | prefix | zero fill | digits and separators |
//   trailing spaces
//
// Digits are counted before they are produced and then written, two at a time
// from the last one, straight to where they belong.
//
// Separators count against the precision, and then again in the total. A grouped
// number with a precision therefore has less zero fill than the precision asks for,
// and less padding than the width asks for.
#include <bit>

#include "text/zov_vsnprintf_locale.h"
#include "text/zov_vsnprintf_private.h"

namespace zov {
namespace {

// Counts are bytes.
struct IntLayout {
  char sign = 0;                 // '-', '+', ' ' or 0
  const char *prefix = nullptr;  // "0", "0x" or "0X"
  uint64_t prefixLength = 0;
  uint64_t magnitude = 0;
  int32_t digits = 0;
  int64_t separators = 0;  // all of them together
  int64_t zeroFill = 0;
  int64_t spaces = 0;  // below 0: that many trailing ones
};

constexpr char kDigitPairs[] =
    "0001020304050607080910111213141516171819202122232425262728293031323334353637383940414243444546"
    "4748495051525354555657585960616263646566676869707172737475767778798081828384858687888990919293"
    "949596979899";

void convertDecimal(uint64_t value, char *text, int32_t count) {
  for (; count >= 2; count -= 2) {
    memcpy(text + count - 2, kDigitPairs + value % 100 * 2, 2);
    value /= 100;
  }
  if (count > 0) {
    *text = static_cast<char>('0' + value % 10);
  }
}

void calc_int_sign(const FmtSpec &spec, int64_t value, IntLayout &layout) {
  layout.magnitude = static_cast<uint64_t>(value);
  if (!spec.has(FMT_UNSIGNED)) {
    layout.sign = signOf(spec, value < 0);
    layout.magnitude = value < 0 ? 0 - layout.magnitude : layout.magnitude;
  }
}

// Octal's "0" is one of the digits that the precision asks for. A precision of 0
// becomes -1, as if none were given.
void calcPrefix(FmtSpec &spec, IntLayout &layout) {
  if (layout.magnitude == 0) {
    return;
  }
  if (spec.base == 16) {
    layout.prefix = spec.has(FMT_UPPER) ? "0X" : "0x";
    layout.prefixLength = 2;
  } else if (spec.base == 8) {
    layout.prefix = "0";
    layout.prefixLength = 1;
    spec.precision -= spec.precision >= 0 ? 1 : 0;
  }
}

void calc_int_format(FmtSpec &spec, IntLayout &layout) {
  layout.digits = countDigits(layout.magnitude, spec.base);
  if (spec.has(FMT_ALT | FMT_PTR)) {
    calcPrefix(spec, layout);
  }
  if (spec.precision == 0 && layout.magnitude == 0) {
    layout.digits = 0;
  }
  if (spec.has(FMT_GROUP)) {
    layout.separators = getnumsep(spec, layout.digits);
  }
  const int64_t fill = spec.precision - (layout.digits + layout.separators);
  layout.zeroFill = fill > 0 ? fill : 0;
  const int64_t digits = layout.digits > spec.precision ? layout.digits : spec.precision;
  const int64_t total = digits + layout.separators + (layout.sign != 0 ? 1 : 0) +
                        static_cast<int64_t>(layout.prefixLength);
  const int64_t pad = spec.width > total ? spec.width - total : 0;
  if (spec.has(FMT_LEFT)) {
    layout.spaces = -pad;
  } else if (spec.has(FMT_ZERO) && spec.precision < 0) {
    layout.zeroFill += pad;
  } else {
    layout.spaces = pad;
  }
}

void output_int(FmtSpec &spec, const IntLayout &layout) {
  FmtOutput &output = *spec.output;
  emitn(output, layout.spaces, ' ');
  emitSign(output, layout.sign);
  emitstr(output, layout.prefix, layout.prefixLength);
  emitn(output, layout.zeroFill, '0');
  emitDigits(spec, layout.magnitude, layout.digits, layout.separators != 0);
  emitn(output, -layout.spaces, ' ');
}

// One separator before every third digit from the end.
void emitGrouped(FmtSpec &spec, const char *digits, int32_t count) {
  while (count > 0) {
    const int32_t group = (count - 1) % 3 + 1;
    emitstr(*spec.output, digits, static_cast<uint64_t>(group));
    digits += group;
    count -= group;
    if (count > 0) {
      printsep(spec);
    }
  }
}

// Digits that do not go straight to their place. Not inlined: the guard that a
// hardened build puts behind the array is not paid by the others.
[[gnu::noinline]] void emitFromText(FmtSpec &spec, uint64_t value, int32_t count, bool grouped) {
  char text[kDigits];
  convert(value, text, count, spec.base, spec.has(FMT_UPPER));
  if (grouped) {
    emitGrouped(spec, text, count);
  } else {
    emitstr(*spec.output, text, static_cast<uint64_t>(count));
  }
}

}  // namespace

int32_t countDigits(uint64_t value, int32_t base) {
  assert(base == 8 || base == 10 || base == 16);
  const int32_t bits = static_cast<int32_t>(std::bit_width(value | 1));
  if (base != 10) {
    return base == 16 ? (bits + 3) / 4 : (bits + 2) / 3;
  }
  // 1233 / 4096 is the decimal logarithm of 2, closely enough for 64 bits: the
  // guess is right or one short.
  const int32_t guess = bits * 1233 >> 12;
  return guess + ((value | 1) >= kPowersOf10[static_cast<uint32_t>(guess)] ? 1 : 0);
}

void convert(uint64_t value, char *text, int32_t count, int32_t base, bool upper) {
  if (base == 10) {
    convertDecimal(value, text, count);
    return;
  }
  const char *symbols = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  const int32_t bits = base == 16 ? 4 : 3;
  while (count > 0) {
    text[--count] = symbols[value & static_cast<uint64_t>(base - 1)];
    value >>= bits;
  }
}

void emitDigits(FmtSpec &spec, uint64_t value, int32_t count, bool grouped) {
  assert(count >= 0 && count <= kDigits);
  FmtOutput &output = *spec.output;
  const uint64_t length = static_cast<uint64_t>(count);
  if (grouped || roomLeft(output) < length) {
    emitFromText(spec, value, count, grouped);
    return;
  }
  convert(value, output.buffer + output.position, count, spec.base, spec.has(FMT_UPPER));
  output.position += length;
}

void format_int(FmtSpec &spec, int64_t value) {
  IntLayout layout;
  calc_int_sign(spec, value, layout);
  if (spec.isPlain()) {
    emitSign(*spec.output, layout.sign);
    emitDigits(spec, layout.magnitude, countDigits(layout.magnitude, spec.base), false);
    return;
  }
  calc_int_format(spec, layout);
  output_int(spec, layout);
}

}  // namespace zov
