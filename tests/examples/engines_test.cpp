// SPDX-License-Identifier: Apache-2.0
//
// Two engines on libzov, each on disk and in memory: random work against a map, a kill
// at each number of acknowledged changes, and a disk that is full.
#include <leveldb/db.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>

#include "leveldb_env.h"
#include "sqlite_vfs.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

using Records = std::map<std::string, std::string>;

// What the tests ask of an engine.
class Engine {
 public:
  virtual ~Engine() = default;
  virtual bool put(const std::string &key, const std::string &value) = 0;
  virtual bool remove(const std::string &key) = 0;
  virtual Records records() = 0;
  virtual std::string complaints() = 0;  // of the engine's own check
};

class OnLevelDb final : public Engine {
 public:
  OnLevelDb(const std::string &path, bool inMemory) : env_(inMemory ? ZOV_FILE_MEMORY : 0) {
    leveldb::Options options;
    options.env = &env_;
    options.create_if_missing = true;
    options.paranoid_checks = true;
    options.write_buffer_size = 64 << 10;  // many files
    leveldb::DB *db = nullptr;
    const leveldb::Status status = leveldb::DB::Open(options, path, &db);
    EXPECT_TRUE(status.ok()) << status.ToString();
    db_.reset(db);
    leveldb::DB *second = nullptr;
    EXPECT_FALSE(leveldb::DB::Open(options, path, &second).ok()) << "the lock keeps it out";
  }
  bool put(const std::string &key, const std::string &value) override {
    return db_->Put(synced(), key, value).ok();
  }
  bool remove(const std::string &key) override { return db_->Delete(synced(), key).ok(); }
  Records records() override {
    Records found;
    const std::unique_ptr<leveldb::Iterator> each(db_->NewIterator({}));
    for (each->SeekToFirst(); each->Valid(); each->Next()) {
      found[each->key().ToString()] = each->value().ToString();
    }
    EXPECT_TRUE(each->status().ok()) << each->status().ToString();
    return found;
  }
  std::string complaints() override {
    db_->CompactRange(nullptr, nullptr);  // reads every block and its checksum
    return "";
  }

 private:
  static leveldb::WriteOptions synced() {
    leveldb::WriteOptions options;
    options.sync = true;
    return options;
  }

  engines::ZovEnv env_;
  std::unique_ptr<leveldb::DB> db_;  // closed before the environment ends
};

class OnSqlite final : public Engine {
 public:
  OnSqlite(const std::string &path, bool inMemory) {
    EXPECT_EQ(engines::sqliteBegin(), ZOV_OKAY);
    const char *vfs = inMemory ? "zov-memory" : "zov";
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &writer_, flags, vfs), SQLITE_OK);
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &reader_, flags, vfs), SQLITE_OK);
    run(writer_, "create table if not exists records (key primary key, value)");
  }
  ~OnSqlite() override {
    sqlite3_close(reader_);
    sqlite3_close(writer_);
    engines::sqliteEnd();
  }
  bool put(const std::string &key, const std::string &value) override {
    return run(writer_, "insert or replace into records values (?, ?)", &key, &value);
  }
  bool remove(const std::string &key) override {
    return run(writer_, "delete from records where key = ?", &key);
  }
  Records records() override {
    Records found;
    run(reader_, "select key, value from records", nullptr, nullptr,
        [&](const std::string &key, const std::string &value) { found[key] = value; });
    return found;
  }
  std::string complaints() override {
    std::string all;
    run(reader_, "select 'check', integrity_check from pragma_integrity_check", nullptr, nullptr,
        [&](const std::string &, const std::string &text) { all += text; });
    return all == "ok" ? "" : all;
  }

 private:
  static std::string column(sqlite3_stmt *statement, int number) {
    const unsigned char *text = sqlite3_column_text(statement, number);
    return text == nullptr ? "" : reinterpret_cast<const char *>(text);
  }

  static bool run(
      sqlite3 *db, const char *sql, const std::string *first = nullptr,
      const std::string *second = nullptr,
      const std::function<void(const std::string &, const std::string &)> &visit = nullptr) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) {
      return false;
    }
    int number = 0;
    for (const std::string *value : {first, second}) {
      if (value != nullptr) {
        sqlite3_bind_text(statement, ++number, value->c_str(), -1, SQLITE_STATIC);
      }
    }
    int step = sqlite3_step(statement);
    for (; step == SQLITE_ROW; step = sqlite3_step(statement)) {
      visit(column(statement, 0), column(statement, 1));
    }
    sqlite3_finalize(statement);
    return step == SQLITE_DONE;
  }

  sqlite3 *writer_ = nullptr;
  sqlite3 *reader_ = nullptr;
};

