/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A user of the library in plain C: proves that the header is C, that header
 * and library are of one version, and that a recovery point can be armed from
 * C. Exits with 0 when all is well.
 */
#include <setjmp.h>
#include <stdio.h>
#include <string.h>
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

static int text_survives(void) {
  char *text = zov_getMem(0, ZOV_DEFAULT_TAG, ZOV_MEM_STRDUP, "from C", ZOV_HERE);
  int same = text != NULL && strcmp(text, "from C") == 0;
  zov_freeMem(text, ZOV_DEFAULT_TAG);
  return same;
}

static int versions_agree(void) {
  uint16_t major = 0;
  uint16_t minor = 0;
  uint16_t build = 0;
  zov_version(&major, &minor, &build);
  return major == ZOV_VERSION_MAJOR && minor == ZOV_VERSION_MINOR && build == ZOV_VERSION_BUILD;
}

int main(void) {
  if (zov_init() != ZOV_OKAY) {
    return 2;
  }
  int fine = versions_agree() && text_survives() && jumps_when_memory_is_short();
  zov_term();
  puts(fine ? "C consumer: well" : "C consumer: FAILED");
  return fine ? 0 : 1;
}
