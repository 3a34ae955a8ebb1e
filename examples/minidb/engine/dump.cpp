// SPDX-License-Identifier: Apache-2.0
//
// Writing every record to a text file. A UTF-16 stream gives no word on each
// character it takes, so a write that fails shows in errno, and the file is read
// back and held against the records.
#include <errno.h>

#include "engine/line_reader.h"
#include "engine/report.h"
#include "engine/text_io.h"

namespace minidb {

namespace {

// A dump on its way, or one that is being read back.
struct Dump {
  const char *path;
  char separator;
  ZOV_STREAM stream;
  LineReader reader;
  uint64_t records;
};

void writeText(ZOV_STREAM stream, Text text) {
  for (uint32_t index = 0; index < text.length; ++index) {
    zov_fputc(text.bytes[index], stream);
  }
}

// Whether a load would read the key as it is.
bool isReadable(Text key, char separator) {
  if (key.length == 0 || memchr(key.bytes, separator, key.length) == nullptr) {
    return true;
  }
  zov_log_err("minidb: the key \"%.*s\" holds the separator; set another one.\n",
              static_cast<int>(key.length), key.bytes);
  return false;
}

bool writeRecord(const Entry &record, void *context) {
  Dump &dump = *static_cast<Dump *>(context);
  if (!isReadable(record.key, dump.separator)) {
    return false;
  }
  errno = 0;
  writeText(dump.stream, record.key);
  zov_fputc(dump.separator, dump.stream);
  writeText(dump.stream, record.value);
  zov_fputc('\n', dump.stream);
  if (zov_errno() != 0) {
    return cannot("write to", dump.path);
  }
  showProgress("dump", ++dump.records);
  return true;
}

bool isRecord(const char *line, const Entry &record, char separator) {
  const char *value = line + record.key.length + 1;
  return strlen(line) == uint64_t{record.key.length} + 1 + record.value.length &&
         memcmp(line, record.key.bytes, record.key.length) == 0 && value[-1] == separator &&
         memcmp(value, record.value.bytes, record.value.length) == 0;
}

bool checkRecord(const Entry &record, void *context) {
  Dump &dump = *static_cast<Dump *>(context);
  const char *line = readLine(dump.reader);
  return line != nullptr && isRecord(line, record, dump.separator);
}

// Lets what the stream still holds through to the file. What cannot be synced,
// a device, is no failure.
bool flushDump(const Dump &dump) {
  errno = 0;
  zov_fflush(dump.stream);
  return zov_errno() == 0 || zov_errno() == EINVAL || cannot("write to", dump.path);
}

bool writeDump(View view, Dump &dump, int32_t encoding) {
  dump.stream = zov_fopen(dump.path, "w", encoding);
  if (dump.stream == nullptr) {
    return cannot("create", dump.path);
  }
  const bool written = scanView(view, writeRecord, &dump) && flushDump(dump);
  zov_fclose(dump.stream);
  return written;
}

bool checkDump(View view, Dump &dump) {
  if (!openReader(dump.reader, dump.path)) {
    return false;
  }
  const bool same = scanView(view, checkRecord, &dump) && readLine(dump.reader) == nullptr;
  closeReader(dump.reader);
  if (!same) {
    zov_log_err(
        "minidb: \"%s\" does not hold every record; the disk may be full, or a record cannot be "
        "written in this encoding.\n",
        dump.path);
  }
  return same;
}

}  // namespace

bool dumpText(View view, const char *path, char separator, int32_t encoding) {
  Dump dump = {path, separator, nullptr, {}, 0};
  return writeDump(view, dump, encoding) && checkDump(view, dump);
}

}  // namespace minidb
