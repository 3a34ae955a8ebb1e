// SPDX-License-Identifier: Apache-2.0
//
// Wildcard matching of file names. A pattern falls into segments of fixed
// length, cut at the wildcards `*`:
//
//   pattern   ab?*.i?i*x      segments   "ab?"   ".i?i"   "x"
//
// The first segment stands at the start of the name, each later one at the first
// place behind its predecessor where it fits. No later place need be tried:
// whatever the rest of the pattern matches behind it, it matches behind the first
// too. Only the last segment, which must end with the name, is moved until it
// does. So one saved place is enough, nothing recurses, and the product of the two
// lengths bounds the work, whatever the pattern.
//
// The character behind a `*` stands for itself even when it is a wildcard; the
// cut into segments therefore depends on the pattern alone. Holds no state.
#include <assert.h>
#include <ctype.h>

#include "zov.h"

namespace zov {
namespace {

int upper(char character) {
  return toupper(static_cast<unsigned char>(character));
}

// Equal but for case. The case table is read only where the bytes differ.
bool equalsFolded(char left, char right) {
  return left == right || upper(left) == upper(right);
}

// The first character of the name that equals the literal but for case, or null.
const char *findFolded(const char *name, char literal) {
  assert(literal != '\0');
  while (*name != '\0' && !equalsFolded(*name, literal)) {
    ++name;
  }
  return *name != '\0' ? name : nullptr;
}

bool matchesOne(char character, char pattern) {
  return character != '\0' && (pattern == '?' || equalsFolded(character, pattern));
}

}  // namespace

}  // namespace zov

extern "C" {

int32_t zov_match(const char *name, const char *pattern) {
  const char *literal = nullptr;  // first character of the segment being placed
  const char *place = nullptr;    // where in the name that segment begins
  for (;;) {
    if (*pattern == '*') {
      if (pattern[1] == '\0') {
        return 1;
      }
      literal = pattern + 1;
      place = name;
    } else if (zov::matchesOne(*name, *pattern)) {
      ++name;
      ++pattern;
      continue;
    } else if (*name == '\0') {
      return *pattern == '\0' ? 1 : 0;
    } else if (literal == nullptr) {
      return 0;
    } else {
      ++place;
    }
    place = zov::findFolded(place, *literal);
    if (place == nullptr) {
      return 0;
    }
    name = place + 1;
    pattern = literal + 1;
  }
}
}
