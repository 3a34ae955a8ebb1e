// SPDX-License-Identifier: Apache-2.0
//
// Data files on their way from one place to another.
#ifndef MINIDB_TRANSFER_H
#define MINIDB_TRANSFER_H

#include "engine/store.h"

namespace minidb {

// Copies a data file to a path beside its destination, checks the copy against
// it and makes it safe. Removes the copy and reports when that fails.
bool bringBeside(Place from, Place beside);

// Saves a data file over one on disk. A process that is killed meanwhile leaves
// the old file or the new one, whole. Reports failure, when the old one stays.
bool saveOver(Place from, const char *path);

}  // namespace minidb

#endif
