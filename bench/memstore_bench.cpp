// SPDX-License-Identifier: Apache-2.0
//
// Memory files beside what else keeps files in memory: tmpfs (/dev/shm) by POSIX
// calls, SQLite's in-memory database where it is installed, and for transfers a
// bare memcpy(), which is the limit.
//
//   Create, Remove    N names in random order; per_op is the time of one
//   Lookup            the size of one of N files by its name
//   Rename            one of N files to a name of the same length
//   Walk              all N names in order, or in tmpfs's own; per_op as above
//   Read, Write       so many bytes at offsets stepping through 1 MiB
//   Sequential        64 MiB in blocks of 4 KiB to a new file; per_op for a block
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench_seed.h"
#include "zov.h"

#ifdef ZOV_HAVE_SQLITE
#include <sqlite3.h>
#endif

namespace {

constexpr uint32_t kFileBytes = 1 << 20;
constexpr uint32_t kBlockBytes = 4096;
constexpr uint32_t kSequentialBytes = 64 << 20;

char buffer[1 << 16];

void check(bool done, const char *what) {
  if (!done) {
    fprintf(stderr, "memstore_bench: %s failed\n", what);
    abort();
  }
}

class Zov {
 public:
  static constexpr char kName[] = "zov";

  Zov() { check(zov_init() == ZOV_OKAY, "zov_init"); }
  ~Zov() { zov_term(); }
  Zov(const Zov &) = delete;
  Zov &operator=(const Zov &) = delete;

  void create(const char *name) {
    ZOV_MFILE file = zov_mfOpen(path(name), O_RDWR | O_CREAT);
    check(file != nullptr, "zov_mfOpen");
    zov_mfClose(file);
  }
  int64_t lookUp(const char *name) { return static_cast<int64_t>(zov_mfSizeStat(path(name))); }
  void rename(const char *from, const char *to) {
    check(zov_mfRename(path(from), to) == ZOV_OKAY, "zov_mfRename");
  }
  void remove(const char *name) { check(zov_mfRemove(path(name)) == ZOV_OKAY, "zov_mfRemove"); }
  uint32_t walk() {
    uint32_t names = 0;
    int32_t isDirectory = 0;
    ZOV_MEM_WALK walk = zov_mfPathOpen("/bench", "*");
    while (zov_mfPathNext(walk, &isDirectory) != nullptr) {
      ++names;
    }
    zov_mfPathClose(walk);
    return names;
  }

  void open(const char *name, uint32_t) { file_ = zov_mfOpen(path(name), O_RDWR | O_CREAT); }
  void close() { zov_mfClose(file_); }
  void read(uint64_t offset, uint32_t bytes) {
    check(zov_mfSeekRead(file_, offset, buffer, bytes) == bytes, "zov_mfSeekRead");
  }
  void write(uint64_t offset, uint32_t bytes) {
    check(zov_mfSeekWrite(file_, offset, buffer, bytes) == bytes, "zov_mfSeekWrite");
  }

 private:
  const char *path(const char *name) {
    memcpy(path_ + 7, name, strlen(name) + 1);
    return path_;
  }

  char path_[64] = "/bench/";
  ZOV_MFILE file_ = nullptr;
};

class Tmpfs {
 public:
  static constexpr char kName[] = "tmpfs";

  Tmpfs() { check(mkdtemp(directory_) != nullptr && chdir(directory_) == 0, "mkdtemp"); }
  ~Tmpfs() { check(chdir("/") == 0 && rmdir(directory_) == 0, "rmdir"); }
  Tmpfs(const Tmpfs &) = delete;
  Tmpfs &operator=(const Tmpfs &) = delete;

