// SPDX-License-Identifier: Apache-2.0
//
// Memory files in number, in size and on several threads.
//
//   Names/N/D      N empty files in D directories, in random order, once through:
//                  ns for each to create, open and close, ask for its size, rename,
//                  walk over, remove; bytes that one takes; and how long the start
//                  and the end of the library last, the latter with all files there
//   Missing/N      a size asked for below N directories that are missing
//   Far/B          a byte at the end of a hole of B bytes: to write it to a new file,
//                  to read it, to cut it off and to remove the file
//   Threads/WHAT   the same on 1, 2 and 4 threads: transfers of 512 bytes of one file
//                  or of one for each thread, sizes of files and new files in one
//                  directory or in one for each
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench_seed.h"
#include "zov.h"

namespace {

void require(benchmark::State &state, bool done, const char *what) {
  if (!done) {
    state.SkipWithError(what);
  }
}

// Bytes that libc has handed out.
size_t allocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Time that this thread has had, so that others on the machine count little.
double now() {
  timespec time;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// Calls work() for each of some paths, and reports the time of one.
template <typename Work>
void timeEach(benchmark::State &state, const char *counter, const std::vector<std::string> &paths,
              Work work) {
  bool done = true;
  const double start = now();
  for (const std::string &path : paths) {
    done = work(path.c_str()) && done;
  }
  state.counters[counter] = (now() - start) / static_cast<double>(paths.size());
  require(state, done, counter);
}

std::vector<std::string> shuffledPaths(int64_t files, int64_t directories) {
  std::vector<int64_t> numbers(static_cast<size_t>(files));
  std::iota(numbers.begin(), numbers.end(), 0);
  std::shuffle(numbers.begin(), numbers.end(), std::mt19937_64(benchSeed()));
  std::vector<std::string> paths;
  for (const int64_t number : numbers) {
    paths.push_back("/d" + std::to_string(number % directories) + "/f" +
                    std::to_string(10'000'000 + number));
  }
  return paths;
}

uint64_t walkAll(int64_t directories) {
  uint64_t names = 0;
  for (int64_t number = 0; number < directories; ++number) {
    int32_t isDirectory = 0;
    ZOV_MEM_WALK walk = zov_mfPathOpen(("/d" + std::to_string(number)).c_str(), "*");
    while (walk != nullptr && zov_mfPathNext(walk, &isDirectory) != nullptr) {
      ++names;
    }
    zov_mfPathClose(walk);
  }
  return names;
}

bool openAndClose(const char *path, uint32_t flags) {
  ZOV_MFILE file = zov_mfOpen(path, flags);
  zov_mfClose(file);
  return file != nullptr;
}

bool makeFile(const char *path) {
  return openAndClose(path, O_CREAT);
}

// The path of a file under another name.
std::string renamed(const char *path) {
  std::string other(path);
  other[other.rfind('/') + 1] = 'g';
  return other;
}

void Names(benchmark::State &state) {
  const std::vector<std::string> paths = shuffledPaths(state.range(0), state.range(1));
  const double files = static_cast<double>(paths.size());
  for (auto step : state) {
    require(state, zov_init() == ZOV_OKAY, "zov_init");
    const size_t before = allocatedBytes();
    timeEach(state, "create", paths, makeFile);
    state.counters["bytes"] = static_cast<double>(allocatedBytes() - before) / files;
    timeEach(state, "open", paths, [](const char *path) { return openAndClose(path, 0); });
    timeEach(state, "size", paths, [](const char *path) { return zov_mfSizeStat(path) == 0; });
    timeEach(state, "rename", paths, [](const char *path) {
      return zov_mfRename(path, renamed(path).c_str()) == ZOV_OKAY;
    });
    const double walk = now();
    require(state, walkAll(state.range(1)) == paths.size(), "walk");
    state.counters["walk"] = (now() - walk) / files;
    timeEach(state, "remove", paths,
             [](const char *path) { return zov_mfRemove(renamed(path).c_str()) == ZOV_OKAY; });
    timeEach(state, "again", paths, makeFile);
    const double term = now();
    zov_term();
    state.counters["term_ms"] = (now() - term) / 1e6;
  }
}

void Missing(benchmark::State &state) {
  const std::vector<std::string> paths = shuffledPaths(state.range(0), state.range(0));
  for (auto step : state) {
    require(state, zov_init() == ZOV_OKAY, "zov_init");
    const size_t before = allocatedBytes();
    for (const char *counter : {"first", "again"}) {
      timeEach(state, counter, paths, [](const char *path) { return zov_mfSizeStat(path) == 0; });
    }
    state.counters["bytes"] =
        static_cast<double>(allocatedBytes() - before) / static_cast<double>(paths.size());
    require(state, makeFile("/more/file"), "create");
    zov_term();
  }
}

void Far(benchmark::State &state) {
  const uint64_t offset = static_cast<uint64_t>(state.range(0));
  char byte = 'x';
  double write = 0;
  double read = 0;
  double cut = 0;
  double remove = 0;
  require(state, zov_init() == ZOV_OKAY, "zov_init");
  for (auto step : state) {
    const double start = now();
    ZOV_MFILE file = zov_mfOpen("/far", O_CREAT);
    require(state, zov_mfSeekWrite(file, offset, &byte, 1) == 1, "write");
    write += (now() - start);
    const double written = now();
    require(state, zov_mfSeekRead(file, offset, &byte, 1) == 1, "read");
    read += (now() - written);
    const double cutting = now();
    require(state, zov_mfSetSize(file, offset / 2) == ZOV_OKAY, "cut");
    cut += (now() - cutting);
    const double removing = now();
    zov_mfClose(file);
    zov_mfRemove("/far");
    remove += (now() - removing);
  }
  zov_term();
  const auto average = [](double total) {
    return benchmark::Counter(total, benchmark::Counter::kAvgIterations);
  };
  state.counters["write"] = average(write);
  state.counters["read"] = average(read);
  state.counters["cut"] = average(cut);
  state.counters["remove"] = average(remove);
}

enum class Sharing : uint8_t { kOne, kEach };

// The directory of a thread and a file in it: the first thread's, or its own.
std::string pathOf(const benchmark::State &state, Sharing sharing) {
  const int owner = sharing == Sharing::kOne ? 0 : state.thread_index();
  return "/thread" + std::to_string(owner) + "/file";
}

void Transfers(benchmark::State &state, Sharing sharing) {
  zov_init();
  char block[512] = {};
  ZOV_MFILE file = zov_mfOpen(pathOf(state, sharing).c_str(), O_CREAT);
  zov_mfSeekWrite(file, 0, block, sizeof block);
  for (auto step : state) {
    require(state, zov_mfSeekRead(file, 0, block, sizeof block) == sizeof block, "read");
  }
  zov_mfClose(file);
  zov_term();
}

// The same of a file of tmpfs.
void TransfersPosix(benchmark::State &state, Sharing sharing) {
  static const int common = memfd_create("common", 0);
  char block[512] = {};
  const int own = sharing == Sharing::kOne ? -1 : memfd_create("own", 0);
  const int file = sharing == Sharing::kOne ? common : own;
  require(state, pwrite(file, block, sizeof block, 0) == sizeof block, "write");
  for (auto step : state) {
    require(state, pread(file, block, sizeof block, 0) == sizeof block, "read");
  }
  if (own >= 0) {
    close(own);
  }
}

void Sizes(benchmark::State &state, Sharing sharing) {
  zov_init();
  const std::string path = pathOf(state, sharing);
  makeFile(path.c_str());
  for (auto step : state) {
    benchmark::DoNotOptimize(zov_mfSizeStat(path.c_str()));
  }
  zov_term();
}

void NewFiles(benchmark::State &state, Sharing sharing) {
  zov_init();
  const std::string path = pathOf(state, sharing) + std::to_string(state.thread_index());
  for (auto step : state) {
    require(state, makeFile(path.c_str()) && zov_mfRemove(path.c_str()) == ZOV_OKAY, "create");
  }
  zov_term();
}

BENCHMARK(Names)
    ->Name("many-names/zov")
    ->ArgsProduct({{1000, 10'000, 100'000, 1'000'000}, {1, 100}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Missing)
    ->Name("missing-directories/zov")
    ->Arg(200'000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Far)
    ->Name("far-write/zov")
    ->Arg(0)
    ->Arg(1 << 20)
    ->Arg(64 << 20)
    ->Arg(int64_t{1} << 30)
    ->Arg(int64_t{64} << 30);

const bool added = [] {
  const struct {
    const char *name;
    const char *peer;
    void (*run)(benchmark::State &state, Sharing sharing);
  } rows[] = {{"read", "zov", Transfers},
              {"read", "tmpfs", TransfersPosix},
              {"size", "zov", Sizes},
              {"create", "zov", NewFiles}};
  for (const auto &row : rows) {
    for (const Sharing sharing : {Sharing::kOne, Sharing::kEach}) {
      const std::string name = std::string("memory-threads-") + row.name +
                               (sharing == Sharing::kOne ? "-one/" : "-each/") + row.peer;
      benchmark::RegisterBenchmark(name.c_str(), row.run, sharing)
          ->ThreadRange(1, 4)
          ->UseRealTime();
    }
  }
  return true;
}();

}  // namespace
