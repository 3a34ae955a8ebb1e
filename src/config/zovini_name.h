// SPDX-License-Identifier: Apache-2.0
//
// Names as INI files compare them, without regard to ASCII case, and arrays whose
// elements are found by name. Nothing here locks or jumps.
#ifndef ZOV_CONFIG_ZOVINI_NAME_H
#define ZOV_CONFIG_ZOVINI_NAME_H

#include <assert.h>
#include <string.h>

#include <bit>

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

// Finds the first of several names in an array by hash. Open addressing: a slot holds
// the number of an element plus 1 in its lower half, 0 for none, and part of the hash
// in its upper half.
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

// Makes room for count names and empties the index. False without memory.
bool iniIndexReset(IniIndex &index, uint32_t count);

void iniIndexFree(IniIndex &index);

// A growing array whose elements have a name, iniNameOf().
//
// 1. count <= capacity.
// 2. The index, when ready, has every name.
template <typename Element>
struct IniList {
  uint16_t capacity;
  uint16_t count;
  Element *elements;  // of the default tag
  IniIndex index;

  Element *begin() const { return elements; }
  Element *end() const { return elements + count; }
};

// At the limit: a slot has no room for the number of another element.
template <typename Element>
bool iniIsFull(const IniList<Element> &list) {
  return list.count == UINT16_MAX;
}

constexpr uint32_t kIniScanned = 8;    // names that are searched one by one
constexpr uint32_t kIniCrowded = 256;  // slots passed before the index is given up
constexpr uint32_t kIniNone = UINT32_MAX;

constexpr uint32_t iniIndexTag(uint32_t hash) {
  return hash & 0xFFFF0000u;
}

// The element that a used slot leads to.
template <typename Element>
Element &iniElementAt(const IniList<Element> &list, uint32_t slot) {
  const uint32_t number = (slot & 0xFFFF) - 1;
  assert(number < list.count);
  return list.elements[number];
}

// Finds the first slot from the hash's place on that is empty or has the name.
// kIniNone when the index is too crowded for that.
template <typename Element>
uint32_t iniIndexProbe(const IniList<Element> &list, uint32_t hash, IniText name) {
  const IniIndex &index = list.index;
  assert(std::has_single_bit(index.capacity) && index.capacity > list.count);
  for (uint32_t step = 0; step < kIniCrowded; ++step) {
    const uint32_t place = (hash + step) & (index.capacity - 1);
    const uint32_t slot = index.slots[place];
    if (slot == 0 || (iniIndexTag(slot) == iniIndexTag(hash) &&
                      iniEqual(iniNameOf(iniElementAt(list, slot)), name))) {
      return place;
    }
  }
  return kIniNone;
}

// Enters an element whose name stands behind all others in the index.
template <typename Element>
void iniIndexAdd(IniList<Element> &list, uint32_t number) {
  const IniText name = iniNameOf(list.elements[number]);
  const uint32_t hash = iniHash(name);
  const uint32_t place = iniIndexProbe(list, hash, name);
  if (place == kIniNone) {
    list.index.ready = false;
  } else if (list.index.slots[place] == 0) {
    list.index.slots[place] = iniIndexTag(hash) | (number + 1);
  }
}

// Makes the index of a list anew, if it is long enough to need one.
template <typename Element>
void iniIndexBuild(IniList<Element> &list) {
  list.index.ready = list.count > kIniScanned && iniIndexReset(list.index, list.count);
  for (uint32_t number = 0; list.index.ready && number < list.count; ++number) {
    iniIndexAdd(list, number);
  }
}

// The first element of that name, or null.
template <typename Element>
Element *iniFind(const IniList<Element> &list, IniText name) {
  if (list.index.ready) {
    const uint32_t place = iniIndexProbe(list, iniHash(name), name);
    if (place != kIniNone) {
      const uint32_t slot = list.index.slots[place];
      return slot == 0 ? nullptr : &iniElementAt(list, slot);
    }
  }
  for (Element &element : list) {
    if (iniEqual(iniNameOf(element), name)) {
      return &element;
    }
  }
  return nullptr;
}

}  // namespace zov

#endif
