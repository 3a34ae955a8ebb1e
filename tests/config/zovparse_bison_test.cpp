// SPDX-License-Identifier: Apache-2.0
//
// The driver beside bison's own parser of the same grammar: the same tokens are
// to be fetched, the same rules performed with the same values, in one order.
#include <gtest/gtest.h>

#include <random>

#include "config/expression_run.h"

extern "C" {
uint64_t reduceRule(void *run, int rule, int length, const uint64_t *lastValue);
int fetchToken(uint64_t *value, void *run);
int yyparse(void *run);

uint64_t reduceRule(void *run, int rule, int length, const uint64_t *lastValue) {
  return static_cast<ExpressionRun *>(run)->reduce(rule, length, lastValue);
}

int fetchToken(uint64_t *value, void *run) {
  return static_cast<ExpressionRun *>(run)->fetch(value);
}
}

namespace {

class Inputs {
 public:
  explicit Inputs(uint32_t seed) : random(seed) {}

  // A program, spoilt in a few places or not at all, or nothing but noise.
  std::vector<int16_t> next() {
    tokens.clear();
    if (pick(4) == 0) {
      for (uint32_t count = pick(40); count > 0; --count) {
        tokens.push_back(anyToken());
      }
      return tokens;
    }
    for (uint32_t count = pick(6); count > 0; --count) {
      statement(3);
    }
    for (uint32_t count = pick(4); count > 0 && !tokens.empty(); --count) {
      const auto place = tokens.begin() + pick(static_cast<uint32_t>(tokens.size()));
      switch (pick(3)) {
        case 0:
          tokens.erase(place);
          break;
        case 1:
          tokens.insert(place, anyToken());
          break;
        default:
          *place = anyToken();
      }
    }
    return tokens;
  }

 private:
  uint32_t pick(uint32_t count) { return static_cast<uint32_t>(random() % count); }

  void add(std::initializer_list<int> more) {
    tokens.insert(tokens.end(), more.begin(), more.end());
  }

  int16_t anyToken() {
    constexpr int16_t kTokens[] = {expression_NUMBER,
                                   expression_NAME,
                                   expression_IF,
                                   ';',
                                   '=',
                                   '(',
                                   ')',
                                   '{',
                                   '}',
                                   '[',
                                   ']',
                                   '<',
                                   '+',
                                   '-',
                                   '*',
                                   '^',
                                   ',',
                                   '?',
                                   999};
    return kTokens[pick(std::size(kTokens))];
  }

  void statement(uint32_t depth) {
    switch (pick(depth > 0 ? 4 : 2)) {
      case 0:
        add({expression_NAME, '='});
        [[fallthrough]];
      case 1:
        expr(3);
        return add({';'});
      case 2:
        add({expression_IF, '('});
        expr(1);
        add({')'});
        return statement(depth - 1);
      default:
        add({'{'});
        statement(depth - 1);
        statement(depth - 1);
        add({'}'});
    }
  }

  void expr(uint32_t depth) {
    switch (pick(depth > 0 ? 6 : 2)) {
      case 0:
        return add({expression_NUMBER});
      case 1:
        return add({expression_NAME});
      case 2:
        add({'-'});
        return expr(depth - 1);
      case 3:
        add({expression_NAME, '('});
        [[fallthrough]];
      case 4:
        add({'('});
        expr(depth - 1);
        return add({')'});
      default:
        expr(depth - 1);
        add({"<+-*^,"[pick(6)]});
        expr(depth - 1);
    }
  }

  std::mt19937 random;
  std::vector<int16_t> tokens;
};

TEST(ParseBesideBison, SameTokensRulesAndValues) {
  ASSERT_EQ(zov_init(), ZOV_OKAY);
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE(seed);
  Inputs inputs(seed);
  int accepted = 0;
  for (int count = 0; count < 50000; ++count) {
    ExpressionRun run{inputs.next()};
    ExpressionRun reference{run.tokens};
    const int32_t status = run.parse();
    ASSERT_EQ(status, yyparse(&reference) == 0 ? 0 : 3) << "input " << count;
    ASSERT_EQ(run.events == reference.events, true) << "input " << count;
    accepted += status == 0 ? 1 : 0;
  }
  EXPECT_GT(accepted, 10000);
  EXPECT_LT(accepted, 45000);
  zov_term();
}

}  // namespace
