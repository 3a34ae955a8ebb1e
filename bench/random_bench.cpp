// SPDX-License-Identifier: Apache-2.0
//
// A draw of 32 bits, single and in bulk, beside std::mt19937 and GLib's generator,
// which draw the same numbers; and the conversion of case beside a loop over libc's
// toupper().
#include <benchmark/benchmark.h>
#include <ctype.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#if defined(ZOV_HAVE_GLIB)
#include <glib.h>
#endif

#include "bench_rows.h"
#include "zov.h"

namespace {

constexpr uint32_t kSeed = 5489;
constexpr size_t kBulk = 100000;

class Zov {
 public:
  static constexpr char kName[] = "zov";
  Zov() {
    zov_init();
    generator_ = zov_randCreate(kSeed);
  }
  ~Zov() { zov_term(); }
  Zov(const Zov &) = delete;
  Zov &operator=(const Zov &) = delete;
  uint32_t draw() { return zov_randGetNext(generator_); }

 private:
  ZOV_RAND generator_;
};

struct Std {
  static constexpr char kName[] = "std";
  uint32_t draw() { return static_cast<uint32_t>(generator()); }
  std::mt19937 generator{kSeed};
};

#if defined(ZOV_HAVE_GLIB)
class Glib {
 public:
  static constexpr char kName[] = "glib";
  Glib() : generator_(g_rand_new_with_seed(kSeed)) {}
  ~Glib() { g_rand_free(generator_); }
  Glib(const Glib &) = delete;
  Glib &operator=(const Glib &) = delete;
  uint32_t draw() { return g_rand_int(generator_); }

 private:
  GRand *generator_;
};
#endif

template <typename Generator>
void Draw(benchmark::State &state) {
  Generator generator;
  Std same;
  if (generator.draw() != same.draw()) {
    state.SkipWithError("another number");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(generator.draw());
  }
}

template <typename Generator>
void DrawBulk(benchmark::State &state) {
  Generator generator;
  std::vector<uint32_t> numbers(kBulk);
  for (auto _ : state) {
    for (uint32_t &number : numbers) {
      number = generator.draw();
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBulk));
}

// Converts a text of 4096 characters.
template <char *(*kConvert)(char *)>
void Upper(benchmark::State &state) {
  std::string text;
  for (int count = 0; count < 4096; ++count) {
    text.push_back("The Quick brown FOX, 42 lazy dogs. "[count % 35]);
  }
  std::string copy;
  for (auto _ : state) {
    copy = text;
    benchmark::DoNotOptimize(kConvert(copy.data()));
  }
  if (copy.compare(0, 9, "THE QUICK") != 0) {
    state.SkipWithError("not converted");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

char *upperLibc(char *text) {
  for (char *at = text; *at != '\0'; ++at) {
    *at = static_cast<char>(toupper(static_cast<unsigned char>(*at)));
  }
  return text;
}

template <typename Generator>
bool addGenerator() {
  return addRows(Generator::kName,
                 {{"draw-int32", Draw<Generator>}, {"draw-bulk", DrawBulk<Generator>}});
}

const bool added = [] {
  addGenerator<Zov>();
  addGenerator<Std>();
#if defined(ZOV_HAVE_GLIB)
  addGenerator<Glib>();
#endif
  addRows("zov", {{"upper", Upper<strupr>}});
  addRows("libc", {{"upper", Upper<upperLibc>}});
  return true;
}();

}  // namespace
