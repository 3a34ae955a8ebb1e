// SPDX-License-Identifier: Apache-2.0
//
// What taking a path apart and making it absolute promise, and matching beside a table
// of the rests of name and pattern.
#include <ctype.h>

#include "support/fuzz.h"

namespace {

using std::string;

string taken(char *text) {
  const string copy = text == nullptr ? "" : text;
  zov_freeMem(text, ZOV_DEFAULT_TAG);
  return copy;
}

// The letter behind a "*" stands for itself.
bool matches(const string &name, const string &pattern) {
  const size_t letters = pattern.size();
  std::vector<std::vector<bool>> rest(name.size() + 2, std::vector<bool>(letters + 2));
  rest[name.size()][letters] = true;
  for (size_t at = letters; at-- > 0;) {
    const bool isAny = pattern[at] == '*';
    const size_t own = isAny ? at + 1 : at;
    for (size_t from = name.size() + 1; from-- > 0;) {
      const bool isOne =
          (!isAny && pattern[at] == '?') || toupper(name[from]) == toupper(pattern[own]);
      rest[from][at] =
          own == letters || (from < name.size() &&
                             ((isOne && rest[from + 1][own + 1]) || (isAny && rest[from + 1][at])));
    }
  }
  return rest[0][0];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int32_t status = zov_init();
  FuzzedDataProvider input(data, size);
  const string path = input.ConsumeRandomLengthString(300).c_str();
  const string pattern = input.ConsumeRandomLengthString(300).c_str();
  char *directory = nullptr;
  char *name = nullptr;
  zov_pathSplit(path.c_str(), &directory, &name);
  const bool isSplit = (directory == nullptr || zov_pathIsDir(directory) == 1) &&
                       (name == nullptr || strchr(name, '/') == nullptr);
  const string both = taken(directory) + taken(name);
  const string full = taken(zov_fullpath(path.c_str()));
  const bool isHere = path.empty() || path == "." || path == "./";
  const bool isFull = zov_pathIsFullyQualified(full.c_str()) == 1 && full.ends_with('/') &&
                      (isHere || full.ends_with(path) || full.ends_with(path + "/")) &&
                      taken(zov_fullpath(full.c_str())) == full;
  zovtest::require(status == ZOV_OKAY && isSplit && both == path && isFull);
  zovtest::require((zov_match(path.c_str(), pattern.c_str()) == 1) == matches(path, pattern));
  return 0;
}
