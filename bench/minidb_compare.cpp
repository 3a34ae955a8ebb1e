// SPDX-License-Identifier: Apache-2.0
//
// The storage engine of minidb beside SQLite and LMDB, where these are installed: what
// a table of docs/minidb.md shows. Records are like the lines of UnicodeData: a code
// point of six digits and some 60 bytes. Every step is a process of its own, so that
// its memory can be told.
//
//   minidb_compare [RECORDS [DIRECTORY]]
//
// All sync each commit: SQLite with synchronous=FULL, in a table WITHOUT ROWID, by
// write-ahead log and by rollback journal; LMDB with its defaults.
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "store/store.h"
#ifdef ZOV_HAVE_SQLITE
#include <sqlite3.h>
#endif
#ifdef ZOV_HAVE_LMDB
#include <lmdb.h>
#endif

namespace {

using minidb::Text;

uint32_t records = 1000000;
constexpr uint32_t kGets = 100000;
constexpr uint32_t kCommits = 2000;
constexpr uint32_t kThreads = 8;

void require(bool done, const char *what) {
  if (!done) {
    fprintf(stderr, "%s failed: %s\n", what, minidb::problem());
    _exit(1);
  }
}

// --- Records -------------------------------------------------------------

struct Line {
  char bytes[128];
  Text key;
  Text value;
  explicit Line(uint32_t number) {
    const int length =
        snprintf(bytes, sizeof bytes, "%06X;CHARACTER NUMBER %u IN PLANE %u;So;0;ON;;;;;N;;;%04X;;",
                 number, number, number >> 16, number & 0xffff);
    key = {bytes, 6};
    value = {bytes + 7, static_cast<uint32_t>(length) - 7};
  }
};

bool contains(Text value, Text wanted) {
  return memmem(value.bytes, value.length, wanted.bytes, wanted.length) != nullptr;
}

// --- The engines ---------------------------------------------------------
//
// Each has open(), close(), begin(), put() and commit(), get(), and scan(), which
// visits the values of a range of keys.

struct Minidb {
  static constexpr const char *kName = "minidb";
  minidb::Store *store = nullptr;
  minidb::Transaction *transaction = nullptr;

  void open(const std::string &path) {
    require(zov_init() == ZOV_OKAY, "starting");
    const minidb::Options options = {path.c_str(), false, true, false};
    require(minidb::openStore(options, &store), "opening");
  }
  void close() {
    minidb::closeStore(store);
    zov_term();
  }
  Minidb another() { return {store, nullptr}; }
  void closeAnother() {}
  void begin(bool alone) {
    const auto mode = alone ? minidb::Mode::kExclusive : minidb::Mode::kOverwrite;
    require(minidb::beginTransaction(*store, mode, &transaction), "beginning");
  }
  void put(Text key, Text value) {
    require(minidb::putRecord(*transaction, key, value), "putting");
  }
  void commit() { require(minidb::commit(transaction), "committing"); }
  template <typename Visit>
  void scan(minidb::Range range, Visit visit) {
    minidb::View view;
    require(minidb::openView(*store, view), "viewing");
    minidb::Cursor cursor;
    for (bool more = seekFirst(cursor, view, range); more; more = minidb::seekNext(cursor)) {
      Text value;
      require(minidb::readValue(cursor, value), "reading");
      visit(value);
    }
    minidb::closeView(view);
  }
  uint32_t get(Text key) {
    minidb::View view;
    minidb::Cursor cursor;
    Text value = {};
    require(minidb::openView(*store, view) && minidb::seekKey(cursor, view, key) &&
                minidb::readValue(cursor, value),
            "getting");
    minidb::closeView(view);
    return value.length;
  }
};

#ifdef ZOV_HAVE_SQLITE
template <bool writeAhead>
struct Sqlite {
  static constexpr const char *kName = writeAhead ? "SQLite, log" : "SQLite, journal";
  std::string path;
  sqlite3 *handle = nullptr;
  sqlite3_stmt *putting = nullptr, *getting = nullptr, *scanning = nullptr;

