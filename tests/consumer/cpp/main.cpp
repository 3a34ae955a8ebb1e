// SPDX-License-Identifier: Apache-2.0
//
// A user of the library in C++, of the oldest standard the header supports:
// proves that the header's names have C linkage there and that its handles
// and constants fit C++'s types. Exits with 0 when all is well.
#include <zov.h>

int main() {
  if (zov_init() != ZOV_OKAY || zov_inited != 1) {
    return 2;
  }
  const ZOV_SYNC event = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  const bool fine = event != ZOV_NO_SYNC && zov_syncWait(event, 0) == ZOV_OKAY;
  zov_term();
  return fine ? 0 : 1;
}
