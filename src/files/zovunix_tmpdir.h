// SPDX-License-Identifier: Apache-2.0
//
// The directory that temporary files go to, for callers that need no copy of it,
// and for shut-down.
#ifndef ZOV_FILES_ZOVUNIX_TMPDIR_H
#define ZOV_FILES_ZOVUNIX_TMPDIR_H

#include <atomic>

namespace zov {

// The directory for temporary files once it was looked for, in the default tag;
// null before. Set in the process-wide critical section, freed at shut-down.
extern std::atomic<char *> zov_tmp;

// The string that zov_tmpdir() copies: of the environment or of the library, or
// null. Never jumps.
const char *tmpdir();

}  // namespace zov

#endif
