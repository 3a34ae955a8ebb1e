// SPDX-License-Identifier: Apache-2.0
//
// What fuzz targets begin with: the input's provider, the library, and the stop at
// what must not be.
#ifndef TESTS_SUPPORT_FUZZ_H
#define TESTS_SUPPORT_FUZZ_H

#include <fuzzer/FuzzedDataProvider.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "zov.h"

namespace zovtest {

inline void require(bool right) {
  if (!right) {
    __builtin_trap();
  }
}

}  // namespace zovtest

#endif
