/* SPDX-License-Identifier: Apache-2.0
 *
 * A writer of records as an engine has one: a thread takes jobs off a queue, builds
 * each record in memory of its own and appends it to a file. docs/moving.md shows what
 * stood there with malloc, POSIX threads, stdio and printf.
 */
#include <errno.h>
#include <zov.h>

enum { JOB = 1, LAST = 2 };

struct writer {
  ZOV_QUEUE jobs;
  ZOV_STREAM out;
  ZOV_SYNC done; /* signalled when the last job is written */
};

/* Builds a record in the job's tag and appends it. 0 when a step failed. */
static int append(ZOV_STREAM out, const char *job, uint32_t number) {
  const ZOV_TAG tag = zov_createTagEx(NULL, 0, ZOV_HERE);
  char *key = zov_getMem(0, tag, ZOV_MEM_STRDUP, job, ZOV_HERE);
  int written = 0;
  if (key != NULL) {
    written = zov_fprintf(out, "%06u %s\n", number, strupr(key)) > 0;
  }
  zov_freeTagMemory(tag, 1);
  return written;
}

static void *writeJobs(void *argument) {
  struct writer *writer = argument;
  uint64_t job = 0;
  uint32_t code = 0;
  uint32_t number = 0;
  while (zov_queueRead(writer->jobs, &job, &code, &number, ZOV_WAIT_FOREVER) == ZOV_OKAY &&
         code == JOB) {
    if (!append(writer->out, (const char *)(uintptr_t)job, number)) {
      zov_printfErr("%s: record %u is lost\n", "records.txt", number);
    }
  }
  zov_syncResume(writer->done);
  return NULL;
}

/* Writes the names with a thread. 0 when the file is not whole. */
static int writeRecords(const char *path, const char *const *names, uint32_t count) {
  struct writer writer = {zov_queueCreate("jobs"), zov_fopen(path, "w", ZOV_ENC_BYTES),
                          zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE)};
  if (writer.jobs == NULL || writer.out == NULL || writer.done == ZOV_NO_SYNC) {
    return 0;
  }
  zov_syncStart(writer.done);
  if (zov_threadBegin(writeJobs, 0, &writer) != ZOV_OKAY) {
    return 0;
  }
  for (uint32_t number = 0; number < count; ++number) {
    zov_queueWrite(writer.jobs, (uint64_t)(uintptr_t)names[number], JOB, number, 0);
  }
  zov_queueWrite(writer.jobs, 0, LAST, 0, 0);
  zov_syncWait(writer.done, ZOV_WAIT_FOREVER);

  errno = 0;
  zov_fflush(writer.out); /* what waits in the stream, and then the disk */
  const int whole = errno == 0;
  zov_fclose(writer.out);
  zov_queueDelete(writer.jobs);
  return whole;
}

int main(void) {
  static const char *const names[] = {"first", "second", "third"};
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  zov_queueInit(0);
  const int whole = writeRecords("records.txt", names, 3);

  ZOV_STREAM back = zov_fopen("records.txt", "r", ZOV_ENC_BYTES);
  char line[40];
  while (back != NULL && zov_fgets(line, sizeof line, back) != NULL) {
    zov_printf("%s", line);
  }
  if (back != NULL) {
    zov_fclose(back);
  }
  zov_printf("%s\n", whole ? "on the disk" : "lost");
  zov_term();
  return whole ? 0 : 1;
}
