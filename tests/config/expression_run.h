// SPDX-License-Identifier: Apache-2.0
//
// A parse of tests/config/expression.y: the tokens it is given and everything it
// does with them. The value of a left side is made of the rule and of the values
// on its right, so that the value of a whole input tells how it was derived.
#ifndef TESTS_CONFIG_EXPRESSION_RUN_H
#define TESTS_CONFIG_EXPRESSION_RUN_H

#include <stdint.h>

#include <vector>

#include "expression_tables.h"

struct ExpressionRun {
  std::vector<int16_t> tokens;
  size_t next = 0;
  std::vector<uint64_t> events{};  // tokens fetched, and rules with their values
  int32_t stopRule = 0;            // the rule whose action returns 7
  int errors = 0;                  // calls of the error callback

  int16_t fetch(uint64_t *value) {
    const int16_t token = next < tokens.size() ? tokens[next] : int16_t{-5};
    ++next;
    if (token > 0 && token % 4 != 0) {  // some tokens leave the last value alone
      *value = next * 1000003;
    }
    events.push_back(static_cast<uint64_t>(token));
    return token;
  }

  uint64_t reduce(int32_t rule, int32_t length, const uint64_t *lastValue) {
    if (rule == expression_statement_5 || rule == expression_statement_6 ||
        rule == expression_expr_11) {
      length = 0;  // the value of an error is whatever the lexer left
    }
    uint64_t value = static_cast<uint64_t>(rule);
    for (int32_t at = 1 - length; at <= 0; ++at) {
      value = (value ^ lastValue[at]) * 0x9E3779B97F4A7C15 + 1;
    }
    events.push_back(static_cast<uint64_t>(rule) + 100000);
    events.push_back(value);
    return value;
  }

  // Parses with the driver.
  int32_t parse(ZOV_TAG tag = 0) {
    const ZOV_PARSE_CONTEXT context{
        sizeof(uint64_t),
        this,
        &expression_tables,
        [](void *run, void *value) {
          return static_cast<ExpressionRun *>(run)->fetch(static_cast<uint64_t *>(value));
        },
        [](void *run, void *lastValue, int32_t rule, void *result) {
          ExpressionRun &self = *static_cast<ExpressionRun *>(run);
          *static_cast<uint64_t *>(result) = self.reduce(rule, expression_tables.ruleLength[rule],
                                                         static_cast<uint64_t *>(lastValue));
          return static_cast<int16_t>(rule == self.stopRule ? 7 : 0);
        },
        [](void *run) { ++static_cast<ExpressionRun *>(run)->errors; },
        tag};
    return zov_yyparse(&context);
  }
};

#endif
