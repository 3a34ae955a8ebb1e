/* Made by zov-tables from calculator.y; do not edit. */
/* clang-format off */
#ifndef CALCULATOR_TABLES_H
#define CALCULATOR_TABLES_H

#include "zov.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Tokens. Characters stand for themselves. */
enum {
  calculator_NUMBER = 258, /* NUMBER */
  calculator_SIGN = 259, /* SIGN */
};

/* Rules. */
enum {
  calculator_lines_1 = 1, /* lines: %empty */
  calculator_lines_2 = 2, /* lines: lines line */
  calculator_line_1 = 3, /* line: expr ';' */
  calculator_line_2 = 4, /* line: error ';' */
  calculator_expr_1 = 5, /* expr: NUMBER */
  calculator_expr_2 = 6, /* expr: expr '+' expr */
  calculator_expr_3 = 7, /* expr: expr '-' expr */
  calculator_expr_4 = 8, /* expr: expr '*' expr */
  calculator_expr_5 = 9, /* expr: expr '/' expr */
  calculator_expr_6 = 10, /* expr: '-' expr */
  calculator_expr_7 = 11, /* expr: '(' expr ')' */
};

extern const ZOV_PARSE_TABLES calculator_tables;

#ifdef __cplusplus
}
#endif

#endif
