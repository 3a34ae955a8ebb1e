// SPDX-License-Identifier: Apache-2.0
//
// INI files: gets. A file is read when its path is first asked for, and again
// while its entry has no sections; otherwise the answer comes from memory, at
// the cost of one lock and a look-up of the path, the section and the name.
//
// An answer is a list of texts with a NUL behind each and one more behind the last.
// So a single value has two, and needs room for both: callers size their buffers
// with two bytes to spare.
//
// All is done under iniSem with jumps held off.
#include <assert.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "config/zovini_private.h"

namespace zov {
namespace {

// Room for the value of an integer.
constexpr uint64_t kIntegerBytes = 20;

// The caller's buffer without the byte for the last NUL.
struct Answer {
  char *out;
  uint64_t room;    // bytes
  uint64_t copied;  // bytes, at most room
  bool isCut;

  uint64_t left() const { return room - copied; }
};

void put(Answer &answer, const char *bytes, uint64_t length) {
  assert(length <= answer.left());
  memcpy(answer.out + answer.copied, bytes, length);
  answer.copied += length;
}

// Copies a text and its NUL, as far as they fit.
void putOrCut(Answer &answer, const char *text, uint64_t length) {
  const uint64_t wanted = length + 1;
  answer.isCut = wanted > answer.left();
  put(answer, text, std::min(wanted, answer.left()));
}

// The room left counts in 16 bits here: a larger buffer is filled up to a multiple
// of 65,536 bytes from its end, which does not count as cut.
void putParamNames(Answer &answer, const IniSection &section) {
  for (const IniParam &param : section.params) {
    const uint64_t left = static_cast<uint16_t>(answer.left());
    const IniText name = iniNameOf(param);
    put(answer, name.bytes, std::min<uint64_t>(name.length + 1, left));
  }
}

void putSectionNames(Answer &answer, const IniFile &file) {
  for (const IniSection &section : file.sections) {
    if (answer.isCut) {
      return;
    }
    const IniText name = iniNameOf(section);
    putOrCut(answer, name.bytes, name.length);
  }
}

int32_t putAnswer(Answer &answer, const IniFile &file, const char *section, const char *name) {
  if (section == nullptr) {
    putSectionNames(answer, file);
    return ZOV_OKAY;
  }
  const IniSection *found = iniFind(file.sections, iniText(section));
  if (found == nullptr) {
    return kIniNotFound;
  }
  if (name == nullptr) {
    putParamNames(answer, *found);
    return ZOV_OKAY;
  }
  const IniParam *param = iniFind(found->params, iniText(name));
  if (param == nullptr) {
    return kIniNotFound;
  }
  putOrCut(answer, param->value(), param->valueBytes);
  return ZOV_OKAY;
}

// The entry of a path. The file is read when there is none, or an empty one.
int32_t fileFor(const char *path, uint16_t flags, IniFile *&file) ZOV_REQUIRES(iniSem) {
  file = findINI(path);
  if (file != nullptr && file->sections.count > 0) {
    return ZOV_OKAY;
  }
  return CacheINIFile(path, flags, file);
}

int32_t _iniGet(const char *path, const char *section, const char *name, char *out,
                uint64_t sizeBytes, uint16_t flags) ZOV_REQUIRES(iniSem) {
  IniFile *file = nullptr;
  int32_t status = fileFor(path, flags, file);
  if (status != ZOV_OKAY) {
    return status;
  }
  if (sizeBytes == 0) {
    return ZOV_INI_TRUNCATED;
  }
  out[0] = '\0';
  Answer answer = {out, sizeBytes - 1, 0, false};
  status = putAnswer(answer, *file, section, name);
  if (status != ZOV_OKAY) {
    return status;
  }
  if (answer.left() == 0) {
    return ZOV_INI_TRUNCATED;
  }
  out[answer.copied] = '\0';
  return answer.isCut ? ZOV_INI_TRUNCATED : ZOV_OKAY;
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
  const NoJump noJump;
  const MutexLock lock(iniSem);
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
