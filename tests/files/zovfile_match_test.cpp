// SPDX-License-Identifier: Apache-2.0
//
// Wildcard matching. It needs no start-up.
#include <ctype.h>

#include "support/test.h"

namespace {

// Tries every possibility. A wildcard's next letter is taken as it stands.
int32_t modelMatches(const char *name, const char *pattern) {
  if (*pattern == '\0') {
    return *name == '\0';
  }
  if (*pattern != '*') {
    return *name != '\0' && (*pattern == '?' || toupper(*name) == toupper(*pattern)) &&
           modelMatches(name + 1, pattern + 1);
  }
  bool found = pattern[1] == '\0';
  for (; !found && *name != '\0'; ++name) {
    found = toupper(*name) == toupper(pattern[1]) && modelMatches(name + 1, pattern + 2);
  }
  return found;
}

TEST(Match, LettersAreBytes) {
  EXPECT_EQ(zov_match("\xC3\xA9", "\xC3\x89"), 0);
  EXPECT_EQ(zov_match("\xC3\xA9", "??"), 1);
}

// Every name of up to four and every pattern of up to five letters of a small
// alphabet, wildcards among them.
TEST(Match, AgreesWithAModelOnAllShortPatterns) {
  std::vector<std::string> words = {""};
  for (size_t index = 0; words[index].size() < 5; ++index) {
    for (const char letter : {'a', 'B', '?', '*'}) {
      words.push_back(words[index] + letter);
    }
  }
  for (const std::string &name : words) {
    for (const std::string &pattern : words) {
      if (name.size() < 5) {
        ASSERT_EQ(zov_match(name.c_str(), pattern.c_str()),
                  modelMatches(name.c_str(), pattern.c_str()))
            << name << " / " << pattern;
      }
    }
  }
}

// Trying every possibility would take longer than the age of the world, and
// recursion more stack than there is.
TEST(Match, ManyWildcardsStayCheap) {
  const std::string name(1 << 20, 'a');
  std::string pattern;
  for (int count = 0; count < 100000; ++count) {
    pattern += "*A?";
  }
  EXPECT_EQ(zov_match(name.c_str(), (pattern + "*b").c_str()), 0);
  EXPECT_EQ(zov_match(name.c_str(), (pattern + "*").c_str()), 1);
}

}  // namespace
