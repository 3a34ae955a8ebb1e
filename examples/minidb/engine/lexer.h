// SPDX-License-Identifier: Apache-2.0
//
// The words of the query language. A word is a keyword only where one can stand:
// a verb in front of a statement, FROM, TO and LIMIT in a search; elsewhere it is
// a value like any other.
#ifndef MINIDB_LEXER_H
#define MINIDB_LEXER_H

#include "engine/text.h"

namespace minidb {

// Both count from 1; columns are characters of UTF-8.
struct Position {
  int32_t line;
  int32_t column;
};

// A token as it stands in the query, which it points into.
struct Token {
  int16_t number;  // query_WORD and so on, ';', or 0 at the end of the text
  Text raw;        // the quotes of a string included
  Position position;
};

// What the next word may be beside a value.
enum class Words : uint8_t { kVerb, kClause, kValueOfClause, kValue };

struct Lexer {
  const char *at;
  const char *end;
  Position position;
  Words words;
};

// Takes the next token. Words are runs of printable bytes other than quotes and
// semicolons, keywords in upper or lower case; strings stand in single or double
// quotes, of which two make one inside; a comment goes from "--" to the end of
// the line. What is none of these, a string that never ends among them, is
// query_BROKEN.
Token scanToken(Lexer &lexer);

// The text that a word or a string stands for, with a NUL behind it, in memory
// of the tag. Jumps to its recovery point.
Text unquote(const Token &token, ZOV_TAG tag);

// Where a text that comes in pieces stands in the language. Starts zero-filled.
struct Reading {
  char quote;    // inside a string: what ends it
  bool inWord;   // behind a byte of a word
  bool comment;  // inside a comment
  bool open;     // inside a statement
};

// Goes on with the next whole lines.
void readOn(Reading &reading, Text lines);

}  // namespace minidb

#endif
