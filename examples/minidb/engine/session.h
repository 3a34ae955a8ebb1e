// SPDX-License-Identifier: Apache-2.0
//
// A database, its users and what they ask of it. One thread at a time uses a session;
// any number of sessions share a database.
#ifndef MINIDB_SESSION_H
#define MINIDB_SESSION_H

#include <atomic>

#include "engine/files.h"
#include "engine/lexer.h"
#include "engine/settings.h"

namespace minidb {

// --- Output --------------------------------------------------------------

enum class Item : char { kRow = 'R', kNote = 'N', kError = 'E' };

constexpr int32_t kOutputBroken = 100;    // a row ended before its length
constexpr uint32_t kMessageBytes = 1024;  // room for a note or an error

// What a session has to say, through a typed buffer: in frames of a kind, a length and
// the bytes, or in lines, when notes and errors go to standard error and the log. When
// the other side takes no more the status is its channel's, and what is said from then
// on is dropped. Saying something allocates nothing.
struct Output {
  ZOV_OUTPUTBUFF buffer;
  bool framed;
  int32_t status;
};

// A row is put in pieces that make up its length.
void beginRow(Output &output, uint64_t length);
void putPart(Output &output, Text part);
void endRow(Output &output);

// A note or an error; one that is too long is cut.
void say(Output &output, Item item, const char *format, ...) ZOV_PRINTF(3, 4);

// Sends what waits in the buffer.
void flushOutput(Output &output);

// --- Databases -----------------------------------------------------------

struct Database {
  Store *store = nullptr;
  Settings settings = {};             // those of the start
  std::atomic<char> separator{'\0'};  // between a key and a value in text
};

// Opens the database that a command line tells of, or fails with a problem().
bool openDatabase(Database &database, const CommandLine &line);

// --- Sessions ------------------------------------------------------------

enum class Scope : uint8_t {
  kStatement,    // each statement commits by itself
  kTransaction,  // those until commit or abort together
  kFailed        // one of these went wrong, begin itself perhaps: the rest is refused
};

struct Session {
  Database *database;
  Output *output;
  Progress progress;  // whose step is asked now and then whether to go on
  ZOV_TAG tag;        // of a statement's memory, with a recovery point while it runs
  Scope scope;
  Transaction *transaction;
  bool quits;

  // What the statement under way holds, which goes with it however it ends.
  View view;
  Transaction *change;
  ZOV_STREAM input;
  Draft draft;
};

// False when memory is missing; nothing is owed then.
bool openSession(Session &session, Database &database, Output &output, Progress progress);

// What a transaction changed that was not committed is gone.
void closeSession(Session &session);

// Runs the statements of a text one by one; the last one may lack its semicolon. A
// statement that is wrong or fails is said to be, with line, column, token and what was
// expected if it is not of the language, and the next one runs. What one allocates is
// gone before the next; when memory runs out that statement fails and nothing else.
// `position` is that of the text's first character. False when one failed.
bool runQuery(Session &session, Text text, Position position);

// --- Statements ----------------------------------------------------------

// What a statement asks for. Texts that it does not give have null bytes; behind those
// it gives is a NUL.
struct Statement {
  int16_t verb;  // query_PUT and so on
  Text first;    // key, pattern, path or name
  Text second;   // value
  Range range;
  Text most;
};

// Runs a statement and says what comes of it. False when it failed; a transaction that
// it belongs to can then only be aborted. Outside of one what it changed is on the disk
// before this returns. May jump to the recovery point of the tag, before anything is
// changed for good; what it held is released by endStatement().
bool runStatement(Session &session, const Statement &statement);

// Rolls a transaction back, if there is one.
void drop(Transaction *&transaction);

// Ends a statement of a verb. One that failed, or jumped, or was none, makes its
// transaction fail, or the one that it should have begun.
void endStatement(Session &session, bool failed, int16_t verb);

// How a statement ended.
enum class Outcome : uint8_t {
  kDone,
  kAbsent,  // what it asked for is not there, which was said
  kFailed   // it was not carried out, and why was said
};

// Says problem(), for `return refuse(...)`, or a sentence with a name.
Outcome refuse(Session &session);
Outcome refuse(Session &session, const char *why, const char *name);

// What the session sees: its transaction, or else the latest commit. Null after a
// failure, which is said; so are the next two.
const View *openSight(Session &session);

// What the session changes: its transaction, or else one for the statement.
Transaction *openChange(Session &session, Mode mode);

// Commits what openChange() began for the statement.
Outcome keepChange(Session &session);

// Whether to go on after so many records, which is asked now and then.
bool goesOn(Session &session, uint64_t records);

Outcome load(Session &session, const Statement &statement);
Outcome dump(Session &session, const Statement &statement);

}  // namespace minidb

#endif
