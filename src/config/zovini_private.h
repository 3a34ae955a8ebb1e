// SPDX-License-Identifier: Apache-2.0
//
// The cache of INI files, shared by the sources of the module:
//
//   gINIInfo -> [ path | sections ] [ path | sections ] ...
//                          |
//                          +-> [ name | parameters ] [ name | parameters ] ...
//                                          |
//                                          +-> [ name | value ] ...
//
// Every array, an IniList, grows by one element when it has no room and never
// shrinks. A file that is read again fills the same elements, whose own arrays are
// still there.
#ifndef ZOV_CONFIG_ZOVINI_PRIVATE_H
#define ZOV_CONFIG_ZOVINI_PRIVATE_H

#include "config/zovini_name.h"
#include "core/zov_lock.h"
#include "text/zov_stream_private.h"

namespace zov {

constexpr size_t kIniNameBytes = 128;  // of a name or an inline value with its NUL
constexpr size_t kIniPathBytes = 256;
constexpr int32_t kIniNotFound = ZOV_ERROR;

// name holds nameBytes characters and a NUL behind them; so does the value.
struct IniParam {
  char name[kIniNameBytes];
  char inlineValue[kIniNameBytes];
  char *longValue;  // a value that does not fit above; else null
  uint32_t nameBytes;
  uint32_t valueBytes;

  const char *value() const { return longValue == nullptr ? inlineValue : longValue; }
};

// Elements of params from count on hold nothing that must be freed.
struct IniSection {
  char name[kIniNameBytes];
  uint32_t nameBytes;
  IniList<IniParam> params;
};

// Elements of sections from count on are sections without parameters whose arrays
// wait for the next reading.
struct IniFile {
  char path[kIniPathBytes];
  IniList<IniSection> sections;
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

// Rank 2: guards the cache, and the rewriting of files, during gets and sets.
extern ZOV_SYNC iniSem;

// Reading a file into the cache by name, and emptying the cache, take no lock: their
// callers promise that no other thread uses the cache.
inline void assumeAlone() ZOV_ASSERT_HELD(iniSem) {}

// All below is called with jumps held off. Pointers into the cache are valid until
// the next reading.

// The entry of a path, or null.
IniFile *findINI(const char *path) ZOV_REQUIRES(iniSem);

// Makes an entry for a path that has none. Null without memory or at the limit of
// entries.
IniFile *addINI(const char *path) ZOV_REQUIRES(iniSem);

// Takes everything out of an entry, which keeps its arrays.
void emptyINI(IniFile &file);

// The same for the entry of a path, if there is one: the next get reads the file.
void removeINIFromCache(const char *path) ZOV_REQUIRES(iniSem);

// Each appends an element to a list that is not full. Null or false without
// memory.
IniSection *addSection(IniFile &file, IniText name);
bool addParam(IniSection &section, IniText name, IniText value);

// Makes the indexes of an entry that is filled.
void indexINI(IniFile &file);

// Reads a file into the cache and gives its entry. ZOV_INI_NOFILE when it cannot be
// opened, with the cache as it was, or not be read to its end; ZOV_INI_NOMEMORY
// without memory. Either leaves the entry, if there is one, empty when part of the
// file was read.
int32_t CacheINIFile(const char *path, uint16_t flags, IniFile *&file) ZOV_REQUIRES(iniSem);

// The status for a file that could not be opened.
int32_t iniUnopened(Opened opened);

// The status of a reading that came to where the input ends: ZOV_OKAY, ZOV_INI_NOFILE or
// ZOV_INI_NOMEMORY.
int32_t iniReadStatus(const TextStream &stream, bool isInMemory);

// zov_iniGetEx() with a size of any width.
int32_t iniGet(const char *path, const char *section, const char *name, char *out,
               uint64_t sizeBytes, uint16_t flags);

}  // namespace zov

#endif
