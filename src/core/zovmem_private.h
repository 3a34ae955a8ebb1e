// SPDX-License-Identifier: Apache-2.0
//
// What tagged memory offers inside the library besides its exported calls: how
// a call fails that holds something while it allocates, and tags without
// comforts.
#ifndef ZOV_CORE_ZOVMEM_PRIVATE_H
#define ZOV_CORE_ZOVMEM_PRIVATE_H

#include <setjmp.h>

#include "core/zov_shortage.h"

namespace zov {

// Copies the recovery point of an armed tag. False for a tag that has none, and
// where a failed allocation does not jump whatever the tag.
bool recoveryOf(ZOV_TAG tag, jmp_buf recovery);

// Jumps to a recovery point. Nothing else in the library does. The caller holds
// no lock, and no object with a destructor is alive.
[[noreturn]] void jumpTo(jmp_buf recovery);

// How a call fails that holds something while it allocates from a tag. The work
// runs with jumps held off, and is false if it failed because memory is short.
// The call then fails through the tag as one allocation does: the message goes
// out and, where the tag is armed, undo() releases what the work has left and the
// jump comes last. Both are lambdas that refer to the caller's variables and own
// nothing.
template <typename Work, typename Undo>
void workOrJump(ZOV_TAG tag, Work work, Undo undo) {
  jmp_buf recovery;
  holdJumps();
  const bool isShort = !work();
  const bool jumps = isShort && noJumpDepth == 1 && recoveryOf(tag, recovery);
  if (jumps) {
    undo();
  }
  allowJumps();
  if (jumps) {
    jumpTo(recovery);
  }
}

// The same for work that makes one block, or null with nothing left behind. It is
// handed a flag, to be set where that is because memory is short.
template <typename Make>
auto makeOrJump(ZOV_TAG tag, Make make) {
  bool isShort = false;
  decltype(make(isShort)) made = nullptr;
  const auto work = [&] {
    made = make(isShort);
    return !isShort;
  };
  workOrJump(tag, work, [] {});
  return made;
}

// Creates a tag without mutex that is never armed, and whose record is short for
// that: zov_resetTag() is not for it. ZOV_NO_TAG when memory is short.
ZOV_TAG createPlainTag();

// Takes down the memory module together with every sync object, when start-up
// fails half-way. The objects' table lives in the default tag, so they go
// first, and the frees that follow must not touch the locks any more.
void abandonMemory();

}  // namespace zov

#endif
