// SPDX-License-Identifier: Apache-2.0
//
// INI files: the cache. A file is parsed once and then answered from memory; the
// entry of a path stays until the cache is emptied as a whole. Of the other sources
// zovini_parse.cpp reads a file into the cache, zovini_get.cpp answers from it,
// zovini_set.cpp rewrites files, and zovini_wide.cpp takes wide strings.
// zovini_name.* compares and finds names, zovini_line.h cuts files into lines.
//
// iniSem guards the cache during gets and sets, file input and output included.
// Reading a file by name and emptying the cache take no lock: they are for the
// time when a program has one thread. Nothing in the module jumps; it holds
// jumps off wherever it allocates, and a shortage is a status.
#include <assert.h>
#include <string.h>

#include <algorithm>

#include "config/zovini_private.h"
#include "core/zov_make.h"

namespace zov {

ZOV_SYNC iniSem = ZOV_NO_SYNC;

namespace {

// An entry for every path that was read, and the names under which the entries,
// their room and their number are known.
constinit IniList<IniFile> knownFiles ZOV_GUARDED_BY(iniSem) = {};
constinit IniFile *&gINIInfo ZOV_GUARDED_BY(iniSem) = knownFiles.elements;
[[maybe_unused]] constinit uint16_t &nMaxINIs ZOV_GUARDED_BY(iniSem) = knownFiles.capacity;
constinit uint16_t &nNumINIs ZOV_GUARDED_BY(iniSem) = knownFiles.count;

// Copies a text, cut to fit with its NUL, and gives the length of the copy.
template <size_t kFieldBytes>
uint32_t copyCut(char (&field)[kFieldBytes], IniText text) {
  const size_t length = std::min(text.length, kFieldBytes - 1);
  memcpy(field, text.bytes, length);
  field[length] = '\0';
  return static_cast<uint32_t>(length);
}

// Adds an element behind the others. Null without memory.
template <typename Element>
Element *append(IniList<Element> &list) {
  assert(noJumpDepth > 0);
  assert(list.count <= list.capacity && !iniIsFull(list));
  if (list.count == list.capacity) {
    if (!growArray(list.elements, list.capacity + 1u, 1, ZOV_DEFAULT_TAG, ZOV_HERE)) {
      return nullptr;
    }
    ++list.capacity;
  }
  return &list.elements[list.count++];
}

// Empties a list, which keeps its memory.
template <typename Element>
void emptyList(IniList<Element> &list) {
  list.count = 0;
  list.index.ready = false;
}

template <typename Element>
void freeList(IniList<Element> &list) {
  zov_freeMem(list.elements, ZOV_DEFAULT_TAG);
  iniIndexFree(list.index);
  list = {};
}

char *copyOf(IniText text) {
  char *copy = makeArray<char>(text.length + 1, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (copy != nullptr) {
    memcpy(copy, text.bytes, text.length);
    copy[text.length] = '\0';
  }
  return copy;
}

void emptySection(IniSection &section) {
  for (const IniParam &param : section.params) {
    zov_freeMem(param.longValue, ZOV_DEFAULT_TAG);
  }
  emptyList(section.params);
}

void freeINI(IniFile &file) {
  emptyINI(file);
  for (uint16_t number = 0; number < file.sections.capacity; ++number) {
    freeList(file.sections.elements[number].params);
  }
  freeList(file.sections);
  zov_freeMem(file.longPath, ZOV_DEFAULT_TAG);
}

void FreeINIs() {
  assumeAlone();
  for (uint16_t number = 0; number < nNumINIs; ++number) {
    freeINI(gINIInfo[number]);
  }
  freeList(knownFiles);
  assert(gINIInfo == nullptr && nMaxINIs == 0 && nNumINIs == 0);
}

// Enters the last file into the index, which doubles when half of it is used.
void indexLastFile() ZOV_REQUIRES(iniSem) {
  const uint32_t count = nNumINIs;
  if (knownFiles.index.ready && 2 * count <= knownFiles.index.capacity) {
    iniIndexAdd(knownFiles, count - 1);
  } else {
    iniIndexBuild(knownFiles);
  }
}

}  // namespace

IniFile *findINI(const char *path) {
  return iniFind(knownFiles, iniText(path));
}

IniFile *addINI(const char *path) {
  const IniText text = iniText(path);
  char *longPath = nullptr;
  if (text.length >= kIniPathBytes && (longPath = copyOf(text)) == nullptr) {
    return nullptr;
  }
  IniFile *file = iniIsFull(knownFiles) ? nullptr : append(knownFiles);
  if (file == nullptr) {
    zov_freeMem(longPath, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  copyCut(file->path, text);
  file->longPath = longPath;
  file->pathBytes = text.length;
  indexLastFile();
  return file;
}

void emptyINI(IniFile &file) {
  for (IniSection &section : file.sections) {
    emptySection(section);
  }
  emptyList(file.sections);
}

void removeINIFromCache(const char *path) {
  IniFile *file = findINI(path);
  if (file != nullptr) {
    emptyINI(*file);
  }
}

IniSection *addSection(IniFile &file, IniText name) {
  IniSection *section = append(file.sections);
  if (section != nullptr) {
    section->nameBytes = copyCut(section->name, name);
  }
  return section;
}

bool addParam(IniSection &section, IniText name, IniText value) {
  char *longValue = nullptr;
  if (value.length >= kIniNameBytes && (longValue = copyOf(value)) == nullptr) {
    return false;
  }
  IniParam *param = append(section.params);
  if (param == nullptr) {
    zov_freeMem(longValue, ZOV_DEFAULT_TAG);
    return false;
  }
  param->nameBytes = copyCut(param->name, name);
  copyCut(param->inlineValue, value);
  param->longValue = longValue;
  param->valueBytes = static_cast<uint32_t>(value.length);
  return true;
}

void indexINI(IniFile &file) {
  for (IniSection &section : file.sections) {
    iniIndexBuild(section.params);
  }
  iniIndexBuild(file.sections);
}

}  // namespace zov

extern "C" {

int32_t zov_iniInit() {
  if (zov::iniSem == ZOV_NO_SYNC) {
    zov::iniSem = zov::createMutex(zov::LockKind::kIni, ZOV_HERE);
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
