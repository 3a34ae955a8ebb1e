// SPDX-License-Identifier: Apache-2.0
//
// The parser driver over random tables, each in a block of just its size. They are right
// in that no rule is longer than the stack is deep where it applies, and that no state
// is entered by the end of input; all else is as it comes. A parse ends with its tokens,
// or by an action that has had enough.
#include "support/fuzz.h"

namespace {

constexpr int16_t kStates = 12;
constexpr int16_t kTokens = 7;  // the last is the error token
constexpr int16_t kRules = 9;
constexpr int16_t kNonTerminals = 4;
constexpr int16_t kCells = 40;
constexpr uint16_t kSeeExceptions = 65534;
constexpr int32_t kEnough = 77;

using Table = std::vector<int16_t>;

struct Run {
  FuzzedDataProvider &input;
  const ZOV_PARSE_TABLES &tables;
  uint64_t valueSize;
  uint32_t actions;
};

Table take(FuzzedDataProvider &input, size_t count, int16_t least, int16_t most) {
  Table table(count);
  std::generate(table.begin(), table.end(),
                [&] { return input.ConsumeIntegralInRange(least, most); });
  return table;
}

// By state, how many entries the stack has at least beneath it.
void findDepths(const ZOV_PARSE_TABLES &tables, int (&depths)[kStates]) {
  for (int state = 0; state < kStates; ++state) {
    depths[state] = state == 0 ? 0 : tables.check[state] < 0 ? 1 : kCells;
  }
  for (int symbol = 0; symbol <= kNonTerminals; ++symbol) {
    int &depth = depths[tables.action[tables.pgo[symbol]]];
    depth = std::min(depth, 1);
  }
  for (int again = kStates * kStates * kTokens; again > 0; --again) {
    const int state = again % kStates;
    const int token = again / kStates % kTokens + 1;
    const int cell = tables.pact[state] + token;
    if (cell >= 0 && cell < kCells && tables.check[tables.action[cell]] == token) {
      int &depth = depths[tables.action[cell]];
      depth = std::min(depth, depths[state] + 1);
    }
  }
}

int16_t fetch(void *context, void *value) {
  Run &run = *static_cast<Run *>(context);
  memset(value, 1, run.valueSize);
  return run.input.remaining_bytes() == 0 ? int16_t{-1}
                                          : run.input.ConsumeIntegralInRange<int16_t>(1, kTokens);
}

// Values are all ones when a token brought them, and all twos when a rule did.
int16_t reduce(void *context, void *lastValue, int32_t rule, void *result) {
  Run &run = *static_cast<Run *>(context);
  zovtest::require(rule >= 1 && rule < kRules);
  const uint64_t length = static_cast<uint64_t>(run.tables.ruleLength[rule]) * run.valueSize;
  const uint8_t *const end = static_cast<const uint8_t *>(lastValue) + run.valueSize;
  zovtest::require(
      std::all_of(end - length, end, [](uint8_t byte) { return byte == 1 || byte == 2; }));
  memset(result, 2, run.valueSize);
  return run.actions-- == 0 ? kEnough : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int32_t status = zov_init();
  FuzzedDataProvider input(data, size);
  const Table action = take(input, kCells, 0, kStates - 1);
  const Table pact = take(input, kStates, -9, kCells);
  const Table pgo = take(input, kNonTerminals + 1, 0, kCells - 1);
  const Table left = take(input, kRules, 1, kNonTerminals);
  const Table length = take(input, kRules, 0, 4);
  Table check = take(input, kStates, -kNonTerminals, kTokens);
  std::replace(check.begin(), check.end(), int16_t{0}, kTokens);
  ZOV_PARSE_TABLES tables = {kTokens,    kCells,      nullptr,       action.data(), pact.data(),
                             pgo.data(), left.data(), length.data(), check.data(),  nullptr};
  int depths[kStates];
  findDepths(tables, depths);
  Table exceptions(size_t{6} * kStates);
  std::vector<uint16_t> defaultRule(kStates);
  tables.exceptions = exceptions.data();
  tables.defaultRule = defaultRule.data();
  for (int16_t state = 0; state < kStates; ++state) {
    const auto takeRule = [&](int16_t least) {
      const int16_t rule = input.ConsumeIntegralInRange<int16_t>(least, kRules - 1);
      return rule > 0 && tables.ruleLength[rule] > depths[state] ? int16_t{0} : rule;
    };
    const int16_t token = input.ConsumeIntegralInRange<int16_t>(0, kTokens);
    const int16_t section[] = {-1, state, token, takeRule(-1), -2, takeRule(-1)};
    std::copy_n(section, 6, exceptions.begin() + 6 * state);
    *(defaultRule.begin() + state) =
        input.ConsumeBool() ? kSeeExceptions : static_cast<uint16_t>(takeRule(0));
  }
  const uint64_t sizes[] = {1, 4, 8, 16, 24};
  Run run = {input, tables, input.PickValueInArray(sizes), input.ConsumeIntegralInRange(0u, 300u)};
  const ZOV_PARSE_CONTEXT context = {run.valueSize, &run, &tables, fetch, reduce, nullptr, 0};
  const int32_t outcome = zov_yyparse(&context);
  zovtest::require(status == ZOV_OKAY && ((outcome >= 0 && outcome <= 3) || outcome == kEnough));
  return 0;
}