struct Kind {
  const char *name;
  bool inMemory;
  std::unique_ptr<Engine> (*open)(const std::string &path, bool inMemory);
};

template <typename Which>
std::unique_ptr<Engine> openAs(const std::string &path, bool inMemory) {
  return std::make_unique<Which>(path, inMemory);
}

class Engines : public testing::TestWithParam<Kind> {
 protected:
  std::unique_ptr<Engine> open() const {
    return GetParam().open(GetParam().inMemory ? "/db" : dir / "db", GetParam().inMemory);
  }
  // Changes in a process of its own, which tells each one that is done.
  template <typename Before>
  pid_t changeInChild(int report, Before before) const {
    const pid_t child = fork();
    if (child == 0) {
      zov_init();
      const std::unique_ptr<Engine> engine = open();
      before();
      for (int number = 0; number < 4000; ++number) {
        const bool done = engine->put(std::to_string(number), std::string(300, 'v'));
        if (!done || write(report, "+", 1) != 1) {
          break;
        }
      }
      _exit(0);
    }
    return child;
  }
  // After the child: what it acknowledged is there, in order, and the engine finds no fault.
  void expectAcknowledged(int count) const {
    zov_init();
    {
      const std::unique_ptr<Engine> engine = open();
      const Records left = engine->records();
      EXPECT_GE(static_cast<int>(left.size()), count);
      for (int number = 0; number < count; ++number) {
        EXPECT_EQ(left.count(std::to_string(number)), 1u) << number << " of " << count;
      }
      EXPECT_EQ(engine->complaints(), "");
      EXPECT_TRUE(engine->put("after", "all"));
    }
    zov_term();
  }

  const zovtest::TempDir dir;
};

class EnginesOnDisk : public Engines {};

TEST_P(Engines, KeepWhatAMapKeeps) {
  zov_init();
  zovtest::Random random;
  Records model;
  for (int round = 0; round < 3; ++round) {
    const std::unique_ptr<Engine> engine = open();
    EXPECT_EQ(engine->records(), model);
    for (int step = 0; step < 250; ++step) {
      const std::string key = std::to_string(random() % 300);
      const std::string value(random() % 2000, static_cast<char>('a' + random() % 26));
      if (random() % 4 == 0) {
        EXPECT_TRUE(engine->remove(key));
        model.erase(key);
      } else {
        EXPECT_TRUE(engine->put(key, value));
        model[key] = value;
      }
    }
    EXPECT_EQ(engine->records(), model);
    EXPECT_EQ(engine->complaints(), "");
  }
  zov_term();
}

TEST_P(EnginesOnDisk, LoseNothingAcknowledgedWhenKilled) {
  for (const int kept : {0, 1, 2, 7, 50, 333}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = changeInChild(ends[1], [] {});
    char byte = 0;
    for (int count = 0; count < kept; ++count) {
      ASSERT_EQ(read(ends[0], &byte, 1), 1);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
    expectAcknowledged(kept);
  }
}

TEST_P(EnginesOnDisk, KeepWhatTheyHadWhenTheDiskIsFull) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = changeInChild(ends[1], [] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {40 << 10, 40 << 10};
    setrlimit(RLIMIT_FSIZE, &limit);
  });
  close(ends[1]);
  int kept = 0;
  for (char byte = 0; read(ends[0], &byte, 1) == 1;) {
    ++kept;
  }
  waitpid(child, nullptr, 0);
  close(ends[0]);
  EXPECT_GT(kept, 10);
  EXPECT_LT(kept, 4000) << "the limit stopped it";
  expectAcknowledged(kept);
}

constexpr Kind kKinds[] = {{"LevelDbOnDisk", false, openAs<OnLevelDb>},
                           {"SqliteOnDisk", false, openAs<OnSqlite>},
                           {"LevelDbInMemory", true, openAs<OnLevelDb>},
                           {"SqliteInMemory", true, openAs<OnSqlite>}};
constexpr auto kName = [](const testing::TestParamInfo<Kind> &info) { return info.param.name; };
INSTANTIATE_TEST_SUITE_P(All, Engines, testing::ValuesIn(kKinds), kName);
INSTANTIATE_TEST_SUITE_P(OnDisk, EnginesOnDisk, testing::ValuesIn(kKinds, kKinds + 2), kName);

}  // namespace
