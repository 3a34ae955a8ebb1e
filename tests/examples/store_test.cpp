// SPDX-License-Identifier: Apache-2.0
//
// The storage engine of minidb, against a map that keeps its old states.
#include "store/store.h"

#include <map>
#include <optional>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace zovtest {

namespace {

using minidb::Mode;
using minidb::Status;
using Records = std::map<std::string, std::string>;

minidb::Text text(const std::string &bytes) {
  return {bytes.data(), static_cast<uint32_t>(bytes.size())};
}

std::string string(minidb::Text text) {
  return {text.bytes, text.length};
}

// A store, closed when it goes.
struct Database {
  explicit Database(const std::string &path, uint32_t flags = 0, bool readOnly = false) {
    status =
        minidb::openStore({path.c_str(), flags, true, readOnly, minidb::kMinCacheBytes}, &store);
  }
  ~Database() { close(); }
  void close() {
    if (store != nullptr) {
      minidb::closeStore(store);
      store = nullptr;
    }
  }
  minidb::Store *store = nullptr;
  Status status;
};

// What a view shows from one key to another.
Records recordsOf(const minidb::View &view, minidb::Range range = {}) {
  Records records;
  minidb::Cursor cursor;
  Status status = minidb::seekFirst(cursor, view, range);
  for (; status == Status::kOkay; status = minidb::seekNext(cursor)) {
    std::string value;
    minidb::Text piece = {"", 1};
    while (piece.length > 0) {
      EXPECT_EQ(minidb::readValue(cursor, piece), Status::kOkay) << minidb::problem();
      value += string(piece);
    }
    EXPECT_EQ(value.size(), minidb::valueLength(cursor));
    records.emplace_hint(records.end(), string(minidb::keyOf(cursor)), value);
  }
  EXPECT_EQ(status, Status::kMissing) << minidb::problem();
  return records;
}

Records recordsOf(minidb::Store *store) {
  minidb::View view;
  EXPECT_EQ(minidb::openView(*store, view), Status::kOkay) << minidb::problem();
  Records records = recordsOf(view);
  EXPECT_EQ(minidb::checkView(view, {}), Status::kOkay) << minidb::problem();
  minidb::closeView(view);
  return records;
}

Status put(minidb::Store *store, const std::string &key, const std::string &value,
           Mode mode = Mode::kOverwrite) {
  minidb::Transaction *transaction;
  const Status status = minidb::beginTransaction(*store, mode, &transaction);
  if (status != Status::kOkay) {
    return status;
  }
  const Status done = minidb::putRecord(*transaction, text(key), text(value));
  const Status kept = minidb::commit(transaction);
  return done == Status::kOkay ? kept : done;
}

class StoreTest : public StartedInDir {};

// Few keys, so that they meet; lengths at which pages are chained and parted.
std::string randomKey(Random &random) {
  static const uint32_t lengths[] = {1, 2, 7, 300, minidb::kMaxKeyBytes};
  const std::string stem = std::to_string(random.below(700));
  std::string key = stem + '\0';
  key.resize(std::max<size_t>(stem.size(), lengths[std::hash<std::string>()(stem) % 5]), 'k');
  return key;
}

std::string randomValue(Random &random) {
  static const uint32_t lengths[] = {0, 1, 40, 300, 1000, 4056, 4057, 20000};
  return std::string(random.below(lengths[random.below(8)] + 1), static_cast<char>(random()));
}

// Changes the same at random in a transaction and in a map.
void change(Random &random, minidb::Transaction *transaction, Records &records) {
  const std::string key = randomKey(random);
  if (random.below(5) < 3) {
    const std::string value = randomValue(random);
    ASSERT_EQ(minidb::putRecord(*transaction, text(key), text(value)), Status::kOkay)
        << minidb::problem();
    records[key] = value;
  } else {
    ASSERT_EQ(minidb::removeRecord(*transaction, text(key)),
              records.erase(key) == 1 ? Status::kOkay : Status::kMissing);
  }
}

void compareRange(Random &random, const minidb::View &view, const Records &records) {
  const std::string from = randomKey(random);
  const std::string to = randomKey(random);
  const Records expected(records.lower_bound(from),
                         from > to ? records.lower_bound(from) : records.upper_bound(to));
  const minidb::Range range = {text(from), text(to)};
  ASSERT_EQ(recordsOf(view, range), expected);
  uint64_t count = 0;
  ASSERT_EQ(minidb::countRange(view, range, count), Status::kOkay);
  ASSERT_EQ(count, expected.size());
}

void runModel(const std::string &path, uint32_t flags) {
  Random random;
  Records records;
  std::optional<Database> database(std::in_place, path, flags);
  ASSERT_EQ(database->status, Status::kOkay) << minidb::problem();
  for (int round = 0; round < 40; ++round) {
    minidb::View old;
    ASSERT_EQ(minidb::openView(*database->store, old), Status::kOkay);
    minidb::Transaction *transaction;
    ASSERT_EQ(minidb::beginTransaction(*database->store, static_cast<Mode>(random.below(3)),
                                       &transaction),
              Status::kOkay);
    Records changed = records;
    for (uint32_t left = random.below(300); left > 0; --left) {
      change(random, transaction, changed);
    }
    compareRange(random, minidb::viewOf(*transaction), changed);
    ASSERT_EQ(recordsOf(old), records);
    if (random.below(4) == 0) {
      minidb::rollback(transaction);
    } else {
      ASSERT_EQ(minidb::commit(transaction), Status::kOkay) << minidb::problem();
      ASSERT_EQ(recordsOf(old), records);
      records = changed;
    }
    if (random.below(10) == 0) {
      ASSERT_EQ(minidb::compactStore(*database->store, {}), Status::kOkay) << minidb::problem();
    }
    minidb::closeView(old);
    if (flags == 0 && random.below(10) == 0) {
      database.reset();
      database.emplace(path, flags);
      ASSERT_EQ(database->status, Status::kOkay) << minidb::problem();
    }
    ASSERT_EQ(recordsOf(database->store), records);
  }
}

TEST_F(StoreTest, KeepsWhatIsCommittedAtOnce) {
  Database database(at("data"));
  minidb::View old;
  ASSERT_EQ(minidb::openView(*database.store, old), Status::kOkay);
  onThreads(8, [&](uint32_t id) {
    for (int index = 0; index < 125; ++index) {
      const std::string key = std::to_string(id) + "/" + std::to_string(index);
      EXPECT_EQ(put(database.store, key, key), Status::kOkay) << minidb::problem();
    }
  });
  EXPECT_EQ(recordsOf(database.store).size(), 1000u);
  EXPECT_EQ(recordsOf(old).size(), 0u);
  minidb::closeView(old);
  minidb::Stats stats;
  ASSERT_EQ(minidb::readStats(*database.store, stats), Status::kOkay);
  EXPECT_LT(stats.syncs, 2000u);
}

TEST_F(StoreTest, ShowsWhatWasPutOnDisk) {
  runModel(at("data"), 0);
}
TEST_F(StoreTest, ShowsWhatWasPutInMemory) {
  runModel("data", ZOV_FILE_MEMORY);
}

}  // namespace

}  // namespace zovtest
