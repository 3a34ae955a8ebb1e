/* SPDX-License-Identifier: Apache-2.0
 *
 * Reads a server's settings, changes one and shows the file. docs/settings.md
 * walks through it.
 */
#include <string.h>
#include <zov.h>

static const char path[] = "server.ini";

static int writeDefaults(void) {
  ZOV_STREAM stream = zov_fopen(path, "w", ZOV_ENC_BYTES);
  if (stream == NULL) {
    return 0;
  }
  zov_fputs(
      "; made at the first start\n"
      "[server]\n"
      "port=4000   ; clients connect here\n"
      "name=main\n"
      "\n"
      "[log]\n"
      "file=server.log\n",
      stream);
  zov_fclose(stream);
  return zov_fileValidate(path, NULL);
}

/* A value, or the given one where the file has none. A value of L bytes wants a
 * buffer of L + 3. */
static void readText(const char *section, const char *name, const char *otherwise, char *value,
                     uint32_t sizeBytes) {
  if (zov_iniGet(path, section, name, value, sizeBytes) != ZOV_OKAY) {
    zov_strncpyZ(value, otherwise, sizeBytes);
  }
}

static void listSection(const char *section) {
  char names[1024];
  if (zov_iniGet(path, section, NULL, names, sizeof names) != ZOV_OKAY) {
    return;
  }
  for (const char *name = names; *name != '\0'; name += strlen(name) + 1) {
    zov_printf("  %s\n", name);
  }
}

static void show(void) {
  char line[80];
  ZOV_STREAM stream = zov_fopen(path, "r", ZOV_ENC_BYTES);
  while (stream != NULL && zov_fgets(line, sizeof line, stream) != NULL) {
    zov_printf("%s", line);
  }
  if (stream != NULL) {
    zov_fclose(stream);
  }
}

static int work(void) {
  if (!writeDefaults()) {
    return 1;
  }
  int32_t port = 0;
  char host[64];
  const int32_t status = zov_iniInt32(path, "SERVER", "Port", &port);
  readText("server", "host", "localhost", host, sizeof host);
  zov_printf("%s:%d, status %d\n", host, port, status);
  if (zov_iniSet(path, "server", "host", "db.example") != ZOV_OKAY ||
      zov_iniSet(path, "server", "name", NULL) != ZOV_OKAY) {
    return 1;
  }
  zov_printf("parameters of [server]:\n");
  listSection("server");
  show();
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
