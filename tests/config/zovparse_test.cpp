// SPDX-License-Identifier: Apache-2.0
//
// The parser driver: beside bison's own parser where there is bison, and alone
// for recovery by tables made by hand, growth, status of actions, and memory.
#include "expression_tables.h"
#include "support/faults.h"

namespace {

// A parse of expression.y and everything it does. Tokens are characters, n, x and
// i standing for numbers, names and if. The value of a left side is made of the
// rule and of the values on its right, so it tells how an input was derived.
struct Input {
  std::string tokens;
  size_t next = 0;
  std::vector<uint64_t> events{};  // tokens fetched, rules and their values
  int32_t stopRule = 0;            // the rule whose action returns 7
  int errors = 0;                  // calls of the error callback
  int stride = 1;                  // words of a value, of which the first is used

  int16_t fetch(uint64_t *value) {
    const char letter = next < tokens.size() ? tokens[next] : '\0';
    events.push_back(static_cast<uint64_t>(letter));
    ++next;
    if (letter > 'A') {  // other tokens leave the last value alone
      *value = next * 1000003;
    }
    return letter == 'n'    ? expression_NUMBER
           : letter == 'x'  ? expression_NAME
           : letter == 'i'  ? expression_IF
           : letter == '\0' ? -5
                            : letter;
  }

  uint64_t reduce(int32_t rule, int32_t length, const uint64_t *lastValue) {
    uint64_t value = static_cast<uint64_t>(rule);
    const bool ofError = rule == expression_statement_5 || rule == expression_statement_6 ||
                         rule == expression_expr_11;  // the value of an error is any
    for (int32_t at = ofError ? 1 : 1 - length; at <= 0; ++at) {
      value = (value ^ lastValue[at * stride]) * 0x9E3779B97F4A7C15 + 1;
    }
    events.insert(events.end(), {static_cast<uint64_t>(rule) + 1000, value});
    return value;
  }

  static int16_t act(void *run, void *lastValue, int32_t rule, void *result) {
    Input &self = *static_cast<Input *>(run);
    const int32_t length = expression_tables.ruleLength[rule];
    *static_cast<uint64_t *>(result) =
        self.reduce(rule, length, static_cast<uint64_t *>(lastValue));
    return static_cast<int16_t>(rule == self.stopRule ? 7 : 0);
  }

