// SPDX-License-Identifier: Apache-2.0
//
// Writing every record to a text file. A UTF-16 stream gives no word on each
// character it takes, so the file is read back and held against the records.
#include "line_reader.h"
#include "report.h"
#include "text_io.h"

namespace minidb {

namespace {

// A dump on its way, or one that is being read back.
struct Dump {
  ZOV_STREAM stream;
  LineReader reader;
  char separator;
  uint64_t records;
};

void writeText(ZOV_STREAM stream, Text text) {
  for (uint32_t index = 0; index < text.length; ++index) {
    zov_fputc(text.bytes[index], stream);
  }
}

bool writeRecord(const Record &record, void *context) {
  Dump &dump = *static_cast<Dump *>(context);
  writeText(dump.stream, record.key);
  zov_fputc(dump.separator, dump.stream);
  writeText(dump.stream, record.value);
  zov_fputc('\n', dump.stream);
  showProgress("dump", ++dump.records);
  return true;
}

bool isRecord(const char *line, const Record &record, char separator) {
  const char *value = line + record.key.length + 1;
  return strlen(line) == uint64_t{record.key.length} + 1 + record.value.length &&
         memcmp(line, record.key.bytes, record.key.length) == 0 && value[-1] == separator &&
         memcmp(value, record.value.bytes, record.value.length) == 0;
}

bool checkRecord(const Record &record, void *context) {
  Dump &dump = *static_cast<Dump *>(context);
  const char *line = readLine(dump.reader);
  return line != nullptr && isRecord(line, record, dump.separator);
}

bool writeDump(Store &store, const char *path, Dump &dump, int32_t encoding) {
  dump.stream = zov_fopen(path, "w", encoding);
  if (dump.stream == nullptr) {
    return cannot("create", path);
  }
  const bool scanned = scanRecords(store, writeRecord, &dump);
  zov_fclose(dump.stream);
  return scanned;
}

bool checkDump(Store &store, const char *path, Dump &dump) {
  if (!openReader(dump.reader, path)) {
    return false;
  }
  const bool same = scanRecords(store, checkRecord, &dump) && readLine(dump.reader) == nullptr;
  closeReader(dump.reader);
  if (!same) {
    zov_log_err(
        "minidb: \"%s\" does not hold every record; the disk may be full, or a record cannot be "
        "written in this encoding.\n",
        path);
  }
  return same;
}

}  // namespace

bool dumpText(Store &store, const char *path, char separator, int32_t encoding) {
  Dump dump = {nullptr, {}, separator, 0};
  return writeDump(store, path, dump, encoding) && checkDump(store, path, dump);
}

}  // namespace minidb
