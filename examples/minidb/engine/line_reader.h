// SPDX-License-Identifier: Apache-2.0
//
// Lines of a text file in any encoding that libzov's text streams know.
#ifndef MINIDB_LINE_READER_H
#define MINIDB_LINE_READER_H

#include "engine/report.h"

namespace minidb {

// Owns its stream and the line it read last.
struct LineReader {
  ZOV_STREAM stream;
  char *line;
  uint32_t sizeBytes;
};

// False when the file cannot be read, which is reported; nothing is owed then.
inline bool openReader(LineReader &reader, const char *path) {
  reader = {};
  int32_t isDirectory = 0;
  if (zov_fileValidate(path, &isDirectory) != 0 && isDirectory != 0) {
    zov_log_err("minidb: \"%s\" is a directory.\n", path);
    return false;
  }
  reader.stream = zov_fopen(path, "r", ZOV_ENC_BYTES);
  return reader.stream != nullptr || cannot("open", path);
}

inline void closeReader(LineReader &reader) {
  zov_fclose(reader.stream);
  zov_freeMem(reader.line, ZOV_DEFAULT_TAG);
}

// The next line without its line end, or null at the end and after a failure,
// which zov_errno() then tells: a read that finds the end leaves it 0.
inline const char *readLine(LineReader &reader) {
  if (zov_fGetLine(reader.stream, &reader.line, &reader.sizeBytes) == nullptr) {
    return nullptr;
  }
  size_t length = strlen(reader.line);
  while (length > 0 && (reader.line[length - 1] == '\n' || reader.line[length - 1] == '\r')) {
    reader.line[--length] = '\0';
  }
  return reader.line;
}

}  // namespace minidb

#endif
