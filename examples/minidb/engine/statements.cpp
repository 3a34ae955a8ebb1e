// SPDX-License-Identifier: Apache-2.0
//
// What each statement does, but for text files, which are in transfer.cpp; the table of
// them all; and the session that they run in.
#include <stdarg.h>
#include <stdlib.h>

#include "engine/engine.h"
#include "query_tables.h"

namespace minidb {

namespace {

using Number = unsigned long long;

// Rolls a transaction back, if there is one.
void drop(Transaction *&transaction) {
  if (transaction != nullptr) {
    rollback(transaction);
    transaction = nullptr;
  }
}

// --- Reading -------------------------------------------------------------

bool showRecord(Session &session, Cursor &cursor) {
  const bool shown =
      passRecord(session, cursor, [&session](Text piece) { say(session, Item::kRow, piece); });
  say(session, Item::kRow, {"\n", 1});
  return shown;
}

// Looks at the record that a cursor stands on. A pattern is held against its whole line,
// for which there has to be memory.
bool look(Session &session, Cursor &cursor, Text pattern, bool shows, Buffer &line, bool &found) {
  found = true;
  if (pattern.bytes == nullptr) {
    return !shows || showRecord(session, cursor);
  }
  line.length = 0;
  if (!passRecord(session, cursor,
                  [&line, &session](Text piece) { append(line, session.tag, piece); })) {
    return false;
  }
  found = matchesPattern(textOf(line), pattern);
  if (found && shows) {
    append(line, session.tag, {"\n", 1});
    say(session, Item::kRow, textOf(line));
  }
  return true;
}

// Goes through a range for as long as somebody wants to know.
bool walk(Session &session, const Statement &statement, bool shows, uint64_t most,
          uint64_t &found) {
  Cursor cursor;
  Buffer line = {};
  uint64_t seen = 0;
  bool more = seekFirst(cursor, sightOf(session), statement.range);
  while (more && found < most && session.status == 0) {
    bool isFound = false;
    more = goOn(session.progress, ++seen) &&
           look(session, cursor, statement.first, shows, line, isFound);
    found += isFound ? 1 : 0;
    more = more && seekNext(cursor);
  }
  return more || lastStatus() == Status::kMissing;
}

bool search(Session &session, const Statement &statement, bool shows, uint64_t &found) {
  const char *limit = statement.most.bytes;
  const uint64_t most = limit == nullptr ? UINT64_MAX : strtoull(limit, nullptr, 10);
  if (limit != nullptr &&
      (*limit == '\0' || strspn(limit, "0123456789") != statement.most.length)) {
    return fail(Status::kRefused, "the limit is no number: \"%.200s\"", limit);
  }
  if (shows || statement.first.bytes != nullptr) {
    return walk(session, statement, shows, most, found);
  }
  const bool counted = countRange(sightOf(session), statement.range, found);
  found = found < most ? found : most;
  return counted;
}

bool find(Session &session, const Statement &statement) {
  uint64_t found = 0;
  const bool done = search(session, statement, true, found);
  note(session, "%llu found", Number{found});
  return done;
}

bool count(Session &session, const Statement &statement) {
  uint64_t found = 0;
  if (!search(session, statement, false, found)) {
    return false;
  }
  sayOf(session, Item::kRow, "%llu\n", Number{found});
  return true;
}

bool get(Session &session, const Statement &statement) {
  Cursor cursor;
  return seekKey(cursor, sightOf(session), statement.first) && showRecord(session, cursor);
}

// --- Changing ------------------------------------------------------------

bool put(Session &session, const Statement &statement) {
  return putRecord(*session.transaction, statement.first, statement.second);
}

bool remove(Session &session, const Statement &statement) {
  return removeRecord(*session.transaction, statement.first);
}

bool begin(Session &session, const Statement &) {
  const bool begun =
      beginTransaction(*session.database->store, Mode::kSnapshot, &session.transaction);
  session.scope = begun ? Scope::kTransaction : Scope::kStatement;
  return begun;
}

// Both leave the transaction to the statement, whose own it is then committed or dropped.
bool commit(Session &session, const Statement &) {
  const Scope scope = session.scope;
  session.scope = Scope::kStatement;
  return scope == Scope::kTransaction ||
         fail(scope == Scope::kFailed ? "the transaction had a mistake, so nothing of it was kept"
                                      : "there is no transaction");
}

bool abort(Session &session, const Statement &) {
  if (session.scope == Scope::kStatement) {
    return fail(Status::kRefused, "there is no transaction");
  }
  session.scope = Scope::kStatement;
  drop(session.transaction);
  return true;
}

// --- Care ----------------------------------------------------------------

bool compact(Session &session, const Statement &) {
  const uint64_t before = session.view.end;
  closeView(session.view);
  const bool done = compactStore(*session.database->store, session.progress) &&
                    openView(*session.database->store, session.view);
  note(session, "%llu bytes, %llu before", Number{session.view.end} * kPageBytes,
       Number{before} * kPageBytes);
  return done;
}

bool check(Session &session, const Statement &) {
  const View &view = sightOf(session);
  note(session, "%llu records, every page is whole", Number{view.records});
  return checkView(view, session.progress);
}

bool stats(Session &session, const Statement &) {
  Figure figures[kFigures];
  readFigures(sightOf(session), figures);
  for (const Figure &figure : figures) {
    sayOf(session, Item::kRow, "%s: %llu\n", figure.name, Number{figure.value});
  }
  return true;
}

// The separator changes at once, all else when a program starts.
bool set(Session &session, const Statement &statement) {
  Settings changed = session.database->settings;
  if (!changeSetting(changed, statement.first.bytes, statement.second.bytes)) {
    return false;
  }
  if (readSetting(changed, kSeparator)) {
    session.database->separator = separatorOf(changed);
  }
  return true;
}

bool settings(Session &session, const Statement &) {
  Settings now = session.database->settings;
  for (uint8_t number = 0; number < kSettings; ++number) {
    const Option setting = static_cast<Option>(number);
    if (!readSetting(now, setting)) {
      return false;
    }
    sayOf(session, Item::kRow, "%s = %s\n", nameOf(setting), now.text[setting]);
  }
  return true;
}

bool help(Session &session, const Statement &) {
  for (const Verb *verb = kVerbs; verb->form != nullptr; ++verb) {
    sayOf(session, Item::kRow, kHelpFormat, verb->form, verb->help);
  }
  return true;
}

bool quit(Session &session, const Statement &) {
  session.quits = true;
  return true;
}

// --- Running -------------------------------------------------------------

// Gives a statement what it needs.
bool prepare(Session &session, Access access) {
  Store &store = *session.database->store;
  if (session.scope == Scope::kFailed && access != Access::kEnd) {
    return fail(Status::kRefused, "the transaction had a mistake and can only be aborted");
  }
  if (session.scope != Scope::kStatement &&
      (access == Access::kAlone || access == Access::kBegin)) {
    return fail(Status::kRefused, "a transaction is under way");
  }
  if (session.transaction != nullptr) {
    return true;
  }
  if (access == Access::kRead || access == Access::kAlone) {
    return openView(store, session.view);
  }
  const Mode mode = access == Access::kLoad ? Mode::kExclusive : Mode::kOverwrite;
  return (access != Access::kLoad && access != Access::kChange) ||
         beginTransaction(store, mode, &session.transaction);
}

bool perform(Session &session, const Statement &statement) {
  if (!prepare(session, statement.verb->access)) {
    return false;
  }
  if (!statement.verb->run(session, statement)) {
    return lastStatus() == Status::kMissing &&
           fail(Status::kMissing, "there is no record \"%.200s\"", statement.first.bytes);
  }
  if (session.scope != Scope::kStatement || session.transaction == nullptr) {
    return true;
  }
  Transaction *own = session.transaction;
  session.transaction = nullptr;
  return commit(own);
}

}  // namespace

const Verb kVerbs[] = {
    {"put KEY VALUE", query_BINARY, Access::kChange, put,
     "keep a record, in place of an earlier one of the key"},
    {"get KEY", query_UNARY, Access::kRead, get, "show the record of a key"},
    {"delete KEY", query_UNARY, Access::kChange, remove, "remove it"},
    {"find [PATTERN] [from KEY] [to KEY] [limit COUNT]", query_SEARCH, Access::kRead, find,
     "show records in the order\n"
     "                          of their keys; in a pattern * stands for any text, ? for a\n"
     "                          character, and \\ escapes"},
    {"count [PATTERN] [from KEY] [to KEY] [limit COUNT]", query_SEARCH, Access::kRead, count,
     "count them"},
    {"load FILE", query_UNARY, Access::kLoad, load,
     "put the records of a text file, one to a line"},
    {"dump FILE", query_UNARY, Access::kRead, dump, "write every record to a text file"},
    {"begin", query_PLAIN, Access::kBegin, begin, "make the changes that follow together,"},
    {"commit", query_PLAIN, Access::kEnd, commit, "up to here"},
    {"abort", query_PLAIN, Access::kEnd, abort, "or not at all"},
    {"compact", query_PLAIN, Access::kAlone, compact,
     "rewrite the data file without what was replaced"},
    {"check", query_PLAIN, Access::kRead, check, "read and check every page of the data file"},
    {"stats", query_PLAIN, Access::kRead, stats, "show figures of the database"},
    {"set NAME VALUE", query_BINARY, Access::kNone, set, "change a setting"},
    {"settings", query_PLAIN, Access::kNone, settings, "show them"},
    {"help", query_PLAIN, Access::kNone, help, "show this"},
    {"quit", query_PLAIN, Access::kEnd, quit, "end the program"},
    {nullptr, 0, Access::kNone, nullptr, nullptr}};

bool openDatabase(Database &database, const Settings &settings) {
  database.settings = settings;
  database.separator = separatorOf(settings);
  const Options options = {.path = settings.text[kData],
                           .inMemory = isGiven(settings, kMemory),
                           .create = !isGiven(settings, kReadOnly),
                           .readOnly = isGiven(settings, kReadOnly),
                           .cacheBytes = static_cast<uint64_t>(numberOf(settings, kCache)) << 20};
  return openStore(options, &database.store);
}

bool openSession(Session &session, Database &database, ZOV_BUFF_WRITE write, void *context,
                 Progress progress) {
  session = {};
  session.database = &database;
  session.progress = progress;
  if (zov_outputBuffCreate(write, context, 0, &session.out) != 0) {
    return false;
  }
  session.tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  if (session.tag == ZOV_NO_TAG) {
    zov_outputBuffDestroy(session.out);
  }
  return session.tag != ZOV_NO_TAG;
}

void closeSession(Session &session) {
  drop(session.transaction);
  zov_outputBuffDestroy(session.out);
  zov_freeTagMemory(session.tag, 1);
}

bool runStatement(Session &session, const Statement &statement) {
  session.note[0] = '\0';
  const bool done = perform(session, statement);
  // Before it is said, for which others may have to wait long.
  endStatement(session, statement.verb, !done && lastStatus() != Status::kMissing);
  if (!done) {
    say(session, Item::kError, textOf(problem()));
  } else if (session.note[0] != '\0') {
    say(session, Item::kNote, textOf(session.note));
  }
  return done;
}

void endStatement(Session &session, const Verb *verb, bool failed) {
  closeView(session.view);
  if (session.scope == Scope::kStatement) {
    drop(session.transaction);
  }
  if (session.input != nullptr) {
    zov_fclose(session.input);
    session.input = nullptr;
  }
  dropDraft(session.draft);
  const bool begins = verb != nullptr && verb->access == Access::kBegin;
  if (failed && (session.scope != Scope::kStatement || begins)) {
    session.scope = Scope::kFailed;
  }
}

void say(Session &session, Item item, Text text) {
  int32_t status = session.status;
  status = status != 0 ? status : zov_outputBuffPutChar(session.out, static_cast<char>(item));
  status =
      status != 0 ? status : zov_outputBuffPutInt32(session.out, static_cast<int32_t>(text.length));
  session.status =
      status != 0 ? status : zov_outputBuffPutBytes(session.out, text.bytes, text.length);
}

void sayOf(Session &session, Item item, const char *format, ...) {
  char text[kMessageBytes];
  va_list arguments;
  va_start(arguments, format);
  zov_vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  say(session, item, textOf(text));
}

void note(Session &session, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  zov_vsnprintf(session.note, sizeof session.note, format, arguments);
  va_end(arguments);
}

const View &sightOf(const Session &session) {
  return session.transaction != nullptr ? viewOf(*session.transaction) : session.view;
}

}  // namespace minidb
