// SPDX-License-Identifier: Apache-2.0
//
// The arithmetic of the formatter's floating-point numbers: extended precision, a
// mantissa of 64 bits and an exponent of 15. `long double` has it on x86-64. Where it
// is another format, SoftExtended does the same in integers, bit for bit, so that
// texts come out the same on every processor. Only magnitudes are computed with.
#ifndef ZOV_TEXT_ZOV_VSNPRINTF_EXTENDED_H
#define ZOV_TEXT_ZOV_VSNPRINTF_EXTENDED_H

#include <assert.h>
#include <float.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <compare>

namespace zov {

__extension__ typedef unsigned __int128 Uint128;

// A finite magnitude as mantissa * 2^-shift, the mantissa's highest bit being
// set. Zero and values near it have a shift above 128 and any mantissa; a shift
// below 0 means 2^64 and above.
struct Magnitude {
  uint64_t mantissa;
  int32_t shift;
};

// mantissa * 2^exponent.
//
// 1. The mantissa's highest bit is set, but where the exponent is kLeast, so the
//    order of two is that of their exponents and then their mantissas.
// 2. kMost + 1 is the exponent of infinity, which takes part in nothing but
//    comparisons and products.
class SoftExtended {
 public:
  constexpr SoftExtended() = default;
  constexpr SoftExtended(uint32_t value) : SoftExtended(rounded(value, 0)) {}

  // Of the bits of a binary floating-point number that is finite: its sign is dropped,
  // and what is too large becomes the largest number.
  template <int32_t kMantissaBits, typename Bits>
  static constexpr SoftExtended ofBits(Bits bits) {
    constexpr int32_t kWidth = sizeof(Bits) * 8;
    constexpr int32_t kFractionBits = kMantissaBits - 1;
    constexpr int32_t kHighest = (1 << (kWidth - kMantissaBits)) - 1;
    const int32_t exponent = static_cast<int32_t>(bits >> kFractionBits) & kHighest;
    const Bits one = Bits{1} << kFractionBits;
    const Bits mantissa = (bits & (one - 1)) | (exponent != 0 ? one : 0);
    const int32_t scale = std::max(exponent, 1) - kHighest / 2 - kFractionBits;
    return std::min(rounded(mantissa, scale), SoftExtended(kMost, UINT64_MAX));
  }

  constexpr auto operator<=>(const SoftExtended &) const = default;

  friend constexpr SoftExtended operator*(SoftExtended left, uint32_t right) {
    return rounded(Uint128{left.mantissa_} * right, left.exponent_);
  }

  friend constexpr SoftExtended operator/(SoftExtended left, SoftExtended right) {
    if (left.mantissa_ == 0 || right.mantissa_ == 0) {
      return right.mantissa_ == 0 ? infinity() : left;
    }
    left.normalize();
    right.normalize();
    // 64 or 65 bits, and below them two that say how the rest compares with half.
    const Uint128 dividend = Uint128{left.mantissa_} << 64;
    const Uint128 twice = dividend % right.mantissa_ * 2;
    const uint32_t half = twice >= right.mantissa_ ? 2 : 0;
    const uint32_t other = twice != 0 && twice != right.mantissa_ ? 1 : 0;
    return rounded(dividend / right.mantissa_ << 2 | half | other,
                   left.exponent_ - right.exponent_ - 64 - 2);
  }

  constexpr SoftExtended &operator*=(uint32_t factor) { return *this = *this * factor; }
  constexpr SoftExtended &operator/=(uint32_t divisor) { return *this = *this / divisor; }

  constexpr Magnitude magnitude() const { return {.mantissa = mantissa_, .shift = -exponent_}; }

 private:
  // Of numbers whose mantissa is an integer of 64 bits.
  static constexpr int32_t kLeast = -16382 - 63;
  static constexpr int32_t kMost = 16383 - 63;

  constexpr SoftExtended(int32_t exponent, uint64_t mantissa)
      : exponent_(exponent), mantissa_(mantissa) {}

  static constexpr SoftExtended infinity() { return {kMost + 1, uint64_t{1} << 63}; }

  static constexpr int32_t widthOf(Uint128 value) {
    const uint64_t high = static_cast<uint64_t>(value >> 64);
    return high != 0 ? 64 + static_cast<int32_t>(std::bit_width(high))
                     : static_cast<int32_t>(std::bit_width(static_cast<uint64_t>(value)));
  }

  // value * 2^exponent, half to even.
  static constexpr SoftExtended rounded(Uint128 value, int32_t exponent) {
    assert(widthOf(value) < 128);
    const int32_t excess = std::max(widthOf(value) - 64, kLeast - exponent);
    if (value == 0 || excess > 127) {
      return {};
    }
    Uint128 kept = excess > 0 ? value >> excess : value << -excess;
    if (excess > 0) {
      const Uint128 rest = value - (kept << excess);
      const Uint128 half = Uint128{1} << (excess - 1);
      kept += rest > half || (rest == half && (kept & 1) != 0) ? 1 : 0;
    }
    const bool carries = kept >> 64 != 0;
    const SoftExtended result(exponent + excess + (carries ? 1 : 0),
                              static_cast<uint64_t>(carries ? kept >> 1 : kept));
    return result.exponent_ > kMost ? infinity() : result;
  }

  constexpr void normalize() {
    const int32_t zeros = std::countl_zero(mantissa_);
    mantissa_ <<= zeros;
    exponent_ -= zeros;
  }

  int32_t exponent_ = kLeast;
  uint64_t mantissa_ = 0;
};

inline Magnitude magnitudeOf(double value) {
  const uint64_t bits = std::bit_cast<uint64_t>(value);
  const int32_t exponent = static_cast<int32_t>(bits >> 52 & 0x7FF);
  return {.mantissa = bits << 11 | uint64_t{1} << 63, .shift = 1023 + 63 - exponent};
}

#if LDBL_MANT_DIG == 64

using Extended = long double;

template <typename Float>
Extended extendedOf(Float value) {
  return __builtin_fabsl(value);
}

inline Magnitude magnitudeOf(const long double &value) {
  Magnitude magnitude;
  uint16_t exponent;
  memcpy(&magnitude.mantissa, &value, sizeof magnitude.mantissa);
  memcpy(&exponent, reinterpret_cast<const char *>(&value) + sizeof magnitude.mantissa,
         sizeof exponent);
  magnitude.shift = 16383 + 63 - (exponent & 0x7FFF);
  return magnitude;
}

#else

using Extended = SoftExtended;

inline Extended extendedOf(double value) {
  return Extended::ofBits<DBL_MANT_DIG>(std::bit_cast<uint64_t>(value));
}

inline Extended extendedOf(const long double &value) {
  static_assert(LDBL_MANT_DIG == 113, "the other formats are not known here");
  return Extended::ofBits<LDBL_MANT_DIG>(std::bit_cast<Uint128>(value));
}

inline Magnitude magnitudeOf(const Extended &value) {
  return value.magnitude();
}

inline Magnitude magnitudeOf(const long double &value) {
  return magnitudeOf(extendedOf(value));
}

#endif

}  // namespace zov

#endif
