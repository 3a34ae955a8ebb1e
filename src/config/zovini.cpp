// SPDX-License-Identifier: Apache-2.0
//
// INI files: the cache. Files are parsed once and answered from memory; the
// entry of a path stays until the cache is emptied as a whole. The work is split
// over five sources: this one; zovini_parse.cpp reads a file into the cache,
// zovini_get.cpp answers from it, zovini_set.cpp rewrites files, zovini_wide.cpp
// takes wide strings. zovini_name.* compares and finds names.
//
// iniSem guards the cache during gets and sets, file input and output included.
// Reading a file by name and emptying the cache take no lock: they are for the
// time when a program has one thread. Nothing in the module jumps; it holds
// jumps off wherever it allocates, and reports a shortage by its status.
#include <string.h>

#include <algorithm>
#include <utility>

#include "config/zovini_private.h"
#include "core/zov_make.h"

namespace zov {

ZOV_SYNC iniSem = ZOV_NO_SYNC;

namespace {

IniFile *gINIInfo = nullptr;
uint16_t nMaxINIs = 0;
uint16_t nNumINIs = 0;
IniIndex fileIndex = {};  // of the files' paths

void copyText(char *field, IniText text) {
  memcpy(field, text.bytes, text.length);
  field[text.length] = '\0';
}

// A text of at most so many bytes that fits a field with its NUL.
IniText cutTo(IniText text, size_t fieldBytes) {
  return {text.bytes, std::min(text.length, fieldBytes - 1)};
}

// Makes room for one more element behind count. False without memory.
template <typename Element>
bool growByOne(Element *&elements, uint16_t &capacity, uint16_t count) {
  if (count < capacity) {
    return true;
  }
  const uint64_t grown = uint64_t{count} + 1;
  void *block = zov_extendMem(elements, grown * sizeof(Element), ZOV_DEFAULT_TAG, 1,
                              sizeof(Element), ZOV_HERE);
  if (block == nullptr) {
    return false;
  }
  elements = static_cast<Element *>(block);
  capacity = static_cast<uint16_t>(grown);
  return true;
}

char *copyOf(IniText text) {
  char *copy = zov::makeArray<char>(text.length + 1, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (copy != nullptr) {
    copyText(copy, text);
  }
  return copy;
}

void emptySection(IniSection &section) {
  for (uint16_t number = 0; number < section.numParams; ++number) {
    IniParam &param = section.params[number];
    if (param.isHeapValue != 0) {
      zov_freeMem(param.value, ZOV_DEFAULT_TAG);
    }
  }
  section.numParams = 0;
  section.index.ready = false;
}

void freeINI(IniFile &file) {
  emptyINI(file);
  for (uint16_t number = 0; number < file.maxSections; ++number) {
    zov_freeMem(file.sections[number].params, ZOV_DEFAULT_TAG);
    iniIndexFree(file.sections[number].index);
  }
  zov_freeMem(file.sections, ZOV_DEFAULT_TAG);
  iniIndexFree(file.index);
  zov_freeMem(file.longPath, ZOV_DEFAULT_TAG);
}

void FreeINIs() {
  for (uint16_t number = 0; number < nNumINIs; ++number) {
    freeINI(gINIInfo[number]);
  }
  zov_freeMem(std::exchange(gINIInfo, nullptr), ZOV_DEFAULT_TAG);
  iniIndexFree(fileIndex);
  nMaxINIs = 0;
  nNumINIs = 0;
}

// Enters the last file into the index, which doubles when half of it is used.
void indexLastFile() {
  const auto nameOf = [](uint32_t number) { return iniNameOf(gINIInfo[number]); };
  if (fileIndex.ready && 2u * nNumINIs <= fileIndex.capacity) {
    iniIndexAdd(fileIndex, nNumINIs - 1u, nameOf);
  } else {
    iniIndexBuild(fileIndex, nNumINIs, nameOf);
  }
}

}  // namespace

IniFile *findINI(const char *path) {
  return iniFind(fileIndex, gINIInfo, nNumINIs, iniText(path));
}

IniFile *addINI(const char *path) {
  const IniText text = iniText(path);
  if (nNumINIs == kIniMostElements || !growByOne(gINIInfo, nMaxINIs, nNumINIs)) {
    return nullptr;
  }
  IniFile &file = gINIInfo[nNumINIs];
  if (text.length >= kIniPathBytes && (file.longPath = copyOf(text)) == nullptr) {
    return nullptr;
  }
  copyText(file.path, cutTo(text, kIniPathBytes));
  file.pathBytes = text.length;
  ++nNumINIs;
  indexLastFile();
  return &file;
}

void emptyINI(IniFile &file) {
  for (uint16_t number = 0; number < file.numSections; ++number) {
    emptySection(file.sections[number]);
  }
  file.numSections = 0;
  file.index.ready = false;
}

IniSection *addSection(IniFile &file, IniText name, bool &isFull) {
  isFull = file.numSections == kIniMostElements;
  if (isFull || !growByOne(file.sections, file.maxSections, file.numSections)) {
    return nullptr;
  }
  IniSection &section = file.sections[file.numSections++];
  const IniText kept = cutTo(name, kIniNameBytes);
  copyText(section.name, kept);
  section.nameBytes = static_cast<uint32_t>(kept.length);
  return &section;
}

bool addParam(IniSection &section, IniText name, IniText value) {
  if (section.numParams == kIniMostElements) {
    return true;
  }
  const bool isHeapValue = value.length >= kIniNameBytes;
  char *copy = isHeapValue ? copyOf(value) : nullptr;
  if ((isHeapValue && copy == nullptr) ||
      !growByOne(section.params, section.maxParams, section.numParams)) {
    zov_freeMem(copy, ZOV_DEFAULT_TAG);
    return false;
  }
  IniParam &param = section.params[section.numParams++];
  const IniText kept = cutTo(name, kIniNameBytes);
  copyText(param.name, kept);
  param.nameBytes = static_cast<uint16_t>(kept.length);
  if (!isHeapValue) {
    copyText(param.inlineValue, value);
  }
  param.value = copy;
  param.isHeapValue = isHeapValue ? 1 : 0;
  param.valueBytes = static_cast<uint32_t>(value.length);
  return true;
}

void settleINI(IniFile &file) {
  for (uint16_t number = 0; number < file.numSections; ++number) {
    IniSection &section = file.sections[number];
    IniParam *params = section.params;
    for (uint16_t param = 0; param < section.numParams; ++param) {
      if (params[param].isHeapValue == 0) {
        params[param].value = params[param].inlineValue;
      }
    }
    iniIndexBuild(section.index, section.numParams,
                  [params](uint32_t at) { return iniNameOf(params[at]); });
  }
  const IniSection *sections = file.sections;
  iniIndexBuild(file.index, file.numSections,
                [sections](uint32_t at) { return iniNameOf(sections[at]); });
}

}  // namespace zov

extern "C" {

int32_t zov_iniInit() {
  if (zov::iniSem == ZOV_NO_SYNC) {
    zov::iniSem = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  }
  return zov::iniSem == ZOV_NO_SYNC ? ZOV_ERROR : ZOV_OKAY;
}

void zov_iniTerm() {
  zov::FreeINIs();
  zov_syncDelete(zov::iniSem);
  zov::iniSem = ZOV_NO_SYNC;
}

void zov_iniCleanup() {
  zov::FreeINIs();
}
}
