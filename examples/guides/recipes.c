/* SPDX-License-Identifier: Apache-2.0
 *
 * Small things that come up in every program. docs/recipes.md tells of each.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <zov.h>

/* Writes a text to a file and tells, with its name, why that failed. 0 then. */
static int writeText(const char *path, const char *text) {
  ZOV_STREAM out = zov_fopen(path, "w", ZOV_ENC_BYTES);
  if (out == NULL) {
    zov_printf("%s: %s\n", path, strerror(errno));
    return 0;
  }
  errno = 0;
  zov_fputs(text, out);
  zov_fflush(out); /* the stream's block goes to the file, and the file to the disk */
  zov_fclose(out);
  if (errno != 0) {
    zov_printf("%s: %s\n", path, strerror(errno));
    return 0;
  }
  return 1;
}

/* Reads a number that has to be one. 0 when the file has none, or another text. */
static int readNumber(const char *path, const char *section, const char *name, int32_t *value) {
  char text[16];
  if (zov_iniGet(path, section, name, text, sizeof text) != ZOV_OKAY) {
    return 0;
  }
  char *end = NULL;
  errno = 0;
  const long number = strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || number < INT32_MIN || number > INT32_MAX) {
    return 0;
  }
  *value = (int32_t)number;
  return 1;
}

static void readSettings(void) {
  int32_t value = 0;
  writeText("set.ini", "[server]\nport = 5432\nlimit = abc\n");
  zov_printf("port %s\n", readNumber("set.ini", "server", "port", &value) ? "read" : "refused");
  zov_iniInt32("set.ini", "server", "limit", &value);
  zov_printf("limit %d by zov_iniInt32, %s here\n", value,
             readNumber("set.ini", "server", "limit", &value) ? "read" : "refused");
}

/* Appends to a log that was there: what zov_log_open() opens, it empties. */
static void appendToLog(const char *path, const char *line) {
  ZOV_STREAM log = zov_fopen(path, "a", ZOV_ENC_BYTES);
  if (log != NULL) {
    zov_fputs(line, log);
    zov_fclose(log);
  }
}

static void writeLogs(void) {
  zov_background = 1; /* records go to the log file alone */
  for (int start = 0; start < 2; ++start) {
    zov_log_open("emptied.log");
    zov_log("started\n");
    zov_log_close();
    appendToLog("kept.log", "started\n");
  }
  zov_background = 0;
  zov_printf("%d bytes kept, twice as many as %d\n", (int)zov_fileLengthStat("kept.log", 0),
             (int)strlen("started\n"));
}

/* A seed nobody can guess, from the system, and numbers below a limit, each as likely
 * as any other. */
static uint32_t drawBelow(ZOV_RAND generator, uint32_t limit) {
  const uint32_t most = UINT32_MAX - UINT32_MAX % limit; /* a multiple of the limit */
  uint32_t drawn = zov_randGetNext(generator);
  while (drawn >= most) {
    drawn = zov_randGetNext(generator);
  }
  return drawn % limit;
}

static void drawNumbers(void) {
  uint32_t seed = 0;
  ZOV_FILE source = zov_fileOpen("/dev/urandom", O_RDONLY, 0);
  if (source != NULL) {
    zov_fileRead(source, &seed, sizeof seed);
    zov_fileClose(source);
  }
  ZOV_RAND generator = zov_randCreate(seed);
  if (generator != NULL) {
    zov_printf("%s\n", drawBelow(generator, 6) < 6 ? "a die" : "no die");
    zov_randDestroy(generator);
  }
}

/* A lock for the life of a process: the descriptor's, and gone with it. */
static void lockOnce(void) {
  uint64_t first = ZOV_NO_DESCRIPTOR;
  uint64_t second = ZOV_NO_DESCRIPTOR;
  zov_flOpen("lock", O_RDWR | O_CREAT, 0, &first);
  zov_flOpen("lock", O_RDWR, 0, &second);
  const int held = zov_flLock(first) == ZOV_OKAY;
  zov_printf("%s, a second time %s\n", held ? "locked" : "not locked",
             zov_flLock(second) == ZOV_OKAY ? "too" : "refused");
  zov_flClose(second);
  zov_flClose(first);
}

int main(void) {
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  writeText("missing/there.txt", "text");
  readSettings();
  writeLogs();
  drawNumbers();
  lockOnce();
  if (getenv("KEEP_MEMORY") == NULL) {
    zov_term(); /* gives back every block, and with them what was lost */
  }
  return 0;
}
