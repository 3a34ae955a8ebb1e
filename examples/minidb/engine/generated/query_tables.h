/* Made by zov-tables from query.y; do not edit. */
/* clang-format off */
#ifndef QUERY_TABLES_H
#define QUERY_TABLES_H

#include "zov.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Tokens. Characters stand for themselves. */
enum {
  query_PLAIN = 258, /* PLAIN */
  query_UNARY = 259, /* UNARY */
  query_BINARY = 260, /* BINARY */
  query_SEARCH = 261, /* SEARCH */
  query_FROM = 262, /* FROM */
  query_TO = 263, /* TO */
  query_LIMIT = 264, /* LIMIT */
  query_TEXT = 265, /* TEXT */
  query_BROKEN = 266, /* BROKEN */
};

/* Rules. */
enum {
  query_line_1 = 1, /* line: ';' */
  query_line_2 = 2, /* line: statement ';' */
  query_line_3 = 3, /* line: error ';' */
  query_statement_1 = 4, /* statement: PLAIN */
  query_statement_2 = 5, /* statement: UNARY TEXT */
  query_statement_3 = 6, /* statement: BINARY TEXT TEXT */
  query_statement_4 = 7, /* statement: SEARCH pattern first last most */
  query_pattern_1 = 8, /* pattern: %empty */
  query_pattern_2 = 9, /* pattern: TEXT */
  query_first_1 = 10, /* first: %empty */
  query_first_2 = 11, /* first: FROM TEXT */
  query_last_1 = 12, /* last: %empty */
  query_last_2 = 13, /* last: TO TEXT */
  query_most_1 = 14, /* most: %empty */
  query_most_2 = 15, /* most: LIMIT TEXT */
};

extern const ZOV_PARSE_TABLES query_tables;

#ifdef __cplusplus
}
#endif

#endif
