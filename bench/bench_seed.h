// SPDX-License-Identifier: Apache-2.0
//
// The seed of all random data in the benchmarks: 620, or what --seed=N on the
// command line says. Every program reports it with its results.
#ifndef ZOV_BENCH_SEED_H
#define ZOV_BENCH_SEED_H

#include <cstdint>

uint64_t benchSeed();

#endif
