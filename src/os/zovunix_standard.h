// SPDX-License-Identifier: Apache-2.0
//
// The three standard descriptors of a process that was started without some of
// them.
#ifndef ZOV_OS_ZOVUNIX_STANDARD_H
#define ZOV_OS_ZOVUNIX_STANDARD_H

namespace zov {

// Puts /dev/null on each standard descriptor that is closed. Else a file opened
// later would get its number, and with it all that is printed, and would be closed
// when the standard streams are replaced. It is opened in the wrong mode: transfers
// fail as on a closed descriptor. Programs that are executed inherit it. Where there
// is no /dev/null the descriptor stays closed.
void fillStandard();

// True for a standard descriptor as fillStandard() leaves it.
bool isFilled(int descriptor);

}  // namespace zov

#endif
