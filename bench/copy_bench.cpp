// SPDX-License-Identifier: Apache-2.0
//
// Copying and comparing files of one mebibyte, beside the same calls of the
// system in a plain loop with blocks of the same size.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "zov.h"

namespace {

constexpr size_t kBlockBytes = 1024;
constexpr size_t kFileBytes = 1024 * 1024;

// Two files of equal contents, gone at the end.
struct Files {
  Files() {
    close(mkstemp(first.data()));
    close(mkstemp(second.data()));
    fill(first);
    fill(second);
  }
  ~Files() {
    unlink(first.c_str());
    unlink(second.c_str());
  }
  static void fill(const std::string &path) {
    const std::string bytes(kFileBytes, 'x');
    const int file = open(path.c_str(), O_WRONLY);
    benchmark::DoNotOptimize(write(file, bytes.data(), bytes.size()));
    close(file);
  }
  std::string first = "/tmp/zov_copy_bench.XXXXXX";
  std::string second = "/tmp/zov_copy_bench.XXXXXX";
};

// Reads both files block by block until `each` says no more is to be read.
template <typename Each>
void walkByHand(const Files &files, int secondFlags, Each each) {
  char blocks[2][kBlockBytes];
  const int first = open(files.first.c_str(), O_RDONLY);
  const int second = open(files.second.c_str(), secondFlags);
  for (off_t offset = 0; pread(first, blocks[0], kBlockBytes, offset) > 0; offset += kBlockBytes) {
    each(blocks, second, offset);
  }
  close(second);
  close(first);
}

void CompareByHand(benchmark::State &state) {
  const Files files;
  for (auto _ : state) {
    walkByHand(files, O_RDONLY, [](char(&blocks)[2][kBlockBytes], int second, off_t offset) {
      benchmark::DoNotOptimize(pread(second, blocks[1], kBlockBytes, offset));
      benchmark::DoNotOptimize(memcmp(blocks[0], blocks[1], kBlockBytes));
    });
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileBytes));
}
BENCHMARK(CompareByHand);

void CompareZov(benchmark::State &state) {
  const Files files;
  zov_init();
  for (auto _ : state) {
    benchmark::DoNotOptimize(zov_fileCmp(files.first.c_str(), files.second.c_str()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileBytes));
  zov_term();
}
BENCHMARK(CompareZov);

void CopyByHand(benchmark::State &state) {
  const Files files;
  for (auto _ : state) {
    walkByHand(files, O_RDWR | O_TRUNC,
               [](char(&blocks)[2][kBlockBytes], int second, off_t offset) {
                 benchmark::DoNotOptimize(pwrite(second, blocks[0], kBlockBytes, offset));
               });
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileBytes));
}
BENCHMARK(CopyByHand);

void copyZov(benchmark::State &state, bool emptied) {
  const Files files;
  zov_init();
  for (auto _ : state) {
    if (emptied) {
      benchmark::DoNotOptimize(truncate(files.second.c_str(), 0));
    }
    benchmark::DoNotOptimize(zov_fileCopy(files.first.c_str(), files.second.c_str()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileBytes));
  zov_term();
}

void CopyZov(benchmark::State &state) {
  copyZov(state, true);
}
void CopyZovOntoTheSame(benchmark::State &state) {
  copyZov(state, false);
}
BENCHMARK(CopyZov);
BENCHMARK(CopyZovOntoTheSame);

}  // namespace
