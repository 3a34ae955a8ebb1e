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
  query_FROM = 271, /* FROM */
  query_TO = 272, /* TO */
  query_BYTES = 273, /* BYTES */
  query_UTF16 = 274, /* UTF16 */
  query_WORD = 275, /* WORD */
  query_STRING = 276, /* STRING */
  query_BROKEN = 277, /* BROKEN */
};

/* Rules. */
enum {
  query_script_1 = 1, /* script: %empty */
  query_script_2 = 2, /* script: script line */
  query_line_1 = 3, /* line: ';' */
  query_line_2 = 4, /* line: statement ';' */
  query_line_3 = 5, /* line: error ';' */
  query_statement_1 = 6, /* statement: put */
  query_statement_2 = 7, /* statement: get */
  query_statement_3 = 8, /* statement: delete */
  query_statement_4 = 9, /* statement: find */
  query_statement_5 = 10, /* statement: count */
  query_statement_6 = 11, /* statement: load */
  query_statement_7 = 12, /* statement: dump */
  query_statement_8 = 13, /* statement: compact */
  query_statement_9 = 14, /* statement: begin */
  query_statement_10 = 15, /* statement: commit */
  query_statement_11 = 16, /* statement: abort */
  query_statement_12 = 17, /* statement: set */
  query_statement_13 = 18, /* statement: settings */
  query_put_1 = 19, /* put: PUT text text */
  query_get_1 = 20, /* get: GET text */
  query_delete_1 = 21, /* delete: DELETE text */
  query_find_1 = 22, /* find: FIND filter */
  query_count_1 = 23, /* count: COUNT filter */
  query_load_1 = 24, /* load: LOAD text */
  query_dump_1 = 25, /* dump: DUMP text */
  query_dump_2 = 26, /* dump: DUMP text BYTES */
  query_dump_3 = 27, /* dump: DUMP text UTF16 */
  query_compact_1 = 28, /* compact: COMPACT */
  query_begin_1 = 29, /* begin: BEGIN */
  query_commit_1 = 30, /* commit: COMMIT */
  query_abort_1 = 31, /* abort: ABORT */
  query_set_1 = 32, /* set: SET text text */
  query_settings_1 = 33, /* settings: SETTINGS */
  query_filter_1 = 34, /* filter: pattern first last */
  query_pattern_1 = 35, /* pattern: %empty */
  query_pattern_2 = 36, /* pattern: text */
  query_first_1 = 37, /* first: %empty */
  query_first_2 = 38, /* first: FROM text */
  query_last_1 = 39, /* last: %empty */
  query_last_2 = 40, /* last: TO text */
  query_text_1 = 41, /* text: WORD */
  query_text_2 = 42, /* text: STRING */
};

extern const ZOV_PARSE_TABLES query_tables;

#ifdef __cplusplus
}
#endif

#endif
