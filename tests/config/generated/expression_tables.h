/* Made by zov-tables from expression.y; do not edit. */
/* clang-format off */
#ifndef EXPRESSION_TABLES_H
#define EXPRESSION_TABLES_H

#include "zov.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Tokens. Characters stand for themselves. */
enum {
  expression_END = 0, /* END */
  expression_NUMBER = 258, /* NUMBER */
  expression_NAME = 259, /* NAME */
  expression_IF = 260, /* IF */
  expression_SIGN = 261, /* SIGN */
};

/* Rules. */
enum {
  expression_program_1 = 1, /* program: %empty */
  expression_program_2 = 2, /* program: program statement */
  expression_statement_1 = 3, /* statement: expr ';' */
  expression_statement_2 = 4, /* statement: target '=' expr ';' */
  expression_midrule1_1 = 5, /* $@1: %empty */
  expression_statement_3 = 6, /* statement: IF '(' expr ')' $@1 statement */
  expression_statement_4 = 7, /* statement: '{' program '}' */
  expression_statement_5 = 8, /* statement: error ';' */
  expression_statement_6 = 9, /* statement: '[' error ']' */
  expression_statement_7 = 10, /* statement: expr END */
  expression_target_1 = 11, /* target: NAME */
  expression_expr_1 = 12, /* expr: NUMBER */
  expression_expr_2 = 13, /* expr: NAME */
  expression_expr_3 = 14, /* expr: NAME '(' arguments ')' */
  expression_expr_4 = 15, /* expr: expr '<' expr */
  expression_expr_5 = 16, /* expr: expr '+' expr */
  expression_expr_6 = 17, /* expr: expr '-' expr */
  expression_expr_7 = 18, /* expr: expr '*' expr */
  expression_expr_8 = 19, /* expr: expr '^' expr */
  expression_expr_9 = 20, /* expr: '-' expr */
  expression_expr_10 = 21, /* expr: '(' expr ')' */
  expression_expr_11 = 22, /* expr: '(' error ')' */
  expression_arguments_1 = 23, /* arguments: %empty */
  expression_arguments_2 = 24, /* arguments: list */
  expression_list_1 = 25, /* list: expr */
  expression_list_2 = 26, /* list: list ',' expr */
};

extern const ZOV_PARSE_TABLES expression_tables;

#ifdef __cplusplus
}
#endif

#endif
