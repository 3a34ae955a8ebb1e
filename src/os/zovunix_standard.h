// SPDX-License-Identifier: Apache-2.0
//
// The three standard descriptors of a process that was started without some of
// them.
#ifndef ZOV_OS_ZOVUNIX_STANDARD_H
#define ZOV_OS_ZOVUNIX_STANDARD_H

namespace zov {

// Puts /dev/null on each standard descriptor that is closed, so that no file
// opened later gets its number and with it what is printed, or is replaced when
// the standard streams are. It is opened the wrong way round: transfers fail as
// on a closed descriptor. Programs that are executed inherit it, as they would
// any standard descriptor, and are spared the same. Where there is no /dev/null
// the descriptor stays closed.
void fillStandard();

// True for a standard descriptor as fillStandard() leaves it.
bool isFilled(int descriptor);

}  // namespace zov

#endif
