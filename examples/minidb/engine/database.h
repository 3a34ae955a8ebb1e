// SPDX-License-Identifier: Apache-2.0
//
// A database: its store, shared by sessions, and its settings.
#ifndef MINIDB_DATABASE_H
#define MINIDB_DATABASE_H

#include "engine/settings.h"
#include "engine/transaction.h"

namespace minidb {

// Any number of threads, with a session each, may use a database.
struct Database {
  ZOV_SYNC mutex;  // guards what follows; held for the length of a statement
  Store *store;
  bool broken;             // after a failure that cannot be mended: no statement runs
  bool changed;            // something was committed
  Settings settings;       // as changed by statements
  const char *memoryCopy;  // path on disk of a database in memory, or null
  ZOV_FILE memoryLock;     // keeps others out of that
};

// Opens the database of the settings, and makes it if it is missing. In memory
// it is a copy that is saved at the end if it was changed. False on failure,
// which is reported; nothing is owed then. The settings' texts must outlive it.
bool openDatabase(Database &database, const Settings &settings, bool inMemory);

// Closes it, on the thread that opened it. False when a database in memory could not be saved,
// which is reported.
bool closeDatabase(Database &database);

// After a failed change: goes back to the last commit, or gives the database up.
// Under the mutex.
void repairDatabase(Database &database);

}  // namespace minidb

#endif
