// SPDX-License-Identifier: Apache-2.0
//
// Wildcard matching of file names. A pattern falls into segments of fixed
// length, cut at the wildcards `*`:
//
//   pattern   ab?*.i?i*x      segments   "ab?"   ".i?i"   "x"
//
// The first segment stands at the start of the name, each later one at the
// first place behind its predecessor where it fits. A segment never has to be
// moved on a second time: whatever the rest of the pattern matches behind a
// later place, it matches behind the first one too. Only the last segment,
// which must also end with the name, is moved until it does. So one saved place
// is enough, the stack stays flat and the work is bounded by the product of the
// two lengths, whatever the pattern.
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

// The case table is asked only where the bytes differ.
bool equalsBlind(char left, char right) {
  return left == right || upper(left) == upper(right);
}

// The first character of the name that equals the literal, or null.
const char *findBlind(const char *name, char literal) {
  assert(literal != '\0');
  while (*name != '\0' && !equalsBlind(*name, literal)) {
    ++name;
  }
  return *name != '\0' ? name : nullptr;
}

bool matchesOne(char character, char pattern) {
  return character != '\0' && (pattern == '?' || equalsBlind(character, pattern));
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
    place = zov::findBlind(place, *literal);
    if (place == nullptr) {
      return 0;
    }
    name = place + 1;
    pattern = literal + 1;
  }
}
}
