// SPDX-License-Identifier: Apache-2.0
//
// The texts the formatter takes from the locale: the decimal point and the
// thousands separator, each of which may be several bytes long, and the
// separator empty, as it is in the "C" locale.
//
// localeconv() is called without a lock. It has one record for the whole process
// and fills it with the same pointers every time, unless threads have locales of
// their own. A directive calls it once, and only when it prints one of the two.
#ifndef ZOV_TEXT_ZOV_VSNPRINTF_LOCALE_H
#define ZOV_TEXT_ZOV_VSNPRINTF_LOCALE_H

#include "text/zov_vsnprintf_private.h"

namespace zov {

inline const lconv &setup_locale(FmtSpec &spec) {
  if (spec.locale == nullptr) {
    spec.locale = localeconv();
  }
  return *spec.locale;
}

inline const char *decimalPoint(FmtSpec &spec) {
  const char *text = setup_locale(spec).decimal_point;
  return text != nullptr ? text : ".";
}

inline const char *thousandsSeparator(FmtSpec &spec) {
  const char *text = setup_locale(spec).thousands_sep;
  return text != nullptr ? text : ",";
}

// The length of a text that mostly has one byte.
inline uint64_t lengthOf(const char *text) {
  return text[0] != '\0' && text[1] == '\0' ? 1 : strlen(text);
}

inline void printdec(FmtSpec &spec) {
  const char *text = decimalPoint(spec);
  emitstr(*spec.output, text, lengthOf(text));
}

inline void printsep(FmtSpec &spec) {
  const char *text = thousandsSeparator(spec);
  emitstr(*spec.output, text, lengthOf(text));
}

// Bytes of the decimal point.
inline int64_t getnumdec(FmtSpec &spec) {
  return static_cast<int64_t>(lengthOf(decimalPoint(spec)));
}

// Bytes of all separators of that many digits. For 0 digits the result is minus one
// separator; kept, since the padding depends on it.
inline int64_t getnumsep(FmtSpec &spec, int32_t digits) {
  return ((digits + 2) / 3 - 1) * static_cast<int64_t>(lengthOf(thousandsSeparator(spec)));
}

}  // namespace zov

#endif
