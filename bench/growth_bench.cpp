// SPDX-License-Identifier: Apache-2.0
//
// How the cost of an operation grows with what is there already: tags, queued
// messages, bytes of a file in memory, keys of an INI file. Names in a directory
// are in memstore_bench.cpp, sync objects in sync_bench.cpp.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <random>
#include <string>
#include <vector>

#include "bench_seed.h"
#include "zov.h"

namespace {

constexpr uint32_t kBlockBytes = 4096;
constexpr char kPath[] = "/growth";

// A block on one of many tags, at random: the tags' records leave the caches.
void Tags(benchmark::State &state) {
  zov_init();
  std::vector<ZOV_TAG> tags(static_cast<size_t>(state.range(0)));
  for (ZOV_TAG &tag : tags) {
    tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  }
  std::mt19937 random(static_cast<uint32_t>(benchSeed()));
  for (auto _ : state) {
    const ZOV_TAG tag = tags[random() % tags.size()];
    void *block = zov_getMem(64, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
    benchmark::DoNotOptimize(block);
    zov_freeMem(block, tag);
  }
  zov_term();
}
BENCHMARK(Tags)->Name("tags-there/zov")->RangeMultiplier(10)->Range(1, 1'000'000);

// A message in and one out, of a queue that holds many.
void Messages(benchmark::State &state) {
  zov_init();
  zov_queueInit(0);
  ZOV_QUEUE queue = zov_queueCreate("growth");
  for (int64_t held = 0; held < state.range(0); ++held) {
    zov_queueWrite(queue, 1, 1, 2, 0);
  }
  for (auto _ : state) {
    uint64_t data = 0;
    zov_queueWrite(queue, 1, 1, 2, 0);
    benchmark::DoNotOptimize(zov_queueRead(queue, &data, nullptr, nullptr, ZOV_WAIT_FOREVER));
  }
  zov_queueTerm(1);
  zov_term();
}
BENCHMARK(Messages)->Name("messages-there/zov")->RangeMultiplier(10)->Range(1, 1'000'000);

// 4 KiB at random places of a file in memory of so many KiB.
void FileBytes(benchmark::State &state) {
  zov_init();
  const int64_t blocks = state.range(0) * 1024 / kBlockBytes;
  std::vector<char> block(kBlockBytes, 'x');
  ZOV_FILE file = zov_fileOpen(kPath, O_RDWR | O_CREAT, ZOV_FILE_MEMORY);
  for (int64_t number = 0; number < blocks; ++number) {
    zov_fileSeekWrite(file, number * kBlockBytes, block.data(), kBlockBytes);
  }
  std::mt19937_64 random(benchSeed());
  for (auto _ : state) {
    const int64_t number = static_cast<int64_t>(random() % static_cast<uint64_t>(blocks));
    if (zov_fileSeekRead(file, number * kBlockBytes, block.data(), kBlockBytes) != kBlockBytes) {
      state.SkipWithError("short read");
      break;
    }
  }
  zov_fileClose(file);
  zov_term();
}
BENCHMARK(FileBytes)->Name("kib-in-file/zov")->RangeMultiplier(16)->Range(4, 1 << 20);

std::string keyOf(int64_t number) {
  return "key" + std::to_string(number);
}

// An INI file in memory with so many keys in one section.
std::string iniText(int64_t keys) {
  std::string text = "[section]\n";
  for (int64_t number = 0; number < keys; ++number) {
    text += keyOf(number) + "=value\n";
  }
  return text;
}

void writeIni(int64_t keys) {
  const std::string text = iniText(keys);
  ZOV_FILE file = zov_fileOpen(kPath, O_RDWR | O_CREAT | O_TRUNC, ZOV_FILE_MEMORY);
  zov_fileWrite(file, text.data(), static_cast<uint32_t>(text.size()));
  zov_fileClose(file);
}

void IniGet(benchmark::State &state) {
  zov_init();
  writeIni(state.range(0));
  std::mt19937_64 random(benchSeed());
  char value[16];
  zov_iniGetEx(kPath, "section", "key0", value, sizeof value, ZOV_FILE_MEMORY);  // reads the file
  for (auto _ : state) {
    const std::string key =
        keyOf(static_cast<int64_t>(random() % static_cast<uint64_t>(state.range(0))));
    if (zov_iniGetEx(kPath, "section", key.c_str(), value, sizeof value, ZOV_FILE_MEMORY) !=
        ZOV_OKAY) {
      state.SkipWithError("a key is missing");
      break;
    }
  }
  zov_term();
}
BENCHMARK(IniGet)->Name("ini-keys-get/zov")->RangeMultiplier(10)->Range(10, 10'000)->Arg(60'000);

void IniSet(benchmark::State &state) {
  zov_init();
  writeIni(state.range(0));
  int64_t round = 0;
  for (auto _ : state) {
    const std::string value = std::to_string(++round);
    if (zov_iniSetEx(kPath, "section", "key0", value.c_str(), ZOV_FILE_MEMORY) != ZOV_OKAY) {
      state.SkipWithError("not set");
      break;
    }
  }
  zov_term();
}
BENCHMARK(IniSet)->Name("ini-keys-set/zov")->RangeMultiplier(10)->Range(10, 10'000)->Arg(60'000);

}  // namespace
