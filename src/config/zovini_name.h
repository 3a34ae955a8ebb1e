// SPDX-License-Identifier: Apache-2.0
//
// Names as INI files compare them, without regard to ASCII case, and an index
// that finds the first of many by name. Nothing here locks or jumps.
#ifndef ZOV_CONFIG_ZOVINI_NAME_H
#define ZOV_CONFIG_ZOVINI_NAME_H

#include <assert.h>
#include <string.h>

#include "zov.h"

namespace zov {

// Bytes that need not end with a NUL and may hold some.
struct IniText {
  const char *bytes;
  size_t length;
};

inline IniText iniText(const char *text) {
  return {text, strlen(text)};
}

bool iniEqual(IniText first, IniText second);
uint32_t iniHash(IniText text);

// Where to find the first of several names in an array, by hash. Open
// addressing; a slot holds the number of an element plus 1 in its lower half, 0
// for none, and part of the hash in its upper half.
//
// 1. capacity is 0 or a power of two above the number of names, so that a
//    search ends at an empty slot.
// 2. Only the first of several equal names is in it.
// 3. When not ready, which is so for short arrays, after a shortage of memory
//    and with names that crowd together, a search goes through the array.
struct IniIndex {
  uint32_t *slots;  // of the default tag; kept when the array is filled anew
  uint32_t capacity;
  bool ready;
};

constexpr uint32_t kIniScanned = 8;    // names that are searched one by one
constexpr uint32_t kIniCrowded = 256;  // slots passed before the index is given up
constexpr uint32_t kIniNone = UINT32_MAX;

constexpr uint32_t iniIndexTag(uint32_t hash) {
  return hash & 0xFFFF0000u;
}

// Makes room for count names and empties the index. False without memory.
bool iniIndexReset(IniIndex &index, uint32_t count);

void iniIndexFree(IniIndex &index);

// Finds the first slot from the hash's place on that is empty or, by NameOf(number),
// has the name. kIniNone when the index is too crowded for that.
template <typename NameOf>
uint32_t iniIndexProbe(const IniIndex &index, uint32_t hash, IniText name, NameOf nameOf) {
  const uint32_t mask = index.capacity - 1;
  for (uint32_t step = 0; step < kIniCrowded; ++step) {
    const uint32_t place = (hash + step) & mask;
    const uint32_t slot = index.slots[place];
    const uint32_t number = (slot & 0xFFFF) - 1;
    if (slot == 0 || (iniIndexTag(slot) == iniIndexTag(hash) && iniEqual(nameOf(number), name))) {
      return place;
    }
  }
  return kIniNone;
}

// Enters a name that stands behind all others.
template <typename NameOf>
void iniIndexAdd(IniIndex &index, uint32_t number, NameOf nameOf) {
  const uint32_t hash = iniHash(nameOf(number));
  const uint32_t place = iniIndexProbe(index, hash, nameOf(number), nameOf);
  if (place == kIniNone) {
    index.ready = false;
  } else if (index.slots[place] == 0) {
    index.slots[place] = iniIndexTag(hash) | (number + 1);
  }
}

// Makes the index of an array anew, if it is long enough to need one.
template <typename NameOf>
void iniIndexBuild(IniIndex &index, uint32_t count, NameOf nameOf) {
  index.ready = count > kIniScanned && iniIndexReset(index, count);
  for (uint32_t number = 0; index.ready && number < count; ++number) {
    iniIndexAdd(index, number, nameOf);
  }
}

// The number of the first element of that name, or kIniNone.
template <typename NameOf>
uint32_t iniIndexFind(const IniIndex &index, uint32_t count, IniText name, NameOf nameOf) {
  if (index.ready) {
    const uint32_t place = iniIndexProbe(index, iniHash(name), name, nameOf);
    if (place != kIniNone) {
      return index.slots[place] == 0 ? kIniNone : (index.slots[place] & 0xFFFF) - 1;
    }
  }
  for (uint32_t number = 0; number < count; ++number) {
    if (iniEqual(nameOf(number), name)) {
      return number;
    }
  }
  return kIniNone;
}

}  // namespace zov

#endif
