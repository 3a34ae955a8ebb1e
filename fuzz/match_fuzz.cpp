// SPDX-License-Identifier: Apache-2.0
//
// Any name and any pattern against a model. The name is all before the first
// zero byte; both are cut short, since the model tries every possibility.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "support/match_model.h"
#include "zov.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(data, data + size);
  const size_t zero = std::min(text.find('\0'), size);
  const std::string name = text.substr(0, std::min<size_t>(zero, 24));
  const std::string pattern = text.substr(std::min(zero + 1, size), 12);
  const bool expected = zovtest::modelMatches(name.c_str(), pattern.c_str());
  if (zov_match(name.c_str(), pattern.c_str()) != (expected ? 1 : 0)) {
    abort();
  }
  return 0;
}
