// SPDX-License-Identifier: Apache-2.0
//
// A session: one user of a database, with a transaction of its own. One thread at
// a time uses a session; any number of sessions share a database.
#ifndef MINIDB_SESSION_H
#define MINIDB_SESSION_H

#include "engine/database.h"

namespace minidb {

// What a session has to say: the rows it was asked for, remarks, and what went
// wrong.
enum class Item : char { kRow = 'R', kNote = 'N', kError = 'E' };

// Receives it, a line without its end. Called while the database is locked: it
// must not wait for anybody.
using Output = void (*)(void *context, Item item, Text line);

struct Session {
  Database *database;
  Output output;
  void *outputContext;
  Store *changes;  // of the transaction; null outside of one
  bool failed;     // a statement of the transaction failed
};

enum class Verb {
  kPut,
  kGet,
  kDelete,
  kFind,
  kCount,
  kLoad,
  kDump,
  kDumpWide,
  kCompact,
  kBegin,
  kCommit,
  kAbort,
  kSet,
  kSettings,
};

// What a statement asks for. Texts that it does not give have null bytes; those
// it gives are terminated.
struct Statement {
  Verb verb;
  Text first;   // key, pattern, path or name
  Text second;  // value
  Text from;    // of a range of keys
  Text to;
};

// Runs a statement and outputs what comes of it. False when it failed; a
// transaction that it belongs to can then only be aborted. Outside of a
// transaction what it changes is safe on disk before this returns.
bool runStatement(Session &session, const Statement &statement);

// Makes the transaction, if there is one, fail for something that was no
// statement.
void failTransaction(Session &session);

// Ends a session; what its transaction changed is gone.
void endSession(Session &session);

// Outputs a formatted line.
void say(const Session &session, Item item, const char *format, ...) ZOV_PRINTF(3, 4);

}  // namespace minidb

#endif
