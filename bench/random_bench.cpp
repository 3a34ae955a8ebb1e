// SPDX-License-Identifier: Apache-2.0
//
// A draw of 32 bits beside std::mt19937, single and in bulk, and the conversion
// of case beside a loop over libc's toupper().
#include <benchmark/benchmark.h>
#include <ctype.h>

#include <random>
#include <string>
#include <vector>

#include "zov.h"

namespace {

void BM_Draw(benchmark::State &state) {
  zov_init();
  const ZOV_RAND generator = zov_randCreate(5489);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zov_randGetNext(generator));
  }
  zov_term();
}
BENCHMARK(BM_Draw)->Name("draw-int32/zov");

void BM_DrawStd(benchmark::State &state) {
  std::mt19937 generator(5489);
  for (auto _ : state) {
    benchmark::DoNotOptimize(static_cast<uint32_t>(generator()));
  }
}
BENCHMARK(BM_DrawStd)->Name("draw-int32/std");

constexpr size_t kBulk = 100000;

template <typename Draw>
void drawBulk(benchmark::State &state, Draw draw) {
  std::vector<uint32_t> numbers(kBulk);
  for (auto _ : state) {
    for (uint32_t &number : numbers) {
      number = draw();
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBulk));
}

void BM_DrawBulk(benchmark::State &state) {
  zov_init();
  const ZOV_RAND generator = zov_randCreate(5489);
  drawBulk(state, [=] { return zov_randGetNext(generator); });
  zov_term();
}
BENCHMARK(BM_DrawBulk)->Name("draw-bytes/zov");

void BM_DrawBulkStd(benchmark::State &state) {
  std::mt19937 generator(5489);
  drawBulk(state, [&] { return static_cast<uint32_t>(generator()); });
}
BENCHMARK(BM_DrawBulkStd)->Name("draw-bytes/std");

std::string mixedText() {
  std::string text;
  for (int count = 0; count < 4096; ++count) {
    text.push_back("The Quick brown FOX, 42 lazy dogs. "[count % 35]);
  }
  return text;
}

void BM_Upper(benchmark::State &state) {
  const std::string text = mixedText();
  std::string copy;
  for (auto _ : state) {
    copy = text;
    benchmark::DoNotOptimize(strupr(copy.data()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Upper)->Name("upper/zov");

void BM_UpperLibc(benchmark::State &state) {
  const std::string text = mixedText();
  std::string copy;
  for (auto _ : state) {
    copy = text;
    for (char &character : copy) {
      character = static_cast<char>(toupper(static_cast<unsigned char>(character)));
    }
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_UpperLibc)->Name("upper/libc");

}  // namespace
