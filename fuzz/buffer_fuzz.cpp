// SPDX-License-Identifier: Apache-2.0
//
// Typed buffers: the items that an input stands for are put and come back, in pieces of
// a size that the input chooses; and items are got from the input itself.
#include "config/zovbuffer_walk.h"
#include "support/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int32_t status = zov_init();
  const bool swap = size % 2 != 0;
  zovtest::BufferEnds ends(swap ? 1 : 0);
  ends.step = size == 0 ? 1 : data[0] + 1;
  zovtest::require(status == ZOV_OKAY && zovtest::itemsArrive(data, size, swap, ends));
  zov_inputBuffReset(ends.input);
  ends.bytes.assign(reinterpret_cast<const char *>(data), size);
  ends.taken = 0;
  zovtest::require(zovtest::BufferWalk{data, size, swap, false, nullptr, ends.input}.run());
  return 0;
}
