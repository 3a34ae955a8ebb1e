// SPDX-License-Identifier: Apache-2.0
//
// The wide forms of the INI functions. Each converts its texts strictly, calls the
// narrow form and frees the copies. A text that is missing or cannot be converted
// has the status of a shortage of memory, so wide forms give no lists of names.
// Jumps are held off for the length of a call, so that no copy is left behind.
#include "config/zovini_private.h"
#include "core/zov_make.h"
#include "files/zovutf8_private.h"

namespace zov {
namespace {

// Bytes of UTF-8 that a wide character may need.
constexpr uint64_t kBytesPerChar = 4;

// Calls with the narrow forms of the texts; ZOV_INI_NOMEMORY without one of them.
template <typename Call, typename... Texts>
int32_t withTexts(Call call, Texts... texts) {
  const NoJump noJump;
  return withUTF8(int32_t{ZOV_INI_NOMEMORY}, call, texts...);
}

// Converts a result into the caller's buffer, which stays as it is when the result
// is not UTF-8.
int32_t widen(const char *bytes, wchar_t *out, uint32_t sizeChars) {
  if (zov_utf8_to_wchar(nullptr, bytes, sizeChars, ZOV_UTF8_STRICT) == ZOV_UTF8_FAILED) {
    return ZOV_INI_NOMEMORY;
  }
  zov_utf8_to_wchar(out, bytes, sizeChars, ZOV_UTF8_STRICT);
  return ZOV_OKAY;
}

int32_t getWide(const char *path, const char *section, const char *name, wchar_t *out,
                uint32_t sizeChars, uint16_t flags) {
  const uint64_t sizeBytes = kBytesPerChar * sizeChars;
  char none = '\0';
  if (sizeBytes == 0) {
    return iniGet(path, section, name, &none, 0, flags);
  }
  char *bytes = makeArray<char>(sizeBytes, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (bytes == nullptr) {
    return ZOV_INI_NOMEMORY;
  }
  int32_t status = iniGet(path, section, name, bytes, sizeBytes, flags);
  if (status == ZOV_OKAY) {
    status = widen(bytes, out, sizeChars);
  }
  zov_freeMem(bytes, ZOV_DEFAULT_TAG);
  return status;
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_readIniFileW(const wchar_t *path) {
  return zov_readIniFileExW(path, 0);
}

int32_t zov_readIniFileExW(const wchar_t *path, uint16_t flags) {
  return zov::withTexts(
      [&](const char *pathBytes) -> int32_t {
        zov::assumeAlone();
        zov::IniFile *file = nullptr;
        const int32_t status = zov::CacheINIFile(pathBytes, flags, file);
        return status == ZOV_INI_NOFILE ? ZOV_OKAY : status;
      },
      path);
}

int32_t zov_iniGetW(const wchar_t *path, const wchar_t *section, const wchar_t *name, wchar_t *out,
                    uint32_t sizeChars) {
  return zov_iniGetExW(path, section, name, out, sizeChars, 0);
}

int32_t zov_iniGetExW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                      wchar_t *out, uint32_t sizeChars, uint16_t flags) {
  if (out == nullptr) {
    return ZOV_INI_NOARGUMENT;
  }
  return zov::withTexts(
      [&](const char *pathBytes, const char *sectionBytes, const char *nameBytes) {
        return zov::getWide(pathBytes, sectionBytes, nameBytes, out, sizeChars, flags);
      },
      path, section, name);
}

int32_t zov_iniStringW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                       wchar_t *out, uint32_t sizeChars) {
  return zov_iniGetExW(path, section, name, out, sizeChars, 0);
}

int32_t zov_iniStringExW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                         wchar_t *out, uint32_t sizeChars, uint16_t flags) {
  return zov_iniGetExW(path, section, name, out, sizeChars, flags);
}

int32_t zov_iniInt32W(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                      int32_t *value) {
  return zov_iniInt32ExW(path, section, name, value, 0);
}

int32_t zov_iniInt32ExW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                        int32_t *value, uint16_t flags) {
  return zov::withTexts(
      [&](const char *pathBytes, const char *sectionBytes, const char *nameBytes) {
        return zov_iniInt32Ex(pathBytes, sectionBytes, nameBytes, value, flags);
      },
      path, section, name);
}

int32_t zov_iniSetW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                    const wchar_t *value) {
  return zov_iniSetExW(path, section, name, value, 0);
}

int32_t zov_iniSetExW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                      const wchar_t *value, uint16_t flags) {
  return zov::withTexts(
      [&](const char *pathBytes, const char *sectionBytes, const char *nameBytes,
          const char *valueBytes) {
        return zov_iniSetEx(pathBytes, sectionBytes, nameBytes, valueBytes, flags);
      },
      path, section, name, value);
}
}
