// SPDX-License-Identifier: Apache-2.0
//
// Each statement is a parse of its own, whose callbacks are here. The lexer hands
// over tokens, each with its place; the rules collect them into a statement, which
// runs when the parse is over.
#include <strings.h>

#include "engine/session.h"
#include "query_tables.h"

namespace minidb {

namespace {

// The value of a token or of what a rule made.
struct Value {
  Token token;
  Text text;
  Statement statement;
};

// A statement on its way through the parser.
struct Parse {
  Session *session;
  Lexer *lexer;
  Token first;
  bool ended;  // its semicolon was delivered
  bool mistaken;
  Statement statement;  // without a verb when there is none
};

// How the statement of a verb goes, as help has it.
Text formOf(const Token &verb) {
  if (verb.number < query_PUT || verb.number > query_QUIT) {
    return textOf("a statement, see help");
  }
  for (uint32_t number = 0; const char *line = statementHelp(number); ++number) {
    if (strncasecmp(line, verb.raw.bytes, verb.raw.length) == 0 && line[verb.raw.length] == ' ') {
      const char *end = strstr(line, "  ");
      return end == nullptr ? textOf(line) : Text{line, static_cast<uint32_t>(end - line)};
    }
  }
  return textOf("\";\"");
}

void reportMistake(Parse &parse, const Token &token) {
  constexpr uint32_t kShownBytes = 60;
  const Text form = formOf(parse.first);
  const bool isEnd = token.raw.length == 0;
  const char *what =
      token.number == query_BROKEN ? "no word, or a string without end: \"" : "unexpected \"";
  say(*parse.session->output, Item::kError, "line %d, column %d: %s%.*s%s, expected %.*s",
      token.position.line, token.position.column, isEnd ? "unexpected end" : what,
      static_cast<int>(token.raw.length < kShownBytes ? token.raw.length : kShownBytes),
      token.raw.bytes, isEnd ? "" : "\"", static_cast<int>(form.length), form.bytes);
  parse.mistaken = true;
}

// --- The parser's callbacks ----------------------------------------------

// At the end of the text comes one more semicolon, so that the last statement needs
// none, and a mistake in it ends there.
int16_t nextToken(void *context, void *place) {
  Parse &parse = *static_cast<Parse *>(context);
  if (parse.ended) {
    return 0;
  }
  Value value = {};
  value.token = scanToken(*parse.lexer);
  if (value.token.number == query_WORD || value.token.number == query_STRING) {
    value.text = unquote(value.token, parse.session->tag);
  } else if (value.token.number == 0) {
    value.token.number = ';';
  }
  parse.ended = value.token.number == ';';
  value.statement.verb = value.token.number;
  memcpy(place, &value, sizeof value);
  return value.token.number;
}

// last[0] is the value of the last symbol on the right, last[-1] of the one before it.
// The result holds the value of the first symbol, so the verb is there.
int16_t takeRule(void *context, void *lastValue, int32_t rule, void *place) {
  Parse &parse = *static_cast<Parse *>(context);
  const Value *last = static_cast<const Value *>(lastValue);
  Value *result = static_cast<Value *>(place);
  Statement &made = result->statement;
  switch (rule) {
    case query_line_2: /* statement ';' */
      parse.statement = last[-1].statement;
      break;
    case query_line_3: /* error ';' */
      reportMistake(parse, last[-1].token);
      break;
    case query_statement_2: /* unary text */
      made.first = last[0].text;
      break;
    case query_statement_3: /* binary text text */
      made.first = last[-1].text;
      made.second = last[0].text;
      break;
    case query_statement_4: /* search pattern first last most */
      made.first = last[-3].text;
      made.range = {last[-2].text, last[-1].text};
      made.most = last[0].text;
      break;
    case query_pattern_1: /* %empty */
    case query_first_1:   /* %empty */
    case query_last_1:    /* %empty */
    case query_most_1:    /* %empty */
      *result = {};
      break;
    case query_first_2: /* FROM text */
    case query_last_2:  /* TO text */
    case query_most_2:  /* LIMIT text */
      result->text = last[0].text;
      break;
    default: /* the value of the only symbol */
      break;
  }
  return 0;
}

// --- Statements ----------------------------------------------------------

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
  if (parse.mistaken) {
    endStatement(*parse.session, true, parse.first.number);
  }
  return !parse.mistaken &&
         (parse.statement.verb == 0 || runStatement(*parse.session, parse.statement));
}

// Goes on behind a statement for which there was no memory, and without any.
void giveUp(Parse &parse) {
  Session &session = *parse.session;
  say(*session.output, Item::kError, "line %d, column %d: memory is short for this statement",
      parse.first.position.line, parse.first.position.column);
  while (!parse.ended) {
    const int16_t number = scanToken(*parse.lexer).number;
    parse.ended = number == 0 || number == ';';
  }
  endStatement(session, true, parse.first.number);
}

}  // namespace

bool runQuery(Session &session, Text text, Position position) {
  Lexer lexer = {text.bytes, text.bytes + text.length, position, Words::kVerb};
  bool allSucceeded = true;
  while (lexer.at < lexer.end && !session.quits) {
    lexer.words = Words::kVerb;
    Lexer ahead = lexer;
    Parse parse = {&session, &lexer, scanToken(ahead), false, false, {}};
    bool succeeded = false;
    if (!withRecovery(session.tag, [&parse, &succeeded] { succeeded = runNext(parse); })) {
      giveUp(parse);
    }
    zov_freeTagMemory(session.tag, 0);
    allSucceeded = allSucceeded && succeeded;
  }
  flushOutput(*session.output);
  return allSucceeded;
}

}  // namespace minidb
