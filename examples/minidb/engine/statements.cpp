// SPDX-License-Identifier: Apache-2.0
//
// What each statement does, but for text files, which are in load.cpp.
#include <stdarg.h>
#include <stdlib.h>

#include "engine/session.h"
#include "query_tables.h"

namespace minidb {

namespace {

using Number = unsigned long long;

void row(Session &session, Text text) {
  beginRow(*session.output, text.length);
  putPart(*session.output, text);
  endRow(*session.output);
}

ZOV_PRINTF(2, 3) void rowOf(Session &session, const char *format, ...) {
  char line[2 * kSettingBytes];
  va_list arguments;
  va_start(arguments, format);
  zov_vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  row(session, textOf(line));
}

// --- Reading -------------------------------------------------------------

// Passes the line of the record that a cursor stands on to `take` piece by piece, none
// of which is kept in memory.
template <typename Take>
Status passRecord(Session &session, Cursor &cursor, Take take) {
  const char separator = session.database->separator;
  take(keyOf(cursor));
  take(Text{&separator, 1});
  Text piece;
  Status status = readValue(cursor, piece);
  for (; status == Status::kOkay && piece.length > 0; status = readValue(cursor, piece)) {
    take(piece);
  }
  return status;
}

// Once a row is begun it has to be as long as it said.
Status showRecord(Session &session, Cursor &cursor) {
  Output &output = *session.output;
  beginRow(output, uint64_t{keyOf(cursor).length} + 1 + valueLength(cursor));
  const Status status =
      passRecord(session, cursor, [&output](Text piece) { putPart(output, piece); });
  if (status != Status::kOkay && output.framed) {
    output.status = kOutputBroken;
  }
  endRow(output);
  return status;
}

struct Search {
  Text pattern;  // of the whole line; null bytes match every one
  uint64_t most;
  bool shows;
  uint64_t found;
  Buffer line;
};

// Looks at the record that a cursor stands on.
Status look(Session &session, Search &search, Cursor &cursor) {
  if (search.pattern.bytes == nullptr) {
    ++search.found;
    return search.shows ? showRecord(session, cursor) : Status::kOkay;
  }
  Buffer &line = search.line;
  line.length = 0;
  const Status status = passRecord(
      session, cursor, [&line, &session](Text piece) { append(line, session.tag, piece); });
  if (status == Status::kOkay && matchesPattern(textOf(line), search.pattern)) {
    ++search.found;
    if (search.shows) {
      row(session, textOf(line));
    }
  }
  return status;
}

// Goes through a range for as long as somebody wants to know.
Outcome walk(Session &session, const View &view, Range range, Search &search) {
  Cursor cursor;
  uint64_t seen = 0;
  Status status = seekFirst(cursor, view, range);
  while (status == Status::kOkay && search.found < search.most && session.output->status == 0) {
    if (!goesOn(session, ++seen)) {
      return Outcome::kFailed;
    }
    status = look(session, search, cursor);
    status = status == Status::kOkay ? seekNext(cursor) : status;
  }
  return status == Status::kOkay || status == Status::kMissing ? Outcome::kDone : refuse(session);
}

Outcome find(Session &session, const Statement &statement, Search &search) {
  search.pattern = statement.first;
  search.most = UINT64_MAX;
  if (statement.most.bytes != nullptr) {
    search.most = strtoull(statement.most.bytes, nullptr, 10);
    if (statement.most.length == 0 ||
        strspn(statement.most.bytes, "0123456789") != statement.most.length) {
      return refuse(session, "the limit is no number:", statement.most.bytes);
    }
  }
  const View *view = openSight(session);
  if (view == nullptr) {
    return Outcome::kFailed;
  }
  if (search.shows || search.pattern.bytes != nullptr) {
    return walk(session, *view, statement.range, search);
  }
  const Status status = countRange(*view, statement.range, search.found);
  search.found = search.found < search.most ? search.found : search.most;
  return status == Status::kOkay ? Outcome::kDone : refuse(session);
}

Outcome find(Session &session, const Statement &statement) {
  Search search = {{}, 0, true, 0, {}};
  const Outcome outcome = find(session, statement, search);
  if (outcome == Outcome::kDone && session.output->status == 0) {
    say(*session.output, Item::kNote, "%llu found", static_cast<Number>(search.found));
  }
  return outcome;
}

Outcome count(Session &session, const Statement &statement) {
  Search search = {{}, 0, false, 0, {}};
  const Outcome outcome = find(session, statement, search);
  if (outcome == Outcome::kDone) {
    rowOf(session, "%llu", static_cast<Number>(search.found));
  }
  return outcome;
}

Outcome absent(Session &session, const Statement &statement) {
  refuse(session, "there is no record", statement.first.bytes);
  return Outcome::kAbsent;
}

Outcome get(Session &session, const Statement &statement) {
  const View *view = openSight(session);
  if (view == nullptr) {
    return Outcome::kFailed;
  }
  Cursor cursor;
  Status status = seekKey(cursor, *view, statement.first);
  if (status == Status::kMissing) {
    return absent(session, statement);
  }
  status = status == Status::kOkay ? showRecord(session, cursor) : status;
  return status == Status::kOkay ? Outcome::kDone : refuse(session);
}

// --- Changing ------------------------------------------------------------

Outcome put(Session &session, const Statement &statement) {
  Transaction *change = openChange(session, Mode::kOverwrite);
  if (change == nullptr) {
    return Outcome::kFailed;
  }
  const Status status = putRecord(*change, statement.first, statement.second);
  return status == Status::kOkay ? keepChange(session) : refuse(session);
}

Outcome remove(Session &session, const Statement &statement) {
  Transaction *change = openChange(session, Mode::kOverwrite);
  if (change == nullptr) {
    return Outcome::kFailed;
  }
  const Status status = removeRecord(*change, statement.first);
  if (status == Status::kMissing) {
    return absent(session, statement);
  }
  return status == Status::kOkay ? keepChange(session) : refuse(session);
}

Outcome begin(Session &session, const Statement &) {
  Store &store = *session.database->store;
  if (session.scope != Scope::kStatement) {
    fail("a transaction is under way");
    return refuse(session);
  }
  if (beginTransaction(store, Mode::kSnapshot, &session.transaction) != Status::kOkay) {
    session.transaction = nullptr;
    return refuse(session);
  }
  session.scope = Scope::kTransaction;
  return Outcome::kDone;
}

// The transaction is over, however it ends.
Outcome end(Session &session, const Statement &statement) {
  const Scope scope = session.scope;
  Transaction *transaction = session.transaction;
  session.scope = Scope::kStatement;
  session.transaction = nullptr;
  if (statement.verb == query_COMMIT && scope == Scope::kTransaction) {
    return commit(transaction) == Status::kOkay ? Outcome::kDone : refuse(session);
  }
  drop(transaction);
  if (statement.verb == query_ABORT && scope != Scope::kStatement) {
    return Outcome::kDone;
  }
  fail(scope == Scope::kStatement ? "there is no transaction"
                                  : "the transaction had a mistake, so nothing of it was kept");
  return refuse(session);
}

// --- Care ----------------------------------------------------------------

Outcome compact(Session &session, const Statement &) {
  Store &store = *session.database->store;
  Stats before = {};
  Stats after = {};
  if (session.scope != Scope::kStatement) {
    fail("a transaction is under way");
    return refuse(session);
  }
  if (readStats(store, before) != Status::kOkay ||
      compactStore(store, session.progress) != Status::kOkay ||
      readStats(store, after) != Status::kOkay) {
    return refuse(session);
  }
  say(*session.output, Item::kNote, "%llu bytes, %llu before",
      static_cast<Number>(after.pages) * kPageBytes,
      static_cast<Number>(before.pages) * kPageBytes);
  return Outcome::kDone;
}

Outcome check(Session &session, const Statement &) {
  const View *view = openSight(session);
  if (view == nullptr || checkView(*view, session.progress) != Status::kOkay) {
    return view == nullptr ? Outcome::kFailed : refuse(session);
  }
  say(*session.output, Item::kNote, "%llu records, every page is whole",
      static_cast<Number>(view->records));
  return Outcome::kDone;
}

Outcome stats(Session &session, const Statement &) {
  Stats is = {};
  if (readStats(*session.database->store, is) != Status::kOkay) {
    return refuse(session);
  }
  const struct {
    const char *name;
    uint64_t value;
  } rows[] = {{"records", is.records},
              {"commits", is.commits},
              {"depth", is.depth},
              {"pages", is.pages},
              {"pages in use", is.livePages},
              {"pages read", is.pagesRead},
              {"pages written", is.pagesWritten},
              {"syncs", is.syncs},
              {"cache pages", is.cachePages},
              {"cache pages used", is.cacheUsed},
              {"cache hits", is.cacheHits}};
  for (const auto &shown : rows) {
    rowOf(session, "%s: %llu", shown.name, static_cast<Number>(shown.value));
  }
  return Outcome::kDone;
}

// The separator changes at once, all else when a program starts.
Outcome set(Session &session, const Statement &statement) {
  Settings changed = session.database->settings;
  if (!changeSetting(changed, statement.first.bytes, statement.second.bytes)) {
    return refuse(session);
  }
  if (readSetting(changed, kSeparator)) {
    session.database->separator = separatorOf(changed);
  }
  return Outcome::kDone;
}

Outcome settings(Session &session, const Statement &) {
  Settings now = session.database->settings;
  for (uint8_t number = 0; number < kSettings; ++number) {
    const Setting setting = static_cast<Setting>(number);
    if (!readSetting(now, setting)) {
      return refuse(session);
    }
    rowOf(session, "%s = %s", nameOf(setting), now.text[setting]);
  }
  return Outcome::kDone;
}

Outcome help(Session &session, const Statement &) {
  for (uint32_t number = 0; const char *line = statementHelp(number); ++number) {
    row(session, textOf(line));
  }
  return Outcome::kDone;
}

Outcome quit(Session &session, const Statement &) {
  session.quits = true;
  return Outcome::kDone;
}

// In the order of the grammar.
constexpr Outcome (*kPerform[])(Session &, const Statement &) = {
    put, get, remove, find,     count, load,  dump, compact, begin,
    end, end, set,    settings, stats, check, help, quit};

static_assert(sizeof kPerform / sizeof kPerform[0] == query_QUIT - query_PUT + 1);

Outcome perform(Session &session, const Statement &statement) {
  const bool ends = statement.verb == query_COMMIT || statement.verb == query_ABORT ||
                    statement.verb == query_QUIT;
  if (session.scope == Scope::kFailed && !ends) {
    fail("the transaction had a mistake and can only be aborted");
    return refuse(session);
  }
  return kPerform[statement.verb - query_PUT](session, statement);
}

}  // namespace

bool runStatement(Session &session, const Statement &statement) {
  const Outcome outcome = perform(session, statement);
  endStatement(session, outcome == Outcome::kFailed, statement.verb);
  return outcome == Outcome::kDone;
}

void drop(Transaction *&transaction) {
  if (transaction != nullptr) {
    rollback(transaction);
    transaction = nullptr;
  }
}

void endStatement(Session &session, bool failed, int16_t verb) {
  closeView(session.view);
  drop(session.change);
  if (session.input != nullptr) {
    zov_fclose(session.input);
    session.input = nullptr;
  }
  dropDraft(session.draft);
  if (failed && (session.scope != Scope::kStatement || verb == query_BEGIN)) {
    session.scope = Scope::kFailed;
  }
}

Outcome refuse(Session &session) {
  say(*session.output, Item::kError, "%s", problem());
  return Outcome::kFailed;
}

Outcome refuse(Session &session, const char *why, const char *name) {
  fail("%s \"%.200s\"", why, name);
  return refuse(session);
}

const View *openSight(Session &session) {
  if (session.transaction != nullptr) {
    return &viewOf(*session.transaction);
  }
  if (openView(*session.database->store, session.view) == Status::kOkay) {
    return &session.view;
  }
  refuse(session);
  return nullptr;
}

Transaction *openChange(Session &session, Mode mode) {
  if (session.transaction != nullptr) {
    return session.transaction;
  }
  if (beginTransaction(*session.database->store, mode, &session.change) != Status::kOkay) {
    session.change = nullptr;
    refuse(session);
  }
  return session.change;
}

Outcome keepChange(Session &session) {
  Transaction *own = session.change;
  session.change = nullptr;
  return own == nullptr || commit(own) == Status::kOkay ? Outcome::kDone : refuse(session);
}

bool goesOn(Session &session, uint64_t records) {
  constexpr uint64_t kEvery = 256;
  const Progress &progress = session.progress;
  if (progress.step == nullptr || records % kEvery != 0 ||
      progress.step(progress.context, records)) {
    return true;
  }
  say(*session.output, Item::kError, "interrupted");
  return false;
}

}  // namespace minidb
