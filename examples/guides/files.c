/* SPDX-License-Identifier: Apache-2.0
 *
 * One function that appends a record, to standard output, to a file in memory and
 * to one on disk; then copies, compares, moves and lists files. docs/files.md
 * walks through it.
 */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <zov.h>

/* Appends behind what other threads and processes appended. */
static int append(const char *path, uint32_t typeFlags, const char *record) {
  const uint32_t length = (uint32_t)strlen(record);
  ZOV_FILE file = zov_fileOpen(path, O_RDWR | O_CREAT, typeFlags);
  if (file == NULL) {
    return 0;
  }
  int done = 0;
  if (zov_fileLock(file) == ZOV_OKAY) {
    const int64_t end = zov_fileLength(file);
    done = zov_fileSeekWrite(file, end, record, length) == length && zov_fileSync(file) == ZOV_OKAY;
    zov_fileUnlock(file);
  }
  zov_fileClose(file);
  return done;
}

static int print(const char *text) {
  const uint32_t length = (uint32_t)strlen(text);
  ZOV_FILE file = zov_fileOpen("stdout", O_WRONLY, 0);
  const int done =
      file != NULL && zov_fileSeekWrite(file, ZOV_OFFSET_CURRENT, text, length) == length;
  if (file != NULL) {
    zov_fileClose(file);
  }
  return done;
}

static void list(const char *directory, const char *pattern) {
  int32_t isDirectory = 0;
  ZOV_PATH_WALK walk = zov_pathOpen(directory, pattern);
  for (const char *name; (name = zov_pathNext(walk, &isDirectory)) != NULL;) {
    if (!isDirectory) {
      zov_printf("%s, %lld bytes\n", name, (long long)zov_fileLengthStat(name, 0));
    }
  }
  zov_pathClose(walk);
}

static int work(void) {
  if (!print("appending\n") || !append("/rows", ZOV_FILE_MEMORY, "one\n") ||
      !append("/rows", ZOV_FILE_MEMORY, "two\n") || !append("rows.new", 0, "zero\n")) {
    return 1;
  }
  /* Published in one step: whoever opens rows.txt finds it old or new. */
  if (zov_fileCopyEx("/rows", ZOV_FILE_MEMORY, "rows.new", 0) != ZOV_OKAY ||
      zov_fileCmpEx("/rows", ZOV_FILE_MEMORY, "rows.new", 0) != ZOV_OKAY ||
      zov_fileMove("rows.new", "rows.txt") != ZOV_OKAY) {
    return 1;
  }
  list(".", "ROWS.*");
  zov_rdonly();
  ZOV_FILE file = zov_fileOpen("rows.txt", O_RDWR, 0);
  zov_printf("to write: %s, to read: %s\n", file == NULL ? "refused" : "allowed",
             zov_fileValidate("rows.txt", NULL) ? "allowed" : "refused");
  if (file != NULL) {
    zov_fileClose(file);
  }
  return file == NULL ? 0 : 1;
}

int main(void) {
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  const int status = work();
  zov_term();
  return status;
}
