// SPDX-License-Identifier: Apache-2.0
#include "engine/session.h"

#include <stdarg.h>

namespace minidb {

namespace {

void beginItem(Output &output, Item item, uint64_t length) {
  if (output.status == 0) {
    output.status = zov_outputBuffPutChar(output.buffer, static_cast<char>(item));
  }
  if (output.status == 0) {
    output.status = zov_outputBuffPutInt32(output.buffer, static_cast<int32_t>(length));
  }
}

}  // namespace

void beginRow(Output &output, uint64_t length) {
  if (output.framed) {
    beginItem(output, Item::kRow, length);
  }
}

void putPart(Output &output, Text part) {
  if (output.status == 0) {
    output.status = zov_outputBuffPutBytes(output.buffer, part.bytes, part.length);
  }
}

void endRow(Output &output) {
  if (!output.framed) {
    putPart(output, {"\n", 1});
  }
}

void say(Output &output, Item item, const char *format, ...) {
  char line[kMessageBytes];
  va_list arguments;
  va_start(arguments, format);
  zov_vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (output.framed) {
    beginItem(output, item, textOf(line).length);
    putPart(output, textOf(line));
    return;
  }
  flushOutput(output);
  zov_log_err(item == Item::kError ? "minidb: %s\n" : "%s\n", line);
}

void flushOutput(Output &output) {
  if (output.status == 0) {
    output.status = zov_outputBuffFlush(output.buffer);
  }
}

bool openDatabase(Database &database, const CommandLine &line) {
  database.settings = line.settings;
  database.separator = separatorOf(line.settings);
  const Options options = {.path = line.settings.text[kData],
                           .typeFlags = line.inMemory ? ZOV_FILE_MEMORY : 0,
                           .create = !line.readOnly,
                           .readOnly = line.readOnly,
                           .cacheBytes = static_cast<uint64_t>(numberOf(line.settings, kCache))
                                         << 20};
  return openStore(options, &database.store) == Status::kOkay;
}

bool openSession(Session &session, Database &database, Output &output, Progress progress) {
  session = {};
  session.database = &database;
  session.output = &output;
  session.progress = progress;
  session.tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  return session.tag != ZOV_NO_TAG;
}

void closeSession(Session &session) {
  drop(session.transaction);
  zov_freeTagMemory(session.tag, 1);
}

}  // namespace minidb
