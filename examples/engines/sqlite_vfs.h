// SPDX-License-Identifier: Apache-2.0
//
// A file layer for SQLite on libzov: every file, lock, directory, clock and log goes
// through it, and the mutexes too. Two file systems are registered:
//
//   "zov"         files on disk
//   "zov-memory"  files in memory; paths begin with a slash
//
// A database is shared by all connections of one process as SQLite's own layer shares
// it. Other processes are kept out while any connection reads or writes: the lock of a
// file on disk is exclusive. Temporary files are in memory with both. WAL needs memory shared
// between processes, which there is not, so it works with "PRAGMA locking_mode=exclusive" only.
#ifndef ENGINES_SQLITE_VFS_H
#define ENGINES_SQLITE_VFS_H

#include <stdint.h>

namespace engines {

// Starts the library and registers both file systems, "zov" as the default one. Called
// before any other call of SQLite. ZOV_OKAY, or ZOV_ERROR with nothing begun.
int32_t sqliteBegin();

// Undoes sqliteBegin(), once every connection is closed.
void sqliteEnd();

}  // namespace engines

#endif
