// SPDX-License-Identifier: Apache-2.0
#include "engine/lexer.h"

#include <strings.h>

#include "query_tables.h"

namespace minidb {

namespace {

// In the order in which the grammar has them.
constexpr const char *kKeywords[] = {
    "put",   "get", "delete",   "find",  "count", "load", "dump", "compact", "begin", "commit",
    "abort", "set", "settings", "stats", "check", "help", "quit", "from",    "to",    "limit"};

static_assert(sizeof kKeywords / sizeof kKeywords[0] == query_LIMIT - query_PUT + 1);

bool isSpace(char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

bool isQuote(char byte) {
  return byte == '"' || byte == '\'';
}

bool isWordByte(char byte) {
  return static_cast<unsigned char>(byte) > ' ' && byte != ';' && !isQuote(byte);
}

bool startsComment(const char *at, const char *end) {
  return end - at >= 2 && at[0] == '-' && at[1] == '-';
}

// Takes one byte. Those that go on with a character of UTF-8 make no column.
void advance(Lexer &lexer) {
  const unsigned char byte = static_cast<unsigned char>(*lexer.at++);
  if (byte == '\n') {
    ++lexer.position.line;
    lexer.position.column = 1;
  } else if ((byte & 0xc0) != 0x80) {
    ++lexer.position.column;
  }
}

void skipSpaceAndComments(Lexer &lexer) {
  for (bool comment = false; lexer.at < lexer.end; advance(lexer)) {
    comment = comment ? *lexer.at != '\n' : startsComment(lexer.at, lexer.end);
    if (!comment && !isSpace(*lexer.at)) {
      return;
    }
  }
}

int16_t classify(Words words, Text word) {
  const bool isVerb = words == Words::kVerb;
  const bool isClause = words == Words::kClause;
  for (int16_t number = query_PUT; number <= query_LIMIT; ++number) {
    const char *name = kKeywords[number - query_PUT];
    if ((number <= query_QUIT ? isVerb : isClause) && strlen(name) == word.length &&
        strncasecmp(name, word.bytes, word.length) == 0) {
      return number;
    }
  }
  return query_WORD;
}

// What may follow a token.
Words wordsBehind(Words words, int16_t number) {
  switch (number) {
    case ';':
      return Words::kVerb;
    case query_FIND:
    case query_COUNT:
      return Words::kClause;
    case query_FROM:
    case query_TO:
    case query_LIMIT:
      return Words::kValueOfClause;
    default:
      return words == Words::kVerb || words == Words::kValue ? Words::kValue : Words::kClause;
  }
}

// Takes a string up to its closing quote. There is no NUL in a value.
int16_t takeString(Lexer &lexer) {
  const char quote = *lexer.at;
  advance(lexer);
  while (lexer.at < lexer.end && *lexer.at != '\0') {
    const bool closes = *lexer.at == quote;
    advance(lexer);
    if (closes && (lexer.at == lexer.end || *lexer.at != quote)) {
      return query_STRING;
    }
    if (closes) {
      advance(lexer);
    }
  }
  return query_BROKEN;
}

int16_t takeToken(Lexer &lexer) {
  const char *start = lexer.at;
  int16_t number = query_BROKEN;
  if (isQuote(*start)) {
    number = takeString(lexer);
  } else if (isWordByte(*start)) {
    while (lexer.at < lexer.end && isWordByte(*lexer.at)) {
      advance(lexer);
    }
    number = classify(lexer.words, {start, static_cast<uint32_t>(lexer.at - start)});
  } else {
    advance(lexer);
    number = *start == ';' ? int16_t{';'} : number;
  }
  lexer.words = wordsBehind(lexer.words, number);
  return number;
}

}  // namespace

Token scanToken(Lexer &lexer) {
  const Position end = lexer.position;
  skipSpaceAndComments(lexer);
  if (lexer.at == lexer.end) {
    return {0, {lexer.at, 0}, end};
  }
  const char *start = lexer.at;
  const Position position = lexer.position;
  const int16_t number = takeToken(lexer);
  return {number, {start, static_cast<uint32_t>(lexer.at - start)}, position};
}

Text unquote(const Token &token, ZOV_TAG tag) {
  const bool quoted = token.number == query_STRING;
  const char *end = token.raw.bytes + token.raw.length - (quoted ? 1 : 0);
  Buffer text = {};
  char *to = makeRoom(text, tag, token.raw.length);
  for (const char *at = token.raw.bytes + (quoted ? 1 : 0); at < end; ++at) {
    *to++ = *at;
    at += quoted && *at == *token.raw.bytes;
  }
  *to = '\0';
  return {text.bytes, static_cast<uint32_t>(to - text.bytes)};
}

void readOn(Reading &reading, Text lines) {
  const char *end = lines.bytes + lines.length;
  for (const char *at = lines.bytes; at < end; ++at) {
    if (reading.quote != '\0') {
      reading.quote = *at == reading.quote ? '\0' : reading.quote;
    } else if (reading.comment || isSpace(*at)) {
      reading.comment = reading.comment && *at != '\n';
      reading.inWord = false;
    } else if (!reading.inWord && startsComment(at, end)) {
      reading.comment = true;
    } else {
      reading.quote = isQuote(*at) ? *at : '\0';
      reading.inWord = isWordByte(*at);
      reading.open = *at != ';';
    }
  }
}

}  // namespace minidb
