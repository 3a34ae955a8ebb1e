// SPDX-License-Identifier: Apache-2.0
//
// The parser driver: recovery by tables made by hand, growth, status of actions,
// and memory. zovparse_bison_test.cpp compares it with another parser.
#include <gtest/gtest.h>

#include <string>

#include "config/expression_run.h"
#include "support/alloc_failure.h"

namespace {

class Parse : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(zov_init(), ZOV_OKAY); }
  void TearDown() override { zov_term(); }
};

// One token 1, or an error and any number of tokens 2, all by shifts:
//   state 0: 1 to state 1, error to 2    state 1: end accepts
//   states 2 and 3: 2 to state 3, end accepts
struct Shifts {
  const char *next;
  int errors = 0;

  int32_t parse(uint16_t errorToken, bool accepts) {
    const int16_t accept = accepts ? -1 : 0;
    const int16_t exceptions[] = {-1,     1,  0, -1, -2, 0, -1,     2,  0,
                                  accept, -2, 0, -1, 3,  0, accept, -2, 0};
    const int16_t action[] = {0, 1, 0, 3, 0, 2};
    const int16_t pact[] = {0, -1000, 1, 1};
    const int16_t check[] = {-1000, 1, 5, 2, -1000, -1000};
    const uint16_t defaultRule[] = {0, 65534, 65534, 65534};
    const ZOV_PARSE_TABLES tables{errorToken, 6,       exceptions, action, pact,
                                  nullptr,    nullptr, nullptr,    check,  defaultRule};
    const ZOV_PARSE_CONTEXT context{
        1,
        this,
        &tables,
        [](void *self, void *) {
          const char *&token = static_cast<Shifts *>(self)->next;
          return static_cast<int16_t>(*token == '\0' ? -5 : *token++ - '0');
        },
        nullptr,
        [](void *self) { ++static_cast<Shifts *>(self)->errors; },
        ZOV_DEFAULT_TAG};
    return zov_yyparse(&context);
  }
};

TEST_F(Parse, CountsRecoveryDownByShifts) {
  const struct {
    int line;
    const char *tokens;
    uint16_t errorToken;
    bool accepts;
    int32_t status;
    int errors;
  } rows[] = {
      {__LINE__, "1", 5, true, 0, 0},    {__LINE__, "", 5, true, 3, 0},
      {__LINE__, "2", 5, true, 2, 0},    {__LINE__, "22", 5, true, 1, 0},
      {__LINE__, "222", 5, true, 0, 0},  {__LINE__, "2222", 5, true, 0, 0},
      {__LINE__, "9292", 5, true, 2, 0}, {__LINE__, "11", 5, true, 3, 0},
      {__LINE__, "91", 5, false, 3, 0},  {__LINE__, "222", 5, false, 3, 0},
      {__LINE__, "2", 9, true, 3, 1},    {__LINE__, "11", 9, true, 3, 1},
      {__LINE__, "", 60000, true, 3, 1},
  };
  for (const auto &row : rows) {
    Shifts shifts{row.tokens};
    EXPECT_EQ(shifts.parse(row.errorToken, row.accepts), row.status) << "line " << row.line;
    EXPECT_EQ(shifts.errors, row.errors) << "line " << row.line;
  }
}

// As many brackets around a number, each of which takes an entry of the stacks.
std::vector<int16_t> nested(size_t depth) {
  std::vector<int16_t> tokens(depth, '(');
  tokens.push_back(expression_NUMBER);
  tokens.resize(2 * depth + 1, ')');
  tokens.push_back(';');
  return tokens;
}

TEST_F(Parse, StacksGrow) {
  for (const size_t depth : {95u, 96u, 97u, 98u, 146u, 147u, 148u, 5000u}) {
    ExpressionRun run{nested(depth)};
    EXPECT_EQ(run.parse(), 0);
    const size_t reductions = 1 + 1 + depth + 1 + 1;
    EXPECT_EQ(run.events.size(), run.tokens.size() + 1 + 2 * reductions) << depth;
  }
}

TEST_F(Parse, ActionsStopTheParse) {
  ExpressionRun run{nested(3)};
  run.stopRule = expression_expr_10;
  EXPECT_EQ(run.parse(), 7);
  EXPECT_EQ(run.events[run.events.size() - 2], 100000u + expression_expr_10);
  EXPECT_EQ(run.errors, 0);
}

TEST_F(Parse, MemoryBelongsToTheTag) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  for (const bool ownTag : {true, false}) {
    uint32_t passing = 0;
    int32_t status = ZOV_NOMEMORY;
    while (status != 0) {
      ExpressionRun run{nested(120)};
      run.events.reserve(10000);
      const int64_t before = zovtest::liveBlocks();
      zovtest::failAllocationAfter(passing++);
      status = run.parse(ownTag ? ZOV_DEFAULT_TAG : tag);
      EXPECT_EQ(status, zovtest::stopFailing() ? ZOV_NOMEMORY : 0);
      EXPECT_EQ(run.errors, 0);
      if (!ownTag && status == 0) {
        EXPECT_EQ(zovtest::liveBlocks(), before + 3) << "the stacks and the values are kept";
      }
      zov_freeTagMemory(tag, 0);
      EXPECT_EQ(zovtest::liveBlocks(), before);
    }
    EXPECT_EQ(passing, ownTag ? 7u : 6u) << "a tag, three blocks, two that grow";
  }
  ExpressionRun run{nested(1)};
  EXPECT_EQ(run.parse(ZOV_NO_TAG), ZOV_NOMEMORY);
  for (const uint64_t size : {uint64_t{0}, UINT64_MAX / 100 + 1}) {
    ZOV_PARSE_CONTEXT context{};
    context.valueSize = size;
    EXPECT_EQ(zov_yyparse(&context), ZOV_NOMEMORY);
  }
}

}  // namespace
