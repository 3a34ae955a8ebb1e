/* SPDX-License-Identifier: Apache-2.0
 *
 * Writes a little of each format and shows its bytes. docs/formats.md explains
 * them.
 */
#include <fcntl.h>
#include <string.h>
#include <zov.h>

static void dump(const unsigned char *bytes, uint32_t count) {
  for (uint32_t at = 0; at < count; ++at) {
    zov_printf("%02x%s", bytes[at], at % 16 == 15 || at + 1 == count ? "\n" : " ");
  }
}

static uint32_t contents(const char *path, char *bytes, uint32_t capacity) {
  ZOV_FILE file = zov_fileOpen(path, O_RDONLY, 0);
  if (file == NULL) {
    return 0;
  }
  const uint32_t count = zov_fileRead(file, bytes, capacity - 1);
  zov_fileClose(file);
  bytes[count == ZOV_IO_FAILED ? 0 : count] = '\0';
  return count == ZOV_IO_FAILED ? 0 : count;
}

static void put(const char *path, int32_t encoding, const char *text) {
  ZOV_STREAM stream = zov_fopen(path, "w", encoding);
  if (stream == NULL) {
    return;
  }
  for (; *text != '\0'; ++text) {
    zov_fputc(*text, stream);
  }
  zov_fclose(stream);
}

static void showFile(const char *path) {
  char text[256] = "";
  contents(path, text, sizeof text);
  zov_printf("%s", text);
}

static void showRewrite(void) {
  put("a.ini", ZOV_ENC_BYTES,
      "; kept\n[Main]\n  indented\nport=80\nport=81\n\n\n[other]\nkey = 1 ; cut\n");
  showFile("a.ini");
  if (zov_iniSet("a.ini", "main", "PORT", "8080") == ZOV_OKAY &&
      zov_iniSet("a.ini", "main", "host", "h") == ZOV_OKAY &&
      zov_iniSet("a.ini", "new", "name", "value") == ZOV_OKAY) {
    showFile("a.ini");
  }
}

static void showText(void) {
  char bytes[64];
  put("wide.txt", ZOV_ENC_UTF16, "Aé€𝄞\n");
  dump((unsigned char *)bytes, contents("wide.txt", bytes, sizeof bytes));
}

static int32_t show(void *context, const void *data, uint32_t length) {
  (void)context;
  dump(data, length);
  return 0;
}

static void showWire(void) {
  ZOV_OUTPUTBUFF out = NULL;
  if (zov_outputBuffCreate(show, NULL, 1, &out) == 0) {
    zov_outputBuffPutChar(out, 'A');
    zov_outputBuffPutInt16(out, 258);
    zov_outputBuffPutInt32(out, -2);
    zov_outputBuffPutFloat64(out, 1.5);
    zov_outputBuffPutStringWithLength(out, "abc");
    zov_outputBuffPutStringWithLength(out, "");
    zov_outputBuffPutStringWithLength(out, NULL);
    zov_outputBuffFlush(out);
    zov_outputBuffDestroy(out);
  }
}

int main(void) {
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  showRewrite();
  showText();
  showWire();
  zov_term();
  return 0;
}
