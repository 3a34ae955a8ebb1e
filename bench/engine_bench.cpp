// SPDX-License-Identifier: Apache-2.0
//
// LevelDB and SQLite on libzov's files beside the same on the file layer each comes
// with: records written without a sync and read at random, on disk and in memory.
#include <benchmark/benchmark.h>
#include <leveldb/db.h>
#include <leveldb/helpers/memenv.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "bench_seed.h"
#include "leveldb_env.h"
#include "sqlite_vfs.h"

namespace {

constexpr size_t kValueBytes = 100;

// A directory on disk that goes with its object.
class Folder {
 public:
  Folder() {
    if (mkdtemp(path_.data()) == nullptr) {
      abort();
    }
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;

  std::string path(bool inMemory) const {
    static int number = 0;
    return (inMemory ? "/engine" : path_) + "/" + std::to_string(++number);
  }

 private:
  std::string path_ = "/tmp/zov_engine_bench.XXXXXX";
};

std::string keyOf(uint64_t number) {
  std::string key = std::to_string(number);
  return std::string(16 - key.size(), '0') + key;
}

// What is measured, and where its files are.
struct Layer {
  bool isZov;
  bool isMemory;
};

class LevelDb {
 public:
  LevelDb(const Layer &layer, const Folder &folder)
      : zov_(layer.isMemory ? ZOV_FILE_MEMORY : 0),
        stock_(layer.isMemory ? leveldb::NewMemEnv(leveldb::Env::Default()) : nullptr) {
    leveldb::Options options;
    options.create_if_missing = true;
    options.compression = leveldb::kNoCompression;
    options.env = layer.isZov ? &zov_ : stock_ ? stock_.get() : leveldb::Env::Default();
    leveldb::DB *db = nullptr;
    if (leveldb::DB::Open(options, folder.path(layer.isMemory), &db).ok()) {
      db_.reset(db);
    }
  }
  bool isOpen() const { return db_ != nullptr; }
  void begin() {}
  void end() {}
  bool put(const std::string &key, const std::string &value) {
    return db_->Put({}, key, value).ok();
  }
  bool get(const std::string &key, std::string &value) { return db_->Get({}, key, &value).ok(); }

 private:
  engines::ZovEnv zov_;
  std::unique_ptr<leveldb::Env> stock_;
  std::unique_ptr<leveldb::DB> db_;
};

class Sqlite {
 public:
  Sqlite(const Layer &layer, const Folder &folder) {
    const char *own = layer.isMemory ? "zov-memory" : "zov";
    const bool isPlain = !layer.isZov && layer.isMemory;  // its own database in memory
    const std::string path = isPlain ? ":memory:" : folder.path(layer.isMemory);
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                        layer.isZov ? own : "unix") != SQLITE_OK) {
      return;
    }
    run("pragma synchronous = off");
    run("create table records (key primary key, value) without rowid");
    sqlite3_prepare_v2(db_, "insert or replace into records values (?, ?)", -1, &put_, nullptr);
    sqlite3_prepare_v2(db_, "select value from records where key = ?", -1, &get_, nullptr);
  }
  ~Sqlite() {
    sqlite3_finalize(put_);
    sqlite3_finalize(get_);
    sqlite3_close(db_);
  }
  Sqlite(const Sqlite &) = delete;
  Sqlite &operator=(const Sqlite &) = delete;

  bool isOpen() const { return put_ != nullptr && get_ != nullptr; }
  void begin() { run("begin"); }
  void end() { run("commit"); }
  bool put(const std::string &key, const std::string &value) {
    bind(put_, 1, key);
    bind(put_, 2, value);
    const bool done = sqlite3_step(put_) == SQLITE_DONE;
    sqlite3_reset(put_);
    return done;
  }
  bool get(const std::string &key, std::string &value) {
    bind(get_, 1, key);
    const bool found = sqlite3_step(get_) == SQLITE_ROW;
    if (found) {
      value = reinterpret_cast<const char *>(sqlite3_column_text(get_, 0));
    }
    sqlite3_reset(get_);
    return found;
  }

 private:
  static void bind(sqlite3_stmt *statement, int place, const std::string &text) {
    sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  void run(const char *sql) { sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }

  sqlite3 *db_ = nullptr;
  sqlite3_stmt *put_ = nullptr;
  sqlite3_stmt *get_ = nullptr;
};

template <typename Engine>
bool fill(Engine &engine, uint64_t count) {
  std::mt19937_64 random(benchSeed());
  bool done = engine.isOpen();
  engine.begin();
  for (uint64_t number = 0; done && number < count; ++number) {
    done = engine.put(keyOf(random() % count), std::string(kValueBytes, 'v'));
  }
  engine.end();
  return done;
}

// Starts the library and SQLite on it, for both engines.
void begin() {
  static const bool begun = engines::sqliteBegin() == ZOV_OKAY;
  if (!begun) {
    abort();
  }
}

template <typename Engine>
void write(benchmark::State &state, Layer layer) {
  begin();
  const Folder folder;
  const auto count = static_cast<uint64_t>(state.range(0));
  for (auto _ : state) {
    Engine engine(layer, folder);
    if (!fill(engine, count)) {
      state.SkipWithError("a record was not written");
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Engine>
void read(benchmark::State &state, Layer layer) {
  begin();
  const Folder folder;
  const auto count = static_cast<uint64_t>(state.range(0));
  Engine engine(layer, folder);
  if (!fill(engine, count)) {
    state.SkipWithError("a record was not written");
    return;
  }
  std::mt19937_64 random(benchSeed());  // the keys that were written, in that order
  std::string value;
  uint64_t number = 0;
  for (auto _ : state) {
    if (number++ % count == 0) {
      random.seed(benchSeed());
    }
    if (!engine.get(keyOf(random() % count), value) || value.size() != kValueBytes) {
      state.SkipWithError("a record is missing");
      return;
    }
  }
}

template <typename Engine>
void add(const std::string &engine) {
  for (const Layer layer :
       {Layer{true, false}, Layer{false, false}, Layer{true, true}, Layer{false, true}}) {
    const std::string end =
        std::string(layer.isMemory ? "-memory/" : "/") + (layer.isZov ? "zov" : "own-layer");
    benchmark::RegisterBenchmark((engine + "-write" + end).c_str(), write<Engine>, layer)
        ->Arg(20000)
        ->UseRealTime();
    benchmark::RegisterBenchmark((engine + "-read" + end).c_str(), read<Engine>, layer)->Arg(20000);
  }
}

const bool added = [] {
  add<LevelDb>("leveldb");
  add<Sqlite>("sqlite");
  return true;
}();

}  // namespace