  int32_t parse(ZOV_TAG tag = 0, const ZOV_PARSE_TABLES &tables = expression_tables) {
    ZOV_PARSE_CONTEXT context{sizeof(uint64_t) * static_cast<uint32_t>(stride),
                              this,
                              &tables,
                              nullptr,
                              act,
                              nullptr,
                              tag};
    context.lexer = [](void *run, void *value) {
      return static_cast<Input *>(run)->fetch(static_cast<uint64_t *>(value));
    };
    context.error = [](void *run) { ++static_cast<Input *>(run)->errors; };
    return zov_yyparse(&context);
  }
};

using Parse = zovtest::Started;

#ifdef ZOVTEST_BISON
extern "C" {
uint64_t reduceRule(void *run, int rule, int length, const uint64_t *lastValue);
int fetchToken(uint64_t *value, void *run);
int yyparse(void *run);

uint64_t reduceRule(void *run, int rule, int length, const uint64_t *lastValue) {
  return static_cast<Input *>(run)->reduce(rule, length, lastValue);
}
int fetchToken(uint64_t *value, void *run) {
  return static_cast<Input *>(run)->fetch(value);
}
}

// A program with up to three tokens spoilt.
std::string randomInput(zovtest::Random &random) {
  const char *const statements[] = {"", "SS", "x=E;", "E;", "i(E)S", "{S}", "S"};
  const char *const expressions[] = {"n", "x", "-E", "x(E,E)", "x()", "(E)", "E+E", "E<E", "E*E"};
  const std::string noise = "nxi;=()[]{}<+-*^,?n;x;";
  std::string input = "SSS";
  for (size_t at; (at = input.find_first_of("SE")) != std::string::npos;) {
    const bool small = input.size() > 60;
    input.replace(at, 1,
                  input[at] == 'S' ? statements[random.below(small ? 1 : 7)]
                                   : expressions[random.below(small ? 2 : 9)]);
  }
  for (size_t count = random.below(4); count > 0 && !input.empty(); --count) {
    input.replace(random.below(input.size()), random.below(3), random.below(3),
                  noise[random.below(noise.size())]);
  }
  return input;
}

TEST_F(Parse, FetchesAndReducesAsBisonDoes) {
  zovtest::Random random;
  int accepted = 0;
  for (int count = 0; count < 20000; ++count) {
    Input run{randomInput(random)};
    Input reference{run.tokens};
    run.stride = 1 + count % 3;
    const int32_t status = run.parse();
    ASSERT_EQ(status, yyparse(&reference) == 0 ? 0 : 3) << run.tokens;
    ASSERT_EQ(run.events, reference.events) << run.tokens;
    accepted += status == 0;
  }
  EXPECT_GT(accepted, 2000);
  EXPECT_LT(accepted, 18000);
}
#endif

// One token 1, or an error and any number of tokens 2, all by shifts:
//   state 0: 1 to state 1, error to 2    state 1: end accepts
//   states 2 and 3: 2 to state 3, end accepts
int32_t parseShifts(Input &input, uint16_t errorToken, int16_t atEnd) {
  const int16_t exceptions[] = {-1,    1,  0, -1, -2, 0, -1,    2,  0,
                                atEnd, -2, 0, -1, 3,  0, atEnd, -2, 0};
  const int16_t action[] = {0, 1, 0, 3, 0, 2};
  const int16_t pact[] = {-'0', -1000, 1 - '0', 1 - '0'};
  const int16_t check[] = {-1000, '1', '5', '2', -1000, -1000};
  const uint16_t defaultRule[] = {0, 65534, 65534, 65534};
  return input.parse(
      0, {errorToken, 6, exceptions, action, pact, nullptr, nullptr, nullptr, check, defaultRule});
}

TEST_F(Parse, CountsRecoveryDownByShifts) {
  // Tokens, that of an error, what the end does, the status and the errors told.
  const std::tuple<int, const char *, uint16_t, int16_t, int32_t, int> rows[] = {
      {__LINE__, "1", '5', -1, 0, 0},    {__LINE__, "", '5', -1, 3, 0},
      {__LINE__, "2", '5', -1, 2, 0},    {__LINE__, "22", '5', -1, 1, 0},
      {__LINE__, "2222", '5', -1, 0, 0}, {__LINE__, "9292", '5', -1, 2, 0},
      {__LINE__, "11", '5', -1, 3, 0},   {__LINE__, "91", '5', 0, 3, 0},
      {__LINE__, "222", '5', 0, 3, 0},   {__LINE__, "2", '9', -1, 3, 1},
      {__LINE__, "11", '9', -1, 3, 1},   {__LINE__, "", 60000, -1, 3, 1},
  };
  for (const auto &[line, tokens, errorToken, atEnd, status, errors] : rows) {
    Input input{tokens};
    EXPECT_EQ(parseShifts(input, errorToken, atEnd), status) << line;
    EXPECT_EQ(input.errors, errors) << line;
  }
}

// Brackets around a number, each of which takes an entry of the stacks.
std::string nested(size_t depth) {
  return std::string(depth, '(') + "n" + std::string(depth, ')') + ";";
}

TEST_F(Parse, StacksGrowAndActionsStop) {
  for (const size_t depth : {95u, 96u, 97u, 98u, 146u, 147u, 148u, 5000u}) {
    Input input{nested(depth)};
    EXPECT_EQ(input.parse(), 0);
    EXPECT_EQ(input.events.size(), input.tokens.size() + 1 + 2 * (depth + 4)) << depth;
  }
  Input input{nested(3)};
  input.stopRule = expression_expr_10;
  EXPECT_EQ(input.parse(), 7);
  EXPECT_EQ(input.events[input.events.size() - 2], 1000u + expression_expr_10);
}

TEST_F(Parse, MemoryBelongsToTheTag) {
  const ZOV_TAG own = zov_createTagEx(nullptr, 0, ZOV_HERE);
  const int64_t before = zovtest::liveBlocks();
  for (const ZOV_TAG tag : {ZOV_DEFAULT_TAG, own}) {
    EXPECT_EQ(Input{nested(120)}.parse(tag), 0);
    EXPECT_EQ(zovtest::liveBlocks() - before, tag == own ? 3 : 0);
  }
  zov_freeTagMemory(own, 1);
  EXPECT_EQ(Input{nested(1)}.parse(ZOV_NO_TAG), ZOV_NOMEMORY);
  for (const uint64_t size : {uint64_t{0}, UINT64_MAX / 100 + 1}) {
    ZOV_PARSE_CONTEXT context{};
    context.tables = &expression_tables;
    context.valueSize = size;
    EXPECT_EQ(zov_yyparse(&context), ZOV_NOMEMORY);
  }
}

}  // namespace
