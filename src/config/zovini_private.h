// SPDX-License-Identifier: Apache-2.0
//
// The cache of INI files and what its sources share:
//
//   gINIInfo -> [ path | sections ] [ path | sections ] ...
//                          |
//                          +-> [ name | parameters ] [ name | parameters ] ...
//                                          |
//                                          +-> [ name | value ] ...
//
// Every array grows by one element when it is full and never shrinks. A file
// that is read again fills the same elements, whose own arrays are still there.
#ifndef ZOV_CONFIG_ZOVINI_PRIVATE_H
#define ZOV_CONFIG_ZOVINI_PRIVATE_H

#include "config/zovini_name.h"
#include "core/zov_shortage.h"
#include "core/zovuxthreads_private.h"

namespace zov {

constexpr size_t kIniNameBytes = 128;  // of a name or an inline value, its NUL among them
constexpr size_t kIniPathBytes = 256;
constexpr uint16_t kIniMostElements = UINT16_MAX;
constexpr int32_t kIniNotFound = ZOV_ERROR;

// 1. name holds nameBytes characters and a NUL behind them.
// 2. value points at inlineValue or, when isHeapValue is 1, at a block of the
//    default tag. While the file is being read it is null for inline values,
//    because the array may still move.
struct IniParam {
  char name[kIniNameBytes];
  char inlineValue[kIniNameBytes];
  char *value;
  uint16_t isHeapValue;
  uint16_t nameBytes;
  uint32_t valueBytes;  // without the NUL behind them
};

// Elements of params from numParams on hold nothing that must be freed.
struct IniSection {
  char name[kIniNameBytes];
  uint16_t maxParams;
  uint16_t numParams;
  uint32_t nameBytes;
  IniParam *params;
  IniIndex index;  // of the parameters' names
};

// Elements of sections from numSections on are sections without parameters
// whose arrays wait for the next reading.
struct IniFile {
  char path[kIniPathBytes];
  uint16_t maxSections;
  uint16_t numSections;
  IniSection *sections;
  IniIndex index;  // of the sections' names
  char *longPath;  // a path that does not fit above; else null
  size_t pathBytes;
};

inline IniText iniNameOf(const IniSection &section) {
  return {section.name, section.nameBytes};
}

inline IniText iniNameOf(const IniParam &param) {
  return {param.name, param.nameBytes};
}

inline IniText iniNameOf(const IniFile &file) {
  return {file.longPath == nullptr ? file.path : file.longPath, file.pathBytes};
}

// The element of that name that comes first, or null.
template <typename Element>
Element *iniFind(const IniIndex &index, Element *elements, uint32_t count, IniText name) {
  const uint32_t number =
      iniIndexFind(index, count, name, [elements](uint32_t at) { return iniNameOf(elements[at]); });
  return number == kIniNone ? nullptr : elements + number;
}

// Rank 2: guards the cache, and the rewriting of files, during gets and sets.
// Reading a file into the cache by name, and emptying the cache, take no lock.
extern ZOV_SYNC iniSem;

// Holds iniSem, and jumps off, for its scope. There must be an iniSem.
class IniLock {
 public:
  IniLock() ZOV_NO_ANALYSIS {
    holdJumps();
    zov_syncEnterExcl(iniSem);
  }
  ~IniLock() ZOV_NO_ANALYSIS {
    zov_syncExitExcl(iniSem);
    allowJumps();
  }
  IniLock(const IniLock &) = delete;
  IniLock &operator=(const IniLock &) = delete;
};

// All below is called with jumps held off. Pointers into the cache are good
// until the next reading.

// The entry of a path, or null.
IniFile *findINI(const char *path);

// Makes an entry for a path that has none; null without memory or room.
IniFile *addINI(const char *path);

// Takes everything out of an entry but its arrays.
void emptyINI(IniFile &file);

// Each appends an element; null without memory. At the limit of elements
// nothing is appended either, and isFull is set.
IniSection *addSection(IniFile &file, IniText name, bool &isFull);
bool addParam(IniSection &section, IniText name, IniText value);

// Sets value pointers and indexes once the arrays do not move any more.
void settleINI(IniFile &file);

// Reads a file into the cache and sets the entry to its one. ZOV_INI_NOFILE when
// it cannot be opened, with the cache as it was, or not be read to its end;
// ZOV_INI_NOMEMORY without memory. Either leaves the entry, if there is one, empty
// when part of the file was read.
int32_t CacheINIFile(const char *path, uint16_t flags, IniFile *&file);

// The status of what failed: ZOV_INI_NOMEMORY if that was for a shortage.
int32_t failureOf(int32_t status);

// zov_iniGetEx() with a size of any width.
int32_t iniGet(const char *path, const char *section, const char *name, char *out,
               uint64_t sizeBytes, uint16_t flags);

}  // namespace zov

#endif
