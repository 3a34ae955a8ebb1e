// SPDX-License-Identifier: Apache-2.0
//
// A model of the UTF-8 conversion that cuts the text into its units first and
// applies room and error mode to them afterwards, and comparisons of the
// library with it. They pass buffers of exactly the size they name, so that
// the address sanitizer sees every byte too many.
#ifndef TESTS_SUPPORT_UTF8_MODEL_H
#define TESTS_SUPPORT_UTF8_MODEL_H

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "zov.h"

namespace zovtest {

inline bool isCharacter(uint32_t value) {
  return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

inline std::string encoded(uint32_t value) {
  const uint32_t above[] = {0x80, 0x800, 0x10000, 0x110000};
  const uint32_t lead[] = {0, 0xC0, 0xE0, 0xF0};
  size_t tail = 0;
  while (value >= above[tail]) {
    ++tail;
  }
  std::string bytes(1, static_cast<char>(lead[tail] + (value >> (6 * tail))));
  while (tail-- > 0) {
    bytes += static_cast<char>(0x80 + (value >> (6 * tail)) % 64);
  }
  return bytes;
}

// Cuts bytes into code points, -1 for an invalid one. Returns how many bytes at
// the end belong to a sequence that is not complete.
inline size_t cut(const std::string &bytes, std::vector<int64_t> &units) {
  for (size_t at = 0; at < bytes.size();) {
    const uint8_t lead = static_cast<uint8_t>(bytes[at]);
    size_t length = lead < 0x80 ? 1 : 0;
    if (lead >= 0xC2 && lead < 0xF5) {
      length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    }
    uint32_t value = length < 2 ? lead : lead & (0x7Fu >> length);
    size_t good = 1;
    while (good < length && at + good < bytes.size() && (bytes[at + good] & 0xC0) == 0x80) {
      value = value * 64 + (bytes[at + good++] & 0x3F);
    }
    if (good < length && at + good == bytes.size()) {
      return good;
    }
    const size_t consumed = good < length ? good + 1 : good;
    const bool valid = good == length && isCharacter(value) && value != 0xFFFE && value != 0xFFFF &&
                       encoded(value).size() == length;
    units.insert(units.end(), valid ? 1 : consumed, valid ? int64_t{value} : -1);
    at += consumed;
  }
  return 0;
}

// The two forms of a conversion: for lengths and for terminated strings.
template <typename In, typename Out>
struct Forms {
  uint32_t (*counted)(Out *, uint32_t, const In *, uint32_t, uint32_t);
  uint32_t (*terminated)(Out *, const In *, uint32_t, uint32_t);
};
constexpr Forms<char, wchar_t> kDecoding = {zov_utf8_to_wchar_len, zov_utf8_to_wchar};
constexpr Forms<wchar_t, char> kEncoding = {zov_wchar_to_utf8_len, zov_wchar_to_utf8};

// One call in the form for lengths and, for text without zeros, in the other;
// both must agree.
template <typename In, typename Out>
bool convertsTo(const Forms<In, Out> &forms, const std::basic_string<In> &in, bool store,
                uint32_t size, uint32_t mode, bool failed, const std::basic_string<Out> &expected) {
  const auto text = std::make_unique<In[]>(in.size());
  std::copy(in.begin(), in.end(), text.get());
  // Without a bound nothing is terminated.
  const size_t stored = expected.size() + (store && size == 0 ? 0 : 1);
  const auto out = std::make_unique<Out[]>(store && size != 0 ? size : stored);
  const auto agrees = [&](uint32_t result) {
    return failed ? result == ZOV_UTF8_FAILED
                  : result == stored &&
                        (!store || std::equal(out.get(), out.get() + stored, expected.c_str()));
  };
  Out *place = store ? out.get() : nullptr;
  const uint32_t length = static_cast<uint32_t>(in.size());
  return agrees(forms.counted(place, size, text.get(), length, mode)) &&
         (in.find(In{}) != in.npos || agrees(forms.terminated(place, in.c_str(), size, mode)));
}

// Compares measuring, storing in `size` characters, and storing without a
// bound. An unbounded call is made only where the result is known to fit.
inline bool decodingAgrees(const std::string &bytes, uint32_t size, uint32_t mode) {
  std::vector<int64_t> units;
  const size_t open = cut(bytes, units);
  units.insert(units.end(), open, -1);
  std::wstring whole;
  bool failed = false;
  for (const int64_t unit : units) {
    failed = failed || (unit < 0 && mode != ZOV_UTF8_REPLACE);
    whole += static_cast<wchar_t>(unit < 0 ? '?' : unit);
  }
  const bool misfit = open > 0 && whole.size() + 1 > size;
  return convertsTo(kDecoding, bytes, false, size, mode, failed, whole) &&
         (failed || convertsTo(kDecoding, bytes, true, 0, mode, false, whole)) &&
         (size == 0 || convertsTo(kDecoding, bytes, true, size, mode, failed || misfit,
                                  whole.substr(0, size - 1)));
}

// The same for the other direction, where what lies behind the cut is not
// examined.
inline bool encodingAgrees(const std::wstring &chars, uint32_t size, uint32_t mode) {
  std::string whole;
  std::string fitting;
  bool failed = false;
  bool failedFitting = false;
  bool full = false;
  for (const wchar_t each : chars) {
    const bool valid = isCharacter(static_cast<uint32_t>(each));
    const std::string piece = valid ? encoded(static_cast<uint32_t>(each)) : "?";
    failed = failed || (!valid && mode != ZOV_UTF8_REPLACE);
    failedFitting = full ? failedFitting : failed;
    full = full || fitting.size() + piece.size() + 1 > size;
    fitting += full ? "" : piece;
    whole += piece;
  }
  return convertsTo(kEncoding, chars, false, size, mode, failed, whole) &&
         (failed || convertsTo(kEncoding, chars, true, 0, mode, false, whole)) &&
         (size == 0 || convertsTo(kEncoding, chars, true, size, mode, failedFitting, fitting));
}

}  // namespace zovtest

#endif
