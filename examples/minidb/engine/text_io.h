// SPDX-License-Identifier: Apache-2.0
//
// Text files of records, one to a line: the key, a separator, the value. Read
// in any encoding that libzov's text streams know, written as bytes or UTF-16.
#ifndef MINIDB_TEXT_IO_H
#define MINIDB_TEXT_IO_H

#include "engine/transaction.h"

namespace minidb {

// Appends every line of a text file to the store. Lines without a separator are
// a key without a value; empty lines are passed over. Reports progress on long
// files, and what failed; the store is then to be put right by discardChanges().
bool loadText(Store &store, const char *path, char separator);

// Writes every record to a text file, oldest first, and reads it back to make
// sure. Reports progress, and what failed.
bool dumpText(View view, const char *path, char separator, int32_t encoding);

}  // namespace minidb

#endif
