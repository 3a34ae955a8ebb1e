// SPDX-License-Identifier: Apache-2.0
//
// Statements of minidb and what comes over its socket. The input is what a client sends
// to a session on a database in memory; then it is the query of one request. Inputs
// with a slash are left out, and files cannot be made where it runs, so that load and
// dump change nothing.
#include <sys/socket.h>
#include <unistd.h>

#include "support/fuzz.h"
#include "wire/wire.h"

namespace {

using zovtest::require;

// Nobody reads the replies, so that a long one ends it.
void converse(minidb::Database &database, const std::string &sent) {
  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
  minidb::Peer peer = {ends[1], -1, 0, nullptr};
  send(ends[0], sent.data(), sent.size(), MSG_DONTWAIT);
  shutdown(ends[0], SHUT_WR);
  serve(database, peer);
  close(ends[1]);
  close(ends[0]);
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
  const std::string query(reinterpret_cast<const char *>(data), size);
  const int32_t head[] = {minidb::kRequest, 1, 1, static_cast<int32_t>(size)};
  converse(database, query);
  converse(database, std::string(reinterpret_cast<const char *>(head), sizeof head) + query);
  closeStore(database.store);
  return 0;
}
