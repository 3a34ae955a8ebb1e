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
  query_PUT = 258, /* PUT */
  query_GET = 259, /* GET */
  query_DELETE = 260, /* DELETE */
  query_FIND = 261, /* FIND */
  query_COUNT = 262, /* COUNT */
  query_LOAD = 263, /* LOAD */
  query_DUMP = 264, /* DUMP */
  query_COMPACT = 265, /* COMPACT */
  query_BEGIN = 266, /* BEGIN */
  query_COMMIT = 267, /* COMMIT */
  query_ABORT = 268, /* ABORT */
  query_SET = 269, /* SET */
  query_SETTINGS = 270, /* SETTINGS */
  query_STATS = 271, /* STATS */
  query_CHECK = 272, /* CHECK */
  query_HELP = 273, /* HELP */
  query_QUIT = 274, /* QUIT */
  query_FROM = 275, /* FROM */
  query_TO = 276, /* TO */
  query_LIMIT = 277, /* LIMIT */
  query_WORD = 278, /* WORD */
  query_STRING = 279, /* STRING */
  query_BROKEN = 280, /* BROKEN */
};

/* Rules. */
enum {
  query_line_1 = 1, /* line: ';' */
  query_line_2 = 2, /* line: statement ';' */
  query_line_3 = 3, /* line: error ';' */
  query_statement_1 = 4, /* statement: plain */
  query_statement_2 = 5, /* statement: unary text */
  query_statement_3 = 6, /* statement: binary text text */
  query_statement_4 = 7, /* statement: search pattern first last most */
  query_plain_1 = 8, /* plain: COMPACT */
  query_plain_2 = 9, /* plain: BEGIN */
  query_plain_3 = 10, /* plain: COMMIT */
  query_plain_4 = 11, /* plain: ABORT */
  query_plain_5 = 12, /* plain: SETTINGS */
  query_plain_6 = 13, /* plain: STATS */
  query_plain_7 = 14, /* plain: CHECK */
  query_plain_8 = 15, /* plain: HELP */
  query_plain_9 = 16, /* plain: QUIT */
  query_unary_1 = 17, /* unary: GET */
  query_unary_2 = 18, /* unary: DELETE */
  query_unary_3 = 19, /* unary: LOAD */
  query_unary_4 = 20, /* unary: DUMP */
  query_binary_1 = 21, /* binary: PUT */
  query_binary_2 = 22, /* binary: SET */
  query_search_1 = 23, /* search: FIND */
  query_search_2 = 24, /* search: COUNT */
  query_pattern_1 = 25, /* pattern: %empty */
  query_pattern_2 = 26, /* pattern: text */
  query_first_1 = 27, /* first: %empty */
  query_first_2 = 28, /* first: FROM text */
  query_last_1 = 29, /* last: %empty */
  query_last_2 = 30, /* last: TO text */
  query_most_1 = 31, /* most: %empty */
  query_most_2 = 32, /* most: LIMIT text */
  query_text_1 = 33, /* text: WORD */
  query_text_2 = 34, /* text: STRING */
};

extern const ZOV_PARSE_TABLES query_tables;

#ifdef __cplusplus
}
#endif

#endif
