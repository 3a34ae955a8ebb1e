// SPDX-License-Identifier: Apache-2.0
//
// A model of the UTF-8 conversion that cuts the text into its units first and
// applies room and error mode to them afterwards, and comparisons of the
// library with it. They pass buffers of exactly the size they name, so that
// the address sanitizer sees every byte too many.
#ifndef TESTS_SUPPORT_UTF8_MODEL_H
#define TESTS_SUPPORT_UTF8_MODEL_H

#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "zov.h"

namespace zovtest {

inline bool isCharacter(uint32_t value) {
  return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

inline std::string encoded(uint32_t value) {
  std::string tail;
  uint32_t leadRoom = 0x80;  // values below it fit in the first byte
  for (; value >= leadRoom; value /= 64) {
    tail.insert(tail.begin(), static_cast<char>(0x80 + value % 64));
    leadRoom = tail.size() == 1 ? 0x20 : leadRoom / 2;
  }
  const uint32_t lead[] = {0, 0xC0, 0xE0, 0xF0};
  return static_cast<char>(lead[tail.size()] + value) + tail;
}

// Cuts bytes into code points, -1 for an invalid one. Returns how many bytes at
// the end belong to a sequence that is not complete.
inline size_t cut(const std::string &bytes, std::vector<int64_t> &units) {
  for (size_t at = 0; at < bytes.size();) {
    const uint8_t lead = static_cast<uint8_t>(bytes[at]);
    const size_t length = lead < 0x80   ? 1
                          : lead < 0xC2 ? 0
                          : lead < 0xE0 ? 2
                          : lead < 0xF0 ? 3
                          : lead < 0xF5 ? 4
                                        : 0;
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

// One call in the form for lengths and, for text without zeros, in the form
// for terminated strings; both must agree.
inline bool decodesTo(const std::string &bytes, bool store, uint32_t size, uint32_t mode,
                      bool failed, const std::wstring &expected) {
  const auto text = std::make_unique<char[]>(bytes.size());
  memcpy(text.get(), bytes.data(), bytes.size());
  // Without a bound nothing is terminated.
  const size_t stored = expected.size() + (store && size == 0 ? 0 : 1);
  const auto out = std::make_unique<wchar_t[]>(store && size != 0 ? size : stored);
  const auto agrees = [&](uint32_t result) {
    return failed
               ? result == ZOV_UTF8_FAILED
               : result == stored && (!store || wmemcmp(out.get(), expected.c_str(), stored) == 0);
  };
  wchar_t *place = store ? out.get() : nullptr;
  const uint32_t length = static_cast<uint32_t>(bytes.size());
  return agrees(zov_utf8_to_wchar_len(place, size, text.get(), length, mode)) &&
         (memchr(bytes.data(), 0, length) != nullptr ||
          agrees(zov_utf8_to_wchar(place, bytes.c_str(), size, mode)));
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
  return decodesTo(bytes, false, size, mode, failed, whole) &&
         (failed || decodesTo(bytes, true, 0, mode, false, whole)) &&
         (size == 0 ||
          decodesTo(bytes, true, size, mode, failed || misfit, whole.substr(0, size - 1)));
}

inline bool encodesTo(const std::wstring &chars, bool store, uint32_t size, uint32_t mode,
                      bool failed, const std::string &expected) {
  const auto text = std::make_unique<wchar_t[]>(chars.size());
  wmemcpy(text.get(), chars.data(), chars.size());
  const size_t stored = expected.size() + (store && size == 0 ? 0 : 1);
  const auto out = std::make_unique<char[]>(store && size != 0 ? size : stored);
  const auto agrees = [&](uint32_t result) {
    return failed
               ? result == ZOV_UTF8_FAILED
               : result == stored && (!store || memcmp(out.get(), expected.c_str(), stored) == 0);
  };
  char *place = store ? out.get() : nullptr;
  const uint32_t length = static_cast<uint32_t>(chars.size());
  return agrees(zov_wchar_to_utf8_len(place, size, text.get(), length, mode)) &&
         (wmemchr(chars.data(), 0, length) != nullptr ||
          agrees(zov_wchar_to_utf8(place, chars.c_str(), size, mode)));
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
  return encodesTo(chars, false, size, mode, failed, whole) &&
         (failed || encodesTo(chars, true, 0, mode, false, whole)) &&
         (size == 0 || encodesTo(chars, true, size, mode, failedFitting, fitting));
}

}  // namespace zovtest

#endif
