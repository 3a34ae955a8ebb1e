// SPDX-License-Identifier: Apache-2.0
//
// A calculator over 1 MiB of tokens, by the driver and by the parser that bison
// writes. Both take the tokens from one array, so the lexer costs them the same.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "bench_seed.h"
#include "calculator_tables.h"

extern "C" {
int calculatorToken(double *value, void *input);
void calculatorResult(void *input, double value);
int yyparse(void *input);
}

namespace {

constexpr size_t kTokens = 1 << 20;

struct Token {
  int16_t kind;
  double value;
};

struct Input {
  const Token *next;
  double sum;
};

void addExpression(std::vector<Token> &tokens, std::mt19937_64 &random, int depth) {
  const uint64_t choice = depth == 0 ? 0 : random() % 8;
  if (choice < 2) {
    tokens.push_back({calculator_NUMBER, static_cast<double>(random() % 1000) / 10.0});
  } else if (choice == 2) {
    tokens.push_back({'-', 0});
    addExpression(tokens, random, depth - 1);
  } else if (choice == 3) {
    tokens.push_back({'(', 0});
    addExpression(tokens, random, depth - 1);
    tokens.push_back({')', 0});
  } else {
    addExpression(tokens, random, depth - 1);
    tokens.push_back({static_cast<int16_t>("+-*/"[choice - 4]), 0});
    addExpression(tokens, random, depth - 1);
  }
}

// Whole lines, as many as there is room for, and the end of input.
std::vector<Token> makeTokens() {
  std::mt19937_64 random(benchSeed());
  std::vector<Token> tokens;
  while (tokens.size() < kTokens) {
    addExpression(tokens, random, 5);
    tokens.push_back({';', 0});
  }
  tokens.push_back({0, 0});
  return tokens;
}

int16_t nextToken(void *input, void *value) {
  const Token *token = static_cast<Input *>(input)->next++;
  *static_cast<double *>(value) = token->value;
  return token->kind;
}

int16_t perform(void *input, void *lastValue, int32_t rule, void *result) {
  const double *last = static_cast<double *>(lastValue);
  double &value = *static_cast<double *>(result);
  switch (rule) {
    case calculator_line_1:
      calculatorResult(input, last[-1]);
      break;
    case calculator_expr_2:
      value = last[-2] + last[0];
      break;
    case calculator_expr_3:
      value = last[-2] - last[0];
      break;
    case calculator_expr_4:
      value = last[-2] * last[0];
      break;
    case calculator_expr_5:
      value = last[-2] / last[0];
      break;
    case calculator_expr_6:
      value = -last[0];
      break;
    case calculator_expr_7:
      value = last[-1];
      break;
    default:
      break;
  }
  return 0;
}

// The sum of the lines, by whichever parser was first.
double expected = 0;

template <typename Parse>
void calculate(benchmark::State &state, Parse parse) {
  zov_init();
  const std::vector<Token> tokens = makeTokens();
  for (auto _ : state) {
    Input input{tokens.data(), 0};
    if (parse(input) != 0) {
      state.SkipWithError("the input was not accepted");
      break;
    }
    if (expected != 0 && input.sum != expected) {
      state.SkipWithError("another sum");
      break;
    }
    expected = input.sum;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(tokens.size()));
  zov_term();
}

void BM_Calculator(benchmark::State &state) {
  calculate(state, [](Input &input) {
    const ZOV_PARSE_CONTEXT context{sizeof(double), &input,  &calculator_tables, nextToken,
                                    perform,        nullptr, ZOV_DEFAULT_TAG};
    return zov_yyparse(&context);
  });
}
BENCHMARK(BM_Calculator)->Name("parse/zov");

void BM_CalculatorBison(benchmark::State &state) {
  calculate(state, [](Input &input) { return yyparse(&input); });
}
BENCHMARK(BM_CalculatorBison)->Name("parse/bison");

}  // namespace

int calculatorToken(double *value, void *input) {
  return nextToken(input, value);
}

// Of the lines that do not divide by zero.
void calculatorResult(void *input, double value) {
  static_cast<Input *>(input)->sum += std::isfinite(value) ? value : 0;
}
