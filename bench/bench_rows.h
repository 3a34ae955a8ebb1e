// SPDX-License-Identifier: Apache-2.0
//
// How a program adds its rows: a table for each peer, which has its name in kName.
// A row is called operation/peer/argument.
#ifndef BENCH_BENCH_ROWS_H
#define BENCH_BENCH_ROWS_H

#include <benchmark/benchmark.h>

#include <initializer_list>
#include <string>

#include "zov.h"

#if defined(ZOV_HAVE_APR)
#include <apr_general.h>
#endif

struct BenchRow {
  const char *operation;
  void (*run)(benchmark::State &state);
  void (*apply)(benchmark::internal::Benchmark *row) = nullptr;  // arguments, threads
};

// Adds a peer's rows; applyToAll is for each of them.
inline bool addRows(const std::string &peer, std::initializer_list<BenchRow> rows,
                    void (*applyToAll)(benchmark::internal::Benchmark *row) = nullptr) {
  for (const BenchRow &row : rows) {
    auto *added = benchmark::RegisterBenchmark((row.operation + ("/" + peer)).c_str(), row.run);
    for (const auto apply : {applyToAll, row.apply}) {
      if (apply != nullptr) {
        apply(added);
      }
    }
  }
  return true;
}

// The library, and APR where it is a peer, started for each of a row's runs.
inline void startLibraries(const benchmark::State &) {
  zov_init();
#if defined(ZOV_HAVE_APR)
  apr_initialize();
#endif
}

inline void stopLibraries(const benchmark::State &) {
#if defined(ZOV_HAVE_APR)
  apr_terminate();
#endif
  zov_term();
}

// What all threads of a row share.
template <typename Shared>
inline Shared *common = nullptr;

using RowEnd = void(const benchmark::State &state);

// Has each of a row's runs begin with kBegin and the making of what its threads share,
// and end with the opposite.
template <typename Shared, RowEnd kBegin, RowEnd kEnd>
void withCommon(benchmark::internal::Benchmark *row) {
  row->Setup([](const benchmark::State &state) {
    kBegin(state);
    common<Shared> = new Shared;
  });
  row->Teardown([](const benchmark::State &state) {
    delete common<Shared>;
    kEnd(state);
  });
}

// Wall time on one, two and four threads.
inline void onThreads(benchmark::internal::Benchmark *row) {
  row->ThreadRange(1, 4)->UseRealTime();
}

#endif
