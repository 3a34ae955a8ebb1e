// SPDX-License-Identifier: Apache-2.0
//
// The parser's callbacks. The lexer hands over tokens, each with its place; the
// rules collect them into a statement, which runs when its semicolon is there.
// Texts live in a tag that goes with the query.
#include "engine/query.h"

#include "query_tables.h"

namespace minidb {

namespace {

// The value of a token or of what a rule made.
struct Value {
  Token token;
  Text text;
  Statement statement;
};

struct Query {
  Session *session;
  Lexer lexer;
  ZOV_TAG tag;
  bool closed;   // the semicolon behind the last statement was delivered
  bool stopped;  // a token could not be had for want of memory
  bool succeeded;
};

// --- Tokens --------------------------------------------------------------

// At the end comes one more semicolon, so that the last statement needs none,
// and a mistake in it ends there.
int16_t nextToken(void *context, void *place) {
  Query &query = *static_cast<Query *>(context);
  Value value = {};
  value.token = scanToken(query.lexer);
  if (value.token.number == query_WORD || value.token.number == query_STRING) {
    value.text = unquote(value.token, query.tag);
    if (value.text.bytes == nullptr) {
      query.stopped = true;
      return 0;
    }
  } else if (value.token.number == 0 && !query.closed) {
    value.token.number = ';';
    query.closed = true;
  }
  memcpy(place, &value, sizeof value);
  return value.token.number;
}

// Shows as much of a token as makes a readable line.
void reportMistake(Query &query, const Token &token) {
  constexpr uint32_t kShownBytes = 60;
  const uint32_t shown = token.raw.length < kShownBytes ? token.raw.length : kShownBytes;
  const char *before = "unexpected \"";
  const char *after = "\"";
  if (shown == 0) {
    before = "unexpected end";
    after = "";
  } else if (token.number == query_BROKEN) {
    before = "what begins here has no end or no use: ";
    after = "";
  }
  say(*query.session, Item::kError, "line %d, column %d: %s%.*s%s", token.position.line,
      token.position.column, before, static_cast<int>(shown), token.raw.bytes, after);
  failTransaction(*query.session);
  query.succeeded = false;
}

// --- Rules ---------------------------------------------------------------

// last[0] is the value of the last symbol on the right, last[-1] of the one before
// it. The result holds the value of the first symbol.

Statement filtered(Verb verb, Statement filter) {
  filter.verb = verb;
  return filter;
}

// Makes the statement of a rule's symbols. False for other rules.
bool makeStatement(int32_t rule, const Value *last, Statement &statement) {
  switch (rule) {
    case query_put_1: /* PUT text text */
      statement = {Verb::kPut, last[-1].text, last[0].text, {}, {}};
      return true;
    case query_get_1: /* GET text */
      statement = {Verb::kGet, last[0].text, {}, {}, {}};
      return true;
    case query_delete_1: /* DELETE text */
      statement = {Verb::kDelete, last[0].text, {}, {}, {}};
      return true;
    case query_find_1: /* FIND filter */
      statement = filtered(Verb::kFind, last[0].statement);
      return true;
    case query_count_1: /* COUNT filter */
      statement = filtered(Verb::kCount, last[0].statement);
      return true;
    case query_filter_1: /* pattern first last */
      statement = {Verb::kFind, last[-2].text, {}, last[-1].text, last[0].text};
      return true;
    case query_load_1: /* LOAD text */
      statement = {Verb::kLoad, last[0].text, {}, {}, {}};
      return true;
    case query_dump_1: /* DUMP text */
      statement = {Verb::kDump, last[0].text, {}, {}, {}};
      return true;
    case query_dump_2: /* DUMP text BYTES */
      statement = {Verb::kDump, last[-1].text, {}, {}, {}};
      return true;
    case query_dump_3: /* DUMP text UTF16 */
      statement = {Verb::kDumpWide, last[-1].text, {}, {}, {}};
      return true;
    case query_compact_1: /* COMPACT */
      statement.verb = Verb::kCompact;
      return true;
    case query_begin_1: /* BEGIN */
      statement.verb = Verb::kBegin;
      return true;
    case query_commit_1: /* COMMIT */
      statement.verb = Verb::kCommit;
      return true;
    case query_abort_1: /* ABORT */
      statement.verb = Verb::kAbort;
      return true;
    case query_set_1: /* SET text text */
      statement = {Verb::kSet, last[-1].text, last[0].text, {}, {}};
      return true;
    case query_settings_1: /* SETTINGS */
      statement.verb = Verb::kSettings;
      return true;
    default:
      return false;
  }
}

int16_t perform(void *context, void *lastValue, int32_t rule, void *place) {
  Query &query = *static_cast<Query *>(context);
  const Value *last = static_cast<const Value *>(lastValue);
  Value *result = static_cast<Value *>(place);
  switch (rule) {
    case query_line_2: /* statement ';' */
      query.succeeded = runStatement(*query.session, last[-1].statement) && query.succeeded;
      break;
    case query_line_3: /* error ';' */
      reportMistake(query, last[-1].token);
      break;
    case query_pattern_1: /* %empty */
    case query_first_1:   /* %empty */
    case query_last_1:    /* %empty */
      *result = {};
      break;
    case query_first_2: /* FROM text */
    case query_last_2:  /* TO text */
      result->text = last[0].text;
      break;
    default: /* a statement, or the value of the only symbol */
      makeStatement(rule, last, result->statement);
      break;
  }
  return 0;
}

}  // namespace

bool runQuery(Session &session, Text text, Position position) {
  Query query = {&session, {text.bytes, text.bytes + text.length, position}, 0, false, false, true};
  query.tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  const ZOV_PARSE_CONTEXT context = {
      .valueSize = sizeof(Value),
      .userContext = &query,
      .tables = &query_tables,
      .lexer = nextToken,
      .action = perform,
      .error = nullptr,
      .tag = query.tag,
  };
  const int32_t status = zov_yyparse(&context);
  zov_freeTagMemory(query.tag, 1);
  // Mistakes were reported; what else ends a parse early is want of memory.
  if (query.stopped || (status != 0 && query.succeeded)) {
    say(session, Item::kError, "the query was not read to its end: memory is short");
    failTransaction(session);
    return false;
  }
  return query.succeeded;
}

}  // namespace minidb
