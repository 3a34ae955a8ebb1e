// SPDX-License-Identifier: Apache-2.0
//
// Data files of minidb: a right one with bytes changed. The first byte of the input says
// whether checksums are right again and how to open it; then come changes of five bytes,
// an offset and what to flip there. A file that is refused stays as it is; one that
// passes the check gives every record.
#include <unistd.h>

#include "store/store.h"
#include "support/fuzz.h"
#include "support/route_file.h"

namespace {

using zovtest::require;

minidb::Text text(const std::string &bytes) {
  return {bytes.data(), static_cast<uint32_t>(bytes.size())};
}

bool openFile(const std::string &path, bool readOnly, minidb::Store **store) {
  return minidb::openStore({path.c_str(), false, true, readOnly, minidb::kMinCacheBytes}, store);
}

bool change(minidb::Store *store, uint32_t count) {
  minidb::Transaction *transaction;
  require(minidb::beginTransaction(*store, minidb::Mode::kExclusive, &transaction));
  for (uint32_t index = 0; index < count; ++index) {
    const std::string key = std::string(200, 'k') + std::to_string(index * 7919 % count);
    const std::string value(index % 50 == 0 ? 9000 : index % 90, 'v');
    minidb::putRecord(*transaction, text(key), text(value));
    if (index % 3 == 0) {
      minidb::removeRecord(*transaction, text(key));
    }
  }
  return minidb::commit(transaction);  // which a change that failed makes fail
}

// The bytes of a right file.
std::string make(const std::string &path) {
  require(zov_init() == ZOV_OKAY && zov_stderr_open("/dev/null") == ZOV_OKAY);
  minidb::Store *store;
  require(openFile(path, false, &store) && change(store, 500));
  minidb::closeStore(store);
  return zovtest::getFile(path, 0);
}

// Reads everything, twice, and tells how many records there are, -1 for a damaged file.
int64_t readEverything(minidb::Store *store) {
  minidb::View view;
  minidb::Cursor cursor;
  require(minidb::openView(*store, view));
  const bool right = minidb::checkView(view, {});
  int64_t records = 0;
  bool more = minidb::seekFirst(cursor, view, {});
  for (; more && records < 100000; ++records) {
    minidb::Text piece = {"", 1};
    while (more && piece.length > 0) {
      more = minidb::readValue(cursor, piece);
    }
    more = more && minidb::seekNext(cursor);
  }
  const bool ended = minidb::lastStatus() == minidb::Status::kMissing;
  uint64_t count = 0;
  const bool counted = minidb::countRange(view, {text("k"), text("l")}, count);
  require(!right || (!more && ended && counted && count == view.records &&
                     static_cast<uint64_t>(records) == count));
  minidb::closeView(view);
  return right ? records : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Where a sync costs nothing.
  static const std::string path = "/dev/shm/minidb_fuzz." + std::to_string(getpid());
  static const std::string right = make(path);
  std::string bytes = right;
  const uint8_t how = size == 0 ? 0 : data[0];
  for (size_t at = 1; at + 5 <= size; at += 5) {
    uint32_t offset;
    memcpy(&offset, data + at, sizeof offset);
    offset %= static_cast<uint32_t>(bytes.size());
    bytes[offset] = static_cast<char>(bytes[offset] ^ data[at + 4]);
    if ((how & 1) != 0) {
      reinterpret_cast<minidb::Page *>(bytes.data())[offset / minidb::kPageBytes].seal();
    }
  }
  bytes.resize((how & 2) != 0 ? bytes.size() - how : bytes.size());
  require(zovtest::putFile(path, bytes, ZOV_FILE_NOSYNC));
  minidb::Store *store;
  const bool readOnly = (how & 4) != 0;
  if (!openFile(path, readOnly, &store)) {
    require(zovtest::getFile(path, 0) == bytes);
    return 0;
  }
  const int64_t before = readEverything(store);
  if (!readOnly) {
    const bool compacts = (how & 8) != 0;
    const bool done = compacts ? minidb::compactStore(*store, {}) : change(store, 100);
    const int64_t after = readEverything(store);
    require(before < 0 || (done && (compacts ? before == after : after >= 0)));
  }
  minidb::closeStore(store);
  return 0;
}
