/* SPDX-License-Identifier: Apache-2.0
 *
 * Replaces a file so that a crash leaves the old contents or the new, appends to
 * one so that no reported line is lost, and finds out about bytes that did not
 * arrive. docs/durability.md walks through it.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <zov.h>

/* Sends all, or tells why not. A transfer may take fewer bytes than it was given;
 * one that takes none, without an error, never will. */
static int writeAll(ZOV_FILE file, int64_t offset, const char *bytes, uint32_t length) {
  while (length > 0) {
    errno = 0;
    const uint32_t sent = zov_fileSeekWrite(file, offset, bytes, length);
    if (sent == ZOV_IO_FAILED && errno == EINTR) {
      continue;
    }
    if (sent == ZOV_IO_FAILED || sent == 0) {
      return 0;
    }
    offset += sent;
    bytes += sent;
    length -= sent;
  }
  return 1;
}

/* Brings names that were made, renamed or removed in a directory to the disk. */
static int syncDirectory(const char *directory) {
  ZOV_FILE file = zov_fileOpen(directory, O_RDONLY, 0);
  if (file == NULL) {
    return 0;
  }
  const int done = zov_fileSync(file) == ZOV_OKAY;
  zov_fileClose(file);
  return done;
}

/* path and fresh are in directory, and nobody else uses the name fresh. */
static int replaceFile(const char *directory, const char *path, const char *fresh,
                       const char *text) {
  ZOV_FILE file = zov_fileOpen(fresh, O_RDWR | O_CREAT | O_TRUNC, 0);
  if (file == NULL) {
    return 0;
  }
  const int whole =
      writeAll(file, 0, text, (uint32_t)strlen(text)) && zov_fileSync(file) == ZOV_OKAY;
  zov_fileClose(file);
  if (!whole || zov_fileRename(fresh, path) != ZOV_OKAY) {
    zov_fileRemove(fresh);
    return 0;
  }
  return syncDirectory(directory);
}

static int writeReport(const char *path) {
  ZOV_STREAM report = zov_fopen(path, "w", 0);
  if (report == NULL) {
    return 0;
  }
  zov_fprintf(report, "%d accounts\n", 2);
  errno = 0;
  zov_fflush(report);
  const int flushed = errno == 0;
  errno = 0;
  zov_fclose(report);
  return flushed && errno == 0;
}

int main(void) {
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  if (!replaceFile(".", "accounts", "accounts.new", "Ann 100\nBob 200\n") ||
      !writeReport("report")) {
    return 1;
  }
  zov_printf("accounts: %lld bytes, report: %lld bytes\n",
             (long long)zov_fileLengthStat("accounts", 0),
             (long long)zov_fileLengthStat("report", 0));
  ZOV_FILE full = zov_fileOpen("/dev/full", O_WRONLY, 0);
  if (full == NULL) {
    return 1;
  }
  const int sent = writeAll(full, 0, "Cid 300\n", 8);
  const int error = errno;
  zov_fileClose(full);
  zov_printf("on a full disk: %s, %s\n", sent ? "sent" : "not sent", strerror(error));
  zov_term();
  return 0;
}
