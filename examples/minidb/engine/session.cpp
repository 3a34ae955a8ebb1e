// SPDX-License-Identifier: Apache-2.0
//
// What each statement does. A statement has the database to itself from its start
// to its end, sync included, and what it outputs is handed over meanwhile.
#include "engine/session.h"

#include <stdarg.h>

#include <iterator>

#include "engine/report.h"
#include "engine/text_io.h"

namespace minidb {

namespace {

View viewOf(const Session &session) {
  return {session.database->store, session.changes};
}

char separatorOf(const Session &session) {
  return session.database->settings.separator;
}

// The record as a line of text, in memory of the default tag.
char *lineOf(const Entry &entry, char separator) {
  return zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%.*s%c%.*s", static_cast<int>(entry.key.length),
                       entry.key.bytes, separator, static_cast<int>(entry.value.length),
                       entry.value.bytes);
}

bool outputRecord(const Session &session, const Entry &entry) {
  char *line = lineOf(entry, separatorOf(session));
  if (line == nullptr) {
    return false;
  }
  session.output(session.outputContext, Item::kRow, textOf(line));
  zov_freeMem(line, ZOV_DEFAULT_TAG);
  return true;
}

// How a statement ended.
enum class Outcome {
  kDone,
  kAbsent,   // what it asked for is not there, which was output
  kRefused,  // it was not carried out, and why was output
  kFailed,   // it failed without a change; why was logged
  kBroken,   // it failed in the middle of a change; why was logged
};

Outcome refuse(const Session &session, const char *why) {
  say(session, Item::kError, "%s", why);
  return Outcome::kRefused;
}

Outcome refuse(const Session &session, const char *why, const char *name) {
  say(session, Item::kError, "%s \"%s\"", why, name);
  return Outcome::kRefused;
}

// Makes a change part of the transaction, or at once part of the database.
Outcome change(const Session &session, const Entry &entry) {
  Database &database = *session.database;
  if (session.changes != nullptr) {
    return appendEntry(*session.changes, entry) ? Outcome::kDone : Outcome::kBroken;
  }
  database.changed = true;
  return appendEntry(*database.store, entry) && commit(*database.store) ? Outcome::kDone
                                                                        : Outcome::kBroken;
}

// --- Searches ------------------------------------------------------------

// A search under way. It matches the whole record as it is shown.
struct Search {
  const Session *session;
  const Statement *statement;
  bool shows;
  uint64_t found;
};

bool isInRange(const Statement &statement, Text key) {
  return (statement.from.bytes == nullptr || compareTexts(key, statement.from) >= 0) &&
         (statement.to.bytes == nullptr || compareTexts(key, statement.to) <= 0);
}

bool visitRecord(const Entry &entry, void *context) {
  Search &search = *static_cast<Search *>(context);
  if (!isInRange(*search.statement, entry.key)) {
    return true;
  }
  char *line = lineOf(entry, separatorOf(*search.session));
  if (line == nullptr) {
    return false;
  }
  const char *pattern = search.statement->first.bytes;
  if (pattern == nullptr || zov_match(line, pattern) != 0) {
    ++search.found;
    if (search.shows) {
      search.session->output(search.session->outputContext, Item::kRow, textOf(line));
    }
  }
  zov_freeMem(line, ZOV_DEFAULT_TAG);
  return true;
}

// --- Statements ----------------------------------------------------------

Outcome put(Session &session, const Statement &statement) {
  return change(session, {Kind::kPut, statement.first, statement.second});
}

// Finds the record that a statement is about.
Outcome lookUp(const Session &session, Text key, Entry &entry) {
  switch (findInView(viewOf(session), key, entry)) {
    case Lookup::kFound:
      return Outcome::kDone;
    case Lookup::kFailed:
      return Outcome::kFailed;
    default:
      say(session, Item::kError, "there is no record \"%s\"", key.bytes);
      return Outcome::kAbsent;
  }
}

Outcome get(Session &session, const Statement &statement) {
  Entry entry;
  const Outcome found = lookUp(session, statement.first, entry);
  if (found != Outcome::kDone) {
    return found;
  }
  return outputRecord(session, entry) ? Outcome::kDone : Outcome::kFailed;
}

Outcome remove(Session &session, const Statement &statement) {
  Entry entry;
  const Outcome found = lookUp(session, statement.first, entry);
  return found != Outcome::kDone ? found
                                 : change(session, {Kind::kDelete, statement.first, {"", 0}});
}

Outcome find(Session &session, const Statement &statement) {
  Search search = {&session, &statement, true, 0};
  if (!scanView(viewOf(session), visitRecord, &search)) {
    return Outcome::kFailed;
  }
  say(session, Item::kNote, "%llu found", static_cast<unsigned long long>(search.found));
  return Outcome::kDone;
}

Outcome count(Session &session, const Statement &statement) {
  Search search = {&session, &statement, false, 0};
  const bool isWhole = statement.first.bytes == nullptr && statement.from.bytes == nullptr &&
                       statement.to.bytes == nullptr;
  if (isWhole) {
    search.found = countView(viewOf(session));
  } else if (!scanView(viewOf(session), visitRecord, &search)) {
    return Outcome::kFailed;
  }
  if (search.found == UINT64_MAX) {
    return Outcome::kFailed;
  }
  say(session, Item::kRow, "%llu", static_cast<unsigned long long>(search.found));
  return Outcome::kDone;
}

Outcome load(Session &session, const Statement &statement) {
  const View view = viewOf(session);
  Store &store = view.changes != nullptr ? *view.changes : *view.base;
  const uint64_t before = countView(view);
  if (!loadText(store, statement.first.bytes, separatorOf(session))) {
    return Outcome::kBroken;
  }
  if (view.changes == nullptr) {
    session.database->changed = true;
    if (!commit(store)) {
      return Outcome::kBroken;
    }
  }
  const uint64_t after = countView(view);
  say(session, Item::kNote, "%llu records, %llu of them new",
      static_cast<unsigned long long>(after), static_cast<unsigned long long>(after - before));
  return Outcome::kDone;
}

Outcome dump(Session &session, const Statement &statement) {
  const int32_t encoding = statement.verb == Verb::kDumpWide ? ZOV_ENC_UTF16 : ZOV_ENC_BYTES;
  const View view = viewOf(session);
  if (!dumpText(view, statement.first.bytes, separatorOf(session), encoding)) {
    return Outcome::kFailed;
  }
  say(session, Item::kNote, "%llu records written to \"%s\"",
      static_cast<unsigned long long>(countView(view)), statement.first.bytes);
  return Outcome::kDone;
}

Outcome compactStore(Session &session, const Statement &) {
  if (session.changes != nullptr) {
    return refuse(session, "a transaction is under way");
  }
  Store &store = *session.database->store;
  const Place place = placeOf(store);
  const int64_t before = zov_fileLengthStat(place.path, place.typeFlags);
  session.database->changed = true;
  if (!compact(store)) {
    return Outcome::kBroken;
  }
  say(session, Item::kNote, "%lld bytes, %lld before",
      static_cast<long long>(zov_fileLengthStat(place.path, place.typeFlags)),
      static_cast<long long>(before));
  return Outcome::kDone;
}

Outcome begin(Session &session, const Statement &) {
  if (session.changes != nullptr) {
    return refuse(session, "a transaction is under way");
  }
  session.failed = false;
  session.changes = openChanges();
  return session.changes != nullptr ? Outcome::kDone : Outcome::kFailed;
}

Outcome end(Session &session, const Statement &statement) {
  if (session.changes == nullptr) {
    return refuse(session, "there is no transaction");
  }
  Outcome outcome = Outcome::kDone;
  if (statement.verb == Verb::kCommit && session.failed) {
    outcome = refuse(session, "the transaction had a mistake, so nothing of it was kept");
  } else if (statement.verb == Verb::kCommit) {
    session.database->changed = true;
    outcome = commitTransaction(viewOf(session)) ? Outcome::kDone : Outcome::kBroken;
  }
  discardTransaction(session.changes);
  session.changes = nullptr;
  return outcome;
}

Outcome set(Session &session, const Statement &statement) {
  const char *name = statement.first.bytes;
  switch (changeSetting(session.database->settings, name, statement.second.bytes)) {
    case Change::kDone:
      return Outcome::kDone;
    case Change::kUnknown:
      return refuse(session, "there is no setting", name);
    case Change::kInvalid:
      return refuse(session, "that is no value for the setting", name);
    default:
      return Outcome::kFailed;
  }
}

void outputSetting(void *context, const char *line) {
  const Session &session = *static_cast<const Session *>(context);
  session.output(session.outputContext, Item::kRow, textOf(line));
}

Outcome showSettings(Session &session, const Statement &) {
  listSettings(session.database->settings, outputSetting, &session);
  return Outcome::kDone;
}

// In the order of the verbs.
constexpr Outcome (*kPerform[])(Session &, const Statement &) = {
    put,  get,          remove, find, count, load, dump,
    dump, compactStore, begin,  end,  end,   set,  showSettings,
};

static_assert(std::size(kPerform) == static_cast<size_t>(Verb::kSettings) + 1);

Outcome perform(Session &session, const Statement &statement) {
  if (session.database->broken) {
    return refuse(session, "the database is closed after a failure");
  }
  const bool ends = statement.verb == Verb::kCommit || statement.verb == Verb::kAbort;
  if (session.changes != nullptr && session.failed && !ends) {
    return refuse(session, "the transaction had a mistake and can only be aborted");
  }
  return kPerform[static_cast<int>(statement.verb)](session, statement);
}

// Under the database's mutex.
void cleanUp(Session &session, Outcome outcome) {
  if (outcome == Outcome::kFailed || outcome == Outcome::kBroken) {
    say(session, Item::kError, "that failed; the log says why");
  }
  if (session.changes != nullptr) {
    session.failed = session.failed || outcome >= Outcome::kRefused;
  } else if (outcome == Outcome::kBroken) {
    repairDatabase(*session.database);
  }
}

}  // namespace

bool runStatement(Session &session, const Statement &statement) {
  zov_syncEnterExcl(session.database->mutex);
  const Outcome outcome = perform(session, statement);
  cleanUp(session, outcome);
  zov_syncExitExcl(session.database->mutex);
  return outcome == Outcome::kDone;
}

void failTransaction(Session &session) {
  session.failed = true;
}

void endSession(Session &session) {
  discardTransaction(session.changes);
  session.changes = nullptr;
}

void say(const Session &session, Item item, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char *line = zov_makeStrV(ZOV_HERE, ZOV_DEFAULT_TAG, format, arguments);
  va_end(arguments);
  if (line != nullptr) {
    session.output(session.outputContext, item, textOf(line));
    zov_freeMem(line, ZOV_DEFAULT_TAG);
  }
}

}  // namespace minidb
