// SPDX-License-Identifier: Apache-2.0
//
// What the sample tells its user about failures and progress.
#ifndef MINIDB_REPORT_H
#define MINIDB_REPORT_H

#include <string.h>

#include "zov.h"

namespace minidb {

// Says that something cannot be done to a file, and why. For `return cannot(...)`.
inline bool cannot(const char *action, const char *path) {
  zov_log_err("minidb: cannot %s \"%s\": %s.\n", action, path,
              strerror(static_cast<int>(zov_errno())));
  return false;
}

// Says, every so many records, how far a long job has come.
inline void showProgress(const char *job, uint64_t records) {
  constexpr uint64_t kEvery = 10000;
  if (records % kEvery == 0) {
    zov_printfErr("%s: %llu records\n", job, static_cast<unsigned long long>(records));
    zov_flushErr();
  }
}

}  // namespace minidb

#endif