  void create(const char *name) {
    const int fd = ::open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    check(fd >= 0 && ::close(fd) == 0, "open");
  }
  int64_t lookUp(const char *name) {
    struct stat status;
    check(stat(name, &status) == 0, "stat");
    return status.st_size;
  }
  void rename(const char *from, const char *to) { check(::rename(from, to) == 0, "rename"); }
  void remove(const char *name) { check(unlink(name) == 0, "unlink"); }
  uint32_t walk() {
    uint32_t names = 0;
    DIR *directory = opendir(".");
    while (const dirent *entry = readdir(directory)) {
      names += entry->d_name[0] != '.';
    }
    closedir(directory);
    return names;
  }

  void open(const char *name, uint32_t) { fd_ = ::open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0600); }
  void close() { ::close(fd_); }
  void read(uint64_t offset, uint32_t bytes) {
    check(pread(fd_, buffer, bytes, static_cast<off_t>(offset)) == bytes, "pread");
  }
  void write(uint64_t offset, uint32_t bytes) {
    check(pwrite(fd_, buffer, bytes, static_cast<off_t>(offset)) == bytes, "pwrite");
  }

 private:
  char directory_[32] = "/dev/shm/zovbench.XXXXXX";
  int fd_ = -1;
};

#ifdef ZOV_HAVE_SQLITE
// A table of names, one tree, and one of contents, as only a table with numbered
// rows has blobs that can be written in place. Without a journal, each step a
// transaction of its own as each call of the others is.
class Sqlite {
 public:
  static constexpr char kName[] = "sqlite";

  Sqlite() {
    check(sqlite3_open(":memory:", &database_) == SQLITE_OK, "sqlite3_open");
    check(sqlite3_exec(
              database_,
              "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
              "CREATE TABLE n(name TEXT PRIMARY KEY COLLATE NOCASE, bytes INTEGER) WITHOUT ROWID;"
              "CREATE TABLE f(data BLOB)",
              nullptr, nullptr, nullptr) == SQLITE_OK,
          "CREATE TABLE");
    create_ = prepare("INSERT INTO n VALUES(?1, ?2)");
    lookUp_ = prepare("SELECT bytes FROM n WHERE name = ?1");
    rename_ = prepare("UPDATE n SET name = ?2 WHERE name = ?1");
    remove_ = prepare("DELETE FROM n WHERE name = ?1");
    walk_ = prepare("SELECT name FROM n ORDER BY name");
  }
  ~Sqlite() {
    for (sqlite3_stmt *statement : {create_, lookUp_, rename_, remove_, walk_}) {
      sqlite3_finalize(statement);
    }
    sqlite3_close(database_);
  }
  Sqlite(const Sqlite &) = delete;
  Sqlite &operator=(const Sqlite &) = delete;

  void create(const char *name, int64_t bytes = 0) {
    sqlite3_bind_int64(create_, 2, bytes);
    step(create_, name, SQLITE_DONE);
    sqlite3_reset(create_);
  }
  int64_t lookUp(const char *name) {
    step(lookUp_, name, SQLITE_ROW);
    const int64_t bytes = sqlite3_column_int64(lookUp_, 0);
    sqlite3_reset(lookUp_);
    return bytes;
  }
  void rename(const char *from, const char *to) {
    sqlite3_bind_text(rename_, 2, to, -1, SQLITE_STATIC);
    step(rename_, from, SQLITE_DONE);
    sqlite3_reset(rename_);
  }
  void remove(const char *name) {
    step(remove_, name, SQLITE_DONE);
    sqlite3_reset(remove_);
  }
  uint32_t walk() {
    uint32_t names = 0;
    while (sqlite3_step(walk_) == SQLITE_ROW) {
      benchmark::DoNotOptimize(sqlite3_column_text(walk_, 0));
      ++names;
    }
    sqlite3_reset(walk_);
    return names;
  }

