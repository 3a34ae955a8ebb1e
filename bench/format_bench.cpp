// SPDX-License-Identifier: Apache-2.0
//
// Formatting beside libc's snprintf() and SQLite's: the same format and arguments to both,
// into a buffer with room for the text. The last row makes a string of just the
// right size, beside asprintf().
#include <benchmark/benchmark.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#if defined(ZOV_HAVE_SQLITE)
#include <sqlite3.h>
#endif

#include "zov.h"

namespace {

using Formatter = int (*)(char *, size_t, const char *, ...);

#if defined(ZOV_HAVE_SQLITE)
// SQLite's own engine. It gives the buffer and not the length.
int printSqlite(char *out, size_t size, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  sqlite3_vsnprintf(static_cast<int>(size), out, format, arguments);
  va_end(arguments);
  return 0;
}
#endif

constexpr struct {
  const char *name;
  Formatter print;
} kFormatters[] = {{"zov", zov_snprintf},
#if defined(ZOV_HAVE_SQLITE)
                   {"sqlite", printSqlite},
#endif
                   {"libc", snprintf}};

// SQLite knows no long double.
bool canPrint(const char *peer, const std::string &row) {
  return strcmp(peer, "sqlite") != 0 || row.find("long_double") == std::string::npos;
}

template <typename... Arguments>
void run(benchmark::State &state, Formatter print, const char *format, Arguments... arguments) {
  char text[1024];
  for (auto _ : state) {
    (benchmark::DoNotOptimize(arguments), ...);
    benchmark::DoNotOptimize(print(text, sizeof text, format, arguments...));
    benchmark::ClobberMemory();
  }
}

template <typename... Arguments>
void addRow(const std::string &name, const char *format, Arguments... arguments) {
  for (const auto &peer : kFormatters) {
    if (!canPrint(peer.name, name)) {
      continue;
    }
    benchmark::RegisterBenchmark(
        ("format/" + std::string(peer.name) + '/' + name).c_str(),
        [=](benchmark::State &state) { run(state, peer.print, format, arguments...); });
  }
}

bool addRows() {
  static const std::string longText(500, 'x');
  addRow("plain", "a text without a directive in it\n");
  addRow("int", "%d", 12345);
  addRow("negative", "%d", -7);
  addRow("long", "%ld", INT64_MAX);
  addRow("padded", "%08d|%-8d", 12345, 12345);
  addRow("hex", "%x", 0xDEADBEEFu);
  addRow("pointer", "%p", static_cast<const void *>(&longText));
  addRow("string", "%s", "hello world");
  addRow("strings_padded", "%10s|%-10s", "hello", "world");
  addRow("string_limited", "%.5s", "hello world");
  addRow("string_long", "%s", longText.c_str());
  addRow("char", "%c%c%c", 'a', 'b', 'c');
  addRow("message", "[%02d-%s-%d %02d:%02d:%02d]  table %s: page %u of %lu\n", 12, "Mar", 2024, 9,
         41, 7, "customers", 12u, 99999ul);
  addRow("fixed", "%f", 3.14159);
  addRow("fixed_2", "%.2f", 12345.678);
  addRow("fixed_padded", "%12.3f", -0.0625);
  addRow("fixed_long_double", "%.9Lf", 2.718281828459045235L);
  addRow("exponent", "%e", 12345.678);
  addRow("exponent_small", "%e", 1.7e-300);
  addRow("exponent_large", "%e", 1.7e300);
  addRow("exponent_long_double", "%Le", 1.7e-4900L);
  addRow("general", "%g", 3.25);
  addRow("general_small", "%g", 0.0001);
  addRow("general_exponent", "%g", 1.5e20);
  addRow("general_17", "%.17g", 0.1);
  addRow("infinite", "%f", __builtin_inf());
  return true;
}

const bool added = addRows();

void BM_MakeStr(benchmark::State &state) {
  zov_init();
  for (auto _ : state) {
    zov_freeMem(zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%s%c%s_%010u", "/tmp", '/', "name", 7u),
                ZOV_DEFAULT_TAG);
  }
  zov_term();
}
BENCHMARK(BM_MakeStr)->Name("make-str/zov");

void BM_MakeStrLibc(benchmark::State &state) {
  for (auto _ : state) {
    char *text;
    benchmark::DoNotOptimize(asprintf(&text, "%s%c%s_%010u", "/tmp", '/', "name", 7u));
    free(text);
  }
}
BENCHMARK(BM_MakeStrLibc)->Name("make-str/libc");

}  // namespace
