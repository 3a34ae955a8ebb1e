// SPDX-License-Identifier: Apache-2.0
//
// Each statement is a parse of its own, whose callbacks are here: one scans the next
// token, with its place, the other collects what the rules find into a statement, which
// runs when the parse is over.
//
// Words are runs of printable bytes other than quotes and semicolons, keywords in upper
// or lower case; strings stand in single or double quotes, of which two make one inside;
// a comment goes from "--" to the end of the line. What is none of these, a string that
// never ends among them, is BROKEN.
#include <strings.h>

#include "engine/engine.h"
#include "query_tables.h"

namespace minidb {

namespace {

// --- Tokens --------------------------------------------------------------

struct Token {
  int16_t number;  // query_TEXT and so on, ';', or 0 at the end of the text
  Text raw;        // in the query, the quotes of a string included
  Position position;
};

struct Lexer {
  const char *at;
  const char *end;
  Position position;
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

// Takes a string up to its closing quote. There is no NUL in a value.
int16_t takeString(Lexer &lexer) {
  const char quote = *lexer.at;
  advance(lexer);
  while (lexer.at < lexer.end && *lexer.at != '\0') {
    const bool closes = *lexer.at == quote;
    advance(lexer);
    if (closes && (lexer.at == lexer.end || *lexer.at != quote)) {
      return query_TEXT;
    }
    if (closes) {
      advance(lexer);
    }
  }
  return query_BROKEN;
}

int16_t takeToken(Lexer &lexer) {
  const char first = *lexer.at;
  if (isQuote(first)) {
    return takeString(lexer);
  }
  if (!isWordByte(first)) {
    advance(lexer);
    return first == ';' ? int16_t{';'} : int16_t{query_BROKEN};
  }
  while (lexer.at < lexer.end && isWordByte(*lexer.at)) {
    advance(lexer);
  }
  return query_TEXT;
}

Token scanToken(Lexer &lexer) {
  const Position end = lexer.position;
  skipSpaceAndComments(lexer);
  Token token = {0, {lexer.at, 0}, lexer.at == lexer.end ? end : lexer.position};
  if (lexer.at < lexer.end) {
    token.number = takeToken(lexer);
    token.raw.length = static_cast<uint32_t>(lexer.at - token.raw.bytes);
  }
  return token;
}

// The text that a word or a string stands for, with a NUL behind it, in memory of the
// tag. Jumps to its recovery point.
Text unquote(Text raw, ZOV_TAG tag) {
  const bool quoted = isQuote(*raw.bytes);
  const char *end = raw.bytes + raw.length - (quoted ? 1 : 0);
  Buffer text = {};
  char *to = makeRoom(text, tag, raw.length);
  for (const char *at = raw.bytes + (quoted ? 1 : 0); at < end; ++at) {
    *to++ = *at;
    at += quoted && *at == *raw.bytes;
  }
  *to = '\0';
  return {text.bytes, static_cast<uint32_t>(to - text.bytes)};
}

// --- A parse -------------------------------------------------------------

// The value of a token; rules have none.
struct Value {
  Token token;
  Text text;
};

// A statement on its way through the parser.
struct Parse {
  Session *session;
  Lexer *lexer;
  Token first;       // of its tokens, which its verb is found by
  int16_t previous;  // number of the latest one, 0 in front of the first
  bool complete;
  Statement statement;
};

// Whether a token is the first word of a text.
bool isWord(Text raw, const char *text) {
  return raw.length == strcspn(text, " ") && strncasecmp(raw.bytes, text, raw.length) == 0;
}

const Verb *findVerb(Text raw) {
  for (const Verb *verb = kVerbs; verb->form != nullptr; ++verb) {
    if (isWord(raw, verb->form)) {
      return verb;
    }
  }
  return nullptr;
}

// The number of a word, by where it stands.
int16_t classify(const Parse &parse, Text raw) {
  constexpr const char *kClauses[] = {"from", "to", "limit"};  // as in the grammar
  const Verb *verb = parse.statement.verb;
  if (parse.previous == 0 || verb == nullptr) {
    return verb == nullptr ? int16_t{query_TEXT} : verb->token;
  }
  const bool isOperand = parse.previous >= query_FROM && parse.previous <= query_LIMIT;
  int16_t number = query_FROM;
  while (number <= query_LIMIT && !isWord(raw, kClauses[number - query_FROM])) {
    ++number;
  }
  const bool isClause = number <= query_LIMIT && verb->token == query_SEARCH && !isOperand;
  return isClause ? number : int16_t{query_TEXT};
}

// At the end of the text comes one more semicolon, so that the last statement needs
// none, and a mistake in it ends there.
int16_t nextToken(void *context, void *place) {
  Parse &parse = *static_cast<Parse *>(context);
  if (parse.previous == ';') {
    return 0;
  }
  Value value = {scanToken(*parse.lexer), {}};
  Token &token = value.token;
  if (token.number == 0) {
    token.number = ';';
  } else if (token.number == query_TEXT) {
    token.number = classify(parse, token.raw);
  }
  parse.previous = token.number;
  if (token.number == query_TEXT) {
    value.text = unquote(token.raw, parse.session->tag);
  }
  memcpy(place, &value, sizeof value);
  return token.number;
}

void reportMistake(const Parse &parse, const Token &token) {
  constexpr uint32_t kShownBytes = 60;
  const Verb *verb = parse.statement.verb;
  const bool isEnd = token.raw.length == 0;
  const char *what =
      token.number == query_BROKEN ? "no word, or a string without end: \"" : "unexpected \"";
  const char *form = verb == nullptr              ? "a statement, see help"
                     : verb->token == query_PLAIN ? "\";\""
                                                  : verb->form;
  sayOf(*parse.session, Item::kError, "line %d, column %d: %s%.*s%s, expected %s",
        token.position.line, token.position.column, isEnd ? "unexpected end" : what,
        static_cast<int>(token.raw.length < kShownBytes ? token.raw.length : kShownBytes),
        token.raw.bytes, isEnd ? "" : "\"", form);
}

// last[0] is the value of the last symbol on the right, last[-1] of the one before it.
int16_t takeRule(void *context, void *lastValue, int32_t rule, void *) {
  Parse &parse = *static_cast<Parse *>(context);
  const Value *last = static_cast<const Value *>(lastValue);
  Statement &made = parse.statement;
  switch (rule) {
    case query_line_2: /* statement ';' */
      parse.complete = true;
      break;
    case query_line_3: /* error ';' */
      reportMistake(parse, last[-1].token);
      break;
    case query_statement_2: /* UNARY TEXT */
    case query_pattern_2:   /* TEXT */
      made.first = last[0].text;
      break;
    case query_statement_3: /* BINARY TEXT TEXT */
      made.first = last[-1].text;
      made.second = last[0].text;
      break;
    case query_first_2: /* FROM TEXT */
      made.range.from = last[0].text;
      break;
    case query_last_2: /* TO TEXT */
      made.range.to = last[0].text;
      break;
    case query_most_2: /* LIMIT TEXT */
      made.most = last[0].text;
      break;
    default:
      break;
  }
  return 0;
}

// Parses and runs the statement that a lexer stands in front of.
bool runNext(Parse &parse) {
  const ZOV_PARSE_CONTEXT context = {
      .valueSize = sizeof(Value),
      .userContext = &parse,
      .tables = &query_tables,
      .lexer = nextToken,
      .action = takeRule,
      .error = nullptr,
      .tag = parse.session->tag,
  };
  zov_yyparse(&context);
  if (parse.complete) {
    return runStatement(*parse.session, parse.statement);
  }
  const bool isEmpty = parse.first.number == ';' || parse.first.number == 0;
  if (!isEmpty) {
    endStatement(*parse.session, parse.statement.verb, true);
  }
  return isEmpty;
}

// Goes on behind a statement for which there was no memory, and without any.
void giveUp(Parse &parse) {
  Session &session = *parse.session;
  sayOf(session, Item::kError, "line %d, column %d: memory is short for this statement",
        parse.first.position.line, parse.first.position.column);
  int16_t number = parse.previous;
  while (number != ';' && parse.lexer->at < parse.lexer->end) {
    number = scanToken(*parse.lexer).number;
  }
  endStatement(session, parse.statement.verb, true);
}

}  // namespace

bool runQuery(Session &session, Text text, Position position) {
  Lexer lexer = {text.bytes, text.bytes + text.length, position};
  bool allSucceeded = true;
  while (lexer.at < lexer.end && !session.quits) {
    Lexer ahead = lexer;
    Parse parse = {&session, &lexer, scanToken(ahead), 0, false, {}};
    parse.statement.verb = findVerb(parse.first.raw);
    bool succeeded = false;
    if (!withRecovery(session.tag, [&parse, &succeeded] { succeeded = runNext(parse); })) {
      giveUp(parse);
    }
    zov_freeTagMemory(session.tag, 0);
    allSucceeded = allSucceeded && succeeded;
  }
  return allSucceeded;
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
