/* SPDX-License-Identifier: Apache-2.0
 *
 * Serves requests, each with memory of its own: one tag holds whatever a request
 * needs, one call releases it, and a request that asks for too much ends there
 * and nowhere else. docs/memory.md walks through it.
 */
#include <zov.h>

struct request {
  const char *name;
  uint64_t rowBytes; /* as a client sent it, so possibly nonsense */
};

/* Allocates without a check: where memory is short the tag's recovery point takes
 * over. The row outlives the request, so it goes over to the default tag. */
static char *serve(const struct request *request, ZOV_TAG tag) {
  char *name = zov_getMem(0, tag, ZOV_MEM_STRDUP, request->name, ZOV_HERE);
  char *row = zov_getMem(request->rowBytes, tag, ZOV_MEM_ZERO, NULL, ZOV_HERE);
  zov_strncpyZ(row, strupr(name), request->rowBytes);
  zov_moveMemTag(row, ZOV_DEFAULT_TAG, tag);
  return row;
}

/* The row, or null. The tag is made in front of setjmp(), so that its handle
 * is still good after a jump, and armed behind it. */
static char *serveOrGiveUp(const struct request *request) {
  const ZOV_TAG tag = zov_createTagEx(NULL, 0, ZOV_HERE);
  if (tag == ZOV_NO_TAG) {
    return NULL;
  }
  jmp_buf recovery;
  char *volatile row = NULL;
  if (setjmp(recovery) == 0) {
    zov_resetTag(&recovery, tag);
    row = serve(request, tag);
  }
  zov_freeTagMemory(tag, 1);
  return row;
}

/* Takes a chunk, puts it back and takes another: libc is asked once. */
static int reuseChunk(void) {
  const ZOV_TAG tag = zov_createTagEx(NULL, 0, ZOV_HERE);
  ZOV_POOL pool = tag == ZOV_NO_TAG ? NULL : zov_allocPool(tag, 1, 0);
  if (pool == NULL) {
    zov_freeTagMemory(tag, 1);
    return 0;
  }
  void *first = zov_getMemFromPool(64, pool, ZOV_MEM_PLAIN, NULL, ZOV_HERE);
  zov_putInPool(first, pool);
  void *second = zov_getMemFromPool(64, pool, ZOV_MEM_ZERO, NULL, ZOV_HERE);
  const int same = second != NULL && second == first;
  zov_freeTagMemory(tag, 1); /* the pool and its chunks with it */
  return same;
}

int main(void) {
  static const struct request requests[] = {{"first", 16}, {"broken", UINT64_MAX}, {"last", 3}};
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  for (size_t i = 0; i < sizeof requests / sizeof requests[0]; ++i) {
    char *row = serveOrGiveUp(&requests[i]);
    zov_printf("%s\n", row != NULL ? row : "refused");
    zov_freeMem(row, ZOV_DEFAULT_TAG);
  }
  zov_printf("chunk %s\n", reuseChunk() ? "used again" : "not used again");
  zov_term();
  return 0;
}
