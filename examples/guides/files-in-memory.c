/* SPDX-License-Identifier: Apache-2.0
 *
 * A cache of rows in files in memory, of which one is saved to disk.
 * docs/files-in-memory.md walks through it.
 */
#include <fcntl.h>
#include <stdio.h>
#include <zov.h>

static int keep(const char *path, const void *rows, uint32_t rowsBytes) {
  ZOV_FILE file = zov_fileOpen(path, O_RDWR | O_CREAT, ZOV_FILE_MEMORY);
  if (file == NULL) {
    return 0;
  }
  const int kept = zov_fileSeekWrite(file, 0, rows, rowsBytes) == rowsBytes;
  zov_fileClose(file);
  return kept;
}

static void list(const char *directory) {
  int32_t isDirectory = 0;
  ZOV_PATH_WALK walk = zov_pathOpenEx(directory, ZOV_FILE_MEMORY, "*");
  for (const char *name; (name = zov_pathNext(walk, &isDirectory)) != NULL;) {
    zov_printf("%s%s\n", name, isDirectory ? "/" : "");
  }
  zov_pathClose(walk);
}

static int work(void) {
  if (!keep("/cache/rows", "three rows", 10) || !keep("/cache/Index", "by name", 7) ||
      !keep("/cache/old/rows", "two rows", 8)) {
    return 1;
  }
  list("/CACHE");
  zov_printf("renamed onto another: %s\n",
             zov_fileRenameEx("/cache/rows", ZOV_FILE_MEMORY, "index", ZOV_FILE_MEMORY) == ZOV_OKAY
                 ? "yes"
                 : "no");
  if (zov_fileMoveEx("/cache/rows", ZOV_FILE_MEMORY, "rows.saved", 0) != ZOV_OKAY) {
    return 1;
  }
  zov_printf("saved: %lld bytes\n", (long long)zov_fileLengthStat("rows.saved", 0));
  list("/cache");
  return 0;
}

int main(void) {
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  const int status = work();
  zov_term();
  return status;
}
