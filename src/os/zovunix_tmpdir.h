// SPDX-License-Identifier: Apache-2.0
//
// The directory that temporary files go to, for those who need no copy of it.
#ifndef ZOV_OS_ZOVUNIX_TMPDIR_H
#define ZOV_OS_ZOVUNIX_TMPDIR_H

namespace zov {

// What zov_tmpdir() copies: a string of the environment or of the library, or
// null. Never jumps.
const char *tmpdir();

}  // namespace zov

#endif
