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
  virtual bool isSound() = 0;  // by the engine's own check
};

class OnLevelDb final : public Engine {
 public:
  OnLevelDb(const std::string &path, bool inMemory) : env_(inMemory ? ZOV_FILE_MEMORY : 0) {
    synced_.sync = true;
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
    return db_->Put(synced_, key, value).ok();
  }
  bool remove(const std::string &key) override { return db_->Delete(synced_, key).ok(); }
  Records records() override {
    Records found;
    const std::unique_ptr<leveldb::Iterator> each(db_->NewIterator({}));
    for (each->SeekToFirst(); each->Valid(); each->Next()) {
      found[each->key().ToString()] = each->value().ToString();
    }
    EXPECT_TRUE(each->status().ok()) << each->status().ToString();
    return found;
  }
  bool isSound() override {
    db_->CompactRange(nullptr, nullptr);  // reads every block and its checksum
    return true;
  }

 private:
  engines::ZovEnv env_;
  leveldb::WriteOptions synced_;
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
    return run(writer_, "insert or replace into records values ('" + key + "', '" + value + "')");
  }
  bool remove(const std::string &key) override {
    return run(writer_, "delete from records where key = '" + key + "'");
  }
  Records records() override {
    Records found;
    EXPECT_TRUE(run(reader_, "select key, value from records", &found));
    return found;
  }
  bool isSound() override {
    Records found;
    return run(reader_, "select integrity_check, '' from pragma_integrity_check", &found) &&
           found == Records{{"ok", ""}};
  }

 private:
  static bool run(sqlite3 *db, const std::string &sql, Records *found = nullptr) {
    const auto take = [](void *records, int, char **columns, char **) {
      (*static_cast<Records *>(records))[columns[0]] = columns[1];
      return 0;
    };
    return sqlite3_exec(db, sql.c_str(), take, found, nullptr) == SQLITE_OK;
  }

  sqlite3 *writer_ = nullptr;
  sqlite3 *reader_ = nullptr;
};

struct Kind {
  const char *name;
  bool isSqlite, inMemory;
};

class Engines : public testing::TestWithParam<Kind> {
 protected:
  std::unique_ptr<Engine> open(int number = 0) const {
    const auto [name, isSqlite, inMemory] = GetParam();
    const std::string path = (inMemory ? "" : dir.path()) + "/db" + std::to_string(number);
    if (isSqlite) {
      return std::make_unique<OnSqlite>(path, inMemory);
    }
    return std::make_unique<OnLevelDb>(path, inMemory);
  }
  // Changes in a process of its own, which tells each one that is done.
  pid_t changeInChild(int report, int number, bool isFull) const {
    const pid_t child = fork();
    if (child == 0) {
      zov_init();
      const std::unique_ptr<Engine> engine = open(number);
      const rlimit limit = {40 << 10, 40 << 10};
      signal(SIGXFSZ, SIG_IGN);
      isFull ? setrlimit(RLIMIT_FSIZE, &limit) : 0;
      for (int key = 0; key < 4000; ++key) {
        const bool done = engine->put(std::to_string(key), std::string(300, 'v'));
        if (!done || write(report, "+", 1) != 1) {
          break;
        }
      }
      _exit(0);
    }
    return child;
  }
  // After the child: what it acknowledged is there, in order, and the engine finds no fault.
  void expectAcknowledged(int number, int count) const {
    zov_init();
    {
      const std::unique_ptr<Engine> engine = open(number);
      const Records left = engine->records();
      EXPECT_GE(static_cast<int>(left.size()), count);
      for (int key = 0; key < count; ++key) {
        EXPECT_EQ(left.count(std::to_string(key)), 1u) << key << " of " << count;
      }
      EXPECT_TRUE(engine->isSound());
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
    EXPECT_TRUE(engine->isSound());
  }
  zov_term();
}

// Killed after so many changes, or, before there are most, ended by a disk that is full.
TEST_P(EnginesOnDisk, LoseNothingAcknowledged) {
  constexpr int kMost = 4000;
  for (const int wanted : {0, 1, 2, 7, 50, 333, kMost}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = changeInChild(ends[1], wanted, wanted == kMost);
    close(ends[1]);
    int kept = 0;
    for (char byte = 0; kept < wanted && read(ends[0], &byte, 1) == 1;) {
      ++kept;
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ends[0]);
    EXPECT_GE(kept, std::min(wanted, 10));
    EXPECT_EQ(kept < wanted, wanted == kMost);
    expectAcknowledged(wanted, kept);
  }
}

constexpr Kind kKinds[] = {{"LevelDbOnDisk", false, false},
                           {"SqliteOnDisk", true, false},
                           {"LevelDbInMemory", false, true},
                           {"SqliteInMemory", true, true}};
constexpr auto kName = [](const testing::TestParamInfo<Kind> &info) { return info.param.name; };
INSTANTIATE_TEST_SUITE_P(All, Engines, testing::ValuesIn(kKinds), kName);
INSTANTIATE_TEST_SUITE_P(OnDisk, EnginesOnDisk, testing::ValuesIn(kKinds, kKinds + 2), kName);

}  // namespace
