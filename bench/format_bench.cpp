// SPDX-License-Identifier: Apache-2.0
//
// Formatting beside libc's snprintf() and those of SQLite, APR, stb and fmt: the same
// arguments to all, into a buffer with room for the text. A peer that prints another
// text than libc does other work and is left out of the row. The last row makes a
// string of just the right size, beside asprintf().
#include <benchmark/benchmark.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#if defined(ZOV_HAVE_APR)
#include <apr_strings.h>
#endif
#if defined(ZOV_HAVE_FMT)
#include <fmt/format.h>
#endif
#if defined(ZOV_HAVE_SQLITE)
#include <sqlite3.h>
#endif
#if defined(ZOV_HAVE_STB)
#include <stb_sprintf.h>
#endif

#include "zov.h"

namespace {

constexpr size_t kTextBytes = 1024;
constexpr char kZov[] = "zov";

using Formatter = int (*)(char *, size_t, const char *, ...);

#if defined(ZOV_HAVE_SQLITE)
// It gives the buffer and not the length.
int printSqlite(char *out, size_t size, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  sqlite3_vsnprintf(static_cast<int>(size), out, format, arguments);
  va_end(arguments);
  return 0;
}
#endif

#if defined(ZOV_HAVE_STB)
int printStb(char *out, size_t size, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = stbsp_vsnprintf(out, static_cast<int>(size), format, arguments);
  va_end(arguments);
  return length;
}
#endif

constexpr Formatter kLibc = snprintf;

constexpr struct {
  const char *name;
  Formatter print;
} kFormatters[] = {
    {kZov, zov_snprintf},    {"libc", kLibc},
#if defined(ZOV_HAVE_APR)
    {"apr", apr_snprintf},
#endif
#if defined(ZOV_HAVE_SQLITE)
    {"sqlite", printSqlite},
#endif
#if defined(ZOV_HAVE_STB)
    {"stb", printStb},
#endif
};

// A row of a peer, whose way to print into a buffer is a function of the buffer.
template <typename Print>
void addPeer(const std::string &peer, const std::string &row, const std::string &expected,
             Print print) {
  char text[kTextBytes];
  print(text);
  if (peer != kZov && text != expected) {
    return;
  }
  benchmark::RegisterBenchmark(("format/" + peer + '/' + row).c_str(),
                               [=](benchmark::State &state) {
                                 char out[kTextBytes];
                                 for (auto _ : state) {
                                   print(out);
                                   benchmark::ClobberMemory();
                                 }
                                 if (out != expected) {
                                   state.SkipWithError("another text than libc's");
                                 }
                               });
}

// The same text by libc's directives and by fmt's.
template <typename... Arguments>
void addRow(const std::string &row, const char *format, [[maybe_unused]] const char *fmtFormat,
            Arguments... arguments) {
  char expected[kTextBytes];
  kLibc(expected, sizeof expected, format, arguments...);
  for (const auto &peer : kFormatters) {
    addPeer(peer.name, row, expected, [=](char *out) {
      benchmark::DoNotOptimize(peer.print(out, kTextBytes, format, arguments...));
    });
  }
#if defined(ZOV_HAVE_FMT)
  addPeer("fmt", row, expected, [=](char *out) {
    *fmt::format_to_n(out, kTextBytes - 1, fmt::runtime(fmtFormat), arguments...).out = '\0';
  });
#endif
}

bool addRows() {
  static const std::string longText(500, 'x');
  addRow("plain", "a text without a directive in it\n", "a text without a directive in it\n");
  addRow("int", "%d", "{}", 12345);
  addRow("negative", "%d", "{}", -7);
  addRow("long", "%ld", "{}", INT64_MAX);
  addRow("padded", "%08d|%-8d", "{:08d}|{:<8d}", 12345, 12345);
  addRow("hex", "%x", "{:x}", 0xDEADBEEFu);
  addRow("pointer", "%p", "{}", static_cast<const void *>(&longText));
  addRow("string", "%s", "{}", "hello world");
  addRow("strings_padded", "%10s|%-10s", "{:>10}|{:<10}", "hello", "world");
  addRow("string_limited", "%.5s", "{:.5}", "hello world");
  addRow("string_long", "%s", "{}", longText.c_str());
  addRow("char", "%c%c%c", "{}{}{}", 'a', 'b', 'c');
  addRow("message", "[%02d-%s-%d %02d:%02d:%02d]  table %s: page %u of %lu\n",
         "[{:02d}-{}-{} {:02d}:{:02d}:{:02d}]  table {}: page {} of {}\n", 12, "Mar", 2024, 9, 41,
         7, "customers", 12u, 99999ul);
  addRow("fixed", "%f", "{:f}", 3.14159);
  addRow("fixed_2", "%.2f", "{:.2f}", 12345.678);
  addRow("fixed_padded", "%12.3f", "{:12.3f}", -0.0626);
  addRow("fixed_long_double", "%.9Lf", "{:.9f}", 2.718281828459045235L);
  addRow("exponent", "%e", "{:e}", 12345.678);
  addRow("exponent_small", "%e", "{:e}", 1.7e-300);
  addRow("exponent_large", "%e", "{:e}", 1.7e300);
  addRow("exponent_long_double", "%Le", "{:e}", 1.7e-900L);
  addRow("general", "%g", "{:g}", 3.25);
  addRow("general_small", "%g", "{:g}", 0.0001);
  addRow("general_exponent", "%g", "{:g}", 1.5e20);
  addRow("general_17", "%.17g", "{:.17g}", 0.1);
  addRow("infinite", "%f", "{:f}", __builtin_inf());
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
