/* SPDX-License-Identifier: Apache-2.0
 *
 * Formats text, writes and reads a UTF-16 file, converts names, and redirects
 * output. docs/text.md walks through it.
 */
#include <errno.h>
#include <string.h>
#include <zov.h>

/* Writes to a stream of either encoding. On UTF-16 the byte that completes a
 * character gives 0 although it was written, so the result tells nothing. */
static void put(ZOV_STREAM stream, const char *text) {
  for (; *text != '\0'; ++text) {
    zov_fputc(*text, stream);
  }
}

static void writeLines(const char *name) {
  ZOV_STREAM stream = zov_fopen(name, "w", ZOV_ENC_UTF16);
  if (stream == NULL) {
    return;
  }
  char *line = zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%-6s%5.1f %s\n", "Malmö", 12.25, "€");
  if (line != NULL) {
    put(stream, line);
    put(stream, "𝄞\n");
  }
  zov_fclose(stream);
  zov_freeMem(line, ZOV_DEFAULT_TAG);
  zov_printf("%lld bytes written\n", (long long)zov_fileLengthStat(name, 0));
}

/* A mark in the file counts for more than the encoding passed. */
static void readLines(const char *name) {
  char *line = NULL;
  uint32_t sizeBytes = 0;
  ZOV_STREAM stream = zov_fopen(name, "r", ZOV_ENC_BYTES);
  while (stream != NULL && zov_fGetLine(stream, &line, &sizeBytes) != NULL) {
    zov_printf("%2u bytes: %s", (unsigned)strlen(line), line);
  }
  if (stream != NULL) {
    zov_fclose(stream);
  }
  zov_freeMem(line, ZOV_DEFAULT_TAG);
}

/* The error of the first transfer that failed, or 0: the calls do not tell. */
static int save(const char *name, const char *text) {
  ZOV_STREAM stream = zov_fopen(name, "w", ZOV_ENC_BYTES);
  if (stream == NULL) {
    return errno;
  }
  errno = 0;
  put(stream, text);
  zov_fflush(stream); /* sent and synced */
  const int lost = errno;
  zov_fclose(stream);
  return lost != 0 ? lost : errno;
}

/* There and back: the directives for wide text are not for wide text here. */
static void convert(const char *name) {
  wchar_t wide[8];
  char back[32];
  const uint32_t length = zov_utf8_to_wchar(wide, name, 8, ZOV_UTF8_STRICT);
  zov_printf("strict: %s", length == ZOV_UTF8_FAILED ? "refused" : "taken");
  zov_utf8_to_wchar(wide, name, 8, ZOV_UTF8_REPLACE);
  zov_wchar_to_utf8(back, wide, sizeof back, ZOV_UTF8_STRICT);
  zov_printf(", replacing: %s\n", back);
}

static int work(void) {
  writeLines("text.txt");
  readLines("text.txt");
  zov_printf("saved: %s, elsewhere: %s\n", strerror(save("saved.txt", "kept\n")),
             strerror(save("no/such/place", "kept\n")));
  convert("caf\xE9");
  if (zov_log_open("guide.log") != ZOV_OKAY || zov_stdout_open("report.txt") != ZOV_OKAY) {
    return 1;
  }
  zov_printf("into the report\n");
  zov_log("both\n"); /* to the report and, with the time, to the log */
  zov_stdout_close();
  zov_log_close();
  readLines("report.txt");
  zov_printf("log: %lld bytes\n", (long long)zov_fileLengthStat("guide.log", 0));
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