  void run(const char *statement) {
    require(sqlite3_exec(handle, statement, nullptr, nullptr, nullptr) == SQLITE_OK, statement);
  }
  void prepare(const char *text, sqlite3_stmt **statement) {
    require(sqlite3_prepare_v2(handle, text, -1, statement, nullptr) == SQLITE_OK, text);
  }
  void open(const std::string &file) {
    path = file;
    require(sqlite3_open(path.c_str(), &handle) == SQLITE_OK, "opening");
    sqlite3_busy_timeout(handle, 60000);
    run(writeAhead ? "pragma journal_mode=wal" : "pragma journal_mode=delete");
    run("pragma synchronous=full; pragma cache_size=-8192");
    run("create table if not exists r (k blob primary key, v blob) without rowid");
    prepare("insert or replace into r values (?, ?)", &putting);
    prepare("select v from r where k = ?", &getting);
    prepare("select v from r where k >= ? and k <= ? order by k", &scanning);
  }
  void close() {
    for (sqlite3_stmt *statement : {putting, getting, scanning}) {
      sqlite3_finalize(statement);
    }
    sqlite3_close(handle);
  }
  Sqlite another() {
    Sqlite other;
    other.open(path);
    return other;
  }
  void closeAnother() { close(); }
  void begin(bool) { run("begin immediate"); }
  void commit() { run("commit"); }
  static void bind(sqlite3_stmt *statement, int index, Text text) {
    sqlite3_bind_blob(statement, index, text.bytes, static_cast<int>(text.length), SQLITE_STATIC);
  }
  static Text column(sqlite3_stmt *statement) {
    return {static_cast<const char *>(sqlite3_column_blob(statement, 0)),
            static_cast<uint32_t>(sqlite3_column_bytes(statement, 0))};
  }
  void put(Text key, Text value) {
    bind(putting, 1, key);
    bind(putting, 2, value);
    require(sqlite3_step(putting) == SQLITE_DONE, "putting");
    sqlite3_reset(putting);
  }
  uint32_t get(Text key) {
    bind(getting, 1, key);
    require(sqlite3_step(getting) == SQLITE_ROW, "getting");
    const uint32_t length = column(getting).length;
    sqlite3_reset(getting);
    return length;
  }
  template <typename Visit>
  void scan(minidb::Range range, Visit visit) {
    bind(scanning, 1, range.from);
    bind(scanning, 2, range.to);
    while (sqlite3_step(scanning) == SQLITE_ROW) {
      visit(column(scanning));
    }
    sqlite3_reset(scanning);
  }
};
#endif

#ifdef ZOV_HAVE_LMDB
struct Lmdb {
  static constexpr const char *kName = "LMDB";
  MDB_env *environment = nullptr;
  MDB_dbi table = 0;
  MDB_txn *transaction = nullptr;

