// SPDX-License-Identifier: Apache-2.0
//
// Text streams over hostile files, in every mode and encoding, beside the
// model of the tests.
#include "support/fuzz.h"
#include "text/zov_stream_walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int32_t status = zov_init();
  zovtest::require(status == ZOV_OKAY && zovtest::StreamWalk(data, size).run() == nullptr);
  return 0;
}
