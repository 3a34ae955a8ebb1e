// SPDX-License-Identifier: Apache-2.0
//
// A model of wildcard matching that tries every possibility.
#ifndef TESTS_SUPPORT_MATCH_MODEL_H
#define TESTS_SUPPORT_MATCH_MODEL_H

#include <ctype.h>

namespace zovtest {

inline bool modelMatches(const char *name, const char *pattern) {
  const auto same = [](char left, char right) {
    return toupper(static_cast<unsigned char>(left)) == toupper(static_cast<unsigned char>(right));
  };
  if (*pattern == '\0') {
    return *name == '\0';
  }
  if (*pattern != '*') {
    return *name != '\0' && (*pattern == '?' || same(*name, *pattern)) &&
           modelMatches(name + 1, pattern + 1);
  }
  bool found = pattern[1] == '\0';
  for (; !found && *name != '\0'; ++name) {
    found = same(*name, pattern[1]) && modelMatches(name + 1, pattern + 2);
  }
  return found;
}

}  // namespace zovtest

#endif
