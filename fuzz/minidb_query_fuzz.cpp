// SPDX-License-Identifier: Apache-2.0
//
// Statements of minidb and what comes over its socket. The input is what a client
// sends: a request is taken out of it, and run on a database in memory; so is all of it,
// as if it were typed. Inputs with a slash are left out, and files cannot be made where
// it runs, so that load and dump change nothing.
#include <unistd.h>

#include "support/fuzz.h"
#include "wire/wire.h"

namespace {

using minidb::Text;
using zovtest::require;

int32_t deliver(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  Text &left = *static_cast<Text *>(context);
  *delivered = left.length < capacity ? left.length : capacity;
  memcpy(buffer, left.bytes, *delivered);
  left = {left.bytes + *delivered, left.length - *delivered};
  return *delivered == 0 ? minidb::kChannelEnd : 0;
}

int32_t take(void *bytes, const void *data, uint32_t length) {
  static_cast<std::string *>(bytes)->append(static_cast<const char *>(data), length);
  return 0;
}

// Items have a kind, and as many bytes as they say.
void checkItems(const std::string &bytes) {
  for (size_t at = 0; at < bytes.size();) {
    uint32_t length = 0;
    require(strchr("RNE", bytes[at]) != nullptr && bytes.size() - at >= 5);
    memcpy(&length, bytes.data() + at + 1, sizeof length);
    require(length <= bytes.size() - at - 5);
    at += 5 + length;
  }
}

void run(minidb::Database &database, Text text, minidb::Position position) {
  std::string items;
  minidb::Session session;
  require(openSession(session, database, take, &items, {}));
  minidb::runQuery(session, text, position);
  require(session.status == 0 && zov_outputBuffFlush(session.out) == 0);
  minidb::closeSession(session);
  checkItems(items);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool ready = zov_init() == ZOV_OKAY && zov_stderr_open(nullptr) == ZOV_OKAY &&
                            chdir("/proc/self/task") == 0;
  if (memchr(data, '/', size) != nullptr) {
    return 0;
  }
  minidb::Database database;
  minidb::Settings settings = {};
  zov_strncpyZ(settings.text[minidb::kMemory], "yes", minidb::kSettingBytes);
  require(readSettings(settings));
  require(ready && openDatabase(database, settings));
  Text source = {reinterpret_cast<const char *>(data), static_cast<uint32_t>(size)};
  run(database, source, {1, 1});
  ZOV_INPUTBUFF in = nullptr;
  require(zov_inputBuffCreate(deliver, nullptr, &source, 0, &in) == 0);
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  minidb::Request request = {};
  int32_t status = 1;
  require(minidb::withRecovery(tag, [&] { status = getRequest(in, request, tag); }));
  if (status == 0) {
    run(database, request.query, request.position);
  }
  zov_inputBuffDestroy(in);
  zov_freeTagMemory(tag, 1);
  closeStore(database.store);
  return 0;
}
