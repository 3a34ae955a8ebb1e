// SPDX-License-Identifier: Apache-2.0
//
// Wildcard matching. It needs no start-up.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/match_model.h"
#include "zov.h"

namespace {

TEST(Match, NamesAndPatterns) {
  const struct {
    int line;
    const char *name;
    const char *pattern;
    int32_t matches;
  } rows[] = {
      {__LINE__, "abc", "A?C", 1},
      {__LINE__, "abc", "a*", 1},
      {__LINE__, "abc", "*c", 1},
      {__LINE__, "abc", "*b", 0},
      {__LINE__, "abc", "", 0},
      {__LINE__, "", "", 1},
      {__LINE__, "", "*", 1},
      {__LINE__, "", "**", 0},
      {__LINE__, "", "?", 0},
      {__LINE__, "A.INI", "*.ini", 1},
      {__LINE__, "a", "a*", 1},
      {__LINE__, "what?", "*?", 1},
      {__LINE__, "what", "*?", 0},
      {__LINE__, "a*", "**", 1},
      {__LINE__, "a*b", "**", 0},
      {__LINE__, "a*b", "***", 1},
      {__LINE__, "x.tar.gz", "*.gz", 1},
      {__LINE__, "x.gz.bak", "*.gz", 0},
      {__LINE__, "aXbXcX", "*xb*xc?", 1},
      {__LINE__, "abab", "*ab", 1},
      {__LINE__, "\xE9", "\xE9", 1},
      {__LINE__, "\xC3\xA9", "\xC3\x89", 0},
      {__LINE__, "\xC3\xA9", "?", 0},
      {__LINE__, "\xC3\xA9", "??", 1},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(zov_match(row.name, row.pattern), row.matches) << "row at line " << row.line;
  }
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
                  zovtest::modelMatches(name.c_str(), pattern.c_str()) ? 1 : 0)
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
