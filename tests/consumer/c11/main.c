/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A user of the library in plain C: proves that the header is C, that header
 * and library are of one version, and that a recovery point can be armed from
 * C. Exits with 0 when all is well.
 */
#include <setjmp.h>
#include <zov.h>

/* Whether a hopeless allocation on an armed tag comes back by a jump. */
static int jumps_when_memory_is_short(void) {
  jmp_buf recovery;
  volatile ZOV_TAG tag = ZOV_NO_TAG;
  int jumped = setjmp(recovery);
  if (jumped == 0) {
    tag = zov_createTagEx(&recovery, 0, ZOV_HERE);
    zov_getMem(UINT64_MAX, tag, ZOV_MEM_PLAIN, NULL, ZOV_HERE);
  }
  zov_freeTagMemory(tag, 1);
  return jumped;
}

int main(void) {
  if (zov_init() != ZOV_OKAY) {
    return 2;
  }
  uint16_t version[3];
  zov_version(&version[0], &version[1], &version[2]);
  int fine = version[0] == ZOV_VERSION_MAJOR && version[1] == ZOV_VERSION_MINOR &&
             version[2] == ZOV_VERSION_BUILD && jumps_when_memory_is_short();
  zov_term();
  return fine ? 0 : 1;
}
