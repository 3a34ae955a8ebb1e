// SPDX-License-Identifier: Apache-2.0
//
// INI files: gets. A file is read when its path is first asked for, and again
// while its entry has no sections; otherwise the answer comes from memory, at
// the cost of one lock and a look-up of the path, the section and the name.
//
// Results are put together byte by byte as a list of texts with a NUL behind
// each and one more behind the last. The last NUL of a single value is thus its
// second, and room for it is asked for as well: callers size their buffers with
// two bytes to spare.
//
// All is done under iniSem with jumps held off.
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "config/zovini_private.h"

namespace zov {
namespace {

// Room that iniInt32 gives a value.
constexpr uint64_t kIntegerBytes = 20;

// The caller's buffer without the byte for the last NUL.
struct Output {
  char *out;
  uint64_t room;    // bytes
  uint64_t copied;  // of them in use
  bool isCut;

  uint64_t left() const { return room - copied; }
};

void put(Output &output, const char *bytes, uint64_t length) {
  memcpy(output.out + output.copied, bytes, length);
  output.copied += length;
}

// Copies a text and its NUL, or what of them fits.
void putOrCut(Output &output, const char *text, uint64_t length) {
  const uint64_t wanted = length + 1;
  output.isCut = wanted > output.left();
  put(output, text, std::min(wanted, output.left()));
}

// What is left counts in 16 bits here: a larger buffer is used up to a multiple
// of 65,536 bytes from its end, and that does not count as cut.
void putParamNames(Output &output, const IniSection &section) {
  for (const IniParam &param : section.params) {
    const uint64_t left = static_cast<uint16_t>(output.left());
    const IniText name = iniNameOf(param);
    put(output, name.bytes, std::min<uint64_t>(name.length + 1, left));
  }
}

void putSectionNames(Output &output, const IniFile &file) {
  for (const IniSection &section : file.sections) {
    if (output.isCut) {
      return;
    }
    const IniText name = iniNameOf(section);
    putOrCut(output, name.bytes, name.length);
  }
}

int32_t putAnswer(Output &output, const IniFile &file, const char *section, const char *name) {
  if (section == nullptr) {
    putSectionNames(output, file);
    return ZOV_OKAY;
  }
  const IniSection *found = iniFind(file.sections, iniText(section));
  if (found == nullptr) {
    return kIniNotFound;
  }
  if (name == nullptr) {
    putParamNames(output, *found);
    return ZOV_OKAY;
  }
  const IniParam *param = iniFind(found->params, iniText(name));
  if (param == nullptr) {
    return kIniNotFound;
  }
  putOrCut(output, param->value(), param->valueBytes);
  return ZOV_OKAY;
}

// The cached file, read now if nothing of it is known.
int32_t fileFor(const char *path, uint16_t flags, IniFile *&file) {
  file = findINI(path);
  if (file != nullptr && file->sections.count > 0) {
    return ZOV_OKAY;
  }
  return CacheINIFile(path, flags, file);
}

int32_t _iniGet(const char *path, const char *section, const char *name, char *out,
                uint64_t sizeBytes, uint16_t flags) {
  IniFile *file = nullptr;
  int32_t status = fileFor(path, flags, file);
  if (status != ZOV_OKAY) {
    return status;
  }
  if (sizeBytes == 0) {
    return ZOV_INI_TRUNCATED;
  }
  out[0] = '\0';
  Output output = {out, sizeBytes - 1, 0, false};
  status = putAnswer(output, *file, section, name);
  if (status != ZOV_OKAY) {
    return status;
  }
  if (output.left() == 0) {
    return ZOV_INI_TRUNCATED;
  }
  out[output.copied] = '\0';
  return output.isCut ? ZOV_INI_TRUNCATED : ZOV_OKAY;
}

}  // namespace

int32_t iniGet(const char *path, const char *section, const char *name, char *out,
               uint64_t sizeBytes, uint16_t flags) {
  if (out == nullptr) {
    return ZOV_INI_NOARGUMENT;
  }
  if (path == nullptr || iniSem == ZOV_NO_SYNC) {
    return ZOV_INI_NOFILE;
  }
  const IniLock lock;
  return _iniGet(path, section, name, out, sizeBytes, flags);
}

}  // namespace zov

extern "C" {

int32_t zov_iniGet(const char *path, const char *section, const char *name, char *out,
                   uint32_t sizeBytes) {
  return zov::iniGet(path, section, name, out, sizeBytes, 0);
}

int32_t zov_iniGetEx(const char *path, const char *section, const char *name, char *out,
                     uint32_t sizeBytes, uint16_t flags) {
  return zov::iniGet(path, section, name, out, sizeBytes, flags);
}

int32_t zov_iniString(const char *path, const char *section, const char *name, char *out,
                      uint32_t sizeBytes) {
  return zov::iniGet(path, section, name, out, sizeBytes, 0);
}

int32_t zov_iniStringEx(const char *path, const char *section, const char *name, char *out,
                        uint32_t sizeBytes, uint16_t flags) {
  return zov::iniGet(path, section, name, out, sizeBytes, flags);
}

int32_t zov_iniInt32(const char *path, const char *section, const char *name, int32_t *value) {
  return zov_iniInt32Ex(path, section, name, value, 0);
}

int32_t zov_iniInt32Ex(const char *path, const char *section, const char *name, int32_t *value,
                       uint16_t flags) {
  if (value == nullptr) {
    return ZOV_INI_NOARGUMENT;
  }
  char text[zov::kIntegerBytes];
  const int32_t status = zov::iniGet(path, section, name, text, sizeof text, flags);
  if (status == ZOV_OKAY) {
    *value = static_cast<int32_t>(strtol(text, nullptr, 10));
  }
  return status;
}
}