  void open(const char *name, uint32_t bytes) {
    create(name, bytes);
    const std::string row = "INSERT INTO f VALUES(zeroblob(" + std::to_string(bytes) + "))";
    check(sqlite3_exec(database_, row.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "INSERT");
    check(sqlite3_blob_open(database_, "main", "f", "data", sqlite3_last_insert_rowid(database_), 1,
                            &blob_) == SQLITE_OK,
          "sqlite3_blob_open");
  }
  void close() {
    sqlite3_blob_close(blob_);
    check(sqlite3_exec(database_, "DELETE FROM f", nullptr, nullptr, nullptr) == SQLITE_OK,
          "DELETE");
  }
  void read(uint64_t offset, uint32_t bytes) {
    check(sqlite3_blob_read(blob_, buffer, static_cast<int>(bytes), static_cast<int>(offset)) ==
              SQLITE_OK,
          "sqlite3_blob_read");
  }
  void write(uint64_t offset, uint32_t bytes) {
    check(sqlite3_blob_write(blob_, buffer, static_cast<int>(bytes), static_cast<int>(offset)) ==
              SQLITE_OK,
          "sqlite3_blob_write");
  }

 private:
  sqlite3_stmt *prepare(const char *text) {
    sqlite3_stmt *statement = nullptr;
    check(sqlite3_prepare_v2(database_, text, -1, &statement, nullptr) == SQLITE_OK, text);
    return statement;
  }
  static void step(sqlite3_stmt *statement, const char *name, int expected) {
    sqlite3_bind_text(statement, 1, name, -1, SQLITE_STATIC);
    check(sqlite3_step(statement) == expected, "sqlite3_step");
  }

  sqlite3 *database_ = nullptr;
  sqlite3_stmt *create_;
  sqlite3_stmt *lookUp_;
  sqlite3_stmt *rename_;
  sqlite3_stmt *remove_;
  sqlite3_stmt *walk_;
  sqlite3_blob *blob_ = nullptr;
};
#endif

// The names of N files, in random order.
class Names {
 public:
  Names(const benchmark::State &state, char first) {
    std::vector<uint32_t> numbers(static_cast<size_t>(state.range(0)));
    std::iota(numbers.begin(), numbers.end(), 0u);
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937_64(benchSeed()));
    for (const uint32_t number : numbers) {
      names_.push_back(first + std::to_string(1'000'000 + number));
    }
  }
  size_t size() const { return names_.size(); }
  const char *operator[](size_t index) const { return names_[index].c_str(); }

  template <typename Store>
  void createAll(Store &store) const {
    for (const std::string &name : names_) {
      store.create(name.c_str());
    }
  }
  template <typename Store>
  void removeAll(Store &store) const {
    for (const std::string &name : names_) {
      store.remove(name.c_str());
    }
  }

 private:
  std::vector<std::string> names_;
};

