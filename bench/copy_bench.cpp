// SPDX-License-Identifier: Apache-2.0
//
// Copying and comparing files of 1 and 16 MiB, beside the calls of the system in a
// plain loop with blocks of 64 KiB, and beside the system's own copy.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "zov.h"

namespace {

constexpr size_t kBlockBytes = 64 * 1024;

// Two files of equal contents, gone at the end.
struct Files {
  explicit Files(const benchmark::State &state) : bytes(static_cast<size_t>(state.range(0)) << 20) {
    close(mkstemp(first.data()));
    close(mkstemp(second.data()));
    fill(first);
    fill(second);
  }
  ~Files() {
    unlink(first.c_str());
    unlink(second.c_str());
  }
  void fill(const std::string &path) const {
    const std::string contents(bytes, 'x');
    const int file = open(path.c_str(), O_WRONLY);
    benchmark::DoNotOptimize(write(file, contents.data(), bytes));
    close(file);
  }
  const size_t bytes;
  std::string first = "/tmp/zov_copy_bench.XXXXXX";
  std::string second = "/tmp/zov_copy_bench.XXXXXX";
};

// Reads both files block by block, and hands each pair on.
template <typename Each>
void walkByHand(const Files &files, int secondFlags, Each each) {
  static char blocks[2][kBlockBytes];
  const int first = open(files.first.c_str(), O_RDONLY);
  const int second = open(files.second.c_str(), secondFlags);
  for (off_t offset = 0; pread(first, blocks[0], kBlockBytes, offset) > 0; offset += kBlockBytes) {
    each(blocks, second, offset);
  }
  close(second);
  close(first);
}

void compareByHand(const Files &files) {
  walkByHand(files, O_RDONLY, [](char(&blocks)[2][kBlockBytes], int second, off_t offset) {
    benchmark::DoNotOptimize(pread(second, blocks[1], kBlockBytes, offset));
    benchmark::DoNotOptimize(memcmp(blocks[0], blocks[1], kBlockBytes));
  });
}

void compareZov(const Files &files) {
  benchmark::DoNotOptimize(zov_fileCmp(files.first.c_str(), files.second.c_str()));
}

void copyByHand(const Files &files) {
  walkByHand(files, O_RDWR | O_TRUNC, [](char(&blocks)[2][kBlockBytes], int second, off_t offset) {
    benchmark::DoNotOptimize(pwrite(second, blocks[0], kBlockBytes, offset));
  });
}

void copyBySystem(const Files &files) {
  const int first = open(files.first.c_str(), O_RDONLY);
  const int second = open(files.second.c_str(), O_RDWR | O_TRUNC);
  while (copy_file_range(first, nullptr, second, nullptr, files.bytes, 0) > 0) {
  }
  close(second);
  close(first);
}

void rewriteZov(const Files &files) {
  benchmark::DoNotOptimize(zov_fileCopy(files.first.c_str(), files.second.c_str()));
}

void copyZov(const Files &files) {
  benchmark::DoNotOptimize(truncate(files.second.c_str(), 0));
  rewriteZov(files);
}

template <void (*kWork)(const Files &)>
void Run(benchmark::State &state) {
  zov_init();
  const Files files(state);
  for (auto _ : state) {
    kWork(files);
  }
  if (zov_fileCmp(files.first.c_str(), files.second.c_str()) != ZOV_OKAY) {
    state.SkipWithError("the files differ");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(files.bytes));
  zov_term();
}

BENCHMARK_TEMPLATE(Run, compareByHand)->Name("compare/posix")->Arg(1)->Arg(16);
BENCHMARK_TEMPLATE(Run, compareZov)->Name("compare/zov")->Arg(1)->Arg(16);
BENCHMARK_TEMPLATE(Run, copyByHand)->Name("copy/posix")->Arg(1)->Arg(16);
BENCHMARK_TEMPLATE(Run, copyBySystem)->Name("copy/copy_file_range")->Arg(1)->Arg(16);
BENCHMARK_TEMPLATE(Run, copyZov)->Name("copy/zov")->Arg(1)->Arg(16);
BENCHMARK_TEMPLATE(Run, compareByHand)->Name("copy-onto-same/posix")->Arg(1)->Arg(16);
BENCHMARK_TEMPLATE(Run, rewriteZov)->Name("copy-onto-same/zov")->Arg(1)->Arg(16);

}  // namespace
