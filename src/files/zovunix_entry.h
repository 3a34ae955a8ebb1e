// SPDX-License-Identifier: Apache-2.0
//
// Whether two paths on disk mean the same thing.
#ifndef ZOV_FILES_ZOVUNIX_ENTRY_H
#define ZOV_FILES_ZOVUNIX_ENTRY_H

namespace zov {

// True when both paths exist and lead to one file, links not followed: they are
// one entry, or links of one file.
bool isSameFile(const char *first, const char *second);

// True when both paths name the same entry of the same directory, which need
// not exist. "a" and "./a" do.
bool isSameEntry(const char *first, const char *second);

}  // namespace zov

#endif