// Reports the time of one of the operations that an iteration consists of.
void setPerOp(benchmark::State &state, double operations) {
  state.counters["per_op"] = benchmark::Counter(
      operations, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <typename Store>
void Create(benchmark::State &state) {
  Store store;
  const Names names(state, 'f');
  for (auto step : state) {
    names.createAll(store);
    state.PauseTiming();
    names.removeAll(store);
    state.ResumeTiming();
  }
  setPerOp(state, static_cast<double>(names.size()));
}

template <typename Store>
void Remove(benchmark::State &state) {
  Store store;
  const Names names(state, 'f');
  for (auto step : state) {
    state.PauseTiming();
    names.createAll(store);
    state.ResumeTiming();
    names.removeAll(store);
  }
  setPerOp(state, static_cast<double>(names.size()));
}

template <typename Store>
void Lookup(benchmark::State &state) {
  Store store;
  const Names names(state, 'f');
  names.createAll(store);
  size_t index = names.size() / 2;
  for (auto step : state) {
    benchmark::DoNotOptimize(store.lookUp(names[index]));
    index = index + 1 == names.size() ? 0 : index + 1;
  }
  names.removeAll(store);
}

template <typename Store>
void Rename(benchmark::State &state) {
  Store store;
  const Names names(state, 'f');
  const Names others(state, 'g');
  names.createAll(store);
  bool back = false;
  size_t index = 0;
  for (auto step : state) {
    store.rename((back ? others : names)[index], (back ? names : others)[index]);
    if (++index == names.size()) {
      index = 0;
      back = !back;
    }
  }
  for (size_t each = 0; each < names.size(); ++each) {
    store.remove((each < index) != back ? others[each] : names[each]);
  }
}

template <typename Store>
void Walk(benchmark::State &state) {
  Store store;
  const Names names(state, 'f');
  names.createAll(store);
  for (auto step : state) {
    check(store.walk() == names.size(), "walk");
  }
  setPerOp(state, static_cast<double>(names.size()));
  names.removeAll(store);
}

template <typename Store, typename Transfer>
void transfers(benchmark::State &state, Transfer transfer) {
  const uint32_t bytes = static_cast<uint32_t>(state.range(0));
  Store store;
  store.open("file", kFileBytes);
  for (uint32_t offset = 0; offset < kFileBytes; offset += kBlockBytes) {
    store.write(offset, kBlockBytes);
  }
  uint64_t offset = 0;
  for (auto step : state) {
    transfer(store, offset, bytes);
    offset = (offset + bytes) % kFileBytes;
  }
  state.SetBytesProcessed(state.iterations() * bytes);
  store.close();
  store.remove("file");
}

template <typename Store>
void Read(benchmark::State &state) {
  transfers<Store>(
      state, [](Store &store, uint64_t offset, uint32_t bytes) { store.read(offset, bytes); });
}

template <typename Store>
void Write(benchmark::State &state) {
  transfers<Store>(
      state, [](Store &store, uint64_t offset, uint32_t bytes) { store.write(offset, bytes); });
}

void Memcpy(benchmark::State &state) {
  const size_t bytes = static_cast<size_t>(state.range(0));
  const std::vector<char> memory(kFileBytes, 'x');
  size_t offset = 0;
  for (auto step : state) {
    memcpy(buffer, memory.data() + offset, bytes);
    benchmark::DoNotOptimize(buffer);
    benchmark::ClobberMemory();
    offset = (offset + bytes) % kFileBytes;
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

template <typename Store>
void Sequential(benchmark::State &state) {
  Store store;
  for (auto step : state) {
    store.open("file", kSequentialBytes);
    for (uint32_t offset = 0; offset < kSequentialBytes; offset += kBlockBytes) {
      store.write(offset, kBlockBytes);
    }
    state.PauseTiming();
    store.close();
    store.remove("file");
    state.ResumeTiming();
  }
  setPerOp(state, double{kSequentialBytes} / kBlockBytes);
}

template <typename Store>
void addStore() {
  const struct {
    const char *name;
    void (*run)(benchmark::State &state);
    std::vector<int64_t> arguments;
  } rows[] = {
      {"file-create", Create<Store>, {1000, 10000, 100000}},
      {"file-open-close", Lookup<Store>, {1000, 10000, 100000}},
      {"file-rename", Rename<Store>, {1000, 10000, 100000}},
      {"file-remove", Remove<Store>, {1000, 10000, 100000}},
      {"directory-walk", Walk<Store>, {1000, 10000, 100000}},
      {"memory-read", Read<Store>, {512, 65536}},
      {"memory-write", Write<Store>, {512, 65536}},
      {"memory-write-new", Sequential<Store>, {}},
  };
  for (const auto &row : rows) {
    const std::string name = std::string(row.name) + "/" + Store::kName;
    auto *added = benchmark::RegisterBenchmark(name.c_str(), row.run);
    for (const int64_t argument : row.arguments) {
      added->Arg(argument);
    }
  }
}

const bool added = [] {
  addStore<Zov>();
  addStore<Tmpfs>();
#ifdef ZOV_HAVE_SQLITE
  addStore<Sqlite>();
#endif
  return true;
}();

BENCHMARK(Memcpy)->Name("memory-read/memcpy")->Arg(512)->Arg(65536);

}  // namespace
