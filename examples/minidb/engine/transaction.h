// SPDX-License-Identifier: Apache-2.0
//
// Transactions. The changes of one are a small store of their own, in a file in
// memory, whose entries go to the data file together when it is committed. Until
// then nobody else sees them, and nobody has to wait.
#ifndef MINIDB_TRANSACTION_H
#define MINIDB_TRANSACTION_H

#include "engine/store.h"

namespace minidb {

// The records of a store as its user sees them: `changes`, unless null, are put
// on top of `base`.
struct View {
  Store *base;
  Store *changes;
};

// An empty set of changes, or null when it cannot be made.
Store *openChanges();

// Throws changes away; null is ignored.
void discardTransaction(Store *changes);

// Makes changes part of their base and safe. After a failure, which is reported,
// the base is to be put right by discardChanges().
bool commitTransaction(View view);

// As findEntry(), countRecords() and scanEntries(), which only shows entries that
// put. A count of UINT64_MAX tells of a failure.
Lookup findInView(View view, Text key, Entry &entry);
uint64_t countView(View view);
bool scanView(View view, Visitor visit, void *context);

}  // namespace minidb

#endif
