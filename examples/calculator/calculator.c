/* SPDX-License-Identifier: Apache-2.0
 *
 * A calculator: reads lines of expressions, prints their values, and goes on
 * behind a line that is wrong. Names of one letter are variables.
 */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

#include "calculator_tables.h"

/* The value of a token, or of an expression. Every token has its place in the
 * text, so that the one which an error was found at can be named. */
struct value {
  double number;
  char letter; /* of a name; of other tokens their first character */
  int line;
  int column;
};

struct calculator {
  FILE *input;
  int line;
  int column;
  double variables[256];
};

static int nextCharacter(struct calculator *calculator) {
  ++calculator->column;
  return getc(calculator->input);
}

static void putBack(struct calculator *calculator, int character) {
  --calculator->column;
  ungetc(character, calculator->input);
}

static double readNumber(struct calculator *calculator, int character) {
  char text[64];
  size_t length = 0;
  while (isdigit(character) || character == '.') {
    if (length < sizeof text - 1) {
      text[length++] = (char)character;
    }
    character = nextCharacter(calculator);
  }
  putBack(calculator, character);
  text[length] = '\0';
  return strtod(text, NULL);
}

static int16_t nextToken(void *context, void *place) {
  struct calculator *calculator = context;
  int character = nextCharacter(calculator);
  while (character == ' ' || character == '\t') {
    character = nextCharacter(calculator);
  }
  struct value value = {0, (char)character, calculator->line, calculator->column};
  int16_t token = (int16_t)character; /* EOF is negative, which ends the input */
  if (isdigit(character)) {
    value.number = readNumber(calculator, character);
    token = calculator_NUMBER;
  } else if (isalpha(character)) {
    token = calculator_NAME;
  } else if (character == '\n') {
    ++calculator->line;
    calculator->column = 0;
  }
  *(struct value *)place = value;
  return token;
}

static void reportError(const struct value *found) {
  if (found->letter == '\n') {
    printf("line %d: the line ends too early\n", found->line);
  } else {
    printf("line %d, column %d: \"%c\" is not expected here\n", found->line, found->column,
           found->letter);
  }
}

/* last[0] is the value of the last symbol of the rule, last[-1] of the one before
 * it. The result is that of the first symbol already. */
static int16_t perform(void *context, void *lastValue, int32_t rule, void *place) {
  struct calculator *calculator = context;
  const struct value *last = lastValue;
  struct value *result = place;
  switch (rule) {
    case calculator_line_2: /* line: expr '\n' */
      printf("%g\n", last[-1].number);
      break;
    case calculator_line_3: /* line: NAME '=' expr '\n' */
      calculator->variables[(unsigned char)last[-3].letter] = last[-1].number;
      break;
    case calculator_line_4: /* line: error '\n' */
      reportError(&last[-1]);
      break;
    case calculator_expr_2: /* expr: NAME */
      result->number = calculator->variables[(unsigned char)last[0].letter];
      break;
    case calculator_expr_3: /* expr: expr '+' expr */
      result->number = last[-2].number + last[0].number;
      break;
    case calculator_expr_4: /* expr: expr '-' expr */
      result->number = last[-2].number - last[0].number;
      break;
    case calculator_expr_5: /* expr: expr '*' expr */
      result->number = last[-2].number * last[0].number;
      break;
    case calculator_expr_6: /* expr: expr '/' expr */
      result->number = last[-2].number / last[0].number;
      break;
    case calculator_expr_7: /* expr: '-' expr */
      result->number = -last[0].number;
      break;
    case calculator_expr_8: /* expr: '(' expr ')' */
      result->number = last[-1].number;
      break;
    default: /* the result is the first symbol's value */
      break;
  }
  return 0;
}

int main(void) {
  static struct calculator calculator;
  calculator.input = stdin;
  calculator.line = 1;
  const ZOV_PARSE_CONTEXT context = {
      .valueSize = sizeof(struct value),
      .userContext = &calculator,
      .tables = &calculator_tables,
      .lexer = nextToken,
      .action = perform,
  };
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  const int32_t status = zov_yyparse(&context);
  zov_term();
  return status == 0 ? 0 : 1;
}
