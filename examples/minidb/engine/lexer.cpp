// SPDX-License-Identifier: Apache-2.0
#include "engine/lexer.h"

#include <strings.h>

#include "query_tables.h"

namespace minidb {

namespace {

struct Keyword {
  const char *name;
  int16_t number;
};

constexpr Keyword kKeywords[] = {
    {"abort", query_ABORT},   {"begin", query_BEGIN},     {"bytes", query_BYTES},
    {"commit", query_COMMIT}, {"compact", query_COMPACT}, {"count", query_COUNT},
    {"delete", query_DELETE}, {"dump", query_DUMP},       {"find", query_FIND},
    {"from", query_FROM},     {"get", query_GET},         {"load", query_LOAD},
    {"put", query_PUT},       {"set", query_SET},         {"settings", query_SETTINGS},
    {"to", query_TO},         {"utf16", query_UTF16},
};

bool isSpace(char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

bool isQuote(char byte) {
  return byte == '"' || byte == '\'';
}

bool isWordByte(char byte) {
  return static_cast<unsigned char>(byte) > ' ' && byte != ';' && !isQuote(byte);
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

bool startsComment(const Lexer &lexer) {
  return lexer.end - lexer.at >= 2 && lexer.at[0] == '-' && lexer.at[1] == '-';
}

void skipSpaceAndComments(Lexer &lexer) {
  while (lexer.at < lexer.end && (isSpace(*lexer.at) || startsComment(lexer))) {
    if (startsComment(lexer)) {
      while (lexer.at < lexer.end && *lexer.at != '\n') {
        advance(lexer);
      }
    } else {
      advance(lexer);
    }
  }
}

int16_t keywordOf(Text word) {
  for (const Keyword &keyword : kKeywords) {
    if (strlen(keyword.name) == word.length &&
        strncasecmp(keyword.name, word.bytes, word.length) == 0) {
      return keyword.number;
    }
  }
  return query_WORD;
}

// Takes a string up to its closing quote. A NUL ends it like the end of the text.
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

}  // namespace

Token scanToken(Lexer &lexer) {
  const Position end = lexer.position;
  skipSpaceAndComments(lexer);
  const char *start = lexer.at;
  if (lexer.at == lexer.end) {
    return {0, {start, 0}, end};
  }
  Token token = {0, {start, 0}, lexer.position};
  if (isQuote(*lexer.at)) {
    token.number = takeString(lexer);
  } else if (isWordByte(*lexer.at)) {
    while (lexer.at < lexer.end && isWordByte(*lexer.at)) {
      advance(lexer);
    }
    token.number = keywordOf({start, static_cast<uint32_t>(lexer.at - start)});
  } else {
    token.number = *lexer.at == ';' ? int16_t{';'} : int16_t{query_BROKEN};
    advance(lexer);
  }
  token.raw.length = static_cast<uint32_t>(lexer.at - start);
  return token;
}

Text unquote(const Token &token, ZOV_TAG tag) {
  Text raw = token.raw;
  char quote = '\0';
  if (token.number == query_STRING) {
    quote = raw.bytes[0];
    raw = {raw.bytes + 1, raw.length - 2};
  }
  char *bytes = static_cast<char *>(
      zov_getMem(uint64_t{raw.length} + 1, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
  if (bytes == nullptr) {
    return {nullptr, 0};
  }
  uint32_t length = 0;
  for (uint32_t at = 0; at < raw.length; ++at) {
    bytes[length++] = raw.bytes[at];
    at += quote != '\0' && raw.bytes[at] == quote;
  }
  bytes[length] = '\0';
  return {bytes, length};
}

bool endsStatement(Text text) {
  Lexer lexer = {text.bytes, text.bytes + text.length, {1, 1}};
  int16_t last = ';';
  for (Token token = scanToken(lexer); token.number != 0; token = scanToken(lexer)) {
    last = token.number;
  }
  return last == ';';
}

}  // namespace minidb
