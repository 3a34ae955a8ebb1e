// SPDX-License-Identifier: Apache-2.0
//
// String helpers: case conversion in place, copies that always terminate, and
// rounding. Pure functions over the caller's memory; they take no lock, allocate
// nothing and never jump. Case follows the locale of the calling thread.
#include <ctype.h>
#include <math.h>
#include <string.h>
#include <wctype.h>

#include "zov.h"

namespace zov {
namespace {

// Replaces every byte of the class by its entry of the conversion table. Uses
// libc's tables, which are looked up once for the string and not for each byte,
// and may be indexed by negative characters.
char *convertCase(char *text, unsigned short classMask, const int32_t *conversion) {
  const unsigned short *classes = *__ctype_b_loc();
  for (char *place = text; *place != '\0'; ++place) {
    const int character = static_cast<signed char>(*place);
    if ((classes[character] & classMask) != 0) {
      *place = static_cast<char>(conversion[character]);
    }
  }
  return text;
}

wchar_t *convertCase(wchar_t *text, int (*hasClass)(wint_t), wint_t (*convert)(wint_t)) {
  for (wchar_t *place = text; *place != L'\0'; ++place) {
    const wint_t character = static_cast<wint_t>(*place);
    if (hasClass(character) != 0) {
      *place = static_cast<wchar_t>(convert(character));
    }
  }
  return text;
}

}  // namespace
}  // namespace zov

extern "C" {

char *strupr(char *text) {
  return text == nullptr ? nullptr : zov::convertCase(text, _ISlower, *__ctype_toupper_loc());
}

char *strlwr(char *text) {
  return text == nullptr ? nullptr : zov::convertCase(text, _ISupper, *__ctype_tolower_loc());
}

wchar_t *wcsupr(wchar_t *text) {
  return text == nullptr ? nullptr : zov::convertCase(text, iswlower, towupper);
}

wchar_t *wcslwr(wchar_t *text) {
  return text == nullptr ? nullptr : zov::convertCase(text, iswupper, towlower);
}

char *zov_strncpyZ(char *destination, const char *source, uint64_t size) {
  if (size > 0) {
    strncpy(destination, source == nullptr ? "" : source, size - 1);
    destination[size - 1] = '\0';
  }
  return destination;
}

wchar_t *zov_wcsncpyZ(wchar_t *destination, const wchar_t *source, uint64_t size) {
  if (size > 0) {
    wcsncpy(destination, source == nullptr ? L"" : source, size - 1);
    destination[size - 1] = L'\0';
  }
  return destination;
}

double zov_round(double value) {
  return value >= 0 ? floor(value + 0.5) : ceil(value - 0.5);
}

int32_t zov_isPurifyRunning() {
  return 0;
}
}
