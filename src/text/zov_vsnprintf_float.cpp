// SPDX-License-Identifier: Apache-2.0
//
// The formatter's floating-point numbers. A number is split into two 64-bit
// integers, the part before the decimal point and the part behind it, scaled by a
// power of ten, and both are printed as integers:
//
//   leading spaces | sign | zero fill | integer digits and separators | point |
//   zeros | fraction digits | exponent | trailing spaces
//
// All arithmetic is in extended precision (zov_vsnprintf_extended.h). The split
// gives at most 19 digits behind the point and refuses an integer part of 64 bits
// and more. It rounds half up. The power that a number is divided by for its
// exponent is made by that many multiplications by ten, or divisions, with the
// rounding of each: digits beyond the 17th are those of this arithmetic and not of
// the exact value.
#include <array>
#include <bit>

#include "text/zov_vsnprintf_extended.h"
#include "text/zov_vsnprintf_locale.h"
#include "text/zov_vsnprintf_private.h"

namespace zov {
namespace {

constexpr int32_t kDefaultPrecision = 6;
// 10^19 is the largest power of ten below 2^64.
constexpr int32_t kMaxPrecision = 19;

// 10^exponent, as the walk from 1 makes it.
struct Decade {
  int32_t exponent;
  Extended power;
};

// Counts are bytes.
struct FloatLayout {
  char sign = 0;  // '-', '+', ' ' or 0
  bool useExponent = false;
  bool stripZeros = false;     // no zeros at the end of the fraction
  const char *word = nullptr;  // printed for a value that is no number
  Magnitude magnitude;
  Magnitude scaled;  // the magnitude divided by 10^exponent
  int32_t exponent = 0;
  int32_t exponentDigits = 0;  // 0 when no exponent is shown
  uint64_t integerPart = 0;
  uint64_t fraction = 0;      // times 10^precision
  int32_t integerDigits = 0;  // or the length of word
  int64_t pointLength = 0;    // 0 when no point is shown
  int64_t separators = 0;
  int64_t pad = 0;  // below 0: that many trailing spaces
};

// Values of one of the two walks of get_exponent(), so many steps apart. They are
// made by the same steps with the same rounding, so a walk from one of them ends
// where a walk from 1 does.
template <size_t kCount>
constexpr std::array<Extended, kCount> valuesOfWalk(bool upwards, int32_t stride) {
  std::array<Extended, kCount> values{};
  values[0] = 1;
  for (size_t value = 1; value < kCount; ++value) {
    Extended power = values[value - 1];
    for (int32_t step = 0; step < stride; ++step) {
      power = upwards ? power * 10 : power / 10;
    }
    values[value] = power;
  }
  return values;
}

// Every value that a double needs. They save the walk, which was a third of the
// time that %e takes.
constexpr int32_t kNearDecades = 328;
constexpr auto kNearUp = valuesOfWalk<kNearDecades>(true, 1);
constexpr auto kNearDown = valuesOfWalk<kNearDecades>(false, 1);

// For long doubles beyond, every sixteenth: where a walk starts.
constexpr int32_t kStride = 16;
constexpr auto kFarUp = valuesOfWalk<4928 / kStride + 1>(true, kStride);
constexpr auto kFarDown = valuesOfWalk<4928 / kStride + 1>(false, kStride);

void calc_float_sign(const FmtSpec &spec, bool negative, FloatLayout &layout) {
  layout.sign = signOf(spec, negative);
}

const char *get_nan_str(const FmtSpec &spec) {
  return spec.has(FMT_UPPER) ? "NAN" : "nan";
}

const char *get_inf_str(const FmtSpec &spec) {
  return spec.has(FMT_UPPER) ? "INF" : "inf";
}

void calcPad(const FmtSpec &spec, int64_t total, FloatLayout &layout) {
  const int64_t pad = spec.width - (total + (layout.sign != 0 ? 1 : 0));
  if (pad > 0) {
    layout.pad = spec.has(FMT_LEFT) ? -pad : pad;
  }
}

// Lays out a value that is no number. False for a number.
template <typename Float>
bool check_nan_and_inf(FmtSpec &spec, Float value, FloatLayout &layout) {
  if (value != value) {
    layout.word = get_nan_str(spec);
  } else if (value != 0 && value + value == value) {
    layout.word = get_inf_str(spec);
  } else {
    return false;
  }
  layout.integerDigits = 3;
  spec.flags &= static_cast<uint16_t>(~FMT_ZERO);
  calcPad(spec, layout.integerDigits, layout);
  return true;
}

// At most the number of decades in so many doublings, and at most one less.
int32_t decadesIn(int32_t doublings) {
  return doublings * 1233 >> 12;
}

// The last value upwards that is not above the magnitude, which is behind so many
// others.
Decade walkUp(Extended magnitude, int32_t behind) {
  Decade decade;
  if (behind < kNearDecades) {
    decade = {.exponent = behind, .power = kNearUp[static_cast<uint32_t>(behind)]};
  } else {
    const int32_t point = behind / kStride;
    decade = {.exponent = point * kStride, .power = kFarUp[static_cast<uint32_t>(point)]};
  }
  assert(decade.power <= magnitude);
  for (Extended next = decade.power * 10; magnitude >= next; next *= 10) {
    decade.power = next;
    ++decade.exponent;
  }
  return decade;
}

// The first value downwards that is not above the magnitude, which is behind so
// many others.
Decade walkDown(Extended magnitude, int32_t behind) {
  uint32_t step = static_cast<uint32_t>(behind);
  while (step < kNearDown.size() && kNearDown[step] > magnitude) {
    ++step;
  }
  if (step < kNearDown.size()) {
    return {.exponent = -static_cast<int32_t>(step), .power = kNearDown[step]};
  }
  const uint32_t point = step / kStride;
  Decade decade{.exponent = static_cast<int32_t>(point) * -kStride, .power = kFarDown[point]};
  for (; decade.power > magnitude; decade.power /= 10) {
    --decade.exponent;
  }
  return decade;
}

// Finds the decade of a magnitude of at least 2^binaryExponent by walking from 1 in
// steps of ten, past the steps that all such magnitudes take. Rounding on the way
// may put it one off; nothing corrects that.
Decade get_exponent(Extended magnitude, int32_t binaryExponent) {
  if (magnitude == 0) {
    return {.exponent = 0, .power = 1};
  }
  return magnitude >= 1 ? walkUp(magnitude, decadesIn(binaryExponent))
                        : walkDown(magnitude, decadesIn(-1 - binaryExponent));
}

void initial_e_style_setup(FmtSpec &spec, Extended magnitude, FloatLayout &layout) {
  if (spec.has(FMT_GSTYLE)) {
    --spec.precision;
    layout.stripZeros = !spec.has(FMT_ALT);
  }
  const Decade decade = get_exponent(magnitude, 63 - layout.magnitude.shift);
  layout.exponent = decade.exponent;
  layout.scaled = magnitudeOf(magnitude / decade.power);
  layout.useExponent = true;
}

// Truncates toward zero and leaves the rest of the mantissa behind. False for
// 2^64 - 1 and above.
bool cast(Magnitude &bits, uint64_t &whole) {
  if (bits.shift < 0 || (bits.shift == 0 && bits.mantissa == UINT64_MAX)) {
    return false;
  }
  whole = bits.shift < 64 ? bits.mantissa >> bits.shift : 0;
  bits.mantissa -= bits.shift < 64 ? whole << bits.shift : 0;
  return true;
}

// Rounds product * 2^-shift half up, with the product itself rounded to the 64
// bits of a mantissa before, half to even, as a multiplication would.
uint64_t flt_round(Uint128 product, int32_t shift) {
  if (shift == 0 || shift > 128) {
    return 0;
  }
  const uint64_t high = static_cast<uint64_t>(product >> 64);
  const int32_t excess = static_cast<int32_t>(std::bit_width(high));
  if (excess > 0) {
    const uint64_t low = static_cast<uint64_t>(product);
    const uint64_t odd = (excess < 64 ? low >> excess : high) & 1;
    product += (uint64_t{1} << (excess - 1)) - 1 + odd;
  }
  // No fraction is left when every bit of the mantissa is an integer's.
  const Uint128 half = shift > excess ? Uint128{1} : 0;
  return static_cast<uint64_t>(((product >> (shift - 1)) + half) >> 1);
}

// Splits the magnitude, divided by its decade for an exponent. False when the
// integer part is too large. The product with the scale is computed in
// integers, which takes a fraction of the time that conversions between the two
// kinds of register would.
bool calc_float_parts(FmtSpec &spec, FloatLayout &layout) {
  if (spec.precision > kMaxPrecision) {
    spec.precision = kMaxPrecision;
  }
  assert(spec.precision >= 0);
  Magnitude bits = layout.useExponent ? layout.scaled : layout.magnitude;
  if (!cast(bits, layout.integerPart)) {
    return false;
  }
  const uint64_t scale = kPowersOf10[static_cast<uint32_t>(spec.precision)];
  layout.fraction = flt_round(Uint128{bits.mantissa} * scale, bits.shift);
  if (layout.fraction >= scale) {
    layout.fraction = 0;
    ++layout.integerPart;
    if (layout.useExponent && layout.integerPart == 10) {
      layout.integerPart = 1;
      ++layout.exponent;
    }
  }
  return true;
}

// True for a magnitude from 1 up to 9, which is not among them.
bool isBelowNine(const Magnitude &magnitude) {
  return magnitude.shift >= 60 && magnitude.shift < 64 && magnitude.mantissa >> magnitude.shift < 9;
}

// The general notation prints exponents from -4 up to the precision without one.
// Below a first digit of 9 nothing can be rounded up to the next exponent, and the
// parts of the longer form need not be computed to know it.
bool calcGeneralParts(FmtSpec &spec, FloatLayout &layout) {
  assert(layout.useExponent);
  if (spec.precision > kMaxPrecision) {
    spec.precision = kMaxPrecision;
  }
  const auto needsExponent = [&] {
    return layout.exponent < -4 || layout.exponent > spec.precision;
  };
  if (needsExponent() || !isBelowNine(layout.scaled)) {
    if (!calc_float_parts(spec, layout)) {
      return false;
    }
    if (needsExponent()) {
      return true;
    }
  }
  spec.precision -= layout.exponent;
  layout.useExponent = false;
  return calc_float_parts(spec, layout);
}

// At least two digits. Of an exponent of four, which only a long double has,
// the last three are kept.
void print_exponent(FmtSpec &spec, const FloatLayout &layout) {
  const bool negative = layout.exponent < 0;
  emit(*spec.output, spec.has(FMT_UPPER) ? 'E' : 'e');
  emit(*spec.output, negative ? '-' : '+');
  emitDigits(spec, static_cast<uint64_t>(negative ? -layout.exponent : layout.exponent),
             layout.exponentDigits, false);
}

void stripTrailingZeros(FmtSpec &spec, FloatLayout &layout) {
  if (layout.fraction == 0) {
    spec.precision = 0;
    return;
  }
  for (; layout.fraction % 10 == 0; layout.fraction /= 10) {
    --spec.precision;
  }
}

void calc_float_format(FmtSpec &spec, FloatLayout &layout) {
  int64_t total = 0;
  if (layout.useExponent) {
    layout.exponentDigits = layout.exponent > -100 && layout.exponent < 100 ? 2 : 3;
    total = layout.exponentDigits + 2;
  }
  layout.integerDigits = countDigits(layout.integerPart, 10);
  if (layout.stripZeros) {
    stripTrailingZeros(spec, layout);
  }
  if (spec.precision > 0 || spec.has(FMT_ALT)) {
    layout.pointLength = getnumdec(spec);
  }
  if (spec.has(FMT_GROUP)) {
    layout.separators = getnumsep(spec, layout.integerDigits);
  }
  total += layout.integerDigits + int64_t{spec.precision} + layout.separators + layout.pointLength;
  calcPad(spec, total, layout);
}

void output_float(FmtSpec &spec, const FloatLayout &layout) {
  FmtOutput &output = *spec.output;
  if (spec.has(FMT_ZERO) && layout.pad > 0) {
    emitSign(output, layout.sign);
    emitn(output, layout.pad, '0');
  } else {
    emitn(output, layout.pad, ' ');
    emitSign(output, layout.sign);
  }
  if (layout.word != nullptr) {
    emitstr(output, layout.word, static_cast<uint64_t>(layout.integerDigits));
  } else {
    emitDigits(spec, layout.integerPart, layout.integerDigits, layout.separators != 0);
    if (layout.pointLength != 0) {
      printdec(spec);
    }
    emitDigits(spec, layout.fraction, spec.precision, false);
    if (layout.exponentDigits != 0) {
      print_exponent(spec, layout);
    }
  }
  emitn(output, -layout.pad, ' ');
}

// Prints a finite number.
bool formatFinite(FmtSpec &spec, FloatLayout &layout) {
  if (!(spec.has(FMT_GSTYLE) ? calcGeneralParts(spec, layout) : calc_float_parts(spec, layout))) {
    return false;
  }
  calc_float_format(spec, layout);
  output_float(spec, layout);
  return true;
}

// Doubles are extended only to be divided; all else is told by their bits.
template <typename Float>
bool format_float(FmtSpec &spec, Float value) {
  FloatLayout layout;
  spec.base = 10;
  if (spec.precision < 0) {
    spec.precision = kDefaultPrecision;
  }
  calc_float_sign(spec, value < 0, layout);
  if (check_nan_and_inf(spec, value, layout)) {
    output_float(spec, layout);
    return true;
  }
  layout.magnitude = magnitudeOf(value);
  if (spec.has(FMT_GSTYLE | FMT_ESTYLE)) {
    initial_e_style_setup(spec, extendedOf(value), layout);
  }
  return formatFinite(spec, layout);
}

}  // namespace

bool handle_float(FmtSpec &spec) {
  va_list &arguments = spec.output->arguments;
  if (spec.modifier == kModLongDouble) {
    return format_float(spec, va_arg(arguments, long double));
  }
  return format_float(spec, va_arg(arguments, double));
}

}  // namespace zov
