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
  calculator_NAME = 259, /* NAME */
  calculator_SIGN = 260, /* SIGN */
};

/* Rules. */
enum {
  calculator_lines_1 = 1, /* lines: %empty */
  calculator_lines_2 = 2, /* lines: lines line */
  calculator_line_1 = 3, /* line: '\n' */
  calculator_line_2 = 4, /* line: expr '\n' */
  calculator_line_3 = 5, /* line: NAME '=' expr '\n' */
  calculator_line_4 = 6, /* line: error '\n' */
  calculator_expr_1 = 7, /* expr: NUMBER */
  calculator_expr_2 = 8, /* expr: NAME */
  calculator_expr_3 = 9, /* expr: expr '+' expr */
  calculator_expr_4 = 10, /* expr: expr '-' expr */
  calculator_expr_5 = 11, /* expr: expr '*' expr */
  calculator_expr_6 = 12, /* expr: expr '/' expr */
  calculator_expr_7 = 13, /* expr: '-' expr */
  calculator_expr_8 = 14, /* expr: '(' expr ')' */
};

extern const ZOV_PARSE_TABLES calculator_tables;

#ifdef __cplusplus
}
#endif

#endif
