// SPDX-License-Identifier: Apache-2.0
//
// Strings of tokens, one a line of numbers, through zov_yyparse() and through the
// parser that bison writes for the same grammar. Both have to fetch the same
// tokens, perform the same rules on the same values and end the same way.
#include <stdint.h>

#include <iostream>
#include <sstream>
#include <vector>

#include "stripped_tables.h"

extern "C" {
int fetchToken(uint64_t *value, void *run);
int reduceRule(void *run, int rule, int length, const uint64_t *lastValue, uint64_t *result);
int yyparse(void *run);
}

namespace {

// Grammars in which a reduction follows an error without a token go on for ever.
constexpr size_t kMostEvents = 1000;
constexpr int kEndless = 7;

// A parse and everything it does. A rule's value is made of its number and of the
// values on its right, those of the error token among them.
struct Run {
  const std::vector<int16_t> &tokens;
  size_t next = 0;
  std::vector<uint64_t> events{};
  int abandoned = 0;

  int fetch(uint64_t *value) {
    const int token = next < tokens.size() ? tokens[next] : 0;
    *value = ++next * 1000003;
    events.push_back(static_cast<uint64_t>(token));
    return token;
  }

  int reduce(int rule, int length, const uint64_t *lastValue, uint64_t *result) {
    uint64_t value = static_cast<uint64_t>(rule);
    for (int at = 1 - length; at <= 0; ++at) {
      value = (value ^ lastValue[at]) * 0x9E3779B97F4A7C15 + 1;
    }
    *result = value;
    events.insert(events.end(), {static_cast<uint64_t>(rule) + 100000, value});
    return events.size() > kMostEvents ? kEndless : 0;
  }
};

int32_t parse(Run &run) {
  ZOV_PARSE_CONTEXT context{sizeof(uint64_t), &run, &stripped_tables, nullptr, nullptr, nullptr, 0};
  context.lexer = [](void *self, void *value) {
    return static_cast<int16_t>(fetchToken(static_cast<uint64_t *>(value), self));
  };
  context.action = [](void *self, void *lastValue, int32_t rule, void *result) {
    return static_cast<int16_t>(reduceRule(self, rule, stripped_tables.ruleLength[rule],
                                           static_cast<uint64_t *>(lastValue),
                                           static_cast<uint64_t *>(result)));
  };
  context.error = [](void *self) { ++static_cast<Run *>(self)->abandoned; };
  return zov_yyparse(&context);
}

}  // namespace

int fetchToken(uint64_t *value, void *run) {
  return static_cast<Run *>(run)->fetch(value);
}

int reduceRule(void *run, int rule, int length, const uint64_t *lastValue, uint64_t *result) {
  return static_cast<Run *>(run)->reduce(rule, length, lastValue, result);
}

int main() {
  int strings = 0;
  int accepted = 0;
  int endless = 0;
  size_t events = 0;
  zov_init();
  for (std::string line; std::getline(std::cin, line); ++strings) {
    std::istringstream numbers(line);
    std::vector<int16_t> tokens;
    for (int16_t token; numbers >> token;) {
      tokens.push_back(token);
    }
    Run run{tokens};
    Run reference{tokens};
    const int32_t status = parse(run);
    const int expected = yyparse(&reference) == 0                ? 0
                         : reference.events.size() > kMostEvents ? kEndless
                                                                 : 3;
    if (status != expected || run.events != reference.events || run.abandoned > (status == 3)) {
      std::cout << "status " << status << " for " << expected << ", tokens " << line << "\n";
      return 1;
    }
    accepted += status == 0;
    endless += status == kEndless;
    events += run.events.size();
  }
  zov_term();
  std::cout << strings << " " << accepted << " " << endless << " " << events << "\n";
}
