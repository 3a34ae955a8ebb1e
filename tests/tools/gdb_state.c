// SPDX-License-Identifier: Apache-2.0
//
// Makes one of each thing that the commands for gdb show, in the current directory
// and in memory, says "ready" and sleeps. The test knows all the numbers.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "zov.h"

static ZOV_SYNC held;
static ZOV_SYNC event;

static void *enterHeld(void *unused) {
  zov_syncEnterExcl(held);
  return unused;
}

static void *waitForEvent(void *unused) {
  zov_syncWait(event, ZOV_WAIT_FOREVER);
  return unused;
}

static void store(const char *path, int64_t offset, const char *bytes) {
  ZOV_FILE file = zov_fileOpen(path, O_RDWR | O_CREAT, ZOV_FILE_MEMORY);
  zov_fileSeekWrite(file, offset, bytes, (uint32_t)strlen(bytes));
  zov_fileClose(file);
}

int main(void) {
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  const ZOV_TAG tag = zov_createTagEx(NULL, ZOV_TAG_THREADSAFE, __FILE__, __LINE__);
  for (int block = 0; block < 5; ++block) {
    zov_getMem(1000, tag, ZOV_MEM_PLAIN, NULL, __FILE__, __LINE__);
  }
  held = zov_syncCreate_check(ZOV_SYNC_MUTEX, __FILE__, __LINE__);
  event = zov_syncCreate_check(ZOV_SYNC_EVENT, __FILE__, __LINE__);
  zov_syncStart(event);
  zov_syncEnterExcl(held);
  zov_syncEnterExcl(held);
  zov_threadBegin(enterHeld, 0, NULL);
  zov_threadBegin(waitForEvent, 0, NULL);
  zov_queueInit(0);
  ZOV_QUEUE queue = zov_queueCreate("orders");
  zov_queueWrite(queue, 0x1234, 7, 8, 0);
  zov_queueWrite(queue, 0x5678, 9, 10, 0);
  zov_stdout_open("redirected");
  zov_fileOpen("on-disk", O_RDWR | O_CREAT, 0);
  ZOV_FILE inMemory = zov_fileOpen("/open", O_RDWR | O_CREAT, ZOV_FILE_MEMORY);
  zov_fileWrite(inMemory, "twelve bytes", 12);
  char path[300];
  for (int number = 0; number < 700; ++number) {
    snprintf(path, sizeof path, "/many/%0*d", number == 350 ? 200 : 3, number);
    store(path, 0, path);
  }
  store("/far/away/hole", 50 << 20, "behind a hole");
  return write(STDOUT_FILENO, "ready\n", 6) == 6 ? pause() : 1;
}
