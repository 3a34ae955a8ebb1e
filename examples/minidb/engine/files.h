// SPDX-License-Identifier: Apache-2.0
//
// What the rest needs to know of files, and files that take their name when they are
// whole. What cannot be done is said by problem().
#ifndef MINIDB_FILES_H
#define MINIDB_FILES_H

#include "store/store.h"

namespace minidb {

// For `return failedAt(...)`: makes a problem of an action, a path and errno.
bool failedAt(const char *action, const char *path);

// Writes problem() as a message. For `return report()`.
bool report();

enum class FileKind : uint8_t { kNone, kRegular, kSocket, kOther };

// What a path leads to. kOther also when that cannot be told.
FileKind kindOf(const char *path);

// The channel of an output buffer whose context is a descriptor, an uint64_t. Its status
// is errno. zov_fileWrite() would report each failure.
int32_t writeToDescriptor(void *descriptor, const void *data, uint32_t length);

// A file on its way to take the place of another one, or to be the first of its name:
// beside it, new, readable by this user alone and locked.
struct Draft {
  ZOV_OUTPUTBUFF out;  // writes to it; null when there is none
  uint64_t descriptor;
  const char *target;  // the caller's
  char path[4096];
};

// Begins a draft, in place of what a killed process left of one.
bool openDraft(Draft &draft, const char *target);

// Makes the draft safe on disk and gives it the target's name, or drops it.
bool keepDraft(Draft &draft);

// Removes a draft. One that was kept or never opened is left alone.
void dropDraft(Draft &draft);

}  // namespace minidb

#endif