  static MDB_val from(Text text) { return {text.length, const_cast<char *>(text.bytes)}; }
  static Text to(MDB_val value) {
    return {static_cast<const char *>(value.mv_data), static_cast<uint32_t>(value.mv_size)};
  }
  void open(const std::string &path) {
    require(mdb_env_create(&environment) == 0, "making");
    mdb_env_set_mapsize(environment, size_t{4} << 30);
    require(mdb_env_open(environment, path.c_str(), MDB_NOSUBDIR, 0600) == 0, "opening");
    begin(true);
    require(mdb_dbi_open(transaction, nullptr, 0, &table) == 0, "opening");
    mdb_txn_abort(transaction);
    transaction = nullptr;
    table = 1;
  }
  void close() { mdb_env_close(environment); }
  Lmdb another() { return *this; }
  void closeAnother() {}
  void begin(bool) {
    require(mdb_txn_begin(environment, nullptr, 0, &transaction) == 0, "beginning");
  }
  void commit() { require(mdb_txn_commit(transaction) == 0, "committing"); }
  void put(Text key, Text value) {
    MDB_val k = from(key), v = from(value);
    require(mdb_put(transaction, table, &k, &v, 0) == 0, "putting");
  }
  uint32_t get(Text key) {
    MDB_txn *reader = nullptr;
    MDB_val k = from(key), v;
    require(mdb_txn_begin(environment, nullptr, MDB_RDONLY, &reader) == 0 &&
                mdb_get(reader, table, &k, &v) == 0,
            "getting");
    mdb_txn_abort(reader);
    return static_cast<uint32_t>(v.mv_size);
  }
  template <typename Visit>
  void scan(minidb::Range range, Visit visit) {
    MDB_txn *reader = nullptr;
    MDB_cursor *cursor = nullptr;
    require(mdb_txn_begin(environment, nullptr, MDB_RDONLY, &reader) == 0 &&
                mdb_cursor_open(reader, table, &cursor) == 0,
            "viewing");
    MDB_val k = from(range.from), v, last = from(range.to);
    int result = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
    while (result == 0 && mdb_cmp(reader, table, &k, &last) <= 0) {
      visit(to(v));
      result = mdb_cursor_get(cursor, &k, &v, MDB_NEXT);
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(reader);
  }
};
#endif

// --- Steps ---------------------------------------------------------------

template <typename Engine>
void load(Engine &engine) {
  engine.begin(true);
  for (uint32_t number = 0; number < records; ++number) {
    const Line line(number);
    engine.put(line.key, line.value);
  }
  engine.commit();
}

template <typename Engine>
void getOne(Engine &engine) {
  require(engine.get(Line(records / 3).key) > 0, "getting");
}

template <typename Engine>
void getMany(Engine &engine) {
  uint64_t state = 1;
  for (uint32_t count = 0; count < kGets; ++count) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    engine.get(Line(static_cast<uint32_t>((state >> 33) % records)).key);
  }
}

template <typename Engine>
void scanRange(Engine &engine) {
  const Line from(records / 4);
  const Line to(records / 2 - 1);
  uint64_t found = 0;
  engine.scan({from.key, to.key}, [&](Text) { ++found; });
  require(found == records / 2 - records / 4, "scanning");
}

template <typename Engine>
void search(Engine &engine) {
  uint64_t found = 0;
  const Line last(records);
  engine.scan({{"0", 1}, last.key}, [&](Text value) { found += contains(value, {"R 77777 ", 8}); });
  require(found == (records > 77777 ? 1 : 0), "searching");
}

template <typename Engine>
void commitSome(Engine &engine, uint32_t first, uint32_t count) {
  for (uint32_t number = first; number < first + count; ++number) {
    const Line line(number * 487 % records);
    engine.begin(false);
    engine.put(line.key, line.value);
    engine.commit();
  }
}

template <typename Engine>
void commitMany(Engine &engine) {
  commitSome(engine, 0, kCommits);
}

template <typename Engine>
void commitByThreads(Engine &engine) {
  std::vector<std::thread> threads;
  for (uint32_t id = 0; id < kThreads; ++id) {
    threads.emplace_back([&engine, id] {
      Engine mine = engine.another();
      commitSome(mine, id * (kCommits / kThreads), kCommits / kThreads);
      mine.closeAnother();
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
}

// Opens, works and closes in a process of its own, and prints time and peak memory.
template <typename Engine>
void step(const char *name, const std::string &path, void (*work)(Engine &)) {
  fflush(stdout);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    Engine engine;
    engine.open(path);
    work(engine);
    engine.close();
    _exit(0);
  }
  int status = 0;
  rusage usage;
  require(wait4(child, &status, 0, &usage) == child && status == 0, name);
  const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
  printf("  %-28s %10.1f ms  %8.1f MB\n", name, time.count(),
         static_cast<double>(usage.ru_maxrss) / 1024);
}

template <typename Engine>
void run(const std::string &directory) {
  const std::string path = directory + "/data";
  printf("%s\n", Engine::kName);
  step<Engine>("load", path, load<Engine>);
  struct stat status;
  require(stat(path.c_str(), &status) == 0, "looking at the file");
  printf("  %-28s %28.1f MB\n", "file", static_cast<double>(status.st_blocks) * 512 / 1e6);
  step<Engine>("get in a new process", path, getOne<Engine>);
  step<Engine>("100,000 random gets", path, getMany<Engine>);
  step<Engine>("a quarter in order", path, scanRange<Engine>);
  step<Engine>("search all values", path, search<Engine>);
  step<Engine>("2,000 commits", path, commitMany<Engine>);
  step<Engine>("2,000 commits, 8 threads", path, commitByThreads<Engine>);
  require(system(("rm " + path + "*").c_str()) == 0, "removing the files");
}

}  // namespace

int main(int argc, char **argv) {
  records = argc > 1 ? static_cast<uint32_t>(atoi(argv[1])) : records;
  std::string directory = argc > 2 ? argv[2] : "/tmp";
  directory += "/minidb_compare.XXXXXX";
  require(mkdtemp(directory.data()) != nullptr, "making a directory");
  run<Minidb>(directory);
#ifdef ZOV_HAVE_SQLITE
  run<Sqlite<true>>(directory);
  run<Sqlite<false>>(directory);
#endif
#ifdef ZOV_HAVE_LMDB
  run<Lmdb>(directory);
#endif
  return rmdir(directory.c_str());
}
