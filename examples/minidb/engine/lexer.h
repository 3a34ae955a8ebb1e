// SPDX-License-Identifier: Apache-2.0
//
// The words of the query language.
#ifndef MINIDB_LEXER_H
#define MINIDB_LEXER_H

#include "engine/buffer.h"

namespace minidb {

// Both count from 1; columns are characters of UTF-8.
struct Position {
  int32_t line;
  int32_t column;
};

// A token as it stands in the query, which it points into. The end of the text
// stands behind its last token.
struct Token {
  int16_t number;  // query_WORD and so on, ';', or 0 at the end of the text
  Text raw;        // the quotes of a string included
  Position position;
};

struct Lexer {
  const char *at;
  const char *end;
  Position position;
};

// Takes the next token. Words are runs of printable bytes other than quotes and
// semicolons, and are keywords in upper or lower case; strings stand in single or
// double quotes, of which two make one inside; a comment goes from "--" to the
// end of the line. What is none of these, a string that never ends among them,
// is query_BROKEN.
Token scanToken(Lexer &lexer);

// The text that a word or a string stands for, terminated, in memory of the tag.
// Null bytes when memory is missing.
Text unquote(const Token &token, ZOV_TAG tag);

// Whether a text ends behind a semicolon, so that no statement is left open.
bool endsStatement(Text text);

}  // namespace minidb

#endif
