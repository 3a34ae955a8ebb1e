// SPDX-License-Identifier: Apache-2.0
//
// Options of a command line, for both programs.
#ifndef MINIDB_COMMAND_LINE_H
#define MINIDB_COMMAND_LINE_H

#include <stddef.h>
#include <string.h>

namespace minidb {

// An option that takes a value, and where that goes.
struct ValueOption {
  const char *name;
  const char **value;
};

// Takes an option with its value. False for one that is unknown or has none.
template <size_t kCount>
bool takeValue(const ValueOption (&known)[kCount], const char *name, const char *value) {
  for (const ValueOption &option : known) {
    if (value != nullptr && strcmp(option.name, name) == 0) {
      *option.value = value;
      return true;
    }
  }
  return false;
}

// Puts the value of an option, if it was given, in place of a setting. False for
// one that is too long.
template <size_t kSizeBytes>
bool replaceSetting(char (&setting)[kSizeBytes], const char *value) {
  if (value == nullptr) {
    return true;
  }
  const size_t length = strlen(value);
  if (length >= kSizeBytes) {
    return false;
  }
  memcpy(setting, value, length + 1);
  return true;
}

}  // namespace minidb

#endif
