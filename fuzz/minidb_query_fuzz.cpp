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

// Items have a kind, and as many bytes as they say. What is beyond the room of a socket
// that nobody reads is cut.
void checkReplies(const std::string &bytes) {
  const bool isWhole = bytes.size() < 50000;
  for (size_t at = 0; at < bytes.size() && (isWhole || bytes.size() - at >= 5);) {
    uint32_t length = 0;
    const bool isEnd = bytes[at] == minidb::kDone;
    require(bytes.size() - at >= (isEnd ? 2 : 5) && strchr("RNED", bytes[at]) != nullptr);
    memcpy(&length, bytes.data() + at + 1, isEnd ? 0 : sizeof length);
    at += isEnd ? 2 : 5 + uint64_t{length};
    require(at <= bytes.size() || !isWhole);
  }
}

void converse(minidb::Database &database, const std::string &sent) {
  int ends[2];
  char piece[4096];
  std::string replies;
  require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
  minidb::Peer peer = {ends[1], -1, 0, nullptr};
  send(ends[0], sent.data(), sent.size(), MSG_DONTWAIT);
  shutdown(ends[0], SHUT_WR);
  serve(database, peer);
  close(ends[1]);
  for (ssize_t count = 1; count > 0; replies.append(piece, static_cast<size_t>(count))) {
    count = std::max<ssize_t>(recv(ends[0], piece, sizeof piece, 0), 0);
  }
  close(ends[0]);
  checkReplies(replies);
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
