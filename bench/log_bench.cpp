// SPDX-License-Identifier: Apache-2.0
//
// A log line, synced as always and to a device that has nothing to sync, beside
// the same bytes formatted by libc and written by hand.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "zov.h"

namespace {

constexpr char kFormat[] = "request %d of session %s took %u ms\n";
constexpr char kSession[] = "a1b2c3d4";
constexpr char kNowhere[] = "/dev/null";

// A file of its own in the folder for temporary files, or kNowhere.
std::string targetPath(bool synced) {
  if (!synced) {
    return kNowhere;
  }
  std::string pattern = "/tmp/zov_log_bench.XXXXXX";
  close(mkstemp(pattern.data()));
  return pattern;
}

void removeTarget(const std::string &path) {
  if (path != kNowhere) {
    unlink(path.c_str());
  }
}

void byHand(benchmark::State &state, bool synced) {
  const std::string path = targetPath(synced);
  const int file = open(path.c_str(), O_WRONLY | O_TRUNC);
  int number = 0;
  for (auto _ : state) {
    char line[200];
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    size_t length = strftime(line, sizeof line, "[%d-%b-%Y %H:%M:%S]  ", &local);
    length += static_cast<size_t>(
        snprintf(line + length, sizeof line - length, kFormat, number++, kSession, 7u));
    benchmark::DoNotOptimize(write(file, line, length));
    fsync(file);
  }
  close(file);
  removeTarget(path);
}

void throughZov(benchmark::State &state, bool synced) {
  const std::string path = targetPath(synced);
  zov_init();
  zov_background = 1;  // the log file alone
  zov_log_open(path.c_str());
  int number = 0;
  for (auto _ : state) {
    zov_log(kFormat, number++, kSession, 7u);
  }
  zov_term();
  removeTarget(path);
}

void SyncedByHand(benchmark::State &state) {
  byHand(state, true);
}
void SyncedZov(benchmark::State &state) {
  throughZov(state, true);
}
void NothingToSyncByHand(benchmark::State &state) {
  byHand(state, false);
}
void NothingToSyncZov(benchmark::State &state) {
  throughZov(state, false);
}

BENCHMARK(SyncedByHand)->Name("log-line-synced/posix")->UseRealTime();
BENCHMARK(SyncedZov)->Name("log-line-synced/zov")->UseRealTime();
BENCHMARK(NothingToSyncByHand)->Name("log-line-to-null/posix");
BENCHMARK(NothingToSyncZov)->Name("log-line-to-null/zov");

}  // namespace
