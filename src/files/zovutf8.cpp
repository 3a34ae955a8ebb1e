// SPDX-License-Identifier: Apache-2.0
//
// Conversions into memory of their own, for callers without a buffer: a text is
// measured first, then converted into a block of that size in the default tag. The
// two directions are in zovutf8_encode.cpp and zovutf8_decode.cpp.
//
// Every function here but zov_utf8_codes() may jump where it allocates. Nothing
// is held then: zov_convertArgvToUTF8() releases its strings before.
#include <errno.h>
#include <string.h>
#include <wchar.h>

#include "core/zov_make.h"
#include "core/zovmem_private.h"
#include "files/zovutf8_private.h"

namespace zov {
namespace {

// Converts a text into a block of its own, by one of the two directions. Null
// with errno EILSEQ for an invalid one, and with isShort set without memory.
template <typename To, typename From>
To *convert(uint32_t (*direction)(To *, uint32_t, const From *, size_t, uint32_t), const From *text,
            size_t length, uint32_t errorMode, bool &isShort) {
  const uint32_t size = direction(nullptr, 0, text, length, errorMode);
  if (size == ZOV_UTF8_FAILED) {
    errno = EILSEQ;
    return nullptr;
  }
  To *converted = makeArray<To>(size, ZOV_DEFAULT_TAG, ZOV_HERE);
  isShort = converted == nullptr;
  if (!isShort) {
    direction(converted, size, text, length, errorMode);
  }
  return converted;
}

// The same from wide characters. Null gives null.
char *toUtf8(const wchar_t *text, uint32_t errorMode, bool &isShort) {
  return text == nullptr ? nullptr : convert(encodeWide, text, wcslen(text), errorMode, isShort);
}

// Releases the first strings of an array, and the array.
void releaseStrings(char **strings, int32_t count) {
  while (count > 0) {
    zov_freeMem(strings[--count], ZOV_DEFAULT_TAG);
  }
  zov_freeMem(strings, ZOV_DEFAULT_TAG);
}

// The copies of wide strings, or null with nothing left behind.
char **convertAll(int32_t count, wchar_t *const *arguments, bool &isShort) {
  // One pointer more than asked for, so that no arguments make an array too.
  char **strings =
      makeZeroArray<char *>(static_cast<uint64_t>(count) + 1, ZOV_DEFAULT_TAG, ZOV_HERE);
  isShort = strings == nullptr;
  if (isShort) {
    return nullptr;
  }
  for (int32_t index = 0; index < count; ++index) {
    const wchar_t *text = arguments[index];
    strings[index] = toUtf8(text, ZOV_UTF8_STRICT, isShort);
    if (strings[index] == nullptr && text != nullptr) {
      releaseStrings(strings, index);
      return nullptr;
    }
  }
  return strings;
}

}  // namespace

}  // namespace zov

extern "C" {

void zov_utf8_codes(uint32_t codePoint, char *out, uint32_t *lengthBytes) {
  const uint32_t length = zov::utf8Length(codePoint);
  if (lengthBytes != nullptr) {
    *lengthBytes = length;
  }
  if (out != nullptr && length != 0) {
    zov::storeUtf8(out, codePoint, length);
  }
}

char *zov_convertToUTF8(const wchar_t *text, uint32_t errorMode) {
  bool isShort = false;
  return zov::toUtf8(text, errorMode, isShort);
}

wchar_t *zov_convertToWchar(const char *text, uint32_t errorMode) {
  bool isShort = false;
  return text == nullptr ? nullptr
                         : zov::convert(zov::decodeUtf8, text, strlen(text), errorMode, isShort);
}

int32_t zov_convertArgvToUTF8(int32_t count, wchar_t *const *arguments, char ***out) {
  *out = nullptr;
  if (count < 0) {
    return ZOV_ERROR;
  }
  *out = zov::makeOrJump(ZOV_DEFAULT_TAG,
                         [&](bool &isShort) { return zov::convertAll(count, arguments, isShort); });
  return *out == nullptr ? ZOV_ERROR : ZOV_OKAY;
}
}
